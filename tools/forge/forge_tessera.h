// The forge's mouth-interior borrow members: a bank of donor mouth patches cut from the forged
// face at many mouth openings (teeth visible), its sidecar, the blend head's config and its
// weights in PyTorch's own file format.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "le/tessera/le_bundle_tessera.h"
#include "tools/forge/forge.h"

namespace le::forge {

// Where the borrow window and mouth band sit on the crop canvas of these parameters.
le::tessera::GeometryStamp tesseraStamp(const Params& p);

// The manifest's "tessera" block (JSON text): the stamp and the bank's pixel format.
std::string tesseraManifestBlock(const Params& p);

// Writes the four members into the bundle directory dir (breaks applied); returns their names.
std::vector<std::string> writeTessera(const Params& p, const std::string& dir);

// The donors of the bank in donor order: n_donors patches of band_w x band_h RGB.
std::vector<uint8_t> tesseraDonors(const Params& p);

// One tensor of a state dict: its name, shape and row-major float32 values.
struct TorchTensor {
  std::string name;
  std::vector<int64_t> shape;
  std::vector<float> values;
};

// A PyTorch state-dict file as torch.save writes it: a stored ZIP whose folder is named stem,
// holding the pickle (protocol 2) and one storage per tensor. With metadata the dict is an
// OrderedDict carrying the module's "_metadata" through BUILD, as module.state_dict() saves.
std::vector<uint8_t> torchStateDict(const std::string& stem, const std::vector<TorchTensor>& tensors,
                                    bool metadata);

// The head's weights as the forge designs them: the candidate branch scores a donor by how
// little it differs from the rendered mouth, so the blend prefers matching donors.
std::vector<TorchTensor> headTensors(bool syn);

}  // namespace le::forge
