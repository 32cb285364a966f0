// ctest-label: threaded
// The forge: member layout, spellings, breaks, determinism, and pictures that agree with
// their geometry (checked through real decoders).
#include "tools/forge/forge.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "le/le_bundle.h"
#include "le/le_capi.h"
#include "le/le_driver.h"
#include "le/le_simd.h"
#include "tests/bundle_fixture.h"
#include "tests/support/media.h"
#include "tools/forge/forge_movie.h"

namespace fs = std::filesystem;
using namespace le::forge;

namespace {

std::string scratch(const std::string& name) {
  static const le::testing::ScratchDir root("forge");
  return root / name;
}

std::vector<uint8_t> slurp(const std::string& path) { return le::testmedia::readBytes(path); }
std::string text(const std::string& path) { return le::readFile(path); }

Params small() { return le::forge::sized(5, 96, 64, 48, 9); }

double meanAbsDiff(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  if (a.size() != b.size() || a.empty()) return 1e9;
  double s = 0;
  for (size_t i = 0; i < a.size(); ++i) s += std::abs(int(a[i]) - int(b[i]));
  return s / a.size();
}

}  // namespace

// Member sizes, stills and manifest values are checked by the engine's own readers below
// (EngineReadsWhatTheForgeWrites); here, what only the forge decides.
TEST(Forge, CanonicalBundleHasEveryMemberAtItsSize) {
  Params p = small();
  p.drive = DriveMedia::Both;
  p.fsRed = true;
  const std::string dir = scratch("canonical");
  forgeBundle(dir, p);
  EXPECT_FALSE(fs::exists(dir + "/target_frames/frame_000005.jpg"));

  // the idle track's rows agree with the keypoint functions (its walk is checked by the engine below)
  const auto si = le::testing::readTable<int32_t>(dir + "/drive/si.i32");
  const auto xs = le::testing::readTable<float>(dir + "/drive/xs.f32");
  const auto xd = le::testing::readTable<float>(dir + "/drive/xd.f32");
  const auto xt = le::testing::readTable<float>(dir + "/xs_target.bin");
  for (int i = 0; i < p.frames; ++i) {
    EXPECT_EQ(std::memcmp(&xs[63 * i], &xt[63 * si[i]], 252), 0) << i;
    EXPECT_EQ(std::memcmp(&xd[63 * i], drivenKeypoints(p, i).data(), 252), 0) << i;
  }
  EXPECT_NE(std::memcmp(&xs[63], &xd[63], 252), 0) << "driven and source keypoints should differ";

  // another call with the same directory refuses unless asked to replace
  EXPECT_EQ(le::testing::thrown([&] { forgeBundle(dir, p); }), "forge: " + dir + " exists and is not empty");
  p.replace = true;
  p.drive = DriveMedia::Stills;
  p.fsRed = false;
  forgeBundle(dir, p);
  EXPECT_FALSE(fs::exists(dir + "/fs_red.f16"));
  EXPECT_FALSE(fs::exists(dir + "/target_frames.mp4"));
}

TEST(Forge, SameParametersSameBytes) {
  Params p = small();
  p.drive = DriveMedia::Both;
  p.prior = Prior::Hevc;
  const std::string a = scratch("same_a"), b = scratch("same_b");
  const Result ra = forgeBundle(a, p);
  const Result rb = forgeBundle(b, p);
  ASSERT_EQ(ra.members, rb.members);
  for (const std::string& m : ra.members) EXPECT_EQ(slurp(a + "/" + m), slurp(b + "/" + m)) << m;
  // and another seed draws another picture
  p.seed = 2;
  EXPECT_NE(cropImage(p, 0), cropImage(small(), 0));
}

