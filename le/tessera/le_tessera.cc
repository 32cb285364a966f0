#include "le/tessera/le_tessera.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>
#include <stdexcept>

#include "le/le_pool.h"
#include "le/le_simd.h"
#include "le/le_util.h"
#include "le/tessera/le_tessera_pi.h"

namespace le::tessera {

namespace {

using Clock = std::chrono::steady_clock;
double since(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

int32_t configInt(const json::JVal& block, const char* key) {
  const json::JVal* v = block.get(key);
  if (!v || !v->isNumber()) fail(std::string("teeth: member JSON lacks key '") + key + "'");
  return truncSat(v->num);
}

double configNum(const json::JVal& block, const char* key) {
  const json::JVal* v = block.get(key);
  if (!v || !v->isNumber()) fail(std::string("teeth: member JSON lacks key '") + key + "'");
  return v->num;
}

// h(byte / 255) for every byte.
const std::array<uint16_t, 256>& byteHalves() {
  static const std::array<uint16_t, 256> t = [] {
    std::array<uint16_t, 256> a{};
    for (int i = 0; i < 256; ++i) a[i] = le::f32ToF16(static_cast<float>(i) / 255.0f);
    return a;
  }();
  return t;
}

// byte / 255 for every byte, the same float the division gives, without a division per value.
const std::array<float, 256>& byteUnits() {
  static const std::array<float, 256> t = [] {
    std::array<float, 256> a{};
    for (int i = 0; i < 256; ++i) a[i] = static_cast<float>(i) / 255.0f;
    return a;
  }();
  return t;
}

// std::nearbyint in the default rounding mode (half to even) for |x| < 2^23, without the
// library call: adding and subtracting 2^23 leaves exactly the rounded integer.
inline float nearbyintSmall(float x) {
  constexpr float k = 8388608.0f;
  return x >= 0.0f ? (x + k) - k : -((-x + k) - k);
}

float halfValue(uint16_t h) {
  float f;
  le::halfToFloat(&h, &f, 1);
  return f;
}

float roundHalf(float x) { return halfValue(le::f32ToF16(x)); }

// Stable ascending order of v.
std::vector<int32_t> stableOrder(const std::vector<float>& v, size_t n) {
  std::vector<int32_t> o(n);
  std::iota(o.begin(), o.end(), 0);
  std::stable_sort(o.begin(), o.end(), [&](int32_t a, int32_t b) { return v[a] < v[b]; });
  return o;
}

bool contains(const std::vector<int32_t>& v, int32_t x) { return std::find(v.begin(), v.end(), x) != v.end(); }

}  // namespace

// ---------------------------------------------------------------------------------------------
// Config

ServeConfig ServeConfig::fromHeadMemberJson(const std::string& text) {
  const json::JVal root = json::JParser(text).parse();
  const json::JVal* r = root.get("retrieval");
  const json::JVal* t = root.get("temporal");
  if (!r || !r->isObject() || !t || !t->isObject())
    fail("teeth: tessera_head.v1 config lacks the retrieval/temporal blocks of the v1 schema — refusing to serve "
         "defaults (W3-01)");
  ServeConfig c;
  c.kshort = configInt(*r, "kshort");
  c.aperture_tol = configNum(*r, "aperture_tol");
  c.cut = configInt(*r, "cut");
  c.K = configInt(*r, "K");
  c.hysteresis = configInt(*t, "hysteresis");
  c.lookahead = configInt(*t, "lookahead");
  if (const json::JVal* d = root.get("decode")) {
    if (const json::JVal* e = d->get("envelope_clamp_255")) {
      if (!e->isNumber() || !(std::fabs(e->num - 12.0) <= 1e-6))
        fail("teeth: member envelope_clamp_255 != the envelope of record (12/255) — the envelope is a gated "
             "quantity");
    }
  }
  c.validate();
  return c;
}

void ServeConfig::validate() const {
  const std::pair<const char*, int32_t> keys[] = {{"kshort", kshort}, {"cut", cut}, {"K", K}};
  for (const auto& k : keys)
    if (k.second < 1)
      fail(std::string("teeth: head config retrieval.") + k.first + "=" + std::to_string(k.second) +
           " is below 1 — selection needs at least one re-ranked, examined and kept donor; refusing to serve it");
}

// ---------------------------------------------------------------------------------------------
// State

struct TeethPass::Impl {
  GeometryStamp st;
  ServeConfig cfg;
  HeadWeights head;
  int32_t n = 0;
  std::vector<uint8_t> band;
  std::vector<int32_t> oy, ox;
  std::vector<double> aperture;
  std::array<double, 2> c_canon{};
  int32_t wh = 0, ww = 0, ph = 0, pw = 0;
  int32_t sh = 0, sw = 0;        // stored patch
  int32_t base_r = 0, base_c = 0;  // padded-window row / column of the stored patch's first
  std::vector<uint16_t> index;
  // The same index in groups of kPooledLanes donors, interleaved for retrieveTermPooledLanes
  // (a short last group is padded with zeros).
  std::vector<uint16_t> lanes;
  std::vector<uint8_t> band_mask;
  std::vector<float> prev_w;
  bool has_prev_w = false;
  std::vector<int32_t> kept;
  int32_t kept_idx = -2;
  bool held = false;
  Pending pending;
  Pending spare;  // the last emitted frame's buffers, reused for the next push
  Stats stats;
  StageTimes times;

