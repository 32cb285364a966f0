// WarpDirector: the plain kernels against the plain-loop warp, the operator in real ONNX Runtime
// sessions, and agreement with the unfused standard-operator warp block it replaces.
#include "le/render/le_warp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "le/render/gridsample_fast.h"
#include "tests/onnx_ort.h"
#include "tests/warp_reference.h"
#include "tools/forge/onnx_builder.h"

using le::forge::OnnxBuilder;
using le::test::Feed;

namespace {

std::vector<float> twoPhase(const std::vector<float>& src, const std::vector<float>& grid, int W, int H, int band) {
  std::vector<float> planes(size_t(W) * H * le::kWarpPlaneFloats), out(src.size());
  for (int r = 0; r < H; r += band) le::warpDirectorPlanesBand(src.data(), planes.data(), W, H, r, r + band);
  for (int r = 0; r < H; r += band) le::warpDirectorGatherBand(planes.data(), grid.data(), out.data(), W, H, r, r + band);
  return out;
}

}  // namespace

// Every pixel against the plain-loop warp, also where the grid leaves the image (clamped
// neighbours, border taps); the one-pass band equals the planes-then-gather phases bit for bit.
TEST(WarpDirector, MatchesThePlainLoopWarpAndTheOnePassVariant) {
  const int W = 19, H = 13;
  const std::vector<float> grid = le::test::randomFloats(size_t(W) * H * 2, -1.2f, 1.2f, 7);
  const std::vector<float> src = le::test::randomFloats(3 * W * H, 0.f, 1.f, 8);
  std::vector<float> out(3 * W * H);
  le::warpDirector(src.data(), grid.data(), out.data(), W, H);
  const std::vector<double> ref = le::testwarp::Warp(src, W, H).run(grid);
  double worst = 0;
  for (size_t i = 0; i < out.size(); ++i) worst = std::max(worst, std::fabs(out[i] - ref[i]));
  EXPECT_LT(worst, 1e-5);

  std::vector<float> onePass(3 * W * H);
  for (int r = -2; r < H; r += 4) le::warpDirectorBand(src.data(), grid.data(), onePass.data(), W, H, r, r + 4);
  EXPECT_EQ(onePass, twoPhase(src, grid, W, H, 16));
  EXPECT_EQ(onePass, twoPhase(src, grid, W, H, 3));
  EXPECT_EQ(onePass, out);

  // A 1x1 image and NaN coordinates stay in bounds.
  std::vector<float> one = {0.5f, 0.25f, 0.125f}, g1 = {NAN, 3.f}, o1(3);
  le::warpDirector(one.data(), g1.data(), o1.data(), 1, 1);
  EXPECT_TRUE(std::isnan(o1[0]));
}

TEST(WarpDirector, OrtOperatorMatchesTheStandardWarpBlock) {
  struct Case { int64_t N, H, W; int threads; };
  const Case cases[] = {{1, 40, 33, 2}, {2, 17, 16, 1}, {1, 64, 64, 2}};
  uint32_t seed = 20;
  for (const Case& c : cases) {
    const size_t nx = size_t(c.N * 3 * c.H * c.W), ng = size_t(c.N * c.H * c.W * 2);
    const std::vector<float> x = le::test::randomFloats(nx, 0.f, 1.f, seed++);
    const std::vector<float> g = le::test::randomFloats(ng, -1.1f, 1.1f, seed++);
    const std::vector<Feed> feeds = {{"P_rgb", {c.N, 3, c.H, c.W}, x.data(), nx}, {"grid", {c.N, c.H, c.W, 2}, g.data(), ng}};
    Ort::Session fused = le::test::ortSession(le::forge::warpModel(true, c.N, 3, c.H, c.W), c.threads);
    Ort::Session standard = le::test::ortSession(le::forge::warpModel(false, c.N, 3, c.H, c.W), c.threads);
    std::vector<int64_t> shape;
    const std::vector<float> a = le::test::ortRun(fused, feeds, "warped", &shape);
    const std::vector<float> b = le::test::ortRun(standard, feeds, "warped");
    EXPECT_EQ(shape, (std::vector<int64_t>{c.N, 3, c.H, c.W}));
    const float d = le::test::maxAbsDiff(a, b);
    EXPECT_LE(d, 2e-5f);
    // The operator's two phases are the plain one-pass function's values exactly.
    std::vector<float> plain(nx);
    for (int64_t n = 0; n < c.N; ++n)
      le::warpDirector(x.data() + n * 3 * c.H * c.W, g.data() + n * c.H * c.W * 2, plain.data() + n * 3 * c.H * c.W,
                       int(c.W), int(c.H));
    EXPECT_EQ(a, plain);
    // A second run on the same kernel instance reuses its planes buffer.
    EXPECT_EQ(le::test::ortRun(fused, feeds, "warped"), a);
  }
}

TEST(WarpDirector, RefusesOtherChannelCountsAndMismatchedGrids) {
  for (int64_t C : {1, 4}) {
    Ort::Session s = le::test::ortSession(le::forge::warpModel(true, 1, C, 8, 8));
    std::vector<float> x(size_t(C) * 64, 0.5f), g(128, 0.f);
    const std::string err = le::test::ortFailure([&] {
      le::test::ortRun(s, {{"P_rgb", {1, C, 8, 8}, x.data(), x.size()}, {"grid", {1, 8, 8, 2}, g.data(), g.size()}},
                       "warped");
    });
    const std::string want = "com.vantorix::WarpDirector: this node warps the director's 3-channel source and the "
                             "graph handed it C=" + std::to_string(C) +
                             ". REFUSING rather than writing a frame nobody asked for.";
    EXPECT_NE(err.find(want), std::string::npos) << err;
  }
  OnnxBuilder b("warp_bad_grid", 16);
  b.opset(le::kVantorixDomain, 1);
  b.input("P_rgb", {1, 3, 8, 8}).input("grid", {1, "h", "w", 2});
  b.node("WarpDirector", {"P_rgb", "grid"}, {"warped"}, {}, "le_warp_director", le::kVantorixDomain);
  b.output("warped", {1, 3, 8, 8});
  Ort::Session s = le::test::ortSession(b.build());
  std::vector<float> x(3 * 64, 0.5f), g(2 * 8 * 9, 0.f);
  const std::string err = le::test::ortFailure([&] {
    le::test::ortRun(s, {{"P_rgb", {1, 3, 8, 8}, x.data(), x.size()}, {"grid", {1, 8, 9, 2}, g.data(), g.size()}}, "warped");
  });
  EXPECT_NE(err.find("com.vantorix::WarpDirector: the grid is [1, 8, 9, 2] but input 0 is [1, 3, 8, 8]"),
            std::string::npos)
      << err;
}
