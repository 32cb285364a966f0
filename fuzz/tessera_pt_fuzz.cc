// The head-weights reader over arbitrary bytes: the ten tensors with their shapes or one of its
// runtime errors, never a read outside the input.
#include <cstdint>
#include <cstdlib>
#include <stdexcept>

#include "le/tessera/le_tessera_pt.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  try {
    const le::tessera::HeadWeights w = le::tessera::loadHeadPt(data, size);
    const auto& specs = le::tessera::headTensorSpecs();
    for (size_t i = 0; i < 10; ++i)
      if (!w.t[i].empty() && w.t[i].size() != specs[i].elements()) std::abort();
    if (w.params() != 4082 && w.params() != 3489) std::abort();
  } catch (const std::runtime_error&) {
  }
  return 0;
}
