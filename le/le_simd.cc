// Half-precision conversion, retrieval terms and the 3x3 convolution, compiled once per
// x86 target (this file is re-included by foreach_target.h) with run-time dispatch.

#include "le/le_simd_targets.h"

#ifndef LE_SIMD_CC_SCALAR_ONCE
#define LE_SIMD_CC_SCALAR_ONCE

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "le/le_simd.h"

namespace le::simd::detail {

inline uint32_t floatBits(float f) {
  uint32_t u;
  std::memcpy(&u, &f, 4);
  return u;
}
inline float bitsFloat(uint32_t u) {
  float f;
  std::memcpy(&f, &u, 4);
  return f;
}

// Binary16 magnitude of a finite float magnitude a below 2^16 (bits), nearest-even.
inline uint32_t finiteHalfMagnitude(uint32_t a) {
  const int e = static_cast<int>(a >> 23) - 112;
  const uint32_t mant = a & 0x7FFFFFu;
  if (e < 1) {
    if (e < -10) return 0;
    const uint32_t m = mant | 0x800000u;
    const int s = 14 - e;
    uint32_t q = m >> s;
    const uint32_t r = m & ((1u << s) - 1u);
    const uint32_t half = 1u << (s - 1);
    if (r > half || (r == half && (q & 1u))) ++q;
    return q;
  }
  uint32_t q = (static_cast<uint32_t>(e) << 10) | (mant >> 13);
  const uint32_t r = mant & 0x1FFFu;
  if (r > 0x1000u || (r == 0x1000u && (q & 1u))) ++q;  // may carry into the exponent
  return q;
}

// The vector kernels' conversion: like le::f32ToF16 but a NaN stays a quiet NaN.
inline uint16_t toHalf(float x) {
  const uint32_t bits = floatBits(x);
  const uint32_t sign = (bits >> 16) & 0x8000u;
  const uint32_t a = bits & 0x7FFFFFFFu;
  if (a > 0x7F800000u) return static_cast<uint16_t>(sign | 0x7E00u | ((a >> 13) & 0x3FFu));
  if (a >= 0x47800000u) return static_cast<uint16_t>(sign | 0x7C00u);
  return static_cast<uint16_t>(sign | finiteHalfMagnitude(a));
}

// Exact widening; a NaN comes back quiet (as the hardware conversion does).
inline float fromHalf(uint16_t h) {
  const uint32_t sign = static_cast<uint32_t>(h & 0x8000u) << 16;
  const uint32_t e = (h >> 10) & 31u;
  const uint32_t m = h & 0x3FFu;
  if (e == 31) return bitsFloat(sign | 0x7F800000u | (m ? 0x400000u | (m << 13) : 0u));
  if (e == 0) {
    const float mag = static_cast<float>(m) * (1.0f / 16777216.0f);  // m * 2^-24, exact
    return bitsFloat(sign | floatBits(mag));
  }
  return bitsFloat(sign | ((e + 112u) << 23) | (m << 13));
}

inline float roundHalf(float x) { return fromHalf(toHalf(x)); }

// Mean absolute half-rounded difference of pixel i of two planar half images.
inline float pixelDistance(const uint16_t* a, const uint16_t* b, size_t n, size_t i) {
  float d = 0.0f;
  for (int k = 0; k < 3; ++k) {
    const float diff = fromHalf(a[k * n + i]) - fromHalf(b[k * n + i]);
    d = d + std::fabs(roundHalf(diff));
  }
  return roundHalf(d / 3.0f);
}

// The padded scratch image of conv3x3Range, one per thread.
inline std::vector<float>& convScratch() {
  thread_local std::vector<float> buf;
  return buf;
}

// Row stride of the padded image: a multiple of 64 floats plus two zero columns.
inline size_t convPaddedStride(int W) { return ((static_cast<size_t>(W) + 63) / 64) * 64 + 2; }

// Copies image n of `in` into the scratch: one zero column left, zeros right of the row.
inline const float* convPad(const float* in, int n, int Cin, int H, int W) {
  const size_t S = convPaddedStride(W);
  std::vector<float>& buf = convScratch();
  const size_t need = static_cast<size_t>(Cin) * H * S;
  if (buf.size() < need) buf.resize(need);
  const float* img = in + static_cast<size_t>(n) * Cin * H * W;
  for (size_t r = 0; r < static_cast<size_t>(Cin) * H; ++r) {
    float* row = buf.data() + r * S;
    row[0] = 0.0f;
    std::memcpy(row + 1, img + r * W, sizeof(float) * W);
    std::fill(row + 1 + W, row + S, 0.0f);
  }
  return buf.data();
}

}  // namespace le::simd::detail

