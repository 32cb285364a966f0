// Drive frame sources and the drive cursor: the full drive frames that crops are pasted into
// and the frames of the video warp prior, delivered by index from a producer thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace le {

struct Manifest;

namespace driver {

// Delivers the frames of one bundle member in order. Used by one thread at a time.
class Source {
 public:
  virtual ~Source() = default;
  // Number of frames the member must hold.
  virtual int NT() const = 0;
  virtual int W() const = 0;
  virtual int H() const = 0;
  // Bytes of one delivered frame.
  virtual size_t frameBytes() const { return static_cast<size_t>(W()) * static_cast<size_t>(H()) * 3; }
  // Decodes the next frame into out (frameBytes() bytes); false at the end of the member.
  virtual bool next(uint8_t* out) = 0;
  // The same into a buffer of capacity bytes (at least frameBytes()): a decoder may use the
  // spare bytes to write its frame in place.
  virtual bool nextInto(uint8_t* out, size_t /*capacity*/) { return next(out); }
  // Back to frame 0.
  virtual void rewind() = 0;
  // The next call of next() delivers frame i.
  virtual void seek(int i) = 0;
  // Short description of the backend.
  virtual std::string name() const = 0;
  // Estimate of the memory the source holds; safe to call while another thread decodes.
  virtual size_t residentBytes() const = 0;
};

// A directory of W×H stills "frame_%06d.jpg", 0 … NT-1, delivered as packed RGB.
std::unique_ptr<Source> openJpgDir(const std::string& dir, int NT, int W, int H);
// A W×H 4:2:0 movie of NT frames, delivered as packed RGB. Opens the member at once.
std::unique_ptr<Source> openMp4(const std::string& path, int NT, int W, int H);
// A side×side yuv444p movie of NT frames, delivered as three planes (R, G, B) of binary16.
std::unique_ptr<Source> openPriorHevc(const std::string& path, int NT, int side);

}  // namespace driver

// Hands out the frames of a looping member by index while a producer thread decodes ahead.
// Frames live in a ring of lookahead + history + 1 slots. All public calls may be made from
// any thread; reads and seeks run one at a time. A pointer returned by a non-copying read
// stays valid until the reader has moved at least history + 1 frames beyond it (a seek that
// reaches the source can shorten this). Any decode or seek failure fails the cursor for
// good: every later read or seek throws the same text.
class DriverCursor {
 public:
  // The drive video of a bundle: its JPEG still directory or its movie.
  static std::unique_ptr<DriverCursor> open(const Manifest& m, int lookahead, int history);
  // The video warp prior of a bundle.
  static std::unique_ptr<DriverCursor> openPrior(const Manifest& m, int lookahead, int history);
  static std::unique_ptr<DriverCursor> over(std::unique_ptr<driver::Source> source, int lookahead,
                                            int history);

  // Takes the source and starts the producer at frame 0.
  DriverCursor(std::unique_ptr<driver::Source> source, int lookahead, int history);
  // Stops and joins the producer (waiting for a decode in flight).
  ~DriverCursor();
  DriverCursor(const DriverCursor&) = delete;
  DriverCursor& operator=(const DriverCursor&) = delete;

  // The next frame in play order copied to out (frameBytes bytes); returns its index.
  int pull(uint8_t* out);
  // The same without a copy; got receives the index. The pointer is into the ring.
  const uint8_t* pull(int* got);
  // As pull(got), for modification in place; that frame is never served again from the ring.
  uint8_t* pullMut(int* got);
  // Frame i copied to out; returns i.
  int pullAt(int i, uint8_t* out);
  const uint8_t* pullAt(int i, int* got);
  uint8_t* pullMutAt(int i, int* got);
  // Makes frame i the next frame in play order.
  void seek(int i);
  // The index the cursor will deliver next.
  int position() const;
  // Ring bytes plus the source's estimate; reads without locking.
  size_t residentBytes() const;
  // Seeks that reached the source.
  uint64_t seeks() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;

 public:
  const int NT, W, H;
  const size_t frameBytes;
  const std::string name;
};

}  // namespace le
