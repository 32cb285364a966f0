// ctest-label: threaded
// The director renderer and the rendering entry points, on forged bundles with real sessions:
// provider choice, the input contract, batch padding, the switches, and the rendered crop
// checked against the forged director's warp computed by plain loops.
#include "le/render/le_renderer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_bundle.h"
#include "le/le_simd.h"
#include "le/render/graph_rewrites.h"
#include "le/render/le_ort.h"
#include "tests/bundle_fixture.h"
#include "tests/onnx_ort.h"
#include "tests/support/media.h"
#include "tests/warp_reference.h"
#include "tools/forge/director_graph.h"
#include "tools/forge/director_members.h"
#include "tools/forge/forge.h"
#include "tools/forge/onnx_builder.h"

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

using le::forge::Attr;
using le::testmedia::ScopedEnv;
using le::forge::OnnxBuilder;
using le::forge::Shape;

// Row `row` of a half-float member, widened.
std::vector<float> widenFile(const std::string& path, size_t row, size_t elems) {
  const std::string bytes = le::readFile(path);
  std::vector<float> v(elems);
  le::halfToFloat(reinterpret_cast<const uint16_t*>(bytes.data()) + row * elems, v.data(), elems);
  return v;
}

le::forge::Params smallBundle() { return le::forge::sized(4, 160, 120, 64, 6); }

// Writes a forged bundle with its director members; extra models go in as "model_<key>.onnx".
std::string forgeWithDirectors(const std::string& name, le::forge::Params p) {
  static le::testing::ScratchDir root("renderer");
  const std::string dir = root / name;
  le::forge::DirectorMemberOptions o;
  o.heavy = false;
  for (auto& m : le::forge::directorMembers(p, o)) p.extraMembers.push_back(std::move(m));
  le::forge::forgeBundle(dir, p);
  return dir;
}

// A director-contract model whose output is plain arithmetic on its inputs:
//   rgb = P_rgb + mean(pooled64) + sum(kp_driving) - sum(kp_source)   (per frame)
// FeatSynth form: rgb = mean(fs_red) + mean(pooled) + sum(kd) - sum(ks), broadcast to the crop.
std::vector<uint8_t> arithmeticDirector(int crop, const Shape& batchShape, const Shape& kdShape,
                                        bool featSynth = false) {
  OnnxBuilder b("arith");
  const std::string pooled = featSynth ? "pooled" : "pooled64";
  const std::string kd = featSynth ? "kd" : "kp_driving", ks = featSynth ? "ks" : "kp_source";
  const le::forge::Dim B = batchShape[0];
  if (featSynth) b.input("fs_red", {B, 64, 64, 64});
  b.input(pooled, batchShape);
  if (!featSynth) b.input("P_rgb", {B, 3, crop, crop});
  b.input(kd, kdShape);
  b.input(ks, {B, 21, 3});
  auto mean = [&](const std::string& x) {
    return b.op("ReduceMean", {x}, {Attr::ints("axes", {1, 2, 3}), Attr::i("keepdims", 1)});
  };
  auto sum4 = [&](const std::string& x) {
    return b.op("Unsqueeze", {b.op("ReduceSum", {x, b.initI64(b.fresh("ax"), {2}, {1, 2})},
                                   {Attr::i("keepdims", 1)}),
                              b.initI64(b.fresh("ax"), {1}, {3})});
  };
  std::string s = b.op("Sub", {b.op("Add", {mean(pooled), sum4(kd)}), sum4(ks)});
  std::string base;
  if (featSynth) {
    s = b.op("Add", {s, mean("fs_red")});
    base = b.init("zeros", {1, 3, crop, crop}, std::vector<float>(3 * crop * crop, 0.f));
  } else {
    base = "P_rgb";
  }
  b.node("Add", {base, s}, {"rgb"});
  b.output("rgb", {B, 3, crop, crop});
  return b.build();
}

using le::testing::Loaded;
using le::testing::stderrOf;
using le::testing::thrown;

class RendererTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    le::forge::Params p = smallBundle();
    p.fsRed = true;
    dir_ = forgeWithDirectors("renderer_bundle", p);
  }
  static std::string model(const std::string& key, const std::vector<uint8_t>& bytes) {
    le::forge::writeModelBytes(dir_ + "/model_" + key + ".onnx", bytes);
    return key;
  }
  // What building a renderer for key on the bundle in dir throws ("" when it builds).
  static std::string refusal(const std::string& key, const std::string& ep = "",
                             const std::string& dir = dir_) {
    const Loaded l(dir);
    return thrown([&] { le::Renderer r(l.manifest, *l.identity, key, 1, ep); });
  }
  // What building a renderer for key prints.
  static std::string log(const std::string& key, const std::string& ep = "") {
    const Loaded l(dir_);
    return stderrOf([&] { le::Renderer r(l.manifest, *l.identity, key, 1, ep); });
  }
  static std::string dir_;
};
std::string RendererTest::dir_;

// The input contract and the tables a graph needs, each refused with its reason.
TEST_F(RendererTest, InputContractRefusals) {
  Loaded l(dir_);
  const std::string path = l.manifest.modelPath("kp22");
  auto build = [](const std::string& key) { return refusal(key); };

  model("dynbatch", arithmeticDirector(64, {"N", 64, 32, 32}, {"N", 21, 3}));
  EXPECT_EQ(build("dynbatch"), "pooled64 input not found / bad shape");
  model("fsdyn", arithmeticDirector(64, {-1, 64, 32, 32}, {1, 21, 3}, true));
  EXPECT_EQ(build("fsdyn"), "pooled input not found / bad shape");

  const std::string head = " — the graph declares kp_driving with ";
  const std::string tail =
      "REFUSING AT LOAD rather than dying inside ORT at the first Run. This build must not have "
      "been published to a host that links this renderer: training/recipe/host_kp_contract.py is "
      "the publish gate that exists to prevent it.";
  model("kp22", arithmeticDirector(64, {1, 64, 32, 32}, {1, 22, 3}));
  EXPECT_EQ(build("kp22"),
            "Renderer: HOST KEYPOINT CONTRACT MISMATCH on " + path + head +
                "22 keypoint rows, and this renderer feeds 21 (le::kHostKpRows, le/le.h). That is "
                "the recipe_v4 / kd_v4 shape: row 21 is the WIDTH ROW (wn, seal, 0), fed from the "
                "a2x encoder's second output. This engine has no width feed (see le_a2x_width / "
                "le_a2x_pull_wn in le/le_a2x.h, which nothing on this path calls yet), so it "
                "cannot drive this director. " +
                tail);
  model("kp20", arithmeticDirector(64, {1, 64, 32, 32}, {1, 20, 3}));
  EXPECT_EQ(build("kp20"), "Renderer: HOST KEYPOINT CONTRACT MISMATCH on " +
                               l.manifest.modelPath("kp20") + head +
                               "20 keypoint rows, and this renderer feeds 21 (le::kHostKpRows, "
                               "le/le.h). " +
                               tail);
  model("kpdyn", arithmeticDirector(64, {1, 64, 32, 32}, {1, -1, 3}));
  EXPECT_EQ(build("kpdyn"), "");

  EXPECT_THAT(build("missing"), StartsWith("Renderer: cannot open " + dir_));

  // A graph that reads a table the bundle does not carry.
  le::forge::Params p = smallBundle();
  const std::string plain = forgeWithDirectors("renderer_plain", p);
  le::forge::writeModelBytes(plain + "/model_fs.onnx", arithmeticDirector(64, {1, 64, 32, 32}, {1, 21, 3}, true));
  EXPECT_EQ(refusal("fs", "", plain), "FeatSynth graph but bundle lacks fs_red.f16");

  p.prior = le::forge::Prior::FsRedOnly;
  const std::string fsOnly = forgeWithDirectors("renderer_fsonly", p);
  le::forge::writeModelBytes(fsOnly + "/model_std.onnx", arithmeticDirector(64, {1, 64, 32, 32}, {1, 21, 3}));
  EXPECT_THAT(refusal("std", "", fsOnly),
              StartsWith("m4b graph (P_rgb input) but this bundle carries no warp prior: neither "
                         "P.f16, nor fs_red.f16, nor a P_hevc.mov to play in place is present"));
}

