// Wire-format toolkit for encoded ONNX models: a zero-copy protocol-buffer field reader, the
// few ONNX readers the load-time rewrites need, field writers and the model rebuilder.
// No protocol-buffer library is involved: fields we do not understand are copied byte for byte.
//
// Malformed input throws std::runtime_error with exactly "onnx: bad varint", "onnx: truncated"
// or "onnx: bad wire type". Readers looking for something absent return empty results.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace le {

// Non-owning byte range. Slices returned by the readers point into the caller's buffer and
// stay valid as long as that buffer is neither freed nor resized.
struct GsSlice {
  const uint8_t* p = nullptr;
  size_t n = 0;

  GsSlice() = default;
  GsSlice(const uint8_t* data, size_t len) : p(data), n(len) {}
  GsSlice(const std::vector<uint8_t>& v) : p(v.data()), n(v.size()) {}  // NOLINT: implicit view

  bool empty() const { return n == 0; }
  const uint8_t* begin() const { return p; }
  const uint8_t* end() const { return p + n; }
  std::string str() const { return n ? std::string(reinterpret_cast<const char*>(p), n) : std::string(); }
  bool operator==(const char* s) const;
};

// One decoded field. `value` holds the varint (wire type 0) or, as an extension, the
// little-endian bits of a fixed64 (1) or fixed32 (5) field; `payload` is set for wire type 2.
// `raw` spans the whole field, key included, so an editor can copy it unchanged.
struct GsField {
  uint32_t number = 0;
  uint8_t wireType = 0;
  uint64_t value = 0;
  GsSlice payload;
  GsSlice raw;
};

// Cursor over one message's bytes.
class GsReader {
 public:
  GsReader(GsSlice msg) : pos_(msg.p), end_(msg.p + msg.n) {}  // NOLINT: implicit view
  GsReader(const uint8_t* data, size_t len) : pos_(data), end_(data + len) {}
  // Decodes the next field into f; false at the end of the range. Throws on malformed bytes.
  bool next(GsField& f);
  const uint8_t* pos() const { return pos_; }
  const uint8_t* end() const { return end_; }

 private:
  const uint8_t* pos_;
  const uint8_t* end_;
};

// The same reader without the raw span (the convolution backend's graph check uses it).
struct PbField {
  uint32_t number = 0;
  uint8_t wireType = 0;
  uint64_t value = 0;
  GsSlice payload;
};

class PbReader {
 public:
  PbReader(GsSlice msg) : r_(msg) {}  // NOLINT: implicit view
  PbReader(const uint8_t* data, size_t len) : r_(data, len) {}
  bool next(PbField& f);

 private:
  GsReader r_;
};

// One NodeProto as the rewrites see it.
struct GsNodeInfo {
  GsSlice bytes;  // the node's payload (the NodeProto message)
  std::string opType;
  std::vector<std::string> inputs;
  std::vector<std::string> outputs;
};

// A node for the warp-block search: its raw graph field and its payload.
struct WdNode {
  GsSlice raw;
  GsSlice payload;
  std::string opType;
  std::vector<std::string> inputs;
  std::vector<std::string> outputs;
};

// The attributes of a Resize node that the cubic rewrite checks.
struct HcAttrs {
  std::string mode;
  std::string coordinateTransformationMode;
  std::string keepAspectRatioPolicy;
  bool hasCubicCoeffA = false;
  float cubicCoeffA = 0.f;
  bool hasAxes = false;
  bool excludeOutside = false;
  bool antialias = false;
};

// What gsRebuild changes in the graph. Pointers are borrowed for the call only.
struct GsGraphEdit {
  const std::vector<uint8_t>* dropNodes = nullptr;  // flag per node index; non-zero drops it
  bool dropPrgbInput = false;
  bool keepOnlyPrgbInput = false;
  bool dropOutputs = false;
  const std::string* addName = nullptr;  // value to declare; its value_info entry is dropped
  const int64_t* addDims = nullptr;
  int addRank = 0;
  uint32_t addField = 0;  // 11 input, 12 output, 0 none
  // When set, initializers not named here are left out (ONNX Runtime warns about each unused one).
  const std::set<std::string>* keepInitializers = nullptr;

  // Declares `name` (rank dims, null dims for named ones) as a graph input or output.
  void declare(const std::string& name, const int64_t* dims, int rank, uint32_t field) {
    addName = &name, addDims = dims, addRank = rank, addField = field;
  }
};

