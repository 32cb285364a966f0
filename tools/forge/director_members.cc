#include "tools/forge/director_members.h"

#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

#include "le/render/onnx_bytes.h"
#include "tools/forge/director_graph.h"
#include "tools/forge/forge_int8.h"
#include "tools/forge/onnx_builder.h"

namespace le::forge {

namespace {

namespace f = le::onnxf;

// A declared graph input or output (every director tensor is FLOAT).
struct Decl {
  std::string name;
  std::vector<int64_t> dims;  // -1 for a symbolic dimension
};

// The pieces of a model's graph that the surgery below re-emits.
struct Parts {
  std::vector<GsSlice> nodes;      // NodeProto payloads, in order
  std::vector<GsSlice> inits;      // initializer payloads
  std::set<std::string> initNames;
  std::vector<Decl> inputs, outputs;
  std::vector<GsSlice> others;     // graph fields copied unchanged (name, doc, ...)
};

Decl readDecl(GsSlice vi) {
  Decl d;
  d.name = gsFirstStr(vi, f::kValueInfoName);
  GsField fld;
  for (GsReader r(vi); r.next(fld);) {
    if (fld.number != f::kValueInfoType) continue;
    GsField t;
    for (GsReader rt(fld.payload); rt.next(t);) {
      if (t.number != f::kTypeTensor) continue;
      GsField s;
      for (GsReader rs(t.payload); rs.next(s);) {
        if (s.number != f::kTensorShape) continue;
        GsField dim;
        for (GsReader rd(s.payload); rd.next(dim);) {
          if (dim.number != f::kShapeDim) continue;
          int64_t v = -1;
          GsField dv;
          for (GsReader rv(dim.payload); rv.next(dv);)
            if (dv.number == f::kDimValue && dv.wireType == 0) v = static_cast<int64_t>(dv.value);
          d.dims.push_back(v);
        }
      }
    }
  }
  return d;
}

Parts split(GsSlice model) {
  const GsSlice graph = gsGraphOf(model);
  if (graph.empty()) throw std::runtime_error("director surgery: the model has no graph");
  Parts p;
  GsField fld;
  for (GsReader r(graph); r.next(fld);) {
    switch (fld.number) {
      case f::kGraphNode: p.nodes.push_back(fld.payload); break;
      case f::kGraphInitializer:
        p.inits.push_back(fld.payload);
        p.initNames.insert(gsFirstStr(fld.payload, f::kTensorName));
        break;
      case f::kGraphInput: p.inputs.push_back(readDecl(fld.payload)); break;
      case f::kGraphOutput: p.outputs.push_back(readDecl(fld.payload)); break;
      case f::kGraphValueInfo: break;  // shapes are inferred again at load
      default: p.others.push_back(fld.raw);
    }
  }
  return p;
}

using Rename = std::function<std::string(const std::string&)>;

void putNode(std::vector<uint8_t>& g, GsSlice node, const Rename& value, const Rename& name) {
  std::vector<uint8_t> n;
  GsField fld;
  for (GsReader r(node); r.next(fld);) {
    if (fld.number == f::kNodeInput || fld.number == f::kNodeOutput) {
      gsPutBytes(n, fld.number, value(fld.payload.str()));
    } else if (fld.number == f::kNodeName) {
      gsPutBytes(n, fld.number, name(fld.payload.str()));
    } else {
      gsPutRaw(n, fld.raw);
    }
  }
  gsPutBytes(g, f::kGraphNode, n);
}

void putInit(std::vector<uint8_t>& g, GsSlice init, const Rename& value) {
  std::vector<uint8_t> t;
  GsField fld;
  for (GsReader r(init); r.next(fld);) {
    if (fld.number == f::kTensorName)
      gsPutBytes(t, fld.number, value(fld.payload.str()));
    else
      gsPutRaw(t, fld.raw);
  }
  gsPutBytes(g, f::kGraphInitializer, t);
}

void putDecl(std::vector<uint8_t>& g, uint32_t field, const Decl& d) {
  gsPutTensorValueInfo(g, field, d.name, d.dims.data(), static_cast<int>(d.dims.size()));
}

// The model with its graph replaced; every other model field keeps its bytes.
std::vector<uint8_t> withGraph(GsSlice model, const std::vector<uint8_t>& graph) {
  std::vector<uint8_t> out;
  bool done = false;
  GsField fld;
  for (GsReader r(model); r.next(fld);) {
    if (fld.number == f::kModelGraph) {
      if (!done) gsPutBytes(out, f::kModelGraph, graph);
      done = true;
    } else {
      gsPutRaw(out, fld.raw);
    }
  }
  return out;
}

// Appends a sub-model's nodes and initializers; names outside `keep` get `prefix` so they
// cannot collide with the host graph's.
void putSubgraph(std::vector<uint8_t>& g, const Parts& sub, const std::set<std::string>& keep,
                 const std::string& prefix) {
  const Rename value = [&](const std::string& v) {
    return v.empty() || keep.count(v) ? v : prefix + v;
  };
  const Rename name = [&](const std::string& v) { return prefix + v; };
  for (GsSlice n : sub.nodes) putNode(g, n, value, name);
  for (GsSlice i : sub.inits) putInit(g, i, value);
}

struct Lcg {
  uint32_t s;
  float next() {
    s = s * 1664525u + 1013904223u;
    return float((s >> 8) & 0xffff) / 65535.f - 0.5f;
  }
};

const Rename kSame = [](const std::string& v) { return v; };

// The displacement field's grid in bundle directors: the cost of a frame stays that of a real
// director's dense motion at any crop.
constexpr int kMotionGrid = 64;

}  // namespace

std::vector<uint8_t> heavyDirector(const std::vector<uint8_t>& b1, int crop, int layers, int coneLayers) {
  const std::string base = "/heavy_base";
  // The trunk's detail joins the face before the compose tail, so the tail stays the graph's
  // last step (the lip-contour binding looks for it there): rgb = Add(Mul(face, a), ...).
  const Parts p = split(b1);
  auto producer = [&](const std::string& v) -> GsSlice {
    for (GsSlice n : p.nodes) {
      std::vector<std::string> outs;
      gsAllStr(n, f::kNodeOutput, outs);
      if (!outs.empty() && outs[0] == v) return n;
    }
    throw std::runtime_error("director surgery: nothing produces " + v);
  };
  auto inputsOf = [](GsSlice n) {
    std::vector<std::string> ins;
    gsAllStr(n, f::kNodeInput, ins);
    return ins;
  };
  const GsSlice faceMul = producer(inputsOf(producer("rgb")).at(0));
  const std::string face = inputsOf(faceMul).at(0);
  OnnxBuilder t("heavy_trunk");
  t.input("pooled64", {1, 64, 32, 32});
  t.input(base, {1, 3, crop, crop});
  Lcg lcg{777u};
  auto weights = [&](size_t n, float scale) {
    std::vector<float> w(n);
    for (float& v : w) v = scale * lcg.next();
    return w;
  };
  std::string x = t.op("Resize", {"pooled64", "", t.init("scales", {4}, {1.f, 1.f, 2.f, 2.f})},
                       {Attr::s("mode", "linear"), Attr::s("coordinate_transformation_mode", "half_pixel")});
  // Uniform weights of this scale keep the activations' spread about constant layer to layer.
  const float scale = 0.2f;
  for (int l = 0; l < layers; ++l) {
    const std::string k = std::to_string(l);
    x = t.op("Relu", {t.op("Conv", {x, t.init("w" + k, {64, 64, 3, 3}, weights(64 * 64 * 9, scale)),
                                    t.init("b" + k, {64}, weights(64, 0.02f))},
                           {Attr::ints("pads", {1, 1, 1, 1})})});
  }
  std::string y = t.op("Conv", {x, t.init("w_out", {3, 64, 1, 1}, weights(3 * 64, 0.2f))});
  if (crop != 64)
    y = t.op("Resize", {y, "", "", t.initI64("sizes", {4}, {1, 3, crop, crop})},
             {Attr::s("mode", "linear"), Attr::s("coordinate_transformation_mode", "half_pixel")});
  const std::string detail = t.op("Mul", {t.op("Tanh", {y}), t.initializer(Tensor::scalar(0.03f, "gain"))});
  t.node("Add", {base, detail}, {face}, {}, "add");
  t.output(face, {1, 3, crop, crop});
  const std::vector<uint8_t> trunkBytes = t.build();
  const Parts trunk = split(trunkBytes);

  // The source cone gains a grouped convolution encoder of the source frame whose small
  // contribution joins the second differences: work a real director spends on the source alone.
  // Grouped, so the int8 form keeps the cone in float and it still splits off. About a third of
  // a whole frame's work: light enough that the prefetch keeps pace with the per-frame run even
  // when it has no core of its own.
  GsSlice coneConcat;
  for (GsSlice n : p.nodes) {
    const std::vector<std::string> ins = inputsOf(n);
    if (gsFirstStr(n, f::kNodeOpType) == "Concat" && ins.size() == 2 && ins[0] == "P_rgb") coneConcat = n;
  }
  if (coneConcat.empty()) throw std::runtime_error("director surgery: no source cone Concat");
  const std::string d2 = inputsOf(coneConcat).at(1), d2Heavy = "/heavy_cone_d2";
  OnnxBuilder c("heavy_cone");
  c.input("P_rgb", {1, 3, crop, crop});
  c.input(d2, {1, 9, crop, crop});
  const int width = 12;  // 4 channels per colour plane
  const std::vector<Attr> grouped3 = {Attr::i("group", 3), Attr::ints("pads", {1, 1, 1, 1})};
  std::string e = c.op("Relu", {c.op("Conv", {"P_rgb", c.init("w_in", {width, 1, 3, 3}, weights(width * 9, 0.5f))}, grouped3)});
  for (int l = 0; l < coneLayers; ++l)
    e = c.op("Relu", {c.op("Conv", {e, c.init("w" + std::to_string(l), {width, width / 3, 3, 3},
                                              weights(size_t(width) * (width / 3) * 9, 0.3f))},
                           grouped3)});
  e = c.op("Conv", {e, c.init("w_out", {9, width / 3, 1, 1}, weights(9 * (width / 3), 0.3f))}, {Attr::i("group", 3)});
  c.node("Add", {d2, c.op("Mul", {c.op("Tanh", {e}), c.initializer(Tensor::scalar(0.002f, "gain"))})}, {d2Heavy}, {}, "add");
  c.output(d2Heavy, {1, 9, crop, crop});
  const std::vector<uint8_t> coneBytes = c.build();
  const Parts cone = split(coneBytes);

  std::vector<uint8_t> g;
  // The director's face becomes the trunk's base; the trunk runs right before the compose.
  const Rename value = [&](const std::string& v) { return v == face ? base : v; };
  const Rename toHeavyD2 = [&](const std::string& v) { return v == d2 ? d2Heavy : v; };
  for (GsSlice n : p.nodes) {
    if (n.p == faceMul.p) {
      putSubgraph(g, trunk, {"pooled64", base, face}, "/heavy/");
      putNode(g, n, kSame, kSame);
    } else if (n.p == coneConcat.p) {
      putSubgraph(g, cone, {"P_rgb", d2, d2Heavy}, "/heavy_cone/");
      putNode(g, n, toHeavyD2, kSame);
    } else {
      putNode(g, n, value, kSame);
    }
  }
  for (GsSlice o : p.others) gsPutRaw(g, o);
  for (GsSlice i : p.inits) gsPutBytes(g, f::kGraphInitializer, i.p, i.n);
  for (const Decl& d : p.inputs) putDecl(g, f::kGraphInput, d);
  for (const Decl& d : p.outputs) putDecl(g, f::kGraphOutput, d);
  return withGraph(b1, g);
}

std::vector<uint8_t> featSynthDirector(const std::vector<uint8_t>& b1, int crop) {
  // The prior decoded from the synthesised features: a 1x1 convolution to RGB, squashed to
  // [0, 1] and resized to the crop.
  OnnxBuilder d("featsynth_decoder");
  d.input("fs_red", {1, 64, 64, 64});
  Lcg lcg{4242u};
  std::vector<float> w(3 * 64), b(3);
  for (float& v : w) v = 0.5f * lcg.next();
  for (float& v : b) v = 0.2f * lcg.next();
  std::string rgb = d.op("Sigmoid", {d.op("Conv", {"fs_red", d.init("w", {3, 64, 1, 1}, w), d.init("b", {3}, b)})});
  const std::vector<Attr> linear = {Attr::s("mode", "linear"),
                                    Attr::s("coordinate_transformation_mode", "half_pixel")};
  if (crop != 64) rgb = d.op("Resize", {rgb, "", "", d.initI64("sizes", {4}, {1, 3, crop, crop})}, linear);
  d.node("Identity", {rgb}, {"P_rgb"}, {}, "out");
  d.output("P_rgb", {1, 3, crop, crop});
  const std::vector<uint8_t> decoderBytes = d.build();
  const Parts dec = split(decoderBytes);

  const Parts p = split(b1);
  const Rename value = [](const std::string& v) -> std::string {
    if (v == "pooled64") return "pooled";
    if (v == "kp_driving") return "kd";
    if (v == "kp_source") return "ks";
    return v;
  };
  std::vector<uint8_t> g;
  putSubgraph(g, dec, {"fs_red", "P_rgb"}, "/featsynth/");
  for (GsSlice n : p.nodes) putNode(g, n, value, kSame);
  for (GsSlice o : p.others) gsPutRaw(g, o);
  for (GsSlice i : p.inits) gsPutBytes(g, f::kGraphInitializer, i.p, i.n);
  putDecl(g, f::kGraphInput, Decl{"fs_red", {1, 64, 64, 64}});
  for (Decl in : p.inputs) {
    if (in.name == "P_rgb") continue;
    in.name = value(in.name);
    putDecl(g, f::kGraphInput, in);
  }
  for (const Decl& out : p.outputs) putDecl(g, f::kGraphOutput, out);
  return withGraph(b1, g);
}

std::vector<Member> directorMembers(const Params& p, const DirectorMemberOptions& o) {
  DirectorGraphOptions gopt;
  gopt.crop = p.crop;
  gopt.motion = kMotionGrid;
  const std::vector<uint8_t> b1 = forgeDirectorGraph(gopt);
  gopt.batch = o.batch;
  const bool alt = p.alternativeNames;
  std::vector<Member> m;
  m.push_back({alt ? "render_model.batch1.onnx" : "model_b1.onnx", b1});
  // The offline stream renderer opens its context on the key "render", which has no
  // alternative name.
  m.push_back({"model_render.onnx", b1});
  // The batched member always carries its newer name, so resolution is exercised either way.
  m.push_back({"render_model.batch" + std::to_string(o.batch) + ".onnx", forgeDirectorGraph(gopt)});
  if (o.featSynth)
    m.push_back({alt ? "render_model.batch1.fs.onnx" : "model_b1_fs.onnx", featSynthDirector(b1, p.crop)});
  if (o.heavy) {
    const std::vector<uint8_t> heavy = heavyDirector(b1, p.crop, o.heavyLayers, o.heavyConeLayers);
    m.push_back({alt ? "render_model.batch1.heavy.onnx" : "model_b1_heavy.onnx", heavy});
    m.push_back({alt ? "render_model.batch1.int8.onnx" : "model_b1_int8.onnx", int8Director(heavy)});
  }
  if (o.steadyBatch > 0) {
    gopt.batch = o.steadyBatch;
    const std::string n = std::to_string(o.steadyBatch);
    m.push_back({alt ? "render_model.batch" + n + ".fp32.onnx" : "model_b" + n + "_fp32.onnx",
                 forgeDirectorGraph(gopt)});
  }
  return m;
}

}  // namespace le::forge
