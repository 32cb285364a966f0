// ctest-label: threaded
// The teeth pass on a forged bundle: crops rendered by the forged director with the mouth opened
// by the driving keypoints, the delivery mask and shift of the bundle's pi model, and the bank
// and head the forge wrote.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_bundle.h"
#include "le/render/le_renderer.h"
#include "le/tessera/le_tessera.h"
#include "le/tessera/le_tessera_pi.h"
#include "tests/bundle_fixture.h"
#include "tests/support/media.h"
#include "tools/forge/director_members.h"
#include "tools/forge/forge.h"

namespace {

// The forge's measure of a mouth's opening: mean height, over the columns that have any, of the
// interior (dark opening or teeth) inside the rectangle (x0, y0, w, h) of a crop.
double opening(const uint8_t* rgb, int crop, int x0, int y0, int w, int h) {
  double count = 0;
  int cols = 0;
  for (int x = 0; x < w; ++x) {
    bool any = false;
    for (int y = 0; y < h; ++y) {
      const uint8_t* px = rgb + (size_t(y0 + y) * crop + x0 + x) * 3;
      const int hi = std::max({px[0], px[1], px[2]}), lo = std::min({px[0], px[1], px[2]});
      if (hi < 120 || (lo > 190 && hi - lo < 50)) count += 1, any = true;
    }
    cols += any;
  }
  return cols ? count / cols : 0.0;
}

TEST(TesseraBorrow, ForgedMouthsGetTeethFromMatchingDonors) {
  le::testing::ScratchDir dir("tessera_borrow");
  le::forge::Params p = le::forge::sized(2, 192, 160, 128, 6);
  p.lips = le::forge::Lips::Unified;
  p.tessera = true;
  p.tesseraDonors = 96;
  le::forge::DirectorMemberOptions o;
  o.heavy = false, o.featSynth = false, o.steadyBatch = 0;
  for (auto& m : le::forge::directorMembers(p, o)) p.extraMembers.push_back(std::move(m));
  le::forge::forgeBundle(dir.path(), p);

  const le::TesseraAttachInputs in = le::loadTesseraMembers(dir.path());
  const le::tessera::BankData bank = in.bankData();
  const le::tessera::HeadWeights head = le::tessera::loadHeadPt(in.head_pt);
  const le::tessera::ServeConfig cfg = le::tessera::ServeConfig::fromHeadMemberJson(in.head_json);
  le::tessera::TeethPass pass(bank, head, cfg);
  const le::tessera::UnifiedPi pi = le::tessera::UnifiedPi::fromManifestJson(in.manifest_json, p.crop);

  const le::Manifest man = le::loadManifest(dir.path());
  const le::Identity id(man);
  le::Renderer ren(man, id, "b1", 1, "");

  // Frame 0 is the director's crop as rendered; frames 1..3 the same crop with the mouth
  // repainted by the forge's face painter, opened wider and wider.
  const int c = p.crop;
  const le::tessera::GeometryStamp& s = in.stamp;
  const int px0 = s.window_x0 + s.band_c0 - s.shift_margin, py0 = s.window_y0 + s.band_r0 - s.shift_margin;
  const float opens[] = {-1.0f, 0.15f, 0.55f, 0.95f};
  const int n = 4;
  const int32_t si = 0;
  const std::vector<float> ks = le::forge::keypoints(p, si);
  const float* out = ren.render(&si, ks.data(), ks.data(), 1);
  std::vector<std::vector<uint8_t>> crops, masks;
  std::vector<le::tessera::FrameResult> results;
  std::vector<double> measured, borrowed;
  for (int f = 0; f < n; ++f) {
    std::vector<uint8_t> rgb(size_t(c) * c * 3), mask(size_t(c) * c);
    for (int i = 0; i < c * c; ++i)
      for (int k = 0; k < 3; ++k) rgb[size_t(i) * 3 + k] = le::tessera::piByte(out[size_t(k) * c * c + i]);
    if (opens[f] >= 0) {
      const auto patch = le::forge::mouthPatch(p, si, opens[f], px0, py0, s.bandW(), s.bandH());
      for (int y = 0; y < s.bandH(); ++y)
        std::copy_n(patch.data() + size_t(y) * s.bandW() * 3, s.bandW() * 3, rgb.data() + (size_t(py0 + y) * c + px0) * 3);
    }
    measured.push_back(opening(rgb.data(), c, px0, py0, s.bandW(), s.bandH()));
    le::tessera::Shift sh;
    ASSERT_TRUE(pi.piU8AndShift(ks.data(), in.c_canon.data(), mask.data(), sh.dy, sh.dx));
    // which openings a fresh pass borrows for this mouth
    le::tessera::TeethPass probe(bank, head, cfg);
    double ap = 0;
    for (int32_t d : probe.retrieve(rgb.data(), mask.data(), sh.dy, sh.dx)) ap += in.aperture[d] / cfg.K;
    borrowed.push_back(ap);
    le::tessera::FrameResult r;
    if (pass.push(f, rgb.data(), mask.data(), &sh, r)) results.push_back(r);
    crops.push_back(rgb);
    masks.push_back(mask);
  }
  le::tessera::FrameResult last;
  ASSERT_TRUE(pass.flush(last));
  results.push_back(last);
  ASSERT_EQ(results.size(), size_t(n));

  double spread = 0;
  for (double a : in.aperture) spread = std::max(spread, a);
  for (int f = 0; f < n; ++f) {
    const le::tessera::FrameResult& r = results[f];
    ASSERT_FALSE(r.skip) << r.reason;
    EXPECT_EQ(r.candidates, cfg.K);
    std::vector<uint8_t> after = crops[f];
    for (int y = 0; y < s.window_h; ++y)
      std::copy_n(r.window.data() + size_t(y) * s.window_w * 3, s.window_w * 3,
                  after.data() + (size_t(s.window_y0 + y) * c + s.window_x0) * 3);
    const double opened = opening(after.data(), c, px0, py0, s.bandW(), s.bandH());
    // the donors open as far as the mouth does; on the director's own crop, whose keypoints
    // place the delivery mask on its mouth, the borrowed mouth stays as open
    EXPECT_NEAR(borrowed[f], measured[f], 0.15 * spread) << f;
    if (f == 0) {
      EXPECT_NEAR(opened, measured[f], 0.15 * spread);
    }
    // where the delivery mask is zero the crop is kept
    for (int y = 0; y < s.window_h; ++y)
      for (int x = 0; x < s.window_w; ++x)
        if (masks[f][size_t(s.window_y0 + y) * c + s.window_x0 + x] == 0) {
          ASSERT_TRUE(std::equal(r.window.begin() + (size_t(y) * s.window_w + x) * 3,
                                 r.window.begin() + (size_t(y) * s.window_w + x) * 3 + 3,
                                 crops[f].begin() + (size_t(s.window_y0 + y) * c + s.window_x0 + x) * 3));
        }
  }
  EXPECT_LT(borrowed[1], borrowed[2]);
  EXPECT_LT(borrowed[2], borrowed[3]);
}

}  // namespace
