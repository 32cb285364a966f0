// The Lanczos-8 paste row, compiled once per x86 target (this file is re-included by
// foreach_target.h) with run-time dispatch.

#include "le/le_simd_targets.h"

#include <algorithm>
#include <cmath>

#include "le/le_paste_alpha.h"
#include "le/le_simd.h"

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

// One pixel's three channel sums (and a zero) per 128-bit vector.
using D4 = hn::FixedTag<float, 4>;
using V4 = hn::Vec<D4>;
// Eight source rows of one column run: one vector on the AVX targets, two below.
using D8 = hn::CappedTag<float, 8>;

// Lanes j of r, g, b (and a zero) regrouped per block of four lanes: out[m] holds lane m of
// each block of the three, as (r, g, b, 0).
template <class D>
HWY_INLINE void Transpose3(D d, hn::Vec<D> r, hn::Vec<D> g, hn::Vec<D> b, hn::Vec<D>* out) {
  const hn::Repartition<uint64_t, D> du;
  const auto z = hn::Zero(d);
  const auto rg0 = hn::BitCast(du, hn::InterleaveLower(d, r, g)), bz0 = hn::BitCast(du, hn::InterleaveLower(d, b, z));
  const auto rg1 = hn::BitCast(du, hn::InterleaveUpper(d, r, g)), bz1 = hn::BitCast(du, hn::InterleaveUpper(d, b, z));
  out[0] = hn::BitCast(d, hn::InterleaveLower(du, rg0, bz0));
  out[1] = hn::BitCast(d, hn::InterleaveUpper(du, rg0, bz0));
  out[2] = hn::BitCast(d, hn::InterleaveLower(du, rg1, bz1));
  out[3] = hn::BitCast(d, hn::InterleaveUpper(du, rg1, bz1));
}

// Channel sums of P pixels whose 8 x 8 taps all lie inside the crop. Lanes are the eight
// source rows: each lane runs its row's chain over the columns in tap order, the products
// with the row weights are then regrouped so the rows add in order, per channel. The pixels'
// chains are independent and interleaved.
template <int P, class D>
HWY_INLINE void LanczosInterior(D d8, const float* const* s, const float* const* kx, const float* const* ky,
                                V4* out) {
  constexpr int kN = static_cast<int>(hn::MaxLanes(d8));
  constexpr int kV = 8 / kN;
  // Tap column i, channel c of a pixel: 8 floats at s + 48 * i + 16 * c.
  hn::Vec<D> r[P][3][kV];
  LE_UNROLL8 for (int q = 0; q < P; ++q) {
    const auto k0 = hn::Set(d8, kx[q][0]);
    LE_UNROLL8 for (int c = 0; c < 3; ++c)
      LE_UNROLL8 for (int v = 0; v < kV; ++v) r[q][c][v] = hn::Mul(k0, hn::LoadU(d8, s[q] + 16 * c + v * kN));
  }
  LE_UNROLL8 for (int i = 1; i < 8; ++i) {
    LE_UNROLL8 for (int q = 0; q < P; ++q) {
      const auto k = hn::Set(d8, kx[q][i]);
      LE_UNROLL8 for (int c = 0; c < 3; ++c)
        LE_UNROLL8 for (int v = 0; v < kV; ++v)
          r[q][c][v] = hn::Add(r[q][c][v], hn::Mul(k, hn::LoadU(d8, s[q] + 48 * i + 16 * c + v * kN)));
    }
  }
  if constexpr (P == 2 && kN == 8) {
    // Both pixels' rows side by side, pixel 0 in the lower half: one sum serves both.
    hn::Vec<D> t[2][4];
    LE_UNROLL8 for (int q = 0; q < 2; ++q) {
      const auto w = hn::LoadU(d8, ky[q]);
      Transpose3(d8, hn::Mul(r[q][0][0], w), hn::Mul(r[q][1][0], w), hn::Mul(r[q][2][0], w), t[q]);
    }
    auto sum = hn::ConcatLowerLower(d8, t[1][0], t[0][0]);
    LE_UNROLL8 for (int m = 1; m < 4; ++m) sum = hn::Add(sum, hn::ConcatLowerLower(d8, t[1][m], t[0][m]));
    LE_UNROLL8 for (int m = 0; m < 4; ++m) sum = hn::Add(sum, hn::ConcatUpperUpper(d8, t[1][m], t[0][m]));
    const hn::Half<D> dh;
    out[0] = hn::LowerHalf(dh, sum);
    out[1] = hn::UpperHalf(dh, sum);
    return;
  }
  LE_UNROLL8 for (int q = 0; q < P; ++q) {
    V4 rows[8];
    LE_UNROLL8 for (int v = 0; v < kV; ++v) {
      const auto w = hn::LoadU(d8, ky[q] + v * kN);
      hn::Vec<D> t[4];
      Transpose3(d8, hn::Mul(r[q][0][v], w), hn::Mul(r[q][1][v], w), hn::Mul(r[q][2][v], w), t);
      if constexpr (kN == 8) {
        const hn::Half<D> dh;
        LE_UNROLL8 for (int m = 0; m < 4; ++m) {
          rows[m] = hn::LowerHalf(dh, t[m]);
          rows[4 + m] = hn::UpperHalf(dh, t[m]);
        }
      } else {
        LE_UNROLL8 for (int m = 0; m < 4; ++m) rows[4 * v + m] = t[m];
      }
    }
    V4 sum = rows[0];
    LE_UNROLL8 for (int j = 1; j < 8; ++j) sum = hn::Add(sum, rows[j]);
    out[q] = sum;
  }
}

