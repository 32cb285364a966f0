#include "le/tessera/le_lip_contour.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <cstdio>
#include <stdexcept>

#include "le/tessera/le_bundle_tessera.h"

namespace le::tessera {

namespace {

constexpr int kKpRows = 21;
constexpr int kMaxLipRows = 8;
constexpr float kStep = 0.955f, kDiag = 1.3693f, kFarAway = 1e10f;
// Rounded vertices are held within this many pixels of the box origin, so 16.16 products stay
// inside int64 even for keypoints hundreds of canvases away.
constexpr int64_t kVertexReach = int64_t(1) << 16;

const char* const kPrefix = "lip_template.v1.json: ";

// The steps k in [0, n] for which start + s * k lies in [0, len): [lo, hi], empty when lo > hi.
void stepsInside(int64_t start, int64_t s, int64_t len, int64_t n, int64_t& lo, int64_t& hi) {
  if (s > 0) {
    lo = std::max<int64_t>(0, -start), hi = std::min(n, len - 1 - start);
  } else {
    lo = std::max<int64_t>(0, start - (len - 1)), hi = std::min(n, start);
  }
}

// Bresenham's segment from (x0, y0) to (x1, y1) into the w x h bytes. After k steps along the
// major axis the minor one has moved floor((2 * minor * k + major) / (2 * major)): the same
// points as the step-by-step walk, but only the steps inside the box are taken, so an edge to a
// vertex far off the canvas costs the box's width, not the vertex's distance.
void plotSegment(int64_t x0, int64_t y0, int64_t x1, int64_t y1, int64_t w, int64_t h, uint8_t* out) {
  const int64_t ax = std::abs(x1 - x0), ay = std::abs(y1 - y0);
  const int64_t sx = x0 < x1 ? 1 : -1, sy = y0 < y1 ? 1 : -1;
  const bool xMajor = ax >= ay;
  const int64_t n = xMajor ? ax : ay, m = xMajor ? ay : ax;
  int64_t lo, hi;
  if (xMajor) {
    stepsInside(x0, sx, w, n, lo, hi);
  } else {
    stepsInside(y0, sy, h, n, lo, hi);
  }
  for (int64_t k = lo; k <= hi; ++k) {
    const int64_t j = n ? (2 * m * k + n) / (2 * n) : 0;
    const int64_t x = x0 + sx * (xMajor ? k : j), y = y0 + sy * (xMajor ? j : k);
    if (x >= 0 && x < w && y >= 0 && y < h) out[y * w + x] = 255;
  }
}

inline float smoothstep01(float s) { return (3.f - 2.f * s) * s * s; }

std::runtime_error refused(const std::string& what) { return std::runtime_error(kPrefix + what); }

// The learned map's part of a template.
struct MapSpec {
  std::vector<int32_t> lipIdx = {17, 18, 19, 20};
  std::vector<double> W, b;
  int32_t rows = 0, cols = 0;
};

MapSpec readMap(const json::JVal& m, int32_t nv, int32_t canvas) {
  if (!m.isObject()) throw refused("lip_map is not a JSON object");
  const json::JVal* schema = m.get("schema");
  const std::string schemaText = schema && schema->isString() ? schema->str : "";
  if (schemaText != "lip-map-v1")
    throw refused("lip_map declares schema '" + schemaText + "', not 'lip-map-v1' — this runtime cannot evaluate it");
  const json::JVal* kind = m.get("kind");
  if (!kind || !kind->isString() || kind->str != "anchor-linear") throw refused("lip_map kind is not 'anchor-linear'");
  MapSpec spec;
  if (const json::JVal* idx = m.get("lip_idx")) {
    if (!idx->isArray() || idx->arr.empty() || idx->arr.size() > size_t(kMaxLipRows))
      throw refused("lip_map lip_idx is not 1..8 kd rows");
    spec.lipIdx.clear();
    for (const json::JVal& v : idx->arr) {
      if (!v.isNumber() || !(v.num >= 0 && v.num < kKpRows) || v.num != std::trunc(v.num))
        throw refused("lip_map lip_idx names a row outside 0..20");
      spec.lipIdx.push_back(static_cast<int32_t>(v.num));
    }
  }
  const json::JVal* W = m.get("W");
  const json::JVal* b = m.get("b");
  if (!W || !b || !W->isArray() || !b->isArray()) throw refused("lip_map carries no W/b arrays");
  spec.rows = 2 * nv;
  spec.cols = 2 * static_cast<int32_t>(spec.lipIdx.size());
  if (W->arr.size() != size_t(spec.rows) || b->arr.size() != size_t(spec.rows))
    throw refused("lip_map W/b have " + std::to_string(W->arr.size()) + "/" + std::to_string(b->arr.size()) +
                  " rows, not 2*nv=" + std::to_string(spec.rows));
  auto coefficient = [](const json::JVal& v) {
    if (!v.isNumber() || !std::isfinite(v.num)) throw refused("lip_map carries a non-finite coefficient");
    return v.num;
  };
  for (size_t r = 0; r < W->arr.size(); ++r) {
    const json::JVal& row = W->arr[r];
    if (!row.isArray() || row.arr.size() != size_t(spec.cols))
      throw refused("lip_map W row " + std::to_string(r) + " is not " + std::to_string(spec.cols) + " wide");
    for (const json::JVal& v : row.arr) spec.W.push_back(coefficient(v));
  }
  for (const json::JVal& v : b->arr) spec.b.push_back(coefficient(v));
  if (const json::JVal* c = m.get("canvas"); c && !(c->isNumber() && c->num == canvas))
    throw refused("lip_map was fitted on another canvas than this bundle composes on");
  return spec;
}

}  // namespace

LipContour LipContour::fromTemplateJson(const std::string& templateText, int32_t canvas) {
  json::JVal t;
  try {
    t = json::JParser(templateText).parse();
  } catch (const std::exception& e) {
    throw refused(std::string("is not parseable JSON (") + e.what() + ")");
  }
  if (!t.isObject()) throw refused("is not a JSON object");
  const json::JVal* format = t.get("format");
  if (!format || !format->isString()) throw refused("carries no string `format`");
  if (format->str != "lip-template-v1")
    throw refused("declares format '" + format->str + "', not 'lip-template-v1' — this runtime cannot read it");
  if (const json::JVal* edge = t.get("edge"); edge && edge->isString() && edge->str != "outward")
    throw refused("declares edge '" + edge->str +
                  "', and the contour feather is OUTWARD — refusing to serve a mask this runtime does not compute");
  const json::JVal* tc = t.get("canvas");
  if (!tc || !tc->isNumber()) throw refused("carries no numeric `canvas`");
  if (truncSat(tc->num) != canvas)
    throw refused("was baked on a " + std::to_string(truncSat(tc->num)) + " canvas but this bundle composes on " +
                  std::to_string(canvas) + " — refusing to deform a polygon onto a canvas it does not name");
  const json::JVal* feather = t.get("feather_px");
  if (!feather || !feather->isNumber()) throw refused("carries no numeric `feather_px`");
  if (!(feather->num > 0)) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%f", feather->num);
    throw refused(std::string("declares feather_px ") + buf + ", which is not positive");
  }
  const json::JVal* uc = t.get("u_canon");
  if (!uc || !uc->isArray() || uc->arr.empty()) throw refused("carries no non-empty `u_canon` array");
  std::vector<double> u;
  for (size_t i = 0; i < uc->arr.size(); ++i) {
    const json::JVal& row = uc->arr[i];
    if (!row.isArray() || row.arr.size() != 2 || !row.arr[0].isNumber() || !row.arr[1].isNumber())
      throw refused("u_canon row " + std::to_string(i) + " is not a 2-vector — this is not an nv x 2 template");
    u.push_back(row.arr[0].num);
    u.push_back(row.arr[1].num);
  }
  const int32_t nv = static_cast<int32_t>(uc->arr.size());
  std::vector<int32_t> lips = {17, 18, 19, 20};
  if (const json::JVal* idx = t.get("lip_idx")) {
    if (!idx->isArray() || idx->arr.empty()) throw refused("carries a `lip_idx` that is not a non-empty array");
    lips.clear();
    for (const json::JVal& v : idx->arr) {
      if (!v.isNumber() || std::isnan(v.num)) throw refused("carries a `lip_idx` that is not a non-empty array");
      const int32_t r = truncSat(v.num);
      if (r < 0 || r >= kKpRows) throw refused("lip_idx names keypoint row " + std::to_string(r) + ", and a kd row is 0..20");
      lips.push_back(r);
    }
  }
  MapSpec map;
  const json::JVal* m = t.get("lip_map");
  if (m) map = readMap(*m, nv, canvas);
  // The map brings its own rows; without one the template's must fit the deformation.
  if (!m && lips.size() > size_t(kMaxLipRows))
    throw refused("carries a `lip_idx` of " + std::to_string(lips.size()) +
                  " rows, and the deformation holds at most 8 — give it a lip_map or fewer rows");
  LipContour lc(canvas, static_cast<float>(feather->num), u.data(), nv, m ? map.lipIdx.data() : lips.data(),
                static_cast<int32_t>(m ? map.lipIdx.size() : lips.size()));
  if (m) lc.attachMap(map.W.data(), map.b.data(), map.rows, map.cols, map.lipIdx.data(), static_cast<int32_t>(map.lipIdx.size()));
  return lc;
}

