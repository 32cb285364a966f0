#include "le/le_paste.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

#include "le/le_bundle.h"
#include "le/le_paste_alpha.h"
#include "le/le_pool.h"
#include "le/le_simd.h"

namespace le {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr size_t kGrain = 64;
// Crop rows sharpened together, out of one ring of horizontally blurred rows.
constexpr int kBand = 8;
// Fixed-point positions must stay well inside int so row start + column offset cannot overflow.
constexpr double kFixedLimit = 1073741824.0;  // 2^30

// Decimal value of an environment variable; false when unset.
bool envLong(const char* name, long* out) {
  const char* s = std::getenv(name);
  if (!s) return false;
  errno = 0;
  long v = std::strtol(s, nullptr, 10);
  if (errno == ERANGE) v = -1;
  *out = v;
  return true;
}

double sinc(double x) {
  if (x == 0.0) return 1.0;
  return std::sin(kPi * x) / (kPi * x);
}

// Mirror without repeating the edge pixel (…, 2, 1, [0, 1, …, n-1], n-2, …); repeated for
// borders wider than the plane.
int reflect101(int i, int n) {
  if (n == 1) return 0;
  while (i < 0 || i >= n) {
    if (i < 0) i = -i;
    if (i >= n) i = 2 * n - 2 - i;
  }
  return i;
}

// NaN goes to 0, so nothing downstream sees one.
inline float clamp255(float v) { return v > 0.f ? (v < 255.f ? v : 255.f) : 0.f; }

std::once_flag g_announce;

}  // namespace

