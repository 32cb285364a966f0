// The stream delta model against a plain-loop reference of its features, conditioning, windows
// and decoder, and its frame counts and refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "tests/a2x_fixture.h"
#include "tests/a2x_reference.h"
#include "tests/support/media.h"

namespace {

using namespace le::testa2x;
using le::testing::ScratchDir;

struct FcaBundle {
  ScratchDir d{"fca"};
  std::string dir = forgeAudioBundle(d, "b", {}, 3);
  std::string encoder = dir + "/" + le::forge::kW2vMember;
  std::string decoder = dir + "/fca_stream.onnx";
};

FcaBundle& bundle() {
  static FcaBundle b;
  return b;
}

// Deltas of audio computed with naive loops around the two networks.
std::vector<float> referenceDeltas(const std::vector<float>& audio) {
  const FcaBundle& b = bundle();
  le::testa2x::Reference ref(b.dir, b.encoder, 1, 6, 2);
  const int frames = static_cast<int>((audio.size() + 639) / 640);
  std::vector<std::vector<float>> feat(size_t(frames), std::vector<float>(768, 0.0f));
  std::vector<bool> done(size_t(frames), false);
  for (int w = 0; w < frames; w += 100) {
    const std::vector<float> e = ref.window8(audio, w);
    for (int f = w; f < std::min(frames, w + 200); ++f) {
      if (done[size_t(f)] || (w > 0 && f < w + 50)) continue;
      for (int k = 0; k < 768; ++k) {
        float s = 0;
        for (int l = 4; l <= 9; ++l) s += e[(size_t(l) * 200 + size_t(f - w)) * 768 + size_t(k)];
        feat[size_t(f)][size_t(k)] = s / 6.0f;
      }
      done[size_t(f)] = true;
    }
  }
  std::vector<double> norm;
  for (const auto& row : feat) {
    double s = 0;
    for (float v : row) s += double(v) * v;
    norm.push_back(std::sqrt(s));
  }
  std::vector<std::vector<float>> cond = feat;
  std::vector<float> sum(768, 0.0f);
  int count = 0;
  for (int f = 0; f < frames; ++f) {
    double t = 0;
    if (f > 6) {
      std::vector<double> v(norm.begin(), norm.begin() + f + 1);
      std::sort(v.begin(), v.end());
      const double q = 0.2 * f;
      const int lo = int(q), hi = std::min(f, lo + 1);
      t = v[size_t(lo)] + (v[size_t(hi)] - v[size_t(lo)]) * (q - lo);
    }
    if (norm[size_t(f)] > t) {
      for (int k = 0; k < 768; ++k) sum[size_t(k)] += feat[size_t(f)][size_t(k)];
      ++count;
    }
    for (int k = 0; k < 768; ++k)
      cond[size_t(f)][size_t(k)] = feat[size_t(f)][size_t(k)] - sum[size_t(k)] / float(std::max(count, 1));
  }
  Ort::Session dec = le::test::ortSession(le::testmedia::readBytes(b.decoder));
  std::vector<float> out, prev(63, 0.0f), h(384, 0.0f), win;
  for (int f = 0; f < frames; ++f) {
    win.clear();
    for (int off = -1; off <= 5; ++off) {
      const auto& r = cond[size_t(std::min(std::max(f + off, 0), frames - 1))];
      win.insert(win.end(), r.begin(), r.end());
    }
    const std::vector<Ort::Value> r = Reference::run(dec,
                                                     {{"cond", {1, 5376}, win.data(), win.size()},
                                                      {"prev", {1, 63}, prev.data(), 63},
                                                      {"h", {1, 1, 384}, h.data(), 384}},
                                                     {"m", "hn"});
    prev = Reference::values(r[0]);
    out.insert(out.end(), prev.begin(), prev.end());
    h = Reference::values(r[1]);
  }
  return out;
}

TEST(Fca, TwelveSecondsMatchThePlainLoopsFrameCountsAndRefusals) {
  const FcaBundle& b = bundle();
  le_fca* h = le_fca_create(b.encoder.c_str(), b.decoder.c_str(), 1);
  ASSERT_NE(h, nullptr) << le_fca_last_error();
  const std::vector<float>& audio = longSpeech();
  const int n = static_cast<int>(audio.size());
  const int frames = (n + 639) / 640;
  ASSERT_GT(frames, 200);
  std::vector<float> got(size_t(frames) * 63);
  ASSERT_EQ(le_fca_deltas(h, audio.data(), n, got.data(), frames), frames) << le_fca_last_error();
  EXPECT_LT(maxAbsDiff(got, referenceDeltas(audio)), 1e-4);

  // Frame counts: ceil(samples / 640), and a buffer one frame short is refused untouched.
  std::vector<float> out(3 * 63, 7.0f);
  EXPECT_EQ(le_fca_deltas(h, audio.data(), 0, out.data(), 0), 0);
  EXPECT_EQ(le_fca_deltas(h, audio.data(), 1, out.data(), 1), 1);
  EXPECT_EQ(le_fca_deltas(h, audio.data(), 640, out.data(), 1), 1);
  EXPECT_EQ(le_fca_deltas(h, audio.data(), 641, out.data(), 2), 2);
  std::fill(out.begin(), out.end(), 7.0f);
  EXPECT_EQ(le_fca_deltas(h, audio.data(), 641, out.data(), 1), -1);
  EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](float v) { return v == 7.0f; }));
  EXPECT_EQ(le_fca_deltas(nullptr, audio.data(), 640, out.data(), 1), -1);
  EXPECT_STREQ(le_fca_last_error(), "le_fca_deltas: NULL handle");
  le_fca_destroy(h);
  le_fca_destroy(nullptr);

  const std::string missing = b.dir + "/absent.onnx";
  EXPECT_EQ(le_fca_create(b.encoder.c_str(), missing.c_str(), 1), nullptr);
  EXPECT_EQ(std::string(le_fca_last_error()).rfind("le_fca_create: ", 0), 0u) << le_fca_last_error();
  EXPECT_NE(std::string(le_fca_last_error()).find("absent.onnx"), std::string::npos) << le_fca_last_error();
  EXPECT_EQ(le_fca_create(missing.c_str(), b.decoder.c_str(), 1), nullptr);
  EXPECT_EQ(le_fca_create(nullptr, b.decoder.c_str(), 1), nullptr);
  EXPECT_STREQ(le_fca_last_error(), "le_fca_create: no speech encoder path");
}

}  // namespace
