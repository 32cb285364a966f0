// The engine's worker pool: splits an index range into contiguous chunks and runs them on
// the calling thread's own workers.
//
// Thread rules: every thread that starts a parallel range owns its own workers (created on
// its first range that splits, joined when that thread exits), so any number of threads may
// call parallelRange at once. A range started while the calling thread runs its own chunk
// runs inline. Chunk functions must not throw: nothing is carried between threads.
#pragma once

#include <cstddef>
#include <functional>

namespace le::pool {

// The thread budget T >= 1, computed once per process: LE_CORE_THREADS, else
// LE_PASTE_THREADS, else 4, capped by the processor count.
int threads();

// Always true: the pool is built in.
bool available();

// How many chunks a range of n items with the given grain gets (1 .. threads()).
int parts(size_t n, size_t grain);

// Calls fn(begin, end) over [0, n) in parts(n, grain) contiguous chunks, chunk 0 on the
// calling thread; returns when every chunk has run. fn is borrowed for the call only.
void parallelRange(size_t n, size_t grain, const std::function<void(size_t, size_t)>& fn);

// While alive (and on), the ranges this thread starts run inline: for a stage that runs beside
// another one that already keeps every core busy, where splitting only adds runnable threads.
class SerialScope {
 public:
  explicit SerialScope(bool on = true);
  ~SerialScope();
  SerialScope(const SerialScope&) = delete;
  SerialScope& operator=(const SerialScope&) = delete;

 private:
  bool was_;
};

}  // namespace le::pool
