#include "le/tessera/le_tessera_pi.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "le/tessera/le_bundle_tessera.h"

namespace le::tessera {

namespace {

constexpr int kKpRows = 21;

struct CorpusRow {
  const char* name;
  float padX, padY, down;
};
constexpr CorpusRow kCorpus[3] = {
    {"v1", 0.05f, 0.08f, 0.015f},
    {"v2", 0.10f, 0.08f, 0.074f},
    {"v3", 0.14f, 0.08f, 0.074f},
};

inline float smoothstep01(float s) { return (3.f - 2.f * s) * s * s; }

// Soft ellipse value for offsets already divided by the radii.
inline float softEll(float dx, float dy, float R) {
  const float d = std::sqrt(dx * dx + dy * dy);
  const float t = (1.f - d) * R / 10.f;
  if (!(t >= 0.f)) return 0.f;
  return smoothstep01(std::min(t, 1.f));
}

Box clipped(const Box& b, int32_t canvas) {
  Box c;
  c.x0 = std::clamp(b.x0, 0, canvas);
  c.y0 = std::clamp(b.y0, 0, canvas);
  c.x1 = std::clamp(b.x1, c.x0, canvas);
  c.y1 = std::clamp(b.y1, c.y0, canvas);
  return c;
}

Box unite(const Box& a, const Box& b) {
  return {std::min(a.x0, b.x0), std::min(a.y0, b.y0), std::max(a.x1, b.x1), std::max(a.y1, b.y1)};
}

Box intersect(const Box& a, const Box& b) {
  Box c{std::max(a.x0, b.x0), std::max(a.y0, b.y0), std::min(a.x1, b.x1), std::min(a.y1, b.y1)};
  c.x1 = std::max(c.x1, c.x0);
  c.y1 = std::max(c.y1, c.y0);
  return c;
}

std::string fmt2(double v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.2f", v);
  return buf;
}

std::runtime_error noFrames() {
  return std::runtime_error(
      "teeth-pi: the corpus frame is identified from the bundle's own xs_target and none was supplied — refusing "
      "to fall back to the stamped geometry, which is the GRAPH's compose field");
}

}  // namespace

int32_t roundHalfEven(double x) {
  if (!(x == x)) return 0;
  if (x >= 2147483647.0) return INT32_MAX;
  if (x <= -2147483648.0) return INT32_MIN;
  const double f = std::floor(x);
  const double frac = x - f;
  int64_t i = static_cast<int64_t>(f);
  if (frac > 0.5 || (frac == 0.5 && (i & 1))) ++i;
  return static_cast<int32_t>(std::min<int64_t>(i, INT32_MAX));
}

int32_t floorClamp(double x, int32_t lo, int32_t hi) {
  if (!(x >= lo)) return lo;
  if (x >= hi) return hi;
  return static_cast<int32_t>(std::floor(x));
}

int32_t ceilClamp(double x, int32_t lo, int32_t hi) {
  if (!(x >= lo)) return lo;
  if (x >= hi) return hi;
  return static_cast<int32_t>(std::ceil(x));
}

std::string numberText(double x) {
  char buf[64];
  if (std::isfinite(x) && x == std::trunc(x) && std::fabs(x) < 1e15)
    std::snprintf(buf, sizeof buf, "%.0f", x);
  else
    std::snprintf(buf, sizeof buf, "%g", x);
  return buf;
}

int corpusPick(const double distance[3], const double cCanon[2]) {
  int order[3] = {0, 1, 2};
  std::stable_sort(order, order + 3, [&](int a, int b) { return distance[a] < distance[b]; });
  std::string candidates;
  for (int k : order) candidates += std::string(" ") + kCorpus[k].name + "=" + fmt2(distance[k]) + "px";
  const double best = distance[order[0]], second = distance[order[1]];
  if (!(best <= 8.0))
    throw std::runtime_error("teeth-pi: no corpus pi geometry matches this bank's c_canon (" + fmt2(cCanon[0]) +
                             "," + fmt2(cCanon[1]) + ") within " + fmt2(8.0) + "px —" + candidates +
                             " — the bank's pi frame is unknown and donors will NOT be placed against a "
                             "frame nobody can name");
  if (second - best < 3.0)
    throw std::runtime_error("teeth-pi: corpus pi geometry is AMBIGUOUS (best two within " + fmt2(3.0) + "px) —" +
                             candidates + " — refusing to guess the bank frame");
  return order[0];
}

UnifiedPi::UnifiedPi(int32_t canvasIn, bool cornerRecovery, float propGateScale, std::vector<int32_t> lipIdx,
                     float padX, float padY, float downIn)
    : canvas(canvasIn),
      corner_recovery(cornerRecovery ? 1 : 0),
      prop_gate_scale(propGateScale),
      lip_idx(std::move(lipIdx)),
      pad_x(padX),
      pad_y(padY),
      down(downIn) {
  if (canvas < 1) throw std::runtime_error("teeth-pi: canvas " + std::to_string(canvas) + " is not positive");
  for (int32_t r : lip_idx)
    if (r < 0 || r >= kKpRows)
      throw std::runtime_error("teeth-pi: unified.pi.lip_idx names keypoint row " + std::to_string(r) +
                               ", and a keypoint row is 0..20");
  xs.resize(static_cast<size_t>(canvas));
  for (int32_t i = 0; i < canvas; ++i)
    xs[i] = canvas == 1 ? -1.f : static_cast<float>(2.0 * i / (canvas - 1) - 1.0);
  ys = xs;
}

UnifiedPi::LipStats UnifiedPi::lipStats(const float* kp) const {
  LipStats s{0.f, 0.f, 0.f, 0.f, !lip_idx.empty()};
  if (!s.any) return s;
  float sx = 0.f, sy = 0.f;
  for (int32_t r : lip_idx) sx += kp[3 * r], sy += kp[3 * r + 1];
  const float n = static_cast<float>(lip_idx.size());
  s.cx = sx / n;
  s.cy = sy / n;
  for (int32_t r : lip_idx) {
    s.ax = std::max(s.ax, std::fabs(kp[3 * r] - s.cx));
    s.ay = std::max(s.ay, std::fabs(kp[3 * r + 1] - s.cy));
  }
  return s;
}

UnifiedPi::EllParams UnifiedPi::lipParamsOf(const float* kp, const LipStats& st) const {
  const float rx0 = std::max(0.1f, st.ax + pad_x), ry0 = std::max(0.1f, st.ay + pad_y);
  const float cy = st.cy + down;
  float s = 1.f;
  if (corner_recovery) {
    // Grow the ellipse until every lip point lies inside with about 5 px (at 512) to spare.
    const float R0 = 256.f * std::sqrt(rx0 * ry0);
    float m = 0.f;
    for (int32_t r : lip_idx) {
      const float dx = (kp[3 * r] - st.cx) / rx0, dy = (kp[3 * r + 1] - cy) / ry0;
      m = std::max(m, std::sqrt(dx * dx + dy * dy));
    }
    s = std::max(1.f, 5.f / R0 + m);
  }
  const float rx = rx0 * s, ry = ry0 * s;
  return {st.cx, cy, rx, ry, 256.f * std::sqrt(rx * ry)};
}

UnifiedPi::EllParams UnifiedPi::gateParamsOf(const LipStats& st, float& gate) const {
  float rx = std::max(0.004f, st.ax), ry = std::max(0.004f, st.ay);
  if (prop_gate_scale != 1.f) rx *= prop_gate_scale, ry *= prop_gate_scale;
  gate = 0.f;
  if (st.any) {
    const float u = (st.ay - 0.02f) / 0.01f;
    if (u >= 0.f) gate = smoothstep01(std::min(u, 1.f));
  }
  return {st.cx, st.cy, rx, ry, 256.f * std::sqrt(rx * ry)};
}

UnifiedPi::EllParams UnifiedPi::lipParams(const float* kp) const { return lipParamsOf(kp, lipStats(kp)); }

UnifiedPi::EllParams UnifiedPi::gateParams(const float* kp, float* gateOut) const {
  float g = 0.f;
  const EllParams e = gateParamsOf(lipStats(kp), g);
  if (gateOut) *gateOut = g;
  return e;
}

void UnifiedPi::evalEll(const EllParams& e, const Box& box, float* out) const {
  const Box b = clipped(box, canvas);
  const size_t n = static_cast<size_t>(canvas);
  for (int32_t y = b.y0; y < b.y1; ++y) {
    const float dy = (ys[y] - e.cy) / e.ry;
    float* row = out + static_cast<size_t>(y) * n;
    for (int32_t x = b.x0; x < b.x1; ++x) row[x] = softEll((xs[x] - e.cx) / e.rx, dy, e.R);
  }
}

void UnifiedPi::ellMask(const float* kp, float padX, float padY, float minRx, float minRy, float scale,
                        float downShift, float* out) const {
  const LipStats st = lipStats(kp);
  float ax = st.ax, ay = st.ay;
  if (padX != 0.f) ax += padX;
  if (padY != 0.f) ay += padY;
  float rx = std::max(minRx, ax), ry = std::max(minRy, ay);
  if (scale != 1.f) rx *= scale, ry *= scale;
  const EllParams e{st.cx, st.cy + downShift, rx, ry, 256.f * std::sqrt(rx * ry)};
  evalEll(e, {0, 0, canvas, canvas}, out);
}

void UnifiedPi::lipMask(const float* kp, float* out) const { evalEll(lipParams(kp), {0, 0, canvas, canvas}, out); }

void UnifiedPi::propTeethGate(const float* kp, float* out) const {
  float g = 0.f;
  const EllParams e = gateParams(kp, &g);
  evalEll(e, {0, 0, canvas, canvas}, out);
  const size_t n = static_cast<size_t>(canvas) * canvas;
  for (size_t i = 0; i < n; ++i) out[i] *= g;
}

Box UnifiedPi::ellBox(const EllParams& e) const {
  if (canvas < 2) return {0, 0, canvas, canvas};
  const double h = (canvas - 1) / 2.0;
  const double cx = e.cx, cy = e.cy, rx = e.rx, ry = e.ry;
  Box b;
  b.x0 = floorClamp((cx - rx + 1) * h - 1, 0, canvas);
  b.y0 = floorClamp((cy - ry + 1) * h - 1, 0, canvas);
  b.x1 = ceilClamp((cx + rx + 1) * h + 2, b.x0, canvas);
  b.y1 = ceilClamp((cy + ry + 1) * h + 2, b.y0, canvas);
  return b;
}

Box UnifiedPi::supportBox(const float* kp) const {
  const LipStats st = lipStats(kp);
  float g = 0.f;
  return unite(ellBox(lipParamsOf(kp, st)), ellBox(gateParamsOf(st, g)));
}

void UnifiedPi::piU8(const float* kp, uint8_t* out) const {
  const size_t n = static_cast<size_t>(canvas) * canvas;
  std::vector<float> lip(n), gate(n);
  lipMask(kp, lip.data());
  propTeethGate(kp, gate.data());
  for (size_t i = 0; i < n; ++i) out[i] = piByte(std::max(lip[i], gate[i]));
}

// Pi bytes inside box only (clipped to the canvas; the caller cleared the rest). With a bound,
// min(bound, pi) where bound > 0 and 0 elsewhere. Outside its own box an ellipse is exactly
// zero; the squared column offsets are computed once per call, which keeps every value's bits.
void UnifiedPi::piRows(const float* kp, const Box& box, const float* bound, uint8_t* out) const {
  const LipStats st = lipStats(kp);
  float g = 0.f;
  const EllParams le = lipParamsOf(kp, st), ge = gateParamsOf(st, g);
  const Box b = clipped(box, canvas);
  if (b.empty()) return;
  const Box lb = intersect(ellBox(le), b), gb = g > 0.f ? intersect(ellBox(ge), b) : Box{};
  const size_t n = static_cast<size_t>(canvas), w = static_cast<size_t>(b.x1 - b.x0);
  std::vector<float> scratch(3 * w);
  float *lx2 = scratch.data() - b.x0, *gx2 = lx2 + w, *pi = gx2 + w;
  for (int32_t x = lb.x0; x < lb.x1; ++x) {
    const float dx = (xs[x] - le.cx) / le.rx;
    lx2[x] = dx * dx;
  }
  for (int32_t x = gb.x0; x < gb.x1; ++x) {
    const float dx = (xs[x] - ge.cx) / ge.rx;
    gx2[x] = dx * dx;
  }
  auto ell = [](float d2, float R) {
    if (!(d2 < 1.f)) return 0.f;  // on or outside the ellipse
    const float t = (1.f - std::sqrt(d2)) * R / 10.f;
    return smoothstep01(std::min(t, 1.f));
  };
  for (int32_t y = b.y0; y < b.y1; ++y) {
    std::fill(pi + b.x0, pi + b.x1, 0.f);
    if (y >= lb.y0 && y < lb.y1) {
      const float dy = (ys[y] - le.cy) / le.ry, dy2 = dy * dy;
      for (int32_t x = lb.x0; x < lb.x1; ++x) pi[x] = ell(lx2[x] + dy2, le.R);
    }
    if (y >= gb.y0 && y < gb.y1) {
      const float dy = (ys[y] - ge.cy) / ge.ry, dy2 = dy * dy;
      for (int32_t x = gb.x0; x < gb.x1; ++x) pi[x] = std::max(pi[x], ell(gx2[x] + dy2, ge.R) * g);
    }
    uint8_t* row = out + static_cast<size_t>(y) * n;
    if (bound) {
      const float* brow = bound + static_cast<size_t>(y) * n;
      for (int32_t x = b.x0; x < b.x1; ++x) row[x] = brow[x] > 0.f ? piByte(std::min(brow[x], pi[x])) : 0;
    } else {
      for (int32_t x = b.x0; x < b.x1; ++x) row[x] = piByte(pi[x]);
    }
  }
}

void UnifiedPi::piU8Boxed(const float* kp, uint8_t* out) const {
  std::memset(out, 0, static_cast<size_t>(canvas) * canvas);
  piRows(kp, supportBox(kp), nullptr, out);
}

void UnifiedPi::piU8ShrunkBy(const float* kp, const float* bound, const Box& box, uint8_t* out) const {
  std::memset(out, 0, static_cast<size_t>(canvas) * canvas);
  piRows(kp, intersect(supportBox(kp), box), bound, out);
}

bool UnifiedPi::piU8AndShift(const float* kp, const double canonCentroid[2], uint8_t* out, int32_t& shiftY,
                             int32_t& shiftX) const {
  const Box box = supportBox(kp);
  std::memset(out, 0, static_cast<size_t>(canvas) * canvas);
  piRows(kp, box, nullptr, out);
  double cx = 0, cy = 0;
  if (!piU8Centroid(out, box, cx, cy)) return false;
  shiftY = roundHalfEven(cy - canonCentroid[1]);
  shiftX = roundHalfEven(cx - canonCentroid[0]);
  return true;
}

bool UnifiedPi::piU8Centroid(const uint8_t* mask, double& cx, double& cy) const {
  return piU8Centroid(mask, {0, 0, canvas, canvas}, cx, cy);
}

bool UnifiedPi::piU8Centroid(const uint8_t* mask, const Box& box, double& cx, double& cy) const {
  const Box b = clipped(box, canvas);
  const size_t n = static_cast<size_t>(canvas);
  double sx = 0, sy = 0;
  int64_t count = 0;
  for (int32_t y = b.y0; y < b.y1; ++y) {
    const uint8_t* row = mask + static_cast<size_t>(y) * n;
    int64_t rowCount = 0, rowX = 0;
    for (int32_t x = b.x0; x < b.x1; ++x)
      if (row[x] >= 128) ++rowCount, rowX += x;
    count += rowCount;
    sx += static_cast<double>(rowX);
    sy += static_cast<double>(rowCount) * y;
  }
  if (count == 0) return false;
  cx = sx / static_cast<double>(count);
  cy = sy / static_cast<double>(count);
  return true;
}

void UnifiedPi::canonicalCentroid(const float* frames, int nFrames, double& cx, double& cy) const {
  std::vector<uint8_t> mask(static_cast<size_t>(canvas) * canvas);
  double sx = 0, sy = 0;
  int with = 0;
  for (int f = 0; f < nFrames; ++f) {
    piU8(frames + static_cast<size_t>(f) * 3 * kKpRows, mask.data());
    double fx = 0, fy = 0;
    if (!piU8Centroid(mask.data(), fx, fy)) continue;
    sx += fx, sy += fy, ++with;
  }
  if (with == 0)
    throw std::runtime_error(
        "teeth-pi: pi is empty on every source frame — cannot derive the canonical centroid this bundle's frame "
        "is identified by");
  cx = sx / with;
  cy = sy / with;
}

UnifiedPi UnifiedPi::fromManifestJson(const std::string& manifestText, int32_t canvas) {
  json::JVal root;
  try {
    root = json::JParser(manifestText).parse();
  } catch (const std::exception& e) {
    throw std::runtime_error(std::string("teeth-pi: the manifest is not readable JSON: ") + e.what());
  }
  const json::JVal* unified = root.get("unified");
  if (!unified || !unified->isObject())
    throw std::runtime_error(
        "teeth-pi: manifest has no `unified` block — this bundle predates the unified compose and cannot state the "
        "pi geometry it was baked with; refusing to guess one");
  auto lacks = [](const char* key) { return std::runtime_error(std::string("teeth: member JSON lacks key '") + key + "'"); };
  const json::JVal* pi = unified->get("pi");
  if (!pi || !pi->isObject()) throw lacks("pi");
  const json::JVal* mode = pi->get("mode");
  if (!mode) throw lacks("mode");
  if (!mode->isString()) throw std::runtime_error("teeth-pi: unified.pi.mode is not a string");
  if (mode->str != "prop")
    throw std::runtime_error("teeth-pi: unified.pi.mode '" + mode->str +
                             "' is a compose-mask geometry this port cannot name — fail loud, never adapt (the "
                             "stamped-geometry rule)");
  bool corner = false;
  if (const json::JVal* cr = pi->get("corner_recovery")) {
    if (cr->kind == json::JVal::Bool)
      corner = cr->b;
    else if (cr->isString() && cr->str == "lip_landmark_half")
      corner = true;
    else
      throw std::runtime_error(
          "teeth-pi: unknown unified.pi.corner_recovery — a compose-mask geometry a consumer cannot name must never "
          "be guessed");
  }
  const json::JVal* gate = pi->get("prop_gate_scale");
  if (!gate || !gate->isNumber()) throw lacks("prop_gate_scale");
  const json::JVal* idx = pi->get("lip_idx");
  if (!idx) throw lacks("lip_idx");
  const char* badIdx = "teeth-pi: unified.pi.lip_idx is not a non-empty array";
  if (!idx->isArray() || idx->arr.empty()) throw std::runtime_error(badIdx);
  std::vector<int32_t> lips;
  for (const json::JVal& v : idx->arr) {
    if (!v.isNumber() || std::isnan(v.num)) throw std::runtime_error(badIdx);
    lips.push_back(truncSat(v.num));
  }
  const json::JVal* geom = pi->get("lip_geom_params");
  if (!geom) throw lacks("lip_geom_params");
  if (!geom->isArray() || geom->arr.size() != 3 || !geom->arr[0].isNumber() || !geom->arr[1].isNumber() ||
      !geom->arr[2].isNumber())
    throw std::runtime_error("teeth-pi: unified.pi.lip_geom_params must be [pad_x, pad_y, down]");
  if (const json::JVal* crop = unified->get("crop")) {
    const json::JVal* c = crop->get("canvas");
    if (c && !(c->isNumber() && c->num == canvas))
      throw std::runtime_error("teeth-pi: engine renders at canvas " + std::to_string(canvas) +
                               " but unified.crop.canvas is " + (c->isNumber() ? numberText(c->num) : "not a number"));
  }
  return UnifiedPi(canvas, corner, static_cast<float>(gate->num), std::move(lips),
                   static_cast<float>(geom->arr[0].num), static_cast<float>(geom->arr[1].num),
                   static_cast<float>(geom->arr[2].num));
}

UnifiedPi UnifiedPi::corpusFromManifestJson(const std::string& manifestText, int32_t canvas, const float* xsTarget,
                                            int nFrames, const double cCanon[2], std::string* which) {
  if (!xsTarget || nFrames < 1) throw noFrames();
  return corpusFrom(fromManifestJson(manifestText, canvas), xsTarget, nFrames, cCanon, which);
}

UnifiedPi UnifiedPi::corpusFrom(const UnifiedPi& base, const float* xsTarget, int nFrames, const double cCanon[2],
                                std::string* which) {
  if (!xsTarget || nFrames < 1) throw noFrames();
  double distance[3];
  for (int k = 0; k < 3; ++k) {
    UnifiedPi row = base;
    row.pad_x = kCorpus[k].padX, row.pad_y = kCorpus[k].padY, row.down = kCorpus[k].down;
    double cx = 0, cy = 0;
    row.canonicalCentroid(xsTarget, nFrames, cx, cy);
    distance[k] = std::hypot(cx - cCanon[0], cy - cCanon[1]);
  }
  const int k = corpusPick(distance, cCanon);
  UnifiedPi out = base;
  out.pad_x = kCorpus[k].padX, out.pad_y = kCorpus[k].padY, out.down = kCorpus[k].down;
  if (which) *which = kCorpus[k].name;
  return out;
}

}  // namespace le::tessera
