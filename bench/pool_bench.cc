// The pool's cost per job: an empty range split over the whole budget (the target is well
// under 10 us on two threads), beside starting and joining one std::thread per chunk, which
// is what a caller without a pool would do. "vs_thread_spawn" is the time ratio.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "le/le_pool.h"

namespace {

void bmEmptyJob(benchmark::State& state) {
  const int T = le::pool::threads();
  const size_t n = static_cast<size_t>(T);
  const std::function<void(size_t, size_t)> fn = [](size_t b, size_t e) { benchmark::DoNotOptimize(b + e); };
  le::pool::parallelRange(n, 1, fn);  // creates this thread's workers
  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state) le::pool::parallelRange(n, 1, fn);
  const double poolUs = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count() /
                        static_cast<double>(state.iterations());
  state.counters["threads"] = T;
  state.counters["us_per_job"] = poolUs;
  // Same split with a fresh thread per extra chunk.
  const int reps = 200;
  const auto t0 = std::chrono::steady_clock::now();
  for (int r = 0; r < reps; ++r) {
    std::vector<std::thread> ts;
    for (size_t i = 1; i < n; ++i) ts.emplace_back([&fn, i] { fn(i, i + 1); });
    fn(0, 1);
    for (auto& t : ts) t.join();
  }
  const double spawnUs = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count() / reps;
  state.counters["spawn_us_per_job"] = spawnUs;
  state.counters["vs_thread_spawn"] = poolUs / spawnUs;
}
BENCHMARK(bmEmptyJob)->UseRealTime()->Unit(benchmark::kMicrosecond);

// A job with real work per chunk (a sum over 1 Mi floats): pool against one thread.
void bmSumRange(benchmark::State& state) {
  std::vector<float> data(size_t{1} << 20, 1.0f);
  std::vector<double> partial(64);
  const bool pooled = state.range(0) != 0;
  for (auto _ : state) {
    std::fill(partial.begin(), partial.end(), 0.0);
    const auto body = [&](size_t b, size_t e) {
      double s = 0;
      for (size_t i = b; i < e; ++i) s += data[i];
      partial[b * 64 / data.size()] = s;
    };
    if (pooled) le::pool::parallelRange(data.size(), 4096, body); else body(0, data.size());
    benchmark::DoNotOptimize(partial.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * data.size() * sizeof(float));
}
BENCHMARK(bmSumRange)->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
