// The utterance pipeline's keypoint sources behind one interface: the audio-to-expression stream
// or the motion generator, driven through their flat functions. Called by one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace le::utt {

class KeypointSource {
 public:
  virtual ~KeypointSource() = default;
  // New utterance starting at source index start; loop = 1 asks for the wrap walk.
  virtual void reset(int start, int direction, int loop) = 0;
  virtual void setEager(int value) = 0;
  // The calls below throw std::runtime_error with the source's own message on failure.
  virtual void push(const float* samples, int n) = 0;
  virtual void finish() = 0;
  virtual int avail() = 0;
  virtual int pull(int32_t* sourceIdx, float* source, float* driven, int max) = 0;
  // Frames of the finished utterance, -1 before finish.
  virtual int total() = 0;
  virtual const char* name() const = 0;
};

// Whether the directory holds the audio-to-expression stream's encoder (that source is chosen
// then, else the motion generator).
bool hasA2xStream(const std::string& dir);

// Creates the source of dir. Throws std::runtime_error carrying the source's creation message.
std::unique_ptr<KeypointSource> openSource(const std::string& dir, bool a2x, int threads,
                                           const std::string& motionEp);

}  // namespace le::utt
