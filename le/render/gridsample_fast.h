// The engine's ONNX Runtime custom-operator domain "com.vantorix" and its GridSampleFast
// operator: GridSample restricted to bilinear sampling, border padding and align_corners = 0,
// with the output the size of the input. The kernel is also callable as plain functions.
//
// Tensors are float32, NCHW, contiguous. The grid holds per output pixel (gx, gy) in [-1, 1],
// x along the width; pixel centres follow align_corners = 0.
#pragma once

#include <cstdint>
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
}  // namespace gsf

}  // namespace le
