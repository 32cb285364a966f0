// ctest-label: threaded
// The teeth retrieval pass beside a plain-loop reference over frame sequences (explicit and
// derived shifts, skipped frames, a broken frame run, odd windows, off-canvas shifts, real
// PyTorch head weights, mouths without teeth), its refusals and the selection's tie rules.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <tuple>
#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_bundle.h"
#include "le/le_simd.h"
#include "le/tessera/le_tessera.h"
#include "tests/bundle_fixture.h"
#include "tests/support/media.h"
#include "tests/tessera_reference.h"
#include "tools/forge/forge_tessera.h"

namespace {

using le::tessera::BankData;
using le::tessera::FrameResult;
using le::tessera::GeometryStamp;
using le::tessera::ServeConfig;
using le::tessera::Shift;
using le::tessera::TeethPass;
using le::testing::thrown;

GeometryStamp stampOf(bool odd) {
  GeometryStamp s;
  s.canvas_w = s.canvas_h = 48;
  s.window_x0 = odd ? 1 : 12;  // the odd window sits at the edge: shifts reach off the canvas
  s.window_y0 = 24;
  s.window_w = odd ? 21 : 20;
  s.window_h = odd ? 15 : 16;
  s.pad = 3;
  s.band_r0 = 4;
  s.band_r1 = odd ? 11 : 12;
  s.band_c0 = 4;
  s.band_c1 = odd ? 17 : 16;
  s.shift_margin = 2;
  return s;
}

const std::string kTorch = "/work/shared/data/torch/";

ServeConfig configOf(int kshort, int cut, int K, double tol = 0.5) {
  ServeConfig c;
  c.kshort = kshort, c.cut = cut, c.K = K, c.aperture_tol = tol, c.hysteresis = 2, c.lookahead = 2;
  return c;
}

le::tessera::HeadWeights forgedHead() {
  le::tessera::HeadWeights w;
  const auto ts = le::forge::headTensors(true);
  for (size_t i = 0; i < ts.size(); ++i) w.t[i] = ts[i].values;
  return w;
}

// A canvas with skin, a mouth centred at (cx, cy) opened by `open` (0..1; teeth show from about
// 0.3) and its delivery mask; teeth < 0 paints the interior dark, > 1 paints it red.
void drawMouth(const GeometryStamp& s, double cx, double cy, double open, double teeth, uint32_t seed,
               std::vector<uint8_t>& rgb, std::vector<uint8_t>& mask) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> noise(-6, 6);
  rgb.assign(size_t(s.canvas_w) * s.canvas_h * 3, 0);
  mask.assign(size_t(s.canvas_w) * s.canvas_h, 0);
  const double rx = 7.5, ry = 1.0 + 5.0 * open;
  for (int y = 0; y < s.canvas_h; ++y)
    for (int x = 0; x < s.canvas_w; ++x) {
      const double u = (x - cx) / rx, v = (y - cy) / ry;
      const double e = u * u + v * v;
      int c[3] = {205, 150, 128};
      if (e < 1.0) {
        const bool tooth = teeth >= 0 && teeth <= 1 && std::fabs(y - (cy - 0.45 * ry)) < 0.35 * ry + 0.5 &&
                           (x + seed) % 5 != 0;
        if (tooth)
          c[0] = int(200 + 40 * teeth), c[1] = int(198 + 40 * teeth), c[2] = 190;
        else if (teeth > 1)
          c[0] = 170, c[1] = 40, c[2] = 50;
        else
          c[0] = 45, c[1] = 22, c[2] = 28;
      }
      for (int k = 0; k < 3; ++k) rgb[(size_t(y) * s.canvas_w + x) * 3 + k] = uint8_t(std::clamp(c[k] + noise(rng), 0, 255));
      const double m = std::sqrt(u * u / 1.44 + (y - cy) * (y - cy) / ((ry + 2) * (ry + 2)));
      mask[size_t(y) * s.canvas_w + x] = uint8_t(std::clamp(255.0 * (1.6 - m) / 0.6, 0.0, 255.0));
    }
}

