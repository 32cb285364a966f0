// ctest-label: threaded
// Several motion handles on several threads at once (each thread has its own feature scratch)
// give exactly the frames of one handle on one thread.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "le/le_a2x.h"
#include "tests/support/speech.h"
#include "tests/test_util2.h"

namespace {

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
  le::testing::ScratchDir d("motion_threads");
  le::forge::Params p;
  p.nt = 3;
  const std::string dir = le::testing::forgeMotionDir(d.path(), p);
  std::vector<float> audio = le::testmedia::speak16k("Threads speak at once.");
  audio.resize(std::min<size_t>(audio.size(), 60000));
  const Spoken ref = speak(dir, audio);
  ASSERT_EQ(ref.error, "");
  ASSERT_EQ(ref.si.size(), (audio.size() + 639) / 640);
  std::vector<Spoken> runs(3);
  std::vector<std::thread> threads;
  for (Spoken& r : runs) threads.emplace_back([&] { r = speak(dir, audio); });
  for (std::thread& t : threads) t.join();
  for (const Spoken& r : runs) {
    EXPECT_EQ(r.error, "");
    EXPECT_EQ(r.si, ref.si);
    EXPECT_EQ(r.xs, ref.xs);
    EXPECT_EQ(r.xd, ref.xd);
  }
}

}  // namespace