// The same near the crop border: taps outside it count 0, rows outside it are skipped.
HWY_INLINE V4 LanczosBorder(const float* HWY_RESTRICT src, int crop, const float* HWY_RESTRICT kx,
                            const float* HWY_RESTRICT ky, int ix, int iy) {
  HWY_ALIGN float out[4] = {0.0f, 0.0f, 0.0f, 0.0f};
  for (int c = 0; c < 3; ++c) {
    float sum = 0.0f;
    for (int j = 0; j < 8; ++j) {
      const int row = iy - 3 + j;
      if (row < 0 || row >= crop) continue;
      const auto tap = [&](int i) {
        const int col = ix - 3 + i;
        return (col >= 0 && col < crop) ? src[pasteSourceIndex(crop, row >> 3, col, c) + (row & 7)] : 0.0f;
      };
      float r = kx[0] * tap(0);
      for (int i = 1; i < 8; ++i) r = r + kx[i] * tap(i);
      sum = sum + r * ky[j];
    }
    out[c] = sum;
  }
  return hn::Load(D4(), out);
}

// Where a pixel's taps start in the banded source when all 8 x 8 lie inside the crop, else -1.
inline int32_t InteriorAt(int crop, int ix, int iy) {
  if (!(ix - 3 >= 0 && ix + 4 < crop && iy - 3 >= 0 && iy + 4 < crop)) return -1;
  return static_cast<int32_t>(pasteSourceIndex(crop, (iy - 3) >> 3, ix - 3, 0)) + ((iy - 3) & 7);
}

// Per pixel of `count` consecutive output pixels: the mask weight, vectorised with the same
// arithmetic as detail::pasteAlpha (-1 outside the crop), where its taps start (InteriorAt)
// and its two phases (px | py << 8). The vector loop reads the mask bytes from quads.
HWY_INLINE void RowAlphas(int crop, const uint8_t* HWY_RESTRICT mask, const uint32_t* HWY_RESTRICT quads,
                          const float* HWY_RESTRICT bilinear,
                          const int* HWY_RESTRICT col_x, const int* HWY_RESTRICT col_y, int row_x, int row_y,
                          int count, float* HWY_RESTRICT alpha, int32_t* HWY_RESTRICT at,
                          int32_t* HWY_RESTRICT phases) {
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
    const auto one = hn::Set(di, 1);
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
      // One word per position: its four mask bytes, zeros outside the crop built in.
      const auto word = hn::IfThenElseZero(ok, hn::Add(hn::Mul(hn::Add(iy, one), hn::Set(di, crop + 1)), hn::Add(ix, one)));
      const auto q = hn::BitCast(du, hn::GatherIndex(di, reinterpret_cast<const int32_t*>(quads), word));
      const auto byte = [&](hn::Vec<decltype(du)> v) {
        return hn::ConvertTo(df, hn::BitCast(di, hn::And(v, hn::Set(du, 0xFFu))));
      };
      const auto m00 = byte(q), m10 = byte(hn::ShiftRight<8>(q)), m01 = byte(hn::ShiftRight<16>(q));
      const auto m11 = hn::ConvertTo(df, hn::BitCast(di, hn::ShiftRight<24>(q)));
      const auto v = hn::Add(hn::Mul(hn::Add(hn::Mul(wx1, m11), hn::Mul(wx0, m01)), wy1),
                             hn::Mul(hn::Add(hn::Mul(wx1, m10), hn::Mul(wx0, m00)), wy0));
      const auto a = hn::Div(hn::Round(v), hn::Set(df, 255.0f));
      hn::StoreU(hn::IfThenElse(hn::RebindMask(df, ok), a, hn::Set(df, -1.0f)), df, alpha + k);
      const auto w = hn::Sub(iy, hn::Set(di, 3)), left = hn::Sub(ix, hn::Set(di, 3));
      const auto interior = hn::And(hn::And(hn::Gt(left, minus1), hn::Lt(hn::Add(ix, hn::Set(di, 4)), vcrop)),
                                    hn::And(hn::Gt(w, minus1), hn::Lt(hn::Add(iy, hn::Set(di, 4)), vcrop)));
      const auto off = hn::Add(hn::Mul(hn::Add(hn::Mul(hn::ShiftRight<3>(w), vcrop), left), hn::Set(di, 48)),
                               hn::And(w, hn::Set(di, 7)));
      hn::StoreU(hn::IfThenElse(interior, off, minus1), di, at + k);
      hn::StoreU(hn::Or(px, hn::ShiftLeft<8>(py)), di, phases + k);
    }
  }
