// Frame sources: movies decoded with FFmpeg (mode 0 packed RGB, mode 1 planar half RGB), JPEG
// still directories, and the image module. Media are encoded by the tests themselves.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "le/le_driver.h"
#include "le/le_driver_ff.h"
#include "le/le_image.h"
#include "le/le_moviedec_ff.h"
#include "le/le_simd.h"
#include "tests/bundle_fixture.h"
#include "tests/support/media.h"
#include "tools/forge/forge.h"

// stb_image as it comes: the reference the image module's stills decoder must equal.
#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#define STBI_ONLY_JPEG
#include "le/le_stb.h"

namespace media = le::testmedia;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

// Decodes every frame of a movie with the ffmpeg command-line tool into raw planes.
std::vector<uint8_t> ffmpegDecode(const std::string& movie, const std::string& pixFmt) {
  const std::string out = movie + "." + pixFmt + ".raw";
  const int rc = media::run("ffmpeg -nostdin -v error -y -i '" + movie + "' -f rawvideo -pix_fmt " + pixFmt + " '" +
                         out + "'");
  if (rc != 0) throw std::runtime_error("ffmpeg CLI failed on " + movie);
  return media::readBytes(out);
}

std::vector<uint8_t> readAll(le::driver::Source& s) {
  std::vector<uint8_t> all, frame(s.frameBytes());
  while (s.next(frame.data())) all.insert(all.end(), frame.begin(), frame.end());
  return all;
}

// Every frame the source gives equals the ffmpeg tool's 4:2:0 decode of the movie through the
// integer formula, and carries its index.
void expectFormulaFrames(le::driver::Source& src, const std::string& movie, int w, int h, int n) {
  const std::vector<uint8_t> yuv = ffmpegDecode(movie, "yuv420p");
  const size_t yuvFrame = size_t(w) * h * 3 / 2, rgbFrame = size_t(w) * h * 3;
  ASSERT_EQ(yuv.size(), yuvFrame * n);
  const std::vector<uint8_t> all = readAll(src);
  ASSERT_EQ(all.size(), rgbFrame * n);
  std::vector<uint8_t> want(rgbFrame);
  for (int i = 0; i < n; ++i) {
    const uint8_t* Y = &yuv[yuvFrame * i];
    const uint8_t *U = Y + w * h, *V = U + (w / 2) * (h / 2);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const int c = (y / 2) * (w / 2) + x / 2;
        media::yuvToRgbRef(Y[y * w + x], U[c], V[c], &want[(size_t(y) * w + x) * 3]);
      }
    ASSERT_EQ(0, std::memcmp(want.data(), &all[rgbFrame * i], rgbFrame)) << movie << " frame " << i;
    EXPECT_EQ(media::frameTag(&all[rgbFrame * i], w), i);
  }
}

}  // namespace

// An H.264 movie and raw nv12 frames (interleaved chroma rows).
TEST(MovieSource, MatchesFfmpegDecodeThroughTheFormulaAndSeeks) {
  const le::testing::ScratchDir tmp("movie_source");
  const std::string path = tmp / "drive.mp4";
  media::writeMovie(path, media::movieSpec(96, 64, 10), 30);
  media::ScopedEnv hw("LE_DRIVER_HWDEC", nullptr);
  testing::internal::CaptureStderr();
  auto src = le::driver::openMp4(path, 30, 96, 64);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(src->frameBytes(), 96u * 64 * 3);
  EXPECT_EQ(src->name(), "mp4/libavcodec " + le::driver::libavcodecBuildVersion() + " h264");
  // Without a GPU the hardware decoder exists in FFmpeg but refuses to open.
  if (avcodec_find_decoder_by_name("h264_cuvid")) {
    EXPECT_THAT(err, HasSubstr("[le-driver] h264_cuvid refused " + path +
                               " — falling back to the software h264 decoder (same samples, more CPU)\n"));
  }
  expectFormulaFrames(*src, path, 96, 64, 30);
  // Residency: 4 frame threads + 5 frames of 4:2:0 plus the largest packet.
  EXPECT_GE(src->residentBytes(), (96 * 64 * 3 / 2) * 9u);
  EXPECT_LT(src->residentBytes(), (96 * 64 * 3 / 2) * 9u + 96 * 64 * 3);
  EXPECT_EQ(le::testing::thrown([&] { src->seek(30); }), "le_driver: seek outside the member");
  EXPECT_EQ(le::testing::thrown([&] { src->seek(-1); }), "le_driver: seek outside the member");

  const std::string nv12 = tmp / "drive.nut";
  le::forge::MovieSpec spec = media::movieSpec(64, 32, 12, "nv12");
  spec.encoder = "rawvideo";
  media::writeMovie(nv12, spec, 3);
  expectFormulaFrames(*le::driver::openMp4(nv12, 3, 64, 32), nv12, 64, 32, 3);
}

