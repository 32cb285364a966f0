// The mouth region model: pi bytes against a plain per-pixel reference, boxed against full
// evaluation, rounding, boxes, centroids and the corpus identification with its refusals.
#include <gtest/gtest.h>

#include <cfenv>
#include <cmath>
#include <random>
#include <tuple>
#include <vector>

#include "le/tessera/le_tessera_pi.h"
#include "tests/bundle_fixture.h"
#include "tests/lip_frames.h"

using le::tessera::Box;
using le::tessera::UnifiedPi;
using le::testing::lipFrame;

namespace {

const std::vector<int32_t> kLips = {6, 12, 14, 17, 18, 19, 20};

// The pi mask of one frame from the model's formulas, pixel by pixel, in the plainest form.
std::vector<uint8_t> referencePi(const UnifiedPi& m, const float* kp) {
  float sx = 0, sy = 0;
  for (int r : m.lip_idx) sx += kp[3 * r], sy += kp[3 * r + 1];
  const float cx = sx / float(m.lip_idx.size()), cy = sy / float(m.lip_idx.size());
  float ax = 0, ay = 0;
  for (int r : m.lip_idx) ax = std::max(ax, std::fabs(kp[3 * r] - cx)), ay = std::max(ay, std::fabs(kp[3 * r + 1] - cy));
  float rx = std::max(0.1f, ax + m.pad_x), ry = std::max(0.1f, ay + m.pad_y);
  const float ly = cy + m.down;
  if (m.corner_recovery) {
    float reach = 0;
    for (int r : m.lip_idx) {
      const float u = (kp[3 * r] - cx) / rx, v = (kp[3 * r + 1] - ly) / ry;
      reach = std::max(reach, std::sqrt(u * u + v * v));
    }
    const float s = std::max(1.f, 5.f / (256.f * std::sqrt(rx * ry)) + reach);
    rx *= s, ry *= s;
  }
  float gx = std::max(0.004f, ax), gy = std::max(0.004f, ay);
  if (m.prop_gate_scale != 1.f) gx *= m.prop_gate_scale, gy *= m.prop_gate_scale;
  const float u = (ay - 0.02f) / 0.01f;
  const float us = std::min(u, 1.f);
  const float g = u < 0 ? 0.f : (3.f - 2.f * us) * us * us;
  auto ell = [](float x, float y, float ex, float ey, float erx, float ery) {
    const float dx = (x - ex) / erx, dy = (y - ey) / ery;
    const float t = (1.f - std::sqrt(dx * dx + dy * dy)) * (256.f * std::sqrt(erx * ery)) / 10.f;
    if (t < 0) return 0.f;
    const float s = std::min(t, 1.f);
    return (3.f - 2.f * s) * s * s;
  };
  const int n = m.canvas;
  std::vector<uint8_t> out(size_t(n) * n);
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x) {
      const float X = float(2.0 * x / (n - 1) - 1.0), Y = float(2.0 * y / (n - 1) - 1.0);
      const float pi = std::max(ell(X, Y, cx, ly, rx, ry), ell(X, Y, cx, cy, gx, gy) * g);
      out[size_t(y) * n + x] = uint8_t(std::nearbyint(std::min(pi, 1.f) * 255.f));
    }
  return out;
}

}  // namespace

TEST(TesseraPi, RoundingTiesToEven) {
  EXPECT_EQ(le::tessera::piByte(0.5f), 128);  // 127.5
  EXPECT_EQ(le::tessera::piByte(-0.25f), 0);
  EXPECT_EQ(le::tessera::piByte(NAN), 0);
  EXPECT_EQ(le::tessera::piByte(7.f), 255);
  // Every float step near each byte boundary, against the rounding of the scaled value; the
  // steps include a product exactly on the tie at every half.
  int ties = 0;
  for (int k = 0; k <= 255 * 8; ++k) {
    float v = (float(k) / 8.f) / 255.f;
    for (int s = 0; s < 16; ++s, v = std::nextafter(v, 2.f)) {
      const int want = v > 0.f ? le::tessera::roundHalfEven(double(std::min(v, 1.f) * 255.f)) : 0;
      ASSERT_EQ(le::tessera::piByte(v), want) << v;
      ties += v * 255.f == std::floor(v * 255.f) + 0.5f;
    }
  }
  EXPECT_GE(ties, 255);
  // Independent of the rounding mode a host may have set.
  std::fesetround(FE_UPWARD);
  EXPECT_EQ(le::tessera::roundHalfEven(2.5), 2);
  EXPECT_EQ(le::tessera::roundHalfEven(-1.5), -2);
  EXPECT_EQ(le::tessera::roundHalfEven(-0.5), 0);
  EXPECT_EQ(le::tessera::roundHalfEven(3.5000001), 4);
  std::fesetround(FE_TONEAREST);
  EXPECT_EQ(le::tessera::roundHalfEven(NAN), 0);
  EXPECT_EQ(le::tessera::roundHalfEven(1e300), INT32_MAX);
}

