// WarpDirector against the unfused standard-operator warp block it replaces (edge Pad and
// second-difference Conv, Concat, GridSample of 12 channels, Slice/Mul/Sub/Add recombination),
// both in real sessions on 2 intra-op threads; "speedup" is the block's time over ours.
#include <benchmark/benchmark.h>

#include <random>

#include "bench/ort_bench_util.h"
#include "le/render/gridsample_fast.h"
#include "le/render/le_warp.h"
#include "tools/forge/onnx_builder.h"


namespace {

constexpr int kThreads = 2;

std::vector<uint8_t> model(bool fused, int64_t H, int64_t W) { return le::forge::warpModel(fused, 1, 3, H, W); }

struct Case {
  le::bench::Tensor x, grid, y;
  int H, W;
  Case(int h, int w) : H(h), W(w) {
    x = {"P_rgb", {1, 3, h, w}, std::vector<float>(size_t(3) * h * w)};
    std::mt19937 rng(9);
    std::uniform_real_distribution<float> d(0.f, 1.f);
    for (float& v : x.data) v = d(rng);
    grid = {"grid", {1, h, w, 2}, le::bench::smoothGrid(h, w)};
    y = {"warped", {1, 3, h, w}, std::vector<float>(size_t(3) * h * w)};
  }
};

// The plain kernels' 512 x 512 case with its planes buffer.
struct PlainCase : Case {
  static constexpr int S = 512;
  std::vector<float> planes = std::vector<float>(size_t(S) * S * le::kWarpPlaneFloats);
  PlainCase() : Case(S, S) {}
  void planesPass() { le::warpDirectorPlanesBand(x.data.data(), planes.data(), S, S, 0, S); }
  void gatherPass() { le::warpDirectorGatherBand(planes.data(), grid.data.data(), y.data.data(), S, S, 0, S); }
  void onePass() { le::warpDirector(x.data.data(), grid.data.data(), y.data.data(), S, S); }
};

void BM_WarpDirector_vs_StandardBlock(benchmark::State& state) {
  const int S = int(state.range(0));
  Case c(S, S);
  le::bench::BoundSession fused(model(true, S, S), kThreads, {&c.x, &c.grid}, {&c.y});
  le::bench::BoundSession standard(model(false, S, S), kThreads, {&c.x, &c.grid}, {&c.y});
  const double stdSec = le::bench::timeAgainst(state, [&] { fused.run(); }, [&] { standard.run(); });
  state.counters["standard_block_ms"] = stdSec * 1e3;
  state.SetLabel("[1,3," + std::to_string(S) + "," + std::to_string(S) + "] 2 intra-op threads");
}
BENCHMARK(BM_WarpDirector_vs_StandardBlock)->Arg(256)->Arg(512)->Unit(benchmark::kMillisecond)->UseRealTime();

// The plain kernels on one thread: planes once then gather (what the operator does) against
// the one-pass band that derives each sample's planes on the fly.
void BM_WarpPlain(benchmark::State& state) {
  const bool onePass = state.range(0) != 0;
  PlainCase c;
  for (auto _ : state) {
    if (onePass) c.onePass();
    else c.planesPass(), c.gatherPass();
    benchmark::DoNotOptimize(c.y.data.data());
  }
  state.SetLabel(onePass ? "one pass, 1 thread" : "planes + gather, 1 thread");
}
BENCHMARK(BM_WarpPlain)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// The two phases apart, one thread.
void BM_WarpPhase(benchmark::State& state) {
  const bool gather = state.range(0) != 0;
  PlainCase c;
  c.planesPass();
  for (auto _ : state) {
    if (gather) c.gatherPass();
    else c.planesPass();
    benchmark::ClobberMemory();
  }
  state.SetLabel(gather ? "gather, 1 thread" : "planes, 1 thread");
}
BENCHMARK(BM_WarpPhase)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// Bandwidth floor: copying the source and writing the output once.
void BM_Memcpy(benchmark::State& state) {
  Case c(512, 512);
  for (auto _ : state) {
    std::copy(c.x.data.begin(), c.x.data.end(), c.y.data.begin());
    benchmark::DoNotOptimize(c.y.data.data());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(c.x.data.size() * sizeof(float)));
}
BENCHMARK(BM_Memcpy)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
