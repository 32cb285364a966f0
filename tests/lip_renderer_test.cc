// The director renderer with a lip template: the compose alpha becomes min(graph alpha, contour
// plane of the frame's driving keypoints), checked against the forged director's own compose
// parts run beside it; and the refusals and log lines around the binding.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "le/le_bundle.h"
#include "le/le_simd.h"
#include "le/render/graph_rewrites.h"
#include "le/render/le_renderer.h"
#include "le/render/onnx_bytes.h"
#include "le/tessera/le_lip_contour.h"
#include "tests/bundle_fixture.h"
#include "tests/onnx_ort.h"
#include "tests/test_util2.h"
#include "tools/forge/director_graph.h"
#include "tools/forge/director_members.h"
#include "tools/forge/forge.h"
#include "tools/forge/onnx_builder.h"

using ::testing::HasSubstr;
using ::testing::Not;
using le::testing::ScratchDir;
using le::testing::thrown;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr int kCrop = 64;

le::forge::Params lipBundle(le::forge::Lips lips) {
  le::forge::Params p = le::forge::sized(4, 160, 120, kCrop, 6);
  p.lips = lips;
  le::forge::DirectorMemberOptions o;
  o.heavy = false;
  o.featSynth = false;
  for (auto& m : le::forge::directorMembers(p, o)) p.extraMembers.push_back(std::move(m));
  return p;
}

struct Loaded : le::testing::Loaded {
  le::Drive drive;
  explicit Loaded(const std::string& dir) : le::testing::Loaded(dir), drive(le::loadDrive(manifest)) {}
};

// The renderer's own rewrites, short of the lip binding.
Bytes asTheRendererLoadsIt(Bytes m) {
  le::rewriteGridSampleToFast(m);
  le::normaliseStudentBlend(m);
  le::rewriteHeadCubicResize(m);
  return m;
}

// The two compose operands and the alpha, declared as further graph outputs.
Bytes withComposeParts(const Bytes& model, std::string names[3]) {
  std::vector<le::GsNodeInfo> nodes;
  std::set<std::string> inits, inputs;
  le::gsReadGraph(le::gsGraphOf(model), nodes, inits, inputs);
  auto producer = [&](const std::string& v) -> const le::GsNodeInfo& {
    for (const auto& n : nodes)
      if (!n.outputs.empty() && n.outputs[0] == v) return n;
    throw std::runtime_error("no producer of " + v);
  };
  const le::GsNodeInfo& add = producer("rgb");
  names[0] = producer(add.inputs[0]).inputs[0];  // face
  names[1] = producer(add.inputs[1]).inputs[0];  // background
  names[2] = "/compose/alpha";
  Bytes out = model;
  const int64_t dims[4] = {1, 0, kCrop, kCrop};
  for (int k = 0; k < 3; ++k) {
    le::GsGraphEdit e;
    e.declare(names[k], dims, 4, le::onnxf::kGraphOutput);
    Bytes next;
    le::gsRebuild(out, e, next);
    out.swap(next);
  }
  return out;
}

}  // namespace

