// The fp16 convolution backend's contract on a build without it: the graph check with its
// shape lookup (names that drift) and every diagnostic, and the create refusal.
#include "le/render/le_conv.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/bundle_fixture.h"
#include "tools/forge/onnx_builder.h"

namespace {

using le::forge::Tensor;
using Inits = std::vector<std::pair<std::string, std::vector<int64_t>>>;

// The fused m4b graph's initializers as the check sees them (dimensions only, no values).
Inits m4b() {
  return {{"s.e0.conv.weight", {96, 96, 3, 3}}, {"s.e0.conv.bias", {96}},  {"onnx::Conv_313", {96, 85, 1, 1}},
          {"onnx::Conv_314", {96}},             {"onnx::MatMul_338", {64, 196608}}, {"onnx::Sub_316", {1, 1, 32, 32, 2}}};
}

std::vector<uint8_t> model(const Inits& inits) {
  le::forge::OnnxBuilder b("m4b");
  for (const auto& [name, dims] : inits) {
    Tensor t;
    t.name = name;
    t.dims = dims;
    b.initializer(t);
  }
  b.input("x", {1});
  b.node("Identity", {"x"}, {"y"});
  b.output("y", {1});
  return b.build();
}

Inits with(Inits in, const std::string& name, const std::string& renamed, std::vector<int64_t> dims = {}) {
  for (auto& i : in)
    if (i.first == name) {
      i.first = renamed;
      if (!dims.empty()) i.second = dims;
    }
  return in;
}

TEST(ConvBackend, GraphCheckItsDiagnosticsAndTheCreateRefusal) {
  le::testing::ScratchDir dir("conv_backend");
  auto check = [&](const Inits& inits) {
    le::forge::writeModelBytes(dir / "m.onnx", model(inits));
    bool ok = false;
    const std::string err = le::testing::stderrOf([&] { ok = le::ConvBackend::graphSupported(dir / "m.onnx"); });
    return ok ? std::string("supported") : err;
  };
  const std::string tag = "[le] le_conv graph check: ";
  EXPECT_EQ(check(m4b()), "supported");
  // Exporters renumber their values: every tensor may drift to another name of the same shape,
  // and the pre bias follows the pre weight's counter, across a change of digit count.
  Inits drifted = with(with(m4b(), "onnx::Conv_313", "onnx::Conv_99"), "onnx::Conv_314", "onnx::Conv_100");
  drifted = with(with(drifted, "onnx::MatMul_338", "onnx::MatMul_7"), "onnx::Sub_316", "grid");
  EXPECT_EQ(check(drifted), "supported");

  EXPECT_EQ(check(with(m4b(), "s.e0.conv.bias", "e0b")),
            tag + "s.e0.conv.weight (96,96,3,3) or s.e0.conv.bias (96) absent\n");
  EXPECT_EQ(check(with(m4b(), "onnx::Conv_313", "x", {96, 84, 1, 1})),
            tag + "pre weight (96,85,1,1) absent or ambiguous\n");
  Inits twoPre = with(m4b(), "onnx::Conv_313", "p1");
  twoPre.push_back({"p2", {96, 85, 1, 1}});
  EXPECT_EQ(check(twoPre), tag + "pre weight (96,85,1,1) absent or ambiguous\n");
  EXPECT_EQ(check(with(m4b(), "onnx::Conv_313", "onnx::Conv_pre")), tag + "pre weight name carries no SSA counter\n");
  EXPECT_EQ(check(with(m4b(), "onnx::Conv_314", "onnx::Conv_315")),
            tag + "pre bias onnx::Conv_314 absent or not (96)\n");
  EXPECT_EQ(check(with(m4b(), "onnx::Conv_314", "onnx::Conv_314", {95})),
            tag + "pre bias onnx::Conv_314 absent or not (96)\n");
  Inits twoBases = with(m4b(), "onnx::MatMul_338", "b1");
  twoBases.push_back({"b2", {64, 196608}});
  EXPECT_EQ(check(twoBases), tag + "basis (64,196608) absent or ambiguous\n");
  EXPECT_EQ(check(with(m4b(), "onnx::Sub_316", "g", {1, 1, 32, 32})),
            tag + "grid32 (1,1,32,32,2) absent or ambiguous\n");

  // A cut file is a wire-format error, not a refusal.
  std::vector<uint8_t> cut = model(m4b());
  cut.resize(cut.size() - 20);
  le::forge::writeModelBytes(dir / "cut.onnx", cut);
  EXPECT_EQ(le::testing::thrown([&] { le::ConvBackend::graphSupported(dir / "cut.onnx"); }), "onnx: truncated");

  // This build has no backend to create (the renderer's lines about it are checked with the renderer).
  EXPECT_FALSE(le::ConvBackend::available());
  EXPECT_EQ(le::testing::thrown([] { le::ConvBackend::create("any.onnx", 1); }),
            "le_conv: built without NEON fp16 support");
}

}  // namespace