LipContour::LipContour(int32_t canvas, float featherPx, const double* uCanon, int32_t nv, const int32_t* lipIdx,
                       int32_t nLipIdx)
    : canvas_(canvas), feather_(featherPx), nv_(nv) {
  if (canvas < 1) throw std::runtime_error(std::string(kPrefix) + "canvas " + std::to_string(canvas) + " is not positive");
  if (!(featherPx > 0.f)) throw std::runtime_error(std::string(kPrefix) + "feather_px is not positive");
  if (nv < 1 || !uCanon) throw std::runtime_error(std::string(kPrefix) + "carries no non-empty `u_canon` array");
  if (nLipIdx < 1 || nLipIdx > kMaxLipRows || !lipIdx)
    throw std::runtime_error(std::string(kPrefix) + "carries a `lip_idx` of " + std::to_string(nLipIdx) +
                             " rows, and the deformation takes 1..8");
  for (int32_t i = 0; i < nLipIdx; ++i)
    if (lipIdx[i] < 0 || lipIdx[i] >= kKpRows)
      throw std::runtime_error(std::string(kPrefix) + "lip_idx names keypoint row " + std::to_string(lipIdx[i]) +
                               ", and a kd row is 0..20");
  uCanon_.assign(uCanon, uCanon + 2 * static_cast<size_t>(nv));
  lipIdx_.assign(lipIdx, lipIdx + nLipIdx);
  poly_.resize(2 * static_cast<size_t>(nv));
}