// Every slot is filled from its own source frame, padding repeats the last real frame, and the
// FeatSynth form reads fs_red instead of the prior.
TEST_F(RendererTest, RenderFillsAndPadsEverySlot) {
  model("b3arith", arithmeticDirector(64, {3, 64, 32, 32}, {3, 21, 3}));
  model("fsarith", arithmeticDirector(64, {2, 64, 32, 32}, {2, 21, 3}, true));
  Loaded l(dir_);
  const size_t plane = 3 * 64 * 64;
  std::vector<float> ks(3 * 63), kd(3 * 63);
  for (size_t i = 0; i < ks.size(); ++i) ks[i] = 0.01f * float(i % 17), kd[i] = 0.02f * float(i % 11);
  auto kpSum = [](const float* v) { return std::accumulate(v, v + 63, 0.0); };
  auto mean = [](const std::vector<float>& v) {
    return std::accumulate(v.begin(), v.end(), 0.0) / double(v.size());
  };
  const std::string pooledPath = le::resolveMember(dir_, "pooled64.f16");
  const std::string priorPath = le::resolveMember(dir_, "P.f16");
  const std::string fsPath = le::resolveMember(dir_, "fs_red.f16");

  le::Renderer r(l.manifest, *l.identity, "b3arith", 1, "");
  EXPECT_EQ(r.batch(), 3);
  EXPECT_STREQ(r.directorNote(), "");
  const int32_t si[3] = {2, 0, 3};
  const float* out = r.render(si, ks.data(), kd.data(), 2);
  for (int k = 0; k < 3; ++k) {
    const int from = std::min(k, 1);  // slot 2 pads with frame 1
    const std::vector<float> P = widenFile(priorPath, size_t(si[from]), plane);
    const double add = mean(widenFile(pooledPath, size_t(si[from]), 65536)) +
                       kpSum(&kd[63 * from]) - kpSum(&ks[63 * from]);
    for (size_t i = 0; i < plane; i += 97)
      ASSERT_NEAR(out[k * plane + i], P[i] + add, 2e-5) << "slot " << k << " at " << i;
  }
  EXPECT_EQ(r.runCount(), 1);
  EXPECT_GT(r.runMsTotal(), 0.0);
  EXPECT_EQ(thrown([&] { r.render(si, ks.data(), kd.data(), 0); }), "render: bad n");
  EXPECT_EQ(thrown([&] { r.render(si, ks.data(), kd.data(), 4); }), "render: bad n");
  const int32_t bad[1] = {4};
  EXPECT_EQ(thrown([&] { r.render(bad, ks.data(), kd.data(), 1); }), "render: source index 4 outside [0,4)");

  le::Renderer f(l.manifest, *l.identity, "fsarith", 1, "");
  EXPECT_EQ(f.batch(), 2);
  out = f.render(si, ks.data(), kd.data(), 1);
  for (int k = 0; k < 2; ++k) {
    const double want = mean(widenFile(fsPath, 2, 262144)) + mean(widenFile(pooledPath, 2, 65536)) +
                        kpSum(&kd[0]) - kpSum(&ks[0]);
    EXPECT_NEAR(out[k * plane + 5], want, 2e-5);
  }
}