// Full masks against the reference, and the boxed, bounded and shifted forms against the full
// one, bit for bit, over many random frames at an even and an odd canvas.
TEST(TesseraPi, MasksAgreeWithReferenceAndBoxes) {
  std::mt19937 rng(7);
  for (int canvas : {96, 131}) {
    for (int variant = 0; variant < 3; ++variant) {
      const UnifiedPi m(canvas, variant == 1, variant == 2 ? 1.3f : 1.f, kLips, 0.10f, 0.08f, 0.074f);
      std::vector<uint8_t> full(size_t(canvas) * canvas), boxed(full.size()), shrunk(full.size());
      const std::vector<float> ones(full.size(), 1.f);
      for (int f = 0; f < 60; ++f) {
        const std::vector<float> kp = lipFrame(rng, f % 10 == 9);
        m.piU8(kp.data(), full.data());
        ASSERT_EQ(full, referencePi(m, kp.data())) << canvas << " " << variant << " " << f;
        std::fill(boxed.begin(), boxed.end(), 77);
        m.piU8Boxed(kp.data(), boxed.data());
        ASSERT_EQ(boxed, full) << canvas << " " << variant << " " << f;
        m.piU8ShrunkBy(kp.data(), ones.data(), {-5, -5, canvas + 5, canvas + 5}, shrunk.data());
        ASSERT_EQ(shrunk, full);

        const double canon[2] = {canvas * 0.45, canvas * 0.62};
        int32_t sy = 99, sx = 99;
        double cx = 0, cy = 0;
        const bool has = m.piU8Centroid(full.data(), cx, cy);
        ASSERT_EQ(m.piU8AndShift(kp.data(), canon, boxed.data(), sy, sx), has);
        EXPECT_EQ(boxed, full);
        if (has) {
          EXPECT_EQ(sy, int(std::nearbyint(cy - canon[1])));
          EXPECT_EQ(sx, int(std::nearbyint(cx - canon[0])));
        } else {
          EXPECT_EQ(sy, 99);
        }
      }
    }
  }
}

TEST(TesseraPi, ClosedMouthGateAndSmallCanvas) {
  const int n = 80;
  const UnifiedPi m(n, false, 1.f, kLips, 0.10f, 0.08f, 0.074f);
  std::vector<float> kp = lipFrame(0.f, 0.4f, 0.2f, 0.015f);  // lips within 0.015 of their centre row
  float g = -1;
  m.gateParams(kp.data(), &g);
  EXPECT_EQ(g, 0.f);
  std::vector<float> gate(size_t(n) * n, 5.f);
  m.propTeethGate(kp.data(), gate.data());
  EXPECT_EQ(gate, std::vector<float>(gate.size(), 0.f));
  kp = lipFrame(0.f, 0.4f, 0.2f, 0.04f);
  m.gateParams(kp.data(), &g);
  EXPECT_EQ(g, 1.f);

  const UnifiedPi one(1, true, 1.f, kLips, 0.10f, 0.08f, 0.074f);
  ASSERT_EQ(one.xs, std::vector<float>{-1.f});
  const Box b = one.ellBox(one.lipParams(kp.data())), s = one.supportBox(kp.data());
  EXPECT_EQ(std::make_tuple(b.x0, b.x1, b.y1), std::make_tuple(0, 1, 1));
  EXPECT_EQ(std::make_pair(s.x1 - s.x0, s.y1 - s.y0), std::make_pair(1, 1));
}

TEST(TesseraPi, CorpusChoice) {
  const double canon[2] = {250.126, 301.5};
  auto pick = [&](double a, double b, double c) {
    const double d[3] = {a, b, c};
    return le::tessera::corpusPick(d, canon);
  };
  auto refusal = [&](double a, double b, double c) { return le::testing::thrown([&] { pick(a, b, c); }); };
  EXPECT_EQ(pick(2.0, 5.5, 9.0), 0);
  EXPECT_EQ(pick(9.0, 5.5, 2.0), 2);
  EXPECT_EQ(pick(7.9, 0.5, 3.5), 1);
  EXPECT_EQ(refusal(2.0, 4.9, 9.0),
            "teeth-pi: corpus pi geometry is AMBIGUOUS (best two within 3.00px) — v1=2.00px v2=4.90px v3=9.00px — "
            "refusing to guess the bank frame");
  EXPECT_EQ(refusal(8.01, 12.0, 20.0),
            "teeth-pi: no corpus pi geometry matches this bank's c_canon (250.13,301.50) within 8.00px — v1=8.01px "
            "v2=12.00px v3=20.00px — the bank's pi frame is unknown and donors will NOT be placed against a frame "
            "nobody can name");
  // Equal distances keep table order in the list.
  EXPECT_NE(refusal(4.0, 2.0, 4.0).find("— v2=2.00px v1=4.00px v3=4.00px —"), std::string::npos);

  // On frames: the bank's centroid measured with the first row's geometry names that row (the
  // other two share their downward shift and sit about 15 px lower at 256).
  std::mt19937 rng(9);
  std::vector<float> frames;
  for (int f = 0; f < 6; ++f) {
    const std::vector<float> kp = lipFrame(rng, false);
    frames.insert(frames.end(), kp.begin(), kp.end());
  }
  const UnifiedPi v1(256, false, 1.f, kLips, 0.05f, 0.08f, 0.015f), stated(256, false, 1.f, kLips, 0.3f, 0.3f, 0.3f);
  double c[2];
  v1.canonicalCentroid(frames.data(), 6, c[0], c[1]);
  std::string which;
  const UnifiedPi got = UnifiedPi::corpusFrom(stated, frames.data(), 6, c, &which);
  EXPECT_EQ(which, "v1");
  EXPECT_EQ(got.down, 0.015f);
  EXPECT_EQ(got.pad_x, 0.05f);
  const std::vector<float> gone = lipFrame(4.f, 4.f, 0.2f, 0.05f);
  EXPECT_EQ(le::testing::thrown([&] { UnifiedPi::corpusFrom(stated, gone.data(), 1, c, &which); }),
            "teeth-pi: pi is empty on every source frame — cannot derive the canonical centroid this bundle's frame "
            "is identified by");
}

