#include "tools/forge/onnx_builder.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <stdexcept>

#include "le/render/onnx_bytes.h"

namespace le::forge {

namespace of = le::onnxf;

namespace {

template <typename T>
std::vector<uint8_t> bytesOf(const std::vector<T>& v) {
  std::vector<uint8_t> out(v.size() * sizeof(T));
  if (!out.empty()) std::memcpy(out.data(), v.data(), out.size());
  return out;
}

int64_t countOf(const std::vector<int64_t>& dims) {
  int64_t n = 1;
  for (int64_t d : dims) n *= d;
  return n;
}

Tensor makeTensor(Elem type, std::vector<int64_t> dims, std::vector<uint8_t> raw, size_t count,
                  std::string name) {
  if (int64_t(count) != countOf(dims))
    throw std::invalid_argument("onnx builder: tensor '" + name + "' has " + std::to_string(count) +
                                " values for dims holding " + std::to_string(countOf(dims)));
  Tensor t;
  t.name = std::move(name);
  t.type = type;
  t.dims = std::move(dims);
  t.raw = std::move(raw);
  return t;
}

std::vector<uint8_t> encodeValueInfo(const std::string& name, const Shape& shape, Elem type) {
  std::vector<uint8_t> shp;
  for (const Dim& d : shape) {
    std::vector<uint8_t> dim;
    if (!d.param.empty()) gsPutBytes(dim, of::kDimParam, d.param);
    else if (d.value >= 0) gsPutVarintField(dim, of::kDimValue, uint64_t(d.value));
    gsPutBytes(shp, of::kShapeDim, dim);
  }
  return le::gsValueInfo(name, uint64_t(type), shp);
}

}  // namespace

// ---- Tensor --------------------------------------------------------------------------------

Tensor Tensor::floats(std::vector<int64_t> dims, const std::vector<float>& values, std::string name) {
  return makeTensor(Elem::Float, std::move(dims), bytesOf(values), values.size(), std::move(name));
}
Tensor Tensor::int64s(std::vector<int64_t> dims, const std::vector<int64_t>& values, std::string name) {
  return makeTensor(Elem::Int64, std::move(dims), bytesOf(values), values.size(), std::move(name));
}
Tensor Tensor::int32s(std::vector<int64_t> dims, const std::vector<int32_t>& values, std::string name) {
  return makeTensor(Elem::Int32, std::move(dims), bytesOf(values), values.size(), std::move(name));
}
Tensor Tensor::uint8s(std::vector<int64_t> dims, const std::vector<uint8_t>& values, std::string name) {
  return makeTensor(Elem::Uint8, std::move(dims), values, values.size(), std::move(name));
}
Tensor Tensor::scalar(float v, std::string name) { return floats({}, {v}, std::move(name)); }

int64_t Tensor::elementCount() const { return countOf(dims); }

std::vector<uint8_t> Tensor::encode() const {
  std::vector<uint8_t> t;
  for (int64_t d : dims) gsPutVarintField(t, of::kTensorDims, uint64_t(d));
  gsPutVarintField(t, of::kTensorDataType, uint64_t(type));
  if (!name.empty()) gsPutBytes(t, of::kTensorName, name);
  gsPutBytes(t, of::kTensorRawData, raw);
  return t;
}

// ---- Attr ----------------------------------------------------------------------------------

namespace {
std::vector<uint8_t> attrHead(const std::string& name) {
  std::vector<uint8_t> a;
  gsPutBytes(a, of::kAttrName, name);
  return a;
}
}  // namespace

Attr Attr::i(const std::string& name, int64_t v) {
  Attr a;
  a.bytes_ = attrHead(name);
  gsPutVarintField(a.bytes_, of::kAttrI, uint64_t(v));
  gsPutVarintField(a.bytes_, of::kAttrType, of::kAttrTypeInt);
  return a;
}

Attr Attr::f(const std::string& name, float v) {
  Attr a;
  a.bytes_ = attrHead(name);
  gsPutVarint(a.bytes_, (uint64_t(of::kAttrF) << 3) | 5);
  uint8_t b[4];
  std::memcpy(b, &v, 4);
  a.bytes_.insert(a.bytes_.end(), b, b + 4);
  gsPutVarintField(a.bytes_, of::kAttrType, of::kAttrTypeFloat);
  return a;
}

Attr Attr::s(const std::string& name, const std::string& v) {
  Attr a;
  a.bytes_ = attrHead(name);
  gsPutBytes(a.bytes_, of::kAttrS, v);
  gsPutVarintField(a.bytes_, of::kAttrType, of::kAttrTypeString);
  return a;
}

Attr Attr::ints(const std::string& name, const std::vector<int64_t>& v) {
  Attr a;
  a.bytes_ = attrHead(name);
  for (int64_t x : v) gsPutVarintField(a.bytes_, of::kAttrInts, uint64_t(x));
  gsPutVarintField(a.bytes_, of::kAttrType, of::kAttrTypeInts);
  return a;
}

Attr Attr::floats(const std::string& name, const std::vector<float>& v) {
  Attr a;
  a.bytes_ = attrHead(name);
  gsPutBytes(a.bytes_, of::kAttrFloats, bytesOf(v));  // packed fixed32
  gsPutVarintField(a.bytes_, of::kAttrType, of::kAttrTypeFloats);
  return a;
}

Attr Attr::tensor(const std::string& name, const Tensor& t) {
  Attr a;
  a.bytes_ = attrHead(name);
  gsPutBytes(a.bytes_, of::kAttrT, t.encode());
  gsPutVarintField(a.bytes_, of::kAttrType, of::kAttrTypeTensor);
  return a;
}

// ---- OnnxBuilder ---------------------------------------------------------------------------

OnnxBuilder::OnnxBuilder(std::string graphName, int64_t opset) : graphName_(std::move(graphName)) {
  opsets_.emplace_back("", opset);
}

OnnxBuilder& OnnxBuilder::opset(const std::string& domain, int64_t version) {
  for (auto& o : opsets_) {
    if (o.first == domain) {
      o.second = version;
      return *this;
    }
  }
  opsets_.emplace_back(domain, version);
  return *this;
}

OnnxBuilder& OnnxBuilder::irVersion(int64_t v) {
  irVersion_ = v;
  return *this;
}

OnnxBuilder& OnnxBuilder::input(const std::string& name, const Shape& shape, Elem type) {
  gsPutBytes(inputs_, of::kGraphInput, encodeValueInfo(name, shape, type));
  return *this;
}

OnnxBuilder& OnnxBuilder::output(const std::string& name, const Shape& shape, Elem type) {
  gsPutBytes(outputs_, of::kGraphOutput, encodeValueInfo(name, shape, type));
  return *this;
}

OnnxBuilder& OnnxBuilder::valueInfo(const std::string& name, const Shape& shape, Elem type) {
  gsPutBytes(valueInfos_, of::kGraphValueInfo, forge::encodeValueInfo(name, shape, type));
  return *this;
}

std::string OnnxBuilder::fresh(const std::string& prefix) {
  return prefix + "_" + std::to_string(freshCount_++);
}

std::string OnnxBuilder::initializer(Tensor t) {
  if (t.name.empty()) t.name = fresh("init");
  gsPutBytes(inits_, of::kGraphInitializer, t.encode());
  return t.name;
}

std::string OnnxBuilder::init(const std::string& name, std::vector<int64_t> dims,
                              const std::vector<float>& values) {
  return initializer(Tensor::floats(std::move(dims), values, name));
}

std::string OnnxBuilder::initI64(const std::string& name, std::vector<int64_t> dims,
                                 const std::vector<int64_t>& values) {
  return initializer(Tensor::int64s(std::move(dims), values, name));
}

std::string OnnxBuilder::constant(Tensor t) {
  std::string out = t.name.empty() ? fresh("const") : t.name;
  t.name.clear();
  return node("Constant", {}, {out}, {Attr::tensor("value", t)});
}

std::string OnnxBuilder::node(const std::string& opType, const std::vector<std::string>& inputs,
                              const std::vector<std::string>& outputs, const std::vector<Attr>& attrs,
                              const std::string& name, const std::string& domain) {
  if (outputs.empty()) throw std::invalid_argument("onnx builder: node '" + opType + "' without outputs");
  std::vector<uint8_t> n;
  for (const std::string& in : inputs) gsPutBytes(n, of::kNodeInput, in);
  for (const std::string& out : outputs) gsPutBytes(n, of::kNodeOutput, out);
  gsPutBytes(n, of::kNodeName, name.empty() ? "/" + opType + "_" + std::to_string(nodeCount_) : name);
  gsPutBytes(n, of::kNodeOpType, opType);
  for (const Attr& a : attrs) gsPutBytes(n, of::kNodeAttribute, a.bytes());
  if (!domain.empty()) gsPutBytes(n, of::kNodeDomain, domain);
  gsPutBytes(nodes_, of::kGraphNode, n);
  ++nodeCount_;
  return outputs.front();
}

std::string OnnxBuilder::op(const std::string& opType, const std::vector<std::string>& inputs,
                            const std::vector<Attr>& attrs, const std::string& domain,
                            const std::string& output) {
  return node(opType, inputs, {output.empty() ? fresh(opType) : output}, attrs, "", domain);
}

std::vector<uint8_t> OnnxBuilder::build() const {
  std::vector<uint8_t> graph;
  graph.reserve(nodes_.size() + inits_.size() + inputs_.size() + outputs_.size() + valueInfos_.size() + 64);
  gsPutRaw(graph, nodes_);
  gsPutBytes(graph, of::kGraphName, graphName_);
  gsPutRaw(graph, inits_);
  gsPutRaw(graph, inputs_);
  gsPutRaw(graph, outputs_);
  gsPutRaw(graph, valueInfos_);

  int64_t ir = irVersion_;
  if (ir == 0) {
    const int64_t opset = opsets_.front().second;
    ir = opset >= 21 ? 10 : opset >= 19 ? 9 : opset >= 15 ? 8 : 7;
  }
  std::vector<uint8_t> model;
  model.reserve(graph.size() + 128);
  gsPutVarintField(model, of::kModelIrVersion, uint64_t(ir));
  gsPutBytes(model, 2, std::string("le_forge"));  // producer_name
  gsPutBytes(model, of::kModelGraph, graph);
  for (const auto& o : opsets_) {
    std::vector<uint8_t> os;
    if (!o.first.empty()) gsPutBytes(os, of::kOpsetDomain, o.first);
    gsPutVarintField(os, of::kOpsetVersion, uint64_t(o.second));
    gsPutBytes(model, of::kModelOpsetImport, os);
  }
  return model;
}

std::string addStandardWarpBlock(OnnxBuilder& b, const std::string& src, const std::string& grid,
                                 int64_t H, int64_t W, const std::string& prefix) {
  auto nm = [&](const char* what) { return prefix + "/" + what; };
  auto node = [&](const char* what, const std::string& op, const std::vector<std::string>& in,
                  const std::vector<Attr>& attrs = {}) {
    return b.node(op, in, {b.fresh(prefix + "/" + what)}, attrs, b.fresh(nm(what)));
  };
  // Source cone: clamp-to-edge neighbourhood, then per channel fxx, fyy and fxxyy.
  const std::string pads = b.initI64(b.fresh(prefix + "_pads"), {8}, {0, 0, 1, 1, 0, 0, 1, 1});
  const std::string padded = node("pad", "Pad", {src, pads}, {Attr::s("mode", "edge")});
  const float kxx[9] = {0, 0, 0, 1, -2, 1, 0, 0, 0};
  const float kyy[9] = {0, 1, 0, 0, -2, 0, 0, 1, 0};
  const float kxxyy[9] = {1, -2, 1, -2, 4, -2, 1, -2, 1};
  std::vector<float> w;
  for (int c = 0; c < 3; ++c)
    for (const float* k : {kxx, kyy, kxxyy}) w.insert(w.end(), k, k + 9);
  const std::string wn = b.init(b.fresh(prefix + "_d2_w"), {9, 1, 3, 3}, w);
  const std::string d2 = node("d2", "Conv", {padded, wn},
                              {Attr::i("group", 3), Attr::ints("kernel_shape", {3, 3})});
  const std::string cat = node("concat", "Concat", {src, d2}, {Attr::i("axis", 1)});
  // One sample of all 12 channels: F (0..2), then per channel c: fxx, fyy, fxxyy at 3 + 3c.
  const std::string gs = node("gridsample", "GridSample", {cat, grid},
                              {Attr::i("align_corners", 0), Attr::s("mode", "bilinear"),
                               Attr::s("padding_mode", "border")});
  auto i64 = [&](std::vector<int64_t> v) {
    const int64_t n = int64_t(v.size());
    return b.initI64(b.fresh(prefix + "_i"), {n}, v);
  };
  const std::string axis1 = i64({1}), step3 = i64({3});
  auto planes = [&](const char* what, int64_t start, int64_t end, bool strided) {
    std::vector<std::string> in = {gs, i64({start}), i64({end}), axis1};
    if (strided) in.push_back(step3);
    return node(what, "Slice", in);
  };
  const std::string F = planes("F", 0, 3, false);
  const std::string Fxx = planes("Fxx", 3, 12, true);
  const std::string Fyy = planes("Fyy", 4, 12, true);
  const std::string Fxxyy = planes("Fxxyy", 5, 12, true);
  // Correction factors from the unclamped sample position.
  auto scalar = [&](float v) { return b.init(b.fresh(prefix + "_k"), {}, {v}); };
  const std::string one = scalar(1.f), half = scalar(0.5f), axis3 = i64({3});
  auto factor = [&](const char* what, int64_t comp, int64_t size) {
    const std::string g = node(what, "Slice", {grid, i64({comp}), i64({comp + 1}), axis3});
    const std::string gt = node(what, "Transpose", {g}, {Attr::ints("perm", {0, 3, 1, 2})});
    const std::string sz = scalar(float(size));
    const std::string v = node(what, "Mul", {node(what, "Sub", {node(what, "Mul", {node(what, "Add", {gt, one}), sz}), one}), half});
    const std::string t = node(what, "Sub", {v, node(what, "Floor", {v})});
    return node(what, "Mul", {node(what, "Mul", {node(what, "Sub", {one, t}), t}), half});
  };
  const std::string ax = factor("ax", 0, W), ay = factor("ay", 1, H);
  const std::string axy = node("axy", "Mul", {ax, ay});
  std::string out = node("rx", "Sub", {F, node("rx", "Mul", {ax, Fxx})});
  out = node("ry", "Sub", {out, node("ry", "Mul", {ay, Fyy})});
  return node("rxy", "Add", {out, node("rxy", "Mul", {axy, Fxxyy})});
}

namespace {

// A model over an image [N, C, H, W] and a grid [N, H, W, 2] giving `out` of outShape: one node
// of the engine's custom operator `op` (named `nodeName`) when op is set, else what `standard` adds.
std::vector<uint8_t> samplerModel(const std::string& name, const std::string& image, const std::string& out,
                                  const Shape& outShape, const char* op, const char* nodeName, int64_t N,
                                  int64_t C, int64_t H, int64_t W,
                                  const std::function<void(OnnxBuilder&)>& standard) {
  OnnxBuilder b(name, 16);
  b.input(image, {N, C, H, W}).input("grid", {N, H, W, 2});
  if (op) {
    b.opset("com.vantorix", 1);
    b.node(op, {image, "grid"}, {out}, {}, nodeName, "com.vantorix");
  } else {
    standard(b);
  }
  b.output(out, outShape);
  return b.build();
}

}  // namespace

std::vector<uint8_t> gridSampleModel(bool fast, int64_t N, int64_t C, int64_t H, int64_t W) {
  return samplerModel(fast ? "gridsample_fast" : "gridsample", "X", "Y", {N, C, H, W},
                      fast ? "GridSampleFast" : nullptr, "gsf", N, C, H, W, [](OnnxBuilder& b) {
                        b.node("GridSample", {"X", "grid"}, {"Y"},
                               {Attr::s("mode", "bilinear"), Attr::s("padding_mode", "border"),
                                Attr::i("align_corners", 0)});
                      });
}

std::vector<uint8_t> warpModel(bool fused, int64_t N, int64_t C, int64_t H, int64_t W) {
  return samplerModel(fused ? "warp_fused" : "warp_standard", "P_rgb", "warped", {N, 3, H, W},
                      fused ? "WarpDirector" : nullptr, "le_warp_director", N, C, H, W, [&](OnnxBuilder& b) {
                        b.op("Identity", {addStandardWarpBlock(b, "P_rgb", "grid", H, W)}, {}, "", "warped");
                      });
}

void OnnxBuilder::save(const std::string& path) const { writeModelBytes(path, build()); }

void writeModelBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) throw std::runtime_error("cannot create " + path + ": " + std::strerror(errno));
  const size_t n = bytes.empty() ? 0 : std::fwrite(bytes.data(), 1, bytes.size(), f);
  const bool ok = n == bytes.size() && std::fclose(f) == 0;
  if (!ok) {
    if (n != bytes.size()) std::fclose(f);
    throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
  }
}

std::vector<uint8_t> readModelBytes(const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) throw std::runtime_error("cannot open " + path + ": " + std::strerror(errno));
  std::vector<uint8_t> out;
  uint8_t buf[65536];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.insert(out.end(), buf, buf + n);
  const bool err = std::ferror(f) != 0;
  std::fclose(f);
  if (err) throw std::runtime_error("cannot read " + path);
  return out;
}

}  // namespace le::forge
