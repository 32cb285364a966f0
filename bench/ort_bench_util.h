// Benchmark helper: a forged one-model ONNX Runtime session with every input and output bound
// to caller memory once, so a timed run is Session::Run and nothing else.
#pragma once

#include <benchmark/benchmark.h>
#include <time.h>

#include <chrono>
#include <cmath>
#include <string>
#include <vector>

#include "le/render/gridsample_fast.h"
#include "le/render/int8conv_vnni.h"
#include "tests/onnx_ort.h"

namespace le::bench {

struct Tensor {
  std::string name;
  std::vector<int64_t> shape;
  std::vector<float> data;
};

class BoundSession {
 public:
  BoundSession(const std::vector<uint8_t>& model, int intraThreads, std::vector<Tensor*> inputs,
               std::vector<Tensor*> outputs)
      : session_(make(model, intraThreads)), binding_(session_) {
    Ort::MemoryInfo mi = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
    for (Tensor* t : inputs) bind(mi, *t, true);
    for (Tensor* t : outputs) bind(mi, *t, false);
  }
  void run() { session_.Run(Ort::RunOptions{nullptr}, binding_); }

 private:
  static Ort::Session make(const std::vector<uint8_t>& model, int intraThreads) {
    Ort::Env& e = le::test::ortEnv();
    Ort::SessionOptions so;
    so.SetIntraOpNumThreads(intraThreads);
    so.SetInterOpNumThreads(1);
    so.SetGraphOptimizationLevel(GraphOptimizationLevel::ORT_ENABLE_ALL);
    le::registerGridSampleFast(so);
    le::registerInt8ConvVNNI(so);
    return Ort::Session(e, model.data(), model.size(), so);
  }
  void bind(const Ort::MemoryInfo& mi, Tensor& t, bool input) {
    values_.push_back(Ort::Value::CreateTensor<float>(mi, t.data.data(), t.data.size(), t.shape.data(), t.shape.size()));
    if (input)
      binding_.BindInput(t.name.c_str(), values_.back());
    else
      binding_.BindOutput(t.name.c_str(), values_.back());
  }

  Ort::Session session_;
  Ort::IoBinding binding_;
  std::vector<Ort::Value> values_;
};

// The process's CPU seconds so far (every thread).
inline double processCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return double(t.tv_sec) + 1e-9 * double(t.tv_nsec);
}

// Seconds per call of fn, over at least minSeconds of calls; cpuSeconds (when given) receives
// the process's CPU seconds per call.
template <typename Fn>
double secondsPerCall(Fn&& fn, double minSeconds = 0.2, double* cpuSeconds = nullptr) {
  using clock = std::chrono::steady_clock;
  fn();  // warm
  size_t n = 0;
  const double c0 = processCpuSeconds();
  const auto t0 = clock::now();
  double el = 0;
  do {
    fn();
    ++n;
    el = std::chrono::duration<double>(clock::now() - t0).count();
  } while (el < minSeconds);
  if (cpuSeconds) *cpuSeconds = (processCpuSeconds() - c0) / double(n);
  return el / double(n);
}

// Runs ours in the benchmark loop after timing the alternative in the same process; returns
// the alternative's seconds per call over ours (the "speedup" counter). On a loaded machine
// wall time swings with the neighbours: "cpu_speedup" is the same ratio of the process's CPU
// time per call.
template <typename Ours, typename Theirs>
double timeAgainst(benchmark::State& state, Ours&& ours, Theirs&& theirs) {
  double theirCpu = 0;
  const double theirSec = secondsPerCall(theirs, 0.2, &theirCpu);
  ours();
  const double c0 = processCpuSeconds();
  const auto t0 = std::chrono::steady_clock::now();
  for (auto _ : state) ours();
  const double it = double(state.iterations());
  const double ourSec = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count() / it;
  state.counters["speedup"] = theirSec / ourSec;
  state.counters["cpu_speedup"] = theirCpu / ((processCpuSeconds() - c0) / it);
  return theirSec;
}

// A smooth warp grid [H, W, 2]: the identity plus a few pixels of swirl, slightly past the
// border at the edges, as a director's flow field looks.
inline std::vector<float> smoothGrid(int H, int W) {
  std::vector<float> g(size_t(H) * W * 2);
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) {
      const float u = (2.f * x + 1.f) / W - 1.f, v = (2.f * y + 1.f) / H - 1.f;
      g[2 * (size_t(y) * W + x)] = u * 1.02f + 0.03f * std::sin(3.f * v);
      g[2 * (size_t(y) * W + x) + 1] = v * 1.02f + 0.03f * std::cos(2.f * u);
    }
  return g;
}

}  // namespace le::bench
