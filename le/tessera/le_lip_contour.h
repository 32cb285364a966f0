// The lip contour: a canonical outline deformed each frame from the lip keypoints, filled and
// feathered outward, which bounds the mouth region more tightly than the pi ellipse. It feeds
// the borrow delivery (the pi mask bounded by the contour) and the director's compose alpha
// (the canvas plane bound to the graph input "lip_delivery").
//
// Polygon vertices are float64 pixel coordinates, x = (kx + 1) * canvas / 2 for a normalised
// keypoint x. One instance must not be used by two threads at a time: the mask operations are
// logically const but reuse the object's scratch rasters.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "le/tessera/le_tessera_pi.h"

namespace le::tessera {

class LipContour {
 public:
  // The bundle member "lip_template.v1.json"; every refusal is a std::runtime_error whose text
  // starts with "lip_template.v1.json: ".
  static LipContour fromTemplateJson(const std::string& templateText, int32_t canvas);

  // u_canon holds nv (u, v) pairs; lip_idx 1 to 8 keypoint rows in 0..20.
  LipContour(int32_t canvas, float featherPx, const double* uCanon, int32_t nv, const int32_t* lipIdx,
             int32_t nLipIdx);

  // The learned linear map: W is rows x cols row-major, b rows values; rows = 2 * nv,
  // cols = 2 * n, 1 <= n <= 8. Its lip_idx replaces the template's.
  void attachMap(const double* W, const double* b, int32_t rows, int32_t cols, const int32_t* lipIdx, int32_t n);

  int32_t canvas() const { return canvas_; }
  float featherPx() const { return feather_; }
  int32_t nv() const { return nv_; }
  const std::vector<int32_t>& lipIdx() const { return lipIdx_; }
  bool hasMap() const { return K_ > 0; }

  // 2 * nv float64, (x, y) per vertex.
  void polygon(const float* kp, double* out) const;
  // Vertex bounds grown by feather_px + 2 and clipped to the canvas; empty for a polygon with a
  // non-finite vertex.
  Box box(const double* poly) const;
  // box-sized bytes: 255 on and inside the outline, 0 outside.
  void fillScanline(const double* poly, const Box& box, uint8_t* out) const;
  // The feathered contour written into the canvas-sized plane out, inside box only: 1 inside the
  // polygon, falling to 0 at a chamfer distance of feather_px outside it.
  void contourF32(const double* poly, const Box& box, float* out) const;
  // Clears the canvas-sized plane, then polygon, box and contourF32 into it.
  void contourF32Canvas(const float* kp, float* out) const;

  // The pi mask of the keypoints bounded by the contour; canvas-sized bytes.
  void deliveredU8(const float* kp, const UnifiedPi& pi, uint8_t* out) const;
  // Bounds the mask inside box (the pi support box) by the contour and clears the rest of box;
  // true when a pixel stays non-zero.
  bool shrinkU8InPlace(const float* kp, const Box& box, uint8_t* mask) const;
  // The pi model's piU8AndShift, then shrinkU8InPlace over its support box; true when both are.
  bool deliveredU8AndShift(const float* kp, const UnifiedPi& pi, const double canonCentroid[2], uint8_t* out,
                           int32_t& shiftY, int32_t& shiftX) const;

 private:
  void checkPi(const UnifiedPi& pi) const;
  // The contour of kp into the scratch canvas plane, inside its box; returns the box.
  Box contourIntoPlane(const float* kp) const;

  int32_t canvas_;
  float feather_;
  int32_t nv_;
  std::vector<double> uCanon_;
  std::vector<int32_t> lipIdx_;
  std::vector<double> W_, b_;
  int32_t K_ = 0;
  mutable std::vector<uint8_t> fill_;
  mutable std::vector<float> dist_;
  mutable std::vector<float> plane_;
  mutable std::vector<double> poly_;
  mutable std::vector<int64_t> edges_, xings_;
};

}  // namespace le::tessera
