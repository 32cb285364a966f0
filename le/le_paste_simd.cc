// The Lanczos-8 paste row, compiled once per x86 target (this file is re-included by
// foreach_target.h) with run-time dispatch.

#include "le/le_simd_targets.h"

#ifndef LE_PASTE_SIMD_SCALAR_ONCE
#define LE_PASTE_SIMD_SCALAR_ONCE

#include <algorithm>
#include <cmath>

#include "le/le_paste_alpha.h"
#include "le/le_simd.h"

namespace le::simd::detail {

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

// Channel sums of one pixel from the column-major source (column x holds rows 0..crop-1, four
// channels each); columns and rows outside the crop contribute nothing.
HWY_INLINE V4 LanczosPixel(const float* HWY_RESTRICT src, int crop, const float* HWY_RESTRICT kx,
                           const float* HWY_RESTRICT ky, const detail::PastePos& p, bool interior) {
  const D4 d;
  V4 sum = hn::Zero(d);
  const size_t cs = static_cast<size_t>(crop) * 4;  // one column
  if (interior) {
    // A column's eight rows are 32 consecutive floats, whole vectors of (row, channel) lanes:
    // each lane is one row's chain, summed in tap order, and nothing is shuffled.
    const hn::CappedTag<float, 16> dv;
    constexpr int kN = static_cast<int>(hn::MaxLanes(dv));
    static_cast<void>(kN);
    const float* s = src + (static_cast<size_t>(p.ix - 3) * crop + static_cast<size_t>(p.iy - 3)) * 4;
    hn::Vec<decltype(dv)> r[32 / kN];
    const auto k0 = hn::Set(dv, kx[0]);
    LE_UNROLL8 for (int m = 0; m < 32 / kN; ++m) r[m] = hn::Mul(k0, hn::LoadU(dv, s + m * kN));
    LE_UNROLL8 for (int i = 1; i < 8; ++i) {
      const auto k = hn::Set(dv, kx[i]);
      LE_UNROLL8 for (int m = 0; m < 32 / kN; ++m) r[m] = hn::Add(r[m], hn::Mul(k, hn::LoadU(dv, s + i * cs + m * kN)));
    }
    HWY_ALIGN float rows[32];
    LE_UNROLL8 for (int m = 0; m < 32 / kN; ++m) hn::Store(r[m], dv, rows + m * kN);
    LE_UNROLL8 for (int j = 0; j < 8; ++j) sum = hn::Add(sum, hn::Mul(hn::Load(d, rows + 4 * j), hn::Set(d, ky[j])));
    return sum;
  }
  for (int j = 0; j < 8; ++j) {
    const int row = p.iy - 3 + j;
    if (row < 0 || row >= crop) continue;
    const float* s = src + static_cast<size_t>(row) * 4;
    const auto tap = [&](int i) {
      const int col = p.ix - 3 + i;
      return (col >= 0 && col < crop) ? hn::LoadU(d, s + cs * static_cast<size_t>(col)) : hn::Zero(d);
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
  // The weights of the (1 - t, t) table are exact multiples of 1/32: computed, not gathered.
  bool exactTable = true;
  for (int p = 0; p < 32; ++p)
    exactTable = exactTable && bilinear[2 * p] == static_cast<float>(32 - p) / 32.0f &&
                 bilinear[2 * p + 1] == static_cast<float>(p) / 32.0f;
  if (crop >= 2) {
    const auto vcrop = hn::Set(di, crop), minus1 = hn::Set(di, -1), k31 = hn::Set(di, 31);
    const auto one = hn::Set(di, 1), zero = hn::Zero(di);
    const auto lastWord = hn::Set(di, crop * crop - 4);  // gathers read four bytes
    const auto* words = reinterpret_cast<const int32_t*>(mask);
    const auto inRange = [&](hn::Vec<decltype(di)> v) { return hn::And(hn::Gt(v, minus1), hn::Lt(v, vcrop)); };
    // Mask bytes at (x, y) and (x + 1, y), 0 outside the crop: one gathered word holds both.
    const auto pair = [&](hn::Vec<decltype(di)> x, hn::Vec<decltype(di)> y, hn::Vec<decltype(df)>& m0,
                          hn::Vec<decltype(df)>& m1) {
      const auto rowOk = inRange(y);
      const auto at = hn::Add(hn::Mul(y, vcrop), x);
      const auto word = hn::Min(hn::Max(at, zero), lastWord);
      const auto bytes = hn::BitCast(du, hn::GatherOffset(di, words, hn::IfThenElseZero(rowOk, word)));
      const auto shift = hn::BitCast(du, hn::ShiftLeft<3>(hn::Sub(at, word)));
      const auto b0 = hn::And(hn::operator>>(bytes, shift), hn::Set(du, 0xFFu));
      const auto b1 = hn::And(hn::operator>>(bytes, hn::Add(shift, hn::Set(du, 8u))), hn::Set(du, 0xFFu));
      const auto ok0 = hn::And(rowOk, inRange(x)), ok1 = hn::And(rowOk, inRange(hn::Add(x, one)));
      m0 = hn::IfThenElseZero(hn::RebindMask(df, ok0), hn::ConvertTo(df, hn::BitCast(di, b0)));
      m1 = hn::IfThenElseZero(hn::RebindMask(df, ok1), hn::ConvertTo(df, hn::BitCast(di, b1)));
    };
    const auto inv32 = hn::Set(df, 1.0f / 32.0f);
    const auto k32 = hn::Set(di, 32);
    for (; k + N <= count; k += N) {
      const auto sx = hn::Add(hn::Set(di, row_x), hn::LoadU(di, col_x + k));
      const auto sy = hn::Add(hn::Set(di, row_y), hn::LoadU(di, col_y + k));
      const auto ix = hn::ShiftRight<10>(sx), iy = hn::ShiftRight<10>(sy);
      const auto px = hn::And(hn::ShiftRight<5>(sx), k31), py = hn::And(hn::ShiftRight<5>(sy), k31);
      const auto ok = hn::And(hn::And(hn::Gt(sx, hn::Set(di, -1025)), hn::Gt(sy, hn::Set(di, -1025))),
                              hn::And(hn::Lt(ix, vcrop), hn::Lt(iy, vcrop)));
      hn::Vec<decltype(df)> wx0, wx1, wy0, wy1;
      if (exactTable) {
        wx0 = hn::Mul(hn::ConvertTo(df, hn::Sub(k32, px)), inv32), wx1 = hn::Mul(hn::ConvertTo(df, px), inv32);
        wy0 = hn::Mul(hn::ConvertTo(df, hn::Sub(k32, py)), inv32), wy1 = hn::Mul(hn::ConvertTo(df, py), inv32);
      } else {
        const auto px2 = hn::ShiftLeft<1>(px), py2 = hn::ShiftLeft<1>(py);
        wx0 = hn::GatherIndex(df, bilinear, px2), wx1 = hn::GatherIndex(df, bilinear, hn::Add(px2, one));
        wy0 = hn::GatherIndex(df, bilinear, py2), wy1 = hn::GatherIndex(df, bilinear, hn::Add(py2, one));
      }
      hn::Vec<decltype(df)> m00, m10, m01, m11;
      pair(ix, iy, m00, m10);
      pair(ix, hn::Add(iy, one), m01, m11);
      const auto v = hn::Add(hn::Mul(hn::Add(hn::Mul(wx1, m11), hn::Mul(wx0, m01)), wy1),
                             hn::Mul(hn::Add(hn::Mul(wx1, m10), hn::Mul(wx0, m00)), wy0));
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

// Blends n channel values of consecutive pixels: dst[i] = (1 - alpha[i]) * dst[i] + alpha[i] *
// sum[i], clamped to 0..255 and truncated (a NaN would clamp to 0 in both loops).
// A channel with alpha 0 and sum 0 keeps its byte.
HWY_INLINE void BlendRun(const float* HWY_RESTRICT alpha, const float* HWY_RESTRICT sum, int n,
                         uint8_t* HWY_RESTRICT dst) {
  const hn::ScalableTag<float> d;
  const hn::RebindToSigned<decltype(d)> di;
  const hn::Rebind<uint8_t, decltype(d)> d8;
  const int N = static_cast<int>(hn::Lanes(d));
  const auto one = hn::Set(d, 1.0f), zero = hn::Zero(d), top = hn::Set(d, 255.0f);
  int i = 0;
  for (; i + N <= n; i += N) {
    const auto a = hn::LoadU(d, alpha + i);
    const auto old = hn::ConvertTo(d, hn::PromoteTo(di, hn::LoadU(d8, dst + i)));
    auto v = hn::Add(hn::Mul(hn::Sub(one, a), old), hn::Mul(a, hn::LoadU(d, sum + i)));
    v = hn::Min(hn::Max(v, zero), top);
    hn::StoreU(hn::DemoteTo(d8, hn::ConvertTo(di, v)), d8, dst + i);  // truncating conversion
  }
  for (; i < n; ++i) {
    float v = (1.0f - alpha[i]) * static_cast<float>(dst[i]) + alpha[i] * sum[i];
    v = std::min(255.0f, std::max(0.0f, v));
    dst[i] = static_cast<uint8_t>(static_cast<int32_t>(v));
  }
}

// Per span of pixels: the mask weights, then the Lanczos sums of the pixels that blend, packed
// three channels a pixel beside their weights, then one blend over the run from the first to the
// last blended pixel. Pixels in between that do not blend get weight 0 and keep their bytes.
void PasteLanczos8Row(const float* HWY_RESTRICT src, int crop, const uint8_t* HWY_RESTRICT mask,
                      const float* HWY_RESTRICT lanczos, const float* HWY_RESTRICT bilinear,
                      const int* HWY_RESTRICT col_x, const int* HWY_RESTRICT col_y, int row_x,
                      int row_y, int x_begin, int x_end, uint8_t* HWY_RESTRICT dst_row) {
  constexpr int kSpan = 256;
  HWY_ALIGN float alpha[kSpan];
  // Four floats are stored at 3k for pixel k: the fourth lane is overwritten by pixel k + 1.
  HWY_ALIGN float alpha3[3 * kSpan + 1], sum3[3 * kSpan + 1];
  const D4 d;
  for (int x0 = x_begin; x0 <= x_end; x0 += kSpan) {
    const int off = x0 - x_begin, count = std::min(kSpan, x_end - x0 + 1);
    RowAlphas(crop, mask, bilinear, col_x + off, col_y + off, row_x, row_y, count, alpha);
    int first = count, last = -1;
    for (int k = 0; k < count; ++k) {
      if (!(alpha[k] > 0.0f)) {  // outside the crop, or nothing to blend
        hn::StoreU(hn::Zero(d), d, alpha3 + 3 * k);
        hn::StoreU(hn::Zero(d), d, sum3 + 3 * k);
        continue;
      }
      first = std::min(first, k);
      last = k;
      const detail::PastePos p = detail::pastePos(row_x + col_x[off + k], row_y + col_y[off + k], crop);
      hn::StoreU(hn::Set(d, alpha[k]), d, alpha3 + 3 * k);
      hn::StoreU(LanczosPixel(src, crop, lanczos + 8 * p.px, lanczos + 8 * p.py, p, detail::pasteInterior(p, crop)),
                 d, sum3 + 3 * k);
    }
    if (last >= first)
      BlendRun(alpha3 + 3 * first, sum3 + 3 * first, 3 * (last - first + 1),
               dst_row + 3 * static_cast<size_t>(x0 + first));
  }
}

// Rows [y0, y1) of three n x n planes into the column-major source: 4 x 4 transposes of four
// columns' channels, written down the columns in blocks of 64 rows.
void InterleaveColumns(const float* HWY_RESTRICT r, const float* HWY_RESTRICT g, const float* HWY_RESTRICT b,
                       int n, int y0, int y1, float* HWY_RESTRICT dst) {
  const D4 d;
  const hn::Repartition<uint64_t, D4> du;
  const size_t cs = static_cast<size_t>(n) * 4;
  for (int yb = y0; yb < y1; yb += 64) {
    const int ye = std::min(y1, yb + 64);
    int x = 0;
    for (; x + 4 <= n; x += 4) {
      float* out = dst + static_cast<size_t>(x) * cs;
      for (int y = yb; y < ye; ++y) {
        const size_t at = static_cast<size_t>(y) * n + x;
        const V4 vr = hn::LoadU(d, r + at), vg = hn::LoadU(d, g + at), vb = hn::LoadU(d, b + at);
        const V4 z = hn::Zero(d);
        const auto rg0 = hn::BitCast(du, hn::InterleaveLower(vr, vg)), rg1 = hn::BitCast(du, hn::InterleaveUpper(d, vr, vg));
        const auto bz0 = hn::BitCast(du, hn::InterleaveLower(vb, z)), bz1 = hn::BitCast(du, hn::InterleaveUpper(d, vb, z));
        float* o = out + static_cast<size_t>(y) * 4;
        hn::StoreU(hn::BitCast(d, hn::InterleaveLower(rg0, bz0)), d, o);
        hn::StoreU(hn::BitCast(d, hn::InterleaveUpper(du, rg0, bz0)), d, o + cs);
        hn::StoreU(hn::BitCast(d, hn::InterleaveLower(rg1, bz1)), d, o + 2 * cs);
        hn::StoreU(hn::BitCast(d, hn::InterleaveUpper(du, rg1, bz1)), d, o + 3 * cs);
      }
    }
    for (; x < n; ++x)
      for (int y = yb; y < ye; ++y) {
        const size_t at = static_cast<size_t>(y) * n + x;
        float* o = dst + static_cast<size_t>(x) * cs + static_cast<size_t>(y) * 4;
        o[0] = r[at], o[1] = g[at], o[2] = b[at], o[3] = 0.0f;
      }
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace le::simd
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace le::simd {

HWY_EXPORT(PasteLanczos8Row);
HWY_EXPORT(InterleaveColumns);

void interleaveColumns(const float* r, const float* g, const float* b, int n, int y0, int y1, float* dst) {
  HWY_DYNAMIC_DISPATCH(InterleaveColumns)(r, g, b, n, y0, y1, dst);
}

void pasteLanczos8Row(const float* src, int crop, const uint8_t* mask, const float* lanczos,
                      const float* bilinear, const int* col_x, const int* col_y, int row_x,
                      int row_y, int x_begin, int x_end, uint8_t* dst_row) {
  HWY_DYNAMIC_DISPATCH(PasteLanczos8Row)(src, crop, mask, lanczos, bilinear, col_x, col_y, row_x,
                                         row_y, x_begin, x_end, dst_row);
}

}  // namespace le::simd
#endif  // HWY_ONCE
