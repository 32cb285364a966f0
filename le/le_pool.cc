#include "le/le_pool.h"

#include <algorithm>
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

// One calling thread's workers. Worker i (1 .. T-1) runs chunk i of every job.
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
    {
      std::lock_guard<std::mutex> lk(mu_);
      job_ = &fn;
      total_ = n;
      parts_ = p;
      chunk_ = chunk;
      pending_ = static_cast<int>(workers_.size());
      ++generation_;
    }
    posted_.notify_all();
    // The workers hold fn until they report, so even a throwing chunk 0 waits for them.
    std::exception_ptr err;
    try {
      fn(0, std::min(chunk, n));
    } catch (...) {
      err = std::current_exception();
    }
    std::unique_lock<std::mutex> lk(mu_);
    done_.wait(lk, [this] { return pending_ == 0; });
    job_ = nullptr;
    if (err) std::rethrow_exception(err);
  }

 private:
  void workerLoop(int idx) {
    uint64_t seen = 0;
    std::unique_lock<std::mutex> lk(mu_);
    for (;;) {
      posted_.wait(lk, [&] { return stop_ || generation_ != seen; });
      if (stop_) return;
      seen = generation_;
      const Fn* job = job_;
      const size_t n = total_, chunk = chunk_;
      const bool mine = idx < parts_;
      lk.unlock();
      const size_t b = static_cast<size_t>(idx) * chunk;
      if (mine && b < n) (*job)(b, std::min(n, b + chunk));
      lk.lock();
      if (--pending_ == 0) done_.notify_one();
    }
  }

  void shutdown() {
    {
      std::lock_guard<std::mutex> lk(mu_);
      stop_ = true;
      ++generation_;
    }
    posted_.notify_all();
    for (std::thread& t : workers_)
      if (t.joinable()) t.join();
    workers_.clear();
  }

  const int T_;
  std::vector<std::thread> workers_;
  std::mutex mu_;
  std::condition_variable posted_, done_;
  const Fn* job_ = nullptr;
  size_t total_ = 0, chunk_ = 0;
  int parts_ = 0;
  int pending_ = 0;
  uint64_t generation_ = 0;
  bool stop_ = false;
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