TEST(MovieSource, RewindAndSeeksReplayTheSameFramesInEveryContainer) {
  const le::testing::ScratchDir tmp("rewind");
  // A raw elementary stream has no index and no frame count; mkv none either.
  for (const char* name : {"drive.mp4", "drive.h264", "drive.mkv", "drive.mov"}) {
    const std::string path = tmp / name;
    media::writeMovie(path, media::movieSpec(96, 64, 5), 14);
    auto src = le::driver::openMp4(path, 14, 96, 64);
    const std::vector<uint8_t> first = readAll(*src);
    ASSERT_EQ(first.size(), src->frameBytes() * 14) << name;
    for (int pass = 0; pass < 2; ++pass) {
      src->rewind();
      EXPECT_EQ(readAll(*src), first) << name << " pass " << pass;
    }
    // Backwards from the end (rewind and decode on), then forwards.
    std::vector<uint8_t> f(src->frameBytes());
    for (int at : {2, 9}) {
      src->seek(at);
      ASSERT_TRUE(src->next(f.data()));
      EXPECT_EQ(0, std::memcmp(f.data(), &first[f.size() * size_t(at)], f.size())) << name << " " << at;
    }
  }
}

TEST(MovieSource, PriorDecodesToHalfPlanesWithTheFixedPointFormula) {
  const le::testing::ScratchDir tmp("prior");
  const std::string path = tmp / "P_hevc.mov";
  const int side = 64, n = 4;
  le::forge::MovieSpec spec = media::movieSpec(side, side, 12, "yuv444p");
  spec.encoder = "libx265", spec.lossless = true, spec.preset = "ultrafast";
  media::writeMovie(path, spec, n, [](int i, uint8_t* const* d, const int* ls, int w, int h) {
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        uint8_t Y = 16, U = 128, V = 128;  // frame 0: black
        if (i == 1) Y = 235;               // frame 1: white
        if (i >= 2) Y = uint8_t(x * 4 + y), U = uint8_t(x * 3 + i * 40), V = uint8_t(255 - y * 4);
        d[0][y * ls[0] + x] = Y, d[1][y * ls[1] + x] = U, d[2][y * ls[2] + x] = V;
      }
  });
  media::ScopedEnv hw("LE_DRIVER_HWDEC", "0");
  testing::internal::CaptureStderr();
  auto src = le::driver::openPriorHevc(path, n, side);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "[le-driver] LE_DRIVER_HWDEC=0 — h264_cuvid not attempted; the software decoder is the one decoder on "
            "this fleet (same samples)\n");
  EXPECT_EQ(src->name(), "hevc444/libavcodec " + le::driver::libavcodecBuildVersion() + " hevc");
  const size_t plane = side * side;
  ASSERT_EQ(src->frameBytes(), plane * 6);
  std::vector<uint16_t> f(plane * 3);
  auto bytes = reinterpret_cast<uint8_t*>(f.data());

  ASSERT_TRUE(src->next(bytes));
  EXPECT_EQ(f, std::vector<uint16_t>(plane * 3, 0));
  ASSERT_TRUE(src->next(bytes));
  EXPECT_EQ(f, std::vector<uint16_t>(plane * 3, 0x3C00));

  const std::vector<uint8_t> yuv = ffmpegDecode(path, "yuv444p");
  ASSERT_EQ(yuv.size(), plane * 3 * n);
  uint16_t half[256];
  for (int v = 0; v < 256; ++v) half[v] = le::f32ToF16(static_cast<float>(v / 255.0));
  std::vector<uint16_t> want(plane * 3);
  for (int i = 2; i < n; ++i) {
    ASSERT_TRUE(src->next(bytes));
    const uint8_t* Y = &yuv[plane * 3 * i];
    for (size_t p = 0; p < plane; ++p) {
      int rgb[3];
      media::yuv444ToRgbRef(Y[p], Y[plane + p], Y[2 * plane + p], rgb);
      for (size_t c = 0; c < 3; ++c) want[c * plane + p] = half[rgb[c]];
    }
    ASSERT_EQ(f, want) << "frame " << i;
  }
  EXPECT_FALSE(src->next(bytes));
  // Mode 1 residency counts 4:4:4 frames.
  EXPECT_GE(src->residentBytes(), plane * 3 * 9);
}

