// The lip contour: fill and chamfer feather against plain references, the deformations, and the
// delivery masks against full-canvas evaluation.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <tuple>
#include <vector>

#include "le/tessera/le_lip_contour.h"
#include "tests/bundle_fixture.h"
#include "tests/lip_frames.h"

using le::tessera::Box;
using le::tessera::LipContour;
using le::tessera::UnifiedPi;
using le::testing::lipFrame;
using le::testing::thrown;

namespace {

const std::vector<int32_t> kPiLips = {6, 12, 14, 17, 18, 19, 20};
const int32_t kAnchors[4] = {6, 12, 17, 18};

// A lip-like outline: wide, flatter on top, in units of the anchors' half-extent.
std::vector<double> lipOutline(int nv) {
  std::vector<double> u(2 * size_t(nv));
  for (int v = 0; v < nv; ++v) {
    const double a = 2 * M_PI * v / nv;
    u[2 * v] = std::cos(a);
    u[2 * v + 1] = std::sin(a) * (std::sin(a) < 0 ? 0.8 : 1.0);
  }
  return u;
}

LipContour contour(int canvas, float feather, int nv = 16) {
  const std::vector<double> u = lipOutline(nv);
  return LipContour(canvas, feather, u.data(), nv, kAnchors, 4);
}

inline float smooth(float t) {
  if (t <= 0) return 0;
  const float s = std::min(t, 1.f);
  return (3 - 2 * s) * s * s;
}

}  // namespace

// An axis-aligned rectangle fills exactly its pixels, and its chamfer distance is known in
// closed form: diagonal steps first, then straight ones.
TEST(LipContour, RectangleFillAndChamferFeather) {
  const int n = 64;
  for (float feather : {4.5f, 2 * 0.955f}) {
    const LipContour lc = contour(n, feather, 4);
    const double rect[8] = {20, 15, 40, 15, 40, 30, 20, 30};
    const Box b = lc.box(rect);
    const int m = int(std::ceil(feather + 2));
    EXPECT_EQ(b.x0, int(std::floor(20 - feather - 2)));
    EXPECT_EQ(b.x1, 40 + m + 1);
    std::vector<uint8_t> fill(size_t(b.x1 - b.x0) * (b.y1 - b.y0));
    lc.fillScanline(rect, b, fill.data());
    std::vector<float> plane(size_t(n) * n, 0.f);
    lc.contourF32(rect, b, plane.data());
    for (int y = 0; y < n; ++y)
      for (int x = 0; x < n; ++x) {
        const bool inBox = x >= b.x0 && x < b.x1 && y >= b.y0 && y < b.y1;
        const bool inside = x >= 20 && x <= 40 && y >= 15 && y <= 30;
        if (inBox) {
          ASSERT_EQ(fill[size_t(y - b.y0) * (b.x1 - b.x0) + x - b.x0], inside ? 255 : 0) << x << "," << y;
        }
        const int dx = x < 20 ? 20 - x : (x > 40 ? x - 40 : 0), dy = y < 15 ? 15 - y : (y > 30 ? y - 30 : 0);
        const float d = float(std::min(dx, dy)) * 1.3693f + float(std::abs(dx - dy)) * 0.955f;
        const float want = inBox ? smooth(1 - d / feather) : 0.f;
        ASSERT_NEAR(plane[size_t(y) * n + x], want, 2e-6f) << x << "," << y << " feather " << feather;
        if (inside || (feather < 2 && d == 2 * 0.955f)) {  // at d == feather exactly zero, no residue
          ASSERT_EQ(plane[size_t(y) * n + x], want);
        }
      }
  }
}