  // Per-frame scratch, reused.
  RetrieveWork work;
  std::vector<float> coarse, exact;
  std::vector<float> donor_planes, query_planes, blend, weights;
  std::vector<uint8_t> region;
  // The head's inputs, activations and logits: every value is written before it is read.
  std::vector<float> headIn, headQuery, headA, headB, headLogits, headRows;

  size_t winPx() const { return static_cast<size_t>(wh) * ww; }
  const uint8_t* patch(int32_t d) const { return band.data() + static_cast<size_t>(d) * sh * sw * 3; }
  // Stored patch row / column feeding window row / column 0 for offsets (oy, ox) less the shift.
  int32_t startRow(int32_t d, int32_t dy) const { return std::min(std::max(st.pad + oy[d] - dy, 0), 2 * st.pad) - base_r; }
  int32_t startCol(int32_t d, int32_t dx) const { return std::min(std::max(st.pad + ox[d] - dx, 0), 2 * st.pad) - base_c; }
};

TeethPass::TeethPass(BankData bank, HeadWeights head, ServeConfig config) : impl_(std::make_unique<Impl>()) {
  Impl& m = *impl_;
  bank.stamp.validate();
  config.validate();
  m.st = bank.stamp;
  m.cfg = config;
  if (bank.n_donors < 1)
    fail("teeth: the bank holds n_donors=" + std::to_string(bank.n_donors) +
         " — retrieval needs at least one donor; refusing an empty bank");
  m.n = bank.n_donors;
  m.sh = m.st.bandH();
  m.sw = m.st.bandW();
  const size_t want = static_cast<size_t>(m.n) * m.sh * m.sw * 3;
  if (bank.band.size() != want)
    fail("teeth: reference track is " + std::to_string(bank.band.size()) + " bytes, the stamp requires " +
         std::to_string(want) +
         " (n * stored_h * stored_w * 3) — a decoder that delivered a different pixel format would land here");
  if (bank.cent.size() != 2 * static_cast<size_t>(m.n) || bank.aperture.size() != static_cast<size_t>(m.n))
    fail("teeth: bank sidecar arrays disagree with n_donors");
  const auto& specs = headTensorSpecs();
  for (size_t i = 0; i < 6; ++i)
    if (head.t[i].size() != specs[i].elements())
      fail(std::string("teeth: head '") + specs[i].name + "' holds " + std::to_string(head.t[i].size()) +
           " values, not the " + std::to_string(specs[i].elements()) + " of BlendHead(16)");
  m.head = std::move(head);
  m.band = std::move(bank.band);
  m.aperture = std::move(bank.aperture);
  m.c_canon = bank.c_canon;
  m.oy.resize(m.n);
  m.ox.resize(m.n);
  for (int32_t d = 0; d < m.n; ++d) {
    m.oy[d] = roundHalfEven(bank.cent[2 * d + 1] - m.c_canon[1]);
    m.ox[d] = roundHalfEven(bank.cent[2 * d] - m.c_canon[0]);
  }
  m.wh = m.st.window_h;
  m.ww = m.st.window_w;
  m.ph = m.wh / 4;
  m.pw = m.ww / 4;
  m.base_r = m.st.band_r0 + m.st.pad - m.st.shift_margin;
  m.base_c = m.st.band_c0 + m.st.pad - m.st.shift_margin;
  m.band_mask.assign(m.winPx(), 0);
  for (int32_t r = m.st.band_r0; r < m.st.band_r1; ++r)
    std::fill_n(m.band_mask.begin() + static_cast<size_t>(r) * m.ww + m.st.band_c0, m.st.band_c1 - m.st.band_c0, 1);
  m.prev_w.assign(m.winPx(), 0.0f);

  // The pooled index: every donor's canonical window, 4x4 block means, in half precision.
  const size_t pp = static_cast<size_t>(m.ph) * m.pw;
  m.index.assign(static_cast<size_t>(m.n) * 3 * pp, 0);
  if (pp > 0) {
    const size_t grain = 8;
    const int parts = le::pool::parts(static_cast<size_t>(m.n), grain);
    const size_t chunk = (static_cast<size_t>(m.n) + parts - 1) / parts;
    std::vector<std::vector<uint16_t>> scratch(parts, std::vector<uint16_t>(3 * m.winPx()));
    std::vector<std::vector<float>> wide(parts, std::vector<float>(3 * m.winPx()));
    le::pool::parallelRange(static_cast<size_t>(m.n), grain, [&](size_t b, size_t e) {
      const size_t slot = b / chunk;
      uint16_t* win = scratch[slot].data();
      float* f = wide[slot].data();
      for (size_t d = b; d < e; ++d) {
        canonicalWindowF16(static_cast<int32_t>(d), win);
        le::simd::f16ToF32(win, f, 3 * m.winPx());
        uint16_t* out = m.index.data() + d * 3 * pp;
        for (int k = 0; k < 3; ++k)
          for (int32_t py = 0; py < m.ph; ++py)
            for (int32_t px = 0; px < m.pw; ++px) {
              float s = 0.0f;
              for (int y = 0; y < 4; ++y)
                for (int x = 0; x < 4; ++x) s += f[k * m.winPx() + static_cast<size_t>(4 * py + y) * m.ww + 4 * px + x];
              out[k * pp + static_cast<size_t>(py) * m.pw + px] = le::f32ToF16(s / 16.0f);
            }
      }
    });
  }
  constexpr size_t L = le::simd::kPooledLanes;
  const size_t groups = (static_cast<size_t>(m.n) + L - 1) / L;
  m.lanes.assign(groups * 3 * pp * L, 0);
  for (size_t d = 0; d < static_cast<size_t>(m.n); ++d) {
    uint16_t* g = m.lanes.data() + (d / L) * 3 * pp * L + d % L;
    const uint16_t* src = m.index.data() + d * 3 * pp;
    for (size_t i = 0; i < pp; ++i)
      for (size_t k = 0; k < 3; ++k) g[(3 * i + k) * L] = src[k * pp + i];
  }
}

TeethPass::~TeethPass() = default;
TeethPass::TeethPass(TeethPass&&) noexcept = default;
TeethPass& TeethPass::operator=(TeethPass&&) noexcept = default;

// ---------------------------------------------------------------------------------------------
// Donor windows

const float* TeethPass::dTable() {
  static const std::vector<float> t = [] {
    const auto& hb = byteHalves();
    std::vector<float> v(256 * 256);
    for (int a = 0; a < 256; ++a)
      for (int b = 0; b < 256; ++b) v[a * 256 + b] = std::fabs(roundHalf(halfValue(hb[b]) - halfValue(hb[a])));
    return v;
  }();
  return t.data();
}

void TeethPass::canonicalWindowF16Rows(int32_t d, uint16_t* out, int32_t r0, int32_t r1) const {
  const Impl& m = *impl_;
  const auto& hb = byteHalves();
  const size_t plane = m.winPx();
  const uint8_t* p = m.patch(d);
  const int32_t sr = m.startRow(d, 0), sc = m.startCol(d, 0);
  for (int32_t r = std::max(r0, 0); r < std::min(r1, m.wh); ++r) {
    const int32_t y = sr + r;
    for (int32_t c = 0; c < m.ww; ++c) {
      const int32_t x = sc + c;
      const size_t o = static_cast<size_t>(r) * m.ww + c;
      if (y < 0 || y >= m.sh || x < 0 || x >= m.sw) {
        out[o] = out[plane + o] = out[2 * plane + o] = 0;
        continue;
      }
      const uint8_t* px = p + (static_cast<size_t>(y) * m.sw + x) * 3;
      out[o] = hb[px[0]];
      out[plane + o] = hb[px[1]];
      out[2 * plane + o] = hb[px[2]];
    }
  }
}

void TeethPass::canonicalWindowF16(int32_t d, uint16_t* out) const { canonicalWindowF16Rows(d, out, 0, impl_->wh); }

std::vector<uint8_t> TeethPass::gatherWindowsU8(const std::vector<int32_t>& donors, int32_t dy, int32_t dx) const {
  const Impl& m = *impl_;
  const size_t win = m.winPx() * 3;
  std::vector<uint8_t> out(donors.size() * win, 0);
  for (size_t i = 0; i < donors.size(); ++i) {
    const int32_t d = donors[i];
    if (d < 0 || d >= m.n) fail("teeth: donor " + std::to_string(d) + " is outside the bank");
    const uint8_t* p = m.patch(d);
    const int32_t sr = m.startRow(d, dy), sc = m.startCol(d, dx);
    const int32_t c0 = std::max(0, -sc), c1 = std::min(m.ww, m.sw - sc);
    for (int32_t r = 0; r < m.wh; ++r) {
      const int32_t y = sr + r;
      if (y < 0 || y >= m.sh || c1 <= c0) continue;
      std::memcpy(out.data() + i * win + (static_cast<size_t>(r) * m.ww + c0) * 3,
                  p + (static_cast<size_t>(y) * m.sw + sc + c0) * 3, static_cast<size_t>(c1 - c0) * 3);
    }
  }
  return out;
}

// ---------------------------------------------------------------------------------------------
// Retrieval

bool TeethPass::deriveShift(const uint8_t* mask, const Shift* shift, int32_t& dy, int32_t& dx,
                            std::string& reason) const {
  const Impl& m = *impl_;
  if (shift) {
    dy = shift->dy;
    dx = shift->dx;
  } else {
    int64_t cnt = 0, sy = 0, sx = 0;
    for (int32_t y = 0; y < m.st.canvas_h; ++y) {
      const uint8_t* row = mask + static_cast<size_t>(y) * m.st.canvas_w;
      for (int32_t x = 0; x < m.st.canvas_w; ++x)
        if (row[x] >= 128) {
          ++cnt;
          sy += y;
          sx += x;
        }
    }
    if (cnt == 0) {
      reason = "empty-pi";
      return false;
    }
    const double cy = static_cast<double>(sy) / static_cast<double>(cnt);
    const double cx = static_cast<double>(sx) / static_cast<double>(cnt);
    dy = roundHalfEven(cy - m.c_canon[1]);
    dx = roundHalfEven(cx - m.c_canon[0]);
  }
  if (std::abs(static_cast<int64_t>(dy)) > m.st.pad || std::abs(static_cast<int64_t>(dx)) > m.st.pad) {
    reason = "shift-out-of-range";
    return false;
  }
  reason.clear();
  return true;
}

void TeethPass::retrievePrepare(const uint8_t* crop, const uint8_t* mask, int32_t dy, int32_t dx, RetrieveWork& w) {
  Impl& m = *impl_;
  const size_t np = m.winPx();
  const int32_t cw = m.st.canvas_w, ch = m.st.canvas_h;
  w.wy0 = m.st.window_y0 + dy;
  w.wx0 = m.st.window_x0 + dx;
  w.weights.assign(np, 0.0f);
  std::vector<float> q(3 * np, 0.0f);  // pixels beyond the canvas read as black with no weight
  std::vector<uint8_t> gate(np, 0);
  const float* unit = byteUnits().data();
  const float luma_min = static_cast<float>(m.cfg.luma_min);
  const float red_max = static_cast<float>(m.cfg.redness_max);
  float sum = 0.0f;
  for (int32_t r = 0; r < m.wh; ++r) {
    const int32_t y = w.wy0 + r;
    if (y < 0 || y >= ch) continue;
    for (int32_t c = 0; c < m.ww; ++c) {
      const int32_t x = w.wx0 + c;
      if (x < 0 || x >= cw) continue;
      const size_t o = static_cast<size_t>(r) * m.ww + c;
      const uint8_t* px = crop + (static_cast<size_t>(y) * cw + x) * 3;
      const float R = px[0], G = px[1], B = px[2];
      q[o] = unit[px[0]];
      q[np + o] = unit[px[1]];
      q[2 * np + o] = unit[px[2]];
      gate[o] = unit[mask[static_cast<size_t>(y) * cw + x]] > 0.5f;
      const float luma = 0.299f * R + 0.587f * G + 0.114f * B;
      if (gate[o] && luma >= luma_min && std::fabs(G - R) < red_max) {
        w.weights[o] = 1.0f;
        sum += 1.0f;
      }
    }
  }
  // A dark or red mouth shows too few teeth to match on: the whole gated mouth counts.
  if (sum < static_cast<float>(m.cfg.teeth_min_px))
    for (size_t o = 0; o < np; ++o) w.weights[o] = gate[o] ? 1.0f : 0.0f;
  if (m.has_prev_w) {
    const float decay = static_cast<float>(m.cfg.weight_decay);
    for (size_t o = 0; o < np; ++o) w.weights[o] = std::max(decay * m.prev_w[o], w.weights[o]);
  }
  m.prev_w = w.weights;
  m.has_prev_w = true;
  sum = 0.0f;
  w.row_lo = w.row_hi = 0;
  bool any = false;
  for (int32_t r = 0; r < m.wh; ++r)
    for (int32_t c = 0; c < m.ww; ++c) {
      const float v = w.weights[static_cast<size_t>(r) * m.ww + c];
      sum += v;
      if (v != 0.0f) {
        if (!any) w.row_lo = r;
        any = true;
        w.row_hi = r + 1;
      }
    }
  w.S = std::max(sum, 1.0f);

  const size_t pp = static_cast<size_t>(m.ph) * m.pw;
  w.pooled_query.assign(3 * pp, 0);
  w.pooled_w.assign(pp, 0);
  auto pool = [&](const float* plane, uint16_t* out) {
    for (int32_t py = 0; py < m.ph; ++py)
      for (int32_t px = 0; px < m.pw; ++px) {
        float s = 0.0f;
        for (int y = 0; y < 4; ++y)
          for (int x = 0; x < 4; ++x) s += plane[static_cast<size_t>(4 * py + y) * m.ww + 4 * px + x];
        out[static_cast<size_t>(py) * m.pw + px] = le::f32ToF16(s / 16.0f);
      }
  };
  for (int k = 0; k < 3; ++k) pool(q.data() + k * np, w.pooled_query.data() + k * pp);
  pool(w.weights.data(), w.pooled_w.data());
  float sp = 0.0f;
  for (size_t i = 0; i < pp; ++i) sp += halfValue(w.pooled_w[i]);
  w.S_p = std::max(sp, 0.0001f);
}

void TeethPass::coarsePass(const RetrieveWork& w, std::vector<float>& coarse) const {
  const Impl& m = *impl_;
  coarse.assign(m.n, 0.0f);
  const size_t pp = static_cast<size_t>(m.ph) * m.pw;
  constexpr size_t L = le::simd::kPooledLanes;
  const size_t groups = (static_cast<size_t>(m.n) + L - 1) / L;
  // Sixteen donors a call, each summed in its own lane exactly as retrieveTermPooled would.
  le::pool::parallelRange(groups, 1, [&](size_t b, size_t e) {
    float out[L];
    for (size_t g = b; g < e; ++g) {
      le::simd::retrieveTermPooledLanes(m.lanes.data() + g * 3 * pp * L, w.pooled_query.data(), w.pooled_w.data(), pp,
                                        out);
      for (size_t j = 0; j < L && g * L + j < static_cast<size_t>(m.n); ++j)
        coarse[g * L + j] = roundHalf(out[j]) / w.S_p;
    }
  });
}

float TeethPass::exactTermFromBand(int32_t d, const uint8_t* crop, const RetrieveWork& w) const {
  const Impl& m = *impl_;
  const float* T = dTable();
  const uint8_t* p = m.patch(d);
  const int32_t sr = m.startRow(d, 0), sc = m.startCol(d, 0);
  const int32_t cw = m.st.canvas_w, ch = m.st.canvas_h;
  static const uint8_t kBlack[3] = {0, 0, 0};
  // Columns whose crop pixel lies on the canvas, and whose donor pixel lies in the stored patch.
  const int32_t qc0 = std::clamp(-w.wx0, 0, m.ww), qc1 = std::clamp(cw - w.wx0, 0, m.ww);
  const int32_t dc0 = std::clamp(-sc, 0, m.ww), dc1 = std::clamp(m.sw - sc, 0, m.ww);
  // A row's distances are rounded to half precision together, then summed in order.
  thread_local std::vector<float> dist;
  dist.resize(static_cast<size_t>(m.ww));
  float total = 0.0f;
  for (int32_t r = w.row_lo; r < w.row_hi; ++r) {
    const float* wr = w.weights.data() + static_cast<size_t>(r) * m.ww;
    const int32_t y = w.wy0 + r, sy = sr + r;
    const bool qrow = y >= 0 && y < ch, drow = sy >= 0 && sy < m.sh;
    for (int32_t c = 0; c < m.ww; ++c) {
      if (wr[c] == 0.0f) {
        dist[c] = 0.0f;
        continue;
      }
      const uint8_t* q =
          qrow && c >= qc0 && c < qc1 ? crop + (static_cast<size_t>(y) * cw + (w.wx0 + c)) * 3 : kBlack;
      const uint8_t* dp = drow && c >= dc0 && c < dc1 ? p + (static_cast<size_t>(sy) * m.sw + (sc + c)) * 3 : kBlack;
      dist[c] = ((T[q[0] * 256 + dp[0]] + T[q[1] * 256 + dp[1]]) + T[q[2] * 256 + dp[2]]) / 3.0f;
    }
    le::simd::roundF16(dist.data(), dist.data(), dist.size());
    for (int32_t c = 0; c < m.ww; ++c)
      if (wr[c] != 0.0f) total = total + wr[c] * dist[c];
  }
  return total;
}

void TeethPass::exactPass(const uint8_t* crop, const RetrieveWork& w, const std::vector<float>& coarse,
                          std::vector<float>& exact) const {
  const Impl& m = *impl_;
  exact.assign(m.n, std::numeric_limits<float>::infinity());
  const std::vector<int32_t> order = stableOrder(coarse, m.n);
  const size_t k = static_cast<size_t>(std::min(m.cfg.kshort, m.n));
  le::pool::parallelRange(k, 1, [&](size_t b, size_t e) {
    for (size_t j = b; j < e; ++j) exact[order[j]] = exactTermFromBand(order[j], crop, w) / w.S;
  });
}

std::vector<int32_t> TeethPass::retrieveSelect(const std::vector<float>& coarse, const std::vector<float>& exact) const {
  const Impl& m = *impl_;
  const std::vector<int32_t> order = stableOrder(coarse, m.n);
  const size_t k = static_cast<size_t>(std::min(m.cfg.kshort, m.n));
  std::vector<float> e(k);
  for (size_t j = 0; j < k; ++j) e[j] = exact[order[j]];
  const std::vector<int32_t> order2 = stableOrder(e, k);
  const int32_t best = order[order2[0]];
  const double a0 = m.aperture[best];
  const double tol = std::max(1e-6, a0) * m.cfg.aperture_tol;
  std::vector<int32_t> kept;
  const size_t walk = std::min(static_cast<size_t>(m.cfg.cut), k);
  for (size_t j = 0; j < walk && kept.size() < static_cast<size_t>(m.cfg.K); ++j) {
    const int32_t d = order[order2[j]];
    if (std::fabs(m.aperture[d] - a0) <= tol) kept.push_back(d);
  }
  if (kept.empty()) kept.push_back(best);
  while (kept.size() < static_cast<size_t>(m.cfg.K)) kept.push_back(kept.back());
  return kept;
}

std::vector<int32_t> TeethPass::retrieve(const uint8_t* crop, const uint8_t* mask, int32_t dy, int32_t dx) {
  Impl& m = *impl_;
  auto t = Clock::now();
  retrievePrepare(crop, mask, dy, dx, m.work);
  m.times.prepare = since(t);
  t = Clock::now();
  coarsePass(m.work, m.coarse);
  m.times.pooled = since(t);
  t = Clock::now();
  exactPass(crop, m.work, m.coarse, m.exact);
  m.times.exact = since(t);
  t = Clock::now();
  std::vector<int32_t> donors = retrieveSelect(m.coarse, m.exact);
  m.times.select = since(t);
  return donors;
}

// ---------------------------------------------------------------------------------------------
// Head, blend and compose

void TeethPass::headForward(const float* donor_planes, int n, const float* query_planes, const uint8_t* region,
                            float* blend_out, float* weights_out) {
  Impl& m = *impl_;
  const size_t np = m.winPx();
  if (n <= 0) {
    std::memcpy(blend_out, query_planes, sizeof(float) * 3 * np);
    return;
  }
  const int hh = m.wh / 2, hw = m.ww / 2;
  const size_t hp = static_cast<size_t>(hh) * hw;
  std::vector<float>& logits = m.headLogits;
  logits.resize(static_cast<size_t>(n) * hp);
  if (hp > 0) {
    // Seven half-resolution inputs per candidate: donor RGB, query RGB, their mean difference.
    std::vector<float>& in = m.headIn;
    in.resize(static_cast<size_t>(n) * 7 * hp);
    auto down = [&](const float* plane, float* out) {
      for (int y = 0; y < hh; ++y)
        for (int x = 0; x < hw; ++x) {
          const float* p = plane + static_cast<size_t>(2 * y) * m.ww + 2 * x;
          out[static_cast<size_t>(y) * hw + x] = (((p[0] + p[1]) + p[m.ww]) + p[m.ww + 1]) * 0.25f;
        }
    };
    std::vector<float>& qh = m.headQuery;
    qh.resize(3 * hp);
    for (int k = 0; k < 3; ++k) down(query_planes + k * np, qh.data() + k * hp);
    for (int i = 0; i < n; ++i) {
      float* ci = in.data() + static_cast<size_t>(i) * 7 * hp;
      for (int k = 0; k < 3; ++k) down(donor_planes + (static_cast<size_t>(i) * 3 + k) * np, ci + k * hp);
      std::memcpy(ci + 3 * hp, qh.data(), sizeof(float) * 3 * hp);
      for (size_t o = 0; o < hp; ++o)
        ci[6 * hp + o] = ((std::fabs(ci[o] - qh[o]) + std::fabs(ci[hp + o] - qh[hp + o])) +
                          std::fabs(ci[2 * hp + o] - qh[2 * hp + o])) /
                         3.0f;
    }
    std::vector<float>& a = m.headA;
    std::vector<float>& b = m.headB;
    a.resize(static_cast<size_t>(n) * 16 * hp);
    b.resize(static_cast<size_t>(n) * 16 * hp);
    auto conv = [&](const float* src, int cin, const std::vector<float>& wt, const std::vector<float>& bias, int cout,
                    float* dst, bool relu) {
      const size_t items = static_cast<size_t>(n) * cout;
      le::pool::parallelRange(items, 4, [&](size_t lo, size_t hi) {
        le::simd::conv3x3Range(src, n, cin, hh, hw, wt.data(), bias.data(), cout, dst, static_cast<int>(lo),
                               static_cast<int>(hi));
        if (relu)
          for (size_t it = lo; it < hi; ++it)
            for (float* p = dst + it * hp, *e = p + hp; p < e; ++p) *p = std::max(*p, 0.0f);
      });
    };
    conv(in.data(), 7, m.head.cand0W(), m.head.cand0B(), 16, a.data(), true);
    conv(a.data(), 16, m.head.cand2W(), m.head.cand2B(), 16, b.data(), true);
    conv(b.data(), 16, m.head.cand4W(), m.head.cand4B(), 1, logits.data(), false);
  }

  // x2 bilinear with half-pixel centres over the whole window, then a softmax over candidates.
  auto taps = [](int size, int half, std::vector<int>& i0, std::vector<int>& i1, std::vector<float>& f) {
    i0.resize(size);
    i1.resize(size);
    f.resize(size);
    for (int i = 0; i < size; ++i) {
      const float src = std::max((static_cast<float>(i) + 0.5f) / 2.0f - 0.5f, 0.0f);
      const int fl = std::min(static_cast<int>(std::floor(src)), std::max(half - 1, 0));
      i0[i] = fl;
      i1[i] = std::min(fl + 1, std::max(half - 1, 0));
      f[i] = src - static_cast<float>(fl);
    }
  };
  std::vector<int> y0, y1, x0, x1;
  std::vector<float> fy, fx;
  taps(m.wh, hh, y0, y1, fy);
  taps(m.ww, hw, x0, x1, fx);
  const size_t ww = static_cast<size_t>(m.ww);
  // Every logit row interpolated across once: each serves two output rows as their top or
  // bottom term, with the same products as a per-pixel evaluation.
  std::vector<float>& rows = m.headRows;
  rows.resize(static_cast<size_t>(n) * std::max(hh, 1) * ww);
  if (hp > 0)
    le::pool::parallelRange(static_cast<size_t>(n) * hh, 4, [&](size_t b, size_t e) {
      for (size_t it = b; it < e; ++it) {
        const float* L = logits.data() + it * hw;  // candidate it / hh, row it % hh
        float* out = rows.data() + it * ww;
        for (size_t c = 0; c < ww; ++c) out[c] = (1.0f - fx[c]) * L[x0[c]] + fx[c] * L[x1[c]];
      }
    });
  le::pool::parallelRange(static_cast<size_t>(m.wh), 4, [&](size_t rb, size_t re) {
    std::vector<float> l(static_cast<size_t>(n) * ww), mx(ww), sum(ww), acc(ww);
    for (size_t r = rb; r < re; ++r) {
      std::fill(mx.begin(), mx.end(), -std::numeric_limits<float>::infinity());
      for (int i = 0; i < n; ++i) {
        float* li = l.data() + i * ww;
        if (hp > 0) {
          const float* top = rows.data() + (static_cast<size_t>(i) * hh + y0[r]) * ww;
          const float* bot = rows.data() + (static_cast<size_t>(i) * hh + y1[r]) * ww;
          const float gy = 1.0f - fy[r], fyr = fy[r];
          for (size_t c = 0; c < ww; ++c) li[c] = gy * top[c] + fyr * bot[c];
        } else {
          std::fill(li, li + ww, 0.0f);
        }
        for (size_t c = 0; c < ww; ++c) mx[c] = mx[c] < li[c] ? li[c] : mx[c];
      }
      std::fill(sum.begin(), sum.end(), 0.0f);
      for (int i = 0; i < n; ++i) {
        float* li = l.data() + i * ww;
        for (size_t c = 0; c < ww; ++c) {
          // exp(0) is exactly 1: the leading candidate of every pixel needs no call.
          const float d = li[c] - mx[c];
          li[c] = d == 0.0f ? 1.0f : std::exp(d);
          sum[c] += li[c];
        }
      }
      const size_t o = r * ww;
      for (int i = 0; i < n; ++i) {
        const float* li = l.data() + i * ww;
        float* wo = weights_out + static_cast<size_t>(i) * np + o;
        for (size_t c = 0; c < ww; ++c) wo[c] = li[c] / sum[c];
      }
      for (int k = 0; k < 3; ++k) {
        std::fill(acc.begin(), acc.end(), 0.0f);
        for (int i = 0; i < n; ++i) {
          const float* wo = weights_out + static_cast<size_t>(i) * np + o;
          const float* d = donor_planes + (static_cast<size_t>(i) * 3 + k) * np + o;
          for (size_t c = 0; c < ww; ++c) acc[c] += wo[c] * d[c];
        }
        const float* q = query_planes + k * np + o;
        float* bo = blend_out + k * np + o;
        for (size_t c = 0; c < ww; ++c) bo[c] = region[o + c] ? acc[c] : q[c];
      }
    }
  });
}

void TeethPass::emit(const Pending& p, const std::vector<int32_t>* next, FrameResult& res) {
  Impl& m = *impl_;
  res = FrameResult{};
  m.times.head = m.times.compose = 0;
  if (!p.ok) {
    res.skip = true;
    res.reason = p.reason;
    return;
  }
  auto t = Clock::now();
  const size_t K = static_cast<size_t>(m.cfg.K);
  const std::vector<int32_t> F(p.donors.begin(), p.donors.begin() + std::min(p.donors.size(), K));
  std::vector<int32_t> N;
  if (next && m.cfg.use_lookahead)
    N.assign(next->begin(), next->begin() + std::min(next->size(), static_cast<size_t>(std::max(m.cfg.lookahead, 0))));
  std::vector<int32_t> D;
  for (int32_t d : F)
    if (!contains(N, d)) D.push_back(d);
  std::vector<int32_t> S;
  if (!m.kept.empty() && m.kept_idx == p.frame_index - 1) {
    S = m.kept;
    for (int32_t d : N)
      if (!contains(m.kept, d)) S.push_back(d);
    for (int32_t d : D)
      if (!contains(m.kept, d)) S.push_back(d);
  } else {
    S = N;
    S.insert(S.end(), D.begin(), D.end());
  }
  if (S.size() > K) S.resize(K);
  const int n = static_cast<int>(S.size());

  const size_t np = m.winPx();
  const int32_t cw = m.st.canvas_w;
  const std::vector<uint8_t> win = gatherWindowsU8(S, p.dy, p.dx);
  const float* unit = byteUnits().data();
  m.donor_planes.resize(static_cast<size_t>(n) * 3 * np);
  for (int i = 0; i < n; ++i)
    for (int k = 0; k < 3; ++k) {
      const uint8_t* src = win.data() + i * np * 3 + k;
      float* dst = m.donor_planes.data() + (static_cast<size_t>(i) * 3 + k) * np;
      for (size_t o = 0; o < np; ++o) dst[o] = unit[src[o * 3]];
    }
  m.query_planes.resize(3 * np);
  for (int32_t r = 0; r < m.wh; ++r) {
    const uint8_t* row = p.crop.data() + (static_cast<size_t>(m.st.window_y0 + r) * cw + m.st.window_x0) * 3;
    for (int k = 0; k < 3; ++k) {
      float* dst = m.query_planes.data() + k * np + static_cast<size_t>(r) * m.ww;
      for (int32_t c = 0; c < m.ww; ++c) dst[c] = unit[row[c * 3 + k]];
    }
  }

  // The blend region: the band, plus the delivered rows above it that every candidate's stored
  // patch reaches after alignment.
  m.region = m.band_mask;
  for (int32_t r = 0; r < m.st.band_r0; ++r)
    for (int32_t c = m.st.band_c0; c < m.st.band_c1; ++c) {
      if (!p.mask[static_cast<size_t>(m.st.window_y0 + r) * cw + m.st.window_x0 + c]) continue;
      bool reach = true;
      for (int32_t d : S) {
        const int32_t y = m.startRow(d, p.dy) + r, x = m.startCol(d, p.dx) + c;
        if (y < 0 || y >= m.sh || x < 0 || x >= m.sw) {
          reach = false;
          break;
        }
      }
      if (reach) m.region[static_cast<size_t>(r) * m.ww + c] = 1;
    }

  m.blend.resize(3 * np);
  m.weights.resize(static_cast<size_t>(n) * np);
  headForward(m.donor_planes.data(), n, m.query_planes.data(), m.region.data(), m.blend.data(), m.weights.data());
  m.times.head = since(t);
  t = Clock::now();

  // The synthesis branch is not evaluated: its weight is 0 over the region.
  const int64_t region_px = std::count(m.region.begin(), m.region.end(), 1);
  res.synth_mean = res.synth_max = 0.0f;
  if (region_px > 0) {
    ++m.stats.frames;
    m.stats.pixels += region_px;
    m.stats.sum_mean += res.synth_mean;
    m.stats.max = std::max(m.stats.max, static_cast<double>(res.synth_max));
  }

  // Memory: the candidates carrying the most weight over the window.
  std::vector<double> score(n, 0.0);
  for (int i = 0; i < n; ++i)
    for (size_t o = 0; o < np; ++o) score[i] += m.weights[static_cast<size_t>(i) * np + o];
  std::vector<int32_t> rank(n);
  std::iota(rank.begin(), rank.end(), 0);
  std::stable_sort(rank.begin(), rank.end(), [&](int32_t a, int32_t b) { return score[a] > score[b]; });
  m.kept.clear();
  for (int i = 0; i < std::min(n, std::max(m.cfg.hysteresis, 0)); ++i) m.kept.push_back(S[rank[i]]);
  m.kept_idx = p.frame_index;

  // Compose under the delivery mask at the stamp window.
  res.window.resize(np * 3);
  le::pool::parallelRange(static_cast<size_t>(m.wh), 4, [&](size_t rb, size_t re) {
    for (size_t r = rb; r < re; ++r)
      for (int32_t c = 0; c < m.ww; ++c) {
        const size_t o = r * m.ww + c;
        const float a = unit[p.mask[(m.st.window_y0 + r) * cw + m.st.window_x0 + c]];
        for (int k = 0; k < 3; ++k) {
          const float v = (1.0f - a) * m.query_planes[k * np + o] + a * m.blend[k * np + o];
          const float b = nearbyintSmall(std::min(v, 1.0f) * 255.0f);
          res.window[o * 3 + k] = static_cast<uint8_t>(std::min(std::max(b, 0.0f), 255.0f));
        }
      }
  });
  res.candidates = n;
  m.times.compose = since(t);
}

// ---------------------------------------------------------------------------------------------
// Frames

bool TeethPass::push(int32_t frame_index, const uint8_t* crop, const uint8_t* mask, const Shift* shift,
                     FrameResult& result) {
  Impl& m = *impl_;
  m.times = StageTimes{};
  const size_t cpx = static_cast<size_t>(m.st.canvas_w) * m.st.canvas_h;
  Pending p = std::move(m.spare);
  p.frame_index = frame_index;
  p.crop.assign(crop, crop + cpx * 3);
  p.mask.assign(mask, mask + cpx);
  p.donors.clear();
  p.dy = p.dx = 0;  // an empty mask leaves the shift unset
  p.ok = deriveShift(mask, shift, p.dy, p.dx, p.reason);
  if (p.ok) p.donors = retrieve(crop, mask, p.dy, p.dx);
  bool out = false;
  if (m.held) {
    emit(m.pending, p.ok ? &p.donors : nullptr, result);
    out = true;
  }
  std::swap(m.pending, p);
  m.spare = std::move(p);
  m.held = true;
  return out;
}

bool TeethPass::flush(FrameResult& result) {
  Impl& m = *impl_;
  m.times = StageTimes{};
  if (!m.held) return false;
  emit(m.pending, nullptr, result);
  m.held = false;
  m.pending = Pending{};
  return true;
}

bool TeethPass::holding() const { return impl_->held; }

const GeometryStamp& TeethPass::stamp() const { return impl_->st; }
const ServeConfig& TeethPass::config() const { return impl_->cfg; }
const HeadWeights& TeethPass::head() const { return impl_->head; }
int32_t TeethPass::nDonors() const { return impl_->n; }
int32_t TeethPass::canvasW() const { return impl_->st.canvas_w; }
int32_t TeethPass::canvasH() const { return impl_->st.canvas_h; }
int32_t TeethPass::windowH() const { return impl_->wh; }
int32_t TeethPass::windowW() const { return impl_->ww; }
int32_t TeethPass::pooledH() const { return impl_->ph; }
int32_t TeethPass::pooledW() const { return impl_->pw; }
const std::array<double, 2>& TeethPass::cCanon() const { return impl_->c_canon; }
const std::vector<int32_t>& TeethPass::offsetsY() const { return impl_->oy; }
const std::vector<int32_t>& TeethPass::offsetsX() const { return impl_->ox; }
const std::vector<double>& TeethPass::aperture() const { return impl_->aperture; }
const std::vector<uint16_t>& TeethPass::pooledIndex() const { return impl_->index; }
const std::vector<uint8_t>& TeethPass::bandMask() const { return impl_->band_mask; }
const std::vector<int32_t>& TeethPass::keptDonors() const { return impl_->kept; }
int32_t TeethPass::keptFrameIndex() const { return impl_->kept_idx; }
const TeethPass::Stats& TeethPass::stats() const { return impl_->stats; }
const TeethPass::StageTimes& TeethPass::lastTimes() const { return impl_->times; }

}  // namespace le::tessera
