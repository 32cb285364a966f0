// The audio-to-expression stream on the 8 s window: the forged bundles here carry no windowed
// pair, so this process serves the legacy path. The shared encoder is process-wide and the first
// successful load wins, so the load failures come first, in one test.
#include <gtest/gtest.h>

#include <string>
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

AudioOptions legacy(int window = 1) {
  AudioOptions o;
  o.windowedPair = false;
  o.window = window;
  return o;
}

std::string createError(const std::string& dir) {
  le_a2x* h = le_a2x_create(dir.c_str(), 1);
  le_a2x_destroy(h);
  return h ? "(accepted)" : le_a2x_last_error();
}

// Encoder files that do not load, the CUDA request on a runtime without CUDA, then the first
// good load, which every later handle shares whatever W2V_ONNX it names.
TEST(A2xLegacy, EncoderLoadFailuresThenFirstLoadWins) {
  ScratchDir d("a2xl_load");
  const std::string dir = forgeAudioBundle(d, "b", legacy());
  le::testing::writeFile(d / "text/enc.onnx", "this is not a model\n");

  {
    ScopedEnv w2v("W2V_ONNX", (d / "nothing/enc.onnx").c_str());
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(createError(dir), "le_a2x_create: shared w2v load failed");
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("[le_a2x] short-window audio frontend NOT DEPLOYED on this plane"), std::string::npos);
  }
  {
    ScopedEnv w2v("W2V_ONNX", (d / "text/enc.onnx").c_str());
    EXPECT_EQ(createError(dir), "le_a2x_create: shared w2v load failed");
  }
  {
    ScopedEnv none("W2V_ONNX", nullptr);
    EXPECT_EQ(le_a2x_preload_w2v(nullptr), 0);
    EXPECT_STREQ(le_a2x_last_error(), "le_a2x_preload_w2v: no path and $W2V_ONNX unset");
    EXPECT_EQ(le_a2x_preload_w2v((d / "text/enc.onnx").c_str()), 0);
    EXPECT_EQ(std::string(le_a2x_last_error()).rfind("le_a2x_preload_w2v: ", 0), 0u);
  }

  // Only "1" asks for CUDA; this runtime has none, so the encoder loads on the CPU.
  Ort::SessionOptions o;
  {
    ScopedEnv cuda("LE_A2X_CUDA", "true");
    EXPECT_EQ(le::testing::stderrOf([&] { le_a2x_maybe_cuda(o, "w2v"); }), "");
  }
  ScopedEnv cuda("LE_A2X_CUDA", "1");
  EXPECT_EQ(le::testing::stderrOf([&] { le_a2x_maybe_cuda(o, "enc/dec"); }), "");
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(le_a2x_preload_w2v(w2vOf(dir).c_str()), 1) << le_a2x_last_error();
  const std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(err.rfind("[le_a2x] CUDA EP append failed (w2v): ", 0), 0u) << err;
  EXPECT_NE(err.find(" -- falling back to CPU\n"), std::string::npos) << err;

  // Loaded once: a handle naming a missing encoder still gets the first one, and streams.
  ScopedEnv other("W2V_ONNX", (d / "nothing/enc.onnx").c_str());
  le_a2x* h = le_a2x_create(dir.c_str(), 1);
  ASSERT_TRUE(h) << le_a2x_last_error();
  const Pulled p = pullAll(h, std::vector<float>(longSpeech().begin(), longSpeech().begin() + 9000));
  EXPECT_EQ(p.frames, 15) << le_a2x_last_error();
  le_a2x_destroy(h);
}

// Streamed pulls (chunks of 64, clipped at the positional table) and offline deltas (chunks of
// 24) against the reference, over a clip longer than a window and than the table.
TEST(A2xLegacy, StreamAndOfflineAgreeWithReference) {
  ScratchDir d("a2xl_ref");
  const AudioOptions o = legacy();
  const std::string dir = forgeAudioBundle(d, "b", o);
  ScopedEnv w2v("W2V_ONNX", w2vOf(dir).c_str());
  Handle h(dir, 0);
  ASSERT_TRUE(h.h) << le_a2x_last_error();
  const Reference ref(dir, w2vOf(dir), o.window, o.left, o.layers);
  const std::vector<float> feat = ref.featuresLegacy(longSpeech());
  expectAgreement(h, ref, longSpeech(), feat, feat);
}

// An open utterance whose look-ahead (2 x 2 frames) exceeds the right context (2): the ready
// count lets the encoder read up to the live horizon while the window has produced features
// only up to horizon - right context. Those two rows hold zeros (never computed, never stale);
// the pulls equal the reference fed exactly that. Also the 5119-sample edge of the cadence.
TEST(A2xLegacy, OpenUtteranceReadsOnlyComputedOrZeroRows) {
  ScratchDir d("a2xl_open");
  const AudioOptions o = legacy(2);
  const std::string dir = forgeAudioBundle(d, "b", o);
  ScopedEnv w2v("W2V_ONNX", w2vOf(dir).c_str());
  ScopedEnv right("LE_A2X_W2V_RIGHT", "2");
  Handle h(dir);
  ASSERT_TRUE(h.h) << le_a2x_last_error();
  const std::vector<float> audio(longSpeech().begin() + 8000, longSpeech().begin() + 8000 + 3 * 5120);
  le_a2x_push(h, audio.data(), int(audio.size()));
  Pulled open;
  drain(h, open);
  ASSERT_EQ(open.si.size(), 20u) << le_a2x_last_error();  // horizon 24 - look-ahead 4
  EXPECT_EQ(le_a2x_total(h), -1);

  const Reference ref(dir, w2vOf(dir), o.window, o.left, o.layers);
  std::vector<float> feat(24 * 9216, 0.0f), got(open.driven.size());
  Reference::takeRows(ref.window8(audio, 0), 0, 0, 22, feat);
  for (size_t i = 0; i < got.size(); ++i) got[i] = open.driven[i] - open.target[i];
  const std::vector<float> want = ref.deltas(feat, 24, 24, true);  // one chunk: frames 0..19 read up to 24
  EXPECT_LT(maxAbsDiff(got, std::vector<float>(want.begin(), want.begin() + 20 * 63)), 1e-6);

  // After finish every frame is ready and the window is run again with the whole audio.
  le_a2x_finish(h);
  EXPECT_EQ(le_a2x_total(h), 24);
  drain(h, open);
  EXPECT_EQ(open.si.size(), 24u);

  // No look-ahead, right context 12: 5119 samples give a horizon of 8 and nothing ready.
  const std::string flat = forgeAudioBundle(d, "flat", legacy(0));
  ScopedEnv twelve("LE_A2X_W2V_RIGHT", nullptr);
  Handle f(flat);
  ASSERT_TRUE(f.h) << le_a2x_last_error();
  le_a2x_push(f, longSpeech().data(), 5119);
  EXPECT_EQ(le_a2x_avail(f), 0);
  Pulled none;
  drain(f, none);
  EXPECT_TRUE(none.si.empty());
  le_a2x_finish(f);
  EXPECT_EQ(le_a2x_avail(f), 8);
  drain(f, none);
  EXPECT_EQ(none.si.size(), 8u);
}

}  // namespace