// Random polygons, with vertices far off the canvas (clamped 65536 pixels out) and on it: the
// outline and fill agree byte for byte with Bresenham's walk taken one step at a time and a
// plain even-odd fill.
TEST(LipContour, FarVerticesAgainstStepwiseWalk) {
  const int n = 48;
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> near(-20, 68), far(-3e5, 3e5);
  for (int trial = 0; trial < 200; ++trial) {
    const int nv = 2 + trial % 9;
    const LipContour lc = contour(n, 2.f, nv);
    std::vector<double> poly(2 * size_t(nv));
    for (double& c : poly) c = rng() % 3 == 0 ? far(rng) : near(rng);
    const Box b = lc.box(poly.data());
    const int64_t w = b.x1 - b.x0, h = b.y1 - b.y0;
    if (w < 1 || h < 1) continue;
    std::vector<int64_t> v(poly.size());
    for (size_t i = 0; i < poly.size(); ++i)
      v[i] = std::clamp<int64_t>(le::tessera::roundHalfEven(poly[i] - (i % 2 ? b.y0 : b.x0)), -65536, 65536);
    std::vector<uint8_t> want(size_t(w * h), 0), got(want.size(), 7);
    for (int i = 0; i < nv; ++i) {
      const int a = (i + nv - 1) % nv;
      int64_t x = v[2 * a], y = v[2 * a + 1];
      const int64_t xe = v[2 * i], ye = v[2 * i + 1], dx = std::abs(xe - x), dy = -std::abs(ye - y);
      int64_t err = dx + dy;
      for (;;) {
        if (x >= 0 && x < w && y >= 0 && y < h) want[size_t(y * w + x)] = 255;
        if (x == xe && y == ye) break;
        const int64_t e2 = 2 * err;
        if (e2 >= dy) err += dy, x += x < xe ? 1 : -1;
        if (e2 <= dx) err += dx, y += y < ye ? 1 : -1;
      }
    }
    for (int64_t y = 0; y < h; ++y) {
      std::vector<int64_t> xs;
      for (int i = 0; i < nv; ++i) {
        const int a = (i + nv - 1) % nv;
        int64_t x0 = v[2 * a], y0 = v[2 * a + 1], x1 = v[2 * i], y1 = v[2 * i + 1];
        if (y0 == y1) continue;
        if (y0 > y1) std::swap(x0, x1), std::swap(y0, y1);
        if (y0 <= y && y < y1) xs.push_back(x0 * 65536 + (y - y0) * (((x1 - x0) * 65536) / (y1 - y0)));
      }
      std::sort(xs.begin(), xs.end());
      for (size_t k = 0; k + 1 < xs.size(); k += 2)
        for (int64_t x = std::max<int64_t>((xs[k] + 65535) >> 16, 0); x <= std::min(xs[k + 1] >> 16, w - 1); ++x)
          want[size_t(y * w + x)] = 255;
    }
    lc.fillScanline(poly.data(), b, got.data());
    ASSERT_EQ(got, want) << "trial " << trial;
  }
}

