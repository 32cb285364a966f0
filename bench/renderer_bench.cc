// Per-frame cost of the director renderer and of the paste at crop 512 into a 1080p frame, with
// the renderer's own work outside Session::Run (half widening, copies, binding) as a fraction of
// the run, the renderer beside a plain ONNX Runtime session over the same model file, and the
// source-cone split against the same director whole.
#include <benchmark/benchmark.h>

#include <chrono>
#include <ctime>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_bundle.h"
#include "le/le.h"
#include "le/le_bundle.h"
#include "le/le_simd.h"
#include "le/render/graph_rewrites.h"
#include "le/render/le_ort.h"
#include "le/render/le_renderer.h"
#include "tools/forge/director_members.h"
#include "tools/forge/forge.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

le::forge::Params benchParams() {
  le::forge::Params p = le::forge::sized(4, 1920, 1080, 512, 4);
  p.directors = true;
  return p;
}

// One forged bundle per process, rebuilt when missing.
const std::string& bundle() {
  static const std::string dir = le::bench::forgedOnce("le_renderer_bench_bundle", benchParams());
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

namespace {

// The director's source cone cut out as the renderer cuts it, in a session of its own.
struct ConeAlone {
  std::string boundary, reason;
  std::vector<uint8_t> prep;
  Ort::Env env{ORT_LOGGING_LEVEL_WARNING, "bench"};
  std::vector<float> prior;
  explicit ConeAlone(Loaded& l, const char* key) {
    std::ifstream f(l.manifest.modelPath(key), std::ios::binary);
    const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    if (le::findSourceConeBoundary(bytes, boundary) != 1 || !le::buildSourceConePrep(bytes, boundary, prep, reason))
      prep.clear();
    prior.resize(size_t(3) * size_t(l.manifest.crop) * size_t(l.manifest.crop));
  }
  Ort::Session session(int threads) {
    Ort::SessionOptions so;
    so.SetIntraOpNumThreads(threads);
    so.SetInterOpNumThreads(1);
    so.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
    so.AddConfigEntry("session.intra_op.allow_spinning", "0");
    return Ort::Session(env, prep.data(), prep.size(), so);
  }
  // The prior of source frame si widened as the renderer does it, then the cone's run alone.
  double ms(Loaded& l, Ort::Session& s, int si, void (*around)() = nullptr) {
    le::halfToFloat(l.identity.P(si), prior.data(), prior.size());
    const Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
    const int64_t shape[4] = {1, 3, l.manifest.crop, l.manifest.crop};
    const char* in[] = {"P_rgb"};
    const char* out[] = {boundary.c_str()};
    Ort::Value v = Ort::Value::CreateTensor<float>(mem, prior.data(), prior.size(), shape, 4);
    if (around) around();
    const auto t0 = Clock::now();
    benchmark::DoNotOptimize(s.Run(Ort::RunOptions(), in, &v, 1, out, 1));
    const double t = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
    if (around) around();
    return t;
  }
};

// The source bounces 0 1 2 ... NT-1 ... 1 0 ..., so every frame needs another cone.
std::vector<int32_t> bounceWalk(int nt) {
  std::vector<int32_t> walk;
  for (int k = 0; k < nt; ++k) walk.push_back(k);
  for (int k = nt - 2; k > 0; --k) walk.push_back(k);
  return walk;
}

// The director split, the same director whole (LE_CONE_SPLIT=0) and its cone cut out alone, on the
// loaded bundle, and the walk over its sources.
struct ConeRig {
  le::Renderer split;
  std::unique_ptr<le::Renderer> whole;
  ConeAlone cone;
  Loaded& l;
  const std::vector<int32_t> walk;
  ConeRig(Loaded& bundle, const char* key, int threads)
      : split(bundle.manifest, bundle.identity, key, threads, ""),
        cone(bundle, key),
        l(bundle),
        walk(bounceWalk(bundle.manifest.NT)) {
    setenv("LE_CONE_SPLIT", "0", 1);
    whole = std::make_unique<le::Renderer>(l.manifest, l.identity, key, threads, "");
    unsetenv("LE_CONE_SPLIT");
    le::ortApi();
  }
  // False, with the benchmark skipped, when the director did not split as asked.
  bool usable(benchmark::State& state) const {
    const bool ok = split.coneSplit() && !whole->coneSplit() && !cone.prep.empty();
    if (!ok) state.SkipWithError("the director did not split (or split when told not to)");
    return ok;
  }
};

// The source-cone split on a predictable walk, wall clock: ms per frame of the split renderer
// over whole walks back to back (as a pipeline renders, its prefetch thread working beside each
// frame), then of the same director whole (LE_CONE_SPLIT=0) over the same walks, beside the cone's
// own cost (its prep model run alone, at the director's 2 threads as inside the whole graph, and at
// the prefetch's 1). saved_of_cone = (whole - split) / cone. On 2 cores the prefetch thread has no
// spare core: it takes its time from the director's 2 intra-op threads, so the wall-clock saving
// is small here; BM_ConeSplitWork counts the work the split takes off each frame.
void BM_ConeSplit(benchmark::State& state, const char* key) {
  ConeRig rig(loaded(), key, 2);
  if (!rig.usable(state)) return;
  Ort::Session cone2 = rig.cone.session(2), cone1 = rig.cone.session(1);
  std::vector<float> ks, kd;
  auto walk = [&](le::Renderer& r) {
    double t = 0;
    for (size_t k = 1; k <= rig.walk.size(); ++k) {
      int32_t si = rig.walk[k % rig.walk.size()];
      keypointsOf(si, ks, kd);
      const auto t0 = Clock::now();
      benchmark::DoNotOptimize(r.render(&si, ks.data(), kd.data(), 1));
      t += std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
    }
    return t;
  };
  walk(rig.split);
  walk(*rig.whole);
  rig.cone.ms(rig.l, cone2, 0);
  rig.cone.ms(rig.l, cone1, 0);
  const int64_t misses0 = rig.split.coneMisses();
  double ts = 0, tw = 0, tc2 = 0, tc1 = 0;
  int64_t frames = 0;
  for (auto _ : state) {
    ts += walk(rig.split);
    le::testing::awaitConePrefetch(rig.split);
    tw += walk(*rig.whole);
    for (const int32_t si : rig.walk) {
      tc2 += rig.cone.ms(rig.l, cone2, si);
      tc1 += rig.cone.ms(rig.l, cone1, si);
    }
    frames += int64_t(rig.walk.size());
  }
  const double n = double(frames);
  state.counters["split_ms"] = ts / n;
  state.counters["whole_ms"] = tw / n;
  state.counters["cone_ms"] = tc2 / n;
  state.counters["cone_ms_1thread"] = tc1 / n;
  state.counters["whole_over_split"] = tw / ts;
  state.counters["saved_of_cone"] = (tw - ts) / tc2;
  state.counters["cone_share_of_whole"] = tc2 / tw;
  state.counters["misses"] = double(rig.split.coneMisses() - misses0);
}
BENCHMARK_CAPTURE(BM_ConeSplit, standard_b1, "b1")->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK_CAPTURE(BM_ConeSplit, heavy_b1, "b1_heavy")->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

double threadCpuMs() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return double(t.tv_sec) * 1e3 + double(t.tv_nsec) * 1e-6;
}

// The work the split takes off the frame, far less blurred by a loaded machine than wall-clock
// time: CPU time of the calling thread at 1 intra-op thread (so all of a run's work is that
// thread's), per frame of one bounce walk: the per-frame director on a boundary the prefetch
// thread finished before the frame ("split"), the same director unsplit ("whole"), and the
// cut-out cone alone ("cone"), interleaved frame by frame. saved_of_cone = (whole - split) / cone,
// the goal at least 0.9. "split_again" renders the same frame once more at once: the gap to
// "split" is what reading a 12.58 MB boundary fresh from the prefetch thread's core costs
// (while it writes the next one), the part of the cone's price the split cannot take away.
// (valgrind cannot run this binary: Highway's timer probe stops it, hence CPU time.)
void BM_ConeSplitWork(benchmark::State& state, const char* key) {
  ConeRig rig(loaded(), key, 1);
  if (!rig.usable(state)) return;
  le::Renderer &split = rig.split, &whole = *rig.whole;
  Ort::Session cone1 = rig.cone.session(1);
  std::vector<float> ks, kd;
  auto cpuOf = [&](le::Renderer& r, int32_t si) {
    keypointsOf(si, ks, kd);
    const double t0 = threadCpuMs();
    benchmark::DoNotOptimize(r.render(&si, ks.data(), kd.data(), 1));
    return threadCpuMs() - t0;
  };
  cpuOf(split, 0);
  cpuOf(whole, 0);
  rig.cone.ms(rig.l, cone1, 0);
  const int64_t misses0 = split.coneMisses();
  double ts = 0, tsHot = 0, tw = 0, tc = 0;
  int64_t frames = 0;
  for (auto _ : state) {
    for (size_t k = 1; k <= rig.walk.size(); ++k, ++frames) {
      const int32_t si = rig.walk[k % rig.walk.size()];
      le::testing::awaitConePrefetch(split);
      ts += cpuOf(split, si);
      tsHot += cpuOf(split, si);
      tw += cpuOf(whole, si);
      const double t0 = threadCpuMs();
      rig.cone.ms(rig.l, cone1, si);
      tc += threadCpuMs() - t0;
    }
  }
  const double n = double(frames);
  state.counters["split_cpu_ms"] = ts / n;
  state.counters["split_again_cpu_ms"] = tsHot / n;
  state.counters["whole_cpu_ms"] = tw / n;
  state.counters["cone_cpu_ms"] = tc / n;
  state.counters["saved_of_cone"] = (tw - ts) / tc;
  state.counters["misses"] = double(split.coneMisses() - misses0);
}
BENCHMARK_CAPTURE(BM_ConeSplitWork, standard_b1, "b1")->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK_CAPTURE(BM_ConeSplitWork, heavy_b1, "b1_heavy")->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace
