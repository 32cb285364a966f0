// The teeth retrieval pass written again as plain loops, straight from its description: no
// vector kernels, no worker pool, no difference table (the exact distance is formed from the
// half-rounded planes as the kernel text states), its own half rounding. Tests run it beside
// le::tessera::TeethPass frame by frame.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <string>
#include <vector>

#include "le/tessera/le_tessera.h"

namespace le::testref {

// x rounded to binary16 (nearest-even) and back, by the compiler's conversion.
inline float h16(float x) { return static_cast<float>(static_cast<_Float16>(x)); }

struct RefResult {
  std::vector<uint8_t> window;
  bool skip = false;
  std::string reason;
  int candidates = 0;
};

// Same-size 3x3 convolution, zero padding: ky, kx, then ci, products and sums apart.
inline std::vector<float> conv3x3(const float* x, int cin, int H, int W, const std::vector<float>& wt,
                                  const std::vector<float>& bias, int cout, bool relu) {
  std::vector<float> y(static_cast<size_t>(cout) * H * W);
  for (int oc = 0; oc < cout; ++oc)
    for (int r = 0; r < H; ++r)
      for (int c = 0; c < W; ++c) {
        float acc = 0.0f;
        for (int ky = 0; ky < 3; ++ky) {
          const int yy = r + ky - 1;
          if (yy < 0 || yy >= H) continue;
          for (int kx = 0; kx < 3; ++kx)
            for (int ci = 0; ci < cin; ++ci) {
              const int xx = c + kx - 1;
              const float v = xx >= 0 && xx < W ? x[(static_cast<size_t>(ci) * H + yy) * W + xx] : 0.0f;
              acc = acc + wt[((oc * cin + ci) * 3 + ky) * 3 + kx] * v;
            }
        }
        const float o = acc + bias[oc];
        y[(static_cast<size_t>(oc) * H + r) * W + c] = relu ? std::max(o, 0.0f) : o;
      }
  return y;
}

class RefPass {
 public:
  RefPass(const le::tessera::BankData& b, const le::tessera::HeadWeights& h, const le::tessera::ServeConfig& c)
      : st(b.stamp), cfg(c), head(h), n(b.n_donors), band(b.band), ap(b.aperture) {
    wh = st.window_h, ww = st.window_w, sh = st.bandH(), sw = st.bandW();
    cc[0] = b.c_canon[0], cc[1] = b.c_canon[1];
    for (int d = 0; d < n; ++d) {
      oy.push_back(static_cast<int>(std::nearbyint(b.cent[2 * d + 1] - cc[1])));
      ox.push_back(static_cast<int>(std::nearbyint(b.cent[2 * d] - cc[0])));
    }
    for (int d = 0; d < n; ++d)
      for (int k = 0; k < 3; ++k)
        for (int py = 0; py < wh / 4; ++py)
          for (int px = 0; px < ww / 4; ++px)
            index.push_back(pool4(py, px, [&](int r, int c) {
              return h16(donorByte(d, r, c, k, 0, 0) / 255.0f);
            }));
  }

  // The half-rounded mean of the 4x4 block (py, px) of f(row, col).
  template <class F>
  static float pool4(int py, int px, F f) {
    float s = 0.0f;
    for (int y = 0; y < 4; ++y)
      for (int x = 0; x < 4; ++x) s += f(4 * py + y, 4 * px + x);
    return h16(s / 16.0f);
  }

  // Where window (r, c) of donor d, aligned to a frame of shift (dy, dx), lies in its stored
  // patch; false off the patch.
  bool onPatch(int d, int r, int c, int dy, int dx, int& y, int& x) const {
    const int sy = std::min(std::max(st.pad + oy[d] - dy, 0), 2 * st.pad);
    const int sx = std::min(std::max(st.pad + ox[d] - dx, 0), 2 * st.pad);
    y = r + sy - (st.band_r0 + st.pad - st.shift_margin);
    x = c + sx - (st.band_c0 + st.pad - st.shift_margin);
    return y >= 0 && y < sh && x >= 0 && x < sw;
  }
  // Byte k of donor d at window (r, c) aligned to a frame of shift (dy, dx); 0 off the patch.
  int donorByte(int d, int r, int c, int k, int dy, int dx) const {
    int y, x;
    return onPatch(d, r, c, dy, dx, y, x) ? band[((static_cast<size_t>(d) * sh + y) * sw + x) * 3 + k] : 0;
  }

