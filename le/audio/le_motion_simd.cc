// The butterflies of the motion generator's 512-point FFT, compiled for every vector target
// (le_simd_targets.h) with run-time dispatch. Every target computes each butterfly with the same
// operations in the same order, so all targets give the same bits.
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

// One stage of half-size h over all 512 points, h known at compile time for the short stages.
template <int h>
HWY_INLINE void ScalarStage(float* HWY_RESTRICT re, float* HWY_RESTRICT im, const float* wr,
                            const float* wi) {
  for (int s = 0; s < kFftSize; s += 2 * h) {
    for (int k = 0; k < h; ++k) {
      const int a = s + k, b = a + h;
      const float tr = re[b] * wr[k] - im[b] * wi[k];
      const float ti = re[b] * wi[k] + im[b] * wr[k];
      re[b] = re[a] - tr;
      im[b] = im[a] - ti;
      re[a] = re[a] + tr;
      im[a] = im[a] + ti;
    }
  }
}

template <class D>
HWY_INLINE void VectorStage(D d, int h, float* HWY_RESTRICT re, float* HWY_RESTRICT im,
                            const float* HWY_RESTRICT wr, const float* HWY_RESTRICT wi) {
  const int n = static_cast<int>(hn::Lanes(d));
  for (int s = 0; s < kFftSize; s += 2 * h) {
    for (int k = 0; k < h; k += n) {
      float* ar = re + s + k;
      float* ai = im + s + k;
      const auto br = hn::LoadU(d, ar + h), bi = hn::LoadU(d, ai + h);
      const auto cr = hn::LoadU(d, wr + k), ci = hn::LoadU(d, wi + k);
      const auto tr = hn::Sub(hn::Mul(br, cr), hn::Mul(bi, ci));
      const auto ti = hn::Add(hn::Mul(br, ci), hn::Mul(bi, cr));
      const auto vr = hn::LoadU(d, ar), vi = hn::LoadU(d, ai);
      hn::StoreU(hn::Sub(vr, tr), d, ar + h);
      hn::StoreU(hn::Sub(vi, ti), d, ai + h);
      hn::StoreU(hn::Add(vr, tr), d, ar);
      hn::StoreU(hn::Add(vi, ti), d, ai);
    }
  }
}

void FftButterflies(float* HWY_RESTRICT re, float* HWY_RESTRICT im, const float* stageCos,
                    const float* stageSin) {
  ScalarStage<1>(re, im, stageCos + 1, stageSin + 1);
  ScalarStage<2>(re, im, stageCos + 2, stageSin + 2);
  const hn::CappedTag<float, 4> d4;
  const hn::ScalableTag<float> d;
  const int n = static_cast<int>(hn::Lanes(d));
  for (int h = 4; h < kFftSize; h *= 2) {
    if (h >= n)
      VectorStage(d, h, re, im, stageCos + h, stageSin + h);
    else if (h >= static_cast<int>(hn::Lanes(d4)))
      VectorStage(d4, h, re, im, stageCos + h, stageSin + h);
    else
      ScalarStage<4>(re, im, stageCos + h, stageSin + h);
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace le::motion
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace le::motion {

HWY_EXPORT(FftButterflies);

void fftButterflies(float* re, float* im, const float* stageCos, const float* stageSin) {
  HWY_DYNAMIC_DISPATCH(FftButterflies)(re, im, stageCos, stageSin);
}

}  // namespace le::motion
#endif  // HWY_ONCE
