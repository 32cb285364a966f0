// Load-time graph rewrites on forged director graphs: every rewrite is run in real ONNX Runtime
// sessions against the graph it came from, and every refusal is checked by its exact reason.
#include "le/render/graph_rewrites.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <string>
#include <vector>

#include "le/render/gridsample_fast.h"
#include "le/render/le_ort.h"
#include "le/render/onnx_bytes.h"
#include "tools/forge/director_graph.h"
#include "tools/forge/onnx_builder.h"
#include "tests/onnx_ort.h"

using le::GsSlice;
using le::forge::Attr;
using le::forge::DirectorGraphOptions;
using le::forge::DirectorVariant;
using le::forge::OnnxBuilder;
using le::forge::Tensor;
using Bytes = std::vector<uint8_t>;
namespace of = le::onnxf;

namespace {

constexpr int kCrop = 64;

Bytes director(DirectorVariant v = DirectorVariant::Standard, int crop = kCrop) {
  DirectorGraphOptions o;
  o.crop = crop;
  o.variant = v;
  return le::forge::forgeDirectorGraph(o);
}

// ---- structure -------------------------------------------------------------------------------

std::vector<le::GsNodeInfo> nodesOf(const Bytes& model) {
  std::vector<le::GsNodeInfo> nodes;
  std::set<std::string> inits, inputs;
  le::gsReadGraph(le::gsGraphOf(model), nodes, inits, inputs);
  return nodes;
}

// Initializers no node reads: ONNX Runtime warns about each one when it loads the model.
std::vector<std::string> unreadInitializers(const Bytes& model) {
  std::set<std::string> inits, inputs, read;
  std::vector<le::GsNodeInfo> infos;
  le::gsReadGraph(le::gsGraphOf(model), infos, inits, inputs);
  for (const le::GsNodeInfo& n : infos) read.insert(n.inputs.begin(), n.inputs.end());
  std::vector<std::string> unread;
  for (const std::string& i : inits)
    if (!read.count(i)) unread.push_back(i);
  return unread;
}

int countOp(const Bytes& model, const std::string& op) {
  int n = 0;
  for (const le::GsNodeInfo& v : nodesOf(model)) n += v.opType == op;
  return n;
}

// The version of every com.vantorix opset import.
std::vector<uint64_t> vantorixImports(const Bytes& model) {
  std::vector<uint64_t> out;
  le::GsReader r(model);
  for (le::GsField f; r.next(f);) {
    if (f.number != of::kModelOpsetImport) continue;
    if (le::gsFirstStr(f.payload, of::kOpsetDomain) != "com.vantorix") continue;
    le::GsReader o(f.payload);
    for (le::GsField x; o.next(x);)
      if (x.number == of::kOpsetVersion) out.push_back(x.value);
  }
  return out;
}

// ---- sessions --------------------------------------------------------------------------------

struct Feed {
  std::string name;
  std::vector<int64_t> shape;
  std::vector<float> data;
};

// Runs `model` on the feeds and returns output `out`; the engine's domain is registered.
std::vector<float> run(const Bytes& model, const std::vector<Feed>& feeds, const std::string& out = "rgb") {
  Ort::Session s = le::test::ortSession(model);
  std::vector<le::test::Feed> views;
  for (const Feed& fd : feeds) views.push_back({fd.name, fd.shape, fd.data.data(), fd.data.size()});
  return le::test::ortRun(s, views, out);
}

std::vector<Feed> directorFeeds(float mouthOpen = 0.12f, int crop = kCrop) {
  return {{"pooled64", {1, 64, 32, 32}, le::test::randomFloats(64 * 32 * 32, -1.f, 1.f, 7)},
          {"P_rgb", {1, 3, crop, crop}, le::forge::forgeFacePrior(crop)},
          {"kp_driving", {1, 21, 3}, le::forge::forgeFaceKeypointsMouthOpen(mouthOpen)},
          {"kp_source", {1, 21, 3}, le::forge::forgeFaceKeypoints()}};
}

// The largest difference between the two models' outputs on the same feeds, relative to the
// first one's largest value.
float compare(const Bytes& before, const Bytes& after, const std::vector<Feed>& feeds,
              const std::string& out = "rgb") {
  const std::vector<float> a = run(before, feeds, out);
  float range = 0.f;
  for (float v : a) range = std::max(range, std::fabs(v));
  return le::test::maxAbsDiff(a, run(after, feeds, out)) / range;
}

}  // namespace

