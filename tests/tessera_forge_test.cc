// Forged borrow members end to end: the loader arms on them, the bank decodes back to the
// donors that were drawn, the head weights are read back in PyTorch's format, and every forged
// fault is refused with its message.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_bundle.h"
#include "le/tessera/le_bundle_tessera.h"
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

std::string openError(const std::string& dir) {
  char err[1024];
  le_tessera_members* m = le_tessera_members_open(dir.c_str(), err, sizeof err);
  le_tessera_members_close(m);
  return m ? "" : err;
}

TEST(TesseraForge, MembersLoadDecodeAndReadBack) {
  ScratchDir d("tessera_forge");
  const le::forge::Params p = small();
  le::forge::forgeBundle(d.path(), p);
  char err[1024];
  le_tessera_members* m = le_tessera_members_open(d.path().c_str(), err, sizeof err);
  ASSERT_NE(m, nullptr) << err;
  const le::tessera::GeometryStamp stamp = le::forge::tesseraStamp(p);
  EXPECT_NO_THROW(stamp.validate());
  EXPECT_EQ(le_tessera_members_stamp(m)[0], p.crop);
  EXPECT_EQ(le_tessera_members_n_donors(m), 24);
  EXPECT_STREQ(le_tessera_members_bank_pix_fmt(m), "gbrp");

  // the lossless track decodes to exactly the donors that were drawn, in donor order
  const le::TesseraAttachInputs in = le::loadTesseraMembers(d.path());
  EXPECT_FALSE(std::is_sorted(in.track_order.begin(), in.track_order.end()));
  const std::string track = le::readFile(in.bank_track_path);
  const std::vector<uint8_t> bank = le::tessera::decodeBankTrack(reinterpret_cast<const uint8_t*>(track.data()),
                                                                 track.size(), in.n_donors, in.band_h, in.band_w,
                                                                 in.track_order);
  EXPECT_EQ(bank, le::forge::tesseraDonors(p));
  EXPECT_EQ(bank.size(), le_tessera_members_band_bytes(m));

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
  EXPECT_NE(std::string(le_tessera_members_head_json(m)).find("\"retrieval\""), std::string::npos);
  le_tessera_members_close(m);

  // without the synthesis branch, as a plain dict: the same reader accepts it
  const auto cand = le::forge::headTensors(false);
  EXPECT_EQ(le::tessera::loadHeadPt(le::forge::torchStateDict("x", cand, false)).params(), 3489u);
}

TEST(TesseraForge, BrokenMembersAreRefused) {
  using le::forge::Break;
  ScratchDir d("tessera_forge_broken");
  const auto broken = [&](Break b) {
    le::forge::Params p = small();
    p.breaks = {b};
    p.replace = true;
    le::forge::forgeBundle(d.path(), p);
    return openError(d.path());
  };
  EXPECT_EQ(broken(Break::NoHeadConfig).rfind("missing teeth member(s): head_config (tessera_head.v1.json) — carries 3 "
                                              "of 4 and declares a manifest.tessera block",
                                              0),
            0u);
  EXPECT_EQ(broken(Break::BankOrderRepeats).rfind("tessera_bank.v1.json track_order is not a permutation", 0), 0u);
  EXPECT_EQ(broken(Break::BankOverCap).rfind("tessera_bank.v1.json carries n_donors=1025, over the owner's cap", 0), 0u);
  EXPECT_EQ(broken(Break::BankGeometryDisagrees)
                .rfind("teeth geometry DISAGREES between the manifest and the bank sidecar — manifest {canvas_w=96", 0),
            0u);

  // members that load but fail where they are used
  const auto used = [&](Break b) {
    le::forge::Params p = small();
    p.breaks = {b};
    p.replace = true;
    le::forge::forgeBundle(d.path(), p);
    const le::TesseraAttachInputs in = le::loadTesseraMembers(d.path());
    return le::testing::thrown([&] {
      const std::string t = le::readFile(in.bank_track_path);
      le::tessera::decodeBankTrack(reinterpret_cast<const uint8_t*>(t.data()), t.size(), in.n_donors, in.band_h,
                                   in.band_w, in.track_order);
      le::tessera::loadHeadPt(in.head_pt);
    });
  };
  EXPECT_EQ(used(Break::BankOneFrameShort),
            "bank track decoded to 23 frames, expected 24 — geometry/N mismatch, refusing to serve");
  EXPECT_NE(used(Break::BankWrongSize).find(", the geometry stamp says "), std::string::npos);
  EXPECT_EQ(used(Break::HeadDeflated),
            "teeth: head .pt entry is DEFLATEd; torch writes ZIP_STORED — refusing to guess at a compressed member");
  EXPECT_EQ(used(Break::HeadWrongShape),
            "teeth: head 'cand.0.weight' has shape [16,6,3,3,] — not the BlendHead(16) arch");
  EXPECT_EQ(used(Break::BankYuv420), "");  // lossy chroma decodes; the sidecar says so
  EXPECT_STREQ(le::loadTesseraMembers(d.path()).bank_pix_fmt.c_str(), "yuv420p");
}

}  // namespace