Paste::Paste(std::vector<uint8_t> mask, int crop, const Unsharp& unsharp)
    : crop_(crop), ksize_(unsharp.ksize), amount_(unsharp.amount), mask_(std::move(mask)) {
  if (crop < 1 || mask_.size() != size_t(crop) * size_t(crop))
    throw std::runtime_error("paste: mask size");
  if (unsharp.ksize % 2 == 0) throw std::runtime_error("paste: ksize must be odd");
  if (unsharp.ksize < 1) throw std::runtime_error("paste: ksize must be positive");
  if (!(unsharp.sigma > 0.f)) {
    char v[32];
    std::snprintf(v, sizeof v, "%g", double(unsharp.sigma));
    throw std::runtime_error(
        std::string("paste: manifest \"sigma\" is ") + v +
        " — the unsharp mask's Gaussian needs a width above 0 (at 0 every tap divides by zero, "
        "below 0 the width is a sign error). REFUSING to load a paste whose blur nobody "
        "specified; the default is 2.0.");
  }

  long v = 0;
  if (envLong("LE_PASTE_FAST", &v)) fast_ = (v >= 0 && v <= 2) ? int(v) : 0;
  if (envLong("LE_PASTE_KSIZE", &v) && v > 2 && v % 2 == 1 && v <= ksize_) ksize_ = int(v);
  padded_ = crop_ + ksize_ - 1;

  // Gaussian taps.
  gauss_.assign(size_t(ksize_), 0.f);
  const double sigma = unsharp.sigma, m = (ksize_ - 1) / 2.0;
  std::vector<double> g(static_cast<size_t>(ksize_));
  double sum = 0.0;
  for (int i = 0; i < ksize_; ++i) {
    g[size_t(i)] = std::exp(-(i - m) * (i - m) / (2.0 * sigma * sigma));
    sum += g[size_t(i)];
  }
  for (int i = 0; i < ksize_; ++i) gauss_[size_t(i)] = float(g[size_t(i)] / sum);

  // Lanczos (a = 4), 8 taps over source pixels ix-3 .. ix+4.
  lanczos_.assign(kPhases * 8, 0.f);
  lanczos_[3] = 1.f;
  for (int p = 1; p < kPhases; ++p) {
    const double t = p / double(kPhases);
    double w[8], sum = 0.0;
    for (int i = 0; i < 8; ++i) {
      const double d = t + 3 - i;
      w[i] = sinc(d) * sinc(d / 4.0);
      sum += w[i];
    }
    for (int i = 0; i < 8; ++i) lanczos_[size_t(8 * p + i)] = float(w[i] / sum);
  }

  bilinear_.resize(kPhases * 2);
  bicubic_.resize(kPhases * 4);
  for (int p = 0; p < kPhases; ++p) {
    const double t = p / double(kPhases);
    bilinear_[size_t(2 * p)] = float(1.0 - t);
    bilinear_[size_t(2 * p + 1)] = float(t);
    // Cubic convolution, A = -0.75, over ix-1 .. ix+2; the last tap closes the sum to 1.
    const double s = 1.0 + t, u = 1.0 - t;
    const float w0 = float(((-0.75 * s + 3.75) * s - 6.0) * s + 3.0);
    const float w1 = float((1.25 * t - 2.25) * t * t + 1.0);
    const float w2 = float((1.25 * u - 2.25) * u * u + 1.0);
    float* b = &bicubic_[size_t(4 * p)];
    b[0] = w0;
    b[1] = w1;
    b[2] = w2;
    b[3] = 1.f - w0 - w1 - w2;
  }

  // Per crop row iy (from -1): the columns ix whose 2 x 2 mask neighbourhood (ix..ix+1,
  // iy..iy+1) holds a non-zero byte lie in near_[iy + 1], empty when first > second.
  std::vector<std::pair<int, int>> rowSpan(size_t(crop_), {crop_, -1});
  for (int y = 0; y < crop_; ++y)
    for (int x = 0; x < crop_; ++x)
      if (mask_[size_t(y) * size_t(crop_) + size_t(x)]) {
        auto& sp = rowSpan[size_t(y)];
        sp.first = std::min(sp.first, x - 1);
        sp.second = std::max(sp.second, x);
      }
  near_.assign(size_t(crop_) + 1, {crop_, -1});
  for (int iy = -1; iy < crop_; ++iy)
    for (int yy : {iy, iy + 1})
      if (yy >= 0 && yy < crop_) {
        auto& sp = near_[size_t(iy + 1)];
        sp.first = std::min(sp.first, rowSpan[size_t(yy)].first);
        sp.second = std::max(sp.second, rowSpan[size_t(yy)].second);
      }
  // A blended pixel's mask neighbourhood holds a non-zero byte, and its taps reach 4 crop
  // pixels beyond that byte (3 before its own column and row, 4 after): every tap lies within
  // 4 rows and 4 columns of a non-zero byte.
  const auto widen = [](std::pair<int, int>& a, std::pair<int, int> b) {
    a.first = std::min(a.first, b.first);
    a.second = std::max(a.second, b.second);
  };
  need_.assign(size_t(crop_), {crop_, -1});
  for (int y = 0; y < crop_; ++y)
    for (int yy = std::max(0, y - 4); yy <= std::min(crop_ - 1, y + 4); ++yy) {
      const auto& sp = rowSpan[size_t(yy)];  // (first non-zero column - 1, last)
      if (sp.first <= sp.second)
        widen(need_[size_t(y)], {std::max(0, sp.first + 1 - 4), std::min(crop_ - 1, sp.second + 4)});
    }
  // Padded row p feeds the vertical blur of crop rows p - ksize + 1 .. p.
  hneed_.assign(size_t(padded_), {crop_, -1});
  for (int p = 0; p < padded_; ++p)
    for (int y = std::max(0, p - ksize_ + 1); y <= std::min(crop_ - 1, p); ++y) widen(hneed_[size_t(p)], need_[size_t(y)]);
  // Lanczos mode reads the crop from row bands, the planar modes from the planes.
  if (fast_ == 0) {
    cols_.assign(le::simd::pasteSourceFloats(crop_) + 15, 0.f);
    cols_at_ = (64 - reinterpret_cast<uintptr_t>(cols_.data()) % 64) % 64 / sizeof(float);
    quads_.resize((size_t(crop_) + 1) * (size_t(crop_) + 1));
    le::simd::pasteMaskQuads(mask_.data(), crop_, quads_.data());
  } else {
    for (auto& pl : planes_) pl.assign(size_t(crop_) * size_t(crop_), 0.f);
  }
  // One sharpening scratch per pool part: a padded row, the ring of horizontally blurred rows
  // one band needs, and the band itself.
  scratch_.resize(size_t(std::max(1, le::pool::threads())));
  for (Scratch& sc : scratch_) {
    sc.padded.assign(size_t(padded_), 0.f);
    sc.ring.assign(size_t(ksize_ + kBand - 1) * size_t(crop_), 0.f);
    sc.band.assign(size_t(kBand) * size_t(crop_), 0.f);
    sc.rows.resize(size_t(ksize_));
  }
}