// A batched director: its 3-D blend is no student blend, and the rewrites that apply keep every
// frame, the lip binding reading its batch off the graph.
TEST(GraphRewrites, BatchOfTwo) {
  DirectorGraphOptions o;
  o.crop = kCrop;
  o.batch = 2;
  const Bytes two = le::forge::forgeDirectorGraph(o);
  std::vector<Feed> both = directorFeeds(0.f);
  const std::vector<Feed> f1 = directorFeeds(0.15f);
  for (size_t k = 0; k < both.size(); ++k) {
    both[k].shape[0] = 2;
    both[k].data.insert(both[k].data.end(), f1[k].data.begin(), f1[k].data.end());
  }
  const std::vector<float> expect = run(two, both);
  Bytes m = two;
  std::string reason;
  int canvas = 0, batch = 0;
  EXPECT_EQ(le::normaliseStudentBlend(m), 0u);
  EXPECT_EQ(le::rewriteGridSampleToFast(m), 1u);
  EXPECT_EQ(le::rewriteHeadCubicResize(m), 1u);
  ASSERT_EQ(le::rewriteBindLipContour(m, reason, &canvas, &batch), 1) << reason;
  EXPECT_EQ(canvas, kCrop);
  EXPECT_EQ(batch, 2);
  both.push_back({"lip_delivery", {2, 1, kCrop, kCrop}, std::vector<float>(2 * kCrop * kCrop, 1.f)});
  EXPECT_LT(le::test::maxAbsDiff(run(m, both), expect), 1e-5f);
}

TEST(GraphRewrites, GridSampleToFast) {
  // The node predicate: bilinear or linear, border, align_corners absent or 0, standard domain.
  auto gsNode = [](std::vector<Attr> attrs, const std::string& domain = "") {
    OnnxBuilder b;
    b.input("x", {1, 1, 4, 4});
    b.input("g", {1, 4, 4, 2});
    b.node("GridSample", {"x", "g"}, {"y"}, attrs, "gs", domain);
    b.output("y", {1, 1, 4, 4});
    Bytes m = b.build();
    le::GsReader r(le::gsGraphOf(m));
    le::GsField f;
    while (r.next(f))
      if (f.number == of::kGraphNode) return le::gsIsRewritableGridSample(f.payload);
    return false;
  };
  EXPECT_TRUE(gsNode({Attr::s("mode", "bilinear"), Attr::s("padding_mode", "border")}));
  EXPECT_TRUE(gsNode({Attr::s("mode", "linear"), Attr::s("padding_mode", "border"), Attr::i("align_corners", 0)}));
  EXPECT_TRUE(gsNode({Attr::s("mode", "bilinear"), Attr::s("padding_mode", "border")}, "ai.onnx"));
  EXPECT_FALSE(gsNode({Attr::s("mode", "bilinear"), Attr::s("padding_mode", "zeros")}));
  EXPECT_FALSE(gsNode({Attr::s("mode", "bilinear")}));  // zeros by default
  EXPECT_FALSE(gsNode({Attr::s("padding_mode", "border")}));  // bilinear by default, but unsaid
  EXPECT_FALSE(gsNode({Attr::s("mode", "bicubic"), Attr::s("padding_mode", "border")}));
  EXPECT_FALSE(gsNode({Attr::s("mode", "bilinear"), Attr::s("padding_mode", "border"), Attr::i("align_corners", 1)}));
  EXPECT_FALSE(gsNode({Attr::s("mode", "bilinear"), Attr::s("padding_mode", "border")}, "com.other"));

  // On the director: one node, numerically the same warp.
  const Bytes original = director();
  Bytes m = original;
  EXPECT_FALSE(le::graphHasBakedGridSampleFast(m));
  ASSERT_EQ(le::rewriteGridSampleToFast(m), 1u);
  EXPECT_TRUE(le::graphHasBakedGridSampleFast(m));
  EXPECT_EQ(countOp(m, "GridSample"), 0);
  EXPECT_EQ(vantorixImports(m), std::vector<uint64_t>{1});
  EXPECT_LT(compare(original, m, directorFeeds()), 1e-5f);
  const Bytes once = m;
  EXPECT_EQ(le::rewriteGridSampleToFast(m), 0u);  // nothing left to do, bytes untouched
  EXPECT_EQ(m, once);

  // Two nodes rewritten, one import; an import already there is kept as it is. (The kernel's
  // values are the GridSampleFast test's.)
  for (bool preDeclared : {false, true}) {
    OnnxBuilder b;
    if (preDeclared) b.opset("com.vantorix", 3);
    b.input("x", {1, 2, 5, 5});
    b.input("g", {1, 5, 5, 2});
    const std::vector<Attr> a = {Attr::s("mode", "bilinear"), Attr::s("padding_mode", "border")};
    b.node("Add", {b.op("GridSample", {"x", "g"}, a), b.op("GridSample", {"x", "g"}, a)}, {"y"});
    b.output("y", {1, 2, 5, 5});
    Bytes t = b.build();
    EXPECT_EQ(le::rewriteGridSampleToFast(t), 2u);
    EXPECT_EQ(vantorixImports(t), std::vector<uint64_t>{preDeclared ? 3u : 1u});
  }
}

