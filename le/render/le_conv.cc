#include "le/render/le_conv.h"

#include <cctype>
#include <cstdio>
#include <fstream>
#include <stdexcept>

#include "le/render/onnx_bytes.h"

namespace le {

namespace {

namespace f = onnxf;

constexpr int64_t kPreDims[] = {96, 85, 1, 1, 0};
constexpr int64_t kBiasDims[] = {96, 0};
constexpr int64_t kE0WeightDims[] = {96, 96, 3, 3, 0};
constexpr int64_t kBasisDims[] = {64, 196608, 0};
constexpr int64_t kGrid32Dims[] = {1, 1, 32, 32, 2, 0};

constexpr M4bDrifting kPre{"onnx::Conv_313", kPreDims};
constexpr M4bDrifting kBasis{"onnx::MatMul_338", kBasisDims};
constexpr M4bDrifting kGrid32{"onnx::Sub_316", kGrid32Dims};

bool refuse(const std::string& why) {
  std::fprintf(stderr, "[le] le_conv graph check: %s\n", why.c_str());
  return false;
}

const std::vector<int64_t>* dimsOf(const TensorShapes& shapes, const std::string& name) {
  for (const auto& s : shapes)
    if (s.first == name) return &s.second;
  return nullptr;
}

}  // namespace

bool dimsEq(const std::vector<int64_t>& dims, const int64_t* expected) {
  size_t k = 0;
  for (; expected[k] != 0; ++k)
    if (k >= dims.size() || dims[k] != expected[k]) return false;
  return k == dims.size();
}

std::string resolveByShape(const TensorShapes& shapes, const M4bDrifting& entry) {
  const std::vector<int64_t>* canonical = dimsOf(shapes, entry.canonical);
  if (canonical && dimsEq(*canonical, entry.dims)) return entry.canonical;
  const std::string* found = nullptr;
  for (const auto& s : shapes) {
    if (!dimsEq(s.second, entry.dims)) continue;
    if (found) return "";  // ambiguous
    found = &s.first;
  }
  return found ? *found : "";
}

TensorShapes initializerShapes(const std::vector<uint8_t>& model) {
  TensorShapes shapes;
  PbField m;
  for (PbReader mr(model); mr.next(m);) {
    if (m.number != f::kModelGraph || m.wireType != 2) continue;
    PbField g;
    for (PbReader gr(m.payload); gr.next(g);) {
      if (g.number != f::kGraphInitializer || g.wireType != 2) continue;
      std::string name;
      PbField t;
      for (PbReader tr(g.payload); tr.next(t);)
        if (t.number == f::kTensorName && t.wireType == 2) name = t.payload.str();
      std::vector<int64_t> dims;
      hcTensorDims(g.payload, dims);
      shapes.emplace_back(std::move(name), std::move(dims));
    }
  }
  return shapes;
}

bool ConvBackend::available() { return false; }

std::unique_ptr<ConvBackend> ConvBackend::create(const std::string&, int) {
  throw std::runtime_error("le_conv: built without NEON fp16 support");
}

bool ConvBackend::graphSupported(const std::string& modelPath) {
  std::ifstream in(modelPath, std::ios::binary);
  if (!in) return refuse("cannot open " + modelPath);
  const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const TensorShapes shapes = initializerShapes(bytes);

  const std::vector<int64_t>* e0w = dimsOf(shapes, "s.e0.conv.weight");
  const std::vector<int64_t>* e0b = dimsOf(shapes, "s.e0.conv.bias");
  if (!e0w || !dimsEq(*e0w, kE0WeightDims) || !e0b || !dimsEq(*e0b, kBiasDims))
    return refuse("s.e0.conv.weight (96,96,3,3) or s.e0.conv.bias (96) absent");

  const std::string pre = resolveByShape(shapes, kPre);
  if (pre.empty()) return refuse("pre weight (96,85,1,1) absent or ambiguous");
  size_t digits = pre.size();
  while (digits > 0 && std::isdigit(static_cast<unsigned char>(pre[digits - 1]))) --digits;
  // A counter longer than 18 digits cannot be an exporter's value counter.
  if (digits == pre.size() || pre.size() - digits > 18) return refuse("pre weight name carries no SSA counter");
  const std::string bias = pre.substr(0, digits) + std::to_string(std::stoll(pre.substr(digits)) + 1);
  const std::vector<int64_t>* bd = dimsOf(shapes, bias);
  if (!bd || !dimsEq(*bd, kBiasDims)) return refuse("pre bias " + bias + " absent or not (96)");

  if (resolveByShape(shapes, kBasis).empty()) return refuse("basis (64,196608) absent or ambiguous");
  if (resolveByShape(shapes, kGrid32).empty()) return refuse("grid32 (1,1,32,32,2) absent or ambiguous");
  return true;
}

}  // namespace le
