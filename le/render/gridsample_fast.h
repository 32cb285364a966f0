// The engine's ONNX Runtime custom-operator domain "com.vantorix" and its GridSampleFast
// operator: GridSample restricted to bilinear sampling, border padding and align_corners = 0,
// with the output the size of the input. The kernel is also callable as plain functions.
//
// Tensors are float32, NCHW, contiguous. The grid holds per output pixel (gx, gy) in [-1, 1],
// x along the width; pixel centres follow align_corners = 0.
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <type_traits>
#include <vector>

#include "le/render/le_ort.h"

namespace le {

constexpr const char* kVantorixDomain = "com.vantorix";

// The process-wide "com.vantorix" domain holding GridSampleFast and WarpDirector, created on
// the first call (thread-safe). A creation failure throws Ort::Exception and leaves no domain
// behind, so a later call tries again. The domain lives until process exit.
Ort::CustomOpDomain& vantorixDomain();
// Adds the two operator descriptors to a domain (called once when the domain is created).
void domainOps(Ort::CustomOpDomain& domain);
// Adds the "com.vantorix" domain, with both operators, to session options.
void registerGridSampleFast(Ort::SessionOptions& options);

// One image: in [C, H, W], grid [H, W, 2], out [C, H, W]. Caller owns all three buffers.
void gridsample_fast(const float* in, const float* grid, float* out, int C, int H, int W);
// Output rows [max(rowBegin, 0), min(rowEnd, H)) only.
void gridsample_fast_band(const float* in, const float* grid, float* out, int C, int H, int W,
                          int rowBegin, int rowEnd);

namespace gsf {
// True when the processor runs the SSE4.1+FMA path (checked once at run time).
bool vectorPath();
// The two paths of gridsample_fast_band, for tests and benchmarks. bandVector must only be
// called when vectorPath() is true.
void bandScalar(const float* in, const float* grid, float* out, int C, int H, int W, int r0, int r1);
void bandVector(const float* in, const float* grid, float* out, int C, int H, int W, int r0, int r1);
// Throws std::runtime_error naming `op` unless input is [N, C, H, W] and grid [N, H, W, 2].
void checkShapes(const char* op, const std::vector<int64_t>& input, const std::vector<int64_t>& grid);

// Input element types of an operator: Kernel::kInputTypes when it lists them, else two FLOATs.
template <typename Kernel, typename = void>
struct OpInputs {
  static constexpr size_t count = 2;
  static ONNXTensorElementDataType type(size_t) { return ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT; }
};
template <typename Kernel>
struct OpInputs<Kernel, std::void_t<decltype(Kernel::kInputTypes)>> {
  static constexpr size_t count = sizeof(Kernel::kInputTypes) / sizeof(Kernel::kInputTypes[0]);
  static ONNXTensorElementDataType type(size_t i) { return Kernel::kInputTypes[i]; }
};

// The descriptor the engine's operators share: required inputs (see OpInputs), one FLOAT
// output, CPU provider, versions 1 to INT32_MAX. Kernel has a static kName and
// `void compute(Ort::KernelContext&)`; a kernel constructible from `const OrtKernelInfo*` reads
// its attributes there. Its exceptions become a failed creation or run, never cross into
// ONNX Runtime.
template <typename Kernel>
struct FloatOp : Ort::CustomOpBase<FloatOp<Kernel>, Kernel, true> {
  FloatOp() { OrtCustomOp::version = kOrtApiVersion; }
  OrtStatusPtr CreateKernelV2(const OrtApi&, const OrtKernelInfo* info, void** kernel) const noexcept {
    try {
      // owned by ONNX Runtime (KernelDestroy)
      if constexpr (std::is_constructible_v<Kernel, const OrtKernelInfo*>)
        *kernel = std::make_unique<Kernel>(info).release();
      else
        *kernel = std::make_unique<Kernel>().release();
      return nullptr;
    } catch (const Ort::Exception& e) {
      return Ort::GetApi().CreateStatus(e.GetOrtErrorCode(), e.what());
    } catch (const std::exception& e) {
      return Ort::GetApi().CreateStatus(ORT_RUNTIME_EXCEPTION, e.what());
    }
  }
  const char* GetName() const { return Kernel::kName; }
  const char* GetExecutionProviderType() const { return "CPUExecutionProvider"; }
  size_t GetInputTypeCount() const { return OpInputs<Kernel>::count; }
  ONNXTensorElementDataType GetInputType(size_t i) const { return OpInputs<Kernel>::type(i); }
  size_t GetOutputTypeCount() const { return 1; }
  ONNXTensorElementDataType GetOutputType(size_t) const { return ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT; }
};

// A sampling node's two inputs, the image and the grid, with their shapes.
struct SampleInputs {
  Ort::ConstValue x, grid;
  std::vector<int64_t> xs, gs;
  explicit SampleInputs(Ort::KernelContext& ctx)
      : x(ctx.GetInput(0)),
        grid(ctx.GetInput(1)),
        xs(x.GetTensorTypeAndShapeInfo().GetShape()),
        gs(grid.GetTensorTypeAndShapeInfo().GetShape()) {}
};

// The kernels' ComputeV2: runs compute and turns exceptions into an ONNX Runtime status.
template <typename Kernel>
OrtStatusPtr computeStatus(Kernel& k, OrtKernelContext* context) noexcept {
  try {
    Ort::KernelContext ctx(context);
    k.compute(ctx);
    return nullptr;
  } catch (const Ort::Exception& e) {
    return Ort::GetApi().CreateStatus(e.GetOrtErrorCode(), e.what());
  } catch (const std::exception& e) {
    return Ort::GetApi().CreateStatus(ORT_RUNTIME_EXCEPTION, e.what());
  }
}
}  // namespace gsf

}  // namespace le