TEST(GraphRewrites, StudentBlendMatMulToGemm) {
  const Bytes original = director();
  Bytes m = original;
  ASSERT_EQ(le::normaliseStudentBlend(m), 1u);
  EXPECT_EQ(countOp(m, "Gemm"), 1);
  EXPECT_EQ(countOp(m, "MatMul"), 0);
  EXPECT_TRUE(vantorixImports(m).empty());
  EXPECT_LT(compare(original, m, directorFeeds()), 1e-5f);
  EXPECT_EQ(le::normaliseStudentBlend(m), 0u);

  // Only the exact node qualifies: its name, no attribute, two inputs.
  auto blendNode = [](const std::string& name, std::vector<std::string> inputs, std::vector<Attr> attrs) {
    OnnxBuilder b;
    b.input("a", {4, 3});
    b.input("b", {3, 2});
    b.node("MatMul", inputs, {"y"}, attrs, name);
    b.output("y", {4, 2});
    Bytes bytes = b.build();
    const Bytes before = bytes;
    const size_t n = le::normaliseStudentBlend(bytes);
    if (!n) {
      EXPECT_EQ(bytes, before);
    }
    return n;
  };
  EXPECT_EQ(blendNode("/s2/blend", {"a", "b"}, {}), 1u);
  EXPECT_EQ(blendNode("/s2/blend_1", {"a", "b"}, {}), 0u);
  EXPECT_EQ(blendNode("/s2/blend", {"a", "b", "b"}, {}), 0u);
  EXPECT_EQ(blendNode("/s2/blend", {"a", "b"}, {Attr::i("trans", 0)}), 0u);
}