TEST(MovieSource, RefusesMembersThatDisagreeWithTheManifest) {
  const le::testing::ScratchDir tmp("refusals");
  const std::string dir = tmp.path();
  const le::forge::MovieSpec spec = media::movieSpec();
  const std::string good = dir + "/good.mp4";
  media::writeMovie(good, spec, 6);

  EXPECT_EQ(le::testing::thrown([&] { le::driver::openMp4(good, 6, 96, 62); }),
            "le_driver: " + good + " is 96x64, the manifest says 96x62 — refusing to rescale the driver");
  EXPECT_EQ(le::testing::thrown([&] { le::driver::openMp4(good, 7, 96, 64); }),
            "le_driver: " + good + " carries 6 frames, the manifest says NT=7 — member/manifest mismatch, refusing");
  EXPECT_EQ(le::testing::thrown([&] { le::driver::openMp4(dir + "/missing.mp4", 6, 96, 64); }),
            "le_driver: " + dir + "/missing.mp4 is not a readable container");

  // Truncated before its index: unreadable.
  const auto bytes = media::readBytes(good);
  const std::string cut = dir + "/cut.mp4";
  le::testing::writeFile(cut, std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size() / 2));
  EXPECT_EQ(le::testing::thrown([&] { le::driver::openMp4(cut, 6, 96, 64); }),
            "le_driver: " + cut + " is not a readable container");

  // 4:2:2 fails at the first frame in mode 0.
  const std::string m422 = dir + "/m422.mp4";
  media::writeMovie(m422, media::movieSpec(96, 64, 12, "yuv422p"), 6);
  auto src = le::driver::openMp4(m422, 6, 96, 64);
  std::vector<uint8_t> frame(96 * 64 * 6);
  EXPECT_EQ(le::testing::thrown([&] { src->next(frame.data()); }),
            "le_driver: " + m422 +
                " decoded to yuv422p, not the 4:2:0 layout the canvas conversion is written for (yuv420p / nv12) — "
                "refusing rather than pasting onto a different pixel domain");

  // A yuv420p prior fails at the first frame in mode 1.
  const std::string p420 = dir + "/p420.mov";
  media::writeMovie(p420, media::movieSpec(64, 64), 6);
  auto prior = le::driver::openPriorHevc(p420, 6, 64);
  EXPECT_EQ(le::testing::thrown([&] { prior->next(frame.data()); }),
            "le_driver: " + p420 +
                " decoded to yuv420p, not the yuv444p a warp prior is authored in — a subsampled prior is a different "
                "mouth, refusing");

  // A member that declares no frame count is accepted; only running past its end fails.
  const std::string mkv = dir + "/short.mkv";
  media::writeMovie(mkv, spec, 6);
  auto shortSrc = le::driver::openMp4(mkv, 10, 96, 64);
  EXPECT_EQ(le::testing::thrown([&] { shortSrc->seek(8); }), "le_driver: " + mkv + " ended at frame 6 while seeking to 8");

  // Not a movie at all.
  const std::string text = dir + "/notes.mp4";
  le::testing::writeFile(text, "plain text, no container here\n");
  EXPECT_THAT(le::testing::thrown([&] { le::driver::openMp4(text, 6, 96, 64); }), StartsWith("le_driver: " + text));
}

TEST(JpgDirSource, DeliversStillsAndRefusesAWrongSize) {
  const le::testing::ScratchDir tmp("jpgdir");
  const std::string dir = tmp.path();
  media::writeJpegDir(dir, 80, 48, 6);
  // frame 3 one pixel narrower
  const auto narrow = media::patternRgb(79, 48, 3);
  le::forge::writeJpeg(dir + "/frame_000003.jpg", narrow.data(), 79, 48, 92);

  auto src = le::driver::openJpgDir(dir, 6, 80, 48);
  EXPECT_EQ(src->name(), "jpg/stb");
  EXPECT_EQ(src->residentBytes(), 0u);
  EXPECT_EQ(src->frameBytes(), 80u * 48 * 3);
  std::vector<uint8_t> f(80 * 48 * 3);
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(src->next(f.data()));
    int w = 0, h = 0;
    char name[64];
    std::snprintf(name, sizeof name, "/frame_%06d.jpg", i);
    EXPECT_EQ(f, le::loadImageRGB(dir + name, &w, &h));
    EXPECT_EQ(media::frameTag(f.data(), 80), i);
  }
  EXPECT_EQ(le::testing::thrown([&] { src->next(f.data()); }),
            "le_driver: " + dir + "/frame_000003.jpg is 79x48, the manifest says 80x48 — refusing");
  src->seek(5);
  ASSERT_TRUE(src->next(f.data()));
  EXPECT_EQ(media::frameTag(f.data(), 80), 5);
  EXPECT_FALSE(src->next(f.data()));
  src->rewind();
  ASSERT_TRUE(src->next(f.data()));
  EXPECT_EQ(media::frameTag(f.data(), 80), 0);
  EXPECT_EQ(le::testing::thrown([&] { src->seek(6); }), "le_driver: seek outside the member");
  // A missing still surfaces the image module's text.
  auto gap = le::driver::openJpgDir(dir + "/nowhere", 6, 80, 48);
  EXPECT_EQ(le::testing::thrown([&] { gap->next(f.data()); }), "decode failed: " + dir + "/nowhere/frame_000000.jpg");
}