// The provider requests and the lines the renderer prints about them; with LE_ORT_PROFILE set
// it names its profile file and the frames' time at destruction.
TEST_F(RendererTest, ProvidersProfilesAndTheirLines) {
  Loaded l(dir_);
  model("prov", arithmeticDirector(64, {1, 64, 32, 32}, {1, 21, 3}));
  const std::vector<float> kp(63, 0.f);
  const int32_t si = 1;
  for (const char* ep : {"xnnpack", "xnnpack:threads=2"})
    EXPECT_THAT(refusal("prov", ep), StartsWith(std::string("Renderer: ep '") + ep +
                                      "' is REFUSED. This renderer rewrites its graph to Vantorix "
                                      "custom-domain nodes"));
  EXPECT_EQ(refusal("prov", "cuda"), "Renderer: unknown ep 'cuda'");

  // This runtime has no CoreML provider: the request falls back to the CPU provider.
  std::string err = stderrOf([&] {
    le::Renderer r(l.manifest, *l.identity, "prov", 1, "coreml:gpu");
    EXPECT_STREQ(r.ep(), "cpu");
  });
  EXPECT_THAT(err, HasSubstr("[le] CoreML EP session refused: "));
  EXPECT_THAT(err, HasSubstr(" — falling back to the ORT CPU EP\n"));
  EXPECT_THAT(err, HasSubstr("[le] director ep=cpu (ORT CPU EP)\n"));
  // The fp16 backend, asked for through the provider or LE_CONV_BACKEND (exactly "neon"), is
  // not in this build: the renderer says so and renders with ONNX Runtime.
  const std::string unavailable = "[le] fp16 NEON backend requested but unavailable on this build/CPU; using ORT\n";
  err = log("prov", "neon");
  EXPECT_THAT(err, HasSubstr(unavailable));
  EXPECT_THAT(err, HasSubstr("[le] !!! compose alpha: ELLIPSE (prov) — this bundle carries no "
                             "lip_template.v1.json"));
  for (const char* value : {"neon", "NEON", "neon2"}) {
    ScopedEnv env("LE_CONV_BACKEND", value);
    err = stderrOf([&] {
      le::Renderer r(l.manifest, *l.identity, "b1", 1, "");
      EXPECT_STREQ(r.backend(), "ort");
      EXPECT_NE(r.render(&si, kp.data(), kp.data(), 1), nullptr);
    });
    EXPECT_EQ(err.find(unavailable) != std::string::npos, std::string(value) == "neon") << value;
  }
  const char* v = OrtGetApiBase()->GetVersionString();
  EXPECT_EQ(le::coremlCacheDir("/b"), std::string("/b/.coreml_cache/ort") + v);

  const le::testing::ScratchDir tmp("renderer_profile");
  const std::string prefix = tmp.path();
  ScopedEnv env("LE_ORT_PROFILE", (prefix + "/run").c_str());
  err = stderrOf([&] {
    le::Renderer r(l.manifest, *l.identity, "prov", 1, "");
    r.render(&si, kp.data(), kp.data(), 1);
    r.render(&si, kp.data(), kp.data(), 1);
  });
  EXPECT_THAT(err, HasSubstr("[le_ort_profile] 2 frames: "));
  EXPECT_THAT(err, HasSubstr(" ms/frame in Session::Run\n"));
  const size_t at = err.find("[le_ort_profile] " + prefix + "/run");
  ASSERT_NE(at, std::string::npos) << err;
  const std::string file = err.substr(at + 17, err.find('\n', at) - at - 17);
  EXPECT_TRUE(fs::exists(file)) << file;
}

// ---- the flat interface ----------------------------------------------------------------------

struct Ctx {
  le_ctx* c;
  Ctx(const std::string& dir, const char* key, int threads, const char* ep)
      : c(le_create(dir.c_str(), key, threads, ep)) {}
  ~Ctx() { le_destroy(c); }
};