TEST(GraphRewrites, HeadCubicResize) {
  const Bytes original = director();
  Bytes m = original;
  ASSERT_EQ(le::rewriteHeadCubicResize(m), 1u);
  EXPECT_EQ(countOp(m, "Resize"), 0);  // crop 64: the head needs no second resize
  EXPECT_EQ(unreadInitializers(m), std::vector<std::string>());

  // The same filter: relative to the output's range, within 1e-5, on the director and on the
  // head alone (its Conv output, where the cubic's error is not diluted by the rest).
  EXPECT_LT(compare(original, m, directorFeeds()), 1e-5f);

  // A crop above 64 keeps its linear Resize and still rewrites the cubic one.
  const Bytes big = director(DirectorVariant::Standard, 96);
  Bytes bigM = big;
  ASSERT_EQ(le::rewriteHeadCubicResize(bigM), 1u);
  EXPECT_EQ(countOp(bigM, "Resize"), 1);
  EXPECT_LT(compare(big, bigM, directorFeeds(0.12f, 96)), 1e-5f);

  // Refusals leave the bytes alone.
  auto unchanged = [](Bytes bytes) {
    const Bytes before = bytes;
    const size_t n = le::rewriteHeadCubicResize(bytes);
    EXPECT_EQ(bytes, before);
    return n == 0;
  };
  EXPECT_TRUE(unchanged(director(DirectorVariant::TwoCubicResizes)));
  EXPECT_TRUE(unchanged(director(DirectorVariant::ScalesNotTwo)));
  // Small heads: roi given, a per-channel scale that disagrees with the Conv, a second consumer.
  enum Flaw { None, Roi, ChannelMismatch, TwoConsumers, CoeffA, Group };
  auto head = [](Flaw flaw) {
    OnnxBuilder b;
    b.input("x", {1, 4, 6, 6});
    std::vector<float> sc(flaw == ChannelMismatch ? 5 : 4, 1.5f);
    const std::string xs = b.op("Mul", {"x", b.init("sc", {int64_t(sc.size()), 1, 1}, sc)});
    const std::string roi = flaw == Roi ? b.init("roi", {8}, {0, 0, 0, 0, 1, 1, 1, 1}) : "";
    std::vector<Attr> at = {Attr::s("mode", "cubic"), Attr::s("coordinate_transformation_mode", "half_pixel")};
    if (flaw == CoeffA) at.push_back(Attr::f("cubic_coeff_a", -0.5f));
    const std::string up = b.op("Resize", {xs, roi, b.init("scales", {4}, {1, 1, 2, 2})}, at);
    std::vector<float> w(flaw == Group ? 4 * 2 * 9 : 3 * 4 * 9);
    for (size_t k = 0; k < w.size(); ++k) w[k] = std::cos(float(k)) * 0.2f;
    std::vector<Attr> ca = {Attr::ints("pads", {1, 1, 1, 1})};
    if (flaw == Group) ca.push_back(Attr::i("group", 2));
    const std::vector<int64_t> wd = flaw == Group ? std::vector<int64_t>{4, 2, 3, 3} : std::vector<int64_t>{3, 4, 3, 3};
    std::string y = b.op("Conv", {up, b.init("w", wd, w)}, ca);
    if (flaw == TwoConsumers) y = b.op("Concat", {y, b.op("Relu", {up})}, {Attr::i("axis", 1)});
    b.node("Identity", {y}, {"y"});
    b.output("y", {1, flaw == TwoConsumers ? 7 : (flaw == Group ? 4 : 3), 12, 12});
    return b.build();
  };
  EXPECT_TRUE(unchanged(head(Roi)));
  EXPECT_TRUE(unchanged(head(ChannelMismatch)));
  EXPECT_TRUE(unchanged(head(TwoConsumers)));
  std::vector<float> x(4 * 36);
  for (size_t k = 0; k < x.size(); ++k) x[k] = std::sin(0.7f * float(k)) + float(k % 5) * 0.1f;
  for (Flaw ok : {None, CoeffA, Group}) {
    const Bytes h = head(ok);
    Bytes hm = h;
    ASSERT_EQ(le::rewriteHeadCubicResize(hm), 1u) << ok;
    EXPECT_LT(compare(h, hm, {{"x", {1, 4, 6, 6}, x}}, "y"), 1e-5f) << ok;
  }
}

