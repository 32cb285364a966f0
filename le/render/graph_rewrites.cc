#include "le/render/graph_rewrites.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <unordered_map>
#include <utility>

namespace le {

namespace {

// Domain of the engine's own operators.
const char* const kCustomDomain = "com.vantorix";

using Bytes = std::vector<uint8_t>;
namespace f = onnxf;

bool isLen(const GsField& fd, uint32_t number) { return fd.number == number && fd.wireType == 2; }
bool isNodeField(const GsField& fd) { return isLen(fd, f::kGraphNode); }

bool isStandardDomain(GsSlice node) {
  const std::string d = gsFirstStr(node, f::kNodeDomain);
  return d.empty() || d == "ai.onnx";
}

// One AttributeProto as far as the rewrites look at it.
struct Attr {
  std::string name;
  bool hasS = false, hasI = false, hasF = false, hasInts = false;
  std::string s;
  int64_t i = 0;
  float fl = 0.f;
  std::vector<int64_t> ints;
};

std::vector<Attr> readAttrs(GsSlice node) {
  std::vector<Attr> out;
  GsReader r(node);
  GsField fd;
  while (r.next(fd)) {
    if (!isLen(fd, f::kNodeAttribute)) continue;
    Attr a;
    GsReader ar(fd.payload);
    GsField x;
    while (ar.next(x)) {
      if (isLen(x, f::kAttrName)) {
        a.name = x.payload.str();
      } else if (isLen(x, f::kAttrS)) {
        a.s = x.payload.str();
        a.hasS = true;
      } else if (x.number == f::kAttrI && x.wireType == 0) {
        a.i = int64_t(x.value);
        a.hasI = true;
      } else if (x.number == f::kAttrF && x.wireType == 5) {
        const uint32_t bits = uint32_t(x.value);
        std::memcpy(&a.fl, &bits, 4);
        a.hasF = true;
      } else if (x.number == f::kAttrInts && x.wireType == 0) {
        a.ints.push_back(int64_t(x.value));
        a.hasInts = true;
      } else if (x.number == f::kAttrInts && x.wireType == 2) {
        // Packed: a run of bare varints.
        const uint8_t* p = x.payload.begin();
        while (p < x.payload.end()) {
          uint64_t v = 0;
          int shift = 0;
          for (;;) {
            if (p >= x.payload.end() || shift >= 70) throw std::runtime_error("onnx: bad varint");
            const uint8_t b = *p++;
            v |= uint64_t(b & 0x7f) << shift;
            shift += 7;
            if (b < 0x80) break;
          }
          a.ints.push_back(int64_t(v));
        }
        a.hasInts = true;
      }
    }
    out.push_back(std::move(a));
  }
  return out;
}

const Attr* findAttr(const std::vector<Attr>& attrs, const char* name) {
  for (const Attr& a : attrs)
    if (a.name == name) return &a;
  return nullptr;
}

// Everything the scans need about one graph: nodes in file order, initializers, inputs, outputs,
// and producer / consumer maps by value name.
struct GraphView {
  GsSlice graph;
  std::vector<GsNodeInfo> nodes;
  std::set<std::string> inits, inputs;
  std::unordered_map<std::string, GsSlice> initTensors;
  std::vector<std::string> outputs;
  std::unordered_map<std::string, int> producer;
  std::unordered_map<std::string, std::vector<int>> consumers;

  explicit GraphView(GsSlice model) : graph(gsGraphOf(model)) {
    if (graph.empty()) return;
    gsReadGraph(graph, nodes, inits, inputs);
    GsReader r(graph);
    GsField fd;
    while (r.next(fd)) {
      if (isLen(fd, f::kGraphInitializer))
        initTensors.emplace(gsFirstStr(fd.payload, f::kTensorName), fd.payload);
      else if (isLen(fd, f::kGraphOutput))
        outputs.push_back(gsFirstStr(fd.payload, f::kValueInfoName));
    }
    for (int k = 0; k < int(nodes.size()); ++k) {
      for (const std::string& o : nodes[k].outputs)
        if (!o.empty()) producer.emplace(o, k);
      for (const std::string& in : nodes[k].inputs)
        if (!in.empty()) {
          std::vector<int>& c = consumers[in];
          if (c.empty() || c.back() != k) c.push_back(k);
        }
    }
  }

