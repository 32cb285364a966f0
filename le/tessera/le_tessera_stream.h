// The borrow as one rendered frame meets it: the crop as the renderer makes it (planar float or
// RGBA bytes) with the frame's driven keypoints in, the delivery mask and mouth shift computed
// here (the lip contour when the bundle has a template, else the pi ellipse), the returned window
// written back into a crop.
//
// Thread rules: driven by one thread at a time (the pipeline's borrow stage); inside a call the
// work runs on that thread's worker pool.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "le/tessera/le_lip_contour.h"
#include "le/tessera/le_tessera.h"
#include "le/tessera/le_tessera_pi.h"

namespace le::tessera {

class StreamBorrow : public TeethPass {
 public:
  // Builds the pass; the canvas must be square and the pi model's. A non-empty template text
  // builds the lip contour. Prints which delivery mask the session serves.
  StreamBorrow(BankData bank, HeadWeights head, ServeConfig config, const UnifiedPi& pi,
               const std::string& lipTemplateText);

  // crop_f32: 3 planes of canvas x canvas floats; kp: 63 driven keypoint floats. True when
  // result was filled for the frame pushed before this one.
  bool push(const float* crop_f32, const float* kp, FrameResult& result);
  // canvas x canvas RGBA pixels (alpha ignored).
  bool pushRgba(const uint8_t* crop_rgba, const float* kp, FrameResult& result);
  // The common tail: mask and shift of kp, then the pass, on the frame in the RGB buffer.
  bool pushSynth(const float* kp, FrameResult& result);

  using TeethPass::flush;

  // Replaces the 8-bit value of every window pixel of the crop by the window's byte, keeping the
  // crop's sub-8-bit residual. Nothing for a skipped result.
  static void writeWindowDelta(float* crop_f32, int32_t canvas, const FrameResult& result,
                               const GeometryStamp& stamp);
  // Makes the crop opaque (also for a skipped result), then writes the window's bytes.
  static void writeWindowDeltaRgba(uint8_t* crop_rgba, int32_t canvas, const FrameResult& result,
                                   const GeometryStamp& stamp);

  int hostSplit(void* out) const;
  const char* backend() const { return "cpu"; }

  int32_t canvas() const { return canvas_; }
  int32_t frameCounter() const { return counter_; }
  bool hasLipContour() const { return lip_ != nullptr; }
  // The delivery mask of the last push (canvas x canvas bytes).
  const std::vector<uint8_t>& deliveryMask() const { return mask_; }
  // The RGB frame of the last push where the pass reads it: rows and columns of the stamp window
  // grown by pad on every side (clipped to the canvas); zero elsewhere.
  const std::vector<uint8_t>& rgb() const { return rgb_; }

 private:
  UnifiedPi pi_;
  std::unique_ptr<LipContour> lip_;
  double cCanon_[2];
  int32_t canvas_;
  int32_t counter_ = 0;
  int32_t r0_ = 0, r1_ = 0, c0_ = 0, c1_ = 0;  // what rgb_ holds of a crop
  std::vector<uint8_t> rgb_;
  std::vector<uint8_t> mask_;
};

}  // namespace le::tessera
