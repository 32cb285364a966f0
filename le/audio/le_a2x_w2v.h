// Speech encoder frontends of the audio-to-expression stream: the process-wide shared 8 s
// encoder, the windowed trunk/head pair, the CUDA option for them and the Gelu reopening.
//
// Thread rules: every lookup and load runs under one process-wide lock; the sessions are
// loaded once and live until the process ends, and may be run from several threads at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "le/render/le_ort.h"

// Appends ONNX Runtime's CUDA provider to options when LE_A2X_CUDA is exactly "1" and tag is
// exactly "w2v"; a runtime without it prints the failure line and stays on the CPU.
void le_a2x_maybe_cuda(Ort::SessionOptions& options, const char* tag);

struct le_a2x;

namespace le::a2x {

// Size of the file in bytes; -1 for null, empty or unopenable paths.
int64_t fileSize(const char* path);

// (x - mean) / sqrt(var + 1e-7) over n samples: statistics in double (eight running sums),
// the root in float; the same bits on every vector target.
void normaliseWindow(float* x, size_t n);
// The same over the window dst[0, n) whose values are src[0, to - from) at [from, to) and zero
// elsewhere, without building it first. src may be dst only when from is 0.
void normaliseWindowFrom(const float* src, size_t from, size_t to, float* dst, size_t n);

// Opens path with options; when ONNX Runtime refuses a float16 com.microsoft.Gelu produced by
// its own fusion, says so and reopens at ORT_ENABLE_BASIC (options keeps that level).
std::unique_ptr<Ort::Session> openWithGeluFallback(Ort::Env& env, const std::string& path,
                                                   Ort::SessionOptions& options);

// The shared 8 s encoder: loaded from path on the first call that succeeds, then returned
// whatever path is asked for. Load errors propagate.
std::shared_ptr<Ort::Session> sharedEncoder(const std::string& path, int threads);

// The windowed pair, looked for once per process (environment pair, then the candidates beside
// encoderPath). False when absent or failed.
struct WindowedPair {
  std::shared_ptr<Ort::Session> trunk, head;
  std::string trunkOut;  // the trunk's first output name
  int64_t lt = 0;        // trunk output steps; 0 until known
};
bool windowedPair(int threads, const std::string& encoderPath, WindowedPair* out);
// Records the trunk's output length read from its first run (when it declares none).
int64_t noteTrunkLength(int64_t lt);

// Wall seconds a handle has spent inside ONNX Runtime's runs since its creation.
double runSeconds(const le_a2x* h);
// Whether the calling thread is inside one of a stream's ONNX Runtime runs: lets a benchmark
// tell the stream's own allocations from the runtime's.
bool insideRun();

}  // namespace le::a2x
