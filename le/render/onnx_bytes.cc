#include "le/render/onnx_bytes.h"

#include <cstring>
#include <stdexcept>

namespace le {

namespace {

[[noreturn]] void badVarint() { throw std::runtime_error("onnx: bad varint"); }
[[noreturn]] void truncated() { throw std::runtime_error("onnx: truncated"); }
[[noreturn]] void badWireType() { throw std::runtime_error("onnx: bad wire type"); }

uint64_t readVarint(const uint8_t*& p, const uint8_t* end) {
  uint64_t v = 0;
  for (unsigned shift = 0;; shift += 7) {
    if (shift >= 70 || p >= end) badVarint();
    const uint8_t b = *p++;
    v |= uint64_t(b & 0x7f) << shift;
    if (b < 0x80) return v;
  }
}

uint64_t readFixed(const uint8_t*& p, const uint8_t* end, size_t width) {
  if (size_t(end - p) < width) truncated();
  uint64_t v = 0;
  for (size_t i = 0; i < width; ++i) v |= uint64_t(p[i]) << (8 * i);
  p += width;
  return v;
}

bool isLen(const GsField& f, uint32_t number) { return f.number == number && f.wireType == 2; }

}  // namespace

bool GsSlice::operator==(const char* s) const {
  const size_t len = std::strlen(s);
  return len == n && (n == 0 || std::memcmp(p, s, n) == 0);
}

bool GsReader::next(GsField& f) {
  if (pos_ >= end_) return false;
  const uint8_t* p = pos_;
  const uint64_t key = readVarint(p, end_);
  f.number = uint32_t(key >> 3);
  f.wireType = uint8_t(key & 7);
  f.value = 0;
  f.payload = GsSlice();
  switch (f.wireType) {
    case 0:
      f.value = readVarint(p, end_);
      break;
    case 1:
      f.value = readFixed(p, end_, 8);
      break;
    case 5:
      f.value = readFixed(p, end_, 4);
      break;
    case 2: {
      const uint64_t len = readVarint(p, end_);
      if (len > uint64_t(end_ - p)) truncated();
      f.payload = GsSlice(p, size_t(len));
      p += len;
      break;
    }
    default:
      badWireType();
  }
  f.raw = GsSlice(pos_, size_t(p - pos_));
  pos_ = p;
  return true;
}

bool PbReader::next(PbField& f) {
  GsField g;
  if (!r_.next(g)) return false;
  f.number = g.number;
  f.wireType = g.wireType;
  f.value = g.value;
  f.payload = g.payload;
  return true;
}

// ---- readers -------------------------------------------------------------------------------

GsSlice gsGraphOf(GsSlice model) {
  GsReader r(model);
  GsField f;
  while (r.next(f))
    if (isLen(f, onnxf::kModelGraph)) return f.payload;
  return GsSlice();
}

std::string gsFirstStr(GsSlice msg, uint32_t field) {
  GsReader r(msg);
  GsField f;
  while (r.next(f))
    if (isLen(f, field)) return f.payload.str();
  return std::string();
}

void gsAllStr(GsSlice msg, uint32_t field, std::vector<std::string>& out) {
  GsReader r(msg);
  GsField f;
  while (r.next(f))
    if (isLen(f, field)) out.push_back(f.payload.str());
}

namespace {

// op_type, inputs and outputs of one NodeProto in a single pass.
void readNode(GsSlice node, std::string& opType, std::vector<std::string>& inputs,
              std::vector<std::string>& outputs) {
  GsReader r(node);
  GsField f;
  bool haveOp = false;
  while (r.next(f)) {
    if (f.wireType != 2) continue;
    if (f.number == onnxf::kNodeInput) {
      inputs.push_back(f.payload.str());
    } else if (f.number == onnxf::kNodeOutput) {
      outputs.push_back(f.payload.str());
    } else if (f.number == onnxf::kNodeOpType && !haveOp) {
      opType = f.payload.str();
      haveOp = true;
    }
  }
}

}  // namespace

void gsReadGraph(GsSlice graph, std::vector<GsNodeInfo>& nodes, std::set<std::string>& initializers,
                 std::set<std::string>& inputs) {
  GsReader r(graph);
  GsField f;
  while (r.next(f)) {
    if (f.wireType != 2) continue;
    if (f.number == onnxf::kGraphNode) {
      GsNodeInfo n;
      n.bytes = f.payload;
      readNode(f.payload, n.opType, n.inputs, n.outputs);
      nodes.push_back(std::move(n));
    } else if (f.number == onnxf::kGraphInitializer) {
      initializers.insert(gsFirstStr(f.payload, onnxf::kTensorName));
    } else if (f.number == onnxf::kGraphInput) {
      inputs.insert(gsFirstStr(f.payload, onnxf::kValueInfoName));
    }
  }
}

void wdReadNodes(GsSlice graph, std::vector<WdNode>& out) {
  GsReader r(graph);
  GsField f;
  while (r.next(f)) {
    if (!isLen(f, onnxf::kGraphNode)) continue;
    WdNode n;
    n.raw = f.raw;
    n.payload = f.payload;
    readNode(f.payload, n.opType, n.inputs, n.outputs);
    out.push_back(std::move(n));
  }
}

void ldInputDims(GsSlice graph, const std::string& name, int64_t& first, int64_t& last, int& rank) {
  first = last = 0;
  rank = 0;
  GsReader r(graph);
  GsField f;
  while (r.next(f)) {
    if (!isLen(f, onnxf::kGraphInput)) continue;
    if (gsFirstStr(f.payload, onnxf::kValueInfoName) != name) continue;
    GsSlice type, tensor, shape;
    GsReader vr(f.payload);
    GsField g;
    while (vr.next(g))
      if (isLen(g, onnxf::kValueInfoType)) { type = g.payload; break; }
    GsReader tr(type);
    while (tr.next(g))
      if (isLen(g, onnxf::kTypeTensor)) { tensor = g.payload; break; }
    GsReader ter(tensor);
    while (ter.next(g))
      if (isLen(g, onnxf::kTensorShape)) { shape = g.payload; break; }
    GsReader sr(shape);
    int n = 0;
    int64_t firstV = 0, lastV = 0;
    while (sr.next(g)) {
      if (!isLen(g, onnxf::kShapeDim)) continue;
      int64_t v = 0;
      GsReader dr(g.payload);
      GsField d;
      while (dr.next(d))
        if (d.number == onnxf::kDimValue && d.wireType == 0) v = int64_t(d.value);
      if (n == 0) firstV = v;
      lastV = v;
      ++n;
    }
    first = firstV;
    last = lastV;
    rank = n;
    return;
  }
}

GsSlice hcPayload(GsSlice s) {
  GsReader r(s);
  GsField f;
  if (r.next(f) && f.wireType == 2) return f.payload;
  return GsSlice();
}

GsSlice hcConstValue(GsSlice node) {
  GsReader r(node);
  GsField f;
  while (r.next(f)) {
    if (!isLen(f, onnxf::kNodeAttribute)) continue;
    GsReader ar(f.payload);
    GsField a;
    bool isValue = false;
    GsSlice t;
    bool haveT = false;
    while (ar.next(a)) {
      if (isLen(a, onnxf::kAttrName)) isValue = a.payload == "value";
      else if (isLen(a, onnxf::kAttrT) && !haveT) { t = a.payload; haveT = true; }
    }
    if (isValue && haveT) return t;
  }
  return GsSlice();
}

void hcTensorDims(GsSlice tensor, std::vector<int64_t>& out) {
  GsReader r(tensor);
  GsField f;
  while (r.next(f)) {
    if (f.number != onnxf::kTensorDims) continue;
    if (f.wireType == 0) {
      out.push_back(int64_t(f.value));
    } else if (f.wireType == 2) {
      const uint8_t* p = f.payload.begin();
      while (p < f.payload.end()) out.push_back(int64_t(readVarint(p, f.payload.end())));
    }
  }
}

bool hcTensorFloats(GsSlice tensor, std::vector<float>& out) {
  GsReader r(tensor);
  GsField f;
  int64_t dataType = 0;
  GsSlice raw;
  bool haveRaw = false;
  std::vector<float> fd;
  while (r.next(f)) {
    if (f.number == onnxf::kTensorDataType && f.wireType == 0) {
      dataType = int64_t(f.value);
    } else if (f.number == onnxf::kTensorRawData && f.wireType == 2) {
      raw = f.payload;
      haveRaw = raw.n > 0;  // an empty raw_data is an unset one
    } else if (f.number == onnxf::kTensorFloatData) {
      if (f.wireType == 5) {
        const uint32_t bits = uint32_t(f.value);
        float v;
        std::memcpy(&v, &bits, 4);
        fd.push_back(v);
      } else if (f.wireType == 2) {
        const size_t n = f.payload.n / 4;
        const size_t at = fd.size();
        fd.resize(at + n);
        if (n) std::memcpy(fd.data() + at, f.payload.p, n * 4);
      }
    }
  }
  if (dataType != onnxf::kDataFloat) return false;
  const size_t before = out.size();
  if (haveRaw) {
    const size_t n = raw.n / 4;
    out.resize(before + n);
    if (n) std::memcpy(out.data() + before, raw.p, n * 4);  // little-endian host
  } else {
    out.insert(out.end(), fd.begin(), fd.end());
  }
  return out.size() > before;
}

HcAttrs hcReadAttrs(GsSlice node) {
  HcAttrs out;
  GsReader r(node);
  GsField f;
  while (r.next(f)) {
    if (!isLen(f, onnxf::kNodeAttribute)) continue;
    std::string name;
    GsField s, fl, i;
    bool hasS = false, hasF = false, hasI = false, hasInts = false;
    GsReader ar(f.payload);
    GsField a;
    while (ar.next(a)) {
      if (isLen(a, onnxf::kAttrName)) name = a.payload.str();
      else if (isLen(a, onnxf::kAttrS)) { s = a; hasS = true; }
      else if (a.number == onnxf::kAttrF && a.wireType == 5) { fl = a; hasF = true; }
      else if (a.number == onnxf::kAttrI && a.wireType == 0) { i = a; hasI = true; }
      else if (a.number == onnxf::kAttrInts) hasInts = true;
    }
    if (name == "mode" && hasS) out.mode = s.payload.str();
    else if (name == "coordinate_transformation_mode" && hasS) out.coordinateTransformationMode = s.payload.str();
    else if (name == "keep_aspect_ratio_policy" && hasS) out.keepAspectRatioPolicy = s.payload.str();
    else if (name == "cubic_coeff_a" && hasF) {
      const uint32_t bits = uint32_t(fl.value);
      std::memcpy(&out.cubicCoeffA, &bits, 4);
      out.hasCubicCoeffA = true;
    } else if (name == "exclude_outside" && hasI) out.excludeOutside = i.value != 0;
    else if (name == "antialias" && hasI) out.antialias = i.value != 0;
    else if (name == "axes" && hasInts) out.hasAxes = true;
  }
  return out;
}

// ---- writers -------------------------------------------------------------------------------

void gsPutVarint(std::vector<uint8_t>& out, uint64_t value) {
  while (value >= 0x80) {
    out.push_back(uint8_t(value | 0x80));
    value >>= 7;
  }
  out.push_back(uint8_t(value));
}

void gsPutVarintField(std::vector<uint8_t>& out, uint32_t field, uint64_t value) {
  gsPutVarint(out, uint64_t(field) << 3);
  gsPutVarint(out, value);
}

void gsPutBytes(std::vector<uint8_t>& out, uint32_t field, const void* data, size_t len) {
  gsPutVarint(out, (uint64_t(field) << 3) | 2);
  gsPutVarint(out, len);
  const auto* b = static_cast<const uint8_t*>(data);
  if (len) out.insert(out.end(), b, b + len);
}

void gsPutRaw(std::vector<uint8_t>& out, GsSlice s) {
  if (s.n) out.insert(out.end(), s.p, s.p + s.n);
}

void gsPutTensorValueInfo(std::vector<uint8_t>& out, uint32_t field, const std::string& name,
                          const int64_t* dims, int rank) {
  std::vector<uint8_t> shape;
  for (int k = 0; k < rank; ++k) {
    std::vector<uint8_t> dim;
    if (dims && dims[k] > 0) {
      gsPutVarintField(dim, onnxf::kDimValue, uint64_t(dims[k]));
    } else {
      gsPutBytes(dim, onnxf::kDimParam, "le_hoist_d" + std::to_string(k));
    }
    gsPutBytes(shape, onnxf::kShapeDim, dim);
  }
  gsPutBytes(out, field, gsValueInfo(name, onnxf::kDataFloat, shape));
}

std::vector<uint8_t> gsValueInfo(const std::string& name, uint64_t elemType, const std::vector<uint8_t>& shape) {
  std::vector<uint8_t> tensor;
  gsPutVarintField(tensor, onnxf::kTensorElemType, elemType);
  gsPutBytes(tensor, onnxf::kTensorShape, shape);
  std::vector<uint8_t> type;
  gsPutBytes(type, onnxf::kTypeTensor, tensor);
  std::vector<uint8_t> vi;
  gsPutBytes(vi, onnxf::kValueInfoName, name);
  gsPutBytes(vi, onnxf::kValueInfoType, type);
  return vi;
}

void hcNode(std::vector<uint8_t>& graph, const std::string& opType, const std::vector<std::string>& inputs,
            const std::string& output, const std::string& name, const std::vector<uint8_t>& attrs) {
  std::vector<uint8_t> node;
  for (const std::string& in : inputs) gsPutBytes(node, onnxf::kNodeInput, in);
  gsPutBytes(node, onnxf::kNodeOutput, output);
  gsPutBytes(node, onnxf::kNodeName, name);
  gsPutBytes(node, onnxf::kNodeOpType, opType);
  gsPutRaw(node, attrs);
  gsPutBytes(graph, onnxf::kGraphNode, node);
}

void hcInit(std::vector<uint8_t>& graph, const std::string& name, int dataType,
            const std::vector<int64_t>& dims, const void* raw, size_t len) {
  std::vector<uint8_t> t;
  for (int64_t d : dims) gsPutVarintField(t, onnxf::kTensorDims, uint64_t(d));
  gsPutVarintField(t, onnxf::kTensorDataType, uint64_t(int64_t(dataType)));
  gsPutBytes(t, onnxf::kTensorName, name);
  gsPutBytes(t, onnxf::kTensorRawData, raw, len);
  gsPutBytes(graph, onnxf::kGraphInitializer, t);
}

void hcAttrI(std::vector<uint8_t>& node, const std::string& name, int64_t value) {
  std::vector<uint8_t> a;
  gsPutBytes(a, onnxf::kAttrName, name);
  gsPutVarintField(a, onnxf::kAttrI, uint64_t(value));
  gsPutVarintField(a, onnxf::kAttrType, onnxf::kAttrTypeInt);
  gsPutBytes(node, onnxf::kNodeAttribute, a);
}

void hcAttrIs(std::vector<uint8_t>& node, const std::string& name, const int64_t* values, size_t count) {
  std::vector<uint8_t> a;
  gsPutBytes(a, onnxf::kAttrName, name);
  for (size_t k = 0; k < count; ++k) gsPutVarintField(a, onnxf::kAttrInts, uint64_t(values[k]));
  gsPutVarintField(a, onnxf::kAttrType, onnxf::kAttrTypeInts);
  gsPutBytes(node, onnxf::kNodeAttribute, a);
}

void hcAttrS(std::vector<uint8_t>& node, const std::string& value) {
  std::vector<uint8_t> a;
  gsPutBytes(a, onnxf::kAttrName, "mode");
  gsPutBytes(a, onnxf::kAttrS, value);
  gsPutVarintField(a, onnxf::kAttrType, onnxf::kAttrTypeString);
  gsPutBytes(node, onnxf::kNodeAttribute, a);
}

// ---- rebuild -------------------------------------------------------------------------------

namespace {

void rebuildGraph(GsSlice graph, const GsGraphEdit& e, std::vector<uint8_t>& g) {
  g.reserve(graph.n + 256);
  GsReader r(graph);
  GsField f;
  size_t nodeIndex = 0;
  while (r.next(f)) {
    if (f.wireType == 2) {
      if (f.number == onnxf::kGraphNode) {
        const size_t k = nodeIndex++;
        if (e.dropNodes && k < e.dropNodes->size() && (*e.dropNodes)[k]) continue;
      } else if (f.number == onnxf::kGraphInput) {
        if (e.keepOnlyPrgbInput || e.dropPrgbInput) {
          const bool isPrgb = gsFirstStr(f.payload, onnxf::kValueInfoName) == "P_rgb";
          const bool keep = e.keepOnlyPrgbInput ? (isPrgb && !e.dropPrgbInput) : !isPrgb;
          if (!keep) continue;
        }
      } else if (f.number == onnxf::kGraphInitializer) {
        if (e.keepInitializers && !e.keepInitializers->count(gsFirstStr(f.payload, onnxf::kTensorName))) continue;
      } else if (f.number == onnxf::kGraphOutput) {
        if (e.dropOutputs) continue;
      } else if (f.number == onnxf::kGraphValueInfo) {
        if (e.addName && gsFirstStr(f.payload, onnxf::kValueInfoName) == *e.addName) continue;
      }
    }
    gsPutRaw(g, f.raw);
  }
  if (e.addName && e.addField != 0) gsPutTensorValueInfo(g, e.addField, *e.addName, e.addDims, e.addRank);
}

}  // namespace

void gsRebuild(GsSlice model, const GsGraphEdit& edit, std::vector<uint8_t>& out) {
  if (model.n && model.p >= out.data() && model.p < out.data() + out.size()) {
    // Rebuilding a buffer into itself: build aside, then take the result.
    std::vector<uint8_t> fresh;
    gsRebuild(model, edit, fresh);
    out.swap(fresh);
    return;
  }
  out.clear();
  out.reserve(model.n + 256);
  GsReader r(model);
  GsField f;
  std::vector<uint8_t> g;
  while (r.next(f)) {
    if (isLen(f, onnxf::kModelGraph)) {
      g.clear();
      rebuildGraph(f.payload, edit, g);
      gsPutBytes(out, onnxf::kModelGraph, g);
    } else {
      gsPutRaw(out, f.raw);
    }
  }
}

}  // namespace le