// Scales the crop and sharpens it:
// plane = clamp(plane * (1 + amount) - gauss(plane) * amount, 0, 255), the Gaussian separable
// over a mirrored border, horizontal pass first, taps summed in ascending order. Each pool part
// takes a range of rows, whole bands of them, and keeps the horizontally blurred rows it needs
// in a ring; the sharpened bands go straight to the Lanczos source (or to the planes).
void Paste::sharpen(const float* in, float scale) {
  if (crop_ > 1024) throw std::runtime_error("paste: side > 1024");
  const int n = crop_;
  const int parts = std::min(int(scratch_.size()), le::pool::parts(size_t(n), kGrain));
  const int chunk = ((n + parts - 1) / parts + kBand - 1) / kBand * kBand;
  // One captured pointer keeps std::function from allocating.
  struct Job {
    Paste* self;
    const float* in;
    float scale;
    int n, chunk;
  } job{this, in, scale, n, chunk};
  le::pool::parallelRange(size_t(parts), 1, [&job](size_t b, size_t e) {
    for (size_t i = b; i < e; ++i)
      job.self->sharpenRows(job.in, job.scale, std::min(job.n, int(i) * job.chunk),
                            std::min(job.n, int(i + 1) * job.chunk), job.self->scratch_[i]);
  });
}

void Paste::sharpenRows(const float* in, float scale, int y0, int y1, Scratch& sc) {
  const int n = crop_, K = ksize_, r = K / 2, ring = K + kBand - 1;
  const size_t plane = size_t(n) * size_t(n);
  const float* g = gauss_.data();
  float* a = sc.padded.data();
  for (int k = 0; k < 3; ++k) {
    const float* src = in + size_t(k) * plane;
    int next = y0;  // next padded row to blur horizontally
    for (int yb = y0; yb < y1; yb += kBand) {
      const int ye = std::min(y1, yb + kBand);
      for (; next < ye + K - 1; ++next) {
        const auto [lo, hi] = hneed_[size_t(next)];
        if (lo > hi) continue;
        // Padded row `next` is crop row next - r, mirrored at the crop's edges; its columns
        // lo .. hi + K - 1 feed the blurred columns lo .. hi.
        const float* srow = src + size_t(reflect101(next - r, n)) * size_t(n);
        const int c1 = hi + K;
        int c = lo;
        for (; c < std::min(r, c1); ++c) a[c] = scale * srow[reflect101(c - r, n)];
        for (; c < std::min(r + n, c1); ++c) a[c] = scale * srow[c - r];
        for (; c < c1; ++c) a[c] = scale * srow[reflect101(c - r, n)];
        for (int t = 0; t < K; ++t) sc.rows[size_t(t)] = a + lo + t;
        le::simd::pasteBlurRow(sc.rows.data(), g, K, hi - lo + 1,
                               &sc.ring[size_t(next % ring) * size_t(n) + size_t(lo)]);
      }
      int blo = n, bhi = -1;  // columns of the band's rows
      for (int y = yb; y < ye; ++y) {
        const auto [lo, hi] = need_[size_t(y)];
        if (lo > hi) continue;
        blo = std::min(blo, lo);
        bhi = std::max(bhi, hi);
        for (int t = 0; t < K; ++t)
          sc.rows[size_t(t)] = &sc.ring[size_t((y + t) % ring) * size_t(n) + size_t(lo)];
        float* out = fast_ == 0 ? &sc.band[size_t(y - yb) * size_t(n)] : &planes_[k][size_t(y) * size_t(n)];
        le::simd::pasteSharpenRow(sc.rows.data(), g, K, hi - lo + 1, src + size_t(y) * size_t(n) + size_t(lo),
                                  scale, amount_, out + lo);
      }
      if (fast_ == 0 && blo <= bhi) le::simd::pasteColumns(sc.band.data(), n, yb, ye, k, blo, bhi + 1, cols());
    }
  }
}

