// The utterance pipeline's test bundle and clip, and its soak: one pipeline cycles speak /
// interrupt / end / idle while a host loop pulls every frame, sampling resident memory as it goes
// (shared by the soak program under bench/ and its short CI run).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_a2x.h"
#include "tests/bundle_fixture.h"
#include "tests/support/media.h"
#include "tools/forge/forge.h"

namespace le::testmedia {

// Under a sanitizer the pipeline tests speak a shorter clip and run fewer variants.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif
// How long a pipeline test waits for a frame before it calls the pipeline stuck: sanitized
// builds running beside other tests' pipelines can be 20 times slower.
inline constexpr std::chrono::seconds kPatience{kSanitized ? 300 : 60};

// A bundle forged from params into a scratch directory ("b" in it), opened with director b1 on
// 2 threads.
struct OpenBundle {
  le::testing::ScratchDir dir;
  le::forge::Params params;
  std::string path;
  le_ctx* ctx = nullptr;
  OpenBundle(const std::string& tag, le::forge::Params p);
  ~OpenBundle();
  OpenBundle(const OpenBundle&) = delete;
  OpenBundle& operator=(const OpenBundle&) = delete;
  size_t frameBytes() const;
  int nt() const { return params.nt; }
};

// A speaking bundle: p (from uttBundleParams) with the audio-to-expression members added beside
// the motion directory, W2V_ONNX pointing at them while it lives.
struct SpeakingBundle : OpenBundle {
  SpeakingBundle(const std::string& tag, le::forge::Params p);

 private:
  std::unique_ptr<ScopedEnv> w2v_;
};

// One pulled frame: its information and, when kept, its pixels.
struct UttFrame {
  le_utt_frame_info info;
  std::vector<uint8_t> rgb;
};

// A pipeline made with opts over ctx, pulled until it is ready, counting every frame it pulls and
// keeping what `keep` says of each. Throws std::runtime_error when it cannot be made, does not
// become ready, refuses a push or stalls (no frame for kPatience).
struct UttPipeline {
  enum class Keep { Pixels, Info, Counts };
  le_utt* u = nullptr;
  std::vector<UttFrame> got;
  uint64_t frames = 0, speechFrames = 0;
  UttPipeline(le_ctx* ctx, size_t frameBytes, const le_utt_opts& opts, Keep keep = Keep::Pixels);
  ~UttPipeline();
  UttPipeline(const UttPipeline&) = delete;
  UttPipeline& operator=(const UttPipeline&) = delete;
  // Pulls every frame waiting; whether there was one.
  bool pull();
  // Pulls, or when nothing was waiting, sleeps a little (throwing once the pipeline stalled).
  void pullOrNap();
  // Pulls until `idle` idle frames follow a speech or ramp frame pulled from index `from` on
  // (throwing when none came within kPatience).
  void untilIdle(size_t from, int idle = 3);
  // Pulls until n speech frames were pulled from index `from` on (within kPatience).
  void untilSpeech(size_t from, int n);
  // Pushes pcm in pieces of `step` samples, pulling after each.
  void push(const std::vector<int16_t>& pcm, size_t step);

 private:
  std::vector<uint8_t> buf_;
  Keep keep_;
  std::chrono::steady_clock::time_point lastFrame_;
};

// The triples a fresh audio-to-expression stream of the bundle makes of pcm (16 kHz mono), its
// walk started at source index `start`: n frames' source indices and source and driven
// keypoints. Throws std::runtime_error when the stream refuses or gives fewer frames.
struct Triples {
  std::vector<int> si;
  std::vector<float> xs, xd;
};
Triples a2xTriples(const std::string& bundle, int start, const std::vector<int16_t>& pcm, int n);

// "Open wide and say ah." ("Say ah." under a sanitizer), 16 kHz mono.
const std::vector<int16_t>& sayAhClip();

struct SoakSample {
  double seconds = 0;  // since the start of the soak
  double rssMiB = 0;   // resident memory of the process
  uint64_t cycles = 0;
  uint64_t frames = 0, speechFrames = 0;
};

// Forge parameters of a speaking bundle: nt source and drive frames of width x height, the face
// crop, the director members and the motion directory.
le::forge::Params uttBundleParams(int width, int height, int crop, int nt);

// Resident memory of this process (/proc/self/statm), in MiB.
double residentMiB();

// Runs the cycles on a pipeline made with opts over ctx for `seconds`, speaking clip (16 kHz
// mono) in 40 ms pushes, and on until at least minCycles cycles are done; calls onSample every
// `every` seconds and once at the end. Throws
// std::runtime_error when the pipeline cannot be made or stops delivering frames.
std::vector<SoakSample> soakUtterances(le_ctx* ctx, const le_utt_opts& opts,
                                       const std::vector<int16_t>& clip, double seconds,
                                       double every,
                                       const std::function<void(const SoakSample&)>& onSample = {},
                                       uint64_t minCycles = 0);

}  // namespace le::testmedia
