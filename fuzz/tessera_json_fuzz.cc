// The borrow members' JSON reader over arbitrary bytes: a value or one of its runtime errors,
// never a crash, a hang or another exception.
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

#include "le/tessera/le_bundle_tessera.h"

namespace {

using le::tessera::json::JVal;

size_t walk(const JVal& v) {
  size_t n = 1;
  if (v.kind < JVal::Null || v.kind > JVal::Object) std::abort();
  for (const JVal& e : v.arr) n += walk(e);
  for (const auto& m : v.obj) {
    if (v.get(m.first) == nullptr) std::abort();
    n += walk(m.second);
  }
  return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  try {
    const JVal v = le::tessera::json::JParser(text).parse();
    if (walk(v) > size + 1) std::abort();  // every value consumed at least one byte
  } catch (const std::runtime_error&) {
  }
  return 0;
}