#endif  // LE_SIMD_CC_SCALAR_ONCE

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "le/le_simd.cc"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace le::simd {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using DF = hn::ScalableTag<float>;
using DU = hn::RebindToUnsigned<DF>;
using DI = hn::RebindToSigned<DF>;
using DH = hn::Rebind<uint16_t, DF>;
using VF = hn::Vec<DF>;

#if HWY_TARGET > HWY_AVX2
// No F16C below AVX2: integer conversions with the same results as the hardware.

// Half bits (in u32 lanes) of float lanes, nearest-even; NaN stays quiet.
HWY_INLINE hn::Vec<DU> HalfBits(DF df, VF v) {
  const DU du;
  const DI di;
  const auto bits = hn::BitCast(du, v);
  const auto sign = hn::And(hn::ShiftRight<16>(bits), hn::Set(du, 0x8000u));
  const auto a = hn::And(bits, hn::Set(du, 0x7FFFFFFFu));
  const auto ai = hn::BitCast(di, a);
  const auto lsb = hn::And(hn::ShiftRight<13>(a), hn::Set(du, 1u));
  // Normal range: rebias, add 0x0FFF plus the kept lsb and shift (a carry rounds up).
  const auto normal = hn::ShiftRight<13>(hn::Add(hn::Add(a, hn::Set(du, 0xC8000FFFu)), lsb));
  // Subnormal range: adding 0.5 aligns the ten mantissa bits and rounds to nearest-even.
  const auto sub = hn::Sub(hn::BitCast(du, hn::Add(hn::BitCast(df, a), hn::Set(df, 0.5f))),
                           hn::Set(du, 0x3F000000u));
  const auto nan = hn::Or(hn::Set(du, 0x7E00u), hn::And(hn::ShiftRight<13>(a), hn::Set(du, 0x3FFu)));
  auto h = hn::IfThenElse(hn::RebindMask(du, hn::Lt(ai, hn::Set(di, 0x38800000))), sub, normal);
  h = hn::IfThenElse(hn::RebindMask(du, hn::Gt(ai, hn::Set(di, 0x477FFFFF))), hn::Set(du, 0x7C00u), h);
  h = hn::IfThenElse(hn::RebindMask(du, hn::Gt(ai, hn::Set(di, 0x7F800000))), nan, h);
  return hn::Or(h, sign);
}

// Float lanes of half bits held in u32 lanes; exact, NaN made quiet.
HWY_INLINE VF FromHalfBits(DF df, hn::Vec<DU> h) {
  const DU du;
  const auto sign = hn::ShiftLeft<16>(hn::And(h, hn::Set(du, 0x8000u)));
  const auto e = hn::And(h, hn::Set(du, 0x7C00u));
  const auto m = hn::And(h, hn::Set(du, 0x3FFu));
  const auto normal = hn::Add(hn::ShiftLeft<13>(hn::And(h, hn::Set(du, 0x7FFFu))), hn::Set(du, 0x38000000u));
  const auto special = hn::Or(hn::Or(hn::ShiftLeft<13>(m), hn::Set(du, 0x7F800000u)),
                              hn::IfThenElseZero(hn::Ne(m, hn::Zero(du)), hn::Set(du, 0x400000u)));
  const auto sub = hn::BitCast(
      du, hn::Mul(hn::ConvertTo(df, hn::BitCast(DI(), m)), hn::Set(df, 1.0f / 16777216.0f)));
  auto r = hn::IfThenElse(hn::Eq(e, hn::Zero(du)), sub, normal);
  r = hn::IfThenElse(hn::Eq(e, hn::Set(du, 0x7C00u)), special, r);
  return hn::BitCast(df, hn::Or(r, sign));
}

HWY_INLINE hn::Vec<DH> ToHalf(DF df, VF v) {
  return hn::DemoteTo(DH(), hn::BitCast(DI(), HalfBits(df, v)));
}
HWY_INLINE VF FromHalf(DF df, hn::Vec<DH> h) { return FromHalfBits(df, hn::PromoteTo(DU(), h)); }
HWY_INLINE VF RoundHalf(DF df, VF v) { return FromHalfBits(df, HalfBits(df, v)); }

#else
// F16C: the hardware conversion rounds to nearest-even and keeps NaNs quiet.
using DF16 = hn::Rebind<hwy::float16_t, DF>;

HWY_INLINE hn::Vec<DH> ToHalf(DF /*df*/, VF v) { return hn::BitCast(DH(), hn::DemoteTo(DF16(), v)); }
HWY_INLINE VF FromHalf(DF df, hn::Vec<DH> h) { return hn::PromoteTo(df, hn::BitCast(DF16(), h)); }
HWY_INLINE VF RoundHalf(DF df, VF v) { return hn::PromoteTo(df, hn::DemoteTo(DF16(), v)); }
#endif

void F32ToF16(const float* HWY_RESTRICT src, uint16_t* HWY_RESTRICT dst, size_t n) {
  const DF df;
  const DH dh;
  const size_t N = hn::Lanes(df);
  size_t i = 0;
  for (; i + N <= n; i += N) hn::StoreU(ToHalf(df, hn::LoadU(df, src + i)), dh, dst + i);
  for (; i < n; ++i) dst[i] = detail::toHalf(src[i]);
}

void F16ToF32(const uint16_t* HWY_RESTRICT src, float* HWY_RESTRICT dst, size_t n) {
  const DF df;
  const DH dh;
  const size_t N = hn::Lanes(df);
  size_t i = 0;
  for (; i + N <= n; i += N) hn::StoreU(FromHalf(df, hn::LoadU(dh, src + i)), df, dst + i);
  for (; i < n; ++i) dst[i] = detail::fromHalf(src[i]);
}

void RoundF16(const float* src, float* dst, size_t n) {
  const DF df;
  const size_t N = hn::Lanes(df);
  size_t i = 0;
  for (; i + N <= n; i += N) hn::StoreU(RoundHalf(df, hn::LoadU(df, src + i)), df, dst + i);
  for (; i < n; ++i) dst[i] = detail::roundHalf(src[i]);
}

void BlendRoundF16(const float* HWY_RESTRICT v0, const float* HWY_RESTRICT v1, double a,
                   float* HWY_RESTRICT dst, size_t n) {
  const DF df;
  const hn::Half<DF> dhalf;
  const hn::Rebind<double, decltype(dhalf)> dd;
  const size_t N = hn::Lanes(df), H = hn::Lanes(dhalf);
  const auto w0 = hn::Set(dd, 1.0 - a), w1 = hn::Set(dd, a);
  const auto blend = [&](size_t i) {
    const auto x0 = hn::PromoteTo(dd, hn::LoadU(dhalf, v0 + i));
    const auto x1 = hn::PromoteTo(dd, hn::LoadU(dhalf, v1 + i));
    return hn::DemoteTo(dhalf, hn::Add(hn::Mul(x0, w0), hn::Mul(x1, w1)));
  };
  size_t i = 0;
  for (; i + N <= n; i += N) hn::StoreU(RoundHalf(df, hn::Combine(df, blend(i + H), blend(i))), df, dst + i);
  for (; i < n; ++i)
    dst[i] = detail::roundHalf(static_cast<float>(double(v0[i]) * (1.0 - a) + double(v1[i]) * a));
}

void RoundF16Mul(const float* HWY_RESTRICT a, const float* HWY_RESTRICT b, float* HWY_RESTRICT out,
                 size_t n) {
  const DF df;
  const size_t N = hn::Lanes(df);
  size_t i = 0;
  for (; i + N <= n; i += N)
    hn::StoreU(hn::Mul(RoundHalf(df, hn::LoadU(df, a + i)), hn::LoadU(df, b + i)), df, out + i);
  for (; i < n; ++i) out[i] = detail::roundHalf(a[i]) * b[i];
}

void Rgb8ToPlanarF16(const uint8_t* HWY_RESTRICT rgb, uint16_t* HWY_RESTRICT out,
                     size_t plane_stride, size_t n) {
  const DF df;
  const DH dh;
  const hn::Rebind<uint8_t, DF> d8;
  const size_t N = hn::Lanes(df);
  const VF k255 = hn::Set(df, 255.0f);
  size_t i = 0;
  for (; i + N <= n; i += N) {
    hn::Vec<decltype(d8)> r, g, b;
    hn::LoadInterleaved3(d8, rgb + 3 * i, r, g, b);
    const auto cvt = [&](hn::Vec<decltype(d8)> c) {
      return ToHalf(df, hn::Div(hn::ConvertTo(df, hn::PromoteTo(DI(), c)), k255));
    };
    hn::StoreU(cvt(r), dh, out + i);
    hn::StoreU(cvt(g), dh, out + plane_stride + i);
    hn::StoreU(cvt(b), dh, out + 2 * plane_stride + i);
  }
  for (; i < n; ++i)
    for (size_t k = 0; k < 3; ++k)
      out[k * plane_stride + i] = detail::toHalf(static_cast<float>(rgb[3 * i + k]) / 255.0f);
}

// h(mean of the three absolute half-rounded channel differences) for N pixels at i.
HWY_INLINE VF Distance(DF df, const uint16_t* HWY_RESTRICT a, const uint16_t* HWY_RESTRICT b,
                       size_t n, size_t i) {
  const DH dh;
  VF d = hn::Zero(df);
  for (size_t k = 0; k < 3; ++k) {
    const VF diff = hn::Sub(FromHalf(df, hn::LoadU(dh, a + k * n + i)),
                            FromHalf(df, hn::LoadU(dh, b + k * n + i)));
    d = hn::Add(d, hn::Abs(RoundHalf(df, diff)));
  }
  return RoundHalf(df, hn::Div(d, hn::Set(df, 3.0f)));
}

float RetrieveTermPooled(const uint16_t* HWY_RESTRICT a, const uint16_t* HWY_RESTRICT b,
                         const uint16_t* HWY_RESTRICT w, size_t n) {
  const DF df;
  const DH dh;
  const size_t N = hn::Lanes(df);
  HWY_ALIGN float terms[hn::MaxLanes(DF())];
  float total = 0.0f;
  size_t i = 0;
  for (; i + N <= n; i += N) {
    const VF m = Distance(df, a, b, n, i);
    hn::Store(RoundHalf(df, hn::Mul(m, FromHalf(df, hn::LoadU(dh, w + i)))), df, terms);
    for (size_t j = 0; j < N; ++j) total = total + terms[j];  // index order
  }
  for (; i < n; ++i)
    total = total + detail::roundHalf(detail::pixelDistance(a, b, n, i) * detail::fromHalf(w[i]));
  return total;
}

void RetrieveTermPooledLanes(const uint16_t* HWY_RESTRICT a, const uint16_t* HWY_RESTRICT b,
                             const uint16_t* HWY_RESTRICT w, size_t n, float* HWY_RESTRICT out) {
  const DF df;
  const DH dh;
  const size_t N = hn::Lanes(df);
  constexpr size_t L = kPooledLanes;
  const VF third = hn::Set(df, 3.0f);
  if (N > L) {  // wider than a group: the scalar formula per image
    for (size_t j = 0; j < L; ++j) {
      float total = 0.0f;
      for (size_t i = 0; i < n; ++i) {
        float d = 0.0f;
        for (size_t k = 0; k < 3; ++k)
          d = d + std::fabs(detail::roundHalf(detail::fromHalf(a[(3 * i + k) * L + j]) - detail::fromHalf(b[k * n + i])));
        total = total + detail::roundHalf(detail::roundHalf(d / 3.0f) * detail::fromHalf(w[i]));
      }
      out[j] = total;
    }
    return;
  }
  // The shared query and weights are widened a chunk at a time, outside the per-lane loop.
  constexpr size_t C = 128;
  HWY_ALIGN float bf[3][C];
  HWY_ALIGN float wf[C];
  for (size_t j = 0; j < L; ++j) out[j] = 0.0f;
  for (size_t i0 = 0; i0 < n; i0 += C) {
    const size_t c = std::min(C, n - i0);
    for (size_t k = 0; k < 3; ++k) F16ToF32(b + k * n + i0, bf[k], c);
    F16ToF32(w + i0, wf, c);
    // A zero weight adds +0 to every lane (the images' values being finite), so only the
    // weighted pixels are visited, still in index order.
    uint32_t live[C];
    size_t nl = 0;
    for (size_t i = 0; i < c; ++i) {
      live[nl] = static_cast<uint32_t>(i);
      nl += wf[i] != 0.0f;
    }
    for (size_t j0 = 0; j0 < L; j0 += N) {
      VF total = hn::LoadU(df, out + j0);
      for (size_t q = 0; q < nl; ++q) {
        const size_t i = live[q];
        const uint16_t* ai = a + 3 * (i0 + i) * L + j0;
        VF d = hn::Abs(RoundHalf(df, hn::Sub(FromHalf(df, hn::LoadU(dh, ai)), hn::Set(df, bf[0][i]))));
        for (size_t k = 1; k < 3; ++k) {
          const VF diff = hn::Sub(FromHalf(df, hn::LoadU(dh, ai + k * L)), hn::Set(df, bf[k][i]));
          d = hn::Add(d, hn::Abs(RoundHalf(df, diff)));
        }
        const VF m = RoundHalf(df, hn::Div(d, third));
        total = hn::Add(total, RoundHalf(df, hn::Mul(m, hn::Set(df, wf[i]))));
      }
      hn::StoreU(total, df, out + j0);
    }
  }
}

float RetrieveTermExactRange(const uint16_t* HWY_RESTRICT a, const uint16_t* HWY_RESTRICT b,
                             const float* HWY_RESTRICT w, size_t n, size_t lo, size_t hi) {
  const DF df;
  const size_t N = hn::Lanes(df);
  HWY_ALIGN float terms[hn::MaxLanes(DF())];
  float total = 0.0f;
  size_t i = lo;
  for (; i + N <= hi; i += N) {
    const VF wv = hn::LoadU(df, w + i);
    if (hn::AllTrue(df, hn::Eq(wv, hn::Zero(df)))) continue;
    hn::Store(hn::Mul(wv, Distance(df, a, b, n, i)), df, terms);
    for (size_t j = 0; j < N; ++j)
      if (w[i + j] != 0.0f) total = total + terms[j];
  }
  for (; i < hi; ++i)
    if (w[i] != 0.0f) total = total + w[i] * detail::pixelDistance(a, b, n, i);
  return total;
}

float RetrieveTermExact(const uint16_t* HWY_RESTRICT a, const uint16_t* HWY_RESTRICT b,
                        const float* HWY_RESTRICT w, size_t n) {
  return RetrieveTermExactRange(a, b, w, n, 0, n);
}

// kOc output channels of one image over all pixels, from the padded image. kX vectors of a row
// are accumulated side by side: each pixel keeps its own chain of adds in the required order,
// and kOc * kX independent chains hide the add latency.
template <int kOc, int kX>
HWY_INLINE void ConvChannels(const float* HWY_RESTRICT pad, size_t S, int Cin, int H, int W,
                             const float* HWY_RESTRICT weight, const float* HWY_RESTRICT bias,
                             int oc, float* HWY_RESTRICT out_img) {
  const DF df;
  const size_t N = hn::Lanes(df);
  const size_t plane = static_cast<size_t>(H) * W;
  const size_t wstride = static_cast<size_t>(Cin) * 9;
  const size_t chan = static_cast<size_t>(H) * S;
  const float* w0 = weight + oc * wstride;
  HWY_ALIGN float part[hn::MaxLanes(DF())];
  for (int y = 0; y < H; ++y) {
    // Vectors past the row's end read the scratch's zero padding (rows are padded to a
    // multiple of 64 floats plus two, which covers kX * N + 2 beyond any block start inside
    // the row) and only the columns inside the row are stored.
    for (size_t x = 0; x < static_cast<size_t>(W); x += kX * N) {
      VF acc[kOc][kX];
      for (int j = 0; j < kOc; ++j)
        for (int u = 0; u < kX; ++u) acc[j][u] = hn::Zero(df);
      for (int ky = 0; ky < 3; ++ky) {
        const int yy = y + ky - 1;
        if (yy < 0 || yy >= H) continue;
        for (int kx = 0; kx < 3; ++kx) {
          const float* p = pad + static_cast<size_t>(yy) * S + x + kx;
          const float* wk = w0 + ky * 3 + kx;
          for (int ci = 0; ci < Cin; ++ci) {
            VF v[kX];
            for (int u = 0; u < kX; ++u) v[u] = hn::LoadU(df, p + ci * chan + u * N);
            for (int j = 0; j < kOc; ++j) {
              const VF wv = hn::Set(df, wk[j * wstride + ci * 9]);
              for (int u = 0; u < kX; ++u) acc[j][u] = hn::Add(acc[j][u], hn::Mul(wv, v[u]));
            }
          }
        }
      }
      for (int u = 0; u < kX; ++u) {
        const size_t xu = x + u * N;
        if (xu >= static_cast<size_t>(W)) break;
        const size_t row = static_cast<size_t>(y) * W + xu;
        for (int j = 0; j < kOc; ++j) {
          const VF r = hn::Add(acc[j][u], hn::Set(df, bias[oc + j]));
          float* dst = out_img + (oc + j) * plane + row;
          if (xu + N <= static_cast<size_t>(W)) {
            hn::StoreU(r, df, dst);
          } else {
            hn::Store(r, df, part);
            std::memcpy(dst, part, sizeof(float) * (W - xu));
          }
        }
      }
    }
  }
}

void Conv3x3Range(const float* HWY_RESTRICT in, int N, int Cin, int H, int W,
                  const float* HWY_RESTRICT weight, const float* HWY_RESTRICT bias, int Cout,
                  float* HWY_RESTRICT out, int begin, int end) {
  if (Cout <= 0 || H <= 0 || W <= 0) return;
  const size_t S = detail::convPaddedStride(W);
  const float* pad = nullptr;
  int cached = -1;
  for (int k = begin; k < end;) {
    const int n = k / Cout, oc = k % Cout;
    if (n >= N) break;
    if (n != cached) {
      pad = detail::convPad(in, n, Cin, H, W);
      cached = n;
    }
    float* out_img = out + static_cast<size_t>(n) * Cout * H * W;
    if (oc + 4 <= Cout && k + 4 <= end) {
      ConvChannels<4, 2>(pad, S, Cin, H, W, weight, bias, oc, out_img);
      k += 4;
    } else {
      ConvChannels<1, 4>(pad, S, Cin, H, W, weight, bias, oc, out_img);
      k += 1;
    }
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace le::simd
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace le {
namespace simd {

HWY_EXPORT(F32ToF16);
HWY_EXPORT(F16ToF32);
HWY_EXPORT(RoundF16);
HWY_EXPORT(BlendRoundF16);
HWY_EXPORT(RoundF16Mul);
HWY_EXPORT(Rgb8ToPlanarF16);
HWY_EXPORT(RetrieveTermPooled);
HWY_EXPORT(RetrieveTermPooledLanes);
HWY_EXPORT(RetrieveTermExact);
HWY_EXPORT(RetrieveTermExactRange);
HWY_EXPORT(Conv3x3Range);

void f32ToF16(const float* src, uint16_t* dst, size_t n) {
  HWY_DYNAMIC_DISPATCH(F32ToF16)(src, dst, n);
}
void f16ToF32(const uint16_t* src, float* dst, size_t n) {
  HWY_DYNAMIC_DISPATCH(F16ToF32)(src, dst, n);
}
void roundF16(const float* src, float* dst, size_t n) { HWY_DYNAMIC_DISPATCH(RoundF16)(src, dst, n); }
void blendRoundF16(const float* v0, const float* v1, double a, float* dst, size_t n) {
  HWY_DYNAMIC_DISPATCH(BlendRoundF16)(v0, v1, a, dst, n);
}
void roundF16Mul(const float* a, const float* b, float* out, size_t n) {
  HWY_DYNAMIC_DISPATCH(RoundF16Mul)(a, b, out, n);
}
void rgb8ToPlanarF16(const uint8_t* rgb, uint16_t* out, size_t plane_stride, size_t n) {
  HWY_DYNAMIC_DISPATCH(Rgb8ToPlanarF16)(rgb, out, plane_stride, n);
}
float retrieveTermPooled(const uint16_t* a, const uint16_t* b, const uint16_t* w, size_t n) {
  return HWY_DYNAMIC_DISPATCH(RetrieveTermPooled)(a, b, w, n);
}
void retrieveTermPooledLanes(const uint16_t* a, const uint16_t* b, const uint16_t* w, size_t n, float* out) {
  HWY_DYNAMIC_DISPATCH(RetrieveTermPooledLanes)(a, b, w, n, out);
}
float retrieveTermExact(const uint16_t* a, const uint16_t* b, const float* w, size_t n) {
  return HWY_DYNAMIC_DISPATCH(RetrieveTermExact)(a, b, w, n);
}
float retrieveTermExactRange(const uint16_t* a, const uint16_t* b, const float* w, size_t n,
                             size_t lo, size_t hi) {
  return HWY_DYNAMIC_DISPATCH(RetrieveTermExactRange)(a, b, w, n, lo, hi);
}
void conv3x3Range(const float* in, int N, int Cin, int H, int W, const float* weight,
                  const float* bias, int Cout, float* out, int begin, int end) {
  HWY_DYNAMIC_DISPATCH(Conv3x3Range)(in, N, Cin, H, W, weight, bias, Cout, out, begin, end);
}

const char* target() {
  const int64_t supported = hwy::SupportedTargets();
  const int64_t best = supported & -supported;
  return best ? hwy::TargetName(best) : "Unknown";
}

int64_t compiledTargets() { return HWY_TARGETS; }

}  // namespace simd

void halfToFloat(const uint16_t* src, float* dst, size_t n) { simd::f16ToF32(src, dst, n); }

uint16_t f32ToF16(float x) {
  const uint32_t bits = simd::detail::floatBits(x);
  const uint32_t sign = (bits >> 16) & 0x8000u;
  const int e = static_cast<int>((bits >> 23) & 255u) - 112;
  if (e > 30) return static_cast<uint16_t>(sign | 0x7C00u);
  return static_cast<uint16_t>(sign | simd::detail::finiteHalfMagnitude(bits & 0x7FFFFFFFu));
}

}  // namespace le
#endif  // HWY_ONCE
