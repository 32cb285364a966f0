// GridSampleFast against ONNX Runtime's own GridSample (bilinear, border, align_corners 0),
// both inside real sessions on 2 intra-op threads; the counter "speedup" is ORT's time over
// ours in the same run. The plain kernel's paths, and OpenCV's remap where available, beside.
#include <benchmark/benchmark.h>

#include <random>

#include "bench/ort_bench_util.h"
#include "le/render/gridsample_fast.h"
#include "tools/forge/onnx_builder.h"

#if LE_HAVE_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif


namespace {

constexpr int kThreads = 2;
const int64_t kShapes[][3] = {{3, 512, 512}, {64, 64, 64}};

std::vector<uint8_t> model(bool fast, int64_t C, int64_t H, int64_t W) {
  return le::forge::gridSampleModel(fast, 1, C, H, W);
}

struct Case {
  le::bench::Tensor x, grid, y;
  int C, H, W;
  explicit Case(int64_t c, int64_t h, int64_t w) : C(int(c)), H(int(h)), W(int(w)) {
    x = {"X", {1, c, h, w}, std::vector<float>(size_t(c * h * w))};
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> d(0.f, 1.f);
    for (float& v : x.data) v = d(rng);
    grid = {"grid", {1, h, w, 2}, le::bench::smoothGrid(H, W)};
    y = {"Y", {1, c, h, w}, std::vector<float>(size_t(c * h * w))};
  }
};

void BM_GridSampleFast_vs_OrtGridSample(benchmark::State& state) {
  const auto& s = kShapes[state.range(0)];
  Case c(s[0], s[1], s[2]);
  le::bench::BoundSession fast(model(true, s[0], s[1], s[2]), kThreads, {&c.x, &c.grid}, {&c.y});
  le::bench::BoundSession ort(model(false, s[0], s[1], s[2]), kThreads, {&c.x, &c.grid}, {&c.y});
  const double ortSec = le::bench::timeAgainst(state, [&] { fast.run(); }, [&] { ort.run(); });
  state.counters["ort_gridsample_ms"] = ortSec * 1e3;
  state.SetLabel("[1," + std::to_string(s[0]) + "," + std::to_string(s[1]) + "," + std::to_string(s[2]) +
                 "] 2 intra-op threads");
}
BENCHMARK(BM_GridSampleFast_vs_OrtGridSample)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_OrtGridSample(benchmark::State& state) {
  const auto& s = kShapes[state.range(0)];
  Case c(s[0], s[1], s[2]);
  le::bench::BoundSession ort(model(false, s[0], s[1], s[2]), kThreads, {&c.x, &c.grid}, {&c.y});
  for (auto _ : state) ort.run();
}
BENCHMARK(BM_OrtGridSample)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// The plain kernel on one thread: the vector path against the scalar fallback.
void BM_PlainKernel(benchmark::State& state) {
  const auto& s = kShapes[state.range(0)];
  const bool vec = state.range(1) != 0;
  if (vec && !le::gsf::vectorPath()) {
    state.SkipWithError("no SSE4.1+FMA on this processor");
    return;
  }
  Case c(s[0], s[1], s[2]);
  auto run = [&] {
    (vec ? le::gsf::bandVector : le::gsf::bandScalar)(c.x.data.data(), c.grid.data.data(), c.y.data.data(), c.C, c.H,
                                                      c.W, 0, c.H);
  };
  if (vec) {
    le::bench::timeAgainst(state, run, [&] {
      le::gsf::bandScalar(c.x.data.data(), c.grid.data.data(), c.y.data.data(), c.C, c.H, c.W, 0, c.H);
    });
  } else {
    for (auto _ : state) run();
  }
  state.SetLabel(vec ? "SSE4.1+FMA, 1 thread" : "scalar, 1 thread");
}
BENCHMARK(BM_PlainKernel)->Args({0, 0})->Args({0, 1})->Args({1, 0})->Args({1, 1})->Unit(benchmark::kMillisecond)->UseRealTime();

#if LE_HAVE_OPENCV
// What a user would otherwise reach for: cv::remap per plane (bilinear, replicated border) on
// 2 threads, for the 3-channel case.
void BM_OpenCvRemap(benchmark::State& state) {
  const int H = 512, W = 512;
  Case c(3, H, W);
  cv::Mat mx(H, W, CV_32F), my(H, W, CV_32F);
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) {
      const size_t p = size_t(y) * W + x;
      mx.at<float>(y, x) = ((c.grid.data[2 * p] + 1.f) * W - 1.f) * 0.5f;
      my.at<float>(y, x) = ((c.grid.data[2 * p + 1] + 1.f) * H - 1.f) * 0.5f;
    }
  cv::setNumThreads(kThreads);
  for (auto _ : state)
    for (int ch = 0; ch < 3; ++ch) {
      cv::Mat src(H, W, CV_32F, c.x.data.data() + size_t(ch) * H * W);
      cv::Mat dst(H, W, CV_32F, c.y.data.data() + size_t(ch) * H * W);
      cv::remap(src, dst, mx, my, cv::INTER_LINEAR, cv::BORDER_REPLICATE);
    }
  state.SetLabel("[1,3,512,512] per plane, 2 threads");
}
BENCHMARK(BM_OpenCvRemap)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

}  // namespace
