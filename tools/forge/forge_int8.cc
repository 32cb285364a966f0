#include "tools/forge/forge_int8.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <stdexcept>
#include <string>

#include "le/render/int8conv_vnni.h"
#include "le/render/onnx_bytes.h"
#include "tools/forge/onnx_builder.h"

namespace le::forge {

namespace {

namespace f = le::onnxf;

Tensor int8Tensor(const std::string& name, std::vector<int64_t> dims, const std::vector<int8_t>& v) {
  Tensor t;
  t.name = name;
  t.type = Elem::Int8;
  t.dims = std::move(dims);
  t.raw.assign(reinterpret_cast<const uint8_t*>(v.data()), reinterpret_cast<const uint8_t*>(v.data()) + v.size());
  return t;
}

std::vector<Attr> convAttrs(const ConvSpec& s) {
  std::vector<Attr> a;
  if (!s.strides.empty()) a.push_back(Attr::ints("strides", s.strides));
  if (!s.pads.empty()) a.push_back(Attr::ints("pads", s.pads));
  if (!s.dilations.empty()) a.push_back(Attr::ints("dilations", s.dilations));
  if (s.group != 1) a.push_back(Attr::i("group", s.group));
  return a;
}

Shape shapeOf(const std::vector<int64_t>& d) { return Shape(d.begin(), d.end()); }

}  // namespace

std::vector<int64_t> ConvSpec::outputShape() const {
  const int8conv::Geometry g = int8conv::geometry(inputShape(), weightShape(), strides, pads, dilations, group);
  return {g.N, g.OC, g.OH, g.OW};
}

Int8Weights quantiseWeights(const std::vector<float>& w, int64_t oc) {
  if (oc < 1 || w.size() % size_t(oc) != 0) throw std::runtime_error("quantiseWeights: weights do not split into channels");
  const size_t per = w.size() / size_t(oc);
  Int8Weights r;
  r.q.resize(w.size());
  r.scales.resize(size_t(oc));
  for (size_t c = 0; c < size_t(oc); ++c) {
    float m = 0.f;
    for (size_t i = 0; i < per; ++i) m = std::max(m, std::fabs(w[c * per + i]));
    const float s = m > 0.f ? m / 127.f : 1.f;
    r.scales[c] = s;
    for (size_t i = 0; i < per; ++i)
      r.q[c * per + i] = static_cast<int8_t>(std::clamp(std::rint(w[c * per + i] / s), -127.f, 127.f));
  }
  return r;
}

std::vector<uint8_t> int8ConvModel(const ConvSpec& s, const Int8Weights& w, const std::vector<float>& bias) {
  OnnxBuilder b("int8conv");
  b.opset(kInt8Domain, 1);
  b.input("X", shapeOf(s.inputShape()));
  const std::string wq = b.initializer(int8Tensor("W", s.weightShape(), w.q));
  const std::string ws = b.init("W_scale", {s.oc}, w.scales);
  const std::string bi = b.init("B", {s.oc}, bias);
  b.node("Int8ConvVNNI", {"X", wq, ws, bi}, {"Y"}, convAttrs(s), "conv", kInt8Domain);
  b.output("Y", shapeOf(s.outputShape()));
  return b.build();
}

std::vector<uint8_t> floatConvModel(const ConvSpec& s, const std::vector<float>& w, const std::vector<float>& bias) {
  OnnxBuilder b("floatconv");
  b.input("X", shapeOf(s.inputShape()));
  const std::string wn = b.init("W", s.weightShape(), w);
  const std::string bn = b.init("B", {s.oc}, bias);
  b.node("Conv", {"X", wn, bn}, {"Y"}, convAttrs(s), "conv");
  b.output("Y", shapeOf(s.outputShape()));
  return b.build();
}

std::vector<uint8_t> convIntegerModel(const ConvSpec& s, const Int8Weights& w, const std::vector<float>& bias) {
  OnnxBuilder b("convinteger");
  b.input("X", shapeOf(s.inputShape()));
  const std::string xq = b.fresh("xq"), xs = b.fresh("xs"), xz = b.fresh("xz");
  b.node("DynamicQuantizeLinear", {"X"}, {xq, xs, xz}, {}, "quant");
  const std::string wq = b.initializer(int8Tensor("W", s.weightShape(), w.q));
  const std::string acc = b.op("ConvInteger", {xq, wq, xz}, convAttrs(s));
  const std::string accF = b.op("Cast", {acc}, {Attr::i("to", int64_t(Elem::Float))});
  const std::string scale = b.op("Mul", {xs, b.init("W_scale", {s.oc, 1, 1}, w.scales)});
  b.node("Add", {b.op("Mul", {accF, scale}), b.init("B", {s.oc, 1, 1}, bias)}, {"Y"}, {}, "bias");
  b.output("Y", shapeOf(s.outputShape()));
  return b.build();
}

std::vector<uint8_t> int8Director(const std::vector<uint8_t>& model, int* converted) {
  const GsSlice graph = gsGraphOf(model);
  if (graph.empty()) throw std::runtime_error("int8Director: the model has no graph");

  // Initializers by name, and which value each node produces.
  std::map<std::string, GsSlice> inits;
  std::map<std::string, GsSlice> producer;
  std::map<std::string, int> uses;
  GsField fld;
  for (GsReader r(graph); r.next(fld);) {
    if (fld.number == f::kGraphInitializer) inits[gsFirstStr(fld.payload, f::kTensorName)] = fld.payload;
    if (fld.number != f::kGraphNode) continue;
    std::vector<std::string> ins, outs;
    gsAllStr(fld.payload, f::kNodeInput, ins);
    gsAllStr(fld.payload, f::kNodeOutput, outs);
    for (const std::string& o : outs) producer[o] = fld.payload;
    for (const std::string& i : ins) ++uses[i];
  }

  // Converted weights: name -> the int8 tensor, its scales and (when the Conv has none) a bias.
  struct Swap {
    Int8Weights w;
    std::vector<int64_t> dims;
  };
  std::map<std::string, Swap> swaps;
  std::vector<uint8_t> nodes, extraInits;
  int count = 0;
  for (GsReader r(graph); r.next(fld);) {
    if (fld.number != f::kGraphNode) continue;
    const GsSlice node = fld.payload;
    std::vector<std::string> ins, outs;
    gsAllStr(node, f::kNodeInput, ins);
    gsAllStr(node, f::kNodeOutput, outs);
    bool convert = gsFirstStr(node, f::kNodeOpType) == "Conv" && gsFirstStr(node, f::kNodeDomain).empty() &&
                   ins.size() >= 2 && inits.count(ins[1]) && uses[ins[1]] == 1 &&
                   (ins.size() < 3 || ins[2].empty() || inits.count(ins[2]));
    std::vector<uint8_t> attrs;
    GsField a;
    for (GsReader ar(node); convert && ar.next(a);) {
      if (a.number != f::kNodeAttribute) continue;
      const std::string name = gsFirstStr(a.payload, f::kAttrName);
      if (name == "group") {
        GsField v;
        for (GsReader vr(a.payload); vr.next(v);)
          if (v.number == f::kAttrI && v.value != 1) convert = false;
      } else if (name == "auto_pad") {
        const std::string mode = gsFirstStr(a.payload, f::kAttrS);
        if (!mode.empty() && mode != "NOTSET") convert = false;
      } else if (name == "strides" || name == "pads" || name == "dilations") {
        gsPutRaw(attrs, a.raw);
      }
    }
    if (convert) {
      auto p = producer.find(ins[0]);
      if (p != producer.end() && gsFirstStr(p->second, f::kNodeOpType) == "Resize" &&
          hcReadAttrs(p->second).mode == "cubic")
        convert = false;
    }
    std::vector<float> wf;
    std::vector<int64_t> dims;
    if (convert) {
      const GsSlice wt = inits[ins[1]];
      hcTensorDims(wt, dims);
      convert = dims.size() == 4 && hcTensorFloats(wt, wf) && wf.size() == size_t(dims[0] * dims[1] * dims[2] * dims[3]);
    }
    if (!convert) {
      gsPutBytes(nodes, f::kGraphNode, node.p, node.n);
      continue;
    }
    ++count;
    swaps[ins[1]] = Swap{quantiseWeights(wf, dims[0]), dims};
    const std::string scaleName = ins[1] + "_int8_scale";
    std::string biasName = ins.size() >= 3 ? ins[2] : "";
    if (biasName.empty()) {
      biasName = ins[1] + "_int8_zero_bias";
      const std::vector<float> zeros(static_cast<size_t>(dims[0]), 0.f);
      gsPutBytes(extraInits, f::kGraphInitializer, Tensor::floats({dims[0]}, zeros, biasName).encode());
    }
    gsPutBytes(extraInits, f::kGraphInitializer,
               Tensor::floats({dims[0]}, swaps[ins[1]].w.scales, scaleName).encode());
    std::vector<uint8_t> n;
    for (const std::string& in : {ins[0], ins[1], scaleName, biasName}) gsPutBytes(n, f::kNodeInput, in);
    for (const std::string& o : outs) gsPutBytes(n, f::kNodeOutput, o);
    gsPutBytes(n, f::kNodeName, gsFirstStr(node, f::kNodeName) + "_int8");
    gsPutBytes(n, f::kNodeOpType, std::string("Int8ConvVNNI"));
    gsPutRaw(n, attrs);
    gsPutBytes(n, f::kNodeDomain, std::string(kInt8Domain));
    gsPutBytes(nodes, f::kGraphNode, n);
  }

  std::vector<uint8_t> g;
  bool nodesDone = false;
  for (GsReader r(graph); r.next(fld);) {
    if (fld.number == f::kGraphNode) {
      if (!nodesDone) gsPutRaw(g, nodes);
      nodesDone = true;
      continue;
    }
    if (fld.number == f::kGraphInitializer) {
      const std::string name = gsFirstStr(fld.payload, f::kTensorName);
      auto s = swaps.find(name);
      if (s != swaps.end()) {
        gsPutBytes(g, f::kGraphInitializer, int8Tensor(name, s->second.dims, s->second.w.q).encode());
        continue;
      }
    }
    gsPutRaw(g, fld.raw);
  }
  gsPutRaw(g, extraInits);

  std::vector<uint8_t> out;
  for (GsReader r(model); r.next(fld);) {
    if (fld.number == f::kModelGraph) {
      gsPutBytes(out, f::kModelGraph, g);
    } else {
      gsPutRaw(out, fld.raw);
    }
  }
  std::vector<uint8_t> opset;
  gsPutBytes(opset, f::kOpsetDomain, std::string(kInt8Domain));
  gsPutVarintField(opset, f::kOpsetVersion, 1);
  gsPutBytes(out, f::kModelOpsetImport, opset);
  if (converted) *converted = count;
  return out;
}

}  // namespace le::forge
