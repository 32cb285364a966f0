// The member loader over an arbitrary manifest and sidecar: the first two bytes give the
// manifest's length; the rest is the sidecar. Whatever loads must be self-consistent, and
// nothing outside the bundle is ever named.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz/fuzz_scratch.h"
#include "le/tessera/le_bundle_tessera.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  static const std::string& dir = le::fuzz::scratchDir("tessera_members_fuzz");
  static const bool made = [] {
    le::fuzz::putFile(dir + "/tessera_bank.v1.mp4", "t", 1);
    le::fuzz::putFile(dir + "/tessera_head.v1.pt", "w", 1);
    le::fuzz::putFile(dir + "/tessera_head.v1.json", "{}", 2);
    return true;
  }();
  (void)made;
  const size_t split = std::min<size_t>(size - 2, size_t(data[0]) | size_t(data[1]) << 8);
  const char* text = reinterpret_cast<const char*>(data + 2);
  le::fuzz::putFile(dir + "/manifest.json", text, split);
  le::fuzz::putFile(dir + "/tessera_bank.v1.json", text + split, size - 2 - split);

  try {
    const le::TesseraCarriage c = le::tesseraCarriage(dir);
    for (const std::string& p : c.paths)
      if (p.compare(0, dir.size() + 1, dir + "/") != 0 || p.find("..") != std::string::npos) std::abort();
  } catch (const std::runtime_error&) {
  }
  try {
    const le::TesseraAttachInputs in = le::loadTesseraMembers(dir);
    const size_t n = static_cast<size_t>(in.n_donors);
    if (n < 1 || n > 1024 || in.track_order.size() != n || in.cent.size() != 2 * n || in.aperture.size() != n)
      std::abort();
    std::vector<char> seen(n, 0);
    for (int32_t v : in.track_order) {
      if (v < 0 || static_cast<size_t>(v) >= n || seen[static_cast<size_t>(v)]) std::abort();
      seen[static_cast<size_t>(v)] = 1;
    }
    if (in.band_w < 1 || in.band_h < 1 || in.bank_pix_fmt.empty()) std::abort();
  } catch (const std::runtime_error&) {
  }
  return 0;
}
