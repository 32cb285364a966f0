// Limited-range BT.601 4:2:0 rows to packed RGB, and the full-range colour step of the JPEG
// stills decoder, compiled once per x86 target (this file is re-included by foreach_target.h)
// with run-time dispatch.

#include "le/le_simd_targets.h"

#ifndef LE_YUV2RGB_SCALAR_ONCE
#define LE_YUV2RGB_SCALAR_ONCE

#include "le/le_simd.h"
#include "le/le_util.h"

namespace le::simd::detail {

using le::clampByte;

// One pixel: 32-bit integer arithmetic, >> is an arithmetic shift.
inline void yuvPixel(int Y, int U, int V, uint8_t* rgb) {
  const int L = 298 * (Y - 16) + 128, D = U - 128, E = V - 128;
  rgb[0] = clampByte((L + 409 * E) >> 8);
  rgb[1] = clampByte((L - 100 * D - 208 * E) >> 8);
  rgb[2] = clampByte((L + 516 * D) >> 8);
}

// stb_image's scalar JPEG colour conversion, 20 fractional bits; the green term from Cb keeps
// only its top 16 bits, as stb's does.
constexpr int32_t jpegFixed(float x) { return static_cast<int32_t>(x * 4096.0f + 0.5f) * 256; }
constexpr int32_t kJpegCrR = jpegFixed(1.40200f);
constexpr int32_t kJpegCrG = -jpegFixed(0.71414f);
constexpr int32_t kJpegCbG = -jpegFixed(0.34414f);
constexpr int32_t kJpegCbB = jpegFixed(1.77200f);
constexpr int32_t kJpegTop16 = -65536;  // 0xffff0000

inline void jpegPixel(int Y, int Cb, int Cr, uint8_t* rgb) {
  const int y = (Y << 20) + (1 << 19), cr = Cr - 128, cb = Cb - 128;
  rgb[0] = clampByte((y + cr * kJpegCrR) >> 20);
  rgb[1] = clampByte((y + cr * kJpegCrG + ((cb * kJpegCbG) & kJpegTop16)) >> 20);
  rgb[2] = clampByte((y + cb * kJpegCbB) >> 20);
}

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

// 16-bit lanes, exactly equal to the 32-bit formula: with y' = Y - 16,
//   (298 y' + 128 + 409 E) >> 8 = y' + E + ((42 y' + 128 + 153 E) >> 8)
//   (298 y' + 128 - 100 D - 208 E) >> 8 = y' - E + ((42 y' + 128 - 100 D + 48 E) >> 8)
//   (298 y' + 128 + 516 D) >> 8 = y' + 2 D + ((42 y' + 128 + 4 D) >> 8)
// (the multiples of 256 leave the floor division whole), and every bracket stays within
// [-20128, 29597].
using D16 = hn::ScalableTag<int16_t>;
using V16 = hn::Vec<D16>;
using D32 = hn::Repartition<int32_t, D16>;

// Duplicates each 32-bit lane's low half into both 16-bit halves: chroma per pixel pair.
HWY_INLINE V16 PerPixel(hn::Vec<D32> c) { return hn::BitCast(D16(), hn::Or(c, hn::ShiftLeft<16>(c))); }

// U and V of the pixels starting at even pixel px, one 16-bit lane per pixel.
template <int kStep>
HWY_INLINE void Chroma(const uint8_t* HWY_RESTRICT u, const uint8_t* HWY_RESTRICT v, size_t px, V16& cu,
                       V16& cv) {
  const D32 d32;
  if constexpr (kStep == 1) {
    const hn::Rebind<uint8_t, D32> d8;
    cu = PerPixel(hn::PromoteTo(d32, hn::LoadU(d8, u + px / 2)));
    cv = PerPixel(hn::PromoteTo(d32, hn::LoadU(d8, v + px / 2)));
  } else {
    // Interleaved UV: one 16-bit pair per chroma sample, V the high byte.
    const hn::Rebind<uint16_t, D32> d16u;
    const hn::Repartition<uint8_t, decltype(d16u)> d8;
    const auto pairs = hn::BitCast(d32, hn::PromoteTo(hn::RebindToUnsigned<D32>(),
                                                      hn::BitCast(d16u, hn::LoadU(d8, u + px))));
    cu = PerPixel(hn::And(pairs, hn::Set(d32, 0xFF)));
    cv = PerPixel(hn::ShiftRight<8>(pairs));
  }
}

template <int kStep>
HWY_INLINE void RowVectors(const uint8_t* HWY_RESTRICT y, const uint8_t* HWY_RESTRICT u,
                           const uint8_t* HWY_RESTRICT v, size_t width, uint8_t* HWY_RESTRICT rgb,
                           size_t& x_out) {
  const D16 d;
  const hn::Rebind<uint8_t, D16> d8h;
  const hn::Repartition<uint8_t, D16> d8;
  const size_t N = hn::Lanes(d), N8 = hn::Lanes(d8);
  const V16 k16 = hn::Set(d, 16), k128 = hn::Set(d, 128), k42 = hn::Set(d, 42);
  const V16 k153 = hn::Set(d, 153), k100 = hn::Set(d, 100), k48 = hn::Set(d, 48);
  size_t x = 0;
  for (; x + N8 <= width; x += N8) {
    hn::Vec<decltype(d8h)> r[2], g[2], b[2];
    for (size_t h = 0; h < 2; ++h) {
      const size_t px = x + h * N;
      V16 cu, cv;
      Chroma<kStep>(u, v, px, cu, cv);
      const V16 D = hn::Sub(cu, k128), E = hn::Sub(cv, k128);
      const V16 yp = hn::Sub(hn::PromoteTo(d, hn::LoadU(d8h, y + px)), k16);
      const V16 y42 = hn::Add(hn::Mul(yp, k42), k128);
      const V16 R = hn::Add(hn::Add(yp, E), hn::ShiftRight<8>(hn::Add(y42, hn::Mul(E, k153))));
      const V16 G = hn::Add(hn::Sub(yp, E),
                            hn::ShiftRight<8>(hn::Add(hn::Sub(y42, hn::Mul(D, k100)), hn::Mul(E, k48))));
      const V16 B = hn::Add(hn::Add(yp, hn::ShiftLeft<1>(D)), hn::ShiftRight<8>(hn::Add(y42, hn::ShiftLeft<2>(D))));
      // Saturating narrowing to bytes is the clamp to [0, 255].
      r[h] = hn::DemoteTo(d8h, R);
      g[h] = hn::DemoteTo(d8h, G);
      b[h] = hn::DemoteTo(d8h, B);
    }
    hn::StoreInterleaved3(hn::Combine(d8, r[1], r[0]), hn::Combine(d8, g[1], g[0]), hn::Combine(d8, b[1], b[0]),
                          d8, rgb + 3 * x);
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
  else if (chroma_step == 2 && v == u + 1)
    RowVectors<2>(y, u, v, w, rgb, x);
  for (; x < w; ++x) {
    const size_t c = (x >> 1) * static_cast<size_t>(chroma_step);
    detail::yuvPixel(y[x], u[c], v[c], rgb + 3 * x);
  }
}

// The same arithmetic as detail::jpegPixel in 32-bit lanes; the saturating narrowing is its clamp.
void JpegYCbCrRowToRgb24(const uint8_t* HWY_RESTRICT y, const uint8_t* HWY_RESTRICT cb,
                         const uint8_t* HWY_RESTRICT cr, int count, uint8_t* HWY_RESTRICT rgb) {
  if (count <= 0) return;
  const size_t n = static_cast<size_t>(count);
  const D16 d;
  const D32 d32;
  const hn::Rebind<uint8_t, D32> d8q;
  const hn::Rebind<uint8_t, D16> d8h;
  const hn::Repartition<uint8_t, D16> d8;
  const size_t N16 = hn::Lanes(d), N32 = hn::Lanes(d32), N8 = hn::Lanes(d8);
  const auto half = hn::Set(d32, 1 << 19), k128 = hn::Set(d32, 128), top16 = hn::Set(d32, detail::kJpegTop16);
  const auto crR = hn::Set(d32, detail::kJpegCrR), crG = hn::Set(d32, detail::kJpegCrG);
  const auto cbG = hn::Set(d32, detail::kJpegCbG), cbB = hn::Set(d32, detail::kJpegCbB);
  size_t x = 0;
  for (; x + N8 <= n; x += N8) {
    hn::Vec<decltype(d8h)> r[2], g[2], b[2];
    for (size_t h = 0; h < 2; ++h) {
      hn::Vec<decltype(d8q)> R[2], G[2], B[2];
      for (size_t q = 0; q < 2; ++q) {
        const size_t px = x + h * N16 + q * N32;
        const auto Y = hn::Add(hn::ShiftLeft<20>(hn::PromoteTo(d32, hn::LoadU(d8q, y + px))), half);
        const auto Cb = hn::Sub(hn::PromoteTo(d32, hn::LoadU(d8q, cb + px)), k128);
        const auto Cr = hn::Sub(hn::PromoteTo(d32, hn::LoadU(d8q, cr + px)), k128);
        R[q] = hn::DemoteTo(d8q, hn::ShiftRight<20>(hn::Add(Y, hn::Mul(Cr, crR))));
        G[q] = hn::DemoteTo(
            d8q, hn::ShiftRight<20>(hn::Add(hn::Add(Y, hn::Mul(Cr, crG)), hn::And(hn::Mul(Cb, cbG), top16))));
        B[q] = hn::DemoteTo(d8q, hn::ShiftRight<20>(hn::Add(Y, hn::Mul(Cb, cbB))));
      }
      r[h] = hn::Combine(d8h, R[1], R[0]);
      g[h] = hn::Combine(d8h, G[1], G[0]);
      b[h] = hn::Combine(d8h, B[1], B[0]);
    }
    hn::StoreInterleaved3(hn::Combine(d8, r[1], r[0]), hn::Combine(d8, g[1], g[0]), hn::Combine(d8, b[1], b[0]),
                          d8, rgb + 3 * x);
  }
  for (; x < n; ++x) detail::jpegPixel(y[x], cb[x], cr[x], rgb + 3 * x);
}

}  // namespace HWY_NAMESPACE
}  // namespace le::simd
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace le::simd {

HWY_EXPORT(Yuv420RowToRgb24);
HWY_EXPORT(JpegYCbCrRowToRgb24);

void yuv420RowToRgb24(const uint8_t* y, const uint8_t* u, const uint8_t* v, int width,
                      int chroma_step, uint8_t* rgb) {
  HWY_DYNAMIC_DISPATCH(Yuv420RowToRgb24)(y, u, v, width, chroma_step, rgb);
}

void jpegYCbCrRowToRgb24(const uint8_t* y, const uint8_t* cb, const uint8_t* cr, int count, uint8_t* rgb) {
  HWY_DYNAMIC_DISPATCH(JpegYCbCrRowToRgb24)(y, cb, cr, count, rgb);
}

}  // namespace le::simd
#endif  // HWY_ONCE