TEST_F(RendererTest, EntryPointsRgbaAndPasteLast) {
  Ctx ctx(dir_, "b1", 1, "");
  ASSERT_NE(ctx.c, nullptr) << le_last_error();
  const int nt = le_nt(ctx.c);
  std::vector<float> kp(63, 0.f);
  EXPECT_EQ(le_paste_last(ctx.c, 0), nullptr);
  EXPECT_STREQ(le_last_error(), "le_paste_last: bad args / no prior render");
  EXPECT_EQ(le_render_kp_crop(ctx.c, nt, kp.data(), kp.data()), nullptr);
  EXPECT_STREQ(le_last_error(), "le_render_kp_crop: bad args");
  EXPECT_EQ(le_render_kp_crop(ctx.c, 0, nullptr, kp.data()), nullptr);
  EXPECT_EQ(le_render_drive_crop(ctx.c, le_drive_frames(ctx.c)), nullptr);
  EXPECT_STREQ(le_last_error(), "le_render_drive_crop: bad frame index");
  EXPECT_EQ(le_render_drive_crop(ctx.c, -1), nullptr);
  EXPECT_EQ(le_render_kp_rgba(nullptr, 0, kp.data(), kp.data(), nullptr, 0), 0);
  EXPECT_EQ(le_render_drive_rgba(nullptr, 0, nullptr, 0), 0);

  // A renderer that cannot be built is tried again by the next render.
  Ctx unknown(dir_, "b1", 1, "cuda");
  EXPECT_EQ(le_render_drive_crop(unknown.c, 0), nullptr);
  EXPECT_STREQ(le_last_error(), "le_render_drive_crop: Renderer: unknown ep 'cuda'");
  EXPECT_EQ(le_render_drive_rgba(unknown.c, 0, nullptr, 0), 0);
  EXPECT_STREQ(le_last_error(), "le_render_drive_crop: Renderer: unknown ep 'cuda'");

  // RGBA output is the pasted frame with opaque alpha; le_paste_last hands out that frame.
  const int W = le_width(ctx.c), H = le_height(ctx.c);
  const size_t rgba = size_t(W) * H * 4;
  std::vector<uint8_t> out(rgba, 7);
  const le::forge::Params p = smallBundle();
  const std::vector<float> xs = le::forge::keypoints(p, 1);

  EXPECT_EQ(le_render_kp_rgba(ctx.c, 1, xs.data(), xs.data(), out.data(), rgba - 1), 0);
  EXPECT_STREQ(le_last_error(), "le_render_*_rgba: out buffer too small");
  const uint8_t* frame = le_paste_last(ctx.c, 1);
  ASSERT_NE(frame, nullptr) << le_last_error();
  std::vector<uint8_t> rgb(frame, frame + size_t(W) * H * 3);

  ASSERT_EQ(le_render_kp_rgba(ctx.c, 1, xs.data(), xs.data(), out.data(), rgba), 1) << le_last_error();
  for (size_t i = 0; i < size_t(W) * H; ++i) {
    ASSERT_EQ(out[4 * i + 3], 255);
    ASSERT_EQ(0, std::memcmp(&out[4 * i], &rgb[3 * i], 3)) << "pixel " << i;
  }

  // A drive frame is pasted into the full frame of its own source index.
  const std::vector<int32_t> si = le::forge::driveIndices(p);
  int i = 0;
  while (i < p.frames && si[i] == i) ++i;
  ASSERT_LT(i, p.frames);
  ASSERT_EQ(le_render_drive_rgba(ctx.c, i, out.data(), rgba), 1) << le_last_error();
  const float* crop = le_render_drive_crop(ctx.c, i);
  ASSERT_NE(crop, nullptr);
  std::vector<uint8_t> want(size_t(W) * H * 3);
  ASSERT_EQ(le_paste_crop(ctx.c, si[i], crop, want.data(), want.size()), 1) << le_last_error();
  for (size_t k = 0; k < size_t(W) * H; ++k)
    ASSERT_EQ(0, std::memcmp(&out[4 * k], &want[3 * k], 3)) << "pixel " << k;
}

// ---- the forged director's warp, by plain loops ----------------------------------------------

// The forged director's grid: each pixel moved by the Gaussian-weighted keypoint displacement.
std::vector<double> keypointGrid(const std::vector<float>& ks, const std::vector<float>& kd, double sigma,
                                 int S) {
  std::vector<double> grid(size_t(2) * S * S);
  for (int y = 0; y < S; ++y)
    for (int x = 0; x < S; ++x) {
      const double bx = le::testwarp::centre(x, S), by = le::testwarp::centre(y, S);
      double wsum = 0, dx = 0, dy = 0;
      for (int k = 0; k < 21; ++k) {
        const double ox = bx - kd[3 * k], oy = by - kd[3 * k + 1];
        const double w = std::exp(-(ox * ox + oy * oy) / (2 * sigma * sigma));
        wsum += w;
        dx += w * (ks[3 * k] - kd[3 * k]);
        dy += w * (ks[3 * k + 1] - kd[3 * k + 1]);
      }
      grid[2 * (size_t(y) * S + x)] = bx + dx / std::max(wsum, 1.0);
      grid[2 * (size_t(y) * S + x) + 1] = by + dy / std::max(wsum, 1.0);
    }
  return grid;
}

