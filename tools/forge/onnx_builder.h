// Graph builder: writes complete ONNX ModelProto bytes with the engine's own wire-format writers.
// The forge and the tests make every network they need with it (no model is ever downloaded).
//
//   le::forge::OnnxBuilder b("tiny");
//   b.input("x", {1, 3, "H", "W"});
//   std::string w = b.init("w", {3, 1, 3, 3}, weights);
//   std::string y = b.op("Conv", {"x", w}, {Attr::i("group", 3), Attr::ints("pads", {1, 1, 1, 1})});
//   b.output(b.op("Relu", {y}, {}, "", "y"), {1, 3, "H", "W"});
//   std::vector<uint8_t> model = b.build();
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace le::forge {

// TensorProto.DataType values.
enum class Elem : int { Float = 1, Uint8 = 2, Int8 = 3, Int32 = 6, Int64 = 7, Bool = 9, Float16 = 10 };

// One dimension of a declared shape: a fixed size, or a symbolic name (an empty name or a
// value below 0 leaves the dimension unknown).
struct Dim {
  int64_t value = -1;
  std::string param;
  Dim(int64_t v) : value(v) {}                   // NOLINT: {1, 3, "H", "W"} reads best
  Dim(int v) : value(v) {}                       // NOLINT
  Dim(const char* p) : param(p) {}               // NOLINT
  Dim(std::string p) : param(std::move(p)) {}    // NOLINT
};
using Shape = std::vector<Dim>;

// A TensorProto with raw little-endian data.
struct Tensor {
  std::string name;
  Elem type = Elem::Float;
  std::vector<int64_t> dims;
  std::vector<uint8_t> raw;

  static Tensor floats(std::vector<int64_t> dims, const std::vector<float>& values, std::string name = "");
  static Tensor int64s(std::vector<int64_t> dims, const std::vector<int64_t>& values, std::string name = "");
  static Tensor int32s(std::vector<int64_t> dims, const std::vector<int32_t>& values, std::string name = "");
  static Tensor uint8s(std::vector<int64_t> dims, const std::vector<uint8_t>& values, std::string name = "");
  // A rank-0 tensor.
  static Tensor scalar(float v, std::string name = "");

  int64_t elementCount() const;
  // The encoded TensorProto (also the format of the ONNX test suites' .pb files).
  std::vector<uint8_t> encode() const;
};

// An encoded AttributeProto.
class Attr {
 public:
  static Attr i(const std::string& name, int64_t v);
  static Attr f(const std::string& name, float v);
  static Attr s(const std::string& name, const std::string& v);
  static Attr ints(const std::string& name, const std::vector<int64_t>& v);
  static Attr floats(const std::string& name, const std::vector<float>& v);
  static Attr tensor(const std::string& name, const Tensor& t);
  const std::vector<uint8_t>& bytes() const { return bytes_; }

 private:
  std::vector<uint8_t> bytes_;
};

class OnnxBuilder {
 public:
  // The default-domain opset; 17 covers everything the engine's networks use (GridSample 16).
  explicit OnnxBuilder(std::string graphName = "le_forge", int64_t opset = 17);

  // Adds (or changes the version of) an opset import, e.g. opset("com.vantorix", 1).
  OnnxBuilder& opset(const std::string& domain, int64_t version);
  // Defaults to the lowest IR version that carries the default-domain opset.
  OnnxBuilder& irVersion(int64_t v);

  OnnxBuilder& input(const std::string& name, const Shape& shape, Elem type = Elem::Float);
  OnnxBuilder& output(const std::string& name, const Shape& shape, Elem type = Elem::Float);
  OnnxBuilder& valueInfo(const std::string& name, const Shape& shape, Elem type = Elem::Float);

  // Initializers; each returns the tensor's name (t.name, or a fresh one when empty).
  std::string initializer(Tensor t);
  std::string init(const std::string& name, std::vector<int64_t> dims, const std::vector<float>& values);
  std::string initI64(const std::string& name, std::vector<int64_t> dims, const std::vector<int64_t>& values);
  // A Constant node holding t; returns its output.
  std::string constant(Tensor t);

  // A node with explicit outputs; returns the first. An empty name gets "/<op>_<k>".
  std::string node(const std::string& opType, const std::vector<std::string>& inputs,
                   const std::vector<std::string>& outputs, const std::vector<Attr>& attrs = {},
                   const std::string& name = "", const std::string& domain = "");
  // A single-output node; the output is `output` or a fresh name. Returns the output.
  std::string op(const std::string& opType, const std::vector<std::string>& inputs,
                 const std::vector<Attr>& attrs = {}, const std::string& domain = "",
                 const std::string& output = "");
  // A value name not used before, built from prefix.
  std::string fresh(const std::string& prefix);

  size_t nodeCount() const { return nodeCount_; }
  // The complete ModelProto.
  std::vector<uint8_t> build() const;
  // Writes build() to path; throws std::runtime_error naming the path on failure.
  void save(const std::string& path) const;

 private:
  std::string graphName_;
  int64_t irVersion_ = 0;
  std::vector<std::pair<std::string, int64_t>> opsets_;
  std::vector<uint8_t> nodes_, inits_, inputs_, outputs_, valueInfos_;
  size_t nodeCount_ = 0;
  size_t freshCount_ = 0;
};

// The director's warp block in standard operators (default-domain opset 16 or newer): second
// differences of src [N, 3, H, W] by an edge Pad and a fixed depthwise 3x3 Conv, concatenated
// with src (the source cone), one GridSample (bilinear, border, align_corners 0) of the 12
// channels at grid [N, H, W, 2], then Slice/Mul/Sub/Add recombination into
// F - ax*Fxx - ay*Fyy + ax*ay*Fxxyy. Returns the block's single exit value [N, 3, H, W];
// com.vantorix::WarpDirector computes the same in one node. Node names start with prefix.
std::string addStandardWarpBlock(OnnxBuilder& b, const std::string& src, const std::string& grid,
                                 int64_t H, int64_t W, const std::string& prefix = "/warp");

// One-node models over X [N, C, H, W] and grid [N, H, W, 2] giving "Y" [N, C, H, W]: ONNX's
// GridSample (bilinear, border, align_corners 0) or com.vantorix::GridSampleFast.
std::vector<uint8_t> gridSampleModel(bool fast, int64_t N, int64_t C, int64_t H, int64_t W);
// The warp over "P_rgb" [N, C, H, W] and "grid" [N, H, W, 2] giving "warped" [N, 3, H, W]: one
// com.vantorix::WarpDirector node, or the standard block of addStandardWarpBlock.
std::vector<uint8_t> warpModel(bool fused, int64_t N, int64_t C, int64_t H, int64_t W);

// Writes bytes to a file; throws std::runtime_error naming the path on failure.
void writeModelBytes(const std::string& path, const std::vector<uint8_t>& bytes);
// Reads a whole file; throws std::runtime_error naming the path on failure.
std::vector<uint8_t> readModelBytes(const std::string& path);

}  // namespace le::forge