#endif
  for (; k < count; ++k) {
    const detail::PastePos p = detail::pastePos(row_x + col_x[k], row_y + col_y[k], crop);
    alpha[k] = p.ok ? detail::pasteAlpha(mask, crop, bilinear, p) : -1.0f;
    at[k] = InteriorAt(crop, p.ix, p.iy);
    phases[k] = p.px | (p.py << 8);
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
                      const uint32_t* HWY_RESTRICT quads, const float* HWY_RESTRICT lanczos, const float* HWY_RESTRICT bilinear,
                      const int* HWY_RESTRICT col_x, const int* HWY_RESTRICT col_y, int row_x,
                      int row_y, int x_begin, int x_end, uint8_t* HWY_RESTRICT dst_row) {
  constexpr int kSpan = 256;
  HWY_ALIGN float alpha[kSpan];
  HWY_ALIGN int32_t at[kSpan], phases[kSpan];
  // Four floats are stored at 3k for pixel k: the fourth lane is overwritten by pixel k + 1.
  HWY_ALIGN float alpha3[3 * kSpan + 1], sum3[3 * kSpan + 1];
  const D4 d;
  for (int x0 = x_begin; x0 <= x_end; x0 += kSpan) {
    const int off = x0 - x_begin, count = std::min(kSpan, x_end - x0 + 1);
    RowAlphas(crop, mask, quads, bilinear, col_x + off, col_y + off, row_x, row_y, count, alpha, at, phases);
    int first = count, last = -1;
    // Interior pixels go in pairs; the first waits for its partner here. Sums are stored in
    // pixel order, four floats each: the spare lane is 0, as are the sums of pixels that do
    // not blend, so it only ever overwrites a zero or a sum stored after it.
    int pending = 0, pk = 0;
    const float* ps[2];
    const float* pkx[2];
    const float* pky[2];
    const auto flush = [&] {
      V4 sum;
      LanczosInterior<1>(D8(), ps, pkx, pky, &sum);
      hn::StoreU(sum, d, sum3 + 3 * pk);
      pending = 0;
    };
    for (int k = 0; k < count; ++k) {
      if (!(alpha[k] > 0.0f)) {  // outside the crop, or nothing to blend
        hn::StoreU(hn::Zero(d), d, alpha3 + 3 * k);
        hn::StoreU(hn::Zero(d), d, sum3 + 3 * k);
        continue;
      }
      first = std::min(first, k);
      last = k;
      hn::StoreU(hn::Set(d, alpha[k]), d, alpha3 + 3 * k);
      const float* kx = lanczos + 8 * (phases[k] & 31);
      const float* ky = lanczos + 8 * (phases[k] >> 8);
      if (at[k] < 0) {
        if (pending) flush();
        const detail::PastePos p = detail::pastePos(row_x + col_x[off + k], row_y + col_y[off + k], crop);
        hn::StoreU(LanczosBorder(src, crop, kx, ky, p.ix, p.iy), d, sum3 + 3 * k);
        continue;
      }
      ps[pending] = src + at[k], pkx[pending] = kx, pky[pending] = ky;
      if (pending == 0) {
        pk = k;
        pending = 1;
        continue;
      }
      V4 sums[2];
      LanczosInterior<2>(D8(), ps, pkx, pky, sums);
      hn::StoreU(sums[0], d, sum3 + 3 * pk);
      hn::StoreU(sums[1], d, sum3 + 3 * k);
      pending = 0;
    }
    if (pending) flush();
    if (last >= first)
      BlendRun(alpha3 + 3 * first, sum3 + 3 * first, 3 * (last - first + 1),
               dst_row + 3 * static_cast<size_t>(x0 + first));
  }
}