void LipContour::attachMap(const double* W, const double* b, int32_t rows, int32_t cols, const int32_t* lipIdx,
                           int32_t n) {
  bool ok = W && b && lipIdx && n >= 1 && n <= kMaxLipRows && rows == 2 * nv_ && cols == 2 * n;
  for (int32_t i = 0; ok && i < n; ++i) ok = lipIdx[i] >= 0 && lipIdx[i] < kKpRows;
  if (!ok) throw std::runtime_error(std::string(kPrefix) + "lip_map shape does not match the template");
  W_.assign(W, W + static_cast<size_t>(rows) * cols);
  b_.assign(b, b + rows);
  lipIdx_.assign(lipIdx, lipIdx + n);
  K_ = cols;
}

void LipContour::polygon(const float* kp, double* out) const {
  const size_t n = lipIdx_.size();
  double px[kMaxLipRows], py[kMaxLipRows], mx = 0, my = 0;
  for (size_t i = 0; i < n; ++i) {
    const int32_t r = lipIdx_[i];
    px[i] = (static_cast<double>(kp[3 * r]) + 1.0) * canvas_ / 2.0;
    py[i] = (static_cast<double>(kp[3 * r + 1]) + 1.0) * canvas_ / 2.0;
    mx += px[i], my += py[i];
  }
  mx /= static_cast<double>(n);
  my /= static_cast<double>(n);
  if (K_ == 0) {
    double sx = 0, sy = 0;
    for (size_t i = 0; i < n; ++i) sx = std::max(sx, std::fabs(px[i] - mx)), sy = std::max(sy, std::fabs(py[i] - my));
    sx = std::max(1e-6, sx), sy = std::max(1e-6, sy);
    for (int32_t v = 0; v < nv_; ++v) {
      out[2 * v] = mx + sx * uCanon_[2 * v];
      out[2 * v + 1] = my + sy * uCanon_[2 * v + 1];
    }
    return;
  }
  double f[2 * kMaxLipRows];
  for (size_t i = 0; i < n; ++i) f[2 * i] = px[i] - mx, f[2 * i + 1] = py[i] - my;
  for (int32_t j = 0; j < 2 * nv_; ++j) {
    const double* w = &W_[static_cast<size_t>(j) * K_];
    double acc = b_[j];
    for (int32_t k = 0; k < K_; ++k) acc += w[k] * f[k];
    out[j] = acc + ((j & 1) ? my : mx);
  }
}