TEST(TesseraPi, ManifestBlock) {
  auto manifest = [](const std::string& pi, const std::string& extra = "") {
    return "{\"NT\": 4, \"unified\": {\"pi\": {" + pi + "}" + extra + "}}";
  };
  const std::string good =
      "\"mode\": \"prop\", \"prop_gate_scale\": 1.25, \"lip_idx\": [6, 12.9, 17, 18], "
      "\"lip_geom_params\": [0.1, 0.08, 0.074]";
  const UnifiedPi m = UnifiedPi::fromManifestJson(manifest(good, ", \"crop\": {\"canvas\": 256}"), 256);
  EXPECT_EQ(m.canvas, 256);
  EXPECT_EQ(m.corner_recovery, 0);
  EXPECT_EQ(m.prop_gate_scale, 1.25f);
  EXPECT_EQ(m.lip_idx, (std::vector<int32_t>{6, 12, 17, 18}));
  EXPECT_EQ(m.pad_x, 0.1f);
  EXPECT_EQ(m.down, 0.074f);
  EXPECT_EQ(m.xs[255], 1.f);
  EXPECT_EQ(UnifiedPi::fromManifestJson(manifest(good + ", \"corner_recovery\": \"lip_landmark_half\""), 64).corner_recovery, 1);
  EXPECT_EQ(UnifiedPi::fromManifestJson(manifest(good + ", \"corner_recovery\": true"), 64).corner_recovery, 1);

  const std::string prop = "\"mode\": \"prop\", \"prop_gate_scale\": 1, \"lip_idx\": ";
  const std::string tp = "teeth-pi: ";
  const std::pair<std::string, std::string> cases[] = {
      {"{\"NT\": 4}",
       tp + "manifest has no `unified` block — this bundle predates the unified compose and cannot state the "
            "pi geometry it was baked with; refusing to guess one"},
      {"{\"unified\": {}}", "teeth: member JSON lacks key 'pi'"},
      {manifest("\"prop_gate_scale\": 1"), "teeth: member JSON lacks key 'mode'"},
      {manifest("\"mode\": 3"), tp + "unified.pi.mode is not a string"},
      {manifest("\"mode\": \"ellipse\""),
       tp + "unified.pi.mode 'ellipse' is a compose-mask geometry this port cannot name — fail loud, never "
            "adapt (the stamped-geometry rule)"},
      {manifest(good + ", \"corner_recovery\": 1"),
       tp + "unknown unified.pi.corner_recovery — a compose-mask geometry a consumer cannot name must "
            "never be guessed"},
      {manifest("\"mode\": \"prop\", \"lip_idx\": [1]"), "teeth: member JSON lacks key 'prop_gate_scale'"},
      {manifest(prop + "[]"), tp + "unified.pi.lip_idx is not a non-empty array"},
      {manifest(prop + "[1], \"lip_geom_params\": [1, 2]"),
       tp + "unified.pi.lip_geom_params must be [pad_x, pad_y, down]"},
      {manifest(prop + "[1]"), "teeth: member JSON lacks key 'lip_geom_params'"},
      {manifest(good, ", \"crop\": {\"canvas\": 32}"),
       tp + "engine renders at canvas 64 but unified.crop.canvas is 32"},
      {manifest(prop + "[21], \"lip_geom_params\": [1, 2, 3]"),
       tp + "unified.pi.lip_idx names keypoint row 21, and a keypoint row is 0..20"},
      {"{\"unified\": [1, ", tp + "the manifest is not readable JSON: teeth: JSON truncated"},
  };
  for (const auto& [text, want] : cases)
    EXPECT_EQ(le::testing::thrown([&] { UnifiedPi::fromManifestJson(text, 64); }), want) << text;
  const double canon[2] = {1, 2};
  EXPECT_EQ(le::testing::thrown([&] { UnifiedPi::corpusFromManifestJson(manifest(good), 64, nullptr, 3, canon, nullptr); }),
            "teeth-pi: the corpus frame is identified from the bundle's own xs_target and none was supplied — "
            "refusing to fall back to the stamped geometry, which is the GRAPH's compose field");
}
