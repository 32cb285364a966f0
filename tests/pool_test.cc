// ctest-label: threaded
// The worker pool: budget from the environment, chunk boundaries, nesting, many calling
// threads at once, and workers joined when their thread exits.
#include "le/le_pool.h"

#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace {

int taskCount() {
  int n = 0;
  if (DIR* d = opendir("/proc/self/task")) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') ++n;
    closedir(d);
  }
  return n;
}

int hardwareCap(int b) {
  const unsigned hw = std::thread::hardware_concurrency();
  return (hw > 0 && static_cast<unsigned>(b) > hw) ? static_cast<int>(hw) : b;
}

// The budget is computed once per process: each case runs in a fresh child process.
void expectBudget(const char* core, const char* paste, int want) {
  EXPECT_EXIT(
      {
        if (core) setenv("LE_CORE_THREADS", core, 1); else unsetenv("LE_CORE_THREADS");
        if (paste) setenv("LE_PASTE_THREADS", paste, 1); else unsetenv("LE_PASTE_THREADS");
        std::_Exit(le::pool::threads());
      },
      testing::ExitedWithCode(want), "")
      << "LE_CORE_THREADS=" << (core ? core : "(unset)") << " LE_PASTE_THREADS=" << (paste ? paste : "(unset)");
}

TEST(PoolBudget, EnvironmentAndProcessorCap) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  expectBudget(nullptr, nullptr, hardwareCap(4));
  expectBudget("1", nullptr, 1);
  expectBudget("0", nullptr, 1);
  expectBudget("-3", nullptr, 1);
  expectBudget("many", nullptr, 1);
  expectBudget("2", "1", hardwareCap(2));
  expectBudget("", "1", 1);        // empty falls through to the paste budget
  expectBudget(nullptr, "0", 1);
  expectBudget("", "", hardwareCap(4));
  expectBudget("100000", nullptr, hardwareCap(100000));
}

