// ctest-label: threaded
// Several motion handles on several threads at once (each thread has its own feature scratch)
// give exactly the frames of one handle on one thread.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "le/le_a2x.h"
#include "tests/bundle_fixture.h"
#include "tests/support/speech.h"
#include "tools/forge/forge_motion.h"

namespace {

struct Spoken {
  std::vector<int> si;
  std::vector<float> xs, xd;
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
  int si[8];
  float xs[8 * 63], xd[8 * 63];
  const auto drain = [&] {
    for (int got; (got = le_motion_pull(m, si, xs, xd, 8)) > 0;) {
      r.si.insert(r.si.end(), si, si + got);
      r.xs.insert(r.xs.end(), xs, xs + 63 * got);
      r.xd.insert(r.xd.end(), xd, xd + 63 * got);
    }
  };
  for (size_t at = 0; at < audio.size(); at += 3001) {
    le_motion_push(m, audio.data() + at, static_cast<int>(std::min<size_t>(3001, audio.size() - at)));
    drain();
  }
  le_motion_finish(m);
  drain();
  le_motion_destroy(m);
  return r;
}

TEST(MotionThreads, HandlesOnSeveralThreadsMatchOneThread) {
  le::testing::ScratchDir d("motion_threads");
  le::forge::Params p;
  p.nt = 3;
  for (const le::forge::Member& m : le::forge::motionMembers(p))
    le::testing::writeFile(d / m.name, std::string(m.bytes.begin(), m.bytes.end()));
  std::vector<float> audio = le::testmedia::speak16k("Threads speak at once.");
  audio.resize(std::min<size_t>(audio.size(), 60000));
  const Spoken ref = speak(d / "motion", audio);
  ASSERT_EQ(ref.error, "");
  ASSERT_EQ(ref.si.size(), (audio.size() + 639) / 640);
  std::vector<Spoken> runs(3);
  std::vector<std::thread> threads;
  for (Spoken& r : runs) threads.emplace_back([&] { r = speak(d / "motion", audio); });
  for (std::thread& t : threads) t.join();
  for (const Spoken& r : runs) {
    EXPECT_EQ(r.error, "");
    EXPECT_EQ(r.si, ref.si);
    EXPECT_EQ(r.xs, ref.xs);
    EXPECT_EQ(r.xd, ref.xd);
  }
}

}  // namespace
