// The motion generator's 512-point FFT, compiled for every vector target (le_simd_targets.h) with
// run-time dispatch. Every butterfly is computed with the same operations in the same order on
// every target and in every layout, so all targets give the bits of the plain radix-2 loops.
#include "le/le_simd_targets.h"

#include "le/audio/le_motion.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "le/audio/le_motion_simd.cc"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace le::motion {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

constexpr int Rev6(int c) {
  int r = 0;
  for (int b = 0; b < 6; ++b) r |= ((c >> b) & 1) << (5 - b);
  return r;
}

// One butterfly on vectors: a += t, b = a - t with t = b * w.
template <class V>
HWY_INLINE void Butterfly(V& ar, V& ai, V& br, V& bi, V cr, V ci) {
  const V tr = hn::Sub(hn::Mul(br, cr), hn::Mul(bi, ci));
  const V ti = hn::Add(hn::Mul(br, ci), hn::Mul(bi, cr));
  br = hn::Sub(ar, tr);
  bi = hn::Sub(ai, ti);
  ar = hn::Add(ar, tr);
  ai = hn::Add(ai, ti);
}

// The three shortest stages (half-sizes 1, 2, 4) over eight vectors: row r holds point r of
// one 8-point block per lane, so every butterfly pairs two whole vectors.
template <class D, class V = hn::Vec<D>>
HWY_INLINE void FirstStages(D d, V* r, V* i, const float* stageCos, const float* stageSin) {
  for (int h = 1; h < 8; h *= 2)
    for (int a = 0; a < 8; ++a) {
      if (a & h) continue;
      const int k = a & (h - 1);
      Butterfly(r[a], i[a], r[a + h], i[a + h], hn::Set(d, stageCos[h + k]), hn::Set(d, stageSin[h + k]));
    }
}

template <class D, class V = hn::Vec<D>>
HWY_INLINE void Transpose4(D d, V& a, V& b, V& c, V& e) {
  const hn::Repartition<uint64_t, D> du;
  const V t0 = hn::InterleaveLower(a, b), t1 = hn::InterleaveUpper(d, a, b);
  const V t2 = hn::InterleaveLower(c, e), t3 = hn::InterleaveUpper(d, c, e);
  a = hn::BitCast(d, hn::InterleaveLower(hn::BitCast(du, t0), hn::BitCast(du, t2)));
  b = hn::BitCast(d, hn::InterleaveUpper(du, hn::BitCast(du, t0), hn::BitCast(du, t2)));
  c = hn::BitCast(d, hn::InterleaveLower(hn::BitCast(du, t1), hn::BitCast(du, t3)));
  e = hn::BitCast(d, hn::InterleaveUpper(du, hn::BitCast(du, t1), hn::BitCast(du, t3)));
}