Box LipContour::box(const double* poly) const {
  double minx = poly[0], maxx = poly[0], miny = poly[1], maxy = poly[1];
  for (int32_t v = 0; v < nv_; ++v) {
    const double x = poly[2 * v], y = poly[2 * v + 1];
    if (!std::isfinite(x) || !std::isfinite(y)) return {};
    minx = std::min(minx, x), maxx = std::max(maxx, x);
    miny = std::min(miny, y), maxy = std::max(maxy, y);
  }
  const double m = static_cast<double>(feather_) + 2.0;
  Box b;
  b.x0 = floorClamp(minx - m, 0, canvas_);
  b.y0 = floorClamp(miny - m, 0, canvas_);
  b.x1 = ceilClamp(maxx + m + 1.0, b.x0, canvas_);
  b.y1 = ceilClamp(maxy + m + 1.0, b.y0, canvas_);
  return b;
}

void LipContour::fillScanline(const double* poly, const Box& box, uint8_t* out) const {
  const int64_t w = int64_t(box.x1) - box.x0, h = int64_t(box.y1) - box.y0;
  if (w < 1 || h < 1) return;
  std::memset(out, 0, static_cast<size_t>(w * h));
  auto vx = [&](int32_t v) {
    return std::clamp<int64_t>(roundHalfEven(poly[2 * v] - box.x0), -kVertexReach, kVertexReach);
  };
  auto vy = [&](int32_t v) {
    return std::clamp<int64_t>(roundHalfEven(poly[2 * v + 1] - box.y0), -kVertexReach, kVertexReach);
  };

  // The outline.
  for (int32_t i = 0; i < nv_; ++i) {
    const int32_t a = i == 0 ? nv_ - 1 : i - 1;
    plotSegment(vx(a), vy(a), vx(i), vy(i), w, h, out);
  }

  // Edge table in 16.16: y_min, y_max, x at y_min, dx/dy.
  edges_.clear();
  int64_t lowest = INT64_MAX, highest = INT64_MIN;
  for (int32_t i = 0; i < nv_; ++i) {
    const int32_t a = i == 0 ? nv_ - 1 : i - 1;
    int64_t x0 = vx(a), y0 = vy(a), x1 = vx(i), y1 = vy(i);
    if (y0 == y1) continue;
    if (y0 > y1) std::swap(x0, x1), std::swap(y0, y1);
    edges_.insert(edges_.end(), {y0, y1, x0 * 65536, ((x1 - x0) * 65536) / (y1 - y0)});
    lowest = std::min(lowest, y0), highest = std::max(highest, y1);
  }
  if (edges_.empty()) return;
  const int64_t yEnd = std::min(highest, h);
  for (int64_t y = std::max<int64_t>(lowest, 0); y < yEnd; ++y) {
    xings_.clear();
    for (size_t e = 0; e < edges_.size(); e += 4)
      if (edges_[e] <= y && y < edges_[e + 1]) xings_.push_back(edges_[e + 2] + (y - edges_[e]) * edges_[e + 3]);
    if (xings_.size() < 2) continue;
    std::sort(xings_.begin(), xings_.end());
    uint8_t* row = out + y * w;
    for (size_t k = 0; k + 1 < xings_.size(); k += 2) {
      const int64_t from = std::max<int64_t>((xings_[k] + 65535) >> 16, 0);
      const int64_t to = std::min<int64_t>(xings_[k + 1] >> 16, w - 1);
      if (from <= to) std::memset(row + from, 255, static_cast<size_t>(to - from + 1));
    }
  }
}

void LipContour::contourF32(const double* poly, const Box& box, float* out) const {
  const int32_t w = box.x1 - box.x0, h = box.y1 - box.y0;
  if (w < 1 || h < 1) return;
  const size_t area = static_cast<size_t>(w) * h;
  if (fill_.size() < area) fill_.resize(area), dist_.resize(area);
  fillScanline(poly, box, fill_.data());

  // Two-pass 8-neighbour chamfer distance to the filled region.
  float* d = dist_.data();
  for (size_t i = 0; i < area; ++i) d[i] = fill_[i] ? 0.f : kFarAway;
  for (int32_t y = 0; y < h; ++y) {
    float* row = d + static_cast<size_t>(y) * w;
    const float* up = y > 0 ? row - w : nullptr;
    for (int32_t x = 0; x < w; ++x) {
      float v = row[x];
      if (up) {
        v = std::min(v, up[x] + kStep);
        if (x > 0) v = std::min(v, up[x - 1] + kDiag);
        if (x + 1 < w) v = std::min(v, up[x + 1] + kDiag);
      }
      if (x > 0) v = std::min(v, row[x - 1] + kStep);
      row[x] = v;
    }
  }
  for (int32_t y = h - 1; y >= 0; --y) {
    float* row = d + static_cast<size_t>(y) * w;
    const float* dn = y + 1 < h ? row + w : nullptr;
    for (int32_t x = w - 1; x >= 0; --x) {
      float v = row[x];
      if (dn) {
        v = std::min(v, dn[x] + kStep);
        if (x > 0) v = std::min(v, dn[x - 1] + kDiag);
        if (x + 1 < w) v = std::min(v, dn[x + 1] + kDiag);
      }
      if (x + 1 < w) v = std::min(v, row[x + 1] + kStep);
      row[x] = v;
    }
  }

  const size_t n = static_cast<size_t>(canvas_);
  for (int32_t y = 0; y < h; ++y) {
    const float* drow = d + static_cast<size_t>(y) * w;
    float* orow = out + static_cast<size_t>(box.y0 + y) * n + box.x0;
    for (int32_t x = 0; x < w; ++x) {
      const float t = 1.f - drow[x] / feather_;
      orow[x] = t > 0.f ? smoothstep01(std::min(t, 1.f)) : 0.f;
    }
  }
}

