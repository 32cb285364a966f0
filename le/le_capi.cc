// The flat interface of the engine context family.
#include "le/le.h"

#include <cstring>
#include <string>

#include "le/le_bundle.h"
#include "le/le_error.h"
#include "le/le_imx.h"

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

LE_API int le_bundle_resolve_handle(const char* bundle, char* out, size_t cap) {
  using le::err::Family;
  le::err::clear(Family::Ctx);
  if (!bundle || !out || cap == 0) return -1;
  out[0] = 0;
  return le::err::guard(Family::Ctx, "le_bundle_resolve_handle", -1, [&] {
    const std::string dir = le::resolveBundlePath(bundle);
    if (cap < dir.size() + 1) {
      le::err::set(Family::Ctx, "le_bundle_resolve_handle: buffer too small");
      return -1;
    }
    std::memcpy(out, dir.c_str(), dir.size() + 1);
    return 1;
  });
}

LE_API int le_bundle_resolve_member(const char* bundle, const char* member, char* out, size_t cap) {
  using le::err::Family;
  le::err::clear(Family::Ctx);
  if (!bundle || !member || !out || cap == 0) return -1;
  out[0] = 0;
  return le::err::guard(Family::Ctx, "le_bundle_resolve_member", -1, [&] {
    const std::string path = le::resolveMember(le::resolveBundlePath(bundle), member);
    if (cap < path.size() + 1) return -1;
    std::memcpy(out, path.c_str(), path.size() + 1);
    return le::canOpenForRead(path) ? 1 : 0;
  });
}

}  // extern "C"