TEST(GraphRewrites, BindLipContour) {
  const Bytes original = director();
  Bytes m = original;
  std::string reason;
  int canvas = -1, batch = -1;
  ASSERT_EQ(le::rewriteBindLipContour(m, reason, &canvas, &batch), 1) << reason;
  EXPECT_EQ(canvas, kCrop);
  EXPECT_EQ(batch, 1);

  // All-ones delivery: exactly the graph's own output. Zeros: the background wherever the
  // ellipse covered the face, nothing changed outside it.
  std::vector<Feed> feeds = directorFeeds();
  const std::vector<float> ref = run(original, feeds);
  feeds.push_back({"lip_delivery", {1, 1, kCrop, kCrop}, std::vector<float>(kCrop * kCrop, 1.f)});
  const std::vector<float> ones = run(m, feeds);
  EXPECT_EQ(ones, ref);
  feeds.back().data.assign(kCrop * kCrop, 0.f);
  const std::vector<float> zeros = run(m, feeds);
  EXPECT_GT(le::test::maxAbsDiff(ref, zeros), 1e-3f);
  EXPECT_EQ(zeros[0], ref[0]);  // a corner is far outside the ellipse
  EXPECT_EQ(le::rewriteBindLipContour(m, reason, nullptr, nullptr), 0);
  EXPECT_EQ(reason, "the graph already carries an input named lip_delivery");

  auto refused = [](Bytes bytes) {
    const Bytes before = bytes;
    std::string why;
    int c = 7;
    EXPECT_EQ(le::rewriteBindLipContour(bytes, why, &c, nullptr), 0);
    EXPECT_EQ(bytes, before);
    EXPECT_EQ(c, 7);
    return why;
  };
  EXPECT_EQ(refused(director(DirectorVariant::HasLipDelivery)),
            "the graph already carries an input named lip_delivery");
  EXPECT_EQ(refused({}), "no graph");

  // Small compose tails.
  enum Tail { Plain, AlphaInput, NotClip, NoCanvas, ViaCasts, OneConstant, NotOne, OutOfOrder };
  auto tail = [](Tail t) {
    OnnxBuilder b;
    b.input("x", {1, 3, 8, 8});
    b.input("y", {1, 3, 8, 8});
    if (t != NoCanvas) b.input("P_rgb", {1, 3, 40, 40});
    b.input("kp_driving", {2, 21, 3});
    b.input("logit", {1, 1, 8, 8});
    const std::string one = t == OneConstant ? b.constant(Tensor::floats({1}, {1.f}, "one_c"))
                                             : b.init("one", {1}, {t == NotOne ? 2.f : 1.f});
    const std::string lo = b.init("lo", {}, {0.f}), hi = b.init("hi", {}, {1.f});
    std::string a = "logit";
    if (t == OutOfOrder) {
      a = "alpha";
      const std::string inv = b.op("Sub", {one, a});  // reads the alpha before its Clip
      b.node("Clip", {"logit", lo, hi}, {a});
      b.node("Add", {b.op("Mul", {"x", a}), b.op("Mul", {"y", inv})}, {"rgb"});
    } else {
      if (t != AlphaInput) a = b.op(t == NotClip ? "Sigmoid" : "Clip", t == NotClip ? std::vector<std::string>{"logit"}
                                                                                     : std::vector<std::string>{"logit", lo, hi});
      const std::string sum = b.op("Add", {b.op("Mul", {"y", b.op("Sub", {one, a})}), b.op("Mul", {a, "x"})});
      if (t == Plain) b.node("Relu", {sum}, {"rgb"});
      else if (t == ViaCasts) b.node("Identity", {b.op("Cast", {sum}, {Attr::i("to", 1)})}, {"rgb"});
      else b.node("Identity", {sum}, {"rgb"});
    }
    b.output("rgb", {1, 3, 8, 8});
    return b.build();
  };
  EXPECT_EQ(refused(tail(Plain)), "the graph does not carry the unified compose tail");  // Relu on top
  EXPECT_EQ(refused(tail(AlphaInput)), "the compose alpha 'logit' has no producer node");
  EXPECT_EQ(refused(tail(NotClip)), "the graph does not carry the unified compose tail");
  EXPECT_EQ(refused(tail(NotOne)), "the graph does not carry the unified compose tail");
  {
    // The alpha as a graph input, behind Cast/Identity: found, but it has no producer.
    OnnxBuilder b;
    b.input("x", {1, 3, 8, 8});
    b.input("a", {1, 1, 8, 8});
    const std::string sum =
        b.op("Add", {b.op("Mul", {"x", "a"}), b.op("Mul", {"x", b.op("Sub", {b.init("one", {}, {1.f}), "a"})})});
    b.node("Identity", {sum}, {"rgb"});
    b.output("rgb", {1, 3, 8, 8});
    EXPECT_EQ(refused(b.build()), "the compose alpha 'a' has no producer node");
  }
  EXPECT_EQ(refused(tail(NoCanvas)), "cannot read the compose canvas off the graph");
  EXPECT_EQ(refused(tail(OutOfOrder)),
            "self-check: node 0 reads 'tessera_lipdel_alpha' produced at 2 — the rewritten graph is not "
            "topologically ordered");
  // Canvas from P_rgb when no square initializer is in the tail, batch from kp_driving; the 1 may
  // be a Constant node; Cast and Identity above the Add are passed through.
  for (Tail ok : {ViaCasts, OneConstant}) {
    Bytes t = tail(ok);
    std::string why;
    int c = 0, n = 0;
    ASSERT_EQ(le::rewriteBindLipContour(t, why, &c, &n), 1) << why;
    EXPECT_EQ(c, 40);
    EXPECT_EQ(n, 2);
  }

  // The self-checks on rebuilt bytes, each fed a graph that fails exactly one.
  auto check = [](bool input, bool minNode, bool stale) {
    OnnxBuilder b;
    b.input("a0", {1, 1, 4, 4});
    if (input) b.input("lip_delivery", {1, 1, 4, 4});
    const std::string a = b.op("Clip", {"a0"}, {}, "", "alpha");
    if (minNode) b.node("Min", {a, "lip_delivery"}, {"tessera_lipdel_alpha"}, {}, "tessera_lipdel_min");
    b.node("Add", {"tessera_lipdel_alpha", stale ? a : std::string("tessera_lipdel_alpha")}, {"y"});
    b.output("y", {1, 1, 4, 4});
    std::string why;
    const bool ok = le::lipBindingSelfCheck(b.build(), a, why);
    EXPECT_EQ(ok, why.empty());
    return why;
  };
  EXPECT_EQ(check(true, true, false), "");
  EXPECT_EQ(check(false, true, false), "self-check: the input did not survive the rebuild");
  EXPECT_EQ(check(true, false, false), "self-check: the Min node did not survive the rebuild");
  EXPECT_EQ(check(true, true, true),
            "self-check: rewire did not take: 1 consumers of tessera_lipdel_alpha, one still reads the alpha — "
            "refusing a graph that would serve the ellipse with the input attached and ignored");
}

