// Int8 convolutions for forged models: per-output-channel weight quantisation, one-convolution
// models in three arithmetics (com.vantorix.int8::Int8ConvVNNI, ONNX Conv in float, ONNX
// Runtime's dynamic integer path), and the int8 form of a director.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace le::forge {

// One convolution: input [n, ic, h, w], weights [oc, ic / group, kh, kw].
struct ConvSpec {
  int64_t n = 1, ic = 64, h = 64, w = 64, oc = 64, kh = 3, kw = 3;
  std::vector<int64_t> strides, pads, dilations;  // empty: the defaults
  int64_t group = 1;

  std::vector<int64_t> inputShape() const { return {n, ic, h, w}; }
  std::vector<int64_t> weightShape() const { return {oc, ic / group, kh, kw}; }
  std::vector<int64_t> outputShape() const;
  size_t weightCount() const { return size_t(oc * (ic / group) * kh * kw); }
};

// Symmetric per-output-channel int8 weights: scale = max |w| / 127 (1 for an all-zero channel),
// q = rint(w / scale).
struct Int8Weights {
  std::vector<int8_t> q;
  std::vector<float> scales;
};
Int8Weights quantiseWeights(const std::vector<float>& w, int64_t oc);

// "X" [n, ic, h, w] -> "Y" [n, oc, oh, ow], weights and bias as initializers:
// one com.vantorix.int8::Int8ConvVNNI node ...
std::vector<uint8_t> int8ConvModel(const ConvSpec& s, const Int8Weights& w, const std::vector<float>& bias);
// ... one ONNX Conv ...
std::vector<uint8_t> floatConvModel(const ConvSpec& s, const std::vector<float>& w, const std::vector<float>& bias);
// ... or ONNX Runtime's dynamic quantisation of it: DynamicQuantizeLinear, ConvInteger (u8 x s8),
// Cast, Mul by the input scale times the weight scale, Add the bias.
std::vector<uint8_t> convIntegerModel(const ConvSpec& s, const Int8Weights& w, const std::vector<float>& bias);

// The director with every Conv of group 1 over a float initializer weight as Int8ConvVNNI with
// per-channel weight scales, except a Conv that reads a Resize (the load-time cubic rewrite keys
// on it) and the warp block's depthwise stencil (group 3). Returns the model and, in converted,
// how many convolutions changed.
std::vector<uint8_t> int8Director(const std::vector<uint8_t>& model, int* converted = nullptr);

}  // namespace le::forge
