// The audio-to-expression stream on the windowed speech frontend (the forged bundles carry the
// trunk/head pair beside their 8 s encoder, so this process serves the windowed path; the
// offline entry point always uses the 8 s window).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "le/audio/le_a2x_w2v.h"
#include "tests/a2x_fixture.h"
#include "tests/a2x_reference.h"
#include "tests/support/media.h"
#include "tests/test_util2.h"

namespace {

using le::forge::AudioOptions;
using namespace le::testa2x;
using le::testing::ScratchDir;
using le::testmedia::ScopedEnv;

Reference referenceOf(const std::string& dir, const AudioOptions& o = {}) {
  return Reference(dir, w2vOf(dir), o.window, o.left, o.layers,
                   dir + "/w2v/audio_encoder_fp16_window_trunk.onnx",
                   dir + "/w2v/audio_encoder_fp16_window_head.onnx");
}

// Streamed pulls and offline deltas against the plain-loop reference, on a clip longer than
// an 8 s window and than the positional table; and how close the two frontends' features are.
TEST(A2x, StreamAndOfflineAgreeWithReference) {
  ScratchDir d("a2x_ref");
  AudioOptions o;
  o.width = true;
  const std::string dir = forgeAudioBundle(d, "b", o);
  ScopedEnv w2v("W2V_ONNX", w2vOf(dir).c_str());
  const std::vector<float>& audio = longSpeech();
  const int frames = static_cast<int>((audio.size() + 639) / 640);
  ASSERT_GT(frames, 200);
  ASSERT_GT(frames, o.posRows);

  Handle h(dir);
  ASSERT_TRUE(h.h) << le_a2x_last_error();
  EXPECT_EQ(le_a2x_width(h), 1);
  EXPECT_EQ(le_a2x_total(h), -1);
  const Reference ref = referenceOf(dir, o);
  const std::vector<float> featW = ref.featuresWindowed(audio), featL = ref.featuresLegacy(audio);
  expectAgreement(h, ref, audio, featW, featL);

  // The windowed pair reproduces the 8 s window's features. They differ by half rounding
  // (features near 1 are 2^-11 apart) and by normalisation: the trunk scales audio by its 2 s
  // window's level, the 8 s window by its own, which moves every log-energy feature by
  // 2 ln(ratio of levels) / 9.21. Across this speech with its pauses the two windows'
  // levels agree within about 15 % (0.03 in the feature); half rounding adds at most 2^-10.
  double sum = 0;
  for (int f = 0; f < frames; ++f)
    for (int k = 0; k < 17; ++k) sum += std::fabs(featW[size_t(f) * 9216 + k] - featL[size_t(f) * 9216 + k]);
  const double mean = sum / (17.0 * frames);
  RecordProperty("feature_mean_abs_diff", std::to_string(mean));
  EXPECT_LT(mean, 0.03);
}

// The window normalisation gives the same bits on every vector target, also on values spread
// over many decades (where the order of the double sums shows), and agrees with the plain loop
// (one running sum) to within one float step on audio-like values.
TEST(A2x, WindowNormalisationSameOnEveryTarget) {
  std::vector<float> audio(32003), wide(32003);  // not a multiple of the eight running sums
  for (size_t i = 0; i < audio.size(); ++i) {
    audio[i] = 0.3f * std::sin(0.01f * float(i)) + 0.05f + float(i % 7) * 1e-3f;
    wide[i] = std::sin(float(i)) * std::pow(10.0f, float(int(i % 17) - 8));
  }
  for (std::vector<float>* x : {&audio, &wide}) {
    std::vector<float> first;
    le::testing::onEveryTarget([&](const char* target) {
      std::vector<float> got = *x;
      le::a2x::normaliseWindow(got.data(), got.size());
      if (first.empty()) first = got;
      EXPECT_EQ(0, std::memcmp(got.data(), first.data(), got.size() * sizeof(float))) << target;
      // Zeros around values 5 .. 31000 of it: as if the padded window had been built first.
      std::vector<float> padded(x->size(), 0.0f), from(x->size());
      std::copy(x->begin() + 5, x->begin() + 31000, padded.begin() + 5);
      le::a2x::normaliseWindow(padded.data(), padded.size());
      le::a2x::normaliseWindowFrom(x->data() + 5, 5, 31000, from.data(), from.size());
      EXPECT_EQ(0, std::memcmp(from.data(), padded.data(), from.size() * sizeof(float))) << target;
    });
    if (x != &audio) continue;
    std::vector<float> want = *x;
    le::testa2x::Reference::normalise(want);
    for (size_t i = 0; i < x->size(); ++i)
      ASSERT_LE(std::fabs(first[i] - want[i]), std::nextafter(std::fabs(want[i]), 1e9f) - std::fabs(want[i])) << i;
  }
}

// Pushing 100 samples at a time or a frame block at a time gives identical pulls, and frames
// become ready in whole blocks, minus the encoder's look-ahead and the trunk's right context.
TEST(A2x, PushSizeDoesNotChangePulls) {
  ScratchDir d("a2x_push");
  const std::string dir = forgeAudioBundle(d, "b");
  ScopedEnv w2v("W2V_ONNX", w2vOf(dir).c_str());
  const std::vector<float> audio(longSpeech().begin(), longSpeech().begin() + 40000);
  auto run = [&](int step, bool checkCadence) {
    Handle h(dir);
    EXPECT_TRUE(h.h) << le_a2x_last_error();
    Pulled r;
    for (size_t at = 0; at < audio.size(); at += size_t(step)) {
      const int n = static_cast<int>(std::min(audio.size() - at, size_t(step)));
      EXPECT_EQ(le_a2x_push(h, audio.data() + at, n), 1);
      le_a2x_avail(h);
      drain(h, r);
      if (checkCadence) {
        // live horizon 8 * floor((S + 639) / 5120); held back: right context 12 + 8
        const long S = long(at) + n;
        const long ready = std::max(0L, 8 * ((S + 639) / 5120) - 20);
        EXPECT_EQ(long(r.si.size()), ready) << "after " << S << " samples";
      }
    }
    le_a2x_finish(h);
    drain(h, r);
    EXPECT_EQ(int(r.si.size()), le_a2x_total(h));
    return r;
  };
  const Pulled small = run(100, true), block = run(5120, false);
  EXPECT_EQ(std::tie(small.si, small.target, small.driven), std::tie(block.si, block.target, block.driven));
  EXPECT_EQ(small.si.size(), (audio.size() + 639) / 640);
}

// Source-frame walks: wrap, ping-pong, backwards, continuing across utterances, NT = 1.
TEST(A2x, SourceIndexWalks) {
  ScratchDir d("a2x_walk");
  const std::string five = forgeAudioBundle(d, "nt5", {}, 5), one = forgeAudioBundle(d, "nt1", {}, 1);
  ScopedEnv w2v("W2V_ONNX", w2vOf(five).c_str());
  const std::vector<float> silence(12 * 640, 0.0f);
  // The first n source indices of an utterance; every target row is the identity's row of its index.
  auto walk = [&](le_a2x* h, int n) {
    le_a2x_push(h, silence.data(), int(silence.size()));
    le_a2x_finish(h);
    std::vector<int> si(static_cast<size_t>(n));
    std::vector<float> t(size_t(n) * 63), dr(size_t(n) * 63);
    EXPECT_EQ(le_a2x_pull(h, si.data(), t.data(), dr.data(), n), n);
    const le::forge::Params p = le::forge::sized(le_a2x_nt(h), 64, 48, 16, 4);
    for (int f = 0; f < n; ++f) {
      const float* row = t.data() + size_t(f) * 63;
      EXPECT_EQ(std::vector<float>(row, row + 63), le::forge::keypoints(p, si[f])) << f;
    }
    return si;
  };
  Handle h(five);
  ASSERT_TRUE(h.h) << le_a2x_last_error();
  EXPECT_EQ(le_a2x_nt(h), 5);
  EXPECT_EQ(walk(h, 12), (std::vector<int>{0, 1, 2, 3, 4, 0, 1, 2, 3, 4, 0, 1}));
  le_a2x_reset(h, 0, 1, 0);
  EXPECT_EQ(walk(h, 12), (std::vector<int>{0, 1, 2, 3, 4, 3, 2, 1, 0, 1, 2, 3}));
  le_a2x_reset(h, 2, -1, 1);
  EXPECT_EQ(walk(h, 6), (std::vector<int>{2, 1, 0, 4, 3, 2}));
  le_a2x_reset(h, 0, 1, 1);
  walk(h, 7);
  le_a2x_reset(h, -1, 1, 1);  // continues the walk: the next frame would have been index 2
  EXPECT_EQ(walk(h, 3), (std::vector<int>{2, 3, 4}));
  le_a2x_reset(h, 3, 1, 0);
  walk(h, 5);  // 3 4 3 2 1, next 0
  le_a2x_reset(h, -1, -1, 0);
  EXPECT_EQ(walk(h, 3), (std::vector<int>{0, 1, 2}));  // 0, then -1 mirrors to 1

  Handle single(one);
  ASSERT_TRUE(single.h) << le_a2x_last_error();
  le_a2x_reset(single, 0, -1, 0);
  EXPECT_EQ(walk(single, 4), (std::vector<int>{0, 0, 0, 0}));
}

// Silence priming: the decoder starts (and restarts after reset) from its state after N frames
// of the 8 s encoder's silence, in the stream and offline.
TEST(A2x, SilencePrimingStartsFromSilence) {
  ScratchDir d("a2x_prime");
  const std::string dir = forgeAudioBundle(d, "b");
  ScopedEnv w2v("W2V_ONNX", w2vOf(dir).c_str());
  ScopedEnv prime("LE_A2X_SILENCE_PRIME", "8");
  le_a2x* created = nullptr;
  const std::string err = le::testing::stderrOf([&] { created = le_a2x_create(dir.c_str(), 1); });
  Handle h(created);
  ASSERT_TRUE(h.h) << le_a2x_last_error();
  EXPECT_NE(err.find("[le_a2x] silence-primed AR state cached (8 frames)\n"), std::string::npos) << err;

  const std::vector<float> audio(longSpeech().begin(), longSpeech().begin() + 16000);
  const Reference ref = referenceOf(dir);
  Pulled first;
  expectAgreement(h, ref, audio, ref.featuresWindowed(audio), ref.featuresLegacy(audio), 8, &first);
  ASSERT_EQ(first.frames, 25);
  le_a2x_reset(h, 0, 1, 1);
  EXPECT_EQ(pullAll(h, audio).driven, first.driven);
}

// Refusals with their exact texts, and every entry point with null or negative arguments.
TEST(A2x, RefusalsAndBadArguments) {
  ScratchDir d("a2x_bad");
  const std::string dir = forgeAudioBundle(d, "b");
  ScopedEnv w2v("W2V_ONNX", w2vOf(dir).c_str());
  // One member of the bundle replaced (or, with no bytes, removed) at a time, then restored.
  auto refusal = [&](const std::string& member, const char* bytes, size_t n) {
    const std::string path = dir + "/" + member, kept = le::readFile(path);
    if (bytes) le::testing::writeFile(path, std::string(bytes, n)); else std::remove(path.c_str());
    le_a2x* h = le_a2x_create(dir.c_str(), 1);
    le_a2x_destroy(h);
    le::testing::writeFile(path, kept);
    return h ? std::string("(accepted)") : std::string(le_a2x_last_error());
  };
  const std::string meta = le::readFile(dir + "/a2x_meta.json");
  const char causal[] = "{\"h\": 32, \"left\": 6, \"layers\": 2}";
  const std::string shortPos(4 * 63, '\0');  // fewer than 2 rows of 32

  EXPECT_EQ(le_a2x_create(nullptr, 1), nullptr);
  EXPECT_STREQ(le_a2x_last_error(), "le_a2x_create: NULL bundle_dir");
  EXPECT_EQ(refusal("a2x_meta.json", nullptr, 0), "le_a2x_create: a2x_meta.json missing in " + dir);
  EXPECT_EQ(refusal("a2x_meta.json", causal, sizeof causal - 1),
            "le_a2x_create: meta lacks causal window/left (not a streaming a2x)");
  EXPECT_EQ(refusal("a2x_pos.f32", shortPos.data(), shortPos.size()), "le_a2x_create: pos/norm/xs_target read failed");
  const std::string badEnc = refusal("a2x_enc_stream.onnx", "not a model", 11);
  EXPECT_EQ(badEnc.rfind("le_a2x_create: ", 0), 0u);
  EXPECT_GT(badEnc.size(), std::string("le_a2x_create: ").size());
  {
    ScopedEnv none("W2V_ONNX", nullptr);
    EXPECT_EQ(refusal("a2x_meta.json", meta.data(), meta.size()), "le_a2x_create: $W2V_ONNX not set");
  }
  // The graph wins over the meta's width, with a warning.
  le::testing::writeFile(dir + "/a2x_meta.json", "{\"h\": 32, \"window\": 1, \"left\": 6, \"layers\": 2, \"width\": 1}");
  le_a2x* created = nullptr;
  EXPECT_NE(le::testing::stderrOf([&] { created = le_a2x_create(dir.c_str(), 1); })
                .find("[le_a2x] WARNING: a2x_meta width=1 but the encoder declares 1 output(s) — serving "
                      "the GRAPH (width=0). Repackage this bundle.\n"),
            std::string::npos);
  le::testing::writeFile(dir + "/a2x_meta.json", meta);
  Handle lying(created);
  ASSERT_TRUE(lying.h);
  EXPECT_EQ(le_a2x_width(lying), 0);

  // null handles and pointers, negative counts
  int si[4];
  float t[4 * 63], dr[4 * 63], wn[4] = {7, 7, 7, 7};
  const float sample = 0.5f;
  EXPECT_EQ(le_a2x_push(nullptr, &sample, 1), 0);
  EXPECT_STREQ(le_a2x_last_error(), "le_a2x_push: NULL handle");
  EXPECT_EQ(le_a2x_avail(nullptr), 0);
  EXPECT_EQ(le_a2x_pull(nullptr, si, t, dr, 4), 0);
  EXPECT_STREQ(le_a2x_last_error(), "le_a2x_pull: bad args");
  EXPECT_EQ(le_a2x_total(nullptr), -1);
  EXPECT_EQ(le_a2x_nt(nullptr), 0);
  EXPECT_EQ(le_a2x_width(nullptr), 0);
  EXPECT_EQ(le_a2x_deltas(nullptr, &sample, 1, t, 4), -1);
  le_a2x_finish(nullptr);
  le_a2x_reset(nullptr, 0, 1, 1);
  le_a2x_set_eager(nullptr, 1);
  le_a2x_destroy(nullptr);

  Handle h(dir);
  ASSERT_TRUE(h.h) << le_a2x_last_error();
  EXPECT_EQ(le_a2x_push(h, nullptr, 10), 0);
  EXPECT_STREQ(le_a2x_last_error(), "le_a2x_push: NULL samples");
  EXPECT_EQ(le_a2x_push(h, nullptr, -5), 1);
  EXPECT_EQ(le_a2x_push(h, &sample, 0), 1);
  EXPECT_EQ(le_a2x_pull(h, si, t, nullptr, 4), 0);
  le_a2x_push(h, longSpeech().data(), 3000);
  le_a2x_finish(h);
  EXPECT_EQ(le_a2x_total(h), 5);
  EXPECT_EQ(le_a2x_pull(h, si, t, dr, -1), 0);
  EXPECT_EQ(le_a2x_pull_wn(h, si, t, dr, wn, 4), 4);
  EXPECT_EQ(std::vector<float>(wn, wn + 4), std::vector<float>(4, 0.0f));  // no width output
  EXPECT_EQ(le_a2x_pull(h, si, t, dr, 4), 1);
  EXPECT_EQ(le_a2x_pull(h, si, t, dr, 4), 0);

  std::vector<float> out(4 * 63, 7.0f);
  EXPECT_EQ(le_a2x_deltas(h, longSpeech().data(), -1, out.data(), 4), 0);
  EXPECT_EQ(le_a2x_deltas(h, longSpeech().data(), 3000, out.data(), 4), -2);
  EXPECT_EQ(out, std::vector<float>(4 * 63, 7.0f));  // nothing written
  EXPECT_EQ(le_a2x_deltas(h, nullptr, 3000, out.data(), 5), -1);
  EXPECT_STREQ(le_a2x_last_error(), "le_a2x_deltas: bad args");
  EXPECT_EQ(le_a2x_deltas_wn(h, longSpeech().data(), 3000, out.data(), wn, 4), -3);
  EXPECT_STREQ(le_a2x_last_error(), "le_a2x_deltas_wn: encoder declares no wn output");
  EXPECT_EQ(le_a2x_w2v8_lazy(), 1);
}

}  // namespace