TEST(LipContour, Deformations) {
  const int n = 128;
  LipContour lc = contour(n, 3.f, 8);
  // All anchors on one point: the outline collapses onto it and the box keeps its margin.
  std::vector<float> kp = lipFrame(0.1f, 0.2f, 0.f, 0.f);
  std::vector<double> poly(16);
  lc.polygon(kp.data(), poly.data());
  const double px = (0.1 + 1) * n / 2, py = (double(0.2f) + 1) * n / 2;
  for (int v = 0; v < 8; ++v) {
    EXPECT_NEAR(poly[2 * v], px, 1.1e-6);
    EXPECT_NEAR(poly[2 * v + 1], py, 1.1e-6);
  }
  const Box b = lc.box(poly.data());
  EXPECT_EQ(std::make_tuple(b.x0, b.x1, b.y0, b.y1),
            std::make_tuple(int(std::floor(px - 5)), int(std::ceil(px + 5)) + 1, int(std::floor(py - 5)),
                            int(std::ceil(py + 5)) + 1));
  std::vector<float> plane(size_t(n) * n);
  lc.contourF32Canvas(kp.data(), plane.data());
  EXPECT_EQ(plane[size_t(std::nearbyint(py)) * n + size_t(std::nearbyint(px))], 1.f);

  // Anchor-linear: the vertices scale with the anchors' half-extents about their mean.
  kp = lipFrame(-0.2f, 0.3f, 0.25f, 0.1f);
  lc.polygon(kp.data(), poly.data());
  const std::vector<double> u = lipOutline(8);
  const double mx = (double(-0.2f) + 1) * n / 2, my = (double(0.3f) + 1) * n / 2;
  for (int v = 0; v < 8; ++v) {
    EXPECT_NEAR(poly[2 * v], mx + 0.25 * n / 2 * u[2 * v], 1e-3);
    EXPECT_NEAR(poly[2 * v + 1], my + 0.1 * n / 2 * u[2 * v + 1], 1e-3);
  }

  // The learned map: b + W f plus the anchor mean, in the map's own rows.
  const int32_t mapRows[2] = {17, 18};
  std::vector<double> W(16 * 4), bias(16);
  for (size_t i = 0; i < W.size(); ++i) W[i] = 0.1 * double(int(i % 9) - 4);
  for (size_t i = 0; i < bias.size(); ++i) bias[i] = double(i) - 8;
  EXPECT_EQ(thrown([&] { lc.attachMap(W.data(), bias.data(), 16, 6, mapRows, 2); }),
            "lip_template.v1.json: lip_map shape does not match the template");
  lc.attachMap(W.data(), bias.data(), 16, 4, mapRows, 2);
  EXPECT_EQ(lc.lipIdx(), (std::vector<int32_t>{17, 18}));
  lc.polygon(kp.data(), poly.data());
  const double lx = (double(kp[51]) + 1) * n / 2, ly = (double(kp[52]) + 1) * n / 2;
  const double rx = (double(kp[54]) + 1) * n / 2, ry = (double(kp[55]) + 1) * n / 2;
  const double f[4] = {lx - (lx + rx) / 2, ly - (ly + ry) / 2, rx - (lx + rx) / 2, ry - (ly + ry) / 2};
  for (int j = 0; j < 16; ++j) {
    double want = bias[j] + (j % 2 ? (ly + ry) / 2 : (lx + rx) / 2);
    for (int k = 0; k < 4; ++k) want += W[size_t(j) * 4 + k] * f[k];
    EXPECT_NEAR(poly[j], want, 1e-9) << j;
  }
}

// The delivery masks equal the full-canvas pi bounded by the full contour plane, bit for bit,
// over many random frames, with one instance reused across boxes of every size.
TEST(LipContour, DeliveryAgreesWithFullCanvas) {
  for (int n : {128, 97}) {
    const UnifiedPi pi(n, true, 1.f, kPiLips, 0.10f, 0.08f, 0.074f);
    const LipContour lc = contour(n, 4.f, 24);
    const size_t px = size_t(n) * n;
    std::vector<float> lip(px), gate(px), plane(px);
    std::vector<uint8_t> full(px), got(px), want(px);
    std::mt19937 rng(5 + n);
    const double canon[2] = {n * 0.5, n * 0.7};
    for (int f = 0; f < 150; ++f) {
      const std::vector<float> kp = lipFrame(rng, f % 8 == 7);
      pi.lipMask(kp.data(), lip.data());
      pi.propTeethGate(kp.data(), gate.data());
      lc.contourF32Canvas(kp.data(), plane.data());
      for (size_t i = 0; i < px; ++i)
        want[i] = plane[i] > 0 ? le::tessera::piByte(std::min(plane[i], std::max(lip[i], gate[i]))) : 0;
      lc.deliveredU8(kp.data(), pi, got.data());
      ASSERT_EQ(got, want) << n << " frame " << f;

      pi.piU8(kp.data(), full.data());
      int32_t sy = 7, sx = 7, wy = 7, wx = 7;
      const bool had = pi.piU8AndShift(kp.data(), canon, want.data(), wy, wx);
      bool any = false;
      for (size_t i = 0; i < px; ++i) {
        want[i] = std::min(full[i], le::tessera::piByte(plane[i]));
        any = any || want[i];
      }
      ASSERT_EQ(lc.deliveredU8AndShift(kp.data(), pi, canon, got.data(), sy, sx), had && any);
      ASSERT_EQ(got, want) << n << " frame " << f;
      EXPECT_EQ(sy, wy);
      EXPECT_EQ(sx, wx);
    }
  }
}

