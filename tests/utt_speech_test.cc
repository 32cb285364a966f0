// ctest-label: threaded
// The utterance pipeline speaking real synthesised speech through its keypoint sources: every
// speech frame once and in order whatever the push size, paste mode and cadence; the ramps after
// an end mark, end silence and an interrupt; teardown while speaking.
#include <gmock/gmock.h>
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
#include "tools/forge/forge.h"
#include "tools/forge/forge_motion.h"

namespace {

using le::testmedia::ScopedEnv;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kIdle = LE_UTT_KIND_IDLE, kSpeech = LE_UTT_KIND_SPEECH, kRamp = LE_UTT_KIND_RAMP;

struct Bundle : le::testmedia::OpenBundle {
  Bundle() : OpenBundle("utt_speech", le::testmedia::uttBundleParams(96, 80, 64, 5)) {}
  const std::string motionDir = path + "/motion";
};

using le::testmedia::kPatience;
using le::testmedia::kSanitized;

// Sanitized builds run ten times slower: a shorter sentence there.
constexpr auto clip = &le::testmedia::sayAhClip;

int framesOf(size_t samples) { return int((samples + 639) / 640); }

struct Pipeline {
  le_utt* u = nullptr;
  std::vector<uint8_t> buf;
  std::vector<le_utt_frame_info> got;
  Pipeline(const Bundle& b, le_utt_opts o) : buf(b.frameBytes()) {
    u = le_utt_create(b.ctx, &o);
    if (!u) throw std::runtime_error(le_utt_last_error());
    const auto until = Clock::now() + kPatience;
    while (le_utt_ready(u) == 0 && Clock::now() < until) pullAll();
    if (le_utt_ready(u) != 1) throw std::runtime_error(std::string("not ready: ") + le_utt_last_error());
  }
  ~Pipeline() { le_utt_destroy(u); }
  // Pulls what waits; with sleep, naps briefly when nothing did.
  void pullAll(bool sleep = true) {
    le_utt_frame_info info{};
    bool any = false;
    while (le_utt_pull_frame(u, buf.data(), buf.size(), &info)) {
      got.push_back(info);
      any = true;
    }
    if (!any && sleep) std::this_thread::sleep_for(std::chrono::microseconds(300));
  }
  // Pulls until `idle` idle frames followed speech or ramp frames pulled from index `from` on.
  void pullUntilIdle(size_t from, int idle = 3) {
    const auto until = Clock::now() + kPatience;
    for (;;) {
      int trailing = 0;
      bool spoke = false;
      for (size_t i = got.size(); i > from; --i) {
        if (got[i - 1].kind != kIdle) {
          spoke = true;
          break;
        }
        ++trailing;
      }
      if (spoke && trailing >= idle) return;
      ASSERT_LT(Clock::now(), until) << "the pipeline did not return to idle";
      pullAll();
    }
  }
  void speak(const std::vector<int16_t>& pcm, size_t push, bool endMark) {
    const size_t from = got.size();
    for (size_t at = 0; at < pcm.size(); at += push) {
      ASSERT_EQ(le_utt_push_audio(u, pcm.data() + at, int(std::min(push, pcm.size() - at))), 1);
      pullAll(false);
    }
    if (endMark) le_utt_end_utterance(u);
    pullUntilIdle(from);
  }
};

// The frames from `from` on hold one utterance of n speech frames (0 … n-1, in order, nothing
// between them), then `ramp` ramp frames walking on from the last speech frame, then idle
// frames walking on from there. Returns the index after the utterance's last idle frame.
void expectUtterance(const std::vector<le_utt_frame_info>& f, size_t from, int n, int ramp, int nt) {
  size_t i = from;
  while (i < f.size() && f[i].kind == kIdle) ++i;
  for (int k = 0; k < n; ++k, ++i) {
    ASSERT_LT(i, f.size());
    ASSERT_EQ(f[i].kind, kSpeech) << "frame " << i;
    ASSERT_EQ(f[i].speechIndex, uint32_t(k)) << "frame " << i;
  }
  const uint32_t last = f[i - 1].sourceIndex;
  for (int k = 1; i < f.size(); ++k, ++i) {
    ASSERT_EQ(f[i].kind, k <= ramp ? kRamp : kIdle) << "frame " << i;
    EXPECT_EQ(f[i].sourceIndex, (last + uint32_t(k)) % uint32_t(nt)) << "frame " << i;
    EXPECT_EQ(f[i].speechIndex, 0xFFFFFFFFu);
  }
}

void expectSequential(const std::vector<le_utt_frame_info>& f) {
  for (size_t i = 1; i < f.size(); ++i) ASSERT_EQ(f[i].seq, f[i - 1].seq + 1);
}

// Every speech frame exactly once and in order, for push sizes from one sample to the whole
// clip, with the paste inline and on its own thread, with and without the hybrid cadence.
TEST(UttSpeech, EveryFrameOnceInOrderOnMotion) {
  Bundle b;
  const auto& pcm = clip();
  struct Mode {
    const char* pipelined;
    int batch;
    size_t pushA, pushB;
  } modes[] = {{"0", -1, 1, pcm.size()}, {"1", -2, 640, 4001}, {"1", 3, 333, pcm.size()}};
  // Sanitized builds: the paste thread with the hybrid cadence only.
  for (const Mode& m : kSanitized ? std::vector<Mode>{modes[1]} : std::vector<Mode>(modes, modes + 3)) {
    SCOPED_TRACE(std::string("pipelined ") + m.pipelined + " batch " + std::to_string(m.batch));
    ScopedEnv paste("LE_UTT_PIPELINE_PASTE", m.pipelined);
    le_utt_opts o{};
    o.motion_dir = b.motionDir.c_str();
    o.batch = m.batch;
    Pipeline p(b, o);
    p.speak(pcm, m.pushA, true);
    const size_t second = p.got.size();
    p.speak(pcm, m.pushB, true);
    expectSequential(p.got);
    expectUtterance(std::vector<le_utt_frame_info>(p.got.begin(), p.got.begin() + long(second)), 0,
                    framesOf(pcm.size()), 6, b.nt());
    expectUtterance(p.got, second, framesOf(pcm.size()), 6, b.nt());
    le_utt_stats s{};
    le_utt_get_stats(p.u, &s);
    EXPECT_EQ(s.speechFramesPulled, uint64_t(2 * framesOf(pcm.size())));
    EXPECT_EQ(s.firstFrames, 2u);
    EXPECT_GT(s.firstFrameLatencyMs, 0);
    EXPECT_GT(s.renderMsAverage, 0);
    EXPECT_EQ(s.state, 0);
    EXPECT_EQ(le_utt_render_status(p.u, nullptr, 0, nullptr), 0);
  }
}

// Without an end mark the utterance ends after the end silence; a custom ramp length is kept.
// An interrupt ramps back from the last pulled frame: interruptRampFrames ramp frames at the
// following source indices, then idle frames walking on.
TEST(UttSpeech, EndSilenceAndInterruptRamps) {
  Bundle b;
  const auto& pcm = clip();
  le_utt_opts o{};
  o.motion_dir = b.motionDir.c_str();
  o.endSilence = 0.2;
  o.rampFrames = 3;
  Pipeline p(b, o);
  // One push: a loaded machine cannot stretch a gap between pushes into the end silence.
  p.speak(pcm, pcm.size(), false);
  expectUtterance(p.got, 0, framesOf(pcm.size()), 3, b.nt());

  const size_t from = p.got.size();
  std::vector<int16_t> twice(pcm);
  twice.insert(twice.end(), pcm.begin(), pcm.end());
  ASSERT_EQ(le_utt_push_audio(p.u, twice.data(), int(twice.size())), 1);
  const auto until = Clock::now() + kPatience;
  while (std::count_if(p.got.begin() + long(from), p.got.end(),
                       [](const le_utt_frame_info& f) { return f.kind == kSpeech; }) < 3) {
    ASSERT_LT(Clock::now(), until);
    if (le_utt_pull_frame(p.u, p.buf.data(), p.buf.size(), &p.got.emplace_back()) == 0) {
      p.got.pop_back();
      std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
  }
  const le_utt_frame_info last = p.got.back();
  ASSERT_EQ(last.kind, kSpeech);
  le_utt_interrupt(p.u);
  EXPECT_EQ(le_utt_frames_available(p.u), 0);
  const size_t cut = p.got.size();
  p.pullUntilIdle(cut);
  ASSERT_GE(p.got.size(), cut + 7);
  for (size_t i = cut; i < p.got.size(); ++i) {
    const uint32_t k = uint32_t(i - cut + 1);
    EXPECT_EQ(p.got[i].kind, k <= 4 ? kRamp : kIdle) << "frame " << i;
    EXPECT_EQ(p.got[i].sourceIndex, (last.sourceIndex + k) % uint32_t(b.nt())) << "frame " << i;
  }
  // Frames discarded by the interrupt had taken their numbers: a gap there, none elsewhere.
  expectSequential(std::vector<le_utt_frame_info>(p.got.begin(), p.got.begin() + long(cut)));
  expectSequential(std::vector<le_utt_frame_info>(p.got.begin() + long(cut), p.got.end()));
  EXPECT_GT(p.got[cut].seq, last.seq);
  // The run the interrupt cut short is no failure.
  uint64_t failures = 1;
  EXPECT_EQ(le_utt_render_status(p.u, nullptr, 0, &failures), 0);
  EXPECT_EQ(failures, 0u);
}

// Target keypoints that do not fit the context (another NT) load no ramp: speech ends straight
// into idle frames. Teardown while speaking, with frames waiting, during warm-up and right after
// an interrupt is clean, and leaves the context rendering.
TEST(UttSpeech, NoTargetsNoRampAndTeardownWhileSpeaking) {
  Bundle b;
  le::forge::Params four = b.params;
  four.nt = 4;
  for (const le::forge::Member& m : le::forge::motionMembers(four))
    le::testing::writeFile(b.dir / ("m4/" + m.name), std::string(m.bytes.begin(), m.bytes.end()));
  const std::string m4 = b.dir / "m4/motion";
  const auto& pcm = clip();
  {
    le_utt_opts o{};
    o.motion_dir = m4.c_str();
    Pipeline p(b, o);
    p.speak(pcm, 2000, true);
    expectUtterance(p.got, 0, framesOf(pcm.size()), 0, b.nt());
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