  bool push(int idx, const uint8_t* crop, const uint8_t* mask, const le::tessera::Shift* shift, RefResult& out) {
    Pend p;
    p.idx = idx;
    p.crop.assign(crop, crop + st.canvas_w * st.canvas_h * 3);
    p.mask.assign(mask, mask + st.canvas_w * st.canvas_h);
    p.ok = shiftOf(mask, shift, p.dy, p.dx, p.reason);
    if (p.ok) p.donors = retrieve(crop, mask, p.dy, p.dx);
    bool filled = false;
    if (held) {
      emit(pend, p.ok ? &p.donors : nullptr, out);
      filled = true;
    }
    pend = p;
    held = true;
    return filled;
  }
  bool flush(RefResult& out) {
    if (!held) return false;
    emit(pend, nullptr, out);
    held = false;
    return true;
  }

  std::vector<float> index;  // n x 3 x (wh/4) x (ww/4), half-rounded

 private:
  struct Pend {
    int idx = 0;
    std::vector<uint8_t> crop, mask;
    std::vector<int> donors;
    int dy = 0, dx = 0;
    bool ok = false;
    std::string reason;
  };

  bool shiftOf(const uint8_t* mask, const le::tessera::Shift* s, int& dy, int& dx, std::string& why) const {
    if (s) {
      dy = s->dy, dx = s->dx;
    } else {
      double sy = 0, sx = 0, cnt = 0;
      for (int y = 0; y < st.canvas_h; ++y)
        for (int x = 0; x < st.canvas_w; ++x)
          if (mask[y * st.canvas_w + x] >= 128) sy += y, sx += x, cnt += 1;
      if (cnt == 0) {
        why = "empty-pi";
        return false;
      }
      dy = static_cast<int>(std::nearbyint(sy / cnt - cc[1]));
      dx = static_cast<int>(std::nearbyint(sx / cnt - cc[0]));
    }
    if (std::abs(dy) > st.pad || std::abs(dx) > st.pad) {
      why = "shift-out-of-range";
      return false;
    }
    return true;
  }

  static std::vector<int> order(const std::vector<float>& v) {
    std::vector<int> o(v.size());
    std::iota(o.begin(), o.end(), 0);
    std::stable_sort(o.begin(), o.end(), [&](int a, int b) { return v[a] < v[b]; });
    return o;
  }

  std::vector<int> retrieve(const uint8_t* crop, const uint8_t* mask, int dy, int dx) {
    const int np = wh * ww, y0 = st.window_y0 + dy, x0 = st.window_x0 + dx;
    std::vector<float> w(np, 0.0f), q(3 * np, 0.0f);
    std::vector<bool> gate(np, false);
    float cnt = 0;
    for (int r = 0; r < wh; ++r)
      for (int c = 0; c < ww; ++c) {
        const int y = y0 + r, x = x0 + c;
        if (y < 0 || y >= st.canvas_h || x < 0 || x >= st.canvas_w) continue;
        const uint8_t* px = crop + (y * st.canvas_w + x) * 3;
        const float R = px[0], G = px[1], B = px[2];
        for (int k = 0; k < 3; ++k) q[k * np + r * ww + c] = px[k] / 255.0f;
        gate[r * ww + c] = mask[y * st.canvas_w + x] / 255.0f > 0.5f;
        if (gate[r * ww + c] && 0.299f * R + 0.587f * G + 0.114f * B >= 100.0f && std::fabs(G - R) < 25.0f)
          w[r * ww + c] = 1, cnt += 1;
      }
    if (cnt < 32)
      for (int i = 0; i < np; ++i) w[i] = gate[i] ? 1.0f : 0.0f;
    if (has_prev)
      for (int i = 0; i < np; ++i) w[i] = std::max(0.6f * prev[i], w[i]);
    prev = w, has_prev = true;
    float S = 0;
    for (float v : w) S += v;
    S = std::max(S, 1.0f);
    const int ph = wh / 4, pw = ww / 4, pp = ph * pw;
    auto pool = [&](const float* plane, int py, int px) {
      return pool4(py, px, [&](int r, int c) { return plane[r * ww + c]; });
    };
    std::vector<float> pq(3 * pp), pwt(pp);
    float Sp = 0;
    for (int py = 0; py < ph; ++py)
      for (int px = 0; px < pw; ++px) {
        for (int k = 0; k < 3; ++k) pq[k * pp + py * pw + px] = pool(q.data() + k * np, py, px);
        pwt[py * pw + px] = pool(w.data(), py, px);
        Sp += pwt[py * pw + px];
      }
    Sp = std::max(Sp, 0.0001f);
    auto dist = [](float a0, float a1, float a2, float b0, float b1, float b2) {
      return h16(((std::fabs(h16(a0 - b0)) + std::fabs(h16(a1 - b1))) + std::fabs(h16(a2 - b2))) / 3.0f);
    };
    std::vector<float> coarse(n);
    for (int d = 0; d < n; ++d) {
      const float* a = index.data() + static_cast<size_t>(d) * 3 * pp;
      float t = 0;
      for (int i = 0; i < pp; ++i)
        t = t + h16(dist(a[i], a[pp + i], a[2 * pp + i], pq[i], pq[pp + i], pq[2 * pp + i]) * pwt[i]);
      coarse[d] = h16(t) / Sp;
    }
    const std::vector<int> o = order(coarse);
    const int k = std::min(cfg.kshort, n);
    std::vector<float> e(k);
    for (int j = 0; j < k; ++j) {
      const int d = o[j];
      float t = 0;
      for (int i = 0; i < np; ++i) {
        if (w[i] == 0) continue;
        const int r = i / ww, c = i % ww;
        float dv[3];
        for (int ch = 0; ch < 3; ++ch) dv[ch] = h16(donorByte(d, r, c, ch, 0, 0) / 255.0f);
        t = t + w[i] * dist(dv[0], dv[1], dv[2], h16(q[i]), h16(q[np + i]), h16(q[2 * np + i]));
      }
      e[j] = t / S;
    }
    const std::vector<int> o2 = order(e);
    const int best = o[o2[0]];
    std::vector<int> kept;
    for (int j = 0; j < std::min(cfg.cut, k) && static_cast<int>(kept.size()) < cfg.K; ++j)
      if (std::fabs(ap[o[o2[j]]] - ap[best]) <= std::max(1e-6, ap[best]) * cfg.aperture_tol) kept.push_back(o[o2[j]]);
    if (kept.empty()) kept.push_back(best);
    while (static_cast<int>(kept.size()) < cfg.K) kept.push_back(kept.back());
    return kept;
  }