int Paste::plan(const float* M, int crop, int W, int H, Plan* out) {
  const float a = M[0], b = M[1], tx = M[2], c = M[3], d = M[4], ty = M[5];
  const double det = double(d) * a - double(b) * c;
  if (det == 0.0) return 0;

  // Frame box of the crop, widened by the Lanczos reach.
  const float us[4] = {-4.f, float(crop + 3), -4.f, float(crop + 3)};
  const float vs[4] = {-4.f, -4.f, float(crop + 3), float(crop + 3)};
  float minx = INFINITY, maxx = -INFINITY, miny = INFINITY, maxy = -INFINITY;
  for (int i = 0; i < 4; ++i) {
    const float x = us[i] * a + vs[i] * b + tx;
    const float y = us[i] * c + vs[i] * d + ty;
    minx = std::min(minx, x);
    maxx = std::max(maxx, x);
    miny = std::min(miny, y);
    maxy = std::max(maxy, y);
  }
  const double fx0 = std::max(std::floor(double(minx)), 0.0);
  const double fx1 = std::min(double(W) - 1, std::ceil(double(maxx)));
  const double fy0 = std::max(std::floor(double(miny)), 0.0);
  const double fy1 = std::min(double(H) - 1, std::ceil(double(maxy)));
  if (!(fx1 >= fx0) || !(fy1 >= fy0)) return 0;  // also catches a NaN transform
  Plan& p = *out;
  p.x0 = int(fx0), p.x1 = int(fx1), p.y0 = int(fy0), p.y1 = int(fy1);
  p.du_dx = d / det, p.dv_dx = -c / det;
  p.rows = Rows{-b / det, a / det, -(tx * p.du_dx + ty * (-b / det)),
                -(tx * p.dv_dx + ty * (a / det))};
  // Row start plus column offset must stay inside int: both parts below 2^30 at the box ends.
  for (double x : {double(p.x0), double(p.x1)})
    if (!(std::fabs(x * p.du_dx * 1024) < kFixedLimit &&
          std::fabs(x * p.dv_dx * 1024) < kFixedLimit))
      return -1;
  for (double y : {double(p.y0), double(p.y1)})
    if (!(std::fabs((y * p.rows.du_dy + p.rows.u0) * 1024) < kFixedLimit &&
          std::fabs((y * p.rows.dv_dy + p.rows.v0) * 1024) < kFixedLimit))
      return -1;
  return 1;
}

void Paste::checkTransform(const float* M, int crop, int W, int H, const std::string& what) {
  bool finite = true;
  for (int i = 0; i < 6; ++i) finite = finite && std::isfinite(M[i]);
  Plan p;
  if (finite && plan(M, crop, W, H, &p) >= 0) return;
  char values[160];
  std::snprintf(values, sizeof values, "(%g, %g, %g, %g, %g, %g)", double(M[0]), double(M[1]),
                double(M[2]), double(M[3]), double(M[4]), double(M[5]));
  throw std::runtime_error(
      "paste: " + what + " (a, b, tx, c, d, ty) = " + values +
      (finite ? " maps the " + std::to_string(W) + "x" + std::to_string(H) +
                    " frame to crop positions beyond the paste's fixed-point range (2^20 crop "
                    "pixels) — so nearly singular a transform cannot place the crop"
              : std::string(" is not finite — no frame position can be mapped through it")) +
      ", and pasting would silently skip the frame. REFUSING to load it.");
}

