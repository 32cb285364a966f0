// ctest-label: threaded
// The utterance pipeline speaking real synthesised speech through the motion source (the push
// sizes, paste modes and cadences are run on the audio-to-expression source): the ramps after an
// end mark, end silence and an interrupt, the stats; teardown while speaking.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
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
#include "tools/forge/forge.h"

namespace {

constexpr uint32_t kIdle = LE_UTT_KIND_IDLE, kSpeech = LE_UTT_KIND_SPEECH, kRamp = LE_UTT_KIND_RAMP;

struct Bundle : le::testmedia::OpenBundle {
  Bundle() : OpenBundle("utt_speech", le::testmedia::uttBundleParams(96, 80, 64, 5)) {}
  const std::string motionDir = path + "/motion";
};

using le::testmedia::UttFrame;

// Sanitized builds run ten times slower: a shorter sentence there.
constexpr auto clip = &le::testmedia::sayAhClip;

int framesOf(size_t samples) { return int((samples + 639) / 640); }

// A pipeline that keeps only the frames' information.
struct Pipeline : le::testmedia::UttPipeline {
  Pipeline(const Bundle& b, const le_utt_opts& o) : UttPipeline(b.ctx, b.frameBytes(), o, false) {}
  // One utterance in pushes of `step` samples, then the pulls back to idle.
  void speak(const std::vector<int16_t>& pcm, size_t step, bool endMark) {
    const size_t from = got.size();
    push(pcm, step);
    if (endMark) le_utt_end_utterance(u);
    untilIdle(from);
  }
};

// The frames [from, to) hold one utterance of n speech frames (0 … n-1, in order, nothing
// between them), then `ramp` ramp frames walking on from the last speech frame, then idle
// frames walking on from there.
void expectUtterance(const std::vector<UttFrame>& f, size_t from, size_t to, int n, int ramp, int nt) {
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

void expectSequential(const std::vector<UttFrame>& f, size_t from, size_t to) {
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
    Pipeline p(b, o);
    // One push: a loaded machine cannot stretch a gap between pushes into the end silence.
    p.speak(pcm, pcm.size(), false);
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
    while (std::count_if(p.got.begin() + long(from), p.got.end(),
                         [](const UttFrame& f) { return f.info.kind == kSpeech; }) < 3)
      if (!p.pull()) p.nap();
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
    Pipeline p(b, o);
    p.speak(pcm, 2000, true);
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

}  // namespace
