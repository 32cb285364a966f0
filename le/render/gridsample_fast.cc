#include "le/render/gridsample_fast.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>

#include "le/render/le_warp.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define LE_GSF_X86 1
#endif

namespace le {

namespace gsf {

bool vectorPath() {
#if LE_GSF_X86
  static const bool ok = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("sse4.1") && __builtin_cpu_supports("fma");
  }();
  return ok;
#else
  return false;
#endif
}

namespace {

// Column (or row) pair of one sample under the border rule: a coordinate left of the first
// pixel centre reads pixel 0 twice; one right of the last reads the last twice.
inline void borderPair(float x0f, int n, int& a, int& b) {
  if (!(x0f >= -1.f)) x0f = -1.f;  // also catches NaN
  if (x0f > float(n)) x0f = float(n);
  const int x0 = int(x0f);
  a = x0 < 0 ? 0 : std::min(x0, n - 1);
  b = x0 < 0 ? 0 : std::min(x0 + 1, n - 1);
}

}  // namespace

void bandScalar(const float* in, const float* grid, float* out, int C, int H, int W, int r0, int r1) {
  r0 = std::max(r0, 0);
  r1 = std::min(r1, H);
  const size_t hw = size_t(H) * size_t(W);
  const float wf = float(W), hf = float(H);
  for (int y = r0; y < r1; ++y) {
    for (int x = 0; x < W; ++x) {
      const size_t p = size_t(y) * W + x;
      const float xf = (1.f + grid[2 * p]) * 0.5f * wf - 0.5f;
      const float yf = (1.f + grid[2 * p + 1]) * 0.5f * hf - 0.5f;
      const float x0f = std::floor(xf), y0f = std::floor(yf);
      const float fx = xf - x0f, fy = yf - y0f;
      int xa, xb, ya, yb;
      borderPair(x0f, W, xa, xb);
      borderPair(y0f, H, ya, yb);
      const float w01 = fx * (1.f - fy), w00 = (1.f - fx) * (1.f - fy);
      const float w10 = fy * (1.f - fx), w11 = fx * fy;
      const size_t o00 = size_t(ya) * W + xa, o01 = size_t(ya) * W + xb;
      const size_t o10 = size_t(yb) * W + xa, o11 = size_t(yb) * W + xb;
      for (int c = 0; c < C; ++c) {
        const float* X = in + c * hw;
        float v = w01 * X[o01] + w00 * X[o00];
        v = v + w10 * X[o10];
        out[c * hw + p] = v + w11 * X[o11];
      }
    }
  }
}

#if LE_GSF_X86
__attribute__((target("sse4.1,fma"))) void bandVector(const float* in, const float* grid, float* out,
                                                        int C, int H, int W, int r0, int r1) {
  r0 = std::max(r0, 0);
  r1 = std::min(r1, H);
  if (r0 >= r1 || W <= 0) return;
  const size_t hw = size_t(H) * size_t(W);
  const int groups = (W + 3) / 4;
  // Per row: four offsets and four weights for each pixel, in groups of four pixels.
  std::vector<int32_t> off(size_t(groups) * 16);
  std::vector<float> wt(size_t(groups) * 16);

  const __m128 one = _mm_set1_ps(1.f), half = _mm_set1_ps(0.5f), minus1 = _mm_set1_ps(-1.f);
  const __m128 wf = _mm_set1_ps(float(W)), hf = _mm_set1_ps(float(H));
  const __m128i zero = _mm_setzero_si128(), onei = _mm_set1_epi32(1);
  const __m128i wm1 = _mm_set1_epi32(W - 1), hm1 = _mm_set1_epi32(H - 1), wi = _mm_set1_epi32(W);

  for (int y = r0; y < r1; ++y) {
    const float* g = grid + size_t(y) * W * 2;
    for (int k = 0; k < groups; ++k) {
      const int x = 4 * k, n = std::min(4, W - x);
      __m128 g0, g1;
      if (n == 4) {
        g0 = _mm_loadu_ps(g + 2 * x);
        g1 = _mm_loadu_ps(g + 2 * x + 4);
      } else {
        float tmp[8] = {0, 0, 0, 0, 0, 0, 0, 0};
        std::memcpy(tmp, g + 2 * x, sizeof(float) * 2 * n);
        g0 = _mm_loadu_ps(tmp);
        g1 = _mm_loadu_ps(tmp + 4);
      }
      const __m128 gx = _mm_shuffle_ps(g0, g1, _MM_SHUFFLE(2, 0, 2, 0));
      const __m128 gy = _mm_shuffle_ps(g0, g1, _MM_SHUFFLE(3, 1, 3, 1));
      const __m128 xf = _mm_sub_ps(_mm_mul_ps(_mm_mul_ps(_mm_add_ps(one, gx), half), wf), half);
      const __m128 yf = _mm_sub_ps(_mm_mul_ps(_mm_mul_ps(_mm_add_ps(one, gy), half), hf), half);
      const __m128 x0f = _mm_floor_ps(xf), y0f = _mm_floor_ps(yf);
      const __m128 fx = _mm_sub_ps(xf, x0f), fy = _mm_sub_ps(yf, y0f);
      // Clamp before converting so huge or NaN coordinates land on the border, never wrap.
      const __m128i x0 = _mm_cvttps_epi32(_mm_min_ps(_mm_max_ps(x0f, minus1), wf));
      const __m128i y0 = _mm_cvttps_epi32(_mm_min_ps(_mm_max_ps(y0f, minus1), hf));
      const __m128i xa = _mm_max_epi32(_mm_min_epi32(x0, wm1), zero);
      const __m128i xb = _mm_max_epi32(_mm_min_epi32(_mm_add_epi32(x0, onei), wm1), zero);
      const __m128i ra = _mm_mullo_epi32(_mm_max_epi32(_mm_min_epi32(y0, hm1), zero), wi);
      const __m128i rb = _mm_mullo_epi32(_mm_max_epi32(_mm_min_epi32(_mm_add_epi32(y0, onei), hm1), zero), wi);
      int32_t* o = off.data() + 16 * k;
      _mm_storeu_si128(reinterpret_cast<__m128i*>(o + 0), _mm_add_epi32(ra, xb));   // (ya, xb)
      _mm_storeu_si128(reinterpret_cast<__m128i*>(o + 4), _mm_add_epi32(ra, xa));   // (ya, xa)
      _mm_storeu_si128(reinterpret_cast<__m128i*>(o + 8), _mm_add_epi32(rb, xa));   // (yb, xa)
      _mm_storeu_si128(reinterpret_cast<__m128i*>(o + 12), _mm_add_epi32(rb, xb));  // (yb, xb)
      const __m128 omfx = _mm_sub_ps(one, fx), omfy = _mm_sub_ps(one, fy);
      float* w = wt.data() + 16 * k;
      _mm_storeu_ps(w + 0, _mm_mul_ps(fx, omfy));
      _mm_storeu_ps(w + 4, _mm_mul_ps(omfx, omfy));
      _mm_storeu_ps(w + 8, _mm_mul_ps(fy, omfx));
      _mm_storeu_ps(w + 12, _mm_mul_ps(fx, fy));
    }
    for (int c = 0; c < C; ++c) {
      const float* X = in + c * hw;
      float* dst = out + c * hw + size_t(y) * W;
      for (int k = 0; k < groups; ++k) {
        const int32_t* o = off.data() + 16 * k;
        const float* w = wt.data() + 16 * k;
        const __m128 v01 = _mm_setr_ps(X[o[0]], X[o[1]], X[o[2]], X[o[3]]);
        const __m128 v00 = _mm_setr_ps(X[o[4]], X[o[5]], X[o[6]], X[o[7]]);
        const __m128 v10 = _mm_setr_ps(X[o[8]], X[o[9]], X[o[10]], X[o[11]]);
        const __m128 v11 = _mm_setr_ps(X[o[12]], X[o[13]], X[o[14]], X[o[15]]);
        __m128 acc = _mm_mul_ps(_mm_loadu_ps(w + 0), v01);
        acc = _mm_fmadd_ps(_mm_loadu_ps(w + 4), v00, acc);
        acc = _mm_fmadd_ps(_mm_loadu_ps(w + 8), v10, acc);
        acc = _mm_fmadd_ps(_mm_loadu_ps(w + 12), v11, acc);
        const int x = 4 * k;
        if (x + 4 <= W) {
          _mm_storeu_ps(dst + x, acc);
        } else {
          float tmp[4];
          _mm_storeu_ps(tmp, acc);
          std::memcpy(dst + x, tmp, sizeof(float) * (W - x));
        }
      }
    }
  }
}
#else
void bandVector(const float* in, const float* grid, float* out, int C, int H, int W, int r0, int r1) {
  bandScalar(in, grid, out, C, H, W, r0, r1);
}
#endif

namespace {
std::string shapeText(const std::vector<int64_t>& d) {
  std::string s = "[";
  for (size_t i = 0; i < d.size(); ++i) s += (i ? ", " : "") + std::to_string(d[i]);
  return s + "]";
}
}  // namespace

void checkShapes(const char* op, const std::vector<int64_t>& input, const std::vector<int64_t>& grid) {
  const std::string who = std::string("com.vantorix::") + op + ": ";
  if (input.size() != 4)
    throw std::runtime_error(who + "input 0 must be [N, C, H, W], got " + shapeText(input));
  if (grid.size() != 4 || grid[0] != input[0] || grid[1] != input[2] || grid[2] != input[3] || grid[3] != 2)
    throw std::runtime_error(who + "the grid is " + shapeText(grid) + " but input 0 is " + shapeText(input) +
                             "; the grid must be [N, H, W, 2] with the input's N, H and W");
  if (input[2] * input[3] > INT32_MAX)
    throw std::runtime_error(who + "an image of " + shapeText(input) + " is larger than this kernel indexes");
}

}  // namespace gsf