  static bool in(const std::vector<int>& v, int x) { return std::find(v.begin(), v.end(), x) != v.end(); }

  void emit(const Pend& p, const std::vector<int>* next, RefResult& out) {
    out = RefResult{};
    if (!p.ok) {
      out.skip = true, out.reason = p.reason;
      return;
    }
    std::vector<int> F(p.donors.begin(), p.donors.begin() + std::min<size_t>(p.donors.size(), cfg.K)), N, D, S;
    if (next)
      for (int i = 0; i < std::min<int>(cfg.lookahead, static_cast<int>(next->size())); ++i) N.push_back((*next)[i]);
    for (int d : F)
      if (!in(N, d)) D.push_back(d);
    if (!kept.empty() && kept_idx == p.idx - 1) {
      S = kept;
      for (int d : N)
        if (!in(kept, d)) S.push_back(d);
      for (int d : D)
        if (!in(kept, d)) S.push_back(d);
    } else {
      S = N;
      S.insert(S.end(), D.begin(), D.end());
    }
    if (static_cast<int>(S.size()) > cfg.K) S.resize(cfg.K);
    const int nc = static_cast<int>(S.size()), np = wh * ww, cw = st.canvas_w;
    auto qv = [&](int r, int c, int k) {
      return p.crop[((st.window_y0 + r) * cw + st.window_x0 + c) * 3 + k] / 255.0f;
    };
    auto dv = [&](int i, int r, int c, int k) { return donorByte(S[i], r, c, k, p.dy, p.dx) / 255.0f; };
    auto maskAt = [&](int r, int c) { return p.mask[(st.window_y0 + r) * cw + st.window_x0 + c]; };

    std::vector<uint8_t> region(np, 0);
    for (int r = 0; r < wh; ++r)
      for (int c = 0; c < ww; ++c) {
        const bool inBand = r >= st.band_r0 && r < st.band_r1 && c >= st.band_c0 && c < st.band_c1;
        bool above = r < st.band_r0 && c >= st.band_c0 && c < st.band_c1 && maskAt(r, c) != 0;
        int y, x;
        for (int i = 0; i < nc && above; ++i) above = onPatch(S[i], r, c, p.dy, p.dx, y, x);
        region[r * ww + c] = inBand || above;
      }

    // Head logits at half resolution, upsampled x2, softmax per pixel.
    const int hh = wh / 2, hw = ww / 2;
    std::vector<std::vector<float>> logit(nc);
    for (int i = 0; i < nc; ++i) {
      std::vector<float> x(static_cast<size_t>(7) * hh * hw);
      for (int y = 0; y < hh; ++y)
        for (int c = 0; c < hw; ++c) {
          float dh[3], qh[3];
          for (int k = 0; k < 3; ++k) {
            auto blk = [&](auto f) {
              return (((f(2 * y, 2 * c, k) + f(2 * y, 2 * c + 1, k)) + f(2 * y + 1, 2 * c, k)) + f(2 * y + 1, 2 * c + 1, k)) *
                     0.25f;
            };
            dh[k] = blk([&](int r, int cc2, int kk) { return dv(i, r, cc2, kk); });
            qh[k] = blk(qv);
            x[(k * hh + y) * hw + c] = dh[k];
            x[((3 + k) * hh + y) * hw + c] = qh[k];
          }
          x[(6 * hh + y) * hw + c] =
              ((std::fabs(dh[0] - qh[0]) + std::fabs(dh[1] - qh[1])) + std::fabs(dh[2] - qh[2])) / 3.0f;
        }
      const auto a = conv3x3(x.data(), 7, hh, hw, head.cand0W(), head.cand0B(), 16, true);
      const auto b = conv3x3(a.data(), 16, hh, hw, head.cand2W(), head.cand2B(), 16, true);
      logit[i] = conv3x3(b.data(), 16, hh, hw, head.cand4W(), head.cand4B(), 1, false);
    }
    auto src = [](int i, int half, int& i0, int& i1, float& f) {
      const float s = std::max((i + 0.5f) / 2.0f - 0.5f, 0.0f);
      i0 = std::min(static_cast<int>(std::floor(s)), half - 1);
      i1 = std::min(i0 + 1, half - 1);
      f = s - i0;
    };
    std::vector<float> wts(static_cast<size_t>(nc) * np);
    std::vector<uint8_t> win(np * 3);
    std::vector<double> score(nc, 0.0);
    for (int r = 0; r < wh; ++r)
      for (int c = 0; c < ww; ++c) {
        int y0, y1, x0, x1;
        float fy, fx;
        src(r, hh, y0, y1, fy);
        src(c, hw, x0, x1, fx);
        std::vector<float> l(nc);
        float mx = -INFINITY;
        for (int i = 0; i < nc; ++i) {
          const auto& L = logit[i];
          const float top = (1.0f - fx) * L[y0 * hw + x0] + fx * L[y0 * hw + x1];
          const float bot = (1.0f - fx) * L[y1 * hw + x0] + fx * L[y1 * hw + x1];
          l[i] = (1.0f - fy) * top + fy * bot;
          mx = std::max(mx, l[i]);
        }
        float s = 0;
        for (int i = 0; i < nc; ++i) s += (l[i] = std::exp(l[i] - mx));
        for (int i = 0; i < nc; ++i) score[i] += l[i] / s;
        const float m = maskAt(r, c) / 255.0f;
        for (int k = 0; k < 3; ++k) {
          float b = qv(r, c, k);
          if (region[r * ww + c]) {
            b = 0.0f;
            for (int i = 0; i < nc; ++i) b += (l[i] / s) * dv(i, r, c, k);
          }
          const float v = (1.0f - m) * qv(r, c, k) + m * b;
          win[(r * ww + c) * 3 + k] = static_cast<uint8_t>(std::clamp(std::nearbyint(std::min(v, 1.0f) * 255.0f), 0.0f, 255.0f));
        }
      }
    std::vector<int> rank(nc);
    std::iota(rank.begin(), rank.end(), 0);
    std::stable_sort(rank.begin(), rank.end(), [&](int a, int b) { return score[a] > score[b]; });
    kept.clear();
    for (int i = 0; i < std::min(nc, cfg.hysteresis); ++i) kept.push_back(S[rank[i]]);
    kept_idx = p.idx;
    out.window = win;
    out.candidates = nc;
  }

  le::tessera::GeometryStamp st;
  le::tessera::ServeConfig cfg;
  le::tessera::HeadWeights head;
  int n, wh, ww, sh, sw;
  std::vector<uint8_t> band;
  std::vector<double> ap;
  double cc[2];
  std::vector<int> oy, ox;
  std::vector<float> prev;
  bool has_prev = false;
  std::vector<int> kept;
  int kept_idx = -2;
  bool held = false;
  Pend pend;
};

}  // namespace le::testref