void Paste::composite(const float* crop_planes, float scale, const float* M, uint8_t* frame,
                      int W, int H) {
  Plan p;
  const int planned = plan(M, crop_, W, H, &p);
  if (planned == 0) return;
  if (planned < 0) checkTransform(M, crop_, W, H, "transform");

  const size_t ncol = size_t(p.x1 - p.x0 + 1);
  if (col_x_.size() < ncol) {
    col_x_.resize(ncol);
    col_y_.resize(ncol);
  }
  for (int x = p.x0; x <= p.x1; ++x) {
    col_x_[size_t(x - p.x0)] = int(std::rint(x * p.du_dx * 1024));
    col_y_[size_t(x - p.x0)] = int(std::rint(x * p.dv_dx * 1024));
  }

  std::call_once(g_announce, [this] {
    std::fprintf(stderr, "[le-paste] executor=%s (side=%d, ksize=%d, threads=%d) — 1080p frame\n",
                 "cpu", crop_, ksize_, le::pool::threads());
  });

  sharpen(crop_planes, scale);
  compositeTail(frame, W, p.x0, p.x1, p.y0, p.y1, p.rows);
}

void Paste::compositeTail(uint8_t* frame, int W, int x0, int x1, int y0, int y1,
                          const Rows& rows) {
  struct Job {
    Paste* self;
    uint8_t* frame;
    int W, x0, x1, y0;
    const Rows* rows;
  } job{this, frame, W, x0, x1, y0, &rows};
  le::pool::parallelRange(size_t(y1 - y0 + 1), kGrain, [&job](size_t b, size_t e) {
    const Paste& s = *job.self;
    const Rows& r = *job.rows;
    const int ncol = job.x1 - job.x0 + 1;
    for (size_t i = b; i < e; ++i) {
      const int y = job.y0 + int(i);
      const int row_x = int(std::rint((y * r.du_dy + r.u0) * 1024)) + 16;
      const int row_y = int(std::rint((y * r.dv_dy + r.v0) * 1024)) + 16;
      // Only the columns between the first and the last whose mask neighbourhood holds a
      // non-zero weight can blend.
      int a = 0, z = ncol - 1;
      constexpr int kRun = 16;  // columns ruled out at once, then one by one
      while (a + kRun <= z && s.noneNear(row_x, row_y, a, a + kRun - 1)) a += kRun;
      while (z - kRun >= a && s.noneNear(row_x, row_y, z - kRun + 1, z)) z -= kRun;
      while (a <= z && !s.maskNear(row_x + s.col_x_[size_t(a)], row_y + s.col_y_[size_t(a)])) ++a;
      while (z > a && !s.maskNear(row_x + s.col_x_[size_t(z)], row_y + s.col_y_[size_t(z)])) --z;
      if (a > z) continue;
      uint8_t* dst = job.frame + size_t(y) * size_t(job.W) * 3;
      const int* cx = s.col_x_.data() + a;
      const int* cy = s.col_y_.data() + a;
      if (s.fast_ == 0)
        le::simd::pasteLanczos8Row(s.cols(), s.crop_, s.mask_.data(), s.quads_.data(), s.lanczos_.data(),
                                   s.bilinear_.data(), cx, cy, row_x, row_y, job.x0 + a, job.x0 + z, dst);
      else
        s.resampleRowPlanar(dst, cx, cy, row_x, row_y, job.x0 + a, job.x0 + z);
    }
  });
}

bool Paste::maskNear(int sx, int sy) const {
  const int ix = sx >> kFracBits, iy = sy >> kFracBits;
  if (!(sx >= -1024 && sy >= -1024 && ix < crop_ && iy < crop_)) return false;
  const auto& span = near_[size_t(iy + 1)];
  return span.first <= ix && ix <= span.second;
}

