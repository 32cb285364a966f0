#include "le/render/le_warp.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "le/render/gridsample_fast.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace le {

namespace {

constexpr int kBandRows = 16;

// The 12 plane values of pixel (i, j): per channel f, fxx, fyy, fxxyy over the clamp-to-edge
// 3x3 neighbourhood.
inline void planeAt(const float* src, size_t hw, int W, int H, int i, int j, float* p) {
  const size_t rm = size_t(std::max(i - 1, 0)) * W, r0 = size_t(i) * W, rp = size_t(std::min(i + 1, H - 1)) * W;
  const size_t cm = size_t(std::max(j - 1, 0)), c0 = size_t(j), cp = size_t(std::min(j + 1, W - 1));
  for (int c = 0; c < 3; ++c) {
    const float* s = src + c * hw;
    const float mm = s[rm + cm], m0 = s[rm + c0], mp = s[rm + cp];
    const float zm = s[r0 + cm], z0 = s[r0 + c0], zp = s[r0 + cp];
    const float pm = s[rp + cm], p0 = s[rp + c0], pp = s[rp + cp];
    const float fyy = m0 - 2.f * z0 + p0;
    p[4 * c + 0] = z0;
    p[4 * c + 1] = zm - 2.f * z0 + zp;
    p[4 * c + 2] = fyy;
    p[4 * c + 3] = (mm - 2.f * zm + pm) - 2.f * fyy + (mp - 2.f * zp + pp);
  }
}

// Where one output pixel samples: the four neighbours' pixel indices, bilinear weights from
// the clamped coordinate, and the correction factors from the unclamped fractions.
struct Tap {
  size_t p00, p01, p10, p11;
  float w00, w01, w10, w11;
  float ax, ay;
};

// floor without a libm call on the baseline target; exact for every float (NaN and values
// beyond 2^23 are returned as they are).
inline float floorf32(float x) {
  if (!(std::fabs(x) < 8388608.f)) return x;
  const float t = float(int(x));
  return t > x ? t - 1.f : t;
}

inline int clampedIndex(float v, int n, float& frac) {
  float c = v > 0.f ? v : 0.f;  // NaN lands on 0
  const float top = float(n - 1);
  c = c < top ? c : top;
  const int i0 = int(c);
  frac = c - float(i0);
  return i0;
}

inline Tap tapAt(const float* grid, size_t p, int W, int H) {
  const float x = ((1.f + grid[2 * p]) * float(W) - 1.f) * 0.5f;
  const float y = ((1.f + grid[2 * p + 1]) * float(H) - 1.f) * 0.5f;
  const float tx = x - floorf32(x), ty = y - floorf32(y);
  float dx, dy;
  const int i0 = clampedIndex(x, W, dx), j0 = clampedIndex(y, H, dy);
  const int i1 = std::min(i0 + 1, W - 1), j1 = std::min(j0 + 1, H - 1);
  Tap t;
  t.p00 = size_t(j0) * W + i0;
  t.p01 = size_t(j0) * W + i1;
  t.p10 = size_t(j1) * W + i0;
  t.p11 = size_t(j1) * W + i1;
  t.w00 = (1.f - dx) * (1.f - dy);
  t.w01 = dx * (1.f - dy);
  t.w10 = (1.f - dx) * dy;
  t.w11 = dx * dy;
  t.ax = (1.f - tx) * tx * 0.5f;
  t.ay = (1.f - ty) * ty * 0.5f;
  return t;
}

inline void combine(const Tap& t, const float* a, const float* b, const float* c, const float* d,
                    float* out, size_t hw, size_t p) {
  float v[kWarpPlaneFloats];
#if defined(__SSE2__)
  // Same operations in the same order as the scalar loop below, four plane values at a time.
  const __m128 w00 = _mm_set1_ps(t.w00), w01 = _mm_set1_ps(t.w01), w10 = _mm_set1_ps(t.w10), w11 = _mm_set1_ps(t.w11);
  for (int k = 0; k < kWarpPlaneFloats; k += 4) {
    __m128 s = _mm_add_ps(_mm_mul_ps(w00, _mm_loadu_ps(a + k)), _mm_mul_ps(w01, _mm_loadu_ps(b + k)));
    s = _mm_add_ps(s, _mm_mul_ps(w10, _mm_loadu_ps(c + k)));
    _mm_storeu_ps(v + k, _mm_add_ps(s, _mm_mul_ps(w11, _mm_loadu_ps(d + k))));
  }
#else
  for (int k = 0; k < kWarpPlaneFloats; ++k) v[k] = t.w00 * a[k] + t.w01 * b[k] + t.w10 * c[k] + t.w11 * d[k];
#endif
  const float axy = t.ax * t.ay;
  for (int ch = 0; ch < 3; ++ch) {
    const float* q = v + 4 * ch;
    out[ch * hw + p] = q[0] - t.ax * q[1] - t.ay * q[2] + axy * q[3];
  }
}

}  // namespace

void warpDirectorPlanesBand(const float* src, float* planes, int W, int H, int rowBegin, int rowEnd) {
  const int r0 = std::max(rowBegin, 0), r1 = std::min(rowEnd, H);
  const size_t hw = size_t(H) * W;
  for (int i = r0; i < r1; ++i)
    for (int j = 0; j < W; ++j) planeAt(src, hw, W, H, i, j, planes + (size_t(i) * W + j) * kWarpPlaneFloats);
}

