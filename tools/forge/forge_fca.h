// The stream delta model's decoder member "fca_stream.onnx": "cond" [1, 5376] (seven frames of
// conditioned 768-value features), "prev" [1, 63], "h" [1, 1, 384] -> "m" [1, 63],
// "hn" [1, 1, 384]. The mouth opens with loudness above the clip's voiced mean, the corners
// widen on high bands; silence leaves the keypoints alone.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/forge/onnx_builder.h"

namespace le::forge {

std::vector<uint8_t> fcaStreamDecoder();

// The keypoint decoders' recurrent step, on inputs x ([1, xWidth]), "prev" ([1, 63]) and "h"
// ([1, 1, hidden]): z = tanh(x wc + h wh + bc), the opening gate g = relu(z[0]), output "m" =
// g u0 + (z g) um + 0.2 prev and z as the next state `stateOut`.
void decoderStep(OnnxBuilder& b, const std::string& x, int64_t xWidth, int64_t hidden, const std::vector<float>& wc,
                 const std::vector<float>& wh, const std::vector<float>& bc, const std::vector<float>& u0,
                 const std::vector<float>& um, const std::string& stateOut);

}  // namespace le::forge