TEST(LipContour, DeliveryEmptyCases) {
  const int n = 96;
  const UnifiedPi pi(n, false, 1.f, kPiLips, 0.10f, 0.08f, 0.074f);
  LipContour lc = contour(n, 3.f);
  const double canon[2] = {48, 60};
  std::vector<uint8_t> mask(size_t(n) * n, 9);
  int32_t sy = 0, sx = 0;
  // Lips far off the canvas: no pi, no contour.
  std::vector<float> kp = lipFrame(3.f, 3.f, 0.2f, 0.05f);
  EXPECT_FALSE(lc.deliveredU8AndShift(kp.data(), pi, canon, mask.data(), sy, sx));
  for (uint8_t v : mask) ASSERT_EQ(v, 0);
  // A map that moves the contour 40 px right of the lips: the pi has a centroid, the contour
  // takes every pixel of it away.
  const int32_t rows[4] = {6, 12, 17, 18};
  std::vector<double> W(32 * 8, 0.0), b(32, 0.0);
  for (int v = 0; v < 16; ++v) {
    b[2 * v] = 40 + 3 * std::cos(2 * M_PI * v / 16);
    b[2 * v + 1] = 3 * std::sin(2 * M_PI * v / 16);
  }
  lc.attachMap(W.data(), b.data(), 32, 8, rows, 4);
  kp = lipFrame(-0.4f, 0.3f, 0.15f, 0.06f);
  sy = sx = 1000;
  EXPECT_FALSE(lc.deliveredU8AndShift(kp.data(), pi, canon, mask.data(), sy, sx));
  EXPECT_NE(sy, 1000);  // the shift is measured on the unbounded pi
  for (uint8_t v : mask) ASSERT_EQ(v, 0);
  std::fill(mask.begin(), mask.end(), 9);
  EXPECT_FALSE(lc.shrinkU8InPlace(kp.data(), pi.supportBox(kp.data()), mask.data()));
  const Box s = pi.supportBox(kp.data());
  EXPECT_EQ(mask[size_t(s.y0) * n + s.x0], 0);
  EXPECT_EQ(mask[size_t(s.y1) * n + s.x1], 9);  // outside the given box nothing changes

  const UnifiedPi other(n + 1, false, 1.f, kPiLips, 0.1f, 0.08f, 0.074f);
  EXPECT_EQ(thrown([&] { lc.deliveredU8(kp.data(), other, mask.data()); }),
            "lip contour: the pi model's canvas is 97 and the contour's is 96");
}