TEST(Forge, PicturesAgreeWithGeometry) {
  const Params p = sized(8, 320, 240, 160, 9);
  const int n = p.crop;
  for (int si : {0, 2, 5}) {
    const auto crop = cropImage(p, si);
    const auto frame = driveFrame(p, si);
    const auto M = pasteTransform(p, si);
    // the crop is what M places into the drive frame
    double diff = 0;
    int count = 0;
    for (int v = n / 4; v < 3 * n / 4; v += 3)
      for (int u = n / 4; u < 3 * n / 4; u += 3) {
        const int X = static_cast<int>(std::lround(M[0] * u + M[1] * v + M[2]));
        const int Y = static_cast<int>(std::lround(M[3] * u + M[4] * v + M[5]));
        ASSERT_TRUE(X >= 0 && X < p.width && Y >= 0 && Y < p.height);
        for (int k = 0; k < 3; ++k) diff += std::abs(int(crop[(v * n + u) * 3 + k]) - int(frame[(Y * p.width + X) * 3 + k]));
        count += 3;
      }
    EXPECT_LT(diff / count, 12.0) << si;

    // keypoints sit on the drawn face: lips are red between the lip rows, eyes light, all inside [-1, 1]
    const auto kp = keypoints(p, si);
    ASSERT_EQ(kp.size(), 63u);
    for (int k = 0; k < 21; ++k) {
      EXPECT_LE(std::fabs(kp[3 * k]), 1.0f) << k;
      EXPECT_LE(std::fabs(kp[3 * k + 1]), 1.0f) << k;
    }
    auto at = [&](float x, float y) {
      const int u = static_cast<int>(std::lround((x + 1) * 0.5f * (n - 1)));
      const int v = static_cast<int>(std::lround((y + 1) * 0.5f * (n - 1)));
      return &crop[(static_cast<size_t>(v) * n + u) * 3];
    };
    auto mid = [&](int a, int b) { return at(0.5f * (kp[3 * a] + kp[3 * b]), 0.5f * (kp[3 * a + 1] + kp[3 * b + 1])); };
    for (auto [a, b] : {std::pair{6, 19}, std::pair{12, 20}}) {
      const uint8_t* c = mid(a, b);
      EXPECT_GT(int(c[0]), int(c[1]) + 60) << "lip between rows " << a << " and " << b << " at frame " << si;
    }
    EXPECT_GT(kp[3 * 18] - kp[3 * 17], 0.3f);                 // mouth corners apart
    EXPECT_LT(kp[3 * 19 + 1], kp[3 * 20 + 1]);                // upper inner lip above the lower
    EXPECT_LT(kp[3 * 6 + 1], kp[3 * 14 + 1]);
    EXPECT_GT(kp[3 * 12 + 1], kp[3 * 14 + 1]);
    const uint8_t* eye = at(0.8f * kp[3 * 3] + 0.2f * kp[3 * 4], 0.8f * kp[3 * 3 + 1] + 0.2f * kp[3 * 4 + 1]);
    EXPECT_GT(int(eye[0]) + eye[1] + eye[2], 3 * 150) << "left eye white at frame " << si;
  }
  // the sway moves M and the face from frame to frame
  EXPECT_NE(pasteTransform(p, 0)[2], pasteTransform(p, 2)[2]);
  EXPECT_NE(keypoints(p, 0), keypoints(p, 2));

  // a soft face ellipse: opaque in the middle, clear in the corners, graded in between
  const auto mask = pasteMask(p);
  ASSERT_EQ(mask.size(), static_cast<size_t>(n) * n);
  EXPECT_EQ(mask[(n / 2) * n + n / 2], 255);
  EXPECT_EQ(mask[0], 0);
  EXPECT_EQ(mask[n * n - 1], 0);
  int soft = 0;
  for (int u = 0; u < n; ++u) soft += mask[(n / 2) * n + u] > 0 && mask[(n / 2) * n + u] < 255;
  EXPECT_GE(soft, 4);
}

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

