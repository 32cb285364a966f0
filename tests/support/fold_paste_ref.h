// The paste's arithmetic written out with plain loops: the filter tables from their formulas
// and one destination pixel's blend, shared by the compositor and vector-kernel tests.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace le::testref {

struct PasteTables {
  std::vector<float> gauss, lanczos, bilinear, bicubic;
};

// Normalised Gaussian of ksize taps; per phase p/32: Lanczos (a = 4, normalised), bilinear,
// and Keys bicubic (a = -0.75).
inline PasteTables pasteTables(int ksize, double sigma) {
  PasteTables t;
  std::vector<double> g(static_cast<size_t>(ksize));
  double sum = 0;
  for (int i = 0; i < ksize; ++i) {
    const double m = (ksize - 1) / 2.0;
    g[size_t(i)] = std::exp(-(i - m) * (i - m) / (2 * sigma * sigma));
    sum += g[size_t(i)];
  }
  for (double v : g) t.gauss.push_back(float(v / sum));
  const auto sinc = [](double x) { return x == 0 ? 1.0 : std::sin(M_PI * x) / (M_PI * x); };
  for (int p = 0; p < 32; ++p) {
    const double tt = p / 32.0;
    double w[8], s = 0;
    for (int i = 0; i < 8; ++i) s += w[i] = p == 0 ? (i == 3) : sinc(tt + 3 - i) * sinc((tt + 3 - i) / 4);
    for (int i = 0; i < 8; ++i) t.lanczos.push_back(float(w[i] / s));
    t.bilinear.push_back(float(1 - tt));
    t.bilinear.push_back(float(tt));
    const float w0 = float(((-0.75 * (1 + tt) + 3.75) * (1 + tt) - 6) * (1 + tt) + 3);
    const float w1 = float((1.25 * tt - 2.25) * tt * tt + 1);
    const float w2 = float((1.25 * (1 - tt) - 2.25) * (1 - tt) * (1 - tt) + 1);
    t.bicubic.insert(t.bicubic.end(), {w0, w1, w2, 1.f - w0 - w1 - w2});
  }
  return t;
}

// Blends one destination pixel (3 bytes) from crop position (sx, sy) in 1/1024 pixels: the
// mask's bilinear alpha rounded to 1/255, then the crop resampled by mode 0 (Lanczos 8x8),
// 1 (bicubic 4x4) or 2 (bilinear). src(k, row, col) is channel k inside the crop.
template <class Src>
void refPastePixel(const PasteTables& t, int mode, const uint8_t* mask, int crop, int sx, int sy, Src src,
                   uint8_t* dst) {
  const int ix = sx >> 10, iy = sy >> 10;
  if (!(sx >= -1024 && sy >= -1024 && ix < crop && iy < crop)) return;
  const int px = (sx >> 5) & 31, py = (sy >> 5) & 31;
  const float wx0 = t.bilinear[2 * px], wx1 = t.bilinear[2 * px + 1];
  const float wy0 = t.bilinear[2 * py], wy1 = t.bilinear[2 * py + 1];
  const auto inside = [&](int x, int y) { return x >= 0 && y >= 0 && x < crop && y < crop; };
  const auto m = [&](int x, int y) { return inside(x, y) ? float(mask[y * crop + x]) : 0.f; };
  const float alpha = std::rint(((wx1 * m(ix + 1, iy + 1) + wx0 * m(ix, iy + 1)) * wy1) +
                                ((wx1 * m(ix + 1, iy) + wx0 * m(ix, iy)) * wy0)) / 255.0f;
  if (alpha <= 0) return;
  for (int k = 0; k < 3; ++k) {
    const auto p = [&](int x, int y) { return inside(x, y) ? src(k, y, x) : 0.f; };
    float sum = 0;
    if (mode == 0) {
      for (int j = 0; j < 8; ++j) {
        const int yy = iy - 3 + j;
        if (yy < 0 || yy >= crop) continue;
        float r = t.lanczos[8 * px] * p(ix - 3, yy);
        for (int i = 1; i < 8; ++i) r = r + t.lanczos[8 * px + i] * p(ix - 3 + i, yy);
        sum = sum + r * t.lanczos[8 * py + j];
      }
    } else if (mode == 1) {
      for (int j = 0; j < 4; ++j) {
        const int yy = iy - 1 + j;
        if (yy < 0 || yy >= crop) continue;
        float r = 0;
        for (int i = 0; i < 4; ++i) r += p(ix - 1 + i, yy) * t.bicubic[4 * px + i];
        sum += r * t.bicubic[4 * py + j];
      }
    } else {
      sum = (wx0 * p(ix, iy) + wx1 * p(ix + 1, iy)) * wy0 + (wx0 * p(ix, iy + 1) + wx1 * p(ix + 1, iy + 1)) * wy1;
    }
    const float v = (1 - alpha) * float(dst[k]) + alpha * sum;
    dst[k] = uint8_t(std::trunc(std::min(255.f, std::max(0.f, v))));
  }
}

}  // namespace le::testref
