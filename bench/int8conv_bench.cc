// Int8ConvVNNI on the heavy director's layer shapes beside ONNX Runtime's float Conv and beside
// its own integer path (DynamicQuantizeLinear + ConvInteger, what its dynamic quantisation
// writes), all in real sessions on the engine's thread budget; "speedup" is their time over ours in the same
// run. Then the kernel's paths, and the whole heavy director int8 against float per frame.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/bench_bundle.h"
#include "bench/ort_bench_util.h"
#include "le/le_bundle.h"
#include "le/le_pool.h"
#include "le/render/int8conv_vnni.h"
#include "le/render/le_renderer.h"
#include "tests/onnx_ort.h"
#include "tools/forge/director_graph.h"
#include "tools/forge/forge.h"
#include "tools/forge/forge_int8.h"

namespace {

namespace fs = std::filesystem;

// Both sides get the engine's thread budget (LE_CORE_THREADS=1 compares single threads).
int threads() { return le::pool::threads(); }

// The heavy director's convolutions: its 64-channel trunk layer, its 3x3 head, its 1x1 exit,
// its 1x1 face mix at crop 512.
le::forge::ConvSpec shape(int64_t k) {
  le::forge::ConvSpec s;
  if (k == 0) s.pads = {1, 1, 1, 1};                 // [1, 64, 64, 64] -> 64, 3x3
  if (k == 1) s.oc = 3, s.pads = {1, 1, 1, 1};       // -> 3, 3x3
  if (k == 2) s.oc = 3, s.kh = s.kw = 1;             // -> 3, 1x1
  if (k == 3) s.ic = 6, s.h = s.w = 512, s.oc = 3, s.kh = s.kw = 1;  // the face mix at crop 512
  return s;
}

struct Layer {
  le::forge::ConvSpec s;
  std::vector<float> w, bias;
  le::forge::Int8Weights q;
  le::bench::Tensor x, y;
  explicit Layer(int64_t k) : s(shape(k)) {
    w = le::test::randomFloats(s.weightCount(), -0.05f, 0.05f, 3);
    bias = le::test::randomFloats(size_t(s.oc), -0.1f, 0.1f, 4);
    q = le::forge::quantiseWeights(w, s.oc);
    x = {"X", s.inputShape(), le::test::randomFloats(size_t(s.n * s.ic * s.h * s.w), -1.f, 2.f, 5)};
    const std::vector<int64_t> o = s.outputShape();
    y = {"Y", o, std::vector<float>(size_t(o[0] * o[1] * o[2] * o[3]))};
  }
  std::string label() const {
    return "[1," + std::to_string(s.ic) + "," + std::to_string(s.h) + "," + std::to_string(s.w) + "] -> " + std::to_string(s.oc) + " " + std::to_string(s.kh) + "x" + std::to_string(s.kw) +
           ", " + std::to_string(threads()) + " thread(s), " + (le::int8conv::bestPath() == le::int8conv::Path::Scalar ? "scalar" : "VNNI");
  }
};

void BM_Int8Conv_vs_OrtFloatConv(benchmark::State& state) {
  Layer l(state.range(0));
  le::bench::BoundSession ours(le::forge::int8ConvModel(l.s, l.q, l.bias), threads(), {&l.x}, {&l.y});
  le::bench::BoundSession ort(le::forge::floatConvModel(l.s, l.w, l.bias), threads(), {&l.x}, {&l.y});
  state.counters["ort_conv_ms"] = 1e3 * le::bench::timeAgainst(state, [&] { ours.run(); }, [&] { ort.run(); });
  state.SetLabel(l.label());
}
BENCHMARK(BM_Int8Conv_vs_OrtFloatConv)->DenseRange(0, 3)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Int8Conv_vs_OrtConvInteger(benchmark::State& state) {
  Layer l(state.range(0));
  le::bench::BoundSession ours(le::forge::int8ConvModel(l.s, l.q, l.bias), threads(), {&l.x}, {&l.y});
  le::bench::BoundSession ort(le::forge::convIntegerModel(l.s, l.q, l.bias), threads(), {&l.x}, {&l.y});
  state.counters["ort_convinteger_ms"] =
      1e3 * le::bench::timeAgainst(state, [&] { ours.run(); }, [&] { ort.run(); });
  state.SetLabel(l.label());
}
BENCHMARK(BM_Int8Conv_vs_OrtConvInteger)->DenseRange(0, 3)->Unit(benchmark::kMillisecond)->UseRealTime();

// The plain function on the trunk layer with each path forced; "speedup" is the plain loops'
// time over the path's.
void BM_Int8ConvPath(benchmark::State& state) {
  const auto path = static_cast<le::int8conv::Path>(state.range(0));
  if (!le::int8conv::pathAvailable(path)) {
    state.SkipWithError("the processor has no such path");
    return;
  }
  Layer l(0);
  const le::int8conv::Geometry g =
      le::int8conv::geometry(l.s.inputShape(), l.s.weightShape(), l.s.strides, l.s.pads, l.s.dilations, l.s.group);
  const le::int8conv::PreparedWeights pw(l.q.q.data(), g);
  auto run = [&](le::int8conv::Path p) {
    le::int8conv::conv(l.x.data.data(), pw, l.q.scales.data(), l.bias.data(), l.y.data.data(), g, p);
  };
  if (path == le::int8conv::Path::Scalar) {
    for (auto _ : state) run(path);
  } else {
    state.counters["plain_loops_ms"] =
        1e3 * le::bench::timeAgainst(state, [&] { run(path); }, [&] { run(le::int8conv::Path::Scalar); });
  }
  state.SetLabel(path == le::int8conv::Path::Scalar ? "plain loops"
                 : path == le::int8conv::Path::AvxVnni ? "AVX-VNNI (VEX)"
                                                       : "AVX-512 VNNI (512-bit tiles)");
}
BENCHMARK(BM_Int8ConvPath)
    ->Arg(int(le::int8conv::Path::Scalar))
    ->Arg(int(le::int8conv::Path::AvxVnni))
    ->Arg(int(le::int8conv::Path::Avx512Vnni))
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// ---- the whole heavy director ---------------------------------------------------------------

const std::string& bundle() {
  static const std::string dir = [] {
    le::forge::Params p = le::forge::sized(2, 640, 540, 512, 2);
    p.directors = true;
    return le::bench::forgedOnce("le_int8conv_bench_bundle", p, "model_b1_int8.onnx");
  }();
  return dir;
}

// Per frame at crop 512: the int8 director against the float heavy director it was made from.
void BM_HeavyDirector_int8_vs_float(benchmark::State& state) {
  const le::Manifest m = le::loadManifest(bundle());
  const le::Identity id(m);
  le::Renderer int8(m, id, "b1_int8", threads(), "");
  le::Renderer fp32(m, id, "b1_heavy", threads(), "");
  const std::vector<float> ks = le::forge::forgeFaceKeypoints(), kd = le::forge::forgeFaceKeypointsMouthOpen(0.1f);
  const int32_t si = 1;
  state.counters["float_ms_per_frame"] =
      1e3 * le::bench::timeAgainst(
                state, [&] { benchmark::DoNotOptimize(int8.render(&si, ks.data(), kd.data(), 1)); },
                [&] { benchmark::DoNotOptimize(fp32.render(&si, ks.data(), kd.data(), 1)); });
  state.SetLabel("crop 512, " + std::to_string(threads()) + " intra-op thread(s)");
}
BENCHMARK(BM_HeavyDirector_int8_vs_float)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);

}  // namespace