// Malformed bytes are not an unrecognised graph: the toolkit's errors propagate and the model
// is left as it was.
TEST(GraphRewrites, MalformedBytesThrowAndLeaveTheModel) {
  const Bytes whole = director();
  for (size_t cut : {whole.size() / 3, whole.size() - 5}) {
    const Bytes broken(whole.begin(), whole.begin() + long(cut));
    auto throwsOnnx = [&](auto&& rewrite) {
      Bytes m = broken;
      try {
        rewrite(m);
      } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()).rfind("onnx: ", 0), 0u) << e.what();
        EXPECT_EQ(m, broken);
        return true;
      }
      return false;
    };
    std::string r;
    EXPECT_TRUE(throwsOnnx([](Bytes& m) { le::rewriteGridSampleToFast(m); }));
    EXPECT_TRUE(throwsOnnx([](Bytes& m) { le::normaliseStudentBlend(m); }));
    EXPECT_TRUE(throwsOnnx([](Bytes& m) { le::rewriteHeadCubicResize(m); }));
    EXPECT_TRUE(throwsOnnx([&](Bytes& m) { le::rewriteBindLipContour(m, r, nullptr, nullptr); }));
    EXPECT_TRUE(throwsOnnx([&](Bytes& m) { le::rewriteWarpBlockToCustomOp(m, r); }));
    EXPECT_TRUE(throwsOnnx([&](Bytes& m) { le::findSourceConeBoundary(m, r); }));
  }
}

namespace {

// A minimal warp block: cone Concat(P_rgb, 2 * P_rgb), GridSample, Slice/Mul/Sub recombination.
enum class WarpFlaw {
  None, TwoConcats, TwoSamplers, NoSampler, GridIsInput, NoSampleOutput, TwoExits, SampleEscapes,
  ConeReadsInput, ConeGhost, ConeEscapes, Zeros, ShiftedFirst
};

Bytes warpGraph(WarpFlaw flaw) {
  OnnxBuilder b;
  b.input("P_rgb", {1, 3, 8, 8});
  b.input("g_in", {1, 8, 8, 2});
  if (flaw == WarpFlaw::ConeReadsInput) b.input("side", {1, 3, 8, 8});
  if (flaw == WarpFlaw::ShiftedFirst) b.op("Relu", {"g_in"});
  const std::string grid = flaw == WarpFlaw::GridIsInput ? "g_in" : b.op("Tanh", {"g_in"});
  std::string twice = b.op("Mul", {flaw == WarpFlaw::ConeReadsInput ? "side" : "P_rgb", b.init("two", {}, {2.f})});
  if (flaw == WarpFlaw::ConeGhost) twice = "ghost";
  const std::string tip = b.node("Concat", {"P_rgb", twice}, {"tip"}, {Attr::i("axis", 1)});
  if (flaw == WarpFlaw::TwoConcats) b.op("Concat", {"P_rgb", "P_rgb"}, {Attr::i("axis", 1)});
  const std::vector<Attr> ga = {Attr::s("mode", "bilinear"),
                                Attr::s("padding_mode", flaw == WarpFlaw::Zeros ? "zeros" : "border")};
  std::string s = "s";
  if (flaw == WarpFlaw::NoSampler) s = b.op("Relu", {tip});
  else if (flaw == WarpFlaw::NoSampleOutput) b.node("GridSample", {tip, grid}, {""}, ga);
  else b.node("GridSample", {tip, grid}, {s}, ga);
  if (flaw == WarpFlaw::TwoSamplers) b.op("GridSample", {tip, grid}, ga);
  auto slice = [&](int from) {
    return b.op("Slice", {s, b.initI64("f" + std::to_string(from), {1}, {from}),
                          b.initI64("t" + std::to_string(from), {1}, {from + 3}), b.initI64("ax" + std::to_string(from), {1}, {1})});
  };
  const std::string F = slice(0), D = slice(3);
  const std::string out = b.op("Sub", {F, b.op("Mul", {D, b.init("k", {}, {0.25f})})});
  std::string y = b.op("Relu", {out});
  if (flaw == WarpFlaw::TwoExits) y = b.op("Concat", {y, b.op("Relu", {F})}, {Attr::i("axis", 1)});
  if (flaw == WarpFlaw::SampleEscapes)
    y = b.op("Concat", {y, b.node("Relu", {s}, {"s_seen"}, {}, "/leak/sample")}, {Attr::i("axis", 1)});
  if (flaw == WarpFlaw::ConeEscapes) y = b.op("Concat", {y, b.op("Relu", {twice})}, {Attr::i("axis", 1)});
  b.node("Identity", {y}, {"rgb"});
  b.output("rgb", {1, 3, 8, 8});
  return b.build();
}

std::string warpRefusal(const Bytes& model) {
  Bytes m = model;
  std::string why;
  EXPECT_EQ(le::rewriteWarpBlockToCustomOp(m, why), 0u);
  EXPECT_EQ(m, model);
  return why;
}

}  // namespace

