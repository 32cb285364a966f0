// The lip template reader over arbitrary text: every refusal is a runtime error with the
// member's prefix, and a template that is accepted drives every mask operation on keypoints
// taken from the rest of the input without leaving its buffers or returning values out of range.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "le/tessera/le_lip_contour.h"
#include "le/tessera/le_tessera_pi.h"

namespace {
constexpr int kCanvas = 48;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::vector<le::tessera::LipContour> lc;
  try {
    lc.push_back(le::tessera::LipContour::fromTemplateJson(text, kCanvas));
  } catch (const std::runtime_error& e) {
    if (std::strncmp(e.what(), "lip_template.v1.json: ", 22) != 0) std::abort();
    return 0;
  }
  // Keypoints from the input's bytes: mostly on the canvas, some far away or not finite.
  std::vector<float> kp(63);
  for (size_t i = 0; i < kp.size(); ++i) {
    const uint8_t b = size ? data[(i * 7) % size] : 0;
    kp[i] = b == 255 ? NAN : b == 254 ? 1e30f : (float(b) - 127.f) / 100.f;
  }
  const size_t px = size_t(kCanvas) * kCanvas;
  std::vector<float> plane(px);
  lc[0].contourF32Canvas(kp.data(), plane.data());
  for (float v : plane)
    if (!(v >= 0.f && v <= 1.f)) std::abort();
  const le::tessera::UnifiedPi pi(kCanvas, true, 1.2f, {6, 12, 17, 18, 19, 20}, 0.05f, 0.08f, 0.015f);
  std::vector<uint8_t> mask(px);
  const double canon[2] = {24, 30};
  int32_t sy = 0, sx = 0;
  lc[0].deliveredU8AndShift(kp.data(), pi, canon, mask.data(), sy, sx);
  lc[0].deliveredU8(kp.data(), pi, mask.data());
  return 0;
}
