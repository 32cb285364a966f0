// The alternative director runner on fp16 NEON arithmetic, and the check that a director graph
// is the fused m4b graph it was written for. This build has no NEON fp16 arithmetic: the
// backend is never available and create() refuses; the graph check works everywhere.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace le {

// Initializer names with their dimensions, in file order.
using TensorShapes = std::vector<std::pair<std::string, std::vector<int64_t>>>;

// A tensor the graph check looks for: its canonical name and its dimensions, zero-terminated.
struct M4bDrifting {
  const char* canonical;
  const int64_t* dims;
};

// True when dims equals the zero-terminated list expected (a list starting with 0 matches only
// an empty dims).
bool dimsEq(const std::vector<int64_t>& dims, const int64_t* expected);

// The entry's canonical name when an initializer of that name has the expected dimensions; else
// the one initializer whose dimensions match, when exactly one does; else "".
std::string resolveByShape(const TensorShapes& shapes, const M4bDrifting& entry);

// Initializer names and dimensions of an encoded model. Throws the wire-format errors
// ("onnx: bad varint", "onnx: truncated", "onnx: bad wire type").
TensorShapes initializerShapes(const std::vector<uint8_t>& model);

class ConvBackend {
 public:
  virtual ~ConvBackend() = default;

  // Whether this build and processor run the backend (never, here).
  static bool available();
  // The backend over the director at modelPath; throws "le_conv: built without NEON fp16
  // support" in this build.
  static std::unique_ptr<ConvBackend> create(const std::string& modelPath, int threads);
  // Whether the model file holds the fused m4b graph. Prints why not to stderr and returns
  // false; throws the wire-format errors on a malformed file.
  static bool graphSupported(const std::string& modelPath);

  // n frames: per frame the identity's fp16 pooled features and fp16 prior, 63 floats of source
  // and driving keypoints each; writes n planar crops into out.
  virtual void run(const uint16_t* const* pooled, const uint16_t* const* prior, const float* kpSource,
                   const float* kpDriving, int n, float* out) = 0;
};

}  // namespace le