// n donors with mouths at canonical position + small offsets and varied openings.
BankData bankOf(const GeometryStamp& s, int n, uint32_t seed) {
  BankData b;
  b.stamp = s;
  b.n_donors = n;
  b.c_canon = {s.window_x0 + s.window_w / 2.0, s.window_y0 + s.window_h / 2.0};
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(0, 1);
  const int bw = s.bandW(), bh = s.bandH();
  const int x0 = s.window_x0 + s.band_c0 - s.shift_margin, y0 = s.window_y0 + s.band_r0 - s.shift_margin;
  for (int d = 0; d < n; ++d) {
    const double cx = b.c_canon[0] + 4 * u(rng) - 2, cy = b.c_canon[1] + 4 * u(rng) - 2, open = u(rng);
    std::vector<uint8_t> rgb, mask;
    drawMouth(s, cx, cy, open, u(rng), seed + d, rgb, mask);
    for (int y = 0; y < bh; ++y)
      for (int x = 0; x < bw; ++x)
        for (int k = 0; k < 3; ++k) {
          const int cyy = y0 + y, cxx = x0 + x;
          const bool in = cyy >= 0 && cyy < s.canvas_h && cxx >= 0 && cxx < s.canvas_w;
          b.band.push_back(in ? rgb[(size_t(cyy) * s.canvas_w + cxx) * 3 + k] : 0);
        }
    b.cent.push_back(cx);
    b.cent.push_back(cy);
    b.aperture.push_back(10 * open);
  }
  return b;
}

// The pass's frame result against the reference's, window bytes included.
void expectSame(const FrameResult& got, const le::testref::RefResult& want, const std::string& what) {
  EXPECT_EQ(std::make_tuple(got.skip, got.reason, got.candidates, got.window),
            std::make_tuple(want.skip, want.reason, want.candidates, want.window))
      << what;
}

TEST(TesseraPass, MatchesPlainLoopReferenceOverFrames) {
  struct Case {
    bool odd;
    int n;
    ServeConfig cfg;
    bool realHead;
  };
  const Case cases[] = {
      {false, 11, configOf(5, 4, 3), false},
      {true, 7, configOf(3, 3, 4, 0.2), true},    // odd window, padded selections, PyTorch's weights
      {false, 6, configOf(9, 9, 2, 10.0), true},  // kshort over n: every donor re-ranked
  };
  for (const Case& cs : cases) {
    const GeometryStamp s = stampOf(cs.odd);
    const BankData bank = bankOf(s, cs.n, cs.odd ? 7 : 3);
    const le::tessera::HeadWeights head =
        cs.realHead ? le::tessera::loadHeadPt(le::testmedia::readBytes(kTorch + "blend16_state_dict.pt"))
                    : forgedHead();
    TeethPass pass(bank, head, cs.cfg);
    le::testref::RefPass ref(bank, head, cs.cfg);

    // the pooled index, widened, equals the reference's half-rounded block means
    std::vector<float> idx(pass.pooledIndex().size());
    le::simd::f16ToF32(pass.pooledIndex().data(), idx.data(), idx.size());
    ASSERT_EQ(idx, ref.index);

    // frame i: mouth moved by (dy, dx), opening varies; some shifts given, some derived; a dark
    // and a red mouth (no teeth to weigh: the whole gate weighs), an empty mask, a shift past pad
    struct F {
      int index, dy, dx;
      bool give, empty;
      double open, teeth;
    };
    const F frames[] = {{0, 0, 0, true, false, 0.8, 0.5},    {1, 1, -2, false, false, 0.6, 0.5},
                        {2, -3, 3, true, false, 0.9, 0.5},   {3, 2, -3, false, false, 0.3, -1.0},
                        {4, 0, 0, false, true, 0.5, 0.5},    {5, 3, 1, true, false, 0.7, 0.5},
                        {6, 4, 0, true, false, 0.7, 0.5},    {7, -1, -3, false, false, 0.4, 2.0},
                        {9, 0, 2, true, false, 1.0, 1.0},    {10, -2, -1, true, false, 0.2, 0.5}};
    int filled = 0;
    for (const F& f : frames) {
      std::vector<uint8_t> rgb, mask;
      drawMouth(s, bank.c_canon[0] + f.dx, bank.c_canon[1] + f.dy, f.open, f.teeth, 100 + f.index, rgb, mask);
      if (f.empty) std::fill(mask.begin(), mask.end(), 127);
      const Shift sh{f.dy, f.dx};
      FrameResult got;
      le::testref::RefResult want;
      const bool a = pass.push(f.index, rgb.data(), mask.data(), f.give ? &sh : nullptr, got);
      const bool b = ref.push(f.index, rgb.data(), mask.data(), f.give ? &sh : nullptr, want);
      ASSERT_EQ(a, b);
      if (a) expectSame(got, want, "frame before " + std::to_string(f.index) + (cs.odd ? " odd" : " even")), ++filled;
    }
    FrameResult got;
    le::testref::RefResult want;
    ASSERT_TRUE(pass.flush(got));
    ASSERT_TRUE(ref.flush(want));
    expectSame(got, want, "flushed");
    EXPECT_EQ(filled, 9);
    EXPECT_FALSE(pass.flush(got));
  }
}

