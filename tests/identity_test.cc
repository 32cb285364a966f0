#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "bundle_fixture.h"
#include "le/le_bundle.h"
#include "le/le_expand.h"

namespace {

using le::testing::ScratchDir;
using le::testing::thrown;
using le::testing::writeFile;

constexpr int kNT = 3, kCrop = 8, kW = 64, kH = 48, kFrames = 5;

template <class T>
std::string bytesOf(const std::vector<T>& v) {
  return std::string(reinterpret_cast<const char*>(v.data()), v.size() * sizeof(T));
}

std::string manifest(int msrc_w, int msrc_h, const std::string& extra = "") {
  return "{\"format\": \"le-bundle-v0\", \"agent\": \"a\", \"NT\": " + std::to_string(kNT) +
         ", \"H\": " + std::to_string(kH) + ", \"W\": " + std::to_string(kW) +
         ", \"crop\": " + std::to_string(kCrop) +
         ", \"amount\": 1.3, \"sigma\": 2.0, \"ksize\": 13, \"frames\": " +
         std::to_string(kFrames) + ", \"M_src_w\": " + std::to_string(msrc_w) +
         ", \"M_src_h\": " + std::to_string(msrc_h) + extra + "}";
}

// A bundle whose rows are recognisable: row si of every table starts with si + 1.
struct Bundle {
  ScratchDir dir{"identity"};
  std::vector<float> M, xs = std::vector<float>(size_t(kFrames) * 63), xd = xs;
  std::vector<int32_t> si = std::vector<int32_t>(kFrames);
  explicit Bundle(bool with_p = true, bool with_fs = false) {
    writeFile(dir / "manifest.json", manifest(kW, kH));
    std::vector<uint16_t> pooled(size_t(kNT) * 65536), P(size_t(kNT) * 3 * kCrop * kCrop);
    for (int si = 0; si < kNT; ++si) {
      pooled[size_t(si) * 65536] = uint16_t(si + 1);
      P[size_t(si) * 3 * kCrop * kCrop] = uint16_t(si + 1);
    }
    writeFile(dir / "pooled64.f16", bytesOf(pooled));
    if (with_p) writeFile(dir / "P.f16", bytesOf(P));
    if (with_fs) {
      std::vector<uint16_t> fs(size_t(kNT) * 262144);
      for (int si = 0; si < kNT; ++si) fs[size_t(si) * 262144] = uint16_t(si + 1);
      writeFile(dir / "fs_red.f16", bytesOf(fs));
    }
    for (int si = 0; si < kNT; ++si)
      for (float v : {1.1f + si, 0.1f, 10.3f + si, -0.1f, 1.1f + si, 20.7f + si}) M.push_back(v);
    writeFile(dir / "M.f32", bytesOf(M));
    for (int i = 0; i < kFrames; ++i) {
      xs[size_t(i) * 63] = float(i);
      xd[size_t(i) * 63] = float(-i);
      si[size_t(i)] = i % kNT;
    }
    writeFile(dir / "drive/xs.f32", bytesOf(xs));
    writeFile(dir / "drive/xd.f32", bytesOf(xd));
    writeFile(dir / "drive/si.i32", bytesOf(si));
  }
  le::Manifest load() const { return le::loadManifest(dir.path()); }
};

}  // namespace

// (Every table is mapped at its exact size: a wrong size is the file readers' refusal.)
TEST(Identity, MapsRowsUnderEitherMemberName) {
  Bundle b;
  le::Identity id(b.load());
  EXPECT_TRUE(id.hasP());
  EXPECT_FALSE(id.hasFsRed());
  for (int si = 0; si < kNT; ++si) {
    EXPECT_EQ(id.pooled64(si)[0], si + 1);
    EXPECT_EQ(id.P(si)[0], si + 1);
    for (int k = 0; k < 6; ++k) EXPECT_EQ(id.M(si)[k], b.M[size_t(si) * 6 + k]);
  }
  EXPECT_EQ(id.priorBackend(), "mmap P.f16");
  EXPECT_EQ(id.priorSeeks(), 0u);
  id.walkP(1);  // nothing to decode

  // The newer names, and a bundle with only the FeatureSynth table.
  Bundle n(/*with_p=*/false, /*with_fs=*/true);
  std::rename((n.dir / "pooled64.f16").c_str(), (n.dir / "pooled_features.f16").c_str());
  std::rename((n.dir / "fs_red.f16").c_str(), (n.dir / "feature_synth.f16").c_str());
  std::rename((n.dir / "M.f32").c_str(), (n.dir / "paste_transform.f32").c_str());
  le::Identity fs(n.load());
  EXPECT_FALSE(fs.hasP());
  EXPECT_TRUE(fs.hasFsRed());
  EXPECT_EQ(fs.fsRed(2)[0], 3);
  EXPECT_EQ(fs.pooled64(1)[0], 2);
  EXPECT_EQ(fs.M(1)[5], n.M[11]);
  EXPECT_EQ(fs.priorBackend(), "none");
  EXPECT_TRUE(fs.priorPath().empty());
}

