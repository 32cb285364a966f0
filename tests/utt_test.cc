// ctest-label: threaded
// The utterance pipeline on forged bundles with its real threads: refusals at every entry point
// and the idle walk when no source can be made; real synthesised speech through the motion source
// (ramps after an end mark, end silence and an interrupt, the stats, teardown while speaking); and
// on the audio-to-expression source, speech frames that are exactly what the single-image path
// makes of the stream's triples, once and in order whatever the push size, paste mode and cadence.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "le/le.h"
#include "le/le_a2x.h"
#include "tests/bundle_fixture.h"
#include "tests/support/media.h"
#include "tests/support/speech.h"
#include "tests/support/utt_soak.h"
#include "tests/test_util2.h"
#include "tools/forge/director_graph.h"
#include "tools/forge/forge.h"
#include "tools/forge/onnx_builder.h"

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;
using le::testmedia::kSanitized;
using le::testmedia::ScopedEnv;
using Frame = le::testmedia::UttFrame;
using Pipeline = le::testmedia::UttPipeline;
constexpr uint32_t kIdle = LE_UTT_KIND_IDLE, kSpeech = LE_UTT_KIND_SPEECH, kRamp = LE_UTT_KIND_RAMP;

// "Say ah." under a sanitizer, where everything runs ten times slower.
const std::vector<int16_t>& clip() { return le::testmedia::sayAhClip(); }

int framesOf(size_t samples) { return int((samples + 639) / 640); }

// The motion source's bundle.
struct Bundle : le::testmedia::OpenBundle {
  Bundle() : OpenBundle("utt", le::testmedia::uttBundleParams(96, 80, 64, 5)) {}
  const std::string motionDir = path + "/motion";
};

// One utterance in pushes of `step` samples, optionally marked ended, then the pulls back to idle.
void speak(Pipeline& p, const std::vector<int16_t>& pcm, size_t step, bool endMark) {
  const size_t from = p.got.size();
  p.push(pcm, step);
  if (endMark) le_utt_end_utterance(p.u);
  p.untilIdle(from);
}