// The engine's own readers over forged bundles: the manifest loads with the forged values in
// every spelling, the drive cursor delivers the forged pictures (the identity test reads the
// video prior's rows), and the breaks meet the engine's refusals (those a session creation
// meets are checked by the flat-interface test).
TEST(Forge, EngineReadsWhatTheForgeWrites) {
  Params p = small();
  p.drive = DriveMedia::Both;
  p.prior = Prior::Hevc;
  const std::string dir = scratch("engine");
  forgeBundle(dir, p);
  EXPECT_NE(text(dir + "/manifest.json").find("\"P_hevc\": \"P_hevc.mov\""), std::string::npos);
  const le::Manifest m = le::loadManifest(dir);
  const le::Identity id(m);  // maps and reads every table at its exact size
  EXPECT_EQ(le::loadDrive(m).si, (std::vector<int32_t>{0, 1, 2, 3, 4, 3, 2, 1, 0}));
  EXPECT_EQ(le::readPasteMask(m).size(), static_cast<size_t>(p.crop) * p.crop);
  EXPECT_EQ(m.dir, dir);
  EXPECT_EQ(m.agent, "forge-face");
  EXPECT_EQ(std::vector<int>({m.NT, m.W, m.H, m.crop, m.frames, m.M_src_w, m.M_src_h, m.unsharp.ksize}),
            std::vector<int>({p.nt, p.width, p.height, p.crop, p.frames, p.width, p.height, p.ksize}));
  EXPECT_EQ(std::make_pair(m.unsharp.amount, m.unsharp.sigma), std::make_pair(p.amount, p.sigma));

  {
    // stills win over the movie; frames are the forged ones, through JPEG
    auto drive = le::DriverCursor::open(m, 2, 4);
    std::vector<uint8_t> rgb(static_cast<size_t>(p.width) * p.height * 3);
    for (int si : {0, 3, 1}) {
      ASSERT_EQ(drive->pullAt(si, rgb.data()), si);
      EXPECT_LT(meanAbsDiff(rgb, driveFrame(p, si)), 3.0) << si;
    }
    // the movie is h264 4:2:0 with the declared frame count (the source refuses anything else)
    auto movie = le::driver::openMp4(dir + "/target_frames.mp4", p.nt, p.width, p.height);
    EXPECT_EQ(movie->name().substr(movie->name().size() - 5), " h264");
    for (int si = 0; si < p.nt; ++si) {
      ASSERT_TRUE(movie->next(rgb.data())) << si;
      EXPECT_LT(meanAbsDiff(rgb, driveFrame(p, si)), 4.0) << si;
    }
    EXPECT_FALSE(movie->next(rgb.data()));
  }

  // other spellings, the same values; a stamp of another canvas is read as written
  p.frameCountKey = p.cropSizeKey = p.longStampKeys = true;
  p.stamp = Stamp::Other;
  p.alternativeNames = true;
  p.replace = true;
  p.drive = DriveMedia::Stills;
  forgeBundle(dir, p);
  const le::Manifest alt = le::loadManifest(dir);
  EXPECT_EQ(alt.NT, p.nt);
  EXPECT_EQ(alt.crop, p.crop);
  EXPECT_EQ(alt.M_src_w, p.width / 2);
  EXPECT_EQ(alt.M_src_h, p.height);
  EXPECT_EQ(le::resolveMember(dir, "P_hevc.mov"), dir + "/source_frames.hevc");
  EXPECT_EQ(le::resolveMember(dir, "drive/si.i32"), dir + "/idle_loop/source_index.i32");

  auto refusal = [&](std::vector<Break> breaks, DriveMedia media) -> std::string {
    Params b = small();
    b.breaks = std::move(breaks);
    b.drive = media;
    b.replace = true;
    forgeBundle(dir, b);
    return le::testing::thrown([&] {
      const le::Manifest bm = le::loadManifest(dir);
      auto c = le::DriverCursor::open(bm, 2, 4);
      std::vector<uint8_t> rgb(static_cast<size_t>(b.width) * b.height * 3);
      for (int i = 0; i < b.nt; ++i) c->pullAt(i, rgb.data());
    });
  };
  EXPECT_NE(refusal({Break::ManifestDuplicateW}, DriveMedia::Stills).find("manifest: key \"W\" is AMBIGUOUS — 2 scalar"), std::string::npos);
  EXPECT_EQ(refusal({Break::ManifestNoNT}, DriveMedia::Stills), "manifest: missing key NT/frame_count");
  EXPECT_EQ(refusal({Break::ManifestBadFormat}, DriveMedia::Stills), "not an le-bundle-v0: " + dir);
  EXPECT_NE(refusal({Break::StillWrongSize}, DriveMedia::Stills)
                .find("le_driver: " + dir + "/target_frames/frame_000003.jpg is 95x64, the manifest says 96x64 — refusing"),
            std::string::npos);
  EXPECT_NE(refusal({Break::ShortMovie}, DriveMedia::Movie).find("carries 4 frames, the manifest says NT=5"), std::string::npos);
  EXPECT_NE(refusal({Break::MovieWrongSize}, DriveMedia::Movie).find("is 94x64, the manifest says 96x64"), std::string::npos);
}