// JPEG stills, subsampled (quality 75) or not (92), of a width that leaves a tail of every
// vector length and large enough to be decoded in place: the image module decodes them to the
// very bytes stb_image gives.
TEST(Image, JpegStillsEqualPlainStb) {
  const le::testing::ScratchDir tmp("jpeg");
  const int W = 643, H = 547;
  for (const int quality : {75, 92}) {
    const std::string path = tmp.path() + "/s" + std::to_string(quality) + ".jpg";
    const auto rgb = media::patternRgb(W, H, quality);
    le::forge::writeJpeg(path, rgb.data(), W, H, quality);
    int w = 0, h = 0, comp = 0;
    stbi_uc* want = stbi_load(path.c_str(), &w, &h, &comp, 3);
    ASSERT_NE(want, nullptr);
    const std::vector<uint8_t> ref(want, want + size_t(w) * h * 3);
    stbi_image_free(want);
    int gw = 0, gh = 0;
    EXPECT_EQ(le::loadImageRGB(path, &gw, &gh), ref) << "quality " << quality;
    EXPECT_EQ(gw, W);
    EXPECT_EQ(gh, H);
    // In place when the buffer holds the byte stb asks for beyond the image, else copied.
    std::vector<uint8_t> into(ref.size() + 1, 0x5A);
    for (const size_t capacity : {ref.size(), into.size()}) {
      std::fill(into.begin(), into.end(), 0x5A);
      ASSERT_TRUE(le::loadImageRGBInto(path, W, H, into.data(), capacity, &gw, &gh));
      EXPECT_EQ(std::vector<uint8_t>(into.begin(), into.end() - 1), ref) << capacity;
      EXPECT_EQ(into.back(), 0x5A);
    }
    // The same bytes in another shape are refused with the image's own size.
    EXPECT_FALSE(le::loadImageRGBInto(path, H, W, into.data(), into.size(), &gw, &gh));
    EXPECT_EQ(gw, W);
    EXPECT_EQ(gh, H);
  }
}

TEST(Image, PngRoundTripsAndFailuresNameThePath) {
  const le::testing::ScratchDir tmp("image");
  const std::string dir = tmp.path();
  const auto rgb = media::patternRgb(33, 17, 9);
  le::writePNG(dir + "/a.png", rgb.data(), 33, 17);
  int w = 0, h = 0;
  EXPECT_EQ(le::loadImageRGB(dir + "/a.png", &w, &h), rgb);
  EXPECT_EQ(w, 33);
  EXPECT_EQ(h, 17);
  EXPECT_EQ(le::testing::thrown([&] { le::writePNG(dir + "/no/such/dir/a.png", rgb.data(), 33, 17); }),
            "png write failed: " + dir + "/no/such/dir/a.png");
  EXPECT_EQ(le::testing::thrown([&] { le::loadImageRGB(dir + "/absent.jpg", &w, &h); }), "decode failed: " + dir + "/absent.jpg");
  // A grey PNG (written by the ffmpeg tool from raw grey bytes) comes back with three channels.
  le::testing::writeFile(dir + "/g.raw", std::string(16 * 16, char(77)));
  ASSERT_EQ(media::run("ffmpeg -nostdin -v error -y -f rawvideo -pix_fmt gray -s 16x16 -i '" + dir +
                       "/g.raw' -pix_fmt gray '" + dir + "/g.png'"),
            0);
  EXPECT_EQ(le::loadImageRGB(dir + "/g.png", &w, &h), std::vector<uint8_t>(16 * 16 * 3, 77));
}