// Rows [y0, y1), columns [x0, x1) of one channel into the bands: 4 x 4 transposes write four
// rows of four columns, into each band that holds those rows.
void PasteColumns(const float* HWY_RESTRICT rows, int n, int y0, int y1, int k, int x0, int x1,
                  float* HWY_RESTRICT dst) {
  const D4 d;
  const hn::Repartition<uint64_t, D4> du;
  int y = y0;
  const auto scalarRow = [&] {
    const float* r = rows + static_cast<size_t>(y - y0) * n;
    for (int x = x0; x < x1; ++x) {
      dst[pasteSourceIndex(n, y >> 3, x, k) + (y & 7)] = r[x];
      if (y >= 8) dst[pasteSourceIndex(n, (y >> 3) - 1, x, k) + (y & 7) + 8] = r[x];
    }
  };
  for (; y < y1 && (y & 3) != 0; ++y) scalarRow();
  for (; y + 4 <= y1; y += 4) {
    const float* r0 = rows + static_cast<size_t>(y - y0) * n;
    const float* r1 = r0 + n;
    const float* r2 = r1 + n;
    const float* r3 = r2 + n;
    // Four rows of column x at o + 48 x, and at o2 + 48 x in the band above.
    float* o = dst + pasteSourceIndex(n, y >> 3, 0, k) + (y & 7);
    float* o2 = y >= 8 ? dst + pasteSourceIndex(n, (y >> 3) - 1, 0, k) + (y & 7) + 8 : nullptr;
    int x = x0;
    for (; x + 4 <= x1; x += 4) {
      const V4 a = hn::LoadU(d, r0 + x), b = hn::LoadU(d, r1 + x), c = hn::LoadU(d, r2 + x), e = hn::LoadU(d, r3 + x);
      const auto ab0 = hn::BitCast(du, hn::InterleaveLower(a, b)), ab1 = hn::BitCast(du, hn::InterleaveUpper(d, a, b));
      const auto ce0 = hn::BitCast(du, hn::InterleaveLower(c, e)), ce1 = hn::BitCast(du, hn::InterleaveUpper(d, c, e));
      const V4 cols[4] = {hn::BitCast(d, hn::InterleaveLower(ab0, ce0)), hn::BitCast(d, hn::InterleaveUpper(du, ab0, ce0)),
                          hn::BitCast(d, hn::InterleaveLower(ab1, ce1)), hn::BitCast(d, hn::InterleaveUpper(du, ab1, ce1))};
      for (int m = 0; m < 4; ++m) {
        hn::StoreU(cols[m], d, o + 48 * static_cast<size_t>(x + m));
        if (o2) hn::StoreU(cols[m], d, o2 + 48 * static_cast<size_t>(x + m));
      }
    }
    for (; x < x1; ++x) {
      const float v[4] = {r0[x], r1[x], r2[x], r3[x]};
      for (int m = 0; m < 4; ++m) {
        o[48 * static_cast<size_t>(x) + m] = v[m];
        if (o2) o2[48 * static_cast<size_t>(x) + m] = v[m];
      }
    }
  }
  for (; y < y1; ++y) scalarRow();
}

