// GridSampleFast: the plain kernel (both paths), the operator in real ONNX Runtime sessions
// against ONNX Runtime's own GridSample, and the rewrite over the ONNX backend suite's cases.
#include "le/render/gridsample_fast.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "le/render/graph_rewrites.h"
#include "tests/onnx_ort.h"
#include "tests/onnx_suite.h"
#include "tests/warp_reference.h"
#include "tools/forge/onnx_builder.h"

using le::forge::OnnxBuilder;
using le::test::Feed;

// The edges the plain-loop reference does not pin down exactly (its agreement is the next test's).
TEST(GridSampleFast, PlainKernelBorderAndNaN) {
  // Beyond +-1 (and far beyond, and non-finite) the border pixels come back exactly.
  const int H = 3, W = 5;
  std::vector<float> src(2 * H * W);
  for (size_t i = 0; i < src.size(); ++i) src[i] = float(i) * 1.5f - 7.f;
  // Dyadic positions, so the weights of the doubled border pixel sum to exactly 1.
  const float far[] = {-1.f, -1.5f, -3.f, -1e30f, -2.f};
  const float farHi[] = {1.f, 1.5f, 3.f, 1e30f, 2.f};
  for (int pass = 0; pass < 2; ++pass) {
    std::vector<float> g(H * W * 2), o(2 * H * W);
    for (int y = 0; y < H; ++y)
      for (int x = 0; x < W; ++x) {
        const int k = (y * W + x) % 5;
        g[2 * (y * W + x)] = pass ? farHi[k] : far[k];
        g[2 * (y * W + x) + 1] = pass ? far[(k + 2) % 5] : farHi[(k + 1) % 5];
      }
    for (int path = 0; path < 2; ++path) {
      if (path == 1 && !le::gsf::vectorPath()) continue;
      (path ? le::gsf::bandVector : le::gsf::bandScalar)(src.data(), g.data(), o.data(), 2, H, W, 0, H);
      const int cx = pass ? W - 1 : 0, cy = pass ? 0 : H - 1;
      for (int c = 0; c < 2; ++c)
        for (int p = 0; p < H * W; ++p) ASSERT_EQ(o[c * H * W + p], src[c * H * W + cy * W + cx]) << path;
    }
  }

  // NaN coordinates give NaN, never an out-of-bounds read.
  std::vector<float> g(H * W * 2, NAN), o(2 * H * W);
  le::gridsample_fast(src.data(), g.data(), o.data(), 2, H, W);
  EXPECT_TRUE(std::isnan(o[0]));
}

TEST(GridSampleFast, VectorAndScalarPathsMatchTheReference) {
  const int shapes[][3] = {{3, 17, 23}, {1, 1, 1}, {2, 1, 7}, {5, 9, 4}, {64, 16, 16}, {3, 64, 61}};
  uint32_t seed = 1;
  for (const auto& s : shapes) {
    const int C = s[0], H = s[1], W = s[2];
    const std::vector<float> in = le::test::randomFloats(size_t(C) * H * W, -2.f, 2.f, seed++);
    const std::vector<float> grid = le::test::randomFloats(size_t(H) * W * 2, -1.3f, 1.3f, seed++);
    const std::vector<float> ref = le::testwarp::gridSample(in, grid, C, H, W);
    std::vector<float> sc(in.size()), vec(in.size(), -99.f);
    le::gsf::bandScalar(in.data(), grid.data(), sc.data(), C, H, W, 0, H);
    EXPECT_LE(le::test::maxAbsDiff(sc, ref), 1e-5f) << C << "x" << H << "x" << W;
    if (le::gsf::vectorPath()) {
      // Bands that split the image unevenly, and bands clipped at both ends.
      for (int r = -3; r < H; r += 5) le::gsf::bandVector(in.data(), grid.data(), vec.data(), C, H, W, r, r + 5);
      EXPECT_LE(le::test::maxAbsDiff(vec, ref), 1e-5f) << C << "x" << H << "x" << W;
      EXPECT_LE(le::test::maxAbsDiff(vec, sc), 1e-5f) << C << "x" << H << "x" << W;
    }
  }
}

