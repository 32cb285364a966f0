// The paste compositor: puts a rendered face crop back into its full RGB video frame.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace le {

struct Unsharp;

// One compositor per engine context. The crop is sharpened (mirrored unsharp mask), resampled
// through the inverse of the frame's paste transform and blended under a bilinearly resampled
// soft mask; only frame pixels whose source position falls inside the crop are touched.
// Not safe for concurrent composite() calls: planes and scratch are shared. Inside one call the
// work runs on the calling thread's worker pool.
class Paste {
 public:
  // Throws "paste: mask size" unless mask holds crop*crop bytes, "paste: ksize must be odd",
  // and refuses a sigma that is not above 0.
  // Reads LE_PASTE_FAST (resampling mode) and LE_PASTE_KSIZE (shrinks the unsharp kernel).
  Paste(std::vector<uint8_t> mask, int crop, const Unsharp& unsharp);
  Paste(const Paste&) = delete;
  Paste& operator=(const Paste&) = delete;
  Paste(Paste&&) = default;
  Paste& operator=(Paste&&) = default;

  // Pastes one crop: crop_planes are three planes (R, G, B) of crop*crop floats, multiplied by
  // scale to 0..255 units; M = (a, b, tx, c, d, ty) maps crop pixel (u, v) to the frame point
  // (a*u + b*v + tx, c*u + d*v + ty); frame is W*H packed RGB, modified in place. A singular M or
  // a crop landing outside the frame leaves the frame unchanged. Allocates nothing once warm.
  void composite(const float* crop_planes, float scale, const float* M, uint8_t* frame, int W,
                 int H);

  // Throws, naming what (e.g. "M.f32 row 3"), when M has no place in a W x H frame: a value
  // that is not finite, or so nearly singular a transform that the fixed-point source positions
  // overflow. Singular and off-frame transforms pass: they paste nothing by design.
  static void checkTransform(const float* M, int crop, int W, int H, const std::string& what);

  int crop() const { return crop_; }
  int ksize() const { return ksize_; }
  float amount() const { return amount_; }
  // 0 Lanczos-8, 1 bicubic 4x4, 2 bilinear 2x2.
  int fast() const { return fast_; }
  const std::vector<uint8_t>& mask() const { return mask_; }
  const std::vector<float>& gauss() const { return gauss_; }        // ksize taps
  const std::vector<float>& lanczos() const { return lanczos_; }    // 32 phases x 8 taps
  const std::vector<float>& bilinear() const { return bilinear_; }  // 32 phases x 2 taps
  const std::vector<float>& bicubic() const { return bicubic_; }    // 32 phases x 4 taps

  // Fixed-point source positions: 10 fractional bits, 32 phases.
  static constexpr int kFracBits = 10;
  static constexpr int kPhases = 32;

 private:
  // Inverse transform of one paste: frame (x, y) -> crop fixed-point position is
  // (row_x(y) + col_x[x - x0], row_y(y) + col_y[x - x0]).
  struct Rows {
    double du_dy, dv_dy, u0, v0;
  };
  struct Plan {
    int x0, x1, y0, y1;  // frame box
    double du_dx, dv_dx;
    Rows rows;
  };
  // 1 with the plan of a paste, 0 when nothing is pasted, -1 when positions overflow.
  static int plan(const float* M, int crop, int W, int H, Plan* out);
  // Per pool part: a padded row, the ring of horizontally blurred rows, one band of sharpened
  // rows, and the row pointers of one blur.
  struct Scratch {
    std::vector<float> padded, ring, band;
    std::vector<const float*> rows;
  };
  void sharpen(const float* crop_planes, float scale);
  void sharpenRows(const float* crop_planes, float scale, int y0, int y1, Scratch& sc);
  void compositeTail(uint8_t* frame, int W, int x0, int x1, int y0, int y1, const Rows& rows);
  void resampleRowPlanar(uint8_t* dst_row, const int* col_x, const int* col_y, int row_x, int row_y,
                         int x0, int x1) const;
  // Whether the fixed-point source position has a non-zero mask byte among its four bilinear
  // neighbours: pixels where it does not cannot blend.
  bool maskNear(int sx, int sy) const;
  // Whether no column a..b (offsets into col_x_, col_y_) of the row starting at (row_x, row_y)
  // is maskNear; may answer false when none is.
  bool noneNear(int row_x, int row_y, int a, int b) const;

  int crop_;
  int ksize_;
  int padded_;
  float amount_;
  int fast_ = 0;
  std::vector<uint8_t> mask_;
  std::vector<uint32_t> quads_;  // Lanczos mode: le::simd::pasteMaskQuads of the mask
  std::vector<float> gauss_;
  std::vector<float> lanczos_;
  std::vector<float> bilinear_;
  std::vector<float> bicubic_;
  std::vector<std::pair<int, int>> near_;  // see maskNear
  // The crop columns any resampling tap can read, per crop row, and the columns of each padded
  // row that the rows reading it need blurred; empty when first > second. Sharpening skips the
  // rest: it lies beyond the reach of every non-zero mask byte.
  std::vector<std::pair<int, int>> need_, hneed_;
  std::vector<float> planes_[3];  // planar modes: the sharpened R, G, B in 0..255 units
  // Lanczos mode: the sharpened crop in overlapping row bands, from cols_[cols_at_], which is
  // 64-byte aligned so that no 8-float tap run splits a cache line.
  std::vector<float> cols_;
  size_t cols_at_ = 0;
  float* cols() { return cols_.data() + cols_at_; }
  const float* cols() const { return cols_.data() + cols_at_; }
  std::vector<Scratch> scratch_;
  std::vector<int> col_x_, col_y_;
};

}  // namespace le
