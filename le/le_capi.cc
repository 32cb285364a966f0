// The flat interface of the engine context family.
#include "le/le.h"

#include "le/le_error.h"

namespace le::err {

std::string& slot(Family f) {
  thread_local std::string strings[static_cast<int>(Family::Count)];
  return strings[static_cast<int>(f)];
}

void setErr(Family f, const char* fn, const std::exception& e) {
  std::string& s = slot(f);
  s = fn;
  s += ": ";
  s += e.what();
}

}  // namespace le::err

extern "C" {

LE_API const char* le_last_error(void) { return le::err::slot(le::err::Family::Ctx).c_str(); }

LE_API int le_host_kp_rows(void) { return le::kHostKpRows; }

}  // extern "C"