void warpDirectorGatherBand(const float* planes, const float* grid, float* out, int W, int H,
                            int rowBegin, int rowEnd) {
  const int r0 = std::max(rowBegin, 0), r1 = std::min(rowEnd, H);
  const size_t hw = size_t(H) * W;
  for (int i = r0; i < r1; ++i) {
    for (int j = 0; j < W; ++j) {
      const size_t p = size_t(i) * W + j;
      const Tap t = tapAt(grid, p, W, H);
      combine(t, planes + t.p00 * kWarpPlaneFloats, planes + t.p01 * kWarpPlaneFloats,
              planes + t.p10 * kWarpPlaneFloats, planes + t.p11 * kWarpPlaneFloats, out, hw, p);
    }
  }
}

void warpDirectorBand(const float* src, const float* grid, float* out, int W, int H, int rowBegin,
                      int rowEnd) {
  const int r0 = std::max(rowBegin, 0), r1 = std::min(rowEnd, H);
  const size_t hw = size_t(H) * W;
  float a[kWarpPlaneFloats], b[kWarpPlaneFloats], c[kWarpPlaneFloats], d[kWarpPlaneFloats];
  for (int i = r0; i < r1; ++i) {
    for (int j = 0; j < W; ++j) {
      const size_t p = size_t(i) * W + j;
      const Tap t = tapAt(grid, p, W, H);
      planeAt(src, hw, W, H, int(t.p00 / W), int(t.p00 % W), a);
      planeAt(src, hw, W, H, int(t.p01 / W), int(t.p01 % W), b);
      planeAt(src, hw, W, H, int(t.p10 / W), int(t.p10 % W), c);
      planeAt(src, hw, W, H, int(t.p11 / W), int(t.p11 % W), d);
      combine(t, a, b, c, d, out, hw, p);
    }
  }
}

void warpDirector(const float* src, const float* grid, float* out, int W, int H) {
  warpDirectorBand(src, grid, out, W, H, 0, H);
}

// ---- the ONNX Runtime operator -------------------------------------------------------------

namespace {

struct WarpArgs {
  const float* src;
  const float* grid;
  float* planes;
  float* out;
  int W, H;
};

void warp_planes_fn(void* p, size_t b) {
  const WarpArgs& a = *static_cast<const WarpArgs*>(p);
  const int r0 = int(b) * kBandRows;
  warpDirectorPlanesBand(a.src, a.planes, a.W, a.H, r0, std::min(r0 + kBandRows, a.H));
}

void warp_gather_fn(void* p, size_t b) {
  const WarpArgs& a = *static_cast<const WarpArgs*>(p);
  const int r0 = int(b) * kBandRows;
  warpDirectorGatherBand(a.planes, a.grid, a.out, a.W, a.H, r0, std::min(r0 + kBandRows, a.H));
}

// The planes buffer is reused between runs, so one session must not run this node twice at once.
struct WarpKernel {
  int32_t width = 0;
  int32_t height = 0;
  std::vector<float> planes;

  static constexpr const char* kName = "WarpDirector";
  OrtStatusPtr ComputeV2(OrtKernelContext* context) { return gsf::computeStatus(*this, context); }

  void compute(Ort::KernelContext& ctx) {
    const gsf::SampleInputs s(ctx);
    const std::vector<int64_t>& xs = s.xs;
    if (xs.size() == 4 && xs[1] != 3)
      throw std::runtime_error(
          "com.vantorix::WarpDirector: this node warps the director's 3-channel source and the graph "
          "handed it C=" + std::to_string(xs[1]) + ". REFUSING rather than writing a frame nobody asked for.");
    gsf::checkShapes(kName, xs, s.gs);
    const int64_t N = xs[0], H = xs[2], W = xs[3];
    Ort::UnownedValue y = ctx.GetOutput(0, {N, 3, H, W});
    if (N == 0 || H == 0 || W == 0) return;
    width = int32_t(W);
    height = int32_t(H);
    planes.resize(size_t(H) * size_t(W) * kWarpPlaneFloats);
    const float* in = s.x.GetTensorData<float>();
    const float* g = s.grid.GetTensorData<float>();
    float* out = y.GetTensorMutableData<float>();
    const size_t bands = size_t((H + kBandRows - 1) / kBandRows);
    for (int64_t n = 0; n < N; ++n) {
      WarpArgs a{in + n * 3 * H * W, g + n * H * W * 2, planes.data(), out + n * 3 * H * W, width, height};
      ctx.ParallelFor(warp_planes_fn, bands, 0, &a);  // the gather reads neighbouring bands' planes
      ctx.ParallelFor(warp_gather_fn, bands, 0, &a);
    }
  }
};

using WarpOp = gsf::FloatOp<WarpKernel>;

}  // namespace

const OrtCustomOp* warpDirectorOp() {
  static const WarpOp op;
  return &op;
}

void registerWarpDirector(Ort::SessionOptions& options) { registerGridSampleFast(options); }

}  // namespace le
