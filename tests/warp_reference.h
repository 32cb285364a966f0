// Plain-loop references of the director's sampling, in double: GridSample (bilinear, border,
// align_corners 0) and the second-order corrected warp that WarpDirector fuses.
#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

namespace le::testwarp {

// The centre of pixel i of n in [-1, 1], and the pixel position a grid coordinate names.
inline double centre(int i, int n) { return (2.0 * i + 1.0) / n - 1.0; }
inline double pixelOf(double g, int n) { return ((g + 1) * n - 1) * 0.5; }

// Plane p (H x W) read bilinearly at pixel position (px, py), clamped to the pixel centres.
inline double bilinear(const float* p, int W, int H, double px, double py) {
  px = std::clamp(px, 0.0, double(W - 1)), py = std::clamp(py, 0.0, double(H - 1));
  const int x0 = int(std::floor(px)), y0 = int(std::floor(py));
  const int x1 = std::min(x0 + 1, W - 1), y1 = std::min(y0 + 1, H - 1);
  const double fx = px - x0, fy = py - y0;
  return (1 - fy) * ((1 - fx) * p[y0 * W + x0] + fx * p[y0 * W + x1]) +
         fy * ((1 - fx) * p[y1 * W + x0] + fx * p[y1 * W + x1]);
}

// GridSample of the C planes of in at grid (H x W x 2).
inline std::vector<float> gridSample(const std::vector<float>& in, const std::vector<float>& grid, int C,
                                     int H, int W) {
  std::vector<float> out(in.size());
  for (size_t p = 0; p < size_t(H) * W; ++p)
    for (int c = 0; c < C; ++c)
      out[size_t(c) * H * W + p] = float(bilinear(&in[size_t(c) * H * W], W, H, pixelOf(grid[2 * p], W),
                                                  pixelOf(grid[2 * p + 1], H)));
  return out;
}

// The warp of a 3-channel image: its twelve planes P, Pxx, Pyy, Pxxyy (second differences with
// clamped neighbours), sampled bilinearly and combined with the sub-pixel correction.
struct Warp {
  int W, H;
  std::vector<float> tip;
  Warp(const std::vector<float>& P, int w, int h) : W(w), H(h), tip(size_t(12) * w * h) {
    auto at = [&](int c, int y, int x) {
      y = std::clamp(y, 0, H - 1), x = std::clamp(x, 0, W - 1);
      return P[(size_t(c) * H + y) * W + x];
    };
    const size_t plane = size_t(W) * H;
    for (int c = 0; c < 3; ++c)
      for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
          const size_t i = size_t(y) * W + x;
          auto dxx = [&](int yy) { return at(c, yy, x - 1) - 2 * at(c, yy, x) + at(c, yy, x + 1); };
          tip[c * plane + i] = at(c, y, x);
          tip[(3 + c) * plane + i] = dxx(y);
          tip[(6 + c) * plane + i] = at(c, y - 1, x) - 2 * at(c, y, x) + at(c, y + 1, x);
          tip[(9 + c) * plane + i] = dxx(y - 1) - 2 * dxx(y) + dxx(y + 1);
        }
  }
  // Channel c of the warp at grid coordinate (gx, gy).
  double at(int c, double gx, double gy) const {
    const double px = pixelOf(gx, W), py = pixelOf(gy, H);
    const double tx = px - std::floor(px), ty = py - std::floor(py);
    const double ax = (1 - tx) * tx * 0.5, ay = (1 - ty) * ty * 0.5;
    auto s = [&](int k) { return bilinear(&tip[size_t(k) * W * H], W, H, px, py); };
    return s(c) - ax * s(3 + c) - ay * s(6 + c) + ax * ay * s(9 + c);
  }
  // The whole warp at grid (H x W x 2).
  template <class T>
  std::vector<double> run(const std::vector<T>& grid) const {
    std::vector<double> out(size_t(3) * W * H);
    for (size_t p = 0; p < size_t(W) * H; ++p)
      for (int c = 0; c < 3; ++c) out[size_t(c) * W * H + p] = at(c, grid[2 * p], grid[2 * p + 1]);
    return out;
  }
};

}  // namespace le::testwarp
