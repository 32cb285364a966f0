// The motion generator: speech audio -> log-mel windows -> speech features -> motion rows in
// overlapping generator chunks -> per-frame source and driven keypoints. The flat le_motion_*
// functions wrap le::motion::Motion; the pieces below are also used by tests and benchmarks.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace le::motion {

constexpr int kHop = 640;             // samples per video frame
constexpr int kFftSize = 512;
constexpr int kBins = kFftSize / 2 + 1;  // 257 magnitudes
constexpr int kMels = 80;
constexpr int kMelFrames = 21;        // spectrum frames per feature window
constexpr int kMelHop = 320;
constexpr int kWindowFrames = 5;      // video frames per feature window
constexpr int kWindowSamples = 6480;  // audio of one window: [640w - 2000, 640w + 4480)
constexpr int kWindowLead = 2000;
constexpr int kPad = 256;             // reflect padding at each end
constexpr int kPadded = kWindowSamples + 2 * kPad;
constexpr int kFeatFrames = 20;
constexpr int kFeatDim = 1024;
constexpr int kCondDim = 1103;        // features 1024, emotion 8, eye open 2, eye ball 6, sc 63
constexpr int kRowDim = 265;          // motion row
constexpr int kPoseDim = 202;         // the smoothed part of a row: scale, angles, translation
constexpr int kInfoDim = 328;         // motion info
constexpr int kChunk = 80, kStride = 70, kFade = 10;
constexpr int kKp = 63;

// Radix-2 decimation-in-time FFT of 512 complex points: bit-reversal permutation, then
// butterflies with the twiddles cos and sin of -2*pi*k/512, k < 256.
class Fft512 {
 public:
  Fft512();
  // In place over separate real and imaginary parts of 512 values each.
  void forward(float* re, float* im) const;
  float twiddleCos(int k) const { return cos_[k]; }
  float twiddleSin(int k) const { return sin_[k]; }

 private:
  float cos_[256], sin_[256];
  // Stage tables: the twiddles of the stage with half-size h at [h, 2h), k-th at h + k.
  float stageCos_[kFftSize], stageSin_[kFftSize];
};

// Fft512::forward on the best vector target: the bit-reversal permutation, then stage h
// (1, 2, ..., 256) with its twiddles from stageCos/stageSin [h, 2h).
void fftForward(float* re, float* im, const float* stageCos, const float* stageSin);

// Log-mel of one feature window: audio holds kWindowSamples values (zeros where nothing was
// pushed); mel receives 80 bands x 21 frames, band-major. window: 512 floats; binmat: 257 x 80.
// Uses per-thread scratch; allocates nothing after the thread's first call.
void logMelWindow(const Fft512& fft, const float* window, const float* binmat, const float* audio,
                  float* mel);

// One motion generator over a motion directory. One thread at a time.
class Motion {
 public:
  // Reads and checks every member, opens and warms up the three networks, resets to start 0,
  // direction +1, wrap. threads < 1 takes le::pool::threads(). ep: "" CPU, "coreml..." CoreML
  // with a fall-back to the CPU; anything else throws.
  Motion(const std::string& dir, int threads, const std::string& ep);
  ~Motion();
  Motion(const Motion&) = delete;
  Motion& operator=(const Motion&) = delete;

  void reset(int start, int direction, int loop);
  void setEager(int value);
  // Throws "already finished" after finish().
  void push(const float* samples, int n);
  void finish();
  int total() const;
  int nt() const;
  // Runs due work and returns the frames pullable now.
  int avail();
  // avail(), then emits up to max frames; returns how many.
  int pull(int* sourceIdx, float* source, float* driven, int max);

  // The condition rows of feature window w over the audio pushed so far (5 x 1103 floats).
  // For measurements; touches no utterance state.
  void featureWindow(int w, float* rows);
  // Milliseconds spent inside the speech-feature network, summed since creation.
  double studentMs() const;

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

// True while this thread is inside one of the networks' ONNX Runtime runs.
bool insideRun();

}  // namespace le::motion
