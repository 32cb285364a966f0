// WarpDirector: the director's whole warp block as one "com.vantorix" operator. From a
// 3-channel source it derives second differences (fxx, fyy, fxxyy, clamp-to-edge), samples the
// source and the differences at the grid with bilinear border sampling, and recombines them
// into a second-order-corrected sample: F - ax*Fxx - ay*Fyy + ax*ay*Fxxyy with
// ax = (1 - tx)*tx/2, ay = (1 - ty)*ty/2 and (tx, ty) the fractional sample position.
//
// Source [3, H, W] and output [3, H, W] planar float; grid [H, W, 2] as for GridSampleFast.
#pragma once

#include "le/render/le_ort.h"

namespace le {

// Adds the "com.vantorix" domain (both operators) to session options; same as
// registerGridSampleFast.
void registerWarpDirector(Ort::SessionOptions& options);
// The operator descriptor (a process-wide static) that domainOps adds to the domain.
const OrtCustomOp* warpDirectorOp();

// Floats per pixel of the planes buffer: for each channel f, fxx, fyy, fxxyy.
constexpr int kWarpPlaneFloats = 12;

// Whole image in one pass, without a planes buffer.
void warpDirector(const float* src, const float* grid, float* out, int W, int H);
// Output rows [max(rowBegin, 0), min(rowEnd, H)) in one pass.
void warpDirectorBand(const float* src, const float* grid, float* out, int W, int H, int rowBegin,
                      int rowEnd);
// Phase one: planes (H*W*12 floats, caller-owned) of source rows [rowBegin, rowEnd).
void warpDirectorPlanesBand(const float* src, float* planes, int W, int H, int rowBegin, int rowEnd);
// Phase two: output rows [rowBegin, rowEnd) from complete planes.
void warpDirectorGatherBand(const float* planes, const float* grid, float* out, int W, int H,
                            int rowBegin, int rowEnd);

}  // namespace le