// Pulls the next frame, waiting up to 10 s for one.
bool pullWait(le_utt* u, std::vector<uint8_t>& out, le_utt_frame_info& info) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < until) {
    if (le_utt_pull_frame(u, out.data(), out.size(), &info)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

// Refusals at every entry point. No keypoint source can be made from the directory: ready turns
// -1 with the source's message, pushed audio is dropped, and the drive video's own frames keep
// coming in the idle walk.
TEST(UttTest, RefusalsIdleWalkAndTeardownWithFailingSource) {
  EXPECT_EQ(le_utt_create(nullptr, nullptr), nullptr);
  EXPECT_STREQ(le_utt_last_error(), "le_utt_create: NULL ctx/opts");
  Bundle b;
  le_utt_opts o{};
  EXPECT_EQ(le_utt_create(b.ctx, &o), nullptr);
  EXPECT_STREQ(le_utt_last_error(), "le_utt_create: opts.motion_dir required");
  EXPECT_EQ(le_utt_open(b.ctx, ""), nullptr);
  EXPECT_STREQ(le_utt_last_error(), "le_utt_create: opts.motion_dir required");

  int16_t pcm[4] = {};
  uint8_t byte = 0;
  le_utt_frame_info info{};
  le_utt_stats stats{};
  char text[8] = "x";
  uint64_t count = 7;
  EXPECT_EQ(le_utt_push_audio(nullptr, pcm, 4), 0);
  EXPECT_STREQ(le_utt_last_error(), "le_utt_push_audio: bad args");
  EXPECT_EQ(le_utt_pull_frame(nullptr, &byte, 1, &info), 0);
  EXPECT_STREQ(le_utt_last_error(), "le_utt_pull_frame: bad args");
  EXPECT_EQ(le_utt_ready(nullptr), -1);
  EXPECT_EQ(le_utt_frames_available(nullptr), 0);
  EXPECT_EQ(le_utt_render_status(nullptr, text, 8, &count), 0);
  le_utt_get_stats(nullptr, &stats);
  le_utt_end_utterance(nullptr);
  le_utt_interrupt(nullptr);
  le_utt_destroy(nullptr);

  // Drive frames of every source index, read before a pipeline takes the context.
  const int nt = le_nt(b.ctx);
  std::vector<std::vector<uint8_t>> drive;
  for (int si = 0; si < nt; ++si) {
    const uint8_t* f = le_target_frame(b.ctx, si);
    drive.emplace_back(f, f + b.frameBytes());
  }
  le_utt* u = le_utt_open(b.ctx, (b.dir / "missing").c_str());
  ASSERT_NE(u, nullptr) << le_utt_last_error();
  EXPECT_EQ(le_utt_push_audio(u, nullptr, 4), 0);
  EXPECT_STREQ(le_utt_last_error(), "le_utt_push_audio: bad args");
  EXPECT_EQ(le_utt_push_audio(u, pcm, -1), 0);
  EXPECT_STREQ(le_utt_last_error(), "le_utt_push_audio: bad args");
  EXPECT_EQ(le_utt_push_audio(u, pcm, 0), 1);
  EXPECT_EQ(le_utt_pull_frame(u, nullptr, 1, &info), 0);
  EXPECT_STREQ(le_utt_last_error(), "le_utt_pull_frame: bad args");
  le_utt_get_stats(u, nullptr);

  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (le_utt_ready(u) == 0 && std::chrono::steady_clock::now() < until)
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  EXPECT_EQ(le_utt_ready(u), -1);
  EXPECT_THAT(le_utt_last_error(), StartsWith("le_motion_create: "));

  std::vector<int16_t> speech(16000, 3000);
  ASSERT_EQ(le_utt_push_audio(u, speech.data(), int(speech.size())), 1);
  le_utt_end_utterance(u);

  std::vector<uint8_t> frame(b.frameBytes());
  for (int k = 0; k < 2 * nt + 3; ++k) {
    if (k == 3) {
      // One byte short: refused, and the same frame is delivered next.
      while (le_utt_frames_available(u) == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      const int avail = le_utt_frames_available(u);
      EXPECT_EQ(le_utt_pull_frame(u, frame.data(), frame.size() - 1, &info), 0);
      EXPECT_STREQ(le_utt_last_error(), "le_utt_pull_frame: buffer too small");
      EXPECT_GE(le_utt_frames_available(u), avail);
    }
    ASSERT_TRUE(pullWait(u, frame, info)) << "frame " << k;
    EXPECT_EQ(info.seq, uint64_t(k));
    EXPECT_EQ(info.kind, LE_UTT_KIND_IDLE);
    EXPECT_EQ(info.speechIndex, 0xFFFFFFFFu);
    ASSERT_EQ(info.sourceIndex, uint32_t(k % nt));
    EXPECT_EQ(frame, drive[size_t(k % nt)]) << "frame " << k;
    // Idle frames are made one at a time as the host drains them.
    EXPECT_LE(le_utt_frames_available(u), 1);
  }
  le_utt_stats s{};
  le_utt_get_stats(u, &s);
  EXPECT_EQ(s.framesPulled, uint64_t(2 * nt + 3));
  EXPECT_EQ(s.speechFramesPulled, 0u);
  EXPECT_EQ(s.firstFrames, 0u);
  EXPECT_EQ(s.state, 0);
  EXPECT_EQ(le_utt_render_status(u, text, 8, &count), 0);
  EXPECT_EQ(count, 0u);
  EXPECT_STREQ(text, "");
  le_utt_destroy(u);

  // Torn down with frames waiting in the ring; with the stage report asked for and the paste
  // inline, the report says it measured nothing. The context renders again afterwards.
  {
    ScopedEnv report("LE_UTT_STAGE_REPORT", "1");
    ScopedEnv inline_("LE_UTT_PIPELINE_PASTE", "0");
    u = le_utt_open(b.ctx, (b.dir / "missing").c_str());
    ASSERT_NE(u, nullptr);
    while (le_utt_frames_available(u) == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ::testing::internal::CaptureStderr();
    le_utt_destroy(u);
    EXPECT_THAT(::testing::internal::GetCapturedStderr(),
                HasSubstr("[le_utt-stage] MEASURED NOTHING — the stage report was asked for and the "
                          "paste-job counter never advanced (pipe=0 jobsB=0 jobsC=0, 0 speech frames "
                          "delivered)."));
  }
  const std::vector<float> xs = le::forge::keypoints(b.params, 1);
  EXPECT_NE(le_render_kp_crop(b.ctx, 1, xs.data(), xs.data()), nullptr) << le_last_error();
}

// The frames [from, to) hold one utterance of n speech frames (0 … n-1, in order, nothing
// between them), then `ramp` ramp frames walking on from the last speech frame, then idle
// frames walking on from there.
void expectUtterance(const std::vector<Frame>& f, size_t from, size_t to, int n, int ramp, int nt) {
  size_t i = from;
  while (i < to && f[i].info.kind == kIdle) ++i;
  for (int k = 0; k < n; ++k, ++i) {
    ASSERT_LT(i, to);
    ASSERT_EQ(f[i].info.kind, kSpeech) << "frame " << i;
    ASSERT_EQ(f[i].info.speechIndex, uint32_t(k)) << "frame " << i;
  }
  const uint32_t last = f[i - 1].info.sourceIndex;
  for (int k = 1; i < to; ++k, ++i) {
    ASSERT_EQ(f[i].info.kind, k <= ramp ? kRamp : kIdle) << "frame " << i;
    EXPECT_EQ(f[i].info.sourceIndex, (last + uint32_t(k)) % uint32_t(nt)) << "frame " << i;
    EXPECT_EQ(f[i].info.speechIndex, 0xFFFFFFFFu);
  }
}

void expectSequential(const std::vector<Frame>& f, size_t from, size_t to) {
  for (size_t i = from + 1; i < to; ++i) ASSERT_EQ(f[i].info.seq, f[i - 1].info.seq + 1);
}

// Without an end mark the utterance ends after the end silence; a custom ramp length is kept.
// An interrupt ramps back from the last pulled frame: interruptRampFrames ramp frames at the
// following source indices, then idle frames walking on.
TEST(UttSpeech, EndSilenceInterruptRampsNoTargetsAndTeardown) {
  Bundle b;
  const auto& pcm = clip();
  {
    le_utt_opts o{};
    o.motion_dir = b.motionDir.c_str();
    o.endSilence = 0.2;
    o.rampFrames = 3;
    Pipeline p(b.ctx, b.frameBytes(), o, Pipeline::Keep::Info);
    // One push: a loaded machine cannot stretch a gap between pushes into the end silence.
    speak(p, pcm, pcm.size(), false);
    expectUtterance(p.got, 0, p.got.size(), framesOf(pcm.size()), 3, b.nt());
    le_utt_stats s{};
    le_utt_get_stats(p.u, &s);
    EXPECT_EQ(s.speechFramesPulled, uint64_t(framesOf(pcm.size())));
    EXPECT_EQ(s.firstFrames, 1u);
    EXPECT_GT(s.firstFrameLatencyMs, 0);
    EXPECT_GT(s.renderMsAverage, 0);
    EXPECT_EQ(s.state, 0);

    const size_t from = p.got.size();
    std::vector<int16_t> twice(pcm);
    twice.insert(twice.end(), pcm.begin(), pcm.end());
    ASSERT_EQ(le_utt_push_audio(p.u, twice.data(), int(twice.size())), 1);
    p.untilSpeech(from, 3);
    const le_utt_frame_info last = p.got.back().info;
    ASSERT_EQ(last.kind, kSpeech);
    le_utt_interrupt(p.u);
    EXPECT_EQ(le_utt_frames_available(p.u), 0);
    const size_t cut = p.got.size();
    p.untilIdle(cut);
    ASSERT_GE(p.got.size(), cut + 7);
    for (size_t i = cut; i < p.got.size(); ++i) {
      const uint32_t k = uint32_t(i - cut + 1);
      EXPECT_EQ(p.got[i].info.kind, k <= 4 ? kRamp : kIdle) << "frame " << i;
      EXPECT_EQ(p.got[i].info.sourceIndex, (last.sourceIndex + k) % uint32_t(b.nt())) << "frame " << i;
    }
    // Frames discarded by the interrupt had taken their numbers: a gap there, none elsewhere.
    expectSequential(p.got, 0, cut);
    expectSequential(p.got, cut, p.got.size());
    EXPECT_GT(p.got[cut].info.seq, last.seq);
    // The run the interrupt cut short is no failure.
    uint64_t failures = 1;
    EXPECT_EQ(le_utt_render_status(p.u, nullptr, 0, &failures), 0);
    EXPECT_EQ(failures, 0u);
  }

  // Target keypoints that do not fit the context (another NT) load no ramp: speech ends straight
  // into idle frames. Teardown while speaking, with frames waiting, during warm-up and right after
  // an interrupt is clean, and leaves the context rendering.
  le::forge::Params four = b.params;
  four.nt = 4;
  const std::string m4 = le::testing::forgeMotionDir(b.dir / "m4", four);
  {
    le_utt_opts o{};
    o.motion_dir = m4.c_str();
    Pipeline p(b.ctx, b.frameBytes(), o, Pipeline::Keep::Info);
    speak(p, pcm, 2000, true);
    expectUtterance(p.got, 0, p.got.size(), framesOf(pcm.size()), 0, b.nt());
  }
  for (int phase = 0; phase < 4; ++phase) {
    le_utt_opts o{};
    o.motion_dir = m4.c_str();
    le_utt* u = le_utt_create(b.ctx, &o);
    ASSERT_NE(u, nullptr);
    if (phase > 0) {
      while (le_utt_ready(u) == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      le_utt_push_audio(u, pcm.data(), int(pcm.size()));
      // phase 1: speech frames queued in the ring; phase 2: mid-render; phase 3: a run cut
      if (phase != 2)
        while (le_utt_frames_available(u) < (phase == 1 ? 8 : 1))
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
      if (phase == 3) le_utt_interrupt(u);
    }
    le_utt_destroy(u);
    std::vector<float> xs(63, 0.f);
    ASSERT_NE(le_render_kp_crop(b.ctx, 0, xs.data(), xs.data()), nullptr) << le_last_error();
  }
}

// A steady chunk member that loads but fails every run: a Gather past the end of kp_driving,
// which only the run itself can see.
std::vector<uint8_t> brokenChunkDirector(int crop, int batch) {
  using le::forge::Attr;
  le::forge::OnnxBuilder b("broken_chunk");
  b.input("pooled64", {batch, 64, 32, 32});
  b.input("P_rgb", {batch, 3, crop, crop});
  b.input("kp_driving", {batch, 21, 3});
  b.input("kp_source", {batch, 21, 3});
  const std::string past = b.op("Gather", {"kp_driving", b.initI64("past_end", {1}, {100})}, {Attr::i("axis", 1)});
  const std::string zero = b.op("Mul", {b.op("ReduceSum", {past}), b.init("zero", {}, {0.f})});
  b.output(b.op("Add", {"P_rgb", zero}, {}, "", "rgb"), {batch, 3, crop, crop});
  return b.build();
}

// The pipeline's speaking bundle, with a steady chunk member that draws differently, so a test
// can see which frames it made, and one whose runs fail.
struct A2xBundle : le::testmedia::SpeakingBundle {
  A2xBundle() : SpeakingBundle("utt_a2x", forgeParams()) {}
  static le::forge::Params forgeParams() {
    le::forge::Params p = le::testmedia::uttBundleParams(96, 80, 64, 5);
    le::forge::DirectorGraphOptions g;
    g.crop = p.crop;
    g.batch = 24;
    g.sigma = 0.2f;
    p.extraMembers.push_back({"model_b24_probe.onnx", le::forge::forgeDirectorGraph(g)});
    p.extraMembers.push_back({"model_b24_broken.onnx", brokenChunkDirector(p.crop, 24)});
    return p;
  }
};

// Speech frames are byte for byte the single-image render + paste of the triples a separate
// stream makes of the same audio, started where the pipeline's walk stood; every one arrives
// once and in order, nothing between them, whatever the push size, paste mode and cadence.
TEST(UttA2x, SpeechFramesAreTheSingleImagePathOnceInOrder) {
  A2xBundle b;
  const auto& pcm = clip();
  const int n = framesOf(pcm.size());

  // Without the steady chunk renderer in small pushes, the paste on its own thread and inline,
  // the hybrid cadence and a fixed batch. With it, the whole clip at once: once speech is
  // rendering, the queue fills and 24 frames go through the chunk renderer in one call. The
  // probe chunk member shows which frames that was (its pixels differ). A chunk member whose
  // runs fail falls back to rendering those frames one by one: nothing lost, the failures
  // reported but not fatal.
  struct Mode {
    const char* steady;
    const char* pipelined;  // null: the default
    int batch;
    size_t push;
  } modes[] = {{"-", "1", -2, 7},
               {"-", "0", 3, 333},
               {"", nullptr, 0, pcm.size()},
               {"b24_probe", nullptr, 0, pcm.size()},
               {"b24_broken", nullptr, 0, pcm.size()}};
  // Sanitized: the short clip has fewer than 24 frames for the chunk members.
  for (const Mode& m : kSanitized ? std::vector<Mode>{modes[0], modes[2]} : std::vector<Mode>(modes, modes + 5)) {
    const bool probe = std::string(m.steady) == "b24_probe", broken = std::string(m.steady) == "b24_broken";
    SCOPED_TRACE(std::string("steady renderer '") + m.steady + "' push " + std::to_string(m.push));
    ScopedEnv paste("LE_UTT_PIPELINE_PASTE", m.pipelined);
    le_utt_opts o{};
    o.motion_dir = b.path.c_str();
    o.steadyModel = m.steady;
    o.batch = m.batch;
    char status[256];
    uint64_t failures = 0;
    std::vector<Frame> got;
    {  // the pipeline gives the context back before the reference renders on it
      Pipeline p(b.ctx, b.frameBytes(), o);
      speak(p, pcm, m.push, true);
      ASSERT_EQ(le_utt_render_status(p.u, status, sizeof status, &failures), 0) << status;
      got = std::move(p.got);
    }
    if (broken) {
      EXPECT_THAT(status, StartsWith("ep=cpu b24 chunk: "));
      EXPECT_GE(failures, 2u);  // its warm-up run and at least one chunk
    } else {
      EXPECT_EQ(failures, 0u) << status;
    }
    for (size_t i = 1; i < got.size(); ++i) ASSERT_EQ(got[i].info.seq, got[i - 1].info.seq + 1);
    const auto isSpeech = [](const Frame& f) { return f.info.kind == kSpeech; };
    ASSERT_EQ(std::count_if(got.begin(), got.end(), isSpeech), n);
    const Frame* speech = &*std::find_if(got.begin(), got.end(), isSpeech);
    for (int k = 0; k < n; ++k) ASSERT_EQ(speech[k].info.speechIndex, uint32_t(k)) << "frame " << k;

    const auto [si, xs, xd] = le::testmedia::a2xTriples(b.path, int(speech[0].info.sourceIndex), pcm, n);

    std::vector<uint8_t> want(b.frameBytes());
    int differing = 0, chunked = 0;
    for (int k = 0; k < n && differing < 3; ++k) {
      ASSERT_EQ(speech[k].info.sourceIndex, uint32_t(si[size_t(k)])) << "frame " << k;
      const float* crop = le_render_kp_crop(b.ctx, si[size_t(k)], &xs[size_t(k) * 63], &xd[size_t(k) * 63]);
      ASSERT_NE(crop, nullptr) << le_last_error();
      ASSERT_EQ(le_paste_crop(b.ctx, si[size_t(k)], crop, want.data(), want.size()), 1) << le_last_error();
      const bool same = speech[k].rgb == want;
      if (probe) {
        chunked += !same;
      } else if (!same) {
        ++differing;
        ADD_FAILURE() << "frame " << k << " differs from the single-image path";
      }
    }
    if (probe) {
      EXPECT_EQ(chunked, 24);
    }
  }
}

}  // namespace