// out[x] = sum over t ascending of g[t] * rows[t][x], starting from 0; with `in`, the
// sharpened value clamp(scale * in[x] * gain - sum * amount, 0, 255) instead (NaN gives 0).
// Blocks of four vectors keep their sums in registers across the taps.
HWY_INLINE void BlurRowImpl(const float* const* HWY_RESTRICT rows, const float* HWY_RESTRICT g, int K, int n,
                            const float* HWY_RESTRICT in, float scale, float gain, float amount,
                            float* HWY_RESTRICT out) {
  const hn::ScalableTag<float> d;
  const int N = static_cast<int>(hn::Lanes(d));
  const auto zero = hn::Zero(d), top = hn::Set(d, 255.0f);
  const auto vs = hn::Set(d, scale), vg = hn::Set(d, gain), va = hn::Set(d, amount);
  const auto finish = [&](hn::Vec<decltype(d)> acc, int x) {
    if (in == nullptr) return acc;
    const auto v = hn::Sub(hn::Mul(hn::Mul(vs, hn::LoadU(d, in + x)), vg), hn::Mul(acc, va));
    return hn::IfThenElseZero(hn::Gt(v, zero), hn::Min(v, top));
  };
  int x = 0;
  for (; x + 4 * N <= n; x += 4 * N) {
    auto a0 = zero, a1 = zero, a2 = zero, a3 = zero;
    for (int t = 0; t < K; ++t) {
      const auto w = hn::Set(d, g[t]);
      const float* r = rows[t] + x;
      a0 = hn::Add(a0, hn::Mul(w, hn::LoadU(d, r)));
      a1 = hn::Add(a1, hn::Mul(w, hn::LoadU(d, r + N)));
      a2 = hn::Add(a2, hn::Mul(w, hn::LoadU(d, r + 2 * N)));
      a3 = hn::Add(a3, hn::Mul(w, hn::LoadU(d, r + 3 * N)));
    }
    hn::StoreU(finish(a0, x), d, out + x);
    hn::StoreU(finish(a1, x + N), d, out + x + N);
    hn::StoreU(finish(a2, x + 2 * N), d, out + x + 2 * N);
    hn::StoreU(finish(a3, x + 3 * N), d, out + x + 3 * N);
  }
  for (; x + N <= n; x += N) {
    auto a = zero;
    for (int t = 0; t < K; ++t) a = hn::Add(a, hn::Mul(hn::Set(d, g[t]), hn::LoadU(d, rows[t] + x)));
    hn::StoreU(finish(a, x), d, out + x);
  }
  for (; x < n; ++x) {
    float acc = 0.0f;
    for (int t = 0; t < K; ++t) acc += g[t] * rows[t][x];
    if (in != nullptr) {
      const float v = scale * in[x] * gain - acc * amount;
      acc = v > 0.0f ? (v < 255.0f ? v : 255.0f) : 0.0f;
    }
    out[x] = acc;
  }
}

void PasteBlurRow(const float* const* HWY_RESTRICT rows, const float* HWY_RESTRICT g, int K, int n,
                  float* HWY_RESTRICT out) {
  BlurRowImpl(rows, g, K, n, nullptr, 0.0f, 0.0f, 0.0f, out);
}

void PasteSharpenRow(const float* const* HWY_RESTRICT rows, const float* HWY_RESTRICT g, int K, int n,
                     const float* HWY_RESTRICT in, float scale, float amount, float* HWY_RESTRICT out) {
  BlurRowImpl(rows, g, K, n, in, scale, 1.0f + amount, amount, out);
}

}  // namespace HWY_NAMESPACE
}  // namespace le::simd
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace le::simd {

HWY_EXPORT(PasteLanczos8Row);
HWY_EXPORT(PasteColumns);
HWY_EXPORT(PasteBlurRow);
HWY_EXPORT(PasteSharpenRow);

void pasteBlurRow(const float* const* rows, const float* g, int K, int n, float* out) {
  HWY_DYNAMIC_DISPATCH(PasteBlurRow)(rows, g, K, n, out);
}

void pasteSharpenRow(const float* const* rows, const float* g, int K, int n, const float* in, float scale,
                     float amount, float* out) {
  HWY_DYNAMIC_DISPATCH(PasteSharpenRow)(rows, g, K, n, in, scale, amount, out);
}

void pasteColumns(const float* rows, int n, int y0, int y1, int k, int x0, int x1, float* dst) {
  HWY_DYNAMIC_DISPATCH(PasteColumns)(rows, n, y0, y1, k, x0, x1, dst);
}

void pasteLanczos8Row(const float* src, int crop, const uint8_t* mask, const uint32_t* quads,
                      const float* lanczos, const float* bilinear, const int* col_x, const int* col_y,
                      int row_x, int row_y, int x_begin, int x_end, uint8_t* dst_row) {
  HWY_DYNAMIC_DISPATCH(PasteLanczos8Row)(src, crop, mask, quads, lanczos, bilinear, col_x, col_y, row_x,
                                         row_y, x_begin, x_end, dst_row);
}

void pasteMaskQuads(const uint8_t* mask, int crop, uint32_t* quads) {
  const auto m = [&](int x, int y) -> uint32_t {
    return (x >= 0 && x < crop && y >= 0 && y < crop) ? mask[static_cast<size_t>(y) * crop + x] : 0u;
  };
  for (int y = -1; y < crop; ++y)
    for (int x = -1; x < crop; ++x)
      quads[static_cast<size_t>(y + 1) * (crop + 1) + (x + 1)] =
          m(x, y) | m(x + 1, y) << 8 | m(x, y + 1) << 16 | m(x + 1, y + 1) << 24;
}

}  // namespace le::simd
#endif  // HWY_ONCE
