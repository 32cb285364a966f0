// The vector kernels against what a user would reach for instead, in the same run:
// memcpy (bandwidth limit) for the half conversions, libswscale for the video rows, a
// naive loop for the 3x3 convolution, and the SSSE3 build of the paste row for the others.
// Each benchmark runs once per compiled target the processor supports; "vs_*" counters are
// time ratios (below 1 means ours is faster).
#include <benchmark/benchmark.h>
#include <hwy/targets.h>

extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include <ctime>
#include <cmath>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "le/le_simd.h"

namespace {

// The kernels are single-threaded: the calling thread's CPU time keeps the ratios honest
// on a machine shared with other work.
double threadSeconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

double seconds(const std::function<void()>& fn) {
  const double t0 = threadSeconds();
  fn();
  return threadSeconds() - t0;
}

// Forces dispatch to one target for the life of the object.
struct ForceTarget {
  explicit ForceTarget(int64_t t) { hwy::SetSupportedTargetsForTest(t); }
  ~ForceTarget() { hwy::SetSupportedTargetsForTest(0); }
};

// Times `ours` on the benchmark's target and `theirs` on every iteration; the reported
// time is ours, the counter `label` is ours / theirs over the whole run. `items` per
// iteration adds the counter ns_per_item for ours.
void compareRun(benchmark::State& state, int64_t target, const char* label,
                const std::function<void()>& ours, const std::function<void()>& theirs,
                double items = 0) {
  double tOurs = 0, tTheirs = 0;
  for (auto _ : state) {
    double t;
    {
      ForceTarget f(target);
      t = seconds(ours);
    }
    tOurs += t;
    tTheirs += seconds(theirs);
    state.SetIterationTime(t);
  }
  state.counters[label] = tTheirs > 0 ? tOurs / tTheirs : 0;
  if (items > 0 && state.iterations() > 0)
    state.counters["ns_per_item"] = tOurs * 1e9 / (items * static_cast<double>(state.iterations()));
}

constexpr size_t kBigElems = size_t{16} << 20;  // 16 Mi elements: 64 MB of floats

void bmF16ToF32(benchmark::State& state, int64_t target) {
  std::vector<uint16_t> h(kBigElems);
  std::vector<float> f(kBigElems), copy(kBigElems);
  for (size_t i = 0; i < h.size(); ++i) h[i] = static_cast<uint16_t>((i * 2654435761u) >> 16 & 0x7BFF);
  compareRun(
      state, target, "vs_memcpy64MB", [&] { le::simd::f16ToF32(h.data(), f.data(), h.size()); },
      [&] { std::memcpy(copy.data(), f.data(), f.size() * sizeof(float)); });
}

void bmF32ToF16(benchmark::State& state, int64_t target) {
  std::vector<float> f(kBigElems), copy(kBigElems);
  std::vector<uint16_t> h(kBigElems);
  for (size_t i = 0; i < f.size(); ++i) f[i] = static_cast<float>(i % 70001) * 0.937f - 30000.0f;
  compareRun(
      state, target, "vs_memcpy64MB", [&] { le::simd::f32ToF16(f.data(), h.data(), f.size()); },
      [&] { std::memcpy(copy.data(), f.data(), f.size() * sizeof(float)); });
}

void bmYuv1080p(benchmark::State& state, int64_t target) {
  const int W = 1920, H = 1080;
  std::vector<uint8_t> y(W * H), u(W * H / 4), v(W * H / 4), rgb(3 * W * H), rgb2(3 * W * H);
  std::mt19937 rng(1);
  for (auto& b : y) b = static_cast<uint8_t>(16 + rng() % 220);
  for (auto& b : u) b = static_cast<uint8_t>(16 + rng() % 225);
  for (auto& b : v) b = static_cast<uint8_t>(16 + rng() % 225);
  SwsContext* sws = sws_getContext(W, H, AV_PIX_FMT_YUV420P, W, H, AV_PIX_FMT_RGB24, SWS_BILINEAR,
                                   nullptr, nullptr, nullptr);
  if (!sws) {
    state.SkipWithError("sws_getContext failed");
    return;
  }
  const uint8_t* srcPlanes[4] = {y.data(), u.data(), v.data(), nullptr};
  const int srcStride[4] = {W, W / 2, W / 2, 0};
  uint8_t* dstPlanes[4] = {rgb2.data(), nullptr, nullptr, nullptr};
  const int dstStride[4] = {3 * W, 0, 0, 0};
  compareRun(
      state, target, "vs_swscale",
      [&] {
        for (int r = 0; r < H; ++r)
          le::simd::yuv420RowToRgb24(y.data() + r * W, u.data() + (r / 2) * (W / 2), v.data() + (r / 2) * (W / 2),
                                     W, 1, rgb.data() + 3 * r * W);
      },
      [&] { sws_scale(sws, srcPlanes, srcStride, 0, H, dstPlanes, dstStride); }, static_cast<double>(W) * H);
  sws_freeContext(sws);
}

// A 512-pixel crop mapped at about 1.2x (slightly rotated) into a 1080p frame: the rows of
// its bounding box, as the compositor calls them.
struct PasteScene {
  static constexpr int kCrop = 512, kW = 1920, kH = 1080;
  std::vector<float> src, lanczos, bilinear;
  std::vector<uint8_t> mask, frame;
  std::vector<uint32_t> quads;
  std::vector<int> colX, colY, rowX, rowY;
  int x0 = 0, x1 = 0, y0 = 0, y1 = 0;

