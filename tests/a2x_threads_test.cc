// ctest-label: threaded
// Several stream handles on several threads at once share the process-wide speech encoders.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/a2x_fixture.h"
#include "tests/support/media.h"

namespace {

using namespace le::testa2x;
using le::testing::ScratchDir;
using le::testmedia::ScopedEnv;

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
  const int kThreads = 4;
  std::vector<Outcome> runs(kThreads);
  std::vector<std::thread> pool;
  for (int i = 0; i < kThreads; ++i) pool.emplace_back([&, i] { runs[size_t(i)] = stream(dir, 1000 + 1700 * i); });
  for (std::thread& t : pool) t.join();
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
