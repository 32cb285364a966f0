// The Lanczos-8 paste row, compiled once per x86 target (this file is re-included by
// foreach_target.h) with run-time dispatch.

#include "le/le_simd_targets.h"

#ifndef LE_PASTE_SIMD_SCALAR_ONCE
#define LE_PASTE_SIMD_SCALAR_ONCE

#include <algorithm>
#include <cmath>

#include "le/le_simd.h"

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

inline bool pasteInterior(const PastePos& p, int crop) {
  return p.ix - 3 >= 0 && p.ix + 4 < crop && p.iy - 3 >= 0 && p.iy + 4 < crop;
}

}  // namespace le::simd::detail

#endif  // LE_PASTE_SIMD_SCALAR_ONCE

// The tap and row loops must unroll so the eight row sums live in registers.
#if defined(__clang__)
#define LE_UNROLL8 _Pragma("unroll 8")
#else
#define LE_UNROLL8 _Pragma("GCC unroll 8")
#endif

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "le/le_paste_simd.cc"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace le::simd {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// One pixel's four interleaved channels per 128-bit vector.
using D4 = hn::FixedTag<float, 4>;
using V4 = hn::Vec<D4>;

// Channel sums of one pixel; columns and rows outside the crop contribute nothing.
HWY_INLINE V4 LanczosPixel(const float* HWY_RESTRICT src, int crop, const float* HWY_RESTRICT kx,
                           const float* HWY_RESTRICT ky, const detail::PastePos& p, bool interior) {
  const D4 d;
  V4 sum = hn::Zero(d);
  if (interior) {
    const size_t rs = static_cast<size_t>(crop) * 4;
    const float* s = src + (static_cast<size_t>(p.iy - 3) * crop + (p.ix - 3)) * 4;
#if HWY_TARGET <= HWY_AVX2
    // Two rows per 256-bit vector (row 2m in block 0, row 2m + 1 in block 1), built from a
    // load and an insert; every lane runs the 128-bit sequence below.
    const hn::FixedTag<float, 8> dw;
    hn::Vec<decltype(dw)> r[4];
    LE_UNROLL8 for (int i = 0; i < 8; ++i) {
      const auto k = hn::Set(dw, kx[i]);
      LE_UNROLL8 for (int m = 0; m < 4; ++m) {
        const float* t = s + 2 * m * rs + 4 * i;
        const auto v = hn::Combine(dw, hn::LoadU(d, t + rs), hn::LoadU(d, t));  // load + insert
        r[m] = i == 0 ? hn::Mul(k, v) : hn::Add(r[m], hn::Mul(k, v));
      }
    }
    LE_UNROLL8 for (int m = 0; m < 4; ++m) {
      sum = hn::Add(sum, hn::Mul(hn::LowerHalf(d, r[m]), hn::Set(d, ky[2 * m])));
      sum = hn::Add(sum, hn::Mul(hn::UpperHalf(d, r[m]), hn::Set(d, ky[2 * m + 1])));
    }
#else
    // Taps outer, rows inner: eight independent chains, each still summed in tap order.
    V4 r[8];
    const V4 k0 = hn::Set(d, kx[0]);
    LE_UNROLL8 for (int j = 0; j < 8; ++j) r[j] = hn::Mul(k0, hn::LoadU(d, s + j * rs));
    LE_UNROLL8 for (int i = 1; i < 8; ++i) {
      const V4 k = hn::Set(d, kx[i]);
      LE_UNROLL8 for (int j = 0; j < 8; ++j) r[j] = hn::Add(r[j], hn::Mul(k, hn::LoadU(d, s + j * rs + 4 * i)));
    }
    LE_UNROLL8 for (int j = 0; j < 8; ++j) sum = hn::Add(sum, hn::Mul(r[j], hn::Set(d, ky[j])));
#endif
    return sum;
  }
  for (int j = 0; j < 8; ++j) {
    const int row = p.iy - 3 + j;
    if (row < 0 || row >= crop) continue;
    const float* s = src + static_cast<size_t>(row) * crop * 4;
    const auto tap = [&](int i) {
      const int col = p.ix - 3 + i;
      return (col >= 0 && col < crop) ? hn::LoadU(d, s + 4 * static_cast<size_t>(col)) : hn::Zero(d);
    };
    V4 r = hn::Mul(hn::Set(d, kx[0]), tap(0));
    for (int i = 1; i < 8; ++i) r = hn::Add(r, hn::Mul(hn::Set(d, kx[i]), tap(i)));
    sum = hn::Add(sum, hn::Mul(r, hn::Set(d, ky[j])));
  }
  return sum;
}


// Mask weights of `count` consecutive output pixels (column offsets from i0), vectorised
// with the same arithmetic as detail::pasteAlpha; pixels outside the crop get -1.
HWY_INLINE void RowAlphas(int crop, const uint8_t* HWY_RESTRICT mask, const float* HWY_RESTRICT bilinear,
                          const int* HWY_RESTRICT col_x, const int* HWY_RESTRICT col_y, int row_x, int row_y,
                          int count, float* HWY_RESTRICT alpha) {
  int k = 0;
  // Below AVX2 gathers are emulated one lane at a time; the scalar loop is as fast there.
#if HWY_TARGET <= HWY_AVX2
  const hn::ScalableTag<float> df;
  const hn::RebindToSigned<decltype(df)> di;
  const hn::RebindToUnsigned<decltype(df)> du;
  const int N = static_cast<int>(hn::Lanes(df));
  if (crop >= 2) {
    const auto vcrop = hn::Set(di, crop), minus1 = hn::Set(di, -1), k31 = hn::Set(di, 31);
    const auto lastWord = hn::Set(di, crop * crop - 4);  // gathers read four bytes
    const auto* words = reinterpret_cast<const int32_t*>(mask);
    // Mask byte at (x, y), 0 outside the crop.
    const auto sample = [&](hn::Vec<decltype(di)> x, hn::Vec<decltype(di)> y) {
      const auto inside = hn::And(hn::And(hn::Gt(x, minus1), hn::Lt(x, vcrop)), hn::And(hn::Gt(y, minus1), hn::Lt(y, vcrop)));
      const auto at = hn::IfThenElseZero(inside, hn::Add(hn::Mul(y, vcrop), x));
      const auto word = hn::Min(at, lastWord);
      const auto shift = hn::BitCast(du, hn::ShiftLeft<3>(hn::Sub(at, word)));
      const auto bytes = hn::BitCast(du, hn::GatherOffset(di, words, word));
      const auto byte = hn::And(hn::operator>>(bytes, shift), hn::Set(du, 0xFFu));
      return hn::IfThenElseZero(hn::RebindMask(df, inside), hn::ConvertTo(df, hn::BitCast(di, byte)));
    };
    for (; k + N <= count; k += N) {
      const auto sx = hn::Add(hn::Set(di, row_x), hn::LoadU(di, col_x + k));
      const auto sy = hn::Add(hn::Set(di, row_y), hn::LoadU(di, col_y + k));
      const auto ix = hn::ShiftRight<10>(sx), iy = hn::ShiftRight<10>(sy);
      const auto px2 = hn::ShiftLeft<1>(hn::And(hn::ShiftRight<5>(sx), k31));
      const auto py2 = hn::ShiftLeft<1>(hn::And(hn::ShiftRight<5>(sy), k31));
      const auto ok = hn::And(hn::And(hn::Gt(sx, hn::Set(di, -1025)), hn::Gt(sy, hn::Set(di, -1025))),
                              hn::And(hn::Lt(ix, vcrop), hn::Lt(iy, vcrop)));
      const auto one = hn::Set(di, 1);
      const auto wx0 = hn::GatherIndex(df, bilinear, px2), wx1 = hn::GatherIndex(df, bilinear, hn::Add(px2, one));
      const auto wy0 = hn::GatherIndex(df, bilinear, py2), wy1 = hn::GatherIndex(df, bilinear, hn::Add(py2, one));
      const auto ix1 = hn::Add(ix, one), iy1 = hn::Add(iy, one);
      const auto v = hn::Add(hn::Mul(hn::Add(hn::Mul(wx1, sample(ix1, iy1)), hn::Mul(wx0, sample(ix, iy1))), wy1),
                             hn::Mul(hn::Add(hn::Mul(wx1, sample(ix1, iy)), hn::Mul(wx0, sample(ix, iy))), wy0));
      const auto a = hn::Div(hn::Round(v), hn::Set(df, 255.0f));
      hn::StoreU(hn::IfThenElse(hn::RebindMask(df, ok), a, hn::Set(df, -1.0f)), df, alpha + k);
    }
  }
#endif
  for (; k < count; ++k) {
    const detail::PastePos p = detail::pastePos(row_x + col_x[k], row_y + col_y[k], crop);
    alpha[k] = p.ok ? detail::pasteAlpha(mask, crop, bilinear, p) : -1.0f;
  }
}

// Blends the channel sums (lanes 0..2) into the frame pixel: (1 - alpha) * dst + alpha * sum,
// clamped to 0..255 and truncated.
HWY_INLINE void BlendPixel(float alpha, V4 sum, uint8_t* HWY_RESTRICT px) {
  const D4 d;
  const hn::Rebind<int32_t, D4> di;
  const hn::Rebind<uint8_t, D4> d8;
  uint8_t bytes[4] = {px[0], px[1], px[2], 0};  // the pixel's bytes only: the row may end here
  const V4 old = hn::ConvertTo(d, hn::PromoteTo(di, hn::LoadU(d8, bytes)));
  V4 v = hn::Add(hn::Mul(hn::Set(d, 1.0f - alpha), old), hn::Mul(hn::Set(d, alpha), sum));
  v = hn::Min(hn::Max(v, hn::Zero(d)), hn::Set(d, 255.0f));
  hn::StoreU(hn::DemoteTo(d8, hn::ConvertTo(di, v)), d8, bytes);  // truncating conversion
  px[0] = bytes[0];
  px[1] = bytes[1];
  px[2] = bytes[2];
}

void PasteLanczos8Row(const float* HWY_RESTRICT src, int crop, const uint8_t* HWY_RESTRICT mask,
                      const float* HWY_RESTRICT lanczos, const float* HWY_RESTRICT bilinear,
                      const int* HWY_RESTRICT col_x, const int* HWY_RESTRICT col_y, int row_x,
                      int row_y, int x_begin, int x_end, uint8_t* HWY_RESTRICT dst_row) {
  constexpr int kSpan = 256;
  HWY_ALIGN float alpha[kSpan];
  for (int x0 = x_begin; x0 <= x_end; x0 += kSpan) {
    const int off = x0 - x_begin, count = std::min(kSpan, x_end - x0 + 1);
    RowAlphas(crop, mask, bilinear, col_x + off, col_y + off, row_x, row_y, count, alpha);
    for (int k = 0; k < count; ++k) {
      if (!(alpha[k] > 0.0f)) continue;  // outside the crop, or nothing to blend
      const detail::PastePos p = detail::pastePos(row_x + col_x[off + k], row_y + col_y[off + k], crop);
      BlendPixel(alpha[k],
                 LanczosPixel(src, crop, lanczos + 8 * p.px, lanczos + 8 * p.py, p, detail::pasteInterior(p, crop)),
                 dst_row + 3 * static_cast<size_t>(x0 + k));
    }
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace le::simd
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace le::simd {

HWY_EXPORT(PasteLanczos8Row);

void pasteLanczos8Row(const float* src, int crop, const uint8_t* mask, const float* lanczos,
                      const float* bilinear, const int* col_x, const int* col_y, int row_x,
                      int row_y, int x_begin, int x_end, uint8_t* dst_row) {
  HWY_DYNAMIC_DISPATCH(PasteLanczos8Row)(src, crop, mask, lanczos, bilinear, col_x, col_y, row_x,
                                         row_y, x_begin, x_end, dst_row);
}

}  // namespace le::simd
#endif  // HWY_ONCE
