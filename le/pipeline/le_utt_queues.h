// The bounded queues between the utterance pipeline's threads. They hold no lock of their own:
// every call is made under the pipeline's main lock (or, for the keypoint queue, by the render
// thread alone), so one lock orders every state change and the waits live with the pipeline.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

namespace le::utt {

constexpr int kKpFloats = 63;

// First-in first-out over a ring whose capacity is fixed at creation: push refuses when full,
// nothing ever reallocates after construction.
template <class T>
class FixedQueue {
 public:
  explicit FixedQueue(size_t capacity) : items_(capacity) {
    if (capacity == 0) throw std::invalid_argument("FixedQueue: capacity 0");
  }
  size_t size() const { return count_; }
  size_t capacity() const { return items_.size(); }
  bool empty() const { return count_ == 0; }
  bool full() const { return count_ == items_.size(); }
  // Moves v in; false (v untouched) when full.
  bool push(T&& v) {
    if (full()) return false;
    items_[(first_ + count_) % items_.size()] = std::move(v);
    ++count_;
    return true;
  }
  // Moves the oldest item out; the queue must not be empty.
  T pop() {
    T v = std::move(items_[first_]);
    first_ = (first_ + 1) % items_.size();
    --count_;
    return v;
  }
  // Hands every queued item, oldest first, to sink and empties the queue.
  template <class Sink>
  void drain(Sink&& sink) {
    while (!empty()) sink(pop());
  }

 private:
  std::vector<T> items_;
  size_t first_ = 0, count_ = 0;
};

// Keypoint frames waiting for the director: (source index, source keypoints, driven keypoints).
// Frames are read in place from the read position; when an append would pass the capacity the
// unread frames move to the front.
class KpQueue {
 public:
  explicit KpQueue(int capacity)
      : cap_(capacity), si_(size_t(capacity)), xs_(size_t(capacity) * kKpFloats),
        xd_(size_t(capacity) * kKpFloats) {}
  int capacity() const { return cap_; }
  int queued() const { return w_ - r_; }
  void clear() { r_ = w_ = 0; }
  // Appends n frames; false when they do not fit beside the unread ones.
  bool append(const int32_t* si, const float* xs, const float* xd, int n) {
    if (n < 0 || queued() + n > cap_) return false;
    if (w_ + n > cap_) {
      const int q = queued();
      std::memmove(si_.data(), si_.data() + r_, size_t(q) * sizeof(int32_t));
      std::memmove(xs_.data(), xs_.data() + size_t(r_) * kKpFloats, size_t(q) * kKpFloats * sizeof(float));
      std::memmove(xd_.data(), xd_.data() + size_t(r_) * kKpFloats, size_t(q) * kKpFloats * sizeof(float));
      r_ = 0;
      w_ = q;
    }
    std::memcpy(si_.data() + w_, si, size_t(n) * sizeof(int32_t));
    std::memcpy(xs_.data() + size_t(w_) * kKpFloats, xs, size_t(n) * kKpFloats * sizeof(float));
    std::memcpy(xd_.data() + size_t(w_) * kKpFloats, xd, size_t(n) * kKpFloats * sizeof(float));
    w_ += n;
    return true;
  }
  // The unread frames, contiguous from the read position.
  const int32_t* si() const { return si_.data() + r_; }
  const float* xs() const { return xs_.data() + size_t(r_) * kKpFloats; }
  const float* xd() const { return xd_.data() + size_t(r_) * kKpFloats; }
  void advance(int n) { r_ += n; }

 private:
  int cap_;
  int r_ = 0, w_ = 0;
  std::vector<int32_t> si_;
  std::vector<float> xs_, xd_;
};

}  // namespace le::utt
