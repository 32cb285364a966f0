// The wire-format toolkit: malformed bytes, varints, tensor layouts and what a graph rebuild
// keeps (the readers and the edits are exercised on whole graphs by the rewrite tests).
#include "le/render/onnx_bytes.h"

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "tools/forge/onnx_builder.h"
#include "tests/test_util.h"

using le::GsField;
using le::GsReader;
using le::forge::OnnxBuilder;
using le::forge::Tensor;
namespace of = le::onnxf;

namespace {

std::string failureOf(const std::vector<uint8_t>& bytes) {
  return le::testing::messageOf<std::runtime_error>([&] {
    GsReader r(bytes);
    GsField f;
    while (r.next(f)) {
    }
  });
}

// A two-node graph: y = Relu(x * s) with the scale an initializer and a Constant node unused.
std::vector<uint8_t> smallModel() {
  OnnxBuilder b("small");
  b.input("P_rgb", {1, 3, 4, 4});
  b.input("kp", {"N", 63});
  std::string s = b.init("scale", {1}, {2.f});
  b.constant(Tensor::floats({2}, {0.5f, 1.5f}, "c"));
  std::string m = b.op("Mul", {"P_rgb", s});
  b.node("Relu", {m}, {"y"}, {}, "/relu");
  b.output("y", {1, 3, 4, 4});
  b.output("c", {2});
  b.valueInfo(m, {1, 3, 4, 4});
  return b.build();
}

}  // namespace

TEST(OnnxBytes, MalformedFieldsFailWithExactTexts) {
  EXPECT_EQ(failureOf(std::vector<uint8_t>(11, 0xFF)), "onnx: bad varint");
  EXPECT_EQ(failureOf({0x08, 0x80}), "onnx: bad varint");  // value varint runs off the end
  EXPECT_EQ(failureOf({0x80}), "onnx: bad varint");        // key runs off the end
  EXPECT_EQ(failureOf({0x0A, 0x05, 'a', 'b'}), "onnx: truncated");
  EXPECT_EQ(failureOf({0x0A, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01}), "onnx: truncated");
  EXPECT_EQ(failureOf({0x0D, 1, 2, 3}), "onnx: truncated");        // fixed32 short
  EXPECT_EQ(failureOf({0x09, 1, 2, 3, 4, 5, 6, 7}), "onnx: truncated");  // fixed64 short
  for (uint8_t wt : {3, 4, 6, 7}) EXPECT_EQ(failureOf({uint8_t(0x08 | wt), 0}), "onnx: bad wire type");
  // Ten bytes is the longest legal varint; the eleventh continuation fails.
  std::vector<uint8_t> ten = {0x08, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01};
  EXPECT_EQ(failureOf(ten), "");
  // The nested readers fail the same way rather than reading past the buffer.
  std::vector<uint8_t> graphField = {0x3A, 0x02, 0x5A, 0x05};  // graph { input: 5 bytes promised }
  int64_t a, b;
  int rank;
  EXPECT_THROW(le::ldInputDims(le::gsGraphOf(graphField), "x", a, b, rank), std::runtime_error);
}

TEST(OnnxBytes, VarintsRoundTripAndRawSpansCoverFields) {
  std::vector<uint8_t> out;
  const uint64_t values[] = {0, 1, 127, 128, 300, (1ull << 32) - 1, 1ull << 35, ~0ull, uint64_t(-1ll)};
  for (uint64_t v : values) le::gsPutVarintField(out, 3, v);
  le::gsPutBytes(out, 9, std::string("abc"));
  std::vector<uint8_t> fixed = {0x15, 0x00, 0x00, 0x80, 0x3F};  // field 2, fixed32 1.0f
  out.insert(out.end(), fixed.begin(), fixed.end());
  EXPECT_EQ(out.size() - fixed.size() - 5, 1 + 1 + 1 + 2 + 2 + 5 + 6 + 10 + 10 + 9u);

  // Each field read back as (number, wire type, value or payload), its raw span copied.
  using Read = std::tuple<uint32_t, int, uint64_t, std::string>;
  std::vector<Read> want, got;
  for (uint64_t v : values) want.emplace_back(3, 0, v, "");
  want.emplace_back(9, 2, 0, "abc");
  want.emplace_back(2, 5, 0x3F800000u, "");
  GsReader r(out);
  std::vector<uint8_t> copy;
  for (GsField f; r.next(f);) {
    got.emplace_back(f.number, f.wireType, f.value, std::string(f.payload.begin(), f.payload.end()));
    le::gsPutRaw(copy, f.raw);
  }
  EXPECT_EQ(got, want);
  EXPECT_EQ(copy, out);

  le::PbReader pr(out);
  le::PbField pf;
  size_t n = 0;
  while (pr.next(pf)) ++n;
  EXPECT_EQ(n, 11u);
  // A varint field with a string's number is skipped, not read as a string.
  EXPECT_EQ(le::gsFirstStr(std::vector<uint8_t>{0x08, 0x05, 0x0A, 0x01, 'z'}, 1), "z");
  EXPECT_TRUE(le::gsGraphOf(std::vector<uint8_t>{0x08, 0x07}).empty());
}

