// ctest-label: threaded
// What only the forge decides: the same parameters give the same bytes, the idle track agrees
// with the keypoint functions, the pictures agree with their geometry, and its own refusals.
// (The engine's readers over forged bundles are the bundle, driver and flat-interface tests.)
#include "tools/forge/forge.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "tests/bundle_fixture.h"
#include "tests/support/media.h"
#include "tools/forge/forge_movie.h"

using namespace le::forge;

namespace {

std::string scratch(const std::string& name) {
  static const le::testing::ScratchDir root("forge");
  return root / name;
}

Params small() { return le::forge::sized(5, 96, 64, 48, 9); }

}  // namespace

TEST(Forge, SameParametersSameBytesAndTheIdleTrack) {
  Params p = small();
  p.drive = DriveMedia::Both;
  p.prior = Prior::Hevc;
  const std::string a = scratch("same_a"), b = scratch("same_b");
  const Result ra = forgeBundle(a, p);
  const Result rb = forgeBundle(b, p);
  ASSERT_EQ(ra.members, rb.members);
  for (const std::string& m : ra.members)
    EXPECT_EQ(le::testmedia::readBytes(a + "/" + m), le::testmedia::readBytes(b + "/" + m)) << m;

  // The idle track's rows are the keypoint functions' (its walk is checked by the engine).
  const auto si = le::testing::readTable<int32_t>(a + "/drive/si.i32");
  const auto xs = le::testing::readTable<float>(a + "/drive/xs.f32");
  const auto xd = le::testing::readTable<float>(a + "/drive/xd.f32");
  for (int i = 0; i < p.frames; ++i) {
    EXPECT_EQ(std::vector<float>(&xs[63 * i], &xs[63 * i + 63]), keypoints(p, si[i])) << i;
    EXPECT_EQ(std::vector<float>(&xd[63 * i], &xd[63 * i + 63]), drivenKeypoints(p, i)) << i;
  }
  EXPECT_NE(keypoints(p, si[1]), drivenKeypoints(p, 1));

  // Another seed draws another picture.
  p.seed = 2;
  EXPECT_NE(cropImage(p, 0), cropImage(small(), 0));
}

TEST(Forge, PicturesAgreeWithGeometry) {
  const Params p = sized(8, 320, 240, 160, 9);
  const int n = p.crop;
  for (int si : {0, 5}) {
    const auto crop = cropImage(p, si);
    const auto frame = driveFrame(p, si);
    const auto M = pasteTransform(p, si);
    // The crop is what M places into the drive frame.
    double diff = 0;
    int count = 0;
    for (int v = n / 4; v < 3 * n / 4; v += 3)
      for (int u = n / 4; u < 3 * n / 4; u += 3) {
        const int X = static_cast<int>(std::lround(M[0] * u + M[1] * v + M[2]));
        const int Y = static_cast<int>(std::lround(M[3] * u + M[4] * v + M[5]));
        ASSERT_TRUE(X >= 0 && X < p.width && Y >= 0 && Y < p.height);
        for (int k = 0; k < 3; ++k)
          diff += std::abs(int(crop[(v * n + u) * 3 + k]) - int(frame[(Y * p.width + X) * 3 + k]));
        count += 3;
      }
    EXPECT_LT(diff / count, 12.0) << si;

    // The keypoints sit on the drawn face: the lips are red between the lip rows.
    const auto kp = keypoints(p, si);
    for (auto [a, b] : {std::pair{6, 19}, std::pair{12, 20}}) {
      const float x = 0.5f * (kp[3 * a] + kp[3 * b]), y = 0.5f * (kp[3 * a + 1] + kp[3 * b + 1]);
      const int u = static_cast<int>(std::lround((x + 1) * 0.5f * (n - 1)));
      const int v = static_cast<int>(std::lround((y + 1) * 0.5f * (n - 1)));
      const uint8_t* c = &crop[(static_cast<size_t>(v) * n + u) * 3];
      EXPECT_GT(int(c[0]), int(c[1]) + 60) << "lip between rows " << a << " and " << b << " at frame " << si;
    }
  }
  // The sway moves the face from frame to frame.
  EXPECT_NE(pasteTransform(p, 0)[2], pasteTransform(p, 5)[2]);
}

// (The refusal of a directory that is not empty is the command line's test.)
TEST(Forge, RefusesBadGeometryAndMovieSizes) {
  Params p = small();
  p.crop = 1;
  EXPECT_THROW(forgeBundle(scratch("bad_geom"), p), std::runtime_error);
  p = small();
  p.width = 95;
  p.drive = DriveMedia::Movie;
  EXPECT_NE(le::testing::thrown([&] { forgeBundle(scratch("odd_movie"), p); }).find("needs an even size, got 95x64"),
            std::string::npos);
  MovieSpec spec;
  spec.encoder = "no-such-encoder";
  spec.width = spec.height = 16;
  EXPECT_THROW(MovieWriter(scratch("x.mp4"), spec), std::runtime_error);
}