  int producerOf(const std::string& v) const {
    auto it = producer.find(v);
    return it == producer.end() ? -1 : it->second;
  }
  const std::vector<int>& consumersOf(const std::string& v) const {
    static const std::vector<int> none;
    auto it = consumers.find(v);
    return it == consumers.end() ? none : it->second;
  }
  GsSlice initializer(const std::string& v) const {
    auto it = initTensors.find(v);
    return it == initTensors.end() ? GsSlice() : it->second;
  }
  bool isGraphOutput(const std::string& v) const {
    return std::find(outputs.begin(), outputs.end(), v) != outputs.end();
  }
  // How a refusal names a node: its name when it has one.
  std::string describe(int k) const {
    const std::string name = gsFirstStr(nodes[k].bytes, f::kNodeName);
    if (!name.empty()) return "'" + name + "'";
    return nodes[k].opType + " node " + std::to_string(k);
  }
};

// Re-encodes `model`: its first graph field goes through `editGraph`, which writes the new graph
// payload; every other field keeps its bytes and place. With `vantorix` the opset import of the
// custom domain is ensured (appended after the last opset import, or at the end when there is
// none).
Bytes rebuildModel(GsSlice model, const std::function<void(GsSlice, Bytes&)>& editGraph, bool vantorix) {
  bool haveDomain = false;
  const uint8_t* lastOpset = nullptr;
  {
    GsReader r(model);
    GsField fd;
    while (r.next(fd)) {
      if (!isLen(fd, f::kModelOpsetImport)) continue;
      lastOpset = fd.raw.p;
      if (gsFirstStr(fd.payload, f::kOpsetDomain) == kCustomDomain) haveDomain = true;
    }
  }
  Bytes opsetEntry;
  if (vantorix && !haveDomain) {
    Bytes id;
    gsPutBytes(id, f::kOpsetDomain, std::string(kCustomDomain));
    gsPutVarintField(id, f::kOpsetVersion, 1);
    gsPutBytes(opsetEntry, f::kModelOpsetImport, id);
  }
  Bytes out;
  out.reserve(model.n + 256);
  GsReader r(model);
  GsField fd;
  bool graphDone = false;
  while (r.next(fd)) {
    if (isLen(fd, f::kModelGraph) && !graphDone) {
      Bytes g;
      g.reserve(fd.payload.n + 256);
      editGraph(fd.payload, g);
      gsPutBytes(out, f::kModelGraph, g);
      graphDone = true;
    } else {
      gsPutRaw(out, fd.raw);
    }
    if (fd.raw.p == lastOpset) {
      gsPutRaw(out, opsetEntry);
      opsetEntry.clear();
    }
  }
  gsPutRaw(out, opsetEntry);
  return out;
}

// rebuildModel whose graph edit goes field by field: `field` writes what stands in place of each
// graph field, told the index of the node it is (-1 when it is no node); `after` appends.
Bytes rebuildGraphFields(GsSlice model, const std::function<void(const GsField&, int, Bytes&)>& field,
                         bool vantorix, const std::function<void(Bytes&)>& after = {}) {
  return rebuildModel(
      model,
      [&](GsSlice graph, Bytes& ng) {
        GsReader r(graph);
        GsField fd;
        int k = -1;
        while (r.next(fd)) field(fd, isNodeField(fd) ? ++k : -1, ng);
        if (after) after(ng);
      },
      vantorix);
}

// Copies a NodeProto, leaving out the fields whose numbers are in `skip`.
Bytes copyNodeWithout(GsSlice node, std::initializer_list<uint32_t> skip) {
  Bytes out;
  out.reserve(node.n + 32);
  GsReader r(node);
  GsField fd;
  while (r.next(fd)) {
    if (std::find(skip.begin(), skip.end(), fd.number) != skip.end()) continue;
    gsPutRaw(out, fd.raw);
  }
  return out;
}

// Rewrites every node `qualifies` accepts into the NodeProto payload `rewrite` makes of it, and
// returns how many; with none the bytes are left alone.
size_t rewriteMatchingNodes(std::vector<uint8_t>& model, bool (*qualifies)(GsSlice), bool vantorix,
                            const std::function<Bytes(GsSlice)>& rewrite) {
  GsSlice graph = gsGraphOf(model);
  if (graph.empty()) return 0;
  size_t count = 0;
  {
    GsReader r(graph);
    GsField fd;
    while (r.next(fd))
      if (isNodeField(fd) && qualifies(fd.payload)) ++count;
  }
  if (!count) return 0;
  Bytes out = rebuildGraphFields(
      model,
      [&](const GsField& fd, int, Bytes& ng) {
        if (isNodeField(fd) && qualifies(fd.payload)) gsPutBytes(ng, f::kGraphNode, rewrite(fd.payload));
        else gsPutRaw(ng, fd.raw);
      },
      vantorix);
  model.swap(out);
  return count;
}

std::vector<int64_t> tensorDims(GsSlice t) {
  std::vector<int64_t> d;
  hcTensorDims(t, d);
  return d;
}

// True when `t` holds exactly one float equal to 1.0.
bool isSingleOne(GsSlice t) {
  std::vector<float> v;
  return !t.empty() && hcTensorFloats(t, v) && v.size() == 1 && v[0] == 1.0f;
}

// The source cone behind `boundary`: every node that computes it from "P_rgb", initializers and
// constants. With `onlyConeReadsPrgb` no node outside may read "P_rgb"; `alsoRemoved` marks nodes
// leaving the graph with the cone, whose values may escape only as `allowedExit`.
bool sourceCone(const GraphView& g, const std::string& boundary, bool onlyConeReadsPrgb,
                std::vector<uint8_t>& inCone, std::string& reason,
                const std::vector<uint8_t>* alsoRemoved = nullptr, const std::string& allowedExit = "") {
  inCone.assign(g.nodes.size(), 0);
  std::vector<std::string> todo{boundary};
  std::set<std::string> seen;
  while (!todo.empty()) {
    const std::string v = std::move(todo.back());
    todo.pop_back();
    if (v.empty() || !seen.insert(v).second) continue;
    if (v == "P_rgb" || g.inits.count(v)) continue;
    if (g.inputs.count(v)) {
      reason = "cone reads graph input '" + v + "'";
      return false;
    }
    const int p = g.producerOf(v);
    if (p < 0) {
      reason = "cone leaf '" + v + "' has no producer";
      return false;
    }
    if (inCone[p]) continue;
    inCone[p] = 1;
    for (const std::string& in : g.nodes[p].inputs) todo.push_back(in);
  }
  std::vector<uint8_t> removed = inCone;
  if (alsoRemoved)
    for (size_t k = 0; k < removed.size(); ++k) removed[k] |= (*alsoRemoved)[k];
  if (onlyConeReadsPrgb) {
    for (int k = 0; k < int(g.nodes.size()); ++k) {
      if (inCone[k]) continue;
      for (const std::string& in : g.nodes[k].inputs)
        if (in == "P_rgb") {
          reason = "P_rgb is also read outside the cone by " + g.describe(k);
          return false;
        }
    }
  }
  for (int k = 0; k < int(g.nodes.size()); ++k) {
    if (removed[k]) continue;
    for (const std::string& in : g.nodes[k].inputs) {
      const int p = g.producerOf(in);
      if (p < 0 || !removed[p]) continue;
      if (alsoRemoved ? in == allowedExit : in == boundary) continue;
      reason = "cone value '" + in + "' escapes to " + g.describe(k);
      return false;
    }
  }
  for (const std::string& o : g.outputs) {
    const int p = g.producerOf(o);
    if (p < 0 || !removed[p]) continue;
    if (alsoRemoved ? o == allowedExit : o == boundary) continue;
    reason = "cone value '" + o + "' escapes to the graph output";
    return false;
  }
  return true;
}

int countPrgbConcats(const GraphView& g, std::string* boundary) {
  int count = 0;
  for (const GsNodeInfo& n : g.nodes) {
    if (n.opType != "Concat" || !isStandardDomain(n.bytes)) continue;
    if (std::find(n.inputs.begin(), n.inputs.end(), "P_rgb") == n.inputs.end()) continue;
    if (++count == 1 && boundary) *boundary = n.outputs.empty() ? std::string() : n.outputs[0];
  }
  return count;
}

}  // namespace

// ---- GridSample -> GridSampleFast ---------------------------------------------------------------

bool gsIsRewritableGridSample(GsSlice node) {
  if (gsFirstStr(node, f::kNodeOpType) != "GridSample" || !isStandardDomain(node)) return false;
  const std::vector<Attr> attrs = readAttrs(node);
  const Attr* mode = findAttr(attrs, "mode");
  const Attr* pad = findAttr(attrs, "padding_mode");
  const Attr* align = findAttr(attrs, "align_corners");
  if (!mode || !mode->hasS || (mode->s != "bilinear" && mode->s != "linear")) return false;
  if (!pad || !pad->hasS || pad->s != "border") return false;
  if (align && (!align->hasI || align->i != 0)) return false;
  return true;
}

size_t rewriteGridSampleToFast(std::vector<uint8_t>& model) {
  return rewriteMatchingNodes(model, gsIsRewritableGridSample, true, [](GsSlice node) {
    // The custom node's sampling is fixed, so it carries no attributes.
    Bytes n = copyNodeWithout(node, {f::kNodeOpType, f::kNodeAttribute, f::kNodeDomain});
    gsPutBytes(n, f::kNodeOpType, std::string("GridSampleFast"));
    gsPutBytes(n, f::kNodeDomain, std::string(kCustomDomain));
    return n;
  });
}

bool graphHasBakedGridSampleFast(GsSlice model) {
  GsSlice graph = gsGraphOf(model);
  GsReader r(graph);
  GsField fd;
  while (r.next(fd)) {
    if (!isNodeField(fd)) continue;
    if (gsFirstStr(fd.payload, f::kNodeOpType) == "GridSampleFast" &&
        gsFirstStr(fd.payload, f::kNodeDomain) == kCustomDomain)
      return true;
  }
  return false;
}

// ---- student blend ------------------------------------------------------------------------------

bool gsIsStudentBlendMatMul(GsSlice node) {
  if (gsFirstStr(node, f::kNodeName) != "/s2/blend") return false;
  if (gsFirstStr(node, f::kNodeOpType) != "MatMul" || !isStandardDomain(node)) return false;
  size_t inputs = 0;
  GsReader r(node);
  GsField fd;
  while (r.next(fd)) {
    if (fd.number == f::kNodeAttribute) return false;
    if (isLen(fd, f::kNodeInput)) ++inputs;
  }
  return inputs == 2;
}

size_t normaliseStudentBlend(std::vector<uint8_t>& model) {
  return rewriteMatchingNodes(model, gsIsStudentBlendMatMul, false, [](GsSlice node) {
    // Gemm's defaults (alpha = beta = 1, no transposes, no C) make it the same 2-D product.
    Bytes n = copyNodeWithout(node, {f::kNodeOpType, f::kNodeDomain});
    gsPutBytes(n, f::kNodeOpType, std::string("Gemm"));
    return n;
  });
}

// ---- head cubic x2 resize -----------------------------------------------------------------------

void hcTaps(double t, double a, double taps[4]) {
  const double dist[4] = {t + 1.0, t, 1.0 - t, 2.0 - t};
  double sum = 0.0;
  for (int k = 0; k < 4; ++k) {
    const double d = dist[k];
    taps[k] = d <= 1.0 ? ((a + 2.0) * d - (a + 3.0)) * d * d + 1.0
                       : ((d - 5.0) * d + 8.0) * d * a - 4.0 * a;
    sum += taps[k];
  }
  for (int k = 0; k < 4; ++k) taps[k] /= sum;
}

size_t rewriteHeadCubicResize(std::vector<uint8_t>& model) {
  GraphView g(model);
  if (g.graph.empty()) return 0;
  int cand = -1;
  int candidates = 0;
  for (int k = 0; k < int(g.nodes.size()); ++k) {
    const GsNodeInfo& n = g.nodes[k];
    if (n.opType != "Resize" || !gsFirstStr(n.bytes, f::kNodeDomain).empty()) continue;
    const HcAttrs a = hcReadAttrs(n.bytes);
    if (a.mode != "cubic" || a.coordinateTransformationMode != "half_pixel") continue;
    if (!a.keepAspectRatioPolicy.empty() && a.keepAspectRatioPolicy != "stretch") continue;
    if (a.excludeOutside || a.antialias || a.hasAxes) continue;
    if (n.inputs.size() != 3 || !n.inputs[1].empty() || n.outputs.size() != 1) continue;
    std::vector<float> scales;
    const GsSlice st = g.initializer(n.inputs[2]);
    if (st.empty() || !hcTensorFloats(st, scales)) continue;
    if (scales != std::vector<float>{1.f, 1.f, 2.f, 2.f}) continue;
    ++candidates;
    cand = k;
  }
  if (candidates != 1) return 0;
  const GsNodeInfo& rz = g.nodes[cand];

  // The one consumer must be a Conv over an initializer weight; it fixes the channel count.
  const std::vector<int>& uses = g.consumersOf(rz.outputs[0]);
  if (uses.size() != 1) return 0;
  const GsNodeInfo& conv = g.nodes[uses[0]];
  if (conv.opType != "Conv" || conv.inputs.size() < 2) return 0;
  const GsSlice wt = g.initializer(conv.inputs[1]);
  if (wt.empty()) return 0;
  const std::vector<int64_t> wdims = tensorDims(wt);
  if (wdims.size() != 4) return 0;
  int64_t group = 1;
  const std::vector<Attr> convAttrs = readAttrs(conv.bytes);
  if (const Attr* ga = findAttr(convAttrs, "group")) {
    if (!ga->hasI || ga->i <= 0) return 0;
    group = ga->i;
  }
  const int64_t C = group * wdims[1];
  if (C < 1 || C > (int64_t(1) << 20)) return 0;

  // Cross-check against the nearest per-channel [C', 1, 1] initializer upstream.
  std::string v = rz.inputs[0];
  for (int hop = 0; hop < 4 && !v.empty(); ++hop) {
    const int p = g.producerOf(v);
    if (p < 0) break;
    bool met = false;
    for (const std::string& in : g.nodes[p].inputs) {
      const GsSlice t = g.initializer(in);
      if (t.empty()) continue;
      const std::vector<int64_t> d = tensorDims(t);
      if (d.size() == 3 && d[1] == 1 && d[2] == 1) {
        if (d[0] != C) return 0;
        met = true;
        break;
      }
    }
    if (met) break;
    v = g.nodes[p].inputs.empty() ? std::string() : g.nodes[p].inputs[0];
  }

  const HcAttrs ra = hcReadAttrs(rz.bytes);
  const double a = ra.hasCubicCoeffA ? double(ra.cubicCoeffA) : -0.75;
  double phase[2][5] = {};
  {
    double t0[4], t1[4];
    hcTaps(0.75, a, t0);
    hcTaps(0.25, a, t1);
    for (int k = 0; k < 4; ++k) phase[0][k] = t0[k], phase[1][k + 1] = t1[k];
  }
  std::vector<float> w(size_t(4 * C) * 25);
  for (int64_t c = 0; c < C; ++c)
    for (int py = 0; py < 2; ++py)
      for (int px = 0; px < 2; ++px) {
        float* k5 = &w[size_t(4 * c + 2 * py + px) * 25];
        for (int r = 0; r < 5; ++r)
          for (int s = 0; s < 5; ++s) k5[r * 5 + s] = float(phase[py][r] * phase[px][s]);
      }

  std::string base = gsFirstStr(rz.bytes, f::kNodeName);
  if (base.empty()) base = "/Resize";
  const std::string prefix = "rz" + std::to_string(cand);
  const std::string pads = prefix + "_pads", dw = prefix + "_dw_w";
  const std::string padOut = prefix + "_padout", convOut = prefix + "_convout";

  Bytes out = rebuildModel(
      model,
      [&](GsSlice graph, Bytes& ng) {
        GsReader r(graph);
        GsField fd;
        int k = 0;
        const bool scalesUnused = g.consumersOf(rz.inputs[2]).size() == 1 && !g.isGraphOutput(rz.inputs[2]);
        while (r.next(fd)) {
          if (scalesUnused && isLen(fd, f::kGraphInitializer) && gsFirstStr(fd.payload, f::kTensorName) == rz.inputs[2])
            continue;  // read only by the Resize this replaces
          if (isNodeField(fd) && k++ == cand) {
            Bytes padA;
            hcAttrS(padA, "edge");
            hcNode(ng, "Pad", {rz.inputs[0], pads}, padOut, base + "/pad", padA);
            Bytes convA;
            const int64_t ones[2] = {1, 1}, five[2] = {5, 5}, zeros[4] = {0, 0, 0, 0};
            hcAttrIs(convA, "dilations", ones, 2);
            hcAttrI(convA, "group", C);
            hcAttrIs(convA, "kernel_shape", five, 2);
            hcAttrIs(convA, "pads", zeros, 4);
            hcAttrIs(convA, "strides", ones, 2);
            hcNode(ng, "Conv", {padOut, dw}, convOut, base + "/dwconv", convA);
            Bytes d2s;
            hcAttrI(d2s, "blocksize", 2);
            hcAttrS(d2s, "CRD");
            hcNode(ng, "DepthToSpace", {convOut}, rz.outputs[0], base + "/d2s", d2s);
            continue;
          }
          gsPutRaw(ng, fd.raw);
        }
        const int64_t padv[8] = {0, 0, 2, 2, 0, 0, 2, 2};
        hcInit(ng, pads, f::kDataInt64, {8}, padv, sizeof padv);
        hcInit(ng, dw, f::kDataFloat, {4 * C, 1, 5, 5}, w.data(), w.size() * sizeof(float));
      },
      false);
  model.swap(out);
  return 1;
}

// ---- lip-contour binding ------------------------------------------------------------------------

namespace {

const char* const kLipInput = "lip_delivery";
const char* const kLipMin = "tessera_lipdel_min";
const char* const kLipAlpha = "tessera_lipdel_alpha";

// The unified compose tail Add(Mul(x, a), Mul(y, Sub(1, a))) behind the first graph output.
struct ComposeTail {
  std::string alpha;
  std::vector<int> nodes;  // the tail's nodes, output side first
};

bool isOneConstant(const GraphView& g, const std::string& v) {
  if (isSingleOne(g.initializer(v))) return true;
  const int p = g.producerOf(v);
  return p >= 0 && g.nodes[p].opType == "Constant" && isSingleOne(hcConstValue(g.nodes[p].bytes));
}

bool findComposeTail(const GraphView& g, ComposeTail& tail) {
  if (g.outputs.empty()) return false;
  int p = g.producerOf(g.outputs[0]);
  for (int hop = 0; p >= 0 && hop < 4; ++hop) {
    const GsNodeInfo& n = g.nodes[p];
    if ((n.opType != "Cast" && n.opType != "Identity") || n.inputs.empty()) break;
    tail.nodes.push_back(p);
    p = g.producerOf(n.inputs[0]);
  }
  if (p < 0 || g.nodes[p].opType != "Add" || g.nodes[p].inputs.size() != 2) return false;
  const int add = p;
  const int m0 = g.producerOf(g.nodes[add].inputs[0]), m1 = g.producerOf(g.nodes[add].inputs[1]);
  if (m0 < 0 || m1 < 0 || g.nodes[m0].opType != "Mul" || g.nodes[m1].opType != "Mul") return false;
  // One Mul takes Sub(1, a); the other takes a itself.
  for (int swap = 0; swap < 2; ++swap) {
    const int mA = swap ? m1 : m0, mS = swap ? m0 : m1;
    const GsNodeInfo& ms = g.nodes[mS];
    const GsNodeInfo& ma = g.nodes[mA];
    if (ms.inputs.size() != 2 || ma.inputs.size() != 2) continue;
    for (const std::string& sv : ms.inputs) {
      const int sub = g.producerOf(sv);
      if (sub < 0 || g.nodes[sub].opType != "Sub" || g.nodes[sub].inputs.size() != 2) continue;
      const GsNodeInfo& s = g.nodes[sub];
      if (!isOneConstant(g, s.inputs[0])) continue;
      const std::string& a = s.inputs[1];
      if (std::find(ma.inputs.begin(), ma.inputs.end(), a) == ma.inputs.end()) continue;
      tail.alpha = a;
      tail.nodes.insert(tail.nodes.end(), {add, mA, mS, sub});
      return true;
    }
  }
  return false;
}

}  // namespace

bool lipBindingSelfCheck(GsSlice model, const std::string& alpha, std::string& reason) {
  GraphView g(model);
  if (!g.inputs.count(kLipInput)) {
    reason = "self-check: the input did not survive the rebuild";
    return false;
  }
  bool haveMin = false;
  int minIndex = -1;
  for (int k = 0; k < int(g.nodes.size()); ++k) {
    const GsNodeInfo& n = g.nodes[k];
    if (n.opType == "Min" && n.outputs.size() == 1 && n.outputs[0] == kLipAlpha && n.inputs.size() == 2 &&
        n.inputs[0] == alpha && n.inputs[1] == kLipInput) {
      haveMin = true;
      minIndex = k;
    }
  }
  if (!haveMin) {
    reason = "self-check: the Min node did not survive the rebuild";
    return false;
  }
  for (int k = 0; k < int(g.nodes.size()); ++k)
    for (const std::string& in : g.nodes[k].inputs) {
      const int p = g.producerOf(in);
      if (p >= k) {
        reason = "self-check: node " + std::to_string(k) + " reads '" + in + "' produced at " +
                 std::to_string(p) + " — the rewritten graph is not topologically ordered";
        return false;
      }
    }
  for (int k : g.consumersOf(alpha))
    if (k != minIndex) {
      reason = "self-check: rewire did not take: " + std::to_string(g.consumersOf(kLipAlpha).size()) +
               " consumers of " + kLipAlpha + ", one still reads the alpha" +
               " — refusing a graph that would serve the ellipse with the input attached and ignored";
      return false;
    }
  return true;
}

int rewriteBindLipContour(std::vector<uint8_t>& model, std::string& reason, int* canvasOut, int* batchOut) {
  GraphView g(model);
  if (g.graph.empty()) {
    reason = "no graph";
    return 0;
  }
  if (g.inputs.count(kLipInput)) {
    reason = std::string("the graph already carries an input named ") + kLipInput;
    return 0;
  }
  ComposeTail tail;
  if (!findComposeTail(g, tail)) {
    reason = "the graph does not carry the unified compose tail";
    return 0;
  }
  const int alphaProducer = g.producerOf(tail.alpha);
  if (alphaProducer < 0) {
    reason = "the compose alpha '" + tail.alpha + "' has no producer node";
    return 0;
  }
  if (g.nodes[alphaProducer].opType != "Clip") {
    reason = "the graph does not carry the unified compose tail";
    return 0;
  }
  tail.nodes.push_back(alphaProducer);

  // Canvas: a square initializer read by a tail node (the last one met), else P_rgb's edge.
  int64_t canvas = 0;
  for (int k : tail.nodes)
    for (const std::string& in : g.nodes[k].inputs) {
      const GsSlice t = g.initializer(in);
      if (t.empty()) continue;
      const std::vector<int64_t> d = tensorDims(t);
      if (d.size() >= 2 && d[d.size() - 1] == d[d.size() - 2] && d.back() > 0) canvas = d.back();
    }
  if (canvas <= 0) {
    int64_t first = 0, last = 0;
    int rank = 0;
    ldInputDims(g.graph, "P_rgb", first, last, rank);
    if (rank != 4 || last <= 0) {
      reason = "cannot read the compose canvas off the graph";
      return 0;
    }
    canvas = last;
  }
  int64_t batch = 0;
  {
    int64_t first = 0, last = 0;
    int rank = 0;
    ldInputDims(g.graph, "pooled64", first, last, rank);
    if (first <= 0) ldInputDims(g.graph, "kp_driving", first, last, rank);
    batch = first > 0 ? first : 0;
  }

  const std::string& a = tail.alpha;
  const std::string lipName = kLipInput;
  const int64_t dims[4] = {batch, 1, canvas, canvas};
  Bytes out = rebuildGraphFields(
      model,
      [&](const GsField& fd, int k, Bytes& ng) {
        if (isLen(fd, f::kGraphValueInfo) && gsFirstStr(fd.payload, f::kValueInfoName) == lipName) return;
        const std::vector<std::string>* ins = k >= 0 ? &g.nodes[k].inputs : nullptr;
        if (!ins || std::find(ins->begin(), ins->end(), a) == ins->end()) {
          gsPutRaw(ng, fd.raw);
        } else {
          Bytes n;
          GsReader nr(fd.payload);
          GsField x;
          while (nr.next(x)) {
            if (isLen(x, f::kNodeInput) && x.payload.str() == a)
              gsPutBytes(n, f::kNodeInput, std::string(kLipAlpha));
            else
              gsPutRaw(n, x.raw);
          }
          gsPutBytes(ng, f::kGraphNode, n);
        }
        if (k >= 0 && k == alphaProducer) hcNode(ng, "Min", {a, lipName}, kLipAlpha, kLipMin, {});
      },
      false, [&](Bytes& ng) { gsPutTensorValueInfo(ng, f::kGraphInput, lipName, dims, 4); });
  if (!lipBindingSelfCheck(out, a, reason)) return 0;
  model.swap(out);
  if (canvasOut) *canvasOut = int(canvas);
  if (batchOut) *batchOut = int(batch);
  return 1;
}

// ---- warp block -> WarpDirector -----------------------------------------------------------------

bool findWarpBlock(GsSlice model, WarpBlock* out, std::string& reason) {
  if (!out) {
    reason = "no out param";
    return false;
  }
  GraphView g(model);
  if (g.graph.empty()) {
    reason = "no graph";
    return false;
  }
  WarpBlock b;
  if (countPrgbConcats(g, &b.boundary) != 1) {
    reason = "not one Concat consuming P_rgb";
    return false;
  }
  b.concatIndex = g.producerOf(b.boundary);
  for (int k : g.consumersOf(b.boundary)) {
    const GsNodeInfo& n = g.nodes[k];
    if ((n.opType != "GridSample" && n.opType != "GridSampleFast") || n.inputs.empty() ||
        n.inputs[0] != b.boundary)
      continue;
    if (b.gridSampleIndex >= 0) {
      reason = "two GridSamples on the cone's tip";
      return false;
    }
    b.gridSampleIndex = k;
  }
  if (b.gridSampleIndex < 0) {
    reason = "no GridSample consuming '" + b.boundary + "'";
    return false;
  }
  const GsNodeInfo& gs = g.nodes[b.gridSampleIndex];
  if (gs.opType == "GridSample" && !gsIsRewritableGridSample(gs.bytes)) {
    reason = "the fused GridSample is not bilinear/border/align_corners=0";
    return false;
  }
  b.grid = gs.inputs.size() > 1 ? gs.inputs[1] : std::string();
  if (b.grid.empty() || g.producerOf(b.grid) < 0) {
    reason = "the grid has no producer";
    return false;
  }
  if (gs.outputs.empty() || gs.outputs[0].empty()) {
    reason = "the fused GridSample has no output";
    return false;
  }
  const std::string& gsOut = gs.outputs[0];

  // The recombination: Slices of the sample, then Mul/Sub/Add over anything made inside.
  std::vector<uint8_t> region(g.nodes.size(), 0);
  region[b.gridSampleIndex] = 1;
  std::set<std::string> made{gsOut};
  for (int k : g.consumersOf(gsOut))
    if (g.nodes[k].opType == "Slice") {
      region[k] = 1;
      made.insert(g.nodes[k].outputs.begin(), g.nodes[k].outputs.end());
    }
  for (bool grew = true; grew;) {
    grew = false;
    for (int k = 0; k < int(g.nodes.size()); ++k) {
      const GsNodeInfo& n = g.nodes[k];
      if (region[k] || (n.opType != "Mul" && n.opType != "Sub" && n.opType != "Add")) continue;
      bool reads = false;
      for (const std::string& in : n.inputs) reads = reads || made.count(in);
      if (!reads) continue;
      region[k] = 1;
      made.insert(n.outputs.begin(), n.outputs.end());
      grew = true;
    }
  }
  std::set<std::string> exits;
  for (const std::string& v : made) {
    if (v == gsOut || v.empty()) continue;
    bool out = g.isGraphOutput(v);
    for (int k : g.consumersOf(v)) out = out || !region[k];
    if (out) exits.insert(v);
  }
  if (exits.size() != 1) {
    reason = "the recombination has " + std::to_string(exits.size()) + " exits, not 1";
    return false;
  }
  b.exit = *exits.begin();

  // The cone goes with it; nothing the block computes but the exit may be read elsewhere.
  std::vector<uint8_t> cone;
  if (!sourceCone(g, b.boundary, false, cone, reason, &region, b.exit)) return false;
  for (int k = 0; k < int(g.nodes.size()); ++k)
    if (cone[k] || region[k]) b.replaced.push_back(k);
  *out = std::move(b);
  return true;
}

size_t rewriteWarpBlockAt(std::vector<uint8_t>& model, const WarpBlock& block, std::string& reason) {
  std::vector<WdNode> nodes;
  wdReadNodes(gsGraphOf(model), nodes);
  int at = -1;
  for (int k = 0; k < int(nodes.size()) && at < 0; ++k) {
    const WdNode& n = nodes[k];
    if ((n.opType == "GridSample" || n.opType == "GridSampleFast") && !n.inputs.empty() &&
        n.inputs[0] == block.boundary)
      at = k;
  }
  if (at < 0 || at != block.gridSampleIndex) {
    reason = "the GridSample moved between passes";
    return 0;
  }
  std::vector<uint8_t> drop(nodes.size(), 0);
  for (int k : block.replaced)
    if (k >= 0 && k < int(drop.size())) drop[k] = 1;
  Bytes out = rebuildGraphFields(
      model,
      [&](const GsField& fd, int k, Bytes& ng) {
        if (k >= 0 && k == at) {
          Bytes n;
          gsPutBytes(n, f::kNodeInput, std::string("P_rgb"));
          gsPutBytes(n, f::kNodeInput, block.grid);
          gsPutBytes(n, f::kNodeOutput, block.exit);
          gsPutBytes(n, f::kNodeName, std::string("le_warp_director"));
          gsPutBytes(n, f::kNodeOpType, std::string("WarpDirector"));
          gsPutBytes(n, f::kNodeDomain, std::string(kCustomDomain));
          gsPutBytes(ng, f::kGraphNode, n);
        } else if (!(k >= 0 && drop[k]) &&
                   !(isLen(fd, f::kGraphValueInfo) && gsFirstStr(fd.payload, f::kValueInfoName) == block.boundary)) {
          gsPutRaw(ng, fd.raw);
        }
      },
      true);
  model.swap(out);
  return block.replaced.size();
}

size_t rewriteWarpBlockToCustomOp(std::vector<uint8_t>& model, std::string& reason) {
  WarpBlock block;
  if (!findWarpBlock(model, &block, reason)) return 0;
  return rewriteWarpBlockAt(model, block, reason);
}

// ---- source-cone split --------------------------------------------------------------------------

int findSourceConeBoundary(GsSlice model, std::string& boundary) {
  GraphView g(model);
  std::string b;
  const int count = countPrgbConcats(g, &b);
  boundary = count == 1 ? b : std::string();
  return count;
}

namespace {

// Shared front of both halves of the split: the graph, its "P_rgb" input and the cone.
bool splitCone(GsSlice model, const GraphView& g, const std::string& boundary, std::vector<uint8_t>& cone,
               std::string& reason) {
  if (g.graph.empty()) {
    reason = "no graph";
    return false;
  }
  if (!g.inputs.count("P_rgb")) {
    reason = "no P_rgb input";
    return false;
  }
  return sourceCone(g, boundary, true, cone, reason);
}

// The values the nodes left after dropping `dropped` read, or null when one of them carries a
// subgraph (whose reads of outer initializers are not listed as its inputs).
std::unique_ptr<std::set<std::string>> readByKept(const GraphView& g, const std::vector<uint8_t>& dropped) {
  // an initializer that is also declared as a graph input stays (older models list them so)
  auto used = std::make_unique<std::set<std::string>>(g.inputs.begin(), g.inputs.end());
  for (size_t k = 0; k < g.nodes.size(); ++k) {
    if (dropped[k]) continue;
    const std::string& op = g.nodes[k].opType;
    if (op == "If" || op == "Loop" || op == "Scan") return nullptr;
    used->insert(g.nodes[k].inputs.begin(), g.nodes[k].inputs.end());
  }
  return used;
}

}  // namespace

bool buildSourceConePrep(GsSlice model, const std::string& boundary, std::vector<uint8_t>& prep,
                         std::string& reason) {
  GraphView g(model);
  std::vector<uint8_t> cone;
  if (!splitCone(model, g, boundary, cone, reason)) return false;
  std::vector<uint8_t> drop(g.nodes.size(), 1);
  bool any = false;
  for (size_t k = 0; k < g.nodes.size(); ++k)
    if (cone[k] || g.nodes[k].opType == "Constant") drop[k] = 0, any = true;
  if (!any) {
    reason = "empty cone";
    return false;
  }
  const auto used = readByKept(g, drop);
  GsGraphEdit e;
  e.dropNodes = &drop;
  e.keepInitializers = used.get();
  e.keepOnlyPrgbInput = true;
  e.dropOutputs = true;
  e.declare(boundary, nullptr, 4, f::kGraphOutput);
  Bytes out;
  gsRebuild(model, e, out);
  prep.swap(out);
  return true;
}

bool buildSourceConePerFrame(GsSlice model, const std::string& boundary, const int64_t* dims, int rank,
                             std::vector<uint8_t>& perFrame, std::string& reason) {
  GraphView g(model);
  std::vector<uint8_t> cone;
  if (!splitCone(model, g, boundary, cone, reason)) return false;
  const auto used = readByKept(g, cone);
  GsGraphEdit e;
  e.dropNodes = &cone;
  e.keepInitializers = used.get();
  e.dropPrgbInput = true;
  e.declare(boundary, dims, rank, f::kGraphInput);
  Bytes out;
  gsRebuild(model, e, out);
  perFrame.swap(out);
  return true;
}

}  // namespace le