TEST(Identity, RescalesMFromItsAuthoringCanvas) {
  Bundle b;
  writeFile(b.dir / "manifest.json", manifest(kW / 2, kH));
  le::Identity id(b.load());
  for (int si = 0; si < kNT; ++si) {
    const float* row = &b.M[size_t(si) * 6];
    for (int k = 0; k < 3; ++k) EXPECT_EQ(id.M(si)[k], float(double(row[k]) * 2.0)) << k;
    for (int k = 3; k < 6; ++k) EXPECT_EQ(id.M(si)[k], row[k]) << k;
  }
  // Odd factors round each product once, from double.
  writeFile(b.dir / "manifest.json", manifest(48, 36));
  le::Identity id3(b.load());
  EXPECT_EQ(id3.M(2)[2], float(double(b.M[14]) * (64.0 / 48.0)));
  EXPECT_EQ(id3.M(2)[5], float(double(b.M[17]) * (48.0 / 36.0)));

  le::Manifest m = b.load();
  m.M_src_w = 0;
  EXPECT_EQ(thrown([&] { le::Identity bad(m); }),
            "le::Identity: manifest carries no paste-space stamp (M_src_w/M_src_h) — refusing to "
            "paste M without knowing the space it was authored in");
}

TEST(Identity, WarpPriorCheck) {
  {  // A raw prior renamed through P_rgb that the identity would never map.
    Bundle b(false);
    writeFile(b.dir / "manifest.json", manifest(kW, kH, ", \"P_rgb\": \"P_raw.f16\""));
    writeFile(b.dir / "P_raw.f16", "x");
    const std::string want =
        "this bundle's manifest names its raw warp prior 'P_raw.f16' (P_rgb) but le::Identity maps "
        "the welded name P.f16 and would find nothing — it maps NOTHING silently and "
        "Identity::P(si) is then an offset from a null pointer. REFUSING rather than rendering off "
        "a prior nothing will read.";
    EXPECT_EQ(thrown([&] { le::Identity id(b.load()); }), want);
    // With the welded name present as well, the bundle is fine.
    writeFile(b.dir / "source_frames.f16", std::string(size_t(kNT) * 6 * kCrop * kCrop, '\0'));
    EXPECT_EQ(thrown([&] { le::Identity id(b.load()); }), "");
  }
  {  // No prior at all, and no video named.
    Bundle b(false);
    writeFile(b.dir / "manifest.json", manifest(kW, kH, ", \"P_rgb\": \"P_raw.f16\""));
    EXPECT_EQ(thrown([&] { le::ensureIdentityMembers(b.load()); }),
              "this bundle carries neither P_raw.f16 nor fs_red.f16, and its manifest names no "
              "P_hevc member to play one from — the renderer has no warp prior and le::Identity "
              "would hand it a null pointer. REFUSING to create a session.");
    writeFile(b.dir / "manifest.json", manifest(kW, kH, ", \"P_hevc\": \"\""));
    EXPECT_EQ(thrown([&] { le::ensureIdentityMembers(b.load()); }).rfind(
                  "this bundle carries neither P.f16 nor fs_red.f16, and its manifest names no "
                  "P_hevc",
                  0),
              0u);
  }
  {  // A video prior named (its absence is refused at context creation) becomes the prior path.
    Bundle b(false);
    writeFile(b.dir / "manifest.json", manifest(kW, kH, ", \"P_hevc\": \"prior.mov\""));
    writeFile(b.dir / "prior.mov", "not decoded until first use");
    le::Identity id(b.load());
    EXPECT_FALSE(id.hasP());
    EXPECT_EQ(id.priorPath(), b.dir / "prior.mov");
  }
}

TEST(Drive, LoadsUnderEitherNameAndValidates) {
  Bundle b;
  const le::Drive d = le::loadDrive(b.load());
  EXPECT_EQ(d.frames, kFrames);
  EXPECT_TRUE(std::tie(d.xs, d.xd, d.si) == std::tie(b.xs, b.xd, b.si));
  std::rename((b.dir / "drive").c_str(), (b.dir / "idle_loop").c_str());
  std::rename((b.dir / "idle_loop/xs.f32").c_str(), (b.dir / "idle_loop/source_keypoints.f32").c_str());
  std::rename((b.dir / "idle_loop/xd.f32").c_str(), (b.dir / "idle_loop/driven_keypoints.f32").c_str());
  std::rename((b.dir / "idle_loop/si.i32").c_str(), (b.dir / "idle_loop/source_index.i32").c_str());
  const le::Drive renamed = le::loadDrive(b.load());
  EXPECT_TRUE(std::tie(renamed.xs, renamed.xd, renamed.si) == std::tie(b.xs, b.xd, b.si));

  // A negative index (one past the end is met through le_create; the tables' exact sizes are the
  // file readers' test).
  Bundle c;
  writeFile(c.dir / "drive/si.i32", bytesOf(std::vector<int32_t>{0, 1, 2, -1, 0}));
  EXPECT_EQ(thrown([&] { le::loadDrive(c.load()); }), "drive: si out of range");
}