TEST(PoolBudget, SingleThreadRunsInlineWithoutWorkers) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        setenv("LE_CORE_THREADS", "1", 1);
        const int before = taskCount();
        int calls = 0;
        bool whole = false;
        le::pool::parallelRange(1000, 1, [&](size_t b, size_t e) {
          ++calls;
          whole = b == 0 && e == 1000;
        });
        std::_Exit(le::pool::parts(1000, 1) == 1 && calls == 1 && whole && taskCount() == before ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

// The number of parts a range splits into follows its grain and the budget; the parts are
// contiguous, in order, and the first runs on the caller.
TEST(Pool, PartsFollowGrainAreContiguousAndChunkZeroIsTheCaller) {
  const int T = le::pool::threads();
  EXPECT_TRUE(le::pool::available());
  EXPECT_GE(T, 1);
  const struct {
    size_t n, grain;
    int parts;
  } cases[] = {{0, 0, 1},  {1, 0, 1},  {100, 0, std::min(100, T)}, {100, 60, 1}, {1000, 64, std::min(15, T)},
               {128, 64, std::min(2, T)}, {2, 1, std::min(2, T)}, {11, 1, std::min(11, T)}, {1000, 1, T}};
  for (const auto& c : cases) {
    SCOPED_TRACE("n " + std::to_string(c.n) + " grain " + std::to_string(c.grain));
    EXPECT_EQ(le::pool::parts(c.n, c.grain), c.parts);
    std::mutex mu;
    std::vector<std::pair<size_t, size_t>> calls, want;
    std::thread::id chunk0;
    le::pool::parallelRange(c.n, c.grain, [&](size_t b, size_t e) {
      std::lock_guard<std::mutex> lk(mu);
      calls.emplace_back(b, e);
      if (b == 0) chunk0 = std::this_thread::get_id();
    });
    std::sort(calls.begin(), calls.end());
    const size_t chunk = c.parts < 2 ? c.n : (c.n + c.parts - 1) / c.parts;
    for (size_t at = 0; want.empty() || at < c.n; at += chunk) want.emplace_back(at, std::min(c.n, at + chunk));
    EXPECT_EQ(calls, want);
    EXPECT_EQ(chunk0, std::this_thread::get_id());
  }
}

TEST(Pool, NestedRangesInlineOnCallerOwnPoolOnWorkers) {
  const std::thread::id caller = std::this_thread::get_id();
  std::atomic<int> inlineOk{0}, workerSplit{0}, covered{0}, outerChunks{0};
  le::pool::parallelRange(64, 1, [&](size_t b, size_t e) {
    ++outerChunks;
    std::atomic<size_t> inner{0};
    int innerCalls = 0;
    std::mutex mu;
    std::set<std::thread::id> threads;
    le::pool::parallelRange(1000, 1, [&](size_t ib, size_t ie) {
      inner += ie - ib;
      std::lock_guard<std::mutex> lk(mu);
      ++innerCalls;
      threads.insert(std::this_thread::get_id());
    });
    if (inner == 1000) ++covered;
    // The caller's own chunk sees its in-region flag: the nested range is one inline call.
    if (std::this_thread::get_id() == caller && innerCalls == 1 && threads.size() == 1) ++inlineOk;
    // A worker's flag is clear: its nested range splits over that worker's own pool.
    if (std::this_thread::get_id() != caller && innerCalls == le::pool::parts(1000, 1) &&
        static_cast<int>(threads.size()) == innerCalls && !threads.count(caller))
      ++workerSplit;
    (void)b, (void)e;
  });
  EXPECT_EQ(covered.load(), outerChunks.load());
  EXPECT_EQ(inlineOk.load(), 1);
  EXPECT_EQ(workerSplit.load(), outerChunks.load() - 1);
}

// A serial scope runs the thread's ranges as one inline call; an off scope changes nothing;
// leaving the scope restores splitting.
TEST(Pool, SerialScopeRunsInlineUntilItEnds) {
  const auto calls = [] {
    std::atomic<int> n{0};
    le::pool::parallelRange(1000, 1, [&](size_t, size_t) { ++n; });
    return n.load();
  };
  const int split = le::pool::parts(1000, 1);
  {
    const le::pool::SerialScope serial;
    EXPECT_EQ(calls(), 1);
    {
      const le::pool::SerialScope off(false);
      EXPECT_EQ(calls(), 1);
    }
    EXPECT_EQ(calls(), 1);
  }
  {
    const le::pool::SerialScope off(false);
    EXPECT_EQ(calls(), split);
  }
  EXPECT_EQ(calls(), split);
}

TEST(Pool, ManyCallingThreadsAtOnce) {
  const int callers = 6, rounds = 300;
  std::vector<std::thread> ts;
  std::atomic<int> bad{0};
  for (int c = 0; c < callers; ++c)
    ts.emplace_back([&, c] {
      std::vector<int> hits(257 + c);
      for (int r = 0; r < rounds; ++r) {
        const size_t n = 1 + (r * 37 + c) % hits.size();
        // Some jobs come after the workers have stopped spinning, some keep the caller
        // waiting past its spin: both sleeping paths must wake.
        if (r % 10 == 0) std::this_thread::sleep_for(std::chrono::microseconds(300));
        le::pool::parallelRange(n, 1 + r % 3, [&](size_t b, size_t e) {
          if (b > 0 && r % 7 == 0) std::this_thread::sleep_for(std::chrono::microseconds(300));
          for (size_t i = b; i < e; ++i) ++hits[i];
        });
        for (size_t i = 0; i < hits.size(); ++i) {
          if (hits[i] != (i < n ? 1 : 0)) ++bad;
          hits[i] = 0;
        }
      }
    });
  for (auto& t : ts) t.join();
  EXPECT_EQ(bad.load(), 0);
}

TEST(Pool, ThreadExitJoinsItsWorkers) {
  if (le::pool::threads() < 2) GTEST_SKIP() << "one-thread budget starts no workers";
  // A sanitizer runtime starts a thread of its own at the first thread creation.
  std::thread([] {}).join();
  const int before = taskCount();
  int during = 0;
  std::thread t([&] {
    le::pool::parallelRange(100, 1, [](size_t, size_t) {});
    during = taskCount();
  });
  t.join();
  EXPECT_EQ(during, before + le::pool::threads());  // this thread plus T - 1 workers
  EXPECT_EQ(taskCount(), before);
}

TEST(Pool, ThrowingCallerChunkWaitsForWorkersThenRethrows) {
  if (le::pool::threads() < 2) GTEST_SKIP() << "needs workers";
  std::atomic<int> done{0};
  EXPECT_THROW(le::pool::parallelRange(1000, 1,
                                       [&](size_t b, size_t) {
                                         if (b == 0) throw std::runtime_error("chunk 0");
                                         std::this_thread::sleep_for(std::chrono::milliseconds(20));
                                         ++done;
                                       }),
               std::runtime_error);
  EXPECT_EQ(done.load(), le::pool::parts(1000, 1) - 1);
  // The pool stays usable and the in-region flag is cleared.
  std::atomic<size_t> sum{0};
  le::pool::parallelRange(1000, 1, [&](size_t b, size_t e) { sum += e - b; });
  EXPECT_EQ(sum.load(), 1000u);
}

}  // namespace
