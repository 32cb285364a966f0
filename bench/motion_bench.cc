// The motion generator's feature path and eager delivery. The 512-point FFT runs beside FFTW's
// (the same complex transform, and the real-input transform a user would pick for a magnitude
// spectrum); "vs_*" counters are time ratios, below 1 means ours is faster. The feature window
// (5 frames: 21 spectra, mel bands, the speech-feature network) reports the share spent outside
// ONNX Runtime. Eager delivery reports how much audio had been pushed when the first frame could
// be pulled, and what the provisional work costs per second of speech. In steady state (eager
// off, a second of speech in), the heap allocations per frame made outside the networks' runs.
#include <benchmark/benchmark.h>
#include <fftw3.h>

#include <chrono>
#include <cmath>
#include <unistd.h>

#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "le/audio/le_motion.h"
#include "le/le_a2x.h"
#include "le/le_imx.h"
#include "tests/support/speech.h"
#include "tools/forge/forge_motion.h"
#include "bench/alloc_count.h"

bool benchInsideRun() { return le::motion::insideRun(); }

namespace {

namespace mo = le::motion;

double threadSeconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

std::vector<float> noise(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> d(-1, 1);
  std::vector<float> v(n);
  for (float& x : v) x = d(rng);
  return v;
}

// A windowed frame of real input: ours (split complex, zero imaginary part), then FFTW.
void BM_Fft512(benchmark::State& state) {
  const mo::Fft512 fft;
  const std::vector<float> in = noise(512, 1);
  std::vector<float> re(512), im(512);
  float* cin = fftwf_alloc_real(2 * 512);
  float* cout = fftwf_alloc_real(2 * 512);
  float* rin = fftwf_alloc_real(512);
  fftwf_complex* rout = fftwf_alloc_complex(257);
  fftwf_plan c2c = fftwf_plan_dft_1d(512, reinterpret_cast<fftwf_complex*>(cin), reinterpret_cast<fftwf_complex*>(cout),
                                     FFTW_FORWARD, FFTW_MEASURE);
  fftwf_plan r2c = fftwf_plan_dft_r2c_1d(512, rin, rout, FFTW_MEASURE);
  constexpr int kReps = 200;
  double tOurs = 0, tC2c = 0, tR2c = 0;
  for (auto _ : state) {
    double t0 = threadSeconds();
    for (int r = 0; r < kReps; ++r) {
      std::copy(in.begin(), in.end(), re.begin());
      std::fill(im.begin(), im.end(), 0.0f);
      fft.forward(re.data(), im.data());
      benchmark::DoNotOptimize(re.data());
    }
    const double t1 = threadSeconds();
    for (int r = 0; r < kReps; ++r) {
      for (int i = 0; i < 512; ++i) cin[2 * i] = in[i], cin[2 * i + 1] = 0;
      fftwf_execute(c2c);
      benchmark::DoNotOptimize(cout);
    }
    const double t2 = threadSeconds();
    for (int r = 0; r < kReps; ++r) {
      std::copy(in.begin(), in.end(), rin);
      fftwf_execute(r2c);
      benchmark::DoNotOptimize(rout);
    }
    const double t3 = threadSeconds();
    tOurs += t1 - t0, tC2c += t2 - t1, tR2c += t3 - t2;
    state.SetIterationTime(t1 - t0);  // kReps transforms
  }
  state.counters["ns_ours"] = tOurs * 1e9 / (kReps * static_cast<double>(state.iterations()));
  state.counters["vs_fftw_c2c"] = tOurs / tC2c;
  state.counters["vs_fftw_r2c"] = tOurs / tR2c;
  fftwf_destroy_plan(c2c);
  fftwf_destroy_plan(r2c);
  fftwf_free(cin), fftwf_free(cout), fftwf_free(rin), fftwf_free(rout);
}
BENCHMARK(BM_Fft512)->UseManualTime();

// A forged motion directory, made once per process.
const std::string& motionDir() {
  static const std::string dir = [] {
    const std::string root = "/tmp/le_motion_bench." + std::to_string(::getpid());
    le::forge::Params p;
    p.nt = 8;
    for (const le::forge::Member& m : le::forge::motionMembers(p)) le::forge::writeBytes(root + "/" + m.name, m.bytes);
    return root + "/motion";
  }();
  return dir;
}

const std::vector<float>& speech() {
  static const std::vector<float> s =
      le::testmedia::speak16k("The motion generator turns speech into keypoints, five frames at a time.");
  return s;
}

// One feature window of 5 frames: 21 spectra, mel bands and the speech-feature network.
void BM_FeatureWindow(benchmark::State& state) {
  mo::Motion m(motionDir(), 1, "");
  m.push(speech().data(), static_cast<int>(speech().size()));
  std::vector<float> rows(5 * mo::kCondDim);
  const double s0 = m.studentMs();
  double total = 0;
  int w = 0;
  for (auto _ : state) {
    const double t0 = threadSeconds();
    const auto c0 = std::chrono::steady_clock::now();
    m.featureWindow(w, rows.data());
    total += std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - c0).count();
    state.SetIterationTime(threadSeconds() - t0);
    w = (w + 5) % 100;
  }
  const double student = m.studentMs() - s0;
  state.counters["ms_per_window"] = total / static_cast<double>(state.iterations());
  state.counters["share_outside_ort"] = total > 0 ? 1.0 - student / total : 0;
}
BENCHMARK(BM_FeatureWindow)->UseManualTime();

