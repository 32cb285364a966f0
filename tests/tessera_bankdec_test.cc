// The donor bank track decoded from memory, against the ffmpeg tool's own decode of the same
// file and against the frames that were encoded; every refusal by its exact text.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_bundle.h"
#include "tests/bundle_fixture.h"
#include "tests/support/media.h"
#include "tools/forge/forge_movie.h"

#include "le/tessera/le_bankdec_ff.h"

extern "C" {
#include <libavcodec/version.h>
#include <libavformat/avio.h>
#include <libavutil/error.h>
}

namespace {

using le::testing::ScratchDir;
using le::testing::thrown;
using le::tessera::decodeBankTrack;

bool haveFfmpeg() { return std::system("ffmpeg -hide_banner -version > /dev/null 2>&1") == 0; }

std::string run(const std::string& cmd) {
  std::string out;
  if (FILE* p = popen(cmd.c_str(), "r")) {
    char buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
  }
  return out;
}

// The ffmpeg tool's decode of the first video stream to packed RGB at the same size.
std::vector<uint8_t> cliDecode(const std::string& path) {
  const std::string s =
      run("ffmpeg -v error -i '" + path + "' -map 0:v:0 -sws_flags bilinear -f rawvideo -pix_fmt rgb24 -");
  return std::vector<uint8_t>(s.begin(), s.end());
}

// Distinct packed RGB per frame: gradients that move with the index, plus noise-like texture.
std::vector<uint8_t> donorRgb(int w, int h, int k) {
  std::vector<uint8_t> rgb(static_cast<size_t>(w) * h * 3);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint8_t* p = &rgb[(static_cast<size_t>(y) * w + x) * 3];
      p[0] = static_cast<uint8_t>(x * 7 + k * 31);
      p[1] = static_cast<uint8_t>(y * 11 + k * 17);
      p[2] = static_cast<uint8_t>((x * y + k * 53) ^ (x * 13));
    }
  return rgb;
}

struct Track {
  std::string path;
  std::vector<uint8_t> bytes;
};

Track writeTrack(const ScratchDir& d, const std::string& name, le::forge::Chroma chroma, int w, int h, int frames) {
  le::forge::MovieSpec spec;
  spec.encoder = chroma == le::forge::Chroma::Rgb ? "libx264rgb" : "libx264";
  spec.chroma = chroma;
  spec.width = w, spec.height = h;
  spec.qp = 0;
  Track t{d / name, {}};
  {
    le::forge::MovieWriter mw(t.path, spec);
    for (int k = 0; k < frames; ++k) mw.write(donorRgb(w, h, k).data());
    mw.finish();
  }
  t.bytes = le::testmedia::readBytes(t.path);
  return t;
}

std::vector<uint8_t> decode(const Track& t, int n, int h, int w, const std::vector<int32_t>& order) {
  return decodeBankTrack(t.bytes.data(), t.bytes.size(), n, h, w, order);
}

// Donor order[k] of out must be frame k of the reference (frames in track order).
void expectReordered(const std::vector<uint8_t>& out, const std::vector<uint8_t>& ref,
                     const std::vector<int32_t>& order, size_t patch, const std::string& what) {
  ASSERT_EQ(out.size(), ref.size()) << what;
  for (size_t k = 0; k < order.size(); ++k)
    EXPECT_EQ(std::memcmp(out.data() + order[k] * patch, ref.data() + k * patch, patch), 0)
        << what << ": track frame " << k;
}

TEST(TesseraBankDecode, LosslessRgbIsExact) {
  if (!haveFfmpeg()) GTEST_SKIP() << "no ffmpeg tool";
  ScratchDir d("tessera_bankdec_rgb");
  const int w = 24, h = 18, n = 6;  // 24: not a multiple of 16, the padded conversion
  const Track t = writeTrack(d, "rgb.mp4", le::forge::Chroma::Rgb, w, h, n);
  const std::vector<int32_t> order = {3, 0, 5, 1, 4, 2};
  const std::vector<uint8_t> out = decode(t, n, h, w, order);
  std::vector<uint8_t> encoded;
  for (int k = 0; k < n; ++k) {
    const auto f = donorRgb(w, h, k);
    encoded.insert(encoded.end(), f.begin(), f.end());
  }
  const size_t patch = size_t(w) * h * 3;
  expectReordered(out, encoded, order, patch, "encoded frames");
  expectReordered(out, cliDecode(t.path), order, patch, "ffmpeg tool");

  // An audio stream ahead of the video: its packets are ignored.
  const std::string av = d / "av.mp4";
  run("ffmpeg -v error -f lavfi -i sine=frequency=440:duration=0.5 -i '" + t.path +
      "' -map 0:a -map 1:v -c:v copy -c:a aac -shortest '" + av + "' 2>&1");
  const Track withAudio{av, le::testmedia::readBytes(av)};
  ASSERT_EQ(run("ffprobe -v error -show_entries stream=codec_type -of csv=p=0 '" + av + "'"), "audio\nvideo\n");
  EXPECT_EQ(decode(withAudio, n, h, w, order), out);
}