// Bit reversal fused with the first three stages. Point p = 8b + r of the reordered sequence is
// input rev9(p) = 64 rev3(r) + rev6(b), so for a run of consecutive c = rev6(b) the eight points r
// of each block are eight contiguous input runs. After the stages a transpose turns those rows
// into the blocks, which land in natural order at 8 rev6(c).
template <class D>
HWY_INLINE void ReorderFirstStages(D d, const float* HWY_RESTRICT re, const float* HWY_RESTRICT im,
                                   float* HWY_RESTRICT outRe, float* HWY_RESTRICT outIm,
                                   const float* stageCos, const float* stageSin) {
  using V = hn::Vec<D>;
  constexpr int n = static_cast<int>(hn::MaxLanes(D()));
  static constexpr int kRev3[8] = {0, 4, 2, 6, 1, 5, 3, 7};
  for (int c0 = 0; c0 < 64; c0 += n) {
    V r[8], i[8];
    for (int a = 0; a < 8; ++a) {
      r[a] = hn::LoadU(d, re + 64 * kRev3[a] + c0);
      i[a] = hn::LoadU(d, im + 64 * kRev3[a] + c0);
    }
    FirstStages(d, r, i, stageCos, stageSin);
    if constexpr (n == 8) {
      // 8 x 8: two 4 x 4 transposes inside each 128-bit half, then swap the halves across.
      Transpose4(d, r[0], r[1], r[2], r[3]), Transpose4(d, r[4], r[5], r[6], r[7]);
      Transpose4(d, i[0], i[1], i[2], i[3]), Transpose4(d, i[4], i[5], i[6], i[7]);
      for (int j = 0; j < 4; ++j) {
        const int lo = 8 * Rev6(c0 + j), hi = 8 * Rev6(c0 + 4 + j);
        hn::StoreU(hn::ConcatLowerLower(d, r[4 + j], r[j]), d, outRe + lo);
        hn::StoreU(hn::ConcatLowerLower(d, i[4 + j], i[j]), d, outIm + lo);
        hn::StoreU(hn::ConcatUpperUpper(d, r[4 + j], r[j]), d, outRe + hi);
        hn::StoreU(hn::ConcatUpperUpper(d, i[4 + j], i[j]), d, outIm + hi);
      }
    } else {
      static_assert(n == 4, "vectors of 4 or 8 floats");
      Transpose4(d, r[0], r[1], r[2], r[3]), Transpose4(d, r[4], r[5], r[6], r[7]);
      Transpose4(d, i[0], i[1], i[2], i[3]), Transpose4(d, i[4], i[5], i[6], i[7]);
      for (int j = 0; j < 4; ++j) {
        const int at = 8 * Rev6(c0 + j);
        hn::StoreU(r[j], d, outRe + at), hn::StoreU(r[4 + j], d, outRe + at + 4);
        hn::StoreU(i[j], d, outIm + at), hn::StoreU(i[4 + j], d, outIm + at + 4);
      }
    }
  }
}

// Stages h and 2h together (h >= lanes) from (sr, si) into (dr, di); in place when they alias.
// Points a, a + h, a + 2h, a + 3h stay in registers between the two stages.
template <class D>
HWY_INLINE void TwoStages(D d, int h, const float* sr, const float* si, float* dr, float* di,
                          const float* HWY_RESTRICT stageCos, const float* HWY_RESTRICT stageSin) {
  const int n = static_cast<int>(hn::Lanes(d));
  const float *w1r = stageCos + h, *w1i = stageSin + h;
  const float *w2r = stageCos + 2 * h, *w2i = stageSin + 2 * h;
  for (int s = 0; s < kFftSize; s += 4 * h)
    for (int k = 0; k < h; k += n) {
      const int a = s + k;
      auto r0 = hn::LoadU(d, sr + a), i0 = hn::LoadU(d, si + a);
      auto r1 = hn::LoadU(d, sr + a + h), i1 = hn::LoadU(d, si + a + h);
      auto r2 = hn::LoadU(d, sr + a + 2 * h), i2 = hn::LoadU(d, si + a + 2 * h);
      auto r3 = hn::LoadU(d, sr + a + 3 * h), i3 = hn::LoadU(d, si + a + 3 * h);
      const auto cr = hn::LoadU(d, w1r + k), ci = hn::LoadU(d, w1i + k);
      Butterfly(r0, i0, r1, i1, cr, ci);
      Butterfly(r2, i2, r3, i3, cr, ci);
      Butterfly(r0, i0, r2, i2, hn::LoadU(d, w2r + k), hn::LoadU(d, w2i + k));
      Butterfly(r1, i1, r3, i3, hn::LoadU(d, w2r + h + k), hn::LoadU(d, w2i + h + k));
      hn::StoreU(r0, d, dr + a), hn::StoreU(i0, d, di + a);
      hn::StoreU(r1, d, dr + a + h), hn::StoreU(i1, d, di + a + h);
      hn::StoreU(r2, d, dr + a + 2 * h), hn::StoreU(i2, d, di + a + 2 * h);
      hn::StoreU(r3, d, dr + a + 3 * h), hn::StoreU(i3, d, di + a + 3 * h);
    }
}

