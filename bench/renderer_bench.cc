// Per-frame cost of the director renderer and of the paste at crop 512 into a 1080p frame, with
// the renderer's own work outside Session::Run (half widening, copies, binding) as a fraction of
// the run, and the renderer beside a plain ONNX Runtime session over the same model file.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_bundle.h"
#include "le/le_simd.h"
#include "le/render/le_ort.h"
#include "le/render/le_renderer.h"
#include "tools/forge/director_members.h"
#include "tools/forge/forge.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

le::forge::Params benchParams() {
  le::forge::Params p;
  p.nt = 4;
  p.frames = 4;
  p.width = 1920;
  p.height = 1080;
  p.crop = 512;
  p.directors = true;
  return p;
}

// One forged bundle per process, rebuilt when missing.
const std::string& bundle() {
  static const std::string dir = [] {
    const char* t = std::getenv("LE_BENCH_TMP");
    const std::string d = std::string(t && *t ? t : "/tmp") + "/le_renderer_bench_bundle";
    if (!fs::exists(d + "/manifest.json")) {
      le::forge::Params p = benchParams();
      p.replace = true;
      le::forge::forgeBundle(d, p);
    }
    return d;
  }();
  return dir;
}

struct Loaded {
  le::Manifest manifest = le::loadManifest(bundle());
  le::Identity identity{manifest};
};

Loaded& loaded() {
  static Loaded l;
  return l;
}

void keypointsOf(int si, std::vector<float>& ks, std::vector<float>& kd) {
  const le::forge::Params p = benchParams();
  ks = le::forge::keypoints(p, si);
  kd = le::forge::drivenKeypoints(p, si);
}

// render() per frame; "overhead" is the share of the call spent outside Session::Run.
void BM_Render(benchmark::State& state, const char* key) {
  Loaded& l = loaded();
  le::Renderer r(l.manifest, l.identity, key, 2, "");
  const int b = r.batch();
  std::vector<float> ks, kd, kss, kds;
  std::vector<int32_t> si(static_cast<size_t>(b));
  for (int k = 0; k < b; ++k) {
    si[size_t(k)] = k % l.manifest.NT;
    keypointsOf(si[size_t(k)], ks, kd);
    kss.insert(kss.end(), ks.begin(), ks.end());
    kds.insert(kds.end(), kd.begin(), kd.end());
  }
  r.render(si.data(), kss.data(), kds.data(), b);  // warm-up
  const double run0 = r.runMsTotal();
  double total = 0;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    benchmark::DoNotOptimize(r.render(si.data(), kss.data(), kds.data(), b));
    total += std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
  }
  const double run = r.runMsTotal() - run0, n = double(state.iterations()) * b;
  state.counters["ms_per_frame"] = total / n;
  state.counters["run_ms_per_frame"] = run / n;
  state.counters["overhead_ms_per_frame"] = (total - run) / n;
  state.counters["overhead_frac"] = (total - run) / run;
  state.SetItemsProcessed(int64_t(n));
}
BENCHMARK_CAPTURE(BM_Render, standard_b1, "b1")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_Render, standard_b4, "b4")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_Render, heavy_b1, "b1_heavy")->Unit(benchmark::kMillisecond)->UseRealTime();

// What a user would write instead: a session over the model file as it ships, inputs widened
// into fresh tensors and the output allocated by the runtime on every call. Alternates with the
// renderer in one loop and reports the ratio.
void BM_RendererVsPlainSession(benchmark::State& state, const char* key) {
  Loaded& l = loaded();
  le::Renderer r(l.manifest, l.identity, key, 2, "");
  le::ortApi();
  Ort::Env env(ORT_LOGGING_LEVEL_WARNING, "bench");
  Ort::SessionOptions so;
  so.SetIntraOpNumThreads(2);
  so.SetInterOpNumThreads(1);
  so.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
  Ort::Session plain(env, l.manifest.modelPath(key).c_str(), so);
  const Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  const int crop = l.manifest.crop;
  std::vector<float> ks, kd;
  keypointsOf(1, ks, kd);
  const int32_t si = 1;
  const char* inNames[] = {"pooled64", "P_rgb", "kp_driving", "kp_source"};
  const char* outNames[] = {"rgb"};
  auto plainRun = [&] {
    std::vector<float> pooled(65536), prior(size_t(3) * crop * crop);
    le::halfToFloat(l.identity.pooled64(si), pooled.data(), pooled.size());
    le::halfToFloat(l.identity.P(si), prior.data(), prior.size());
    const int64_t sp[4] = {1, 64, 32, 32}, sP[4] = {1, 3, crop, crop}, sk[3] = {1, 21, 3};
    std::vector<Ort::Value> in;
    in.push_back(Ort::Value::CreateTensor<float>(mem, pooled.data(), pooled.size(), sp, 4));
    in.push_back(Ort::Value::CreateTensor<float>(mem, prior.data(), prior.size(), sP, 4));
    in.push_back(Ort::Value::CreateTensor<float>(mem, kd.data(), kd.size(), sk, 3));
    in.push_back(Ort::Value::CreateTensor<float>(mem, ks.data(), ks.size(), sk, 3));
    return plain.Run(Ort::RunOptions(), inNames, in.data(), in.size(), outNames, 1);
  };
  r.render(&si, ks.data(), kd.data(), 1);
  plainRun();
  double tr = 0, tp = 0;
  for (auto _ : state) {
    auto t0 = Clock::now();
    benchmark::DoNotOptimize(r.render(&si, ks.data(), kd.data(), 1));
    auto t1 = Clock::now();
    benchmark::DoNotOptimize(plainRun());
    auto t2 = Clock::now();
    tr += std::chrono::duration<double, std::milli>(t1 - t0).count();
    tp += std::chrono::duration<double, std::milli>(t2 - t1).count();
  }
  const double n = double(state.iterations());
  state.counters["renderer_ms"] = tr / n;
  state.counters["plain_session_ms"] = tp / n;
  state.counters["plain_over_renderer"] = tp / tr;
}
BENCHMARK_CAPTURE(BM_RendererVsPlainSession, standard_b1, "b1")->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK_CAPTURE(BM_RendererVsPlainSession, heavy_b1, "b1_heavy")->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

// The paste of a rendered crop into its 1080p drive frame (frame copy from the cursor included),
// through the flat interface.
void BM_PasteLast(benchmark::State& state) {
  le_ctx* ctx = le_create(bundle().c_str(), "b1", 2, "");
  if (!ctx) {
    state.SkipWithError(le_last_error());
    return;
  }
  std::vector<float> ks, kd;
  keypointsOf(1, ks, kd);
  if (!le_render_kp_crop(ctx, 1, ks.data(), kd.data())) {
    state.SkipWithError(le_last_error());
    le_destroy(ctx);
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(le_paste_last(ctx, 1));
  le_destroy(ctx);
}
BENCHMARK(BM_PasteLast)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
