// ctest-label: threaded
// The utterance pipeline on forged bundles with its real threads: refusals at every entry point,
// the idle walk, a source that cannot be created, the pull buffer, teardown with frames waiting.
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
#include "tests/support/utt_soak.h"
#include "tools/forge/forge.h"

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

le::forge::Params smallParams() {
  le::forge::Params p = le::forge::sized(5, 96, 80, 64, 6);
  p.directors = true;
  return p;
}

struct Bundle : le::testmedia::OpenBundle {
  Bundle() : OpenBundle("utt", smallParams()) {}
  // Drive frames of every source index, read before a pipeline takes the context.
  std::vector<std::vector<uint8_t>> driveFrames() const {
    std::vector<std::vector<uint8_t>> f;
    for (int si = 0; si < le_nt(ctx); ++si) {
      const uint8_t* p = le_target_frame(ctx, si);
      f.emplace_back(p, p + frameBytes());
    }
    return f;
  }
};

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

  const auto drive = b.driveFrames();
  const int nt = le_nt(b.ctx);
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
    le::testmedia::ScopedEnv report("LE_UTT_STAGE_REPORT", "1");
    le::testmedia::ScopedEnv inline_("LE_UTT_PIPELINE_PASTE", "0");
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

}  // namespace