#if HWY_TARGET <= HWY_AVX3
// Transposes 16 x 16 floats held in 16 vectors: unpacks inside 128-bit blocks, then a 4 x 4
// transpose of whole blocks.
HWY_INLINE void Transpose16(__m512* v) {
  __m512 a[16], b[16];
  for (int k = 0; k < 8; ++k) {
    a[2 * k] = _mm512_unpacklo_ps(v[2 * k], v[2 * k + 1]);
    a[2 * k + 1] = _mm512_unpackhi_ps(v[2 * k], v[2 * k + 1]);
  }
  for (int k = 0; k < 4; ++k) {
    const __m512d a0 = _mm512_castps_pd(a[4 * k]), a1 = _mm512_castps_pd(a[4 * k + 1]);
    const __m512d a2 = _mm512_castps_pd(a[4 * k + 2]), a3 = _mm512_castps_pd(a[4 * k + 3]);
    b[4 * k] = _mm512_castpd_ps(_mm512_unpacklo_pd(a0, a2));
    b[4 * k + 1] = _mm512_castpd_ps(_mm512_unpackhi_pd(a0, a2));
    b[4 * k + 2] = _mm512_castpd_ps(_mm512_unpacklo_pd(a1, a3));
    b[4 * k + 3] = _mm512_castpd_ps(_mm512_unpackhi_pd(a1, a3));
  }
  // Block q of b[4k + c] holds column 4q + c, rows 4k .. 4k + 3.
  for (int c = 0; c < 4; ++c) {
    const __m512 t0 = _mm512_shuffle_f32x4(b[c], b[4 + c], 0x44), t1 = _mm512_shuffle_f32x4(b[c], b[4 + c], 0xEE);
    const __m512 t2 = _mm512_shuffle_f32x4(b[8 + c], b[12 + c], 0x44), t3 = _mm512_shuffle_f32x4(b[8 + c], b[12 + c], 0xEE);
    v[c] = _mm512_shuffle_f32x4(t0, t2, 0x88);
    v[4 + c] = _mm512_shuffle_f32x4(t0, t2, 0xDD);
    v[8 + c] = _mm512_shuffle_f32x4(t1, t3, 0x88);
    v[12 + c] = _mm512_shuffle_f32x4(t1, t3, 0xDD);
  }
}