bool Paste::noneNear(int row_x, int row_y, int a, int b) const {
  // Column offsets are monotonic, so the run's positions lie in the box of its two ends.
  const int ixa = (row_x + col_x_[size_t(a)]) >> kFracBits, ixb = (row_x + col_x_[size_t(b)]) >> kFracBits;
  const int iya = (row_y + col_y_[size_t(a)]) >> kFracBits, iyb = (row_y + col_y_[size_t(b)]) >> kFracBits;
  const int ix0 = std::min(ixa, ixb), ix1 = std::max(ixa, ixb);
  for (int iy = std::max(-1, std::min(iya, iyb)); iy <= std::min(crop_ - 1, std::max(iya, iyb)); ++iy) {
    const auto& span = near_[size_t(iy + 1)];
    if (span.first <= ix1 && ix0 <= span.second) return false;
  }
  return true;
}

namespace {

// Taps of the planar modes. Checked: samples outside the crop count 0 (and bicubic rows
// outside it are skipped); unchecked: the caller knows every tap lies inside.
template <bool kChecked>
inline float bicubicAt(const float* pl, int n, int ix, int iy, const float* wx, const float* wy) {
  float sum = 0.f;
  for (int j = 0; j < 4; ++j) {
    const int yy = iy - 1 + j;
    if (kChecked && unsigned(yy) >= unsigned(n)) continue;
    const float* row = pl + size_t(yy) * size_t(n);
    float rsum = 0.f;
    for (int i = 0; i < 4; ++i) {
      const int xx = ix - 1 + i;
      rsum += (!kChecked || unsigned(xx) < unsigned(n) ? row[xx] : 0.f) * wx[i];
    }
    sum += rsum * wy[j];
  }
  return sum;
}

template <bool kChecked>
inline float bilinearAt(const float* pl, int n, int ix, int iy, float wx0, float wx1, float wy0,
                        float wy1) {
  auto p = [&](int xx, int yy) {
    return !kChecked || (unsigned(xx) < unsigned(n) && unsigned(yy) < unsigned(n))
               ? pl[size_t(yy) * size_t(n) + size_t(xx)]
               : 0.f;
  };
  return (wx0 * p(ix, iy) + wx1 * p(ix + 1, iy)) * wy0 +
         (wx0 * p(ix, iy + 1) + wx1 * p(ix + 1, iy + 1)) * wy1;
}

}  // namespace

// Bicubic (mode 1) and bilinear (mode 2) rows: the Lanczos row's skip rule and mask alpha, with
// the colour taken from the three planes.
void Paste::resampleRowPlanar(uint8_t* dst, const int* col_x, const int* col_y, int row_x, int row_y,
                              int x0, int x1) const {
  const int n = crop_;
  const float* bl = bilinear_.data();
  const float* pl[3] = {planes_[0].data(), planes_[1].data(), planes_[2].data()};
  for (int x = x0; x <= x1; ++x) {
    const simd::detail::PastePos p =
        simd::detail::pastePos(row_x + col_x[x - x0], row_y + col_y[x - x0], n);
    if (!p.ok) continue;
    const float alpha = simd::detail::pasteAlpha(mask_.data(), n, bl, p);
    if (!(alpha > 0.f)) continue;
    const int ix = p.ix, iy = p.iy, px = p.px, py = p.py;
    const float wx0 = bl[2 * px], wx1 = bl[2 * px + 1], wy0 = bl[2 * py], wy1 = bl[2 * py + 1];
    const bool interior = ix >= 1 && iy >= 1 && ix + 2 < n && iy + 2 < n;
    uint8_t* o = dst + 3 * size_t(x);
    for (int k = 0; k < 3; ++k) {
      float sum;
      if (fast_ == 1) {
        const float* wx = &bicubic_[size_t(4 * px)];
        const float* wy = &bicubic_[size_t(4 * py)];
        sum = interior ? bicubicAt<false>(pl[k], n, ix, iy, wx, wy)
                       : bicubicAt<true>(pl[k], n, ix, iy, wx, wy);
      } else {
        sum = interior ? bilinearAt<false>(pl[k], n, ix, iy, wx0, wx1, wy0, wy1)
                       : bilinearAt<true>(pl[k], n, ix, iy, wx0, wx1, wy0, wy1);
      }
      const float dv = float(o[k]);
      o[k] = uint8_t(clamp255(dv * (1.f - alpha) + alpha * sum));
    }
  }
}

}  // namespace le