// A whole utterance pushed in 40 ms pieces, pulling after each: eager off (0), adaptive (-1)
// or a fixed step. Counters: samples pushed when the first frame could be pulled, and the
// wall and processor milliseconds of all work per second of speech (the networks run on this
// thread, so on a shared machine the processor time is the steadier figure).
void BM_Eager(benchmark::State& state) {
  const int eager = static_cast<int>(state.range(0));
  le_motion* m = le_motion_create(motionDir().c_str(), 1, nullptr);
  const std::vector<float>& a = speech();
  int si[16];
  float xs[16 * 63], xd[16 * 63];
  double firstSamples = 0, ms = 0, cpuMs = 0;
  for (auto _ : state) {
    le_motion_reset(m, 0, 1, 1);
    le_motion_set_eager(m, eager);
    size_t first = 0;
    const double c0 = threadSeconds();
    const auto t0 = std::chrono::steady_clock::now();
    for (size_t at = 0; at < a.size(); at += 640) {
      le_motion_push(m, a.data() + at, static_cast<int>(std::min<size_t>(640, a.size() - at)));
      while (le_motion_pull(m, si, xs, xd, 16) > 0)
        if (!first) first = at + 640;
    }
    le_motion_finish(m);
    while (le_motion_pull(m, si, xs, xd, 16) > 0) {
    }
    const double t = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    ms += t;
    cpuMs += 1e3 * (threadSeconds() - c0);
    firstSamples += static_cast<double>(first ? first : a.size());
    state.SetIterationTime(t / 1000);
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["first_frame_samples"] = firstSamples / n;
  state.counters["ms_per_speech_s"] = ms / n / (static_cast<double>(a.size()) / 16000.0);
  state.counters["cpu_ms_per_speech_s"] = cpuMs / n / (static_cast<double>(a.size()) / 16000.0);
  le_motion_destroy(m);
}
BENCHMARK(BM_Eager)->Arg(0)->Arg(-1)->Arg(4)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

// Speech pushed in 40 ms pieces with a pull after each; allocations counted after the first
// second of every utterance but the first (the handle's rows grow to an utterance's length once
// and keep that room across resets).
void BM_SteadyFrames(benchmark::State& state) {
  le_motion* m = le_motion_create(motionDir().c_str(), 1, nullptr);
  const std::vector<float>& a = speech();
  int si[16];
  float xs[16 * 63], xd[16 * 63];
  long allocs = 0, outside = 0, bytes = 0;
  double frames = 0;
  bool warm = false;
  for (auto _ : state) {
    le_motion_reset(m, 0, 1, 1);
    for (size_t at = 0; at < a.size(); at += 640) {
      const bool counted = warm && at >= 16000;
      const long a0 = gAllocs.load(), o0 = gAllocsOutside.load(), b0 = gAllocBytes.load();
      le_motion_push(m, a.data() + at, static_cast<int>(std::min<size_t>(640, a.size() - at)));
      int got = 0;
      for (int n; (n = le_motion_pull(m, si, xs, xd, 16)) > 0;) got += n;
      if (counted) {
        allocs += gAllocs.load() - a0, outside += gAllocsOutside.load() - o0, bytes += gAllocBytes.load() - b0;
        frames += got;
      }
    }
    warm = true;
  }
  le_motion_destroy(m);
  state.counters["frames"] = frames;
  state.counters["allocs_per_frame"] = frames > 0 ? double(allocs) / frames : 0;
  state.counters["allocs_outside_ort_per_frame"] = frames > 0 ? double(outside) / frames : 0;
  state.counters["alloc_bytes_per_frame"] = frames > 0 ? double(bytes) / frames : 0;
}
BENCHMARK(BM_SteadyFrames)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