// Outside the compose ellipse the crop is the clipped warp; inside it the warp is blended with
// a head term that does not depend on the keypoints, so two renders must agree on that term.
TEST_F(RendererTest, CropMatchesPlainLoopWarp) {
  const le::forge::Params p = smallBundle();
  const int S = p.crop, si = 2;
  const std::vector<float> P = widenFile(le::resolveMember(dir_, "P.f16"), si, size_t(3) * S * S);
  const le::testwarp::Warp warp(P, S, S);
  const std::vector<float> ks = le::forge::keypoints(p, si);
  std::vector<float> kdA = ks, kdB = ks;
  for (int k = 0; k < 21; ++k) {
    kdA[3 * k] += 0.04f * std::sin(float(k)), kdA[3 * k + 1] += 0.05f * std::cos(float(3 * k));
    kdB[3 * k + 1] += 0.03f * float(k % 3) - 0.02f;
  }
  const le::forge::DirectorGraphOptions gopt;

  Ctx ctx(dir_, "b1", 2, "");
  std::vector<std::vector<float>> crops;
  for (const auto* kd : {&kdA, &kdB}) {
    const float* c = le_render_kp_crop(ctx.c, si, ks.data(), kd->data());
    ASSERT_NE(c, nullptr) << le_last_error();
    crops.emplace_back(c, c + size_t(3) * S * S);
  }
  const std::vector<double> wA = warp.run(keypointGrid(ks, kdA, gopt.sigma, S));
  const std::vector<double> wB = warp.run(keypointGrid(ks, kdB, gopt.sigma, S));
  double worstOut = 0, worstIn = 0;
  int outside = 0, inside = 0;
  for (int y = 0; y < S; ++y)
    for (int x = 0; x < S; ++x) {
      const double u = le::testwarp::centre(x, S) / 0.45, v = (le::testwarp::centre(y, S) - 0.42) / 0.3;
      const double alpha = std::clamp(3 * (1 - u * u - v * v), 0.0, 1.0);
      for (int c = 0; c < 3; ++c) {
        const size_t i = (size_t(c) * S + y) * S + x;
        const double a = wA[i], b = wB[i];
        if (alpha == 0) {
          worstOut = std::max(worstOut, std::fabs(crops[0][i] - std::clamp(a, 0.0, 1.0)));
          worstOut = std::max(worstOut, std::fabs(crops[1][i] - std::clamp(b, 0.0, 1.0)));
          ++outside;
        } else if (alpha > 0.2) {
          const double headA = (crops[0][i] - alpha * a - (1 - alpha) * std::clamp(a, 0.0, 1.0)) / alpha;
          const double headB = (crops[1][i] - alpha * b - (1 - alpha) * std::clamp(b, 0.0, 1.0)) / alpha;
          worstIn = std::max(worstIn, std::fabs(headA - headB));
          ++inside;
        }
      }
    }
  EXPECT_GT(outside, 3 * S * S / 2);
  EXPECT_GT(inside, 30);
  EXPECT_LT(worstOut, 1e-4);
  EXPECT_LT(worstIn, 5e-4);
  EXPECT_GT(le::test::maxAbsDiff(crops[0], crops[1]), 0.05f);  // the keypoints moved something
}

