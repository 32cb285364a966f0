// Load-time rewrites of the director's encoded ONNX model, on the wire-format toolkit.
//
// Each rewrite recognises one exact pattern and either rewrites it (replacing the whole byte
// vector with a rebuilt model) or leaves the bytes untouched and says why (a reason or a zero
// count). None changes what the graph computes beyond float round-off. Unrecognised graphs never
// throw; malformed bytes propagate the toolkit's "onnx: ..." exceptions. A partly built result is
// never written back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "le/render/onnx_bytes.h"

namespace le {

// ---- GridSample -> com.vantorix::GridSampleFast ----------------------------------------------

// `node` is a NodeProto payload: a standard-domain GridSample, mode bilinear/linear, padding
// border, align_corners absent or 0.
bool gsIsRewritableGridSample(GsSlice node);
// Rewrites every qualifying GridSample; returns how many (0 leaves the bytes alone).
size_t rewriteGridSampleToFast(std::vector<uint8_t>& model);
// True when a node of the graph is com.vantorix::GridSampleFast already.
bool graphHasBakedGridSampleFast(GsSlice model);

// ---- student blend MatMul -> Gemm ------------------------------------------------------------

// A standard-domain MatMul named "/s2/blend" with no attribute and exactly 2 inputs.
bool gsIsStudentBlendMatMul(GsSlice node);
size_t normaliseStudentBlend(std::vector<uint8_t>& model);

// ---- head cubic x2 Resize -> Pad(edge) + depthwise Conv 5x5 + DepthToSpace ---------------------

// The four cubic taps for fraction t and coefficient a, normalised to sum 1.
void hcTaps(double t, double a, double taps[4]);
// Returns the number of Resize nodes replaced: 1, or 0 when the graph has not exactly one
// candidate or the candidate fails a check.
size_t rewriteHeadCubicResize(std::vector<uint8_t>& model);

// ---- lip-contour binding -----------------------------------------------------------------------

// Binds the graph input "lip_delivery" into the compose alpha: a -> Min(a, lip_delivery).
// Returns 1 when bound (canvas and batch written when non-null), 0 with a reason otherwise.
int rewriteBindLipContour(std::vector<uint8_t>& model, std::string& reason, int* canvas, int* batch);
// The checks the binding runs on its rebuilt bytes; `alpha` is the compose alpha's value name.
bool lipBindingSelfCheck(GsSlice model, const std::string& alpha, std::string& reason);

// ---- warp block -> com.vantorix::WarpDirector --------------------------------------------------

struct WarpBlock {
  int concatIndex = -1;        // the Concat consuming "P_rgb"
  std::string boundary;        // its output: the cone's tip
  int gridSampleIndex = -1;    // the GridSample(Fast) sampling the boundary
  std::string grid;            // its grid input
  std::string exit;            // the recombination's single exit value
  std::vector<int> replaced;   // node indices the WarpDirector node replaces, ascending
};

bool findWarpBlock(GsSlice model, WarpBlock* out, std::string& reason);
// Returns the number of nodes removed; 0 with a reason leaves the bytes alone.
size_t rewriteWarpBlockToCustomOp(std::vector<uint8_t>& model, std::string& reason);
// The rebuild half of the rewrite, for a block found on these bytes; refuses when the
// GridSample is no longer where the block says.
size_t rewriteWarpBlockAt(std::vector<uint8_t>& model, const WarpBlock& block, std::string& reason);

// ---- source-cone split -------------------------------------------------------------------------

// Number of standard-domain Concat nodes reading "P_rgb"; when exactly one, `boundary` is its
// first output, otherwise it is cleared.
int findSourceConeBoundary(GsSlice model, std::string& boundary);
// The cone alone: input "P_rgb", output the boundary (FLOAT, 4 symbolic dimensions).
bool buildSourceConePrep(GsSlice model, const std::string& boundary, std::vector<uint8_t>& prep,
                         std::string& reason);
// The graph without its cone: the boundary becomes an input of the given dimensions.
bool buildSourceConePerFrame(GsSlice model, const std::string& boundary, const int64_t* dims, int rank,
                             std::vector<uint8_t>& perFrame, std::string& reason);

}  // namespace le