TEST(LipRenderer, ComposeAlphaIsTheContour) {
  ScratchDir withT("lip_renderer_t"), without("lip_renderer_e");
  le::forge::forgeBundle(withT.path(), lipBundle(le::forge::Lips::Learned));
  le::forge::forgeBundle(without.path(), lipBundle(le::forge::Lips::None));
  Loaded lt(withT.path()), le_(without.path());
  ASSERT_FALSE(lt.manifest.lip_template.empty());

  std::unique_ptr<le::Renderer> withContour, withEllipse;
  std::string err =
      le::testing::stderrOf([&] { withContour = std::make_unique<le::Renderer>(lt.manifest, *lt.identity, "b1", 1, ""); });
  EXPECT_THAT(err, HasSubstr("[le] compose alpha: LIP CONTOUR (b1) — Min(a, lip_delivery) bound at load, 32 verts, "
                             "feather 1.5 px; the graph's ellipse is not reachable in this session\n"));
  EXPECT_THAT(err, Not(HasSubstr("ELLIPSE")));
  err = le::testing::stderrOf(
      [&] { withEllipse = std::make_unique<le::Renderer>(le_.manifest, *le_.identity, "b1", 1, ""); });
  EXPECT_THAT(err, HasSubstr("[le] !!! compose alpha: ELLIPSE (b1) — this bundle carries no lip_template.v1.json"));
  EXPECT_THAT(err, Not(HasSubstr("LIP CONTOUR")));

  const Bytes base = asTheRendererLoadsIt(le::forge::readModelBytes(withT / "model_b1.onnx"));
  std::string parts[3];
  Ort::Session probe = le::test::ortSession(withComposeParts(base, parts));
  const le::tessera::LipContour lc = le::tessera::LipContour::fromTemplateJson(lt.manifest.lip_template, kCrop);

  const size_t plane = size_t(kCrop) * kCrop;
  std::vector<float> pooled(65536), prior(3 * plane), contour(plane);
  float worst = 0;
  size_t cut = 0;
  std::vector<std::vector<float>> crops;
  for (int i = 0; i < lt.drive.frames; ++i) {
    const int32_t si = lt.drive.si[size_t(i)];
    const float* xs = &lt.drive.xs[size_t(i) * 63];
    const float* xd = &lt.drive.xd[size_t(i) * 63];
    const float* got = withContour->render(&si, xs, xd, 1);
    crops.emplace_back(got, got + 3 * plane);

    le::halfToFloat(lt.identity->pooled64(si), pooled.data(), pooled.size());
    le::halfToFloat(lt.identity->P(si), prior.data(), prior.size());
    const std::vector<le::test::Feed> feeds = {{"pooled64", {1, 64, 32, 32}, pooled.data(), pooled.size()},
                                         {"P_rgb", {1, 3, kCrop, kCrop}, prior.data(), prior.size()},
                                         {"kp_driving", {1, 21, 3}, xd, 63},
                                         {"kp_source", {1, 21, 3}, xs, 63}};
    const std::vector<float> face = le::test::ortRun(probe, feeds, parts[0]), bg = le::test::ortRun(probe, feeds, parts[1]),
                             alpha = le::test::ortRun(probe, feeds, parts[2]);
    lc.contourF32Canvas(xd, contour.data());
    for (size_t c = 0; c < 3; ++c)
      for (size_t p = 0; p < plane; ++p) {
        const float a = std::min(alpha[p], contour[p]);
        const float want = face[c * plane + p] * a + bg[c * plane + p] * (1.f - a);
        worst = std::max(worst, std::fabs(got[c * plane + p] - want));
        cut += c == 0 && alpha[p] > 0.5f && contour[p] < 0.5f;
      }
  }
  EXPECT_LT(worst, 1e-6f);
  EXPECT_GT(cut, 100u);  // the contour is much tighter than the graph's ellipse

  // Batched: each slot carries its own frame's contour; the padding repeats the last.
  le::Renderer r4(lt.manifest, *lt.identity, "b4", 1, "");
  ASSERT_EQ(r4.batch(), 4);
  const float* four = r4.render(lt.drive.si.data() + 1, lt.drive.xs.data() + 63, lt.drive.xd.data() + 63, 3);
  for (int k = 0; k < 3; ++k)
    EXPECT_LT(le::test::maxAbsDiff(std::vector<float>(four + k * 3 * plane, four + (k + 1) * 3 * plane), crops[size_t(k) + 1]),
              1e-5f)
        << k;
  EXPECT_TRUE(std::equal(four + 2 * 3 * plane, four + 3 * 3 * plane, four + 3 * 3 * plane));
}

TEST(LipRenderer, RefusalsAndUnboundGraphs) {
  ScratchDir dir("lip_renderer_refusals");
  le::forge::forgeBundle(dir.path(), lipBundle(le::forge::Lips::Template));
  // A director whose compose canvas is not the crop.
  le::forge::DirectorGraphOptions small;
  small.crop = kCrop / 2;
  le::forge::writeModelBytes(dir / "model_half.onnx", le::forge::forgeDirectorGraph(small));
  // A director without the compose tail: it renders, with its own compose.
  le::forge::OnnxBuilder b("tailless");
  b.input("pooled64", {1, 64, 32, 32});
  b.input("P_rgb", {1, 3, kCrop, kCrop});
  b.input("kp_driving", {1, 21, 3});
  b.input("kp_source", {1, 21, 3});
  b.node("Identity", {"P_rgb"}, {"rgb"});
  b.output("rgb", {1, 3, kCrop, kCrop});
  le::forge::writeModelBytes(dir / "model_tailless.onnx", b.build());

  Loaded l(dir.path());
  EXPECT_EQ(thrown([&] { le::Renderer r(l.manifest, *l.identity, "half", 1, ""); }),
            "Renderer: the director's compose canvas is 32 and this bundle's manifest declares crop 64 — refusing to "
            "bind a lip contour rasterised on the wrong canvas");
  EXPECT_THAT(le::testing::stderrOf([&] {
                le::Renderer r(l.manifest, *l.identity, "tailless", 1, "");
                const int32_t si = 0;
                std::vector<float> kp(63, 0.f);
                r.render(&si, kp.data(), kp.data(), 1);
              }),
              HasSubstr("[le] !!! lip contour NOT bound to the compose alpha (tailless): the graph does not carry the "
                        "unified compose tail — this session serves the graph's own ELLIPSE\n"));
}