TEST(LipContour, TemplateReader) {
  const std::string u4 = "\"u_canon\": [[-1, 0], [0, -1], [1, 0], [0, 1]]";
  auto tmpl = [&](const std::string& body) {
    return "{\"format\": \"lip-template-v1\", \"canvas\": 64, \"feather_px\": 2.5, " + body + "}";
  };
  const LipContour plain = LipContour::fromTemplateJson(tmpl(u4 + ", \"edge\": 7"), 64);
  EXPECT_EQ(plain.lipIdx(), (std::vector<int32_t>{17, 18, 19, 20}));
  EXPECT_EQ(plain.nv(), 4);
  EXPECT_EQ(plain.featherPx(), 2.5f);
  EXPECT_FALSE(plain.hasMap());
  EXPECT_EQ(LipContour::fromTemplateJson(tmpl(u4 + ", \"lip_idx\": [6.7, 12, -0.5]"), 64).lipIdx(),
            (std::vector<int32_t>{6, 12, 0}));
  const std::string W8 = "[1, 0], [0, 1], [1, 0], [0, 1], [1, 0], [0, 1], [1, 0], [0, 1]";
  const std::string map = "\"lip_map\": {\"schema\": \"lip-map-v1\", \"kind\": \"anchor-linear\", \"lip_idx\": [19], "
                          "\"W\": [" + W8 + "], \"b\": [0, 0, 0, 0, 0, 0, 0, 0], \"canvas\": 64}";
  const LipContour mapped = LipContour::fromTemplateJson(tmpl(u4 + ", \"lip_idx\": [1, 2, 3, 4, 5, 6, 7, 8, 9], " + map), 64);
  EXPECT_TRUE(mapped.hasMap());
  EXPECT_EQ(mapped.lipIdx(), std::vector<int32_t>{19});

  auto refusal = [&](const std::string& text) {
    return thrown([&] { LipContour::fromTemplateJson(text, 64); }).substr(std::string("lip_template.v1.json: ").size());
  };
  auto mapRefusal = [&](const std::string& body) {
    return refusal(tmpl(u4 + ", \"lip_map\": {\"schema\": \"lip-map-v1\", \"kind\": \"anchor-linear\", " + body + "}"));
  };
  const std::string b8 = "\"b\": [0, 0, 0, 0, 0, 0, 0, 0]";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"{\"format\": \"lip-templ", "is not parseable JSON (teeth: JSON truncated)"},
      {"[1]", "is not a JSON object"},
      {"{\"format\": 1}", "carries no string `format`"},
      {"{\"format\": \"lip-template-v2\"}", "declares format 'lip-template-v2', not 'lip-template-v1' — this runtime cannot read it"},
      {tmpl(u4 + ", \"edge\": \"inward\""),
       "declares edge 'inward', and the contour feather is OUTWARD — refusing to serve a mask this runtime does not compute"},
      {"{\"format\": \"lip-template-v1\", \"canvas\": \"64\"}", "carries no numeric `canvas`"},
      {"{\"format\": \"lip-template-v1\", \"canvas\": 512.9}",
       "was baked on a 512 canvas but this bundle composes on 64 — refusing to deform a polygon onto a canvas it does not name"},
      {"{\"format\": \"lip-template-v1\", \"canvas\": 64}", "carries no numeric `feather_px`"},
      {"{\"format\": \"lip-template-v1\", \"canvas\": 64, \"feather_px\": 0}", "declares feather_px 0.000000, which is not positive"},
      {tmpl("\"u_canon\": []"), "carries no non-empty `u_canon` array"},
      {tmpl("\"u_canon\": [[1, 2], [3]]"), "u_canon row 1 is not a 2-vector — this is not an nv x 2 template"},
      {tmpl(u4 + ", \"lip_idx\": {}"), "carries a `lip_idx` that is not a non-empty array"},
      {tmpl(u4 + ", \"lip_idx\": [20.5, 21]"), "lip_idx names keypoint row 21, and a kd row is 0..20"},
      {tmpl(u4 + ", \"lip_idx\": [1, 2, 3, 4, 5, 6, 7, 8, 9]"),
       "carries a `lip_idx` of 9 rows, and the deformation holds at most 8 — give it a lip_map or fewer rows"},
      {tmpl(u4 + ", \"lip_map\": [1]"), "lip_map is not a JSON object"},
      {tmpl(u4 + ", \"lip_map\": {\"kind\": \"anchor-linear\"}"),
       "lip_map declares schema '', not 'lip-map-v1' — this runtime cannot evaluate it"},
      {tmpl(u4 + ", \"lip_map\": {\"schema\": \"lip-map-v1\", \"kind\": \"mlp\"}"), "lip_map kind is not 'anchor-linear'"},
      {"\"lip_idx\": [1, 2, 3, 4, 5, 6, 7, 8, 9]", "lip_map lip_idx is not 1..8 kd rows"},
      {"\"lip_idx\": [3.5]", "lip_map lip_idx names a row outside 0..20"},
      {"\"lip_idx\": [1], \"W\": []", "lip_map carries no W/b arrays"},
      {"\"lip_idx\": [1], \"W\": [[1, 0]], " + b8, "lip_map W/b have 1/8 rows, not 2*nv=8"},
      {"\"lip_idx\": [1, 2], \"W\": [" + W8 + "], " + b8, "lip_map W row 0 is not 4 wide"},
      {"\"lip_idx\": [1], \"W\": [" + W8 + "], \"b\": [0, 0, 0, 0, 0, 0, 0, nan]", "lip_map carries a non-finite coefficient"},
      {"\"lip_idx\": [1], \"W\": [" + W8 + "], " + b8 + ", \"canvas\": 128",
       "lip_map was fitted on another canvas than this bundle composes on"},
  };
  for (const auto& [text, want] : cases) {
    const bool isMap = text.rfind("\"lip_idx\"", 0) == 0;
    EXPECT_EQ(isMap ? mapRefusal(text) : refusal(text), want) << text;
  }
}
