// Heap allocations counted through malloc and friends: include in exactly one source of a
// benchmark program and define benchInsideRun() there (true while the calling thread is inside
// an ONNX Runtime run, whose own allocations are counted apart).
#pragma once

#include <malloc.h>

#include <atomic>
#include <cstddef>

bool benchInsideRun();

std::atomic<long> gAllocs{0}, gAllocBytes{0}, gAllocMax{0}, gAllocsOutside{0};

inline void noteAlloc(size_t n) {
  gAllocs.fetch_add(1, std::memory_order_relaxed);
  if (!benchInsideRun()) gAllocsOutside.fetch_add(1, std::memory_order_relaxed);
  gAllocBytes.fetch_add(long(n), std::memory_order_relaxed);
  long m = gAllocMax.load(std::memory_order_relaxed);
  while (long(n) > m && !gAllocMax.compare_exchange_weak(m, long(n), std::memory_order_relaxed)) {
  }
}

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void* malloc(size_t n) {
  noteAlloc(n);
  return __libc_malloc(n);
}
void* calloc(size_t k, size_t n) {
  noteAlloc(k * n);
  return __libc_calloc(k, n);
}
void* realloc(void* p, size_t n) {
  noteAlloc(n);
  return __libc_realloc(p, n);
}
void* memalign(size_t a, size_t n) {
  noteAlloc(n);
  return __libc_memalign(a, n);
}
void* aligned_alloc(size_t a, size_t n) {
  noteAlloc(n);
  return __libc_memalign(a, n);
}
int posix_memalign(void** p, size_t a, size_t n) {
  noteAlloc(n);
  *p = __libc_memalign(a, n);
  return *p ? 0 : 12;  // ENOMEM
}
}
