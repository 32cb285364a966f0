// The audio-to-expression stream on the 8 s window: the forged bundles here carry no windowed
// pair, so this process serves the legacy path. The shared encoder is process-wide and the first
// successful load wins, so the load failures come first, in one test.
#include <gtest/gtest.h>

#include <cmath>
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
  const std::vector<uint8_t> model = le::testmedia::readBytes(w2vOf(dir));
  le::testing::writeFile(d / "cut/enc.onnx", std::string(model.begin(), model.begin() + long(model.size() / 2)));
  le::testing::writeFile(d / "text/enc.onnx", "this is not a model\n");

  {
    ScopedEnv w2v("W2V_ONNX", (d / "nothing/enc.onnx").c_str());
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(createError(dir), "le_a2x_create: shared w2v load failed");
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("[le_a2x] short-window audio frontend NOT DEPLOYED on this plane"), std::string::npos);
  }
  for (const char* bad : {"cut/enc.onnx", "text/enc.onnx"}) {
    ScopedEnv w2v("W2V_ONNX", (d / bad).c_str());
    EXPECT_EQ(createError(dir), "le_a2x_create: shared w2v load failed") << bad;
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
  const std::vector<float>& audio = longSpeech();
  const int frames = static_cast<int>((audio.size() + 639) / 640);
  le_a2x* h = le_a2x_create(dir.c_str(), 0);
  ASSERT_TRUE(h) << le_a2x_last_error();
  const Pulled p = pullAll(h, audio);
  ASSERT_EQ(p.frames, frames) << le_a2x_last_error();
  std::vector<float> got(p.driven.size()), out(size_t(frames) * 63);
  for (size_t i = 0; i < got.size(); ++i) got[i] = p.driven[i] - p.target[i];
  ASSERT_EQ(le_a2x_deltas(h, audio.data(), int(audio.size()), out.data(), frames), frames);
  le_a2x_destroy(h);

  const Reference ref(dir, w2vOf(dir), o.window, o.left, o.layers);
  const std::vector<float> feat = ref.featuresLegacy(audio);
  std::vector<float> enc, wn, prev(63, 0.0f), hid(size_t(ref.hidden()), 0.0f);
  ref.encode(feat, frames, 64, true, enc, wn);
  EXPECT_LT(maxAbsDiff(got, ref.decode(enc, frames, prev, hid)), 1e-6);
  ref.encode(feat, frames, 24, false, enc, wn);
  prev.assign(63, 0.0f);
  hid.assign(size_t(ref.hidden()), 0.0f);
  EXPECT_LT(maxAbsDiff(out, ref.decode(enc, frames, prev, hid)), 1e-6);
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
  le_a2x* h = le_a2x_create(dir.c_str(), 1);
  ASSERT_TRUE(h) << le_a2x_last_error();
  const std::vector<float> audio(longSpeech().begin() + 8000, longSpeech().begin() + 8000 + 3 * 5120);
  le_a2x_push(h, audio.data(), int(audio.size()));
  std::vector<int> si(32);
  std::vector<float> t(32 * 63), dr(32 * 63);
  const int n = le_a2x_pull(h, si.data(), t.data(), dr.data(), 32);
  ASSERT_EQ(n, 20) << le_a2x_last_error();  // horizon 24 - look-ahead 4
  EXPECT_EQ(le_a2x_total(h), -1);

  const Reference ref(dir, w2vOf(dir), o.window, o.left, o.layers);
  std::vector<float> feat(24 * 9216, 0.0f);
  Reference::takeRows(ref.window8(audio, 0), 0, 0, 22, feat);
  std::vector<float> enc, wn, prev(63, 0.0f), hid(size_t(ref.hidden()), 0.0f);
  ref.encode(feat, 24, 24, true, enc, wn);  // one chunk: frames 0..19 with input up to 24
  const std::vector<float> want = ref.decode(enc, 20, prev, hid);
  for (int f = 0; f < n; ++f)
    for (int k = 0; k < 63; ++k)
      EXPECT_NEAR(dr[size_t(f) * 63 + k] - t[size_t(f) * 63 + k], want[size_t(f) * 63 + k], 1e-6) << f;

  // After finish every frame is ready and the window is run again with the whole audio.
  le_a2x_finish(h);
  EXPECT_EQ(le_a2x_total(h), 24);
  EXPECT_EQ(le_a2x_pull(h, si.data(), t.data(), dr.data(), 32), 4);
  le_a2x_destroy(h);

  // No look-ahead, right context 12: 5119 samples give a horizon of 8 and nothing ready.
  const std::string flat = forgeAudioBundle(d, "flat", legacy(0));
  ScopedEnv twelve("LE_A2X_W2V_RIGHT", nullptr);
  h = le_a2x_create(flat.c_str(), 1);
  ASSERT_TRUE(h) << le_a2x_last_error();
  le_a2x_push(h, longSpeech().data(), 5119);
  EXPECT_EQ(le_a2x_avail(h), 0);
  EXPECT_EQ(le_a2x_pull(h, si.data(), t.data(), dr.data(), 32), 0);
  le_a2x_finish(h);
  EXPECT_EQ(le_a2x_avail(h), 8);
  EXPECT_EQ(le_a2x_pull(h, si.data(), t.data(), dr.data(), 32), 8);
  le_a2x_destroy(h);
}

}  // namespace
