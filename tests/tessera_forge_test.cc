// Forged borrow members end to end: the loader arms on them, the bank decodes back to the
// donors that were drawn (and a lossy track decodes), the head weights are read back in
// PyTorch's format.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_bundle.h"
#include "le/tessera/le_bundle_tessera.h"
#include "le/tessera/le_tessera.h"
#include "le/tessera/le_tessera_pt.h"
#include "tests/bundle_fixture.h"
#include "tools/forge/forge_tessera.h"

namespace {

using le::testing::ScratchDir;

le::forge::Params small() {
  le::forge::Params p = le::forge::sized(4, 160, 120, 96, 2);
  p.tessera = true;
  p.tesseraDonors = 24;
  return p;
}

TEST(TesseraForge, MembersLoadDecodeAndReadBack) {
  ScratchDir d("tessera_forge");
  const le::forge::Params p = small();
  le::forge::forgeBundle(d.path(), p);
  const le::tessera::GeometryStamp stamp = le::forge::tesseraStamp(p);
  EXPECT_NO_THROW(stamp.validate());

  // the lossless track decodes to exactly the donors that were drawn, in donor order
  const le::TesseraAttachInputs in = le::loadTesseraMembers(d.path());
  EXPECT_EQ(in.stamp, stamp);
  EXPECT_EQ(in.n_donors, 24);
  EXPECT_EQ(in.bank_pix_fmt, "gbrp");
  EXPECT_FALSE(std::is_sorted(in.track_order.begin(), in.track_order.end()));
  const std::string track = le::readFile(in.bank_track_path);
  const std::vector<uint8_t> bank = le::tessera::decodeBankTrack(reinterpret_cast<const uint8_t*>(track.data()),
                                                                 track.size(), in.n_donors, in.band_h, in.band_w,
                                                                 in.track_order);
  EXPECT_EQ(bank, le::forge::tesseraDonors(p));

  // cent lies inside the stored band on the canvas, and c_canon is their mean
  double mx = 0, my = 0;
  for (int i = 0; i < in.n_donors; ++i) {
    mx += in.cent[2 * i] / in.n_donors, my += in.cent[2 * i + 1] / in.n_donors;
    EXPECT_GE(in.cent[2 * i], stamp.window_x0 + stamp.band_c0 - stamp.shift_margin);
    EXPECT_LT(in.cent[2 * i + 1], stamp.window_y0 + stamp.band_r1 + stamp.shift_margin);
  }
  EXPECT_NEAR(in.c_canon[0], mx, 1e-9);
  EXPECT_NEAR(in.c_canon[1], my, 1e-9);
  const auto [amin, amax] = std::minmax_element(in.aperture.begin(), in.aperture.end());
  EXPECT_GT(*amax, *amin + 1.0);  // many mouth openings

  // the weights read back as written, and the candidate branch's logit falls with the difference
  const le::tessera::HeadWeights w = le::tessera::loadHeadPt(in.head_pt);
  EXPECT_EQ(w.params(), 4082u);
  const auto written = le::forge::headTensors(true);
  for (size_t i = 0; i < 10; ++i) EXPECT_EQ(w.t[i], written[i].values) << written[i].name;
  EXPECT_EQ(w.cand0W()[6 * 9 + 4], 1.0f);
  EXPECT_LT(w.cand4W()[4], 0.0f);
  EXPECT_NO_THROW(le::tessera::ServeConfig::fromHeadMemberJson(in.head_json));

  // without the synthesis branch, as a plain dict: the same reader accepts it
  const auto cand = le::forge::headTensors(false);
  EXPECT_EQ(le::tessera::loadHeadPt(le::forge::torchStateDict("x", cand, false)).params(), 3489u);

  // a lossy 4:2:0 track loads and decodes; its sidecar says so (the refusals of the forge's
  // other broken members are checked on their readers)
  le::forge::Params lossy = p;
  lossy.breaks = {le::forge::Break::BankYuv420};
  lossy.replace = true;
  le::forge::forgeBundle(d.path(), lossy);
  const le::TesseraAttachInputs yuv = le::loadTesseraMembers(d.path());
  EXPECT_EQ(yuv.bank_pix_fmt, "yuv420p");
  const std::string t = le::readFile(yuv.bank_track_path);
  EXPECT_EQ(le::tessera::decodeBankTrack(reinterpret_cast<const uint8_t*>(t.data()), t.size(), yuv.n_donors,
                                         yuv.band_h, yuv.band_w, yuv.track_order).size(),
            bank.size());
}

}  // namespace
