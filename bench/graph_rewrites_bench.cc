// What the load-time rewrites buy: the forged director's run time after each rewrite, next to
// ONNX Runtime running the untouched graph with its own kernels (counter vs_ort_graph, below 1 is
// faster), and the cost of the rewrites themselves next to a plain copy of the model bytes.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "le/render/graph_rewrites.h"
#include "le/render/gridsample_fast.h"
#include "le/render/le_ort.h"
#include "tools/forge/director_graph.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr int kCrop = 256;

const Bytes& original() {
  static const Bytes m = [] {
    le::forge::DirectorGraphOptions o;
    o.crop = kCrop;
    return le::forge::forgeDirectorGraph(o);
  }();
  return m;
}

struct Session {
  Ort::Session session{nullptr};
  std::vector<std::string> names;
  std::vector<std::vector<float>> data;
  std::vector<std::vector<int64_t>> shapes;

  void feed(const std::string& n, std::vector<int64_t> shape, std::vector<float> v) {
    names.push_back(n);
    shapes.push_back(std::move(shape));
    data.push_back(std::move(v));
  }

  double runMs(int times) {
    Ort::MemoryInfo mi = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
    std::vector<Ort::Value> values;
    std::vector<const char*> in;
    for (size_t k = 0; k < names.size(); ++k) {
      in.push_back(names[k].c_str());
      values.push_back(Ort::Value::CreateTensor<float>(mi, data[k].data(), data[k].size(), shapes[k].data(),
                                                       shapes[k].size()));
    }
    const char* out = "rgb";
    const auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < times; ++i) session.Run(Ort::RunOptions{nullptr}, in.data(), values.data(), values.size(), &out, 1);
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count() / times;
  }
};

Ort::Env& env() {
  le::ortApi();
  static Ort::Env e(ORT_LOGGING_LEVEL_ERROR, "graph_rewrites_bench");
  return e;
}

// The boundary of the untouched director's source cone.
const std::string& tipName() {
  static const std::string tip = [] {
    std::string t;
    le::findSourceConeBoundary(original(), t);
    return t;
  }();
  return tip;
}

Session open(const Bytes& model, bool lip, bool cone) {
  Ort::Env& e = env();
  Ort::SessionOptions so;
  so.SetIntraOpNumThreads(2);
  so.SetInterOpNumThreads(1);
  so.AddConfigEntry("session.intra_op.allow_spinning", "0");
  le::registerGridSampleFast(so);
  Session s;
  s.session = Ort::Session(e, model.data(), model.size(), so);
  std::vector<float> pooled(64 * 32 * 32, 0.25f);
  s.feed("pooled64", {1, 64, 32, 32}, pooled);
  if (!cone) s.feed("P_rgb", {1, 3, kCrop, kCrop}, le::forge::forgeFacePrior(kCrop));
  else s.feed(tipName(), {1, 12, kCrop, kCrop}, std::vector<float>(size_t(12) * kCrop * kCrop, 0.5f));
  s.feed("kp_driving", {1, 21, 3}, le::forge::forgeFaceKeypointsMouthOpen(0.12f));
  s.feed("kp_source", {1, 21, 3}, le::forge::forgeFaceKeypoints());
  if (lip) s.feed("lip_delivery", {1, 1, kCrop, kCrop}, std::vector<float>(size_t(kCrop) * kCrop, 1.f));
  return s;
}

double originalMs() {
  static const double ms = [] {
    Session s = open(original(), false, false);
    s.runMs(2);
    return s.runMs(8);
  }();
  return ms;
}

enum Step { kNone, kGridSampleFast, kWarpNode, kCubic, kBlend, kAllWarpNode, kAllGridSampleFast, kConeSplit };
const char* const kStepNames[] = {"untouched",       "GridSampleFast",      "WarpDirector",  "cubic->Pad+Conv+D2S",
                                  "blend->Gemm",     "all, warp node",      "all, GridSampleFast", "cone split off"};

void bmDirectorRun(benchmark::State& state) {
  const Step step = Step(state.range(0));
  Bytes m = original();
  std::string reason;
  bool lip = false, cone = false;
  if (step == kWarpNode || step == kAllWarpNode) le::rewriteWarpBlockToCustomOp(m, reason);
  if (step == kGridSampleFast || step == kAllGridSampleFast) le::rewriteGridSampleToFast(m);
  if (step == kBlend || step == kAllWarpNode || step == kAllGridSampleFast) le::normaliseStudentBlend(m);
  if (step == kCubic || step == kAllWarpNode || step == kAllGridSampleFast) le::rewriteHeadCubicResize(m);
  if (step == kAllWarpNode || step == kAllGridSampleFast) lip = le::rewriteBindLipContour(m, reason, nullptr, nullptr);
  if (step == kConeSplit) {
    const int64_t dims[4] = {1, 12, kCrop, kCrop};
    Bytes perFrame;
    le::buildSourceConePerFrame(m, tipName(), dims, 4, perFrame, reason);
    m.swap(perFrame);
    cone = true;
  }
  const double base = originalMs();
  Session s = open(m, lip, cone);
  s.runMs(2);
  double total = 0.0;
  int64_t runs = 0;
  for (auto _ : state) {
    total += s.runMs(1);
    ++runs;
  }
  state.SetLabel(kStepNames[step]);
  state.counters["ms_per_frame"] = total / double(runs);
  state.counters["vs_ort_graph"] = total / double(runs) / base;
}
BENCHMARK(bmDirectorRun)->DenseRange(kNone, kConeSplit)->UseRealTime()->Unit(benchmark::kMillisecond);

// Load-time cost of all rewrites in the renderer's order, against copying the model once.
void bmRewriteAll(benchmark::State& state) {
  le::forge::DirectorGraphOptions o;
  o.crop = 512;
  const Bytes model = le::forge::forgeDirectorGraph(o);
  double rewriteMs = 0.0;
  int64_t n = 0;
  for (auto _ : state) {
    const auto t0 = std::chrono::steady_clock::now();
    Bytes m = model;
    std::string reason;
    le::rewriteGridSampleToFast(m);
    le::normaliseStudentBlend(m);
    le::rewriteHeadCubicResize(m);
    le::rewriteBindLipContour(m, reason, nullptr, nullptr);
    benchmark::DoNotOptimize(m.data());
    rewriteMs += std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    ++n;
  }
  Bytes copy(model.size());
  const auto t0 = std::chrono::steady_clock::now();
  for (int i = 0; i < 20; ++i) {
    std::memcpy(copy.data(), model.data(), model.size());
    benchmark::DoNotOptimize(copy.data());
  }
  const double copyMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count() / 20;
  state.SetBytesProcessed(int64_t(model.size()) * n);
  state.counters["model_MB"] = double(model.size()) / 1e6;
  state.counters["vs_memcpy"] = rewriteMs / double(n) / copyMs;
}
BENCHMARK(bmRewriteAll)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