TEST(TesseraPass, RefusesBrokenConfigAndBank) {
  const std::string ok =
      R"({"retrieval": {"kshort": 32.9, "aperture_tol": 0.35, "cut": 16, "K": 4}, "temporal": {"hysteresis": 3, "lookahead": 2}, "decode": {"envelope_clamp_255": 12.0000001}})";
  const ServeConfig c = ServeConfig::fromHeadMemberJson(ok);
  EXPECT_EQ(c.kshort, 32);
  EXPECT_EQ(c.hysteresis, 3);
  EXPECT_DOUBLE_EQ(c.aperture_tol, 0.35);
  const auto parse = [](const std::string& t) { return thrown([&] { ServeConfig::fromHeadMemberJson(t); }); };
  const std::string schema =
      "teeth: tessera_head.v1 config lacks the retrieval/temporal blocks of the v1 schema — refusing to serve defaults "
      "(W3-01)";
  EXPECT_EQ(parse(R"({"retrieval": {"kshort": 1, "aperture_tol": 1, "cut": 1, "K": 1}})"), schema);
  EXPECT_EQ(parse(R"({"retrieval": 3, "temporal": {}})"), schema);
  std::string env = ok;
  env.replace(env.find("12.0000001"), 10, "13");
  EXPECT_EQ(parse(env),
            "teeth: member envelope_clamp_255 != the envelope of record (12/255) — the envelope is a gated quantity");
  std::string k0 = ok;
  k0.replace(k0.find("\"K\": 4"), 6, "\"K\": 0");
  EXPECT_EQ(parse(k0), "teeth: head config retrieval.K=0 is below 1 — selection needs at least one re-ranked, "
                       "examined and kept donor; refusing to serve it");
  std::string ks = ok;
  ks.replace(ks.find("32.9"), 4, "-1");
  EXPECT_NE(parse(ks).find("retrieval.kshort=-1 is below 1"), std::string::npos);

  const GeometryStamp s = stampOf(false);
  const auto build = [&](auto change) {
    BankData b = bankOf(s, 3, 1);
    ServeConfig cfg = configOf(2, 2, 2);
    change(b, cfg);
    return thrown([&] { TeethPass(b, forgedHead(), cfg); });
  };
  const size_t bytes = size_t(3) * s.bandH() * s.bandW() * 3;
  EXPECT_EQ(build([](BankData& b, ServeConfig&) { b.band.pop_back(); }),
            "teeth: reference track is " + std::to_string(bytes - 1) + " bytes, the stamp requires " +
                std::to_string(bytes) +
                " (n * stored_h * stored_w * 3) — a decoder that delivered a different pixel format would land here");
  EXPECT_EQ(build([](BankData& b, ServeConfig&) { b.cent.push_back(0); }),
            "teeth: bank sidecar arrays disagree with n_donors");
  EXPECT_NE(build([](BankData&, ServeConfig& c) { c.cut = 0; }).find("retrieval.cut=0 is below 1"), std::string::npos);
}

TEST(TesseraPass, SelectionRankingAndTolerance) {
  const GeometryStamp s = stampOf(false);
  BankData b = bankOf(s, 6, 5);
  b.aperture = {1.0, 1.1, 5.0, 1.05, 9.0, 1.0};
  TeethPass pass(b, forgedHead(), configOf(4, 4, 3, 0.2));
  const float inf = INFINITY;
  // equal coarse distances keep donor order (donors 1, 3, 5, 0 are re-ranked); equal exact
  // distances keep coarse order
  std::vector<float> coarse = {0.5f, 0.2f, 0.9f, 0.2f, 0.9f, 0.2f};
  EXPECT_EQ(pass.retrieveSelect(coarse, {0.3f, 0.1f, inf, 0.1f, inf, 0.1f}), (std::vector<int32_t>{1, 3, 5}));
  EXPECT_EQ(pass.retrieveSelect(coarse, {0.05f, 0.1f, inf, 0.1f, inf, 0.1f}), (std::vector<int32_t>{0, 1, 3}));
  // apertures outside the tolerance of the best: K copies of the best
  coarse = {0.9f, 0.9f, 0.1f, 0.9f, 0.2f, 0.9f};
  EXPECT_EQ(pass.retrieveSelect(coarse, {0.5f, 0.5f, 0.2f, inf, 0.1f, inf}), (std::vector<int32_t>{4, 4, 4}));
  // one donor within tolerance besides the best: the list is padded with the last kept
  EXPECT_EQ(pass.retrieveSelect(coarse, {0.5f, 0.6f, 0.7f, inf, 0.8f, inf}), (std::vector<int32_t>{0, 1, 1}));
}

}  // namespace
