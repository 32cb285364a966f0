// Limited-range BT.601 4:2:0 rows to packed RGB, compiled once per x86 target (this file
// is re-included by foreach_target.h) with run-time dispatch.

// SSSE3 is the oldest target compiled; it also serves as the baseline slot of every table.
#ifndef HWY_BASELINE_TARGETS
#define HWY_BASELINE_TARGETS HWY_SSSE3
#endif
#ifndef HWY_WANT_AVX3_DL
#define HWY_WANT_AVX3_DL
#endif

#ifndef LE_YUV2RGB_SCALAR_ONCE
#define LE_YUV2RGB_SCALAR_ONCE

#include "le/le_simd.h"

namespace le::simd::detail {

inline uint8_t clampByte(int v) { return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v)); }

// One pixel: 32-bit integer arithmetic, >> is an arithmetic shift.
inline void yuvPixel(int Y, int U, int V, uint8_t* rgb) {
  const int L = 298 * (Y - 16) + 128, D = U - 128, E = V - 128;
  rgb[0] = clampByte((L + 409 * E) >> 8);
  rgb[1] = clampByte((L - 100 * D - 208 * E) >> 8);
  rgb[2] = clampByte((L + 516 * D) >> 8);
}

// Lane i of a pixel vector takes chroma lane (i >> 1) * step.
alignas(64) constexpr int32_t kChromaStep1[16] = {0, 0, 1, 1, 2, 2, 3, 3, 4, 4, 5, 5, 6, 6, 7, 7};
alignas(64) constexpr int32_t kChromaStep2[16] = {0, 0, 2, 2, 4, 4, 6, 6, 8, 8, 10, 10, 12, 12, 14, 14};

}  // namespace le::simd::detail

#endif  // LE_YUV2RGB_SCALAR_ONCE

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "le/le_yuv2rgb_simd.cc"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace le::simd {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using D32 = hn::ScalableTag<int32_t>;
using V32 = hn::Vec<D32>;

// Chroma of the pixel lanes starting at even pixel px, widened to one lane per pixel.
template <int kStep>
HWY_INLINE V32 ChromaLanes(const uint8_t* HWY_RESTRICT c, size_t px) {
  const D32 d;
  if constexpr (kStep == 1) {
    const hn::Half<D32> dh;
    const hn::Rebind<uint8_t, decltype(dh)> d8;
    const V32 v = hn::ZeroExtendVector(d, hn::PromoteTo(dh, hn::LoadU(d8, c + px / 2)));
    return hn::TableLookupLanes(v, hn::SetTableIndices(d, detail::kChromaStep1));
  } else {
    const hn::Rebind<uint8_t, D32> d8;
    const V32 v = hn::PromoteTo(d, hn::LoadU(d8, c + px));
    return hn::TableLookupLanes(v, hn::SetTableIndices(d, detail::kChromaStep2));
  }
}

template <int kStep>
HWY_INLINE void RowVectors(const uint8_t* HWY_RESTRICT y, const uint8_t* HWY_RESTRICT u,
                           const uint8_t* HWY_RESTRICT v, size_t width, uint8_t* HWY_RESTRICT rgb,
                           size_t& x_out) {
  const D32 d;
  const hn::Repartition<int16_t, D32> d16;
  const hn::Half<decltype(d16)> d16h;
  const hn::Repartition<uint8_t, D32> d8;
  const hn::Half<decltype(d8)> d8h;
  const hn::Rebind<uint8_t, D32> dq8;
  const size_t N = hn::Lanes(d), N8 = hn::Lanes(d8);
  const V32 k16 = hn::Set(d, 16), k128 = hn::Set(d, 128), k298 = hn::Set(d, 298);
  const V32 k409 = hn::Set(d, 409), k100 = hn::Set(d, 100), k208 = hn::Set(d, 208);
  const V32 k516 = hn::Set(d, 516);
  // Interleaved UV reads one byte past the last V sample the block needs.
  const size_t guard = kStep == 2 ? 1 : 0;
  size_t x = 0;
  for (; x + N8 + guard <= width; x += N8) {
    hn::Vec<decltype(d16h)> r16[4], g16[4], b16[4];
    for (size_t q = 0; q < 4; ++q) {
      const size_t px = x + q * N;
      const V32 L = hn::Add(hn::Mul(hn::Sub(hn::PromoteTo(d, hn::LoadU(dq8, y + px)), k16), k298), k128);
      const V32 D = hn::Sub(ChromaLanes<kStep>(u, px), k128);
      const V32 E = hn::Sub(ChromaLanes<kStep>(v, px), k128);
      const V32 R = hn::ShiftRight<8>(hn::Add(L, hn::Mul(k409, E)));
      const V32 G = hn::ShiftRight<8>(hn::Sub(hn::Sub(L, hn::Mul(k100, D)), hn::Mul(k208, E)));
      const V32 B = hn::ShiftRight<8>(hn::Add(L, hn::Mul(k516, D)));
      r16[q] = hn::DemoteTo(d16h, R);  // |values| < 2^10: exact
      g16[q] = hn::DemoteTo(d16h, G);
      b16[q] = hn::DemoteTo(d16h, B);
    }
    // Saturating narrowing to bytes is the clamp to [0, 255].
    const auto pack = [&](hn::Vec<decltype(d16h)>* c) {
      const auto lo = hn::Combine(d16, c[1], c[0]);
      const auto hi = hn::Combine(d16, c[3], c[2]);
      return hn::Combine(d8, hn::DemoteTo(d8h, hi), hn::DemoteTo(d8h, lo));
    };
    hn::StoreInterleaved3(pack(r16), pack(g16), pack(b16), d8, rgb + 3 * x);
  }
  x_out = x;
}

void Yuv420RowToRgb24(const uint8_t* HWY_RESTRICT y, const uint8_t* HWY_RESTRICT u,
                      const uint8_t* HWY_RESTRICT v, int width, int chroma_step,
                      uint8_t* HWY_RESTRICT rgb) {
  if (width <= 0) return;
  const size_t w = static_cast<size_t>(width);
  size_t x = 0;
  if (chroma_step == 1)
    RowVectors<1>(y, u, v, w, rgb, x);
  else if (chroma_step == 2)
    RowVectors<2>(y, u, v, w, rgb, x);
  for (; x < w; ++x) {
    const size_t c = (x >> 1) * static_cast<size_t>(chroma_step);
    detail::yuvPixel(y[x], u[c], v[c], rgb + 3 * x);
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace le::simd
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace le::simd {

HWY_EXPORT(Yuv420RowToRgb24);

void yuv420RowToRgb24(const uint8_t* y, const uint8_t* u, const uint8_t* v, int width,
                      int chroma_step, uint8_t* rgb) {
  HWY_DYNAMIC_DISPATCH(Yuv420RowToRgb24)(y, u, v, width, chroma_step, rgb);
}

}  // namespace le::simd
#endif  // HWY_ONCE