TEST(GraphRewrites, WarpBlockToWarpDirector) {
  const Bytes original = director();
  le::WarpBlock block;
  std::string reason;
  ASSERT_TRUE(le::findWarpBlock(original, &block, reason)) << reason;
  std::string tip;
  ASSERT_EQ(le::findSourceConeBoundary(original, tip), 1);
  EXPECT_EQ(block.boundary, tip);
  EXPECT_EQ(tip.rfind("/warp/concat", 0), 0u) << tip;

  // Pad, Conv, Concat; GridSample, four Slices, three Mul, two Sub, one Add.
  Bytes m = original;
  ASSERT_EQ(le::rewriteWarpBlockToCustomOp(m, reason), 14u) << reason;
  ASSERT_EQ(countOp(m, "WarpDirector"), 1);
  EXPECT_EQ(vantorixImports(m), std::vector<uint64_t>{1});
  std::string boundary;
  EXPECT_EQ(le::findSourceConeBoundary(m, boundary), 0);  // nothing left to hoist
  EXPECT_LT(compare(original, m, directorFeeds()), 1e-4f);
  EXPECT_GT(le::test::maxAbsDiff(run(m, directorFeeds(0.f)), run(m, directorFeeds())), 0.1f);  // the warp moves pixels
  EXPECT_LT(compare(original, m, directorFeeds(0.2f)), 1e-4f);

  // P_rgb read outside the cone does not stop the warp node; it only stops the split.
  Bytes leak = director(DirectorVariant::PrgbOutsideCone);
  const Bytes leakBefore = leak;
  EXPECT_EQ(le::rewriteWarpBlockToCustomOp(leak, reason), 14u) << reason;
  EXPECT_LT(compare(leakBefore, leak, directorFeeds()), 1e-4f);

  // Every refusal, the bytes untouched (those of the cone itself are the split's).
  EXPECT_EQ(warpRefusal({}), "no graph");
  EXPECT_FALSE(le::findWarpBlock(original, nullptr, reason));
  EXPECT_EQ(reason, "no out param");
  EXPECT_EQ(warpRefusal(warpGraph(WarpFlaw::TwoConcats)), "not one Concat consuming P_rgb");
  EXPECT_EQ(warpRefusal(warpGraph(WarpFlaw::TwoSamplers)), "two GridSamples on the cone's tip");
  EXPECT_EQ(warpRefusal(warpGraph(WarpFlaw::NoSampler)), "no GridSample consuming 'tip'");
  EXPECT_EQ(warpRefusal(warpGraph(WarpFlaw::GridIsInput)), "the grid has no producer");
  EXPECT_EQ(warpRefusal(warpGraph(WarpFlaw::NoSampleOutput)), "the fused GridSample has no output");
  EXPECT_EQ(warpRefusal(warpGraph(WarpFlaw::TwoExits)), "the recombination has 2 exits, not 1");
  EXPECT_EQ(warpRefusal(warpGraph(WarpFlaw::Zeros)), "the fused GridSample is not bilinear/border/align_corners=0");
  EXPECT_EQ(warpRefusal(warpGraph(WarpFlaw::SampleEscapes)), "cone value 's' escapes to '/leak/sample'");

  // A block found on other bytes: the GridSample is not where it says.
  Bytes shifted = warpGraph(WarpFlaw::ShiftedFirst);
  ASSERT_TRUE(le::findWarpBlock(warpGraph(WarpFlaw::None), &block, reason)) << reason;
  const Bytes shiftedBefore = shifted;
  EXPECT_EQ(le::rewriteWarpBlockAt(shifted, block, reason), 0u);
  EXPECT_EQ(reason, "the GridSample moved between passes");
  EXPECT_EQ(shifted, shiftedBefore);
  // The small block itself rewrites: Mul, Concat, GridSample, two Slices, Mul, Sub.
  Bytes small = warpGraph(WarpFlaw::None);
  EXPECT_EQ(le::rewriteWarpBlockToCustomOp(small, reason), 7u) << reason;
}