void LipContour::contourF32Canvas(const float* kp, float* out) const {
  std::memset(out, 0, static_cast<size_t>(canvas_) * canvas_ * sizeof(float));
  polygon(kp, poly_.data());
  contourF32(poly_.data(), box(poly_.data()), out);
}

void LipContour::checkPi(const UnifiedPi& pi) const {
  if (pi.canvas != canvas_)
    throw std::runtime_error("lip contour: the pi model's canvas is " + std::to_string(pi.canvas) +
                             " and the contour's is " + std::to_string(canvas_));
}

Box LipContour::contourIntoPlane(const float* kp) const {
  polygon(kp, poly_.data());
  const Box b = box(poly_.data());
  if (b.empty()) return b;
  if (plane_.empty()) plane_.resize(static_cast<size_t>(canvas_) * canvas_);
  contourF32(poly_.data(), b, plane_.data());
  return b;
}

void LipContour::deliveredU8(const float* kp, const UnifiedPi& pi, uint8_t* out) const {
  checkPi(pi);
  const Box b = contourIntoPlane(kp);
  if (b.empty()) {
    std::memset(out, 0, static_cast<size_t>(canvas_) * canvas_);
    return;
  }
  pi.piU8ShrunkBy(kp, plane_.data(), b, out);
}

bool LipContour::shrinkU8InPlace(const float* kp, const Box& box, uint8_t* mask) const {
  Box g;
  g.x0 = std::clamp(box.x0, 0, canvas_);
  g.y0 = std::clamp(box.y0, 0, canvas_);
  g.x1 = std::clamp(box.x1, g.x0, canvas_);
  g.y1 = std::clamp(box.y1, g.y0, canvas_);
  const Box c = contourIntoPlane(kp);
  Box in{std::max(g.x0, c.x0), std::max(g.y0, c.y0), std::min(g.x1, c.x1), std::min(g.y1, c.y1)};
  const size_t n = static_cast<size_t>(canvas_);
  auto clear = [&](int32_t y, int32_t x0, int32_t x1) {
    if (x1 > x0) std::memset(mask + static_cast<size_t>(y) * n + x0, 0, static_cast<size_t>(x1 - x0));
  };
  if (c.empty() || in.empty()) {
    for (int32_t y = g.y0; y < g.y1; ++y) clear(y, g.x0, g.x1);
    return false;
  }
  bool any = false;
  for (int32_t y = g.y0; y < g.y1; ++y) {
    if (y < in.y0 || y >= in.y1) {
      clear(y, g.x0, g.x1);
      continue;
    }
    clear(y, g.x0, in.x0);
    clear(y, in.x1, g.x1);
    uint8_t* row = mask + static_cast<size_t>(y) * n;
    const float* prow = plane_.data() + static_cast<size_t>(y) * n;
    for (int32_t x = in.x0; x < in.x1; ++x) {
      row[x] = std::min(row[x], piByte(prow[x]));
      any = any || row[x] != 0;
    }
  }
  return any;
}

bool LipContour::deliveredU8AndShift(const float* kp, const UnifiedPi& pi, const double canonCentroid[2],
                                     uint8_t* out, int32_t& shiftY, int32_t& shiftX) const {
  checkPi(pi);
  const bool ok = pi.piU8AndShift(kp, canonCentroid, out, shiftY, shiftX);
  const bool kept = shrinkU8InPlace(kp, pi.supportBox(kp), out);
  return ok && kept;
}

}  // namespace le::tessera
