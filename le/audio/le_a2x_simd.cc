// The speech encoders' window normalisation, compiled for every vector target
// (le_simd_targets.h) with run-time dispatch. The sums run in eight double accumulators on
// every target, combined in one fixed order, so all targets give the same bits.
#include "le/le_simd_targets.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "le/audio/le_a2x_w2v.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "le/audio/le_a2x_simd.cc"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace le::a2x {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

constexpr size_t kAcc = 8;

// Window value i: src[i - from] inside [from, to), zero outside.
template <class DF>
HWY_INLINE hn::Vec<DF> WindowAt(DF df, const float* HWY_RESTRICT src, size_t from, size_t to, size_t i) {
  const size_t n = hn::Lanes(df);
  if (i >= from && i + n <= to) return hn::LoadU(df, src + (i - from));
  if (i + n <= from || i >= to) return hn::Zero(df);
  HWY_ALIGN float lanes[kAcc];
  for (size_t k = 0; k < n; ++k) lanes[k] = (i + k >= from && i + k < to) ? src[i + k - from] : 0.0f;
  return hn::Load(df, lanes);
}

// Calls f(i, load) for each block of kAcc window values below body, in order; load(i) gives
// the vector at i. Blocks wholly inside [from, to) load straight from src, without the checks.
template <class DF, class F>
HWY_INLINE void ForBlocks(DF df, const float* src, size_t from, size_t to, size_t body, F&& f) {
  const size_t lo = std::min(body, (from + kAcc - 1) / kAcc * kAcc);
  const size_t hi = std::max(lo, std::min(body, to / kAcc * kAcc));
  const auto edge = [&](size_t i) { return WindowAt(df, src, from, to, i); };
  const auto inside = [&](size_t i) { return hn::LoadU(df, src + (i - from)); };
  for (size_t i = 0; i < lo; i += kAcc) f(i, edge);
  for (size_t i = lo; i < hi; i += kAcc) f(i, inside);
  for (size_t i = hi; i < body; i += kAcc) f(i, edge);
}

void NormaliseWindow(const float* src, size_t from, size_t to, float* dst, size_t n) {
  const hn::CappedTag<double, kAcc> dd;
  const hn::Rebind<float, decltype(dd)> df;
  using VD = hn::Vec<decltype(dd)>;
  const size_t N = hn::Lanes(dd), vecs = kAcc / N;
  const size_t body = n - n % kAcc;
  const auto at = [&](size_t i) { return (i >= from && i < to) ? src[i - from] : 0.0f; };
  HWY_ALIGN double lanes[kAcc];
  // Sum k collects window value i for i % 8 == k; then the eight sums in order, then the tail.
  const auto combine = [&](VD* acc, double tail) {
    for (size_t v = 0; v < vecs; ++v) hn::Store(acc[v], dd, lanes + v * N);
    double s = 0;
    for (double a : lanes) s += a;
    return s + tail;
  };
  VD acc[kAcc];
  for (size_t v = 0; v < vecs; ++v) acc[v] = hn::Zero(dd);
  ForBlocks(df, src, from, to, body, [&](size_t i, const auto& load) {
    for (size_t v = 0; v < vecs; ++v) acc[v] = hn::Add(acc[v], hn::PromoteTo(dd, load(i + v * N)));
  });
  double tail = 0;
  for (size_t i = body; i < n; ++i) tail += at(i);
  const double mean = combine(acc, tail) / double(n);

  const VD m = hn::Set(dd, mean);
  for (size_t v = 0; v < vecs; ++v) acc[v] = hn::Zero(dd);
  ForBlocks(df, src, from, to, body, [&](size_t i, const auto& load) {
    for (size_t v = 0; v < vecs; ++v) {
      const VD d = hn::Sub(hn::PromoteTo(dd, load(i + v * N)), m);
      acc[v] = hn::Add(acc[v], hn::Mul(d, d));
    }
  });
  tail = 0;
  for (size_t i = body; i < n; ++i) tail += (at(i) - mean) * (at(i) - mean);
  const double ss = combine(acc, tail);

  const float inv = 1.0f / std::sqrt(static_cast<float>(ss / double(n) + 1e-7));
  const VD vinv = hn::Set(dd, double(inv));
  ForBlocks(df, src, from, to, body, [&](size_t i, const auto& load) {
    for (size_t v = 0; v < vecs; ++v)
      hn::StoreU(hn::DemoteTo(df, hn::Mul(hn::Sub(hn::PromoteTo(dd, load(i + v * N)), m), vinv)), df, dst + i + v * N);
  });
  for (size_t i = body; i < n; ++i) dst[i] = static_cast<float>((at(i) - mean) * inv);
}

}  // namespace HWY_NAMESPACE
}  // namespace le::a2x
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace le::a2x {

HWY_EXPORT(NormaliseWindow);

void normaliseWindow(float* x, size_t n) { HWY_DYNAMIC_DISPATCH(NormaliseWindow)(x, 0, n, x, n); }

void normaliseWindowFrom(const float* src, size_t from, size_t to, float* dst, size_t n) {
  HWY_DYNAMIC_DISPATCH(NormaliseWindow)(src, from, std::min(std::max(from, to), n), dst, n);
}

}  // namespace le::a2x
#endif  // HWY_ONCE
