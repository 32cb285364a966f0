// Int8ConvVNNI: a 2-D convolution with int8 weights (one scale per output channel) over a float
// input that is quantised to uint8 on every call with one scale and zero point of its own, so
// no calibration data is needed. Products are summed in int32 with the processor's u8 x s8 dot
// products (AVX-VNNI or AVX-512 VNNI) where it has them, else by plain loops; both give the same
// integers, so the same floats.
//
// Per call: range [min, max] of the input (both start at 0), scale = (max - min) / 255 (1 when
// not positive), zeroPoint = rint(-min / scale) in [0, 255], q = clamp(rint(x / scale) + zp).
// An output sums only the taps that fall inside the input and subtracts zp times the weights of
// exactly those taps, so zero padding in float space stays exact:
//   y[oc] = float(acc - zp * wsum) * (scale * weightScale[oc]) + bias[oc].
//
// Operator "Int8ConvVNNI" in the domain "com.vantorix.int8": X float [N, IC, H, W], weights int8
// [OC, IC / group, KH, KW], weight scales float [OC], bias float [OC] -> float [N, OC, OH, OW];
// attributes "strides", "pads" (top, left, bottom, right), "dilations", "group".
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "le/render/le_ort.h"

namespace le {

constexpr const char* kInt8Domain = "com.vantorix.int8";

// The process-wide "com.vantorix.int8" domain holding Int8ConvVNNI, created on the first call.
Ort::CustomOpDomain& int8Domain();
// Adds the "com.vantorix.int8" domain to session options.
void registerInt8ConvVNNI(Ort::SessionOptions& options);

// Range of count floats folded into mn and mx (NaN values are skipped). minmax_avx2 is one
// sequential pass (vectorised where the processor has AVX2); minmax_par starts both at 0 and
// splits the array over the worker pool in parts of at least 4096 values.
void minmax_avx2(const float* data, size_t count, float& mn, float& mx);
void minmax_par(const float* data, size_t count, float& mn, float& mx);

namespace int8conv {

// One convolution's shapes and attributes.
struct Geometry {
  int64_t N = 1, IC = 0, H = 0, W = 0;
  int64_t OC = 0, KH = 0, KW = 0;
  int64_t strideH = 1, strideW = 1;
  int64_t padTop = 0, padLeft = 0, padBottom = 0, padRight = 0;
  int64_t dilH = 1, dilW = 1;
  int64_t group = 1;
  int64_t OH = 0, OW = 0;

  int64_t taps() const { return KH * KW; }
  int64_t icPerGroup() const { return IC / group; }
  int64_t ocPerGroup() const { return OC / group; }
  // Input channels of one pixel of the quantised buffer: IC rounded up to a multiple of 4.
  int64_t icPadded() const { return (IC + 3) / 4 * 4; }
};

// Checks the shapes against each other and the attributes (empty means the default: strides
// and dilations 1, pads 0) and computes OH, OW. Throws std::runtime_error naming what is wrong.
Geometry geometry(const std::vector<int64_t>& x, const std::vector<int64_t>& w,
                  const std::vector<int64_t>& strides, const std::vector<int64_t>& pads,
                  const std::vector<int64_t>& dilations, int64_t group);

struct Quant {
  float scale = 1.f;
  int zeroPoint = 0;
};
// scale and zero point of a range that contains 0.
Quant quantParams(float mn, float mx);

// Where the products are summed.
enum class Path {
  Auto,        // the best the processor has (AVX-512 VNNI, else AVX-VNNI, else plain loops)
  Scalar,      // plain loops
  AvxVnni,     // 256-bit dot products, VEX encoding (AVX2 + AVX-VNNI)
  Avx512Vnni,  // 512-bit tiles of 32 channels, 256-bit EVEX for the rest (AVX-512 VNNI + VL)
};
// True when the processor can run the path (Auto and Scalar always can).
bool pathAvailable(Path p);
// Path::Auto resolved for this processor.
Path bestPath();
// Process-wide override of Path::Auto (for tests and A/B runs); Path::Auto clears it.
void forcePath(Path p);

// Weights prepared once: per-output-channel sums, per-tap sums [taps x OC] and the packed layout
// of the dot-product tiles: per group, per block of 16 output channels, per tap, per group of
// four input channels, 16 x 4 bytes (output channel major). Padding channels hold zero.
class PreparedWeights {
 public:
  PreparedWeights(const int8_t* weights, const Geometry& g);

  const std::vector<int32_t>& sums() const { return sums_; }
  const std::vector<int32_t>& tapSums() const { return tapSums_; }
  const int8_t* packed() const { return packed_.data(); }
  int64_t ocBlocks() const { return ocBlocks_; }  // blocks of 16 per group
  int64_t icQuads() const { return icQuads_; }    // groups of 4 input channels per group
  // Whether weights of geometry g are byte for byte the ones prepared.
  bool same(const int8_t* weights, const Geometry& g) const;

 private:
  std::vector<int8_t> original_;
  std::vector<int32_t> sums_;
  std::vector<int32_t> tapSums_;
  std::vector<int8_t> packed_;
  int64_t ocBlocks_ = 0, icQuads_ = 0;
  int64_t oc_ = 0, icg_ = 0, kh_ = 0, kw_ = 0, group_ = 0;
};

// Quantises x [N, IC, H, W] into q [N, H, W, icPadded()] (padding channels 0) over the pool.
// q needs N*H*W*icPadded() + kQuantSlack bytes: the dot products read a few bytes past the last
// pixel.
constexpr size_t kQuantSlack = 64;
void quantise(const float* x, const Geometry& g, Quant qp, uint8_t* q);

// 4 output pixels x 16 output channels: every tap, every group of four input channels.
// in: the first pixel's receptive-field origin in the quantised buffer (at its group's first
// channel); tapOffsets: byte offset of each tap from there; pixelStep: bytes between the tile's
// pixels; packed: the block's weights ([taps][quads][16][4]). acc receives [4][16] int32 sums.
// Only on a path that pathAvailable() accepts.
void interior_tile(Path path, const uint8_t* in, const int8_t* packed, const int64_t* tapOffsets,
                   int taps, int quads, int64_t pixelStep, int32_t* acc);

// The whole convolution of x into y [N, OC, OH, OW], rows spread over the worker pool.
void conv(const float* x, const PreparedWeights& w, const float* weightScale, const float* bias,
          float* y, const Geometry& g, Path path = Path::Auto);

// Weight preparations run so far in this process (each kernel prepares once).
uint64_t preparations();

}  // namespace int8conv

// The operator's kernel: attributes read at creation, weights prepared on the first run.
class Int8ConvKernel {
 public:
  static constexpr const char* kName = "Int8ConvVNNI";
  static constexpr ONNXTensorElementDataType kInputTypes[] = {
      ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT, ONNX_TENSOR_ELEMENT_DATA_TYPE_INT8,
      ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT, ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT};

  explicit Int8ConvKernel(const OrtKernelInfo* info);
  OrtStatusPtr ComputeV2(OrtKernelContext* context);
  void compute(Ort::KernelContext& ctx);

 private:
  std::vector<int64_t> strides_, pads_, dilations_;
  int64_t group_ = 1;
  bool vnni_ = false;
  std::once_flag prepareOnce_;
  std::unique_ptr<int8conv::PreparedWeights> prepared_;
};

}  // namespace le