  PasteScene() {
    std::mt19937 rng(2);
    src.resize(le::simd::pasteSourceFloats(kCrop));
    for (float& v : src) v = static_cast<float>(rng() % 256);
    mask.resize(size_t{kCrop} * kCrop);
    for (int yy = 0; yy < kCrop; ++yy)  // soft-edged ellipse
      for (int xx = 0; xx < kCrop; ++xx) {
        const double dx = (xx - 256) / 230.0, dy = (yy - 280) / 250.0, r = std::sqrt(dx * dx + dy * dy);
        mask[yy * kCrop + xx] = static_cast<uint8_t>(r < 0.85 ? 255 : r > 1 ? 0 : 255 * (1 - r) / 0.15);
      }
    quads.resize(size_t{kCrop + 1} * (kCrop + 1));
    le::simd::pasteMaskQuads(mask.data(), kCrop, quads.data());
    lanczos.resize(256);
    bilinear.resize(64);
    for (int p = 0; p < 32; ++p) {
      const double t = p / 32.0;
      bilinear[2 * p] = static_cast<float>(1 - t), bilinear[2 * p + 1] = static_cast<float>(t);
      double w[8], s = 0;
      for (int i = 0; i < 8; ++i) {
        const double d = std::fabs(t + 3 - i);
        w[i] = d < 1e-9 ? 1.0 : std::sin(M_PI * d) * std::sin(M_PI * d / 4) / (M_PI * M_PI * d * d / 4);
        s += w[i];
      }
      for (int i = 0; i < 8; ++i) lanczos[8 * p + i] = static_cast<float>(w[i] / s);
    }
    frame.assign(size_t{3} * kW * kH, 90);
    // Forward map: crop (u, v) -> frame (a u + b v + tx, c u + d v + ty).
    const double sc = 1.2, rot = 0.05, a = sc * std::cos(rot), b = -sc * std::sin(rot), c = -b, d = a;
    const double tx = 700, ty = 200, det = a * d - b * c;
    x0 = 660, x1 = 1360, y0 = 160, y1 = 860;
    for (int x = x0; x <= x1; ++x) {
      colX.push_back(static_cast<int>(std::lrint(x * (d / det) * 1024)));
      colY.push_back(static_cast<int>(std::lrint(x * (-c / det) * 1024)));
    }
    const double us = -(tx * (d / det) + ty * (-b / det)), vs = -(tx * (-c / det) + ty * (a / det));
    for (int y = y0; y <= y1; ++y) {
      rowX.push_back(static_cast<int>(std::lrint((y * (-b / det) + us) * 1024)) + 16);
      rowY.push_back(static_cast<int>(std::lrint((y * (a / det) + vs) * 1024)) + 16);
    }
  }
  void run() {
    for (int y = y0; y <= y1; ++y)
      le::simd::pasteLanczos8Row(src.data(), kCrop, mask.data(), quads.data(), lanczos.data(), bilinear.data(),
                                 colX.data(), colY.data(), rowX[y - y0], rowY[y - y0], x0, x1,
                                 frame.data() + size_t{3} * kW * y);
  }
  double pixels() const { return static_cast<double>(x1 - x0 + 1) * (y1 - y0 + 1); }
};

void bmPasteRows(benchmark::State& state, int64_t target) {
  PasteScene scene;
  compareRun(
      state, target, "vs_ssse3", [&] { scene.run(); },
      [&] {
        ForceTarget f(HWY_SSSE3);
        scene.run();
      },
      scene.pixels());
}

// The straightforward loop a user would write first.
void naiveConv(const float* in, int Cin, int H, int W, const float* w, const float* bias, int Cout, float* out) {
  for (int oc = 0; oc < Cout; ++oc)
    for (int y = 0; y < H; ++y)
      for (int x = 0; x < W; ++x) {
        float acc = bias[oc];
        for (int ci = 0; ci < Cin; ++ci)
          for (int ky = 0; ky < 3; ++ky)
            for (int kx = 0; kx < 3; ++kx) {
              const int yy = y + ky - 1, xx = x + kx - 1;
              if (yy >= 0 && yy < H && xx >= 0 && xx < W)
                acc += w[((oc * Cin + ci) * 3 + ky) * 3 + kx] * in[(ci * H + yy) * W + xx];
            }
        out[(oc * H + y) * W + x] = acc;
      }
}

// One image's convolution beside the plain loop; ns_per_item is per multiply-add.
void convRun(benchmark::State& state, int64_t target, int Cin, int H, int W, int Cout) {
  std::vector<float> in(size_t(Cin) * H * W), w(size_t(Cout) * Cin * 9), bias(Cout), out(size_t(Cout) * H * W),
      out2(out.size());
  std::mt19937 rng(4);
  for (auto& x : in) x = static_cast<float>(rng() % 1000) / 500.0f - 1.0f;
  for (auto& x : w) x = static_cast<float>(rng() % 1000) / 5000.0f - 0.1f;
  compareRun(
      state, target, "vs_naive",
      [&] { le::simd::conv3x3Range(in.data(), 1, Cin, H, W, w.data(), bias.data(), Cout, out.data(), 0, Cout); },
      [&] { naiveConv(in.data(), Cin, H, W, w.data(), bias.data(), Cout, out2.data()); },
      double(Cout) * Cin * 9 * H * W);
  benchmark::DoNotOptimize(out2.data());
}

void bmConv3x3(benchmark::State& state, int64_t target) { convRun(state, target, 16, 64, 64, 16); }
// The blend head's middle layer at the 1080p pipeline's crop: a 56 x 87 half-resolution window.
void bmConvHead(benchmark::State& state, int64_t target) { convRun(state, target, 16, 56, 87, 16); }

// One registration per runnable compiled target.
const int registered = [] {
  hwy::SetSupportedTargetsForTest(0);
  const int64_t mask = le::simd::compiledTargets() & hwy::SupportedTargets();
  struct Entry {
    const char* name;
    void (*fn)(benchmark::State&, int64_t);
  };
  const Entry entries[] = {{"f16ToF32_64MB", bmF16ToF32}, {"f32ToF16_64MB", bmF32ToF16},
                           {"yuv420RowToRgb24_1080p", bmYuv1080p}, {"pasteLanczos8Row_512crop_1.2x", bmPasteRows},
                           {"conv3x3Range_16x64x64_to16", bmConv3x3}, {"conv3x3Range_16x56x87_to16", bmConvHead}};
  for (const Entry& e : entries)
    for (int64_t m = mask; m; m &= m - 1) {
      const int64_t t = m & -m;
      benchmark::RegisterBenchmark((std::string(e.name) + "/" + hwy::TargetName(t)).c_str(), e.fn, t)
          ->UseManualTime()
          ->Unit(benchmark::kMillisecond);
    }
  return 0;
}();

}  // namespace
