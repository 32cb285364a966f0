#include "le/le_pool.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace le::pool {
namespace {

// A variable's value when set and not empty; non-numbers and values below 1 count as 1.
bool budgetFrom(const char* name, int& out) {
  const char* v = std::getenv(name);
  if (!v || !*v) return false;
  const long x = std::strtol(v, nullptr, 10);
  out = static_cast<int>(std::clamp<long>(x, 1, INT_MAX));
  return true;
}

int computeBudget() {
  int b = 4;
  if (!budgetFrom("LE_CORE_THREADS", b)) budgetFrom("LE_PASTE_THREADS", b);
  const unsigned hw = std::thread::hardware_concurrency();
  if (hw > 0 && static_cast<unsigned>(b) > hw) b = static_cast<int>(hw);
  return b;
}

using Fn = std::function<void(size_t, size_t)>;

// Spins a waiting thread for up to kSpin before it sleeps: the paste posts its jobs back to
// back, so a worker that has just finished one usually finds the next without being woken
// through the kernel (yielding now and then costs far less than a futex sleep and wake);
// between frames the workers sleep.
constexpr auto kSpin = std::chrono::microseconds(50);

inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#else
  std::this_thread::yield();
#endif
}

// Spins until done() or kSpin has passed; returns done().
template <class Done>
bool spinFor(Done&& done) {
  const auto until = std::chrono::steady_clock::now() + kSpin;
  for (;;) {
    for (int i = 0; i < 64; ++i) {
      if (done()) return true;
      cpuRelax();
    }
    // On a loaded machine the thread we wait for may want this core.
    std::this_thread::yield();
    if (std::chrono::steady_clock::now() >= until) return done();
  }
}

// One calling thread's workers. Worker i (1 .. T-1) runs chunk i of every job.
//
// Posting and completion are atomics; the mutex and condition variables only serve a thread
// that has stopped spinning. Each sleeper announces itself (sleepers_, caller_sleeps_) before
// re-checking its condition under the mutex, and each waker stores its news before reading the
// announcement (both sequentially consistent), so one of the two always sees the other.
class Pool {
 public:
  explicit Pool(int t) : T_(t) {
    try {
      for (int i = 1; i < T_; ++i) workers_.emplace_back([this, i] { workerLoop(i); });
    } catch (...) {
      shutdown();
      throw;
    }
  }
  ~Pool() { shutdown(); }
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  // Posts the job, runs chunk 0 on the caller and waits for every worker.
  void run(size_t n, int p, const Fn& fn) {
    const size_t chunk = (n + static_cast<size_t>(p) - 1) / static_cast<size_t>(p);
    job_ = &fn;
    total_ = n;
    parts_ = p;
    chunk_ = chunk;
    pending_.store(static_cast<int>(workers_.size()), std::memory_order_relaxed);
    generation_.fetch_add(1);  // publishes the job fields
    if (sleepers_.load() > 0) wake(posted_);
    // The workers hold fn until they report, so even a throwing chunk 0 waits for them.
    std::exception_ptr err;
    try {
      fn(0, std::min(chunk, n));
    } catch (...) {
      err = std::current_exception();
    }
    const auto finished = [this] { return pending_.load(std::memory_order_acquire) == 0; };
    if (!spinFor(finished)) {
      std::unique_lock<std::mutex> lk(mu_);
      caller_sleeps_.store(true);
      done_.wait(lk, [this] { return pending_.load() == 0; });
      caller_sleeps_.store(false, std::memory_order_relaxed);
    }
    job_ = nullptr;
    if (err) std::rethrow_exception(err);
  }

 private:
  void wake(std::condition_variable& cv) {
    // Taking the mutex orders the notification after a sleeper's last check.
    { std::lock_guard<std::mutex> lk(mu_); }
    cv.notify_all();
  }

  void workerLoop(int idx) {
    uint64_t seen = 0;
    for (;;) {
      const auto posted = [&] {
        return generation_.load(std::memory_order_acquire) != seen;
      };
      if (!spinFor(posted)) {
        std::unique_lock<std::mutex> lk(mu_);
        sleepers_.fetch_add(1);
        posted_.wait(lk, [&] { return generation_.load() != seen; });
        sleepers_.fetch_sub(1, std::memory_order_relaxed);
      }
      seen = generation_.load(std::memory_order_acquire);
      if (stop_.load(std::memory_order_acquire)) return;
      const Fn* job = job_;
      const size_t n = total_, chunk = chunk_;
      const size_t b = static_cast<size_t>(idx) * chunk;
      if (idx < parts_ && b < n) (*job)(b, std::min(n, b + chunk));
      if (pending_.fetch_sub(1) == 1 && caller_sleeps_.load()) wake(done_);
    }
  }

  void shutdown() {
    stop_.store(true, std::memory_order_relaxed);
    generation_.fetch_add(1);
    wake(posted_);
    for (std::thread& t : workers_)
      if (t.joinable()) t.join();
    workers_.clear();
  }

  const int T_;
  std::vector<std::thread> workers_;
  std::mutex mu_;
  std::condition_variable posted_, done_;
  // Written by the caller before generation_ moves on, read by the workers after they see it.
  const Fn* job_ = nullptr;
  size_t total_ = 0, chunk_ = 0;
  int parts_ = 0;
  std::atomic<uint64_t> generation_{0};
  std::atomic<int> pending_{0};
  std::atomic<int> sleepers_{0};
  std::atomic<bool> caller_sleeps_{false};
  std::atomic<bool> stop_{false};
};

// Destroyed (workers joined) when the owning thread exits.
thread_local std::unique_ptr<Pool> tlsPool;
thread_local bool tlsInRegion = false;

// Clears the in-region flag however the caller's chunk ends.
struct RegionFlag {
  RegionFlag() { tlsInRegion = true; }
  ~RegionFlag() { tlsInRegion = false; }
};

}  // namespace

SerialScope::SerialScope(bool on) : was_(tlsInRegion) { tlsInRegion = was_ || on; }

SerialScope::~SerialScope() { tlsInRegion = was_; }

int threads() {
  static std::once_flag once;
  static int budget = 1;
  std::call_once(once, [] { budget = computeBudget(); });
  return budget;
}

bool available() { return true; }

int parts(size_t n, size_t grain) {
  const int T = threads();
  if (T < 2) return 1;
  const size_t g = grain ? grain : 1;
  const size_t k = n / g;
  return k > 1 ? static_cast<int>(std::min<size_t>(k, static_cast<size_t>(T))) : 1;
}

void parallelRange(size_t n, size_t grain, const std::function<void(size_t, size_t)>& fn) {
  if (tlsInRegion) {
    fn(0, n);
    return;
  }
  const int p = parts(n, grain);
  if (p < 2) {
    fn(0, n);
    return;
  }
  if (!tlsPool) tlsPool = std::make_unique<Pool>(threads());
  RegionFlag region;
  tlsPool->run(n, p, fn);
}

}  // namespace le::pool