// Tensor payloads in every layout an exporter writes: raw_data (which wins over float_data),
// float_data packed and unpacked, dims packed; non-FLOAT and empty tensors give no floats.
TEST(OnnxBytes, TensorDecodersAndValueInfo) {
  std::vector<float> v;
  EXPECT_FALSE(le::hcTensorFloats(Tensor::int64s({2}, {1, 2}).encode(), v));
  EXPECT_TRUE(v.empty());
  const float nine = 9.f;
  auto putFixedFloat = [&](std::vector<uint8_t>& t) {
    le::gsPutVarint(t, (uint64_t(of::kTensorFloatData) << 3) | 5);
    t.insert(t.end(), reinterpret_cast<const uint8_t*>(&nine), reinterpret_cast<const uint8_t*>(&nine) + 4);
  };
  std::vector<uint8_t> t = Tensor::floats({1, 2}, {3.f, 4.f}).encode();
  putFixedFloat(t);
  ASSERT_TRUE(le::hcTensorFloats(t, v));
  EXPECT_EQ(v, (std::vector<float>{3.f, 4.f}));

  std::vector<uint8_t> p, packedDims;
  le::gsPutVarint(packedDims, 2);
  le::gsPutVarint(packedDims, 300);
  le::gsPutBytes(p, of::kTensorDims, packedDims);
  le::gsPutVarintField(p, of::kTensorDataType, 1);
  const float two[2] = {1.25f, -2.5f};
  le::gsPutBytes(p, of::kTensorFloatData, two, sizeof two);
  putFixedFloat(p);
  v.clear();
  ASSERT_TRUE(le::hcTensorFloats(p, v));
  EXPECT_EQ(v, (std::vector<float>{1.25f, -2.5f, 9.f}));
  std::vector<int64_t> dims;
  le::hcTensorDims(p, dims);
  EXPECT_EQ(dims, (std::vector<int64_t>{2, 300}));
  std::vector<uint8_t> empty;
  le::gsPutVarintField(empty, of::kTensorDataType, 1);
  v.clear();
  EXPECT_FALSE(le::hcTensorFloats(empty, v));

  // Unknown dimensions are written as named parameters, which read back as 0.
  std::vector<uint8_t> g;
  const int64_t boundary[4] = {1, -1, 512, 512};
  le::gsPutTensorValueInfo(g, of::kGraphInput, "bnd", boundary, 4);
  le::gsPutTensorValueInfo(g, of::kGraphInput, "sym", nullptr, 2);
  int64_t first, last;
  int rank;
  le::ldInputDims(g, "bnd", first, last, rank);
  EXPECT_EQ(std::vector<int64_t>({first, last, rank}), std::vector<int64_t>({1, 512, 4}));
  le::ldInputDims(g, "sym", first, last, rank);
  EXPECT_EQ(std::vector<int64_t>({first, last, rank}), std::vector<int64_t>({0, 0, 2}));
  const std::string text(g.begin(), g.end());
  EXPECT_NE(text.find("le_hoist_d1"), std::string::npos);
  EXPECT_NE(text.find("le_hoist_d0"), std::string::npos);
}

// The edits themselves run in the source-cone split, whose graphs are checked in ONNX Runtime
// by the rewrite tests; here, what a rebuild keeps.
TEST(OnnxBytes, RebuildKeepsBytesAndFieldOrder) {
  std::vector<uint8_t> model = smallModel();
  // A field after the graph that the toolkit does not read (doc_string) keeps its bytes and place.
  le::gsPutBytes(model, 6, std::string("forged for the toolkit test"));
  std::vector<uint8_t> out;
  le::gsRebuild(model, le::GsGraphEdit(), out);
  EXPECT_EQ(out, model);
  // In place, through a view of the same vector.
  std::vector<uint8_t> same = model;
  le::gsRebuild(same, le::GsGraphEdit(), same);
  EXPECT_EQ(same, model);

  le::GsGraphEdit e;
  e.dropOutputs = true;
  le::gsRebuild(model, e, out);
  GsReader r(le::gsGraphOf(out));
  GsField f;
  size_t outputs = 0;
  while (r.next(f)) outputs += f.number == of::kGraphOutput;
  EXPECT_EQ(outputs, 0u);
  GsReader mr(out);
  std::vector<uint32_t> order;
  while (mr.next(f)) order.push_back(f.number);
  EXPECT_EQ(order, (std::vector<uint32_t>{1, 2, 7, 8, 6}));

  // A malformed graph throws.
  std::vector<uint8_t> bad = {0x3A, 0x03, 0x0A, 0x05, 0x00};
  EXPECT_THROW(le::gsRebuild(bad, le::GsGraphEdit(), out), std::runtime_error);
}