// ONNX field numbers and constants used by the toolkit and its users.
namespace onnxf {
constexpr uint32_t kModelIrVersion = 1, kModelGraph = 7, kModelOpsetImport = 8;
constexpr uint32_t kOpsetDomain = 1, kOpsetVersion = 2;
constexpr uint32_t kGraphNode = 1, kGraphName = 2, kGraphInitializer = 5, kGraphInput = 11,
                   kGraphOutput = 12, kGraphValueInfo = 13;
constexpr uint32_t kNodeInput = 1, kNodeOutput = 2, kNodeName = 3, kNodeOpType = 4,
                   kNodeAttribute = 5, kNodeDomain = 7;
constexpr uint32_t kAttrName = 1, kAttrF = 2, kAttrI = 3, kAttrS = 4, kAttrT = 5, kAttrFloats = 7,
                   kAttrInts = 8, kAttrType = 20;
constexpr uint32_t kTensorDims = 1, kTensorDataType = 2, kTensorFloatData = 4, kTensorName = 8,
                   kTensorRawData = 9;
constexpr uint32_t kValueInfoName = 1, kValueInfoType = 2;
constexpr uint32_t kTypeTensor = 1, kTensorElemType = 1, kTensorShape = 2, kShapeDim = 1,
                   kDimValue = 1, kDimParam = 2;
constexpr int kAttrTypeFloat = 1, kAttrTypeInt = 2, kAttrTypeString = 3, kAttrTypeTensor = 4,
              kAttrTypeFloats = 6, kAttrTypeInts = 7;
constexpr int kDataFloat = 1, kDataInt64 = 7;
}  // namespace onnxf

// ---- readers -------------------------------------------------------------------------------

// Payload of the first ModelProto graph field (7); empty when there is none.
GsSlice gsGraphOf(GsSlice model);
// Payload of the first length-delimited field `field`, as a string; empty when absent.
std::string gsFirstStr(GsSlice msg, uint32_t field);
// Appends the payloads of every length-delimited field `field`, in order.
void gsAllStr(GsSlice msg, uint32_t field, std::vector<std::string>& out);
// Nodes in file order, initializer names and graph-input names of a GraphProto.
void gsReadGraph(GsSlice graph, std::vector<GsNodeInfo>& nodes, std::set<std::string>& initializers,
                 std::set<std::string>& inputs);
void wdReadNodes(GsSlice graph, std::vector<WdNode>& out);
// Dimensions of graph input `name` (0 for a symbolic one). All three stay 0 when it is absent.
void ldInputDims(GsSlice graph, const std::string& name, int64_t& first, int64_t& last, int& rank);
// Payload of the slice's first field when it is length-delimited, else empty.
GsSlice hcPayload(GsSlice s);
// The TensorProto of a Constant node's "value" attribute; empty when there is none.
GsSlice hcConstValue(GsSlice node);
// TensorProto dims, packed or unpacked.
void hcTensorDims(GsSlice tensor, std::vector<int64_t>& out);
// FLOAT tensor values from raw_data (preferred) or float_data. False for other types or no values.
bool hcTensorFloats(GsSlice tensor, std::vector<float>& out);
HcAttrs hcReadAttrs(GsSlice node);

// ---- writers (all append) ------------------------------------------------------------------

void gsPutVarint(std::vector<uint8_t>& out, uint64_t value);
void gsPutBytes(std::vector<uint8_t>& out, uint32_t field, const void* data, size_t len);
inline void gsPutBytes(std::vector<uint8_t>& out, uint32_t field, const std::string& s) {
  gsPutBytes(out, field, s.data(), s.size());
}
inline void gsPutBytes(std::vector<uint8_t>& out, uint32_t field, const std::vector<uint8_t>& v) {
  gsPutBytes(out, field, v.data(), v.size());
}
void gsPutRaw(std::vector<uint8_t>& out, GsSlice s);
// Key of a varint field followed by the value (extension used by the writers below).
void gsPutVarintField(std::vector<uint8_t>& out, uint32_t field, uint64_t value);
// A FLOAT tensor ValueInfoProto written as graph field `field`. dims may be null; a missing or
// non-positive dimension k becomes dim_param "le_hoist_d<k>".
void gsPutTensorValueInfo(std::vector<uint8_t>& out, uint32_t field, const std::string& name,
                          const int64_t* dims, int rank);
// A ValueInfoProto payload: `name`, a tensor of element type elemType with the TensorShapeProto
// payload `shape`.
std::vector<uint8_t> gsValueInfo(const std::string& name, uint64_t elemType, const std::vector<uint8_t>& shape);
// A default-domain NodeProto with one output, appended as graph node (1).
void hcNode(std::vector<uint8_t>& graph, const std::string& opType, const std::vector<std::string>& inputs,
            const std::string& output, const std::string& name, const std::vector<uint8_t>& attrs);
// A TensorProto with raw_data, appended as graph initializer (5).
void hcInit(std::vector<uint8_t>& graph, const std::string& name, int dataType,
            const std::vector<int64_t>& dims, const void* raw, size_t len);
void hcAttrI(std::vector<uint8_t>& node, const std::string& name, int64_t value);
void hcAttrIs(std::vector<uint8_t>& node, const std::string& name, const int64_t* values, size_t count);
// The string attribute "mode".
void hcAttrS(std::vector<uint8_t>& node, const std::string& value);

// Rebuilds `model` into `out` with the graph edited as `edit` says. Every field not edited keeps
// its bytes; the graph is re-encoded with a fresh length at its old place. `out` may be the
// vector `model` views. On a throw `out` holds no usable model; callers keep their original.
void gsRebuild(GsSlice model, const GsGraphEdit& edit, std::vector<uint8_t>& out);

}  // namespace le
