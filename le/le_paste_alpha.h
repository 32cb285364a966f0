// The paste's per-pixel source position and mask alpha, shared by the vector Lanczos row and
// the compositor's planar modes so that every mode blends under the same weight.
#pragma once

#include <cmath>
#include <cstdint>

namespace le::simd::detail {

// Source position of one output pixel, or !ok when it falls outside the crop.
struct PastePos {
  int ix, iy, px, py;
  int ok;  // an int: copying the struct must not mix byte and word accesses
};

inline PastePos pastePos(int sx, int sy, int crop) {
  const int ix = sx >> 10, iy = sy >> 10;
  return PastePos{ix, iy, (sx >> 5) & 31, (sy >> 5) & 31, sx >= -1024 && sy >= -1024 && ix < crop && iy < crop};
}

// i / 255 for every byte i, rounded once like the division it replaces.
struct ByteFractions {
  float v[256];
  constexpr ByteFractions() : v() {
    for (int i = 0; i < 256; ++i) v[i] = static_cast<float>(i) / 255.0f;
  }
};
inline constexpr ByteFractions kByteFractions{};

// Bilinear mask weight of the position, in [0, 1] after the division by 255.
inline float pasteAlpha(const uint8_t* mask, int crop, const float* bilinear, const PastePos& p) {
  const auto m = [&](int x, int y) -> float {
    return (x >= 0 && x < crop && y >= 0 && y < crop) ? static_cast<float>(mask[y * crop + x]) : 0.0f;
  };
  const float wx0 = bilinear[2 * p.px], wx1 = bilinear[2 * p.px + 1];
  const float wy0 = bilinear[2 * p.py], wy1 = bilinear[2 * p.py + 1];
  const float v = ((wx1 * m(p.ix + 1, p.iy + 1) + wx0 * m(p.ix, p.iy + 1)) * wy1) +
                  ((wx1 * m(p.ix + 1, p.iy) + wx0 * m(p.ix, p.iy)) * wy0);
  // The rounded weight is almost always a byte value: look its quotient up instead of
  // putting a division on every pixel's critical path (same value either way).
  const float r = std::rint(v);
  if (r >= 0.0f && r <= 255.0f) return kByteFractions.v[static_cast<int>(r)];
  return r / 255.0f;
}

}  // namespace le::simd::detail
