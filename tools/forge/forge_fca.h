// The stream delta model's decoder member "fca_stream.onnx": "cond" [1, 5376] (seven frames of
// conditioned 768-value features), "prev" [1, 63], "h" [1, 1, 384] -> "m" [1, 63],
// "hn" [1, 1, 384]. The mouth opens with loudness above the clip's voiced mean, the corners
// widen on high bands; silence leaves the keypoints alone.
#pragma once

#include <cstdint>
#include <vector>

namespace le::forge {

std::vector<uint8_t> fcaStreamDecoder();

}  // namespace le::forge