// GridSampleFast, ONNX Runtime's own GridSample (LE_GS_REWRITE=0, or LE_GS_FAST=0 which also
// switches the custom op off) and the whole warp block as one WarpDirector node (LE_WARP_NODE=1)
// render the same crop. A graph with GridSampleFast baked in is refused when the custom op is off.
TEST_F(RendererTest, WarpKernelsAndTheirSwitches) {
  const le::forge::Params p = smallBundle();
  std::vector<float> ks = le::forge::keypoints(p, 1), kd = ks;
  for (int k = 0; k < 21; ++k) kd[3 * k + 1] += 0.06f * std::sin(float(k));
  auto render = [&](const char* var, const char* value, std::string* err) {
    ScopedEnv env(var, value);
    Ctx ctx(dir_, "b1", 2, "");
    const float* c = nullptr;
    *err = stderrOf([&] { c = le_render_kp_crop(ctx.c, 1, ks.data(), kd.data()); });
    EXPECT_NE(c, nullptr) << le_last_error();
    return c ? std::vector<float>(c, c + size_t(3) * p.crop * p.crop) : std::vector<float>();
  };
  std::string err;
  const std::vector<float> fast = render("LE_GS_REWRITE", nullptr, &err);
  EXPECT_THAT(err, HasSubstr("[le] std GridSample -> com.vantorix::GridSampleFast load-time rewrite: "
                             "1 node(s) (b1)\n"));
  for (const char* var : {"LE_GS_REWRITE", "LE_GS_FAST"}) {
    const std::vector<float> standard = render(var, "0", &err);
    EXPECT_THAT(err, Not(HasSubstr("GridSampleFast load-time rewrite"))) << var;
    EXPECT_LT(le::test::maxAbsDiff(fast, standard), 1e-4) << var;
  }
  const std::vector<float> warpNode = render("LE_WARP_NODE", "1", &err);
  EXPECT_THAT(err, HasSubstr("[le] director warp -> com.vantorix::WarpDirector ("));
  EXPECT_THAT(err, Not(HasSubstr("GridSampleFast load-time rewrite")));
  EXPECT_LT(le::test::maxAbsDiff(fast, warpNode), 1e-4);
  // A graph with GridSampleFast baked in is not rewritten again, and is refused when the custom
  // domain is switched off; so is the WarpDirector node, whose kernel lives in the same domain.
  Loaded l(dir_);
  std::vector<uint8_t> baked = le::forge::readModelBytes(l.manifest.modelPath("b1"));
  ASSERT_GT(le::rewriteGridSampleToFast(baked), 0u);
  model("baked", baked);
  {
    ScopedEnv noRewrite("LE_GS_REWRITE", "0");
    EXPECT_THAT(log("baked"), HasSubstr("[le] LE_GS_REWRITE=0: load-time std GridSample -> "
                                        "com.vantorix::GridSampleFast rewrite DISABLED (baked); the custom op "
                                        "is still registered"));
  }
  ScopedEnv noDomain("LE_GS_FAST", "0");
  EXPECT_EQ(refusal("baked"),
            "Renderer: LE_GS_FAST=0 (or VANTORIX_TAMSINE2_GRIDSAMPLE_FAST=0, which sets it) was "
            "asked for, but " +
                l.manifest.modelPath("baked") +
                " has com.vantorix::GridSampleFast BAKED INTO THE GRAPH. That flag disables the "
                "custom-op registration, so there would be no kernel to bind and this session "
                "would die inside ORT with 'GridSampleFast(-1) is not a registered "
                "function/op'. There is no standard-GridSample arm on this bundle to measure: "
                "the artifact itself is non-standard. Run the A/B on a STANDARD-ONNX bundle (the "
                "shipping format since INFERENCE_STANDARDIZATION.md #1), or unset the flag to "
                "load this one.");
  ScopedEnv warp("LE_WARP_NODE", "1");
  Ctx ctx(dir_, "b1", 2, "");
  stderrOf([&] { EXPECT_EQ(le_render_kp_crop(ctx.c, 1, ks.data(), kd.data()), nullptr); });
  EXPECT_THAT(le_last_error(), AllOf(StartsWith("le_render_kp_crop: Renderer: LE_WARP_NODE=1 moved"),
                                     HasSubstr("LE_GS_FAST=0 turned off the com.vantorix operator domain")));
}

}  // namespace
