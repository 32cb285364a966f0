// ctest-label: threaded
// Handles on several threads at once give exactly the frames of one handle on one thread: motion
// handles (each thread has its own feature scratch) and stream handles (which share the
// process-wide speech encoders).
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "tests/a2x_fixture.h"
#include "tests/support/media.h"
#include "tests/test_util2.h"

namespace {

using namespace le::testa2x;
using le::testing::ScratchDir;
using le::testmedia::ScopedEnv;

// fn(0) … fn(n - 1), each on a thread of its own, all at once.
template <class R, class Fn>
std::vector<R> onThreads(int n, const Fn& fn) {
  std::vector<R> runs(static_cast<size_t>(n));
  std::vector<std::thread> threads;
  for (int i = 0; i < n; ++i) threads.emplace_back([&, i] { runs[size_t(i)] = fn(i); });
  for (std::thread& t : threads) t.join();
  return runs;
}

struct Spoken : le::testing::MotionFrames {
  std::string error;
};

// Pushes audio in uneven pieces, pulling whatever is ready after each.
Spoken speak(const std::string& dir, const std::vector<float>& audio) {
  Spoken r;
  le_motion* m = le_motion_create(dir.c_str(), 1, nullptr);
  if (!m) {
    r.error = le_motion_last_error();
    return r;
  }
  for (size_t at = 0; at < audio.size(); at += 3001) {
    le_motion_push(m, audio.data() + at, static_cast<int>(std::min<size_t>(3001, audio.size() - at)));
    le::testing::pullMotion(m, r, 8);
  }
  le_motion_finish(m);
  le::testing::pullMotion(m, r, 8);
  le_motion_destroy(m);
  return r;
}

TEST(MotionThreads, HandlesOnSeveralThreadsMatchOneThread) {
  ScratchDir d("motion_threads");
  le::forge::Params p;
  p.nt = 3;
  const std::string dir = le::testing::forgeMotionDir(d.path(), p);
  const std::vector<float> audio(longSpeech().begin(), longSpeech().begin() + 60000);
  const Spoken ref = speak(dir, audio);
  ASSERT_EQ(ref.error, "");
  ASSERT_EQ(ref.si.size(), (audio.size() + 639) / 640);
  for (const Spoken& r : onThreads<Spoken>(3, [&](int) { return speak(dir, audio); })) {
    EXPECT_EQ(r.error, "");
    EXPECT_EQ(r.si, ref.si);
    EXPECT_EQ(r.xs, ref.xs);
    EXPECT_EQ(r.xd, ref.xd);
  }
}

struct Outcome : Pulled {
  std::vector<float> offline;
  std::string error;
};

// Six seconds of speech pushed in pieces of `step` samples with pulls in between, then the offline
// deltas of its first four seconds.
Outcome stream(const std::string& dir, int step) {
  Outcome r;
  le_a2x* h = le_a2x_create(dir.c_str(), 1);
  if (!h) {
    r.error = le_a2x_last_error();
    return r;
  }
  const std::vector<float> a(longSpeech().begin(), longSpeech().begin() + 96000);
  for (size_t at = 0; at < a.size(); at += size_t(step)) {
    le_a2x_push(h, a.data() + at, static_cast<int>(std::min(a.size() - at, size_t(step))));
    le_a2x_avail(h);
    drain(h, r);
  }
  le_a2x_finish(h);
  drain(h, r);
  r.offline.resize(100 * 63);
  if (le_a2x_deltas(h, a.data(), 64000, r.offline.data(), 100) != 100) r.error = le_a2x_last_error();
  le_a2x_destroy(h);
  return r;
}

TEST(A2xThreads, HandlesOnThreadsMatchOneThread) {
  ScratchDir d("a2x_threads");
  const std::string dir = forgeAudioBundle(d, "b");
  ScopedEnv w2v("W2V_ONNX", (dir + "/" + le::forge::kW2vMember).c_str());
  longSpeech();  // synthesised before the threads start
  // Created concurrently: the pair and the 8 s encoder are looked for and loaded once.
  const auto runs = onThreads<Outcome>(4, [&](int i) { return stream(dir, 1000 + 1700 * i); });
  const Outcome alone = stream(dir, 5120);
  ASSERT_EQ(alone.error, "");
  ASSERT_EQ(alone.driven.size(), 150u * 63);
  for (const Outcome& r : runs) {
    EXPECT_EQ(r.error, "");
    EXPECT_EQ(r.si, alone.si);
    EXPECT_EQ(r.target, alone.target);
    EXPECT_EQ(r.driven, alone.driven);
    EXPECT_EQ(r.offline, alone.offline);
  }

  // A later handle naming another encoder file still runs on the first one loaded.
  ScopedEnv other("W2V_ONNX", (d / "missing/enc.onnx").c_str());
  const Outcome late = stream(dir, 3000);
  EXPECT_EQ(late.error, "");
  EXPECT_EQ(late.offline, alone.offline);
}

}  // namespace
