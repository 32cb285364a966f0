// The blend head's weights, read from the PyTorch state-dict file the bundle ships without any
// PyTorch runtime: a reader of the stored ZIP PyTorch writes and of the pickle subset such a file
// uses. Anything outside that subset is refused, never guessed at.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace le::tessera {

// One parameter tensor of the head: its state-dict name and shape.
struct HeadTensorSpec {
  const char* name;
  std::vector<int64_t> shape;
  size_t elements() const;
};

// The ten tensors in file order: cand.0/2/4 weight and bias, then the optional syn.0/2.
const std::array<HeadTensorSpec, 10>& headTensorSpecs();

struct HeadWeights {
  // Row-major float32 in headTensorSpecs() order; the four syn tensors are empty without the
  // synthesis branch.
  std::array<std::vector<float>, 10> t;
  float envelope = 12.0f / 255.0f;

  const std::vector<float>& cand0W() const { return t[0]; }
  const std::vector<float>& cand0B() const { return t[1]; }
  const std::vector<float>& cand2W() const { return t[2]; }
  const std::vector<float>& cand2B() const { return t[3]; }
  const std::vector<float>& cand4W() const { return t[4]; }
  const std::vector<float>& cand4B() const { return t[5]; }
  const std::vector<float>& syn0W() const { return t[6]; }
  const std::vector<float>& syn0B() const { return t[7]; }
  const std::vector<float>& syn2W() const { return t[8]; }
  const std::vector<float>& syn2B() const { return t[9]; }
  bool hasSyn() const { return !t[6].empty(); }
  // Total elements: 4,082 with the synthesis branch, 3,489 without.
  size_t params() const;
};

// Parses a whole head-weights file. Throws std::runtime_error with a "teeth: ..." reason.
HeadWeights loadHeadPt(const std::vector<uint8_t>& bytes);
HeadWeights loadHeadPt(const uint8_t* data, size_t size);

}  // namespace le::tessera