TEST(GraphRewrites, SourceConeSplit) {
  const Bytes original = director();
  std::string boundary;
  ASSERT_EQ(le::findSourceConeBoundary(original, boundary), 1);
  EXPECT_EQ(boundary.rfind("/warp/concat", 0), 0u) << boundary;
  // Run as the renderer runs it: the prep session on P_rgb, the per-frame session on its output
  // and the other feeds. Neither half carries an initializer no node reads.
  Bytes prep, perFrame;
  std::string reason;
  const int64_t dims[4] = {1, 12, kCrop, kCrop};
  ASSERT_TRUE(le::buildSourceConePrep(original, boundary, prep, reason)) << reason;
  ASSERT_TRUE(le::buildSourceConePerFrame(original, boundary, dims, 4, perFrame, reason)) << reason;
  EXPECT_EQ(unreadInitializers(prep), std::vector<std::string>());
  EXPECT_EQ(unreadInitializers(perFrame), std::vector<std::string>());
  std::vector<Feed> feeds = directorFeeds();
  const std::vector<float> whole = run(original, feeds), tip = run(prep, {feeds[1]}, boundary);
  feeds.erase(feeds.begin() + 1);
  feeds.push_back({boundary, {1, 12, kCrop, kCrop}, tip});
  EXPECT_LT(le::test::maxAbsDiff(whole, run(perFrame, feeds)), 1e-6f);

  // Refusals.
  EXPECT_EQ(le::findSourceConeBoundary(director(DirectorVariant::PrgbOutsideCone), boundary), 1);
  EXPECT_FALSE(le::buildSourceConePrep(director(DirectorVariant::PrgbOutsideCone), boundary, prep, reason));
  EXPECT_EQ(reason, "P_rgb is also read outside the cone by '/leak/prgb_probe'");
  EXPECT_FALSE(le::buildSourceConePrep({}, boundary, prep, reason));
  EXPECT_EQ(reason, "no graph");
  EXPECT_FALSE(le::buildSourceConePrep(original, "P_rgb", prep, reason));
  EXPECT_EQ(reason.rfind("P_rgb is also read outside the cone by '/warp/pad", 0), 0u) << reason;
  {
    // A "boundary" that is an initializer: no node computes it.
    OnnxBuilder b;
    b.input("P_rgb", {1, 3, 4, 4});
    b.node("Relu", {b.init("w", {1, 3, 4, 4}, std::vector<float>(48, 0.5f))}, {"y"});
    b.output("y", {1, 3, 4, 4});
    EXPECT_FALSE(le::buildSourceConePrep(b.build(), "w", prep, reason));
    EXPECT_EQ(reason, "empty cone");
  }
  EXPECT_EQ(le::findSourceConeBoundary(warpGraph(WarpFlaw::TwoConcats), boundary), 2);
  EXPECT_EQ(boundary, "");
  EXPECT_EQ(le::findSourceConeBoundary(warpGraph(WarpFlaw::ConeReadsInput), boundary), 1);
  EXPECT_FALSE(le::buildSourceConePrep(warpGraph(WarpFlaw::ConeReadsInput), boundary, prep, reason));
  EXPECT_EQ(reason, "cone reads graph input 'side'");
  EXPECT_FALSE(le::buildSourceConePrep(warpGraph(WarpFlaw::ConeGhost), "tip", prep, reason));
  EXPECT_EQ(reason, "cone leaf 'ghost' has no producer");
  EXPECT_FALSE(le::buildSourceConePerFrame(warpGraph(WarpFlaw::ConeEscapes), "tip", dims, 4, prep, reason));
  EXPECT_EQ(reason.rfind("cone value 'Mul_", 0), 0u) << reason;
  {
    OnnxBuilder b;
    b.input("x", {1, 3, 4, 4});
    b.node("Concat", {"x", "x"}, {"tip"}, {Attr::i("axis", 1)});
    b.output("tip", {1, 6, 4, 4});
    EXPECT_FALSE(le::buildSourceConePrep(b.build(), "tip", prep, reason));
    EXPECT_EQ(reason, "no P_rgb input");
  }
  EXPECT_EQ(nodesOf(prep).size(), 3u);  // refusals never wrote it
}