TEST(TesseraBankDecode, SubsampledAndFullChromaMatchTheTool) {
  if (!haveFfmpeg()) GTEST_SKIP() << "no ffmpeg tool";
  ScratchDir d("tessera_bankdec_yuv");
  for (const auto chroma : {le::forge::Chroma::Yuv420, le::forge::Chroma::Yuv444})
    for (const int w : {24, 40, 64}) {
      const int h = 16, n = 5;
      const std::string what = std::string(chroma == le::forge::Chroma::Yuv420 ? "4:2:0" : "4:4:4") + " width " + std::to_string(w);
      const Track t = writeTrack(d, std::string(chroma == le::forge::Chroma::Yuv420 ? "s420_" : "f444_") + std::to_string(w) + ".mp4", chroma, w, h, n);
      const std::vector<int32_t> order = {4, 2, 0, 3, 1};  // the last donor is filled first
      expectReordered(decode(t, n, h, w, order), cliDecode(t.path), order, size_t(w) * h * 3, what);
    }
}

TEST(TesseraBankDecode, Refusals) {
  ScratchDir d("tessera_bankdec_refuse");
  const int w = 32, h = 16, n = 4;
  const Track t = writeTrack(d, "t.mp4", le::forge::Chroma::Yuv444, w, h, n);
  const std::vector<int32_t> order = {0, 1, 2, 3};
  const auto err = [&](int nn, int hh, int ww, const std::vector<int32_t>& o) {
    return thrown([&] { decode(t, nn, hh, ww, o); });
  };
  EXPECT_EQ(thrown([&] { decodeBankTrack(t.bytes.data(), 0, n, h, w, order); }),
            "reference bank track is empty — refusing to serve");
  EXPECT_EQ(err(n, 0, w, order), "reference bank geometry is not positive — refusing to serve");
  EXPECT_EQ(err(n, h, w, {0, 1, 2}),
            "reference bank sidecar track_order has 3 entries, expected 4 — sidecar/track mismatch, refusing to serve");
  EXPECT_EQ(err(n, h, w, {0, 1, 4, 2}), "reference bank track_order is out of range — refusing to serve");
  EXPECT_EQ(err(n, h, w, {0, 1, 1, 2}), "reference bank track_order is not a permutation — refusing to serve");
  EXPECT_EQ(err(n, h, w + 2, order),
            "reference bank track is 32x16, the geometry stamp says 34x16 — geometry mismatch, refusing to serve");
  EXPECT_EQ(err(n - 1, h, w, {0, 1, 2}),
            "bank track carries more frames than the sidecar's n_donors — sidecar/track mismatch, refusing to serve");
  EXPECT_EQ(err(n + 1, h, w, {0, 1, 2, 3, 4}),
            "bank track decoded to 4 frames, expected 5 — geometry/N mismatch, refusing to serve");
  const std::vector<uint8_t> junk(4096, 0x5a);
  EXPECT_EQ(thrown([&] { decodeBankTrack(junk.data(), junk.size(), n, h, w, order); }),
            "reference bank track is not a readable container — refusing to serve");
  // a cut track: still a container, its frames run short
  const std::string cut = thrown([&] { decodeBankTrack(t.bytes.data(), t.bytes.size() / 2, n, h, w, order); });
  EXPECT_NE(cut.find("refusing to serve"), std::string::npos) << cut;

  const std::string build = le::tessera::bankDecoderBuild();
  EXPECT_EQ(build.rfind("libavcodec " + std::to_string(LIBAVCODEC_VERSION_MAJOR) + ".", 0), 0u) << build;
  EXPECT_NE(build.find(" / "), std::string::npos);
}

TEST(TesseraBankDecode, InMemoryReaderStaysInsideTheBytes) {
  using namespace le::tessera::bankio;
  const uint8_t bytes[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
  MemReader r{bytes, 10, 0};
  uint8_t buf[4];
  EXPECT_EQ(memSeek(&r, 0, AVSEEK_SIZE), 10);
  EXPECT_EQ(memSeek(&r, 10, SEEK_SET), 10);  // exactly at the end is a position
  EXPECT_EQ(memRead(&r, buf, 4), AVERROR_EOF);
  EXPECT_EQ(memSeek(&r, 11, SEEK_SET), -1);  // past it is not, and nothing moves
  EXPECT_EQ(r.pos, 10);
  EXPECT_EQ(memSeek(&r, -3, SEEK_END), 7);
  EXPECT_EQ(memRead(&r, buf, 4), 3);
  EXPECT_EQ(buf[0], 7);
  EXPECT_EQ(memSeek(&r, -8, SEEK_CUR), 2);
  EXPECT_EQ(memSeek(&r, -3, SEEK_CUR), -1);
  EXPECT_EQ(r.pos, 2);
}

}  // namespace