// Bit reversal and the stages of half-size 1 to 16 with sixteen lanes. They act inside blocks of
// 32 points, so lanes can be blocks: after the reversal point r of block b is input
// 16 rev5(r) + rev4(b), and lane l taking block rev4(b) = l makes row r one contiguous load. Each
// butterfly then pairs whole rows under one twiddle. A transpose puts the blocks back in order.
HWY_INLINE void BlockStages(const float* HWY_RESTRICT re, const float* HWY_RESTRICT im, float* HWY_RESTRICT outRe,
                            float* HWY_RESTRICT outIm, const float* stageCos, const float* stageSin) {
  const hn::Full512<float> d;
  using V = hn::Vec<decltype(d)>;
  static constexpr int kRev5[32] = {0, 16, 8, 24, 4, 20, 12, 28, 2, 18, 10, 26, 6, 22, 14, 30,
                                    1, 17, 9, 25, 5, 21, 13, 29, 3, 19, 11, 27, 7, 23, 15, 31};
  static constexpr int kRev4[16] = {0, 8, 4, 12, 2, 10, 6, 14, 1, 9, 5, 13, 3, 11, 7, 15};
  HWY_ALIGN float rowRe[32 * 16], rowIm[32 * 16];
  for (int g = 0; g < 4; ++g) {  // rows 8g .. 8g + 7: half-sizes 1, 2, 4
    V r[8], i[8];
    for (int a = 0; a < 8; ++a) {
      r[a] = hn::LoadU(d, re + 16 * kRev5[8 * g + a]);
      i[a] = hn::LoadU(d, im + 16 * kRev5[8 * g + a]);
    }
    FirstStages(d, r, i, stageCos, stageSin);
    for (int a = 0; a < 8; ++a) {
      hn::Store(r[a], d, rowRe + 16 * (8 * g + a));
      hn::Store(i[a], d, rowIm + 16 * (8 * g + a));
    }
  }
  for (int a = 0; a < 8; ++a) {  // rows a, a + 8, a + 16, a + 24: half-sizes 8 and 16
    V r0 = hn::Load(d, rowRe + 16 * a), i0 = hn::Load(d, rowIm + 16 * a);
    V r1 = hn::Load(d, rowRe + 16 * (a + 8)), i1 = hn::Load(d, rowIm + 16 * (a + 8));
    V r2 = hn::Load(d, rowRe + 16 * (a + 16)), i2 = hn::Load(d, rowIm + 16 * (a + 16));
    V r3 = hn::Load(d, rowRe + 16 * (a + 24)), i3 = hn::Load(d, rowIm + 16 * (a + 24));
    const V cr = hn::Set(d, stageCos[8 + a]), ci = hn::Set(d, stageSin[8 + a]);
    Butterfly(r0, i0, r1, i1, cr, ci);
    Butterfly(r2, i2, r3, i3, cr, ci);
    Butterfly(r0, i0, r2, i2, hn::Set(d, stageCos[16 + a]), hn::Set(d, stageSin[16 + a]));
    Butterfly(r1, i1, r3, i3, hn::Set(d, stageCos[24 + a]), hn::Set(d, stageSin[24 + a]));
    hn::Store(r0, d, rowRe + 16 * a), hn::Store(i0, d, rowIm + 16 * a);
    hn::Store(r1, d, rowRe + 16 * (a + 8)), hn::Store(i1, d, rowIm + 16 * (a + 8));
    hn::Store(r2, d, rowRe + 16 * (a + 16)), hn::Store(i2, d, rowIm + 16 * (a + 16));
    hn::Store(r3, d, rowRe + 16 * (a + 24)), hn::Store(i3, d, rowIm + 16 * (a + 24));
  }
  const float* rows[2] = {rowRe, rowIm};
  float* outs[2] = {outRe, outIm};
  for (int part = 0; part < 2; ++part)
    for (int half = 0; half < 2; ++half) {
      __m512 v[16];
      for (int k = 0; k < 16; ++k) v[k] = _mm512_load_ps(rows[part] + 16 * (16 * half + k));
      Transpose16(v);
      for (int l = 0; l < 16; ++l) _mm512_store_ps(outs[part] + 32 * kRev4[l] + 16 * half, v[l]);
    }
}
#endif

// The 512 points: reorder and stages 1-16 into scratch (in blocks of 32 with sixteen lanes, else
// stages 1-4 and then 8-16), stages 32-64 there, stages 128-256 back into the caller's arrays.
void FftForward(float* HWY_RESTRICT re, float* HWY_RESTRICT im, const float* stageCos,
                const float* stageSin) {
  HWY_ALIGN float tr[kFftSize], ti[kFftSize];
  const hn::ScalableTag<float> d;
#if HWY_TARGET <= HWY_AVX3
  BlockStages(re, im, tr, ti, stageCos, stageSin);
#else
  const hn::CappedTag<float, 8> d8;
  ReorderFirstStages(d8, re, im, tr, ti, stageCos, stageSin);
  TwoStages(d8, 8, tr, ti, tr, ti, stageCos, stageSin);
#endif
  TwoStages(d, 32, tr, ti, tr, ti, stageCos, stageSin);
  TwoStages(d, 128, tr, ti, re, im, stageCos, stageSin);
}

}  // namespace HWY_NAMESPACE
}  // namespace le::motion
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace le::motion {

HWY_EXPORT(FftForward);

void fftForward(float* re, float* im, const float* stageCos, const float* stageSin) {
  HWY_DYNAMIC_DISPATCH(FftForward)(re, im, stageCos, stageSin);
}

}  // namespace le::motion
#endif  // HWY_ONCE
