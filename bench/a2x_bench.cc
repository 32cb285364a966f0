// The audio-to-expression stream on forged members and espeak-ng speech: audio cost per second
// of speech on the windowed frontend (live stream) and on the 8 s window (offline deltas), the
// latency from a push that completes a frame block to its frames being pullable, and the raw
// ONNX Runtime cost of one 8 s window against the 25 trunk/head runs that cover the same frames.
// Per speech frame of a live stream: the share of its time spent outside ONNX Runtime's runs
// and the heap allocations made in steady state (malloc and friends are counted here), all of
// them and those outside ONNX Runtime's runs.
#include <benchmark/benchmark.h>

#include <time.h>

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include "le/audio/le_a2x_w2v.h"
#include "le/render/le_ort.h"
#include "tests/a2x_fixture.h"
#include "tests/support/media.h"

#include "bench/alloc_count.h"

bool benchInsideRun() { return le::a2x::insideRun(); }

namespace {

using le::testa2x::longSpeech;

struct Bundle {
  le::testing::ScratchDir dir{"a2x_bench"};
  std::string path = le::testa2x::forgeAudioBundle(dir, "b");
  le::testmedia::ScopedEnv w2v{"W2V_ONNX", (path + "/" + le::forge::kW2vMember).c_str()};
};
Bundle& bundle() {
  static Bundle b;
  return b;
}

// Milliseconds of processor time per second of speech: the machine is shared, so the
// process's CPU clock says more than the wall clock.
double cpuMs() {
  timespec ts{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return double(ts.tv_sec) * 1e3 + double(ts.tv_nsec) * 1e-6;
}
struct CpuTimer {
  double start = cpuMs();
};
double speechSeconds() { return double(longSpeech().size()) / 16000.0; }

// A stream on the bench bundle with room to pull 64 frames at a time.
struct Stream {
  le_a2x* h = le_a2x_create(bundle().path.c_str(), 1);
  std::vector<int> si = std::vector<int>(64);
  std::vector<float> t = std::vector<float>(64 * 63), dr = std::vector<float>(64 * 63);
  Stream() = default;
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  ~Stream() { le_a2x_destroy(h); }
  int pull() { return le_a2x_pull(h, si.data(), t.data(), dr.data(), 64); }
  void drain() {
    while (pull() > 0) {
    }
  }
};

// Live stream on the windowed frontend: blocks of 5120 samples, pulls after each.
void BM_StreamWindowed(benchmark::State& state) {
  Stream st;
  le_a2x* h = st.h;
  const std::vector<float>& a = longSpeech();
  const CpuTimer cpu;
  for (auto _ : state) {
    le_a2x_reset(h, 0, 1, 1);
    for (size_t at = 0; at < a.size(); at += 5120) {
      le_a2x_push(h, a.data() + at, int(std::min<size_t>(5120, a.size() - at)));
      st.drain();
    }
    le_a2x_finish(h);
    st.drain();
  }
  state.counters["cpu_ms_per_speech_s"] = (cpuMs() - cpu.start) / double(state.iterations()) / speechSeconds();
}
BENCHMARK(BM_StreamWindowed)->Unit(benchmark::kMillisecond)->UseRealTime();

// The live stream on the windowed frontend pushed one 40 ms frame at a time, pulling after each,
// after one utterance of warm-up. Counters per speech frame: wall microseconds, the share spent
// outside ONNX Runtime's runs (feature copies, half rounding, tensors, bookkeeping), and heap
// allocations (count, bytes, largest), ONNX Runtime's own included. The machine is shared, so
// besides the plain ratio of sums (share_outside_ort_mean) each step of the utterance (a push
// and its pulls) keeps its least time inside and outside over the iterations, a step that some
// iteration ran undisturbed; share_outside_ort is the ratio of those. allocs_outside_ort_per_frame
// counts the stream's own allocations (the benchmark's loop makes none).
void BM_StreamPerFrame(benchmark::State& state) {
  Stream st;
  le_a2x* h = st.h;
  const std::vector<float>& a = longSpeech();
  const size_t steps = (a.size() + 639) / 640 + 1;
  std::vector<double> leastIn(steps, 1e9), leastOut(steps, 1e9);
  auto utterance = [&] {
    le_a2x_reset(h, 0, 1, 1);
    for (size_t k = 0; k < steps; ++k) {
      const auto t0 = std::chrono::steady_clock::now();
      const double r0 = le::a2x::runSeconds(h);
      if (k + 1 < steps) le_a2x_push(h, a.data() + 640 * k, int(std::min<size_t>(640, a.size() - 640 * k)));
      else le_a2x_finish(h);
      st.drain();
      const double in = le::a2x::runSeconds(h) - r0;
      const double all = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
      leastIn[k] = std::min(leastIn[k], in);
      leastOut[k] = std::min(leastOut[k], all - in);
    }
  };
  utterance();
  std::fill(leastIn.begin(), leastIn.end(), 1e9);
  std::fill(leastOut.begin(), leastOut.end(), 1e9);
  const long allocs0 = gAllocs.load(), bytes0 = gAllocBytes.load(), outside0 = gAllocsOutside.load();
  gAllocMax = 0;
  const double ort0 = le::a2x::runSeconds(h);
  double wall = 0;
  for (auto _ : state) {
    const auto t0 = std::chrono::steady_clock::now();
    utterance();
    wall += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  }
  const double frames = double(state.iterations()) * double(steps - 1);
  double in = 0, out = 0;
  for (size_t k = 0; k < steps; ++k) in += leastIn[k], out += leastOut[k];
  state.counters["us_per_frame"] = 1e6 * wall / frames;
  state.counters["share_outside_ort_mean"] = 1.0 - (le::a2x::runSeconds(h) - ort0) / wall;
  state.counters["share_outside_ort"] = out / (in + out);
  state.counters["allocs_per_frame"] = double(gAllocs.load() - allocs0) / frames;
  state.counters["allocs_outside_ort_per_frame"] = double(gAllocsOutside.load() - outside0) / frames;
  state.counters["alloc_bytes_per_frame"] = double(gAllocBytes.load() - bytes0) / frames;
  state.counters["largest_alloc_bytes"] = double(gAllocMax.load());
}
BENCHMARK(BM_StreamPerFrame)->Unit(benchmark::kMillisecond)->UseRealTime();

// The whole clip through the 8 s window, encoder and decoder.
void BM_OfflineLegacy(benchmark::State& state) {
  le_a2x* h = le_a2x_create(bundle().path.c_str(), 1);
  const std::vector<float>& a = longSpeech();
  std::vector<float> out((a.size() + 639) / 640 * 63);
  const CpuTimer cpu;
  for (auto _ : state) benchmark::DoNotOptimize(le_a2x_deltas(h, a.data(), int(a.size()), out.data(), int(out.size() / 63)));
  state.counters["cpu_ms_per_speech_s"] = (cpuMs() - cpu.start) / double(state.iterations()) / speechSeconds();
  le_a2x_destroy(h);
}
BENCHMARK(BM_OfflineLegacy)->Unit(benchmark::kMillisecond)->UseRealTime();

// From the push that completes a frame block to its 8 frames pulled (steady state, mid-clip).
void BM_PushToPullable(benchmark::State& state) {
  Stream st;
  le_a2x* h = st.h;
  const std::vector<float>& a = longSpeech();
  size_t at = 0;
  le_a2x_push(h, a.data(), 5 * 5120);
  at = 5 * 5120;
  st.drain();
  for (auto _ : state) {
    if (at + 5120 > a.size()) {
      state.PauseTiming();
      le_a2x_reset(h, 0, 1, 1);
      le_a2x_push(h, a.data(), 5 * 5120);
      at = 5 * 5120;
      st.drain();
      state.ResumeTiming();
    }
    le_a2x_push(h, a.data() + at, 5120);
    at += 5120;
    benchmark::DoNotOptimize(st.pull());
  }
}
BENCHMARK(BM_PushToPullable)->Unit(benchmark::kMicrosecond)->UseRealTime();

// ONNX Runtime alone: one 8 s window (200 frames) against the 25 trunk + head runs of the
// windowed frontend for the same 200 frames. Counter: windowed time over 8 s window time.
void BM_FrontendRaw(benchmark::State& state) {
  le::ortApi();
  Ort::Env env(ORT_LOGGING_LEVEL_WARNING, "bench");
  Ort::SessionOptions o;
  o.SetIntraOpNumThreads(1);
  const std::string w = bundle().path + "/w2v/audio_encoder_fp16";
  Ort::Session enc(env, (w + ".onnx").c_str(), o), trunk(env, (w + "_window_trunk.onnx").c_str(), o),
      head(env, (w + "_window_head.onnx").c_str(), o);
  Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  std::vector<float> x8(128000), x2(32000), hx(8 * 640);
  for (size_t i = 0; i < x8.size(); ++i) x8[i] = longSpeech()[i % longSpeech().size()] * 8;
  for (size_t i = 0; i < x2.size(); ++i) x2[i] = x8[i];
  const int64_t s8[2] = {1, 128000}, s2[2] = {1, 32000}, sh[2] = {8, 640};
  Ort::Value v8 = Ort::Value::CreateTensor<float>(mem, x8.data(), x8.size(), s8, 2);
  Ort::Value v2 = Ort::Value::CreateTensor<float>(mem, x2.data(), x2.size(), s2, 2);
  Ort::Value vh = Ort::Value::CreateTensor<float>(mem, hx.data(), hx.size(), sh, 2);
  const char* in8 = "input_values";
  const char* out8 = "audio_emb";
  const char* outT = "trunk_out";
  const char* inH = "x";
  const char* outH = "emb";
  double t8 = 0, tw = 0;
  for (auto _ : state) {
    auto a = std::chrono::steady_clock::now();
    enc.Run(Ort::RunOptions{nullptr}, &in8, &v8, 1, &out8, 1);
    auto b = std::chrono::steady_clock::now();
    for (int k = 0; k < 25; ++k) {
      trunk.Run(Ort::RunOptions{nullptr}, &in8, &v2, 1, &outT, 1);
      head.Run(Ort::RunOptions{nullptr}, &inH, &vh, 1, &outH, 1);
    }
    auto c = std::chrono::steady_clock::now();
    t8 += std::chrono::duration<double>(b - a).count();
    tw += std::chrono::duration<double>(c - b).count();
  }
  state.counters["ms_8s_window"] = 1e3 * t8 / double(state.iterations());
  state.counters["ms_windowed_200_frames"] = 1e3 * tw / double(state.iterations());
  state.counters["windowed_over_8s"] = tw / t8;
}
BENCHMARK(BM_FrontendRaw)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