void gridsample_fast_band(const float* in, const float* grid, float* out, int C, int H, int W,
                          int rowBegin, int rowEnd) {
  if (gsf::vectorPath())
    gsf::bandVector(in, grid, out, C, H, W, rowBegin, rowEnd);
  else
    gsf::bandScalar(in, grid, out, C, H, W, rowBegin, rowEnd);
}

void gridsample_fast(const float* in, const float* grid, float* out, int C, int H, int W) {
  gridsample_fast_band(in, grid, out, C, H, W, 0, H);
}

// ---- the ONNX Runtime operator -------------------------------------------------------------

namespace {

constexpr int kBandRows = 16;

struct BandArgs {
  const float* in;
  const float* grid;
  float* out;
  int C, H, W;
};

void band_fn(void* p, size_t b) {
  const BandArgs& a = *static_cast<const BandArgs*>(p);
  const int r0 = int(b) * kBandRows;
  gridsample_fast_band(a.in, a.grid, a.out, a.C, a.H, a.W, r0, std::min(r0 + kBandRows, a.H));
}

struct GSFKernel {
  static constexpr const char* kName = "GridSampleFast";
  OrtStatusPtr ComputeV2(OrtKernelContext* context) { return gsf::computeStatus(*this, context); }

  void compute(Ort::KernelContext& ctx) {
    const gsf::SampleInputs s(ctx);
    gsf::checkShapes(kName, s.xs, s.gs);
    Ort::UnownedValue y = ctx.GetOutput(0, s.xs);
    const int64_t N = s.xs[0], C = s.xs[1], H = s.xs[2], W = s.xs[3];
    if (N == 0 || C == 0 || H == 0 || W == 0) return;
    const float* in = s.x.GetTensorData<float>();
    const float* g = s.grid.GetTensorData<float>();
    float* out = y.GetTensorMutableData<float>();
    const size_t bands = size_t((H + kBandRows - 1) / kBandRows);
    for (int64_t n = 0; n < N; ++n) {
      BandArgs a{in + n * C * H * W, g + n * H * W * 2, out + n * C * H * W, int(C), int(H), int(W)};
      ctx.ParallelFor(band_fn, bands, 0, &a);
    }
  }
};

using GSFOp = gsf::FloatOp<GSFKernel>;

}  // namespace

void domainOps(Ort::CustomOpDomain& domain) {
  static const GSFOp gsfOp;
  domain.Add(&gsfOp);
  domain.Add(warpDirectorOp());
}

Ort::CustomOpDomain& vantorixDomain() {
  ortApi();
  static Ort::CustomOpDomain domain = [] {
    Ort::CustomOpDomain d(kVantorixDomain);
    domainOps(d);
    return d;
  }();
  return domain;
}

void registerGridSampleFast(Ort::SessionOptions& options) { options.Add(vantorixDomain()); }

}  // namespace le
