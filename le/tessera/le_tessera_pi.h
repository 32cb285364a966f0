// The mouth region model on the square compose canvas: from the 21 driving keypoints of a frame,
// a soft ellipse around the lips united with a tighter teeth gate that opens with the mouth (the
// pi mask), its boxes and centroids, and the identification of a bank's pi geometry among the
// known corpus geometries.
//
// Keypoint frames are 21 rows of (x, y, z) float32; x and y are normalised, -1 at the centre of
// the first pixel and +1 at the centre of the last; z is ignored. Masks are canvas x canvas,
// row-major, row = y.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace le::tessera {

// Pixels (x, y) with x0 <= x < x1 and y0 <= y < y1.
struct Box {
  int32_t x0 = 0, y0 = 0, x1 = 0, y1 = 0;
  bool empty() const { return x1 <= x0 || y1 <= y0; }
};

// x rounded to the nearest integer, ties to the even neighbour, saturated to int32 (NaN gives 0);
// independent of the floating-point rounding mode.
int32_t roundHalfEven(double x);
// The pi byte of a mask value: 0 when not positive, else min(v, 1) * 255 rounded with ties to
// even. Inline and without branches on the value: the borrow converts whole windows with it.
inline uint8_t piByte(float v) {
  // v * 255 is at most 255 and never negative: the integer part fits, and float keeps the
  // fraction exactly.
  const float x = v > 0.f ? (v < 1.f ? v : 1.f) * 255.f : 0.f;
  const int i = static_cast<int>(x);
  const float frac = x - static_cast<float>(i);
  return static_cast<uint8_t>(i + int((frac > 0.5f) | ((frac == 0.5f) & ((i & 1) != 0))));
}
// floor / ceil of x saturated to [lo, hi]; NaN gives lo.
int32_t floorClamp(double x, int32_t lo, int32_t hi);
int32_t ceilClamp(double x, int32_t lo, int32_t hi);
// x truncated toward zero, saturated to int32; NaN gives 0.
inline int32_t truncSat(double x) { return x < 0 ? ceilClamp(x, INT32_MIN, 0) : floorClamp(x, 0, INT32_MAX); }
// A number as the refusals print it: an integer without decimals, anything else as %g.
std::string numberText(double x);

// The winner among the three corpus rows (table order v1, v2, v3) by their distances in pixels
// to the bank's canonical centroid cCanon: refuses a best distance over 8 px and a runner-up
// within 3 px of it. Returns the row index.
int corpusPick(const double distance[3], const double cCanon[2]);

class UnifiedPi {
 public:
  struct EllParams {
    float cx, cy, rx, ry;  // centre and radii, normalised units
    float R;               // feather reference, 256 * sqrt(rx * ry)
  };

  int32_t canvas = 0;
  std::string mode = "prop";
  int32_t corner_recovery = 0;
  float prop_gate_scale = 1.f;
  std::vector<int32_t> lip_idx;
  float pad_x = 0.f, pad_y = 0.f, down = 0.f;
  std::vector<float> xs, ys;  // normalised coordinate of every column and row

  // The geometry given directly (the manifest readers below fill it the same way). Throws
  // std::runtime_error for a canvas below 1 or a lip row outside 0..20.
  UnifiedPi(int32_t canvas, bool cornerRecovery, float propGateScale, std::vector<int32_t> lipIdx,
            float padX, float padY, float down);

  // The manifest's "unified" block; throws std::runtime_error naming what is wrong.
  static UnifiedPi fromManifestJson(const std::string& manifestText, int32_t canvas);
  // The stated geometry with pad_x, pad_y, down taken from the known corpus row whose canonical
  // centroid over xsTarget (nFrames keypoint frames) lies nearest cCanon (pixels, x then y);
  // refuses no match within 8 px and two rows within 3 px of each other. which receives the
  // row's name when non-null.
  static UnifiedPi corpusFromManifestJson(const std::string& manifestText, int32_t canvas,
                                          const float* xsTarget, int nFrames, const double cCanon[2],
                                          std::string* which);
  // The corpus search on an already read geometry.
  static UnifiedPi corpusFrom(const UnifiedPi& base, const float* xsTarget, int nFrames,
                              const double cCanon[2], std::string* which);

  EllParams lipParams(const float* kp) const;
  EllParams gateParams(const float* kp, float* gateOut) const;

  void ellMask(const float* kp, float padX, float padY, float minRx, float minRy, float scale,
               float down, float* out) const;
  void lipMask(const float* kp, float* out) const;
  void propTeethGate(const float* kp, float* out) const;

  Box ellBox(const EllParams& e) const;
  // Union of the boxes of the lip ellipse and the teeth gate.
  Box supportBox(const float* kp) const;

  void piU8(const float* kp, uint8_t* out) const;
  // The same bytes, evaluated only inside supportBox (the rest is cleared).
  void piU8Boxed(const float* kp, uint8_t* out) const;
  // Clears out; inside supportBox intersected with box writes the pi byte of min(bound, pi)
  // where bound > 0.
  void piU8ShrunkBy(const float* kp, const float* bound, const Box& box, uint8_t* out) const;
  // piU8Boxed into out, then shift = round(centroid - canon) (ties to even) when the mask has
  // a centroid; returns whether it has one (the shifts are untouched otherwise).
  bool piU8AndShift(const float* kp, const double canonCentroid[2], uint8_t* out, int32_t& shiftY,
                    int32_t& shiftX) const;

  // Mean column and row of the bytes >= 128; false when there is none.
  bool piU8Centroid(const uint8_t* mask, double& cx, double& cy) const;
  bool piU8Centroid(const uint8_t* mask, const Box& box, double& cx, double& cy) const;
  // Average centroid of the full masks of the frames that have one; throws when none has.
  void canonicalCentroid(const float* frames, int nFrames, double& cx, double& cy) const;

 private:
  struct LipStats {
    float cx, cy, ax, ay;
    bool any;
  };
  LipStats lipStats(const float* kp) const;
  EllParams lipParamsOf(const float* kp, const LipStats& s) const;
  EllParams gateParamsOf(const LipStats& s, float& gate) const;
  // Soft ellipse values inside box (clipped to the canvas) written into out.
  void evalEll(const EllParams& e, const Box& box, float* out) const;
  void piRows(const float* kp, const Box& box, const float* bound, uint8_t* out) const;
};

}  // namespace le::tessera
