// ctest-label: threaded
// Int8ConvVNNI against a plain-loop reference of its arithmetic on every path the processor
// has, its edge cases, the operator inside real ONNX Runtime sessions (attributes, refusals,
// concurrent first runs).
#include "le/render/int8conv_vnni.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/bundle_fixture.h"
#include "tests/onnx_ort.h"
#include "tools/forge/forge_int8.h"
#include "tools/forge/onnx_builder.h"

namespace {

using le::forge::ConvSpec;
using le::forge::Int8Weights;
namespace ic = le::int8conv;

// The operator's arithmetic written out: range (from 0), scale, zero point, quantised input,
// integer sums over the taps inside the input, correction by exactly those weights, float out.
std::vector<float> reference(const std::vector<float>& x, const Int8Weights& w, const std::vector<float>& bias,
                             const ConvSpec& s) {
  float mn = 0.f, mx = 0.f;
  for (float v : x) {
    if (v < mn) mn = v;
    if (v > mx) mx = v;
  }
  float scale = (mx - mn) / 255.f;
  if (!(scale > 0.f)) scale = 1.f;
  const int zp = int(std::clamp(std::rint(-mn / scale), 0.f, 255.f));
  std::vector<int> q(x.size());
  for (size_t i = 0; i < x.size(); ++i) q[i] = int(std::clamp(std::rint(x[i] / scale) + float(zp), 0.f, 255.f));

  const int64_t sh = s.strides.empty() ? 1 : s.strides[0], sw = s.strides.empty() ? 1 : s.strides[1];
  const int64_t dh = s.dilations.empty() ? 1 : s.dilations[0], dw = s.dilations.empty() ? 1 : s.dilations[1];
  const int64_t pt = s.pads.empty() ? 0 : s.pads[0], pl = s.pads.empty() ? 0 : s.pads[1];
  const int64_t pb = s.pads.empty() ? 0 : s.pads[2], pr = s.pads.empty() ? 0 : s.pads[3];
  const int64_t OH = (s.h + pt + pb - dh * (s.kh - 1) - 1) / sh + 1;
  const int64_t OW = (s.w + pl + pr - dw * (s.kw - 1) - 1) / sw + 1;
  const int64_t icg = s.ic / s.group, ocg = s.oc / s.group;
  std::vector<float> y(size_t(s.n * s.oc * OH * OW));
  for (int64_t n = 0; n < s.n; ++n)
    for (int64_t oc = 0; oc < s.oc; ++oc)
      for (int64_t oy = 0; oy < OH; ++oy)
        for (int64_t ox = 0; ox < OW; ++ox) {
          int64_t acc = 0, wsum = 0;
          for (int64_t c = 0; c < icg; ++c)
            for (int64_t ky = 0; ky < s.kh; ++ky)
              for (int64_t kx = 0; kx < s.kw; ++kx) {
                const int64_t iy = oy * sh - pt + ky * dh, ix = ox * sw - pl + kx * dw;
                if (iy < 0 || iy >= s.h || ix < 0 || ix >= s.w) continue;
                const int64_t wv = w.q[size_t(((oc * icg + c) * s.kh + ky) * s.kw + kx)];
                const int64_t cin = (oc / ocg) * icg + c;
                acc += q[size_t(((n * s.ic + cin) * s.h + iy) * s.w + ix)] * wv;
                wsum += wv;
              }
          y[size_t(((n * s.oc + oc) * OH + oy) * OW + ox)] =
              float(int32_t(acc - zp * wsum)) * (scale * w.scales[size_t(oc)]) + bias[size_t(oc)];
        }
  return y;
}

struct Problem {
  ConvSpec s;
  std::vector<float> x, bias;
  Int8Weights w;
};

Problem problem(const ConvSpec& s, uint32_t seed, float lo = -0.7f, float hi = 1.3f) {
  Problem p{s, le::test::randomFloats(size_t(s.n * s.ic * s.h * s.w), lo, hi, seed),
            le::test::randomFloats(size_t(s.oc), -0.5f, 0.5f, seed + 1), {}};
  std::mt19937 rng(seed + 2);
  std::uniform_int_distribution<int> d(-127, 127);
  p.w.q.resize(s.weightCount());
  for (int8_t& v : p.w.q) v = int8_t(d(rng));
  p.w.scales = le::test::randomFloats(size_t(s.oc), 0.001f, 0.02f, seed + 3);
  return p;
}

ic::Geometry geometryOf(const ConvSpec& s) {
  return ic::geometry(s.inputShape(), s.weightShape(), s.strides, s.pads, s.dilations, s.group);
}

std::vector<float> run(const Problem& p, ic::Path path) {
  const ic::Geometry g = geometryOf(p.s);
  const ic::PreparedWeights pw(p.w.q.data(), g);
  std::vector<float> y(size_t(g.N * g.OC * g.OH * g.OW), NAN);
  ic::conv(p.x.data(), pw, p.w.scales.data(), p.bias.data(), y.data(), g, path);
  return y;
}

bool bitEqual(const std::vector<float>& a, const std::vector<float>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

using Ints = std::vector<int64_t>;

ConvSpec spec(int64_t n, int64_t ci, int64_t h, int64_t w, int64_t co, int64_t k, Ints pads = {},
              Ints strides = {}, Ints dilations = {}, int64_t group = 1) {
  ConvSpec s;
  s.n = n, s.ic = ci, s.h = h, s.w = w, s.oc = co, s.kh = s.kw = k;
  s.pads = pads, s.strides = strides, s.dilations = dilations, s.group = group;
  return s;
}

TEST(Int8Conv, EveryPathEqualsThePlainLoopReference) {
  const Ints one = {1, 1, 1, 1};
  const std::vector<ConvSpec> cases = {
      spec(1, 64, 13, 19, 64, 3, one),  // the director's layer, odd edges: tiles and remainders
      spec(2, 5, 11, 9, 7, 3, {1, 0, 2, 1}, {2, 2}, {1, 2}),  // strides, odd pads, dilations, two images
      spec(1, 6, 9, 14, 4, 3, one, {}, {}, 2),  // two groups of 3 input channels (not a multiple of 4)
      spec(1, 8, 7, 12, 8, 3, one, {}, {}, 8),  // depthwise
      spec(1, 3, 5, 21, 33, 1),                 // 1x1, output channels past one block of 16
      spec(1, 12, 10, 24, 20, 5, {4, 4, 4, 4}, {}, {2, 2}),  // dilated 5x5: interior tiles with gaps
      spec(1, 4, 2, 3, 5, 3, one),                           // smaller than the kernel: no interior pixel
      spec(1, 16, 12, 30, 16, 3, one, {2, 2}),               // stride 2 with interior tiles
  };

  int tested = 0;
  for (size_t k = 0; k < cases.size(); ++k) {
    // The first case's input is mostly negative: with the zero point near 200 a border corrected
    // with the full weight sum instead of the taps inside would be far off.
    const Problem p = k ? problem(cases[k], 100u + uint32_t(k)) : problem(cases[k], 100u, -1.f, 0.3f);
    if (k == 0) {
      float mn = 0.f, mx = 0.f;
      le::minmax_avx2(p.x.data(), p.x.size(), mn, mx);
      EXPECT_GT(ic::quantParams(mn, mx).zeroPoint, 150);
    }
    const std::vector<float> ref = reference(p.x, p.w, p.bias, p.s);
    for (ic::Path path : {ic::Path::Scalar, ic::Path::AvxVnni, ic::Path::Avx512Vnni, ic::Path::Auto}) {
      if (!ic::pathAvailable(path)) continue;
      ++tested;
      EXPECT_TRUE(bitEqual(run(p, path), ref)) << "case " << k << " path " << int(path);
    }
  }
  // This machine is expected to run the dot products; say so when it cannot.
  if (ic::bestPath() == ic::Path::Scalar) GTEST_SKIP() << "no dot-product path on this processor";
  EXPECT_GE(tested, int(cases.size()) * 3);
}

TEST(Int8Conv, RangeScaleAndZeroPoint) {
  // The range always holds 0, NaNs are skipped, and the pool's split agrees with one pass.
  std::vector<float> v = le::test::randomFloats(100003, 0.25f, 3.f, 7);
  v[5] = NAN, v[77777] = NAN, v[100002] = 3.5f;
  float mn = 1.f, mx = 1.f;
  le::minmax_par(v.data(), v.size(), mn, mx);
  EXPECT_EQ(std::make_pair(mn, mx), std::make_pair(0.f, 3.5f));
  v[4099] = -2.f;
  float a = 0.f, b = 0.f;
  le::minmax_avx2(v.data() + 1, v.size() - 1, a, b);
  le::minmax_par(v.data() + 1, v.size() - 1, mn, mx);
  EXPECT_EQ(std::make_pair(a, b), std::make_pair(-2.f, 3.5f));
  EXPECT_EQ(std::make_pair(mn, mx), std::make_pair(a, b));

  const ic::Quant none = ic::quantParams(0.f, 0.f);  // an all-zero range
  EXPECT_EQ(std::make_pair(none.scale, none.zeroPoint), std::make_pair(1.f, 0));
  EXPECT_EQ(ic::quantParams(0.f, 2.55f).zeroPoint, 0);    // all positive
  EXPECT_EQ(ic::quantParams(-5.f, 0.f).zeroPoint, 255);   // all negative
  EXPECT_EQ(ic::quantParams(-1.f, 1.55f).zeroPoint, 100);

  // All-zero input: every output is its channel's bias, exactly.
  const ConvSpec s = spec(1, 8, 6, 9, 20, 3, {1, 1, 1, 1});
  Problem p = problem(s, 9);
  std::fill(p.x.begin(), p.x.end(), 0.f);
  const std::vector<float> y = run(p, ic::Path::Auto);
  for (size_t i = 0; i < y.size(); ++i) ASSERT_EQ(y[i], p.bias[i / size_t(6 * 9)]) << i;
}

TEST(Int8Conv, GeometryRefusals) {
  auto refusal = [](const std::vector<int64_t>& x, const std::vector<int64_t>& w, const std::vector<int64_t>& st,
                    const std::vector<int64_t>& pads, const std::vector<int64_t>& dil, int64_t group) {
    return le::testing::thrown([&] { ic::geometry(x, w, st, pads, dil, group); });
  };
  const std::string who = "com.vantorix.int8::Int8ConvVNNI: ";
  EXPECT_EQ(refusal({1, 6, 8, 8}, {4, 3, 3, 3}, {}, {}, {}, 2), "");
  EXPECT_EQ(refusal({1, 6, 8}, {4, 3, 3, 3}, {}, {}, {}, 1), who + "input 0 must be [N, IC, H, W], got [1, 6, 8]");
  EXPECT_EQ(refusal({1, 6, 8, 8}, {4, 3, 3, 3}, {}, {}, {}, 1),
            who + "weights [4, 3, 3, 3] do not fit input [1, 6, 8, 8] with group 1");
  EXPECT_EQ(refusal({1, 6, 8, 8}, {5, 3, 3, 3}, {}, {}, {}, 2),
            who + "weights [5, 3, 3, 3] do not fit input [1, 6, 8, 8] with group 2");
  EXPECT_EQ(refusal({1, 6, 8, 8}, {4, 6, 3, 3}, {0, 1}, {}, {}, 1),
            who + "\"strides\" must hold two values of at least 1, got [0, 1]");
  EXPECT_EQ(refusal({1, 6, 8, 8}, {4, 6, 3, 3}, {}, {1, 1, 1}, {}, 1),
            who + "\"pads\" must hold four non-negative values, got [1, 1, 1]");
  EXPECT_EQ(refusal({1, 6, 2, 8}, {4, 6, 3, 3}, {}, {}, {}, 1),
            who + "the kernel [4, 6, 3, 3] with its dilations does not fit the padded input [1, 6, 2, 8]");
  EXPECT_EQ(refusal({1, 6, 8, 8}, {4, 6, 3, 3}, {}, {}, {}, 0), who + "group 0 is not positive");
}

// ---- the operator in ONNX Runtime ------------------------------------------------------------

Ort::Session int8Session(const std::vector<uint8_t>& model, int threads = 1) {
  return le::test::ortSession(model, threads, le::registerInt8ConvVNNI);
}

TEST(Int8Conv, OperatorReadsItsAttributesAndRefusesBadInputs) {
  const ConvSpec s = spec(2, 6, 11, 10, 10, 3, {2, 1, 0, 1}, {2, 1}, {1, 2}, 2);
  const Problem p = problem(s, 31);
  Ort::Session session = int8Session(le::forge::int8ConvModel(s, p.w, p.bias));
  std::vector<int64_t> shape;
  const std::vector<float> y = le::test::ortRun(session, {{"X", s.inputShape(), p.x.data(), p.x.size()}}, "Y", &shape);
  EXPECT_EQ(shape, s.outputShape());
  EXPECT_TRUE(bitEqual(y, reference(p.x, p.w, p.bias, s)));

  // Weight scales of the wrong length, and weights that change after the first run.
  le::forge::OnnxBuilder b("bad");
  b.opset(le::kInt8Domain, 1);
  b.input("X", {1, 4, 5, 5});
  b.input("W", {2, 4, 3, 3}, le::forge::Elem::Int8);
  b.input("S", {"k"});
  const std::string bias = b.init("B", {2}, {0.f, 0.f});
  b.node("Int8ConvVNNI", {"X", "W", "S", bias}, {"Y"}, {}, "conv", le::kInt8Domain);
  b.output("Y", {1, 2, 3, 3});
  Ort::Session bad = int8Session(b.build());
  std::vector<float> x(100, 0.5f), scales(2, 0.1f);
  std::vector<int8_t> w(72, 1);
  const Ort::MemoryInfo mi = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  auto runBad = [&](size_t nScales) {
    const int64_t xs[4] = {1, 4, 5, 5}, ws[4] = {2, 4, 3, 3}, ss[1] = {int64_t(nScales)};
    Ort::Value in[3] = {Ort::Value::CreateTensor<float>(mi, x.data(), x.size(), xs, 4),
                        Ort::Value::CreateTensor<int8_t>(mi, w.data(), w.size(), ws, 4),
                        Ort::Value::CreateTensor<float>(mi, scales.data(), nScales, ss, 1)};
    const char* names[3] = {"X", "W", "S"};
    const char* out = "Y";
    return le::test::ortFailure([&] { bad.Run(Ort::RunOptions{nullptr}, names, in, 3, &out, 1); });
  };
  EXPECT_NE(runBad(1).find("com.vantorix.int8::Int8ConvVNNI: weight scales and bias must hold one value per "
                           "output channel (2), got 1 and 2"),
            std::string::npos);
  EXPECT_EQ(runBad(2), "");
  w[7] = 2;
  EXPECT_NE(runBad(2).find("com.vantorix.int8::Int8ConvVNNI: the weights differ from those of the first run; this "
                           "operator prepares constant (initializer) weights once"),
            std::string::npos);
}

TEST(Int8Conv, ConcurrentFirstRunsPrepareOnce) {
  const ConvSpec s = spec(1, 32, 24, 24, 32, 3, {1, 1, 1, 1});
  const Problem p = problem(s, 41);
  const std::vector<float> ref = reference(p.x, p.w, p.bias, s);
  Ort::Session session =
      le::test::ortSession(le::forge::int8ConvModel(s, p.w, p.bias), 1, le::registerInt8ConvVNNI, false);
  const uint64_t before = ic::preparations();
  constexpr int kThreads = 4;
  std::vector<std::vector<float>> ys(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int k = 0; k < 3; ++k)
        ys[size_t(t)] = le::test::ortRun(session, {{"X", s.inputShape(), p.x.data(), p.x.size()}}, "Y");
    });
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(ic::preparations() - before, 1u);
  for (const auto& y : ys) EXPECT_TRUE(bitEqual(y, ref));
}

}  // namespace