TEST(GridSampleFast, OrtSessionsAgreeWithOrtGridSample) {
  struct Case { int64_t N, C, H, W; int threads; };
  const Case cases[] = {{1, 3, 37, 29, 1}, {2, 5, 16, 16, 2}, {1, 64, 33, 20, 2}, {3, 1, 1, 9, 2}};
  uint32_t seed = 100;
  for (const Case& c : cases) {
    const size_t nx = size_t(c.N * c.C * c.H * c.W), ng = size_t(c.N * c.H * c.W * 2);
    const std::vector<float> x = le::test::randomFloats(nx, 0.f, 1.f, seed++);
    const std::vector<float> g = le::test::randomFloats(ng, -1.15f, 1.15f, seed++);
    const std::vector<Feed> feeds = {{"X", {c.N, c.C, c.H, c.W}, x.data(), nx}, {"grid", {c.N, c.H, c.W, 2}, g.data(), ng}};
    Ort::Session fast = le::test::ortSession(le::forge::gridSampleModel(true, c.N, c.C, c.H, c.W), c.threads);
    Ort::Session std_ = le::test::ortSession(le::forge::gridSampleModel(false, c.N, c.C, c.H, c.W), c.threads);
    std::vector<int64_t> shape;
    const std::vector<float> a = le::test::ortRun(fast, feeds, "Y", &shape);
    const std::vector<float> b = le::test::ortRun(std_, feeds, "Y");
    EXPECT_EQ(shape, (std::vector<int64_t>{c.N, c.C, c.H, c.W}));
    const float d = le::test::maxAbsDiff(a, b);
    EXPECT_LE(d, 1e-5f);
    // The session's bands are the plain function's rows: identical bits on any thread count.
    std::vector<float> plain(nx);
    for (int64_t n = 0; n < c.N; ++n) {
      const size_t img = size_t(c.C * c.H * c.W);
      le::gridsample_fast(x.data() + n * img, g.data() + n * c.H * c.W * 2, plain.data() + n * img, int(c.C),
                          int(c.H), int(c.W));
    }
    EXPECT_EQ(a, plain);
  }
}

TEST(GridSampleFast, MismatchedGridFailsTheRunWithAClearMessage) {
  OnnxBuilder b("bad", 16);
  b.opset(le::kVantorixDomain, 1);
  b.input("X", {1, 2, "H", "W"}).input("grid", {1, "h", "w", 2});
  b.node("GridSampleFast", {"X", "grid"}, {"Y"}, {}, "gsf", le::kVantorixDomain);
  b.output("Y", {1, 2, "H", "W"});
  Ort::Session s = le::test::ortSession(b.build());
  std::vector<float> x(2 * 8 * 8, 1.f), g(4 * 4 * 2, 0.f);
  const std::string err = le::test::ortFailure([&] {
    le::test::ortRun(s, {{"X", {1, 2, 8, 8}, x.data(), x.size()}, {"grid", {1, 4, 4, 2}, g.data(), g.size()}}, "Y");
  });
  EXPECT_NE(err.find("com.vantorix::GridSampleFast: the grid is [1, 4, 4, 2] but input 0 is [1, 2, 8, 8]; the grid "
                     "must be [N, H, W, 2] with the input's N, H and W"),
            std::string::npos)
      << err;
  // The check itself, for the other malformed shapes.
  EXPECT_THROW(le::gsf::checkShapes("GridSampleFast", {1, 2, 8}, {1, 8, 2}), std::runtime_error);
  EXPECT_THROW(le::gsf::checkShapes("GridSampleFast", {2, 2, 8, 8}, {1, 8, 8, 2}), std::runtime_error);
  EXPECT_THROW(le::gsf::checkShapes("GridSampleFast", {1, 2, 8, 8}, {1, 8, 8, 3}), std::runtime_error);
  EXPECT_NO_THROW(le::gsf::checkShapes("GridSampleFast", {1, 2, 8, 8}, {1, 8, 8, 2}));
}

// The suite writes its bilinear cases without a mode attribute, which the rewrite does not take
// on trust: every one of them stays standard, byte for byte.
TEST(GridSampleFast, OnnxSuiteGridSampleCasesStayStandard) {
  const std::string root = std::string(le::test::onnxSuiteRoot()) + "/node/";
  if (!le::test::isFile(root + "test_gridsample/model.onnx")) GTEST_SKIP() << "libonnx-testdata is not installed";
  size_t cases = 0;
  for (const std::string& name : le::test::listDir(root)) {
    if (name.rfind("test_gridsample", 0) != 0) continue;
    ++cases;
    const std::vector<uint8_t> model = le::forge::readModelBytes(root + name + "/model.onnx");
    std::vector<uint8_t> switched = model;
    EXPECT_EQ(le::rewriteGridSampleToFast(switched), 0u) << name;
    EXPECT_EQ(switched, model) << name;
  }
  EXPECT_EQ(cases, 8u);
}
