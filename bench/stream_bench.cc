// The offline stream renderer at 1080p with crop 512 on a forged bundle: frames per second of
// le_stream_run with the standard and the heavy director, beside the director's own rate
// (1000 / its ms per crop on the same source walk, measured in the same run); and seconds of
// audio rendered per second, offline versus the utterance pipeline on the same clip.
#include <benchmark/benchmark.h>

#include <chrono>
#include <ctime>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_bundle.h"
#include "le/le.h"
#include "le/le_a2x.h"
#include "le/le_bundle.h"
#include "tests/support/speech.h"
#include "tests/support/utt_soak.h"
#include "tools/forge/forge.h"
#include "tools/forge/forge_audio.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point t) { return std::chrono::duration<double, std::milli>(Clock::now() - t).count(); }

// CPU time of the whole process (every thread), ms.
double cpuMs() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return double(t.tv_sec) * 1e3 + double(t.tv_nsec) * 1e-6;
}

// Wall and CPU ms of one step, per step.
struct Cost {
  double wallMs = 0, cpuMs = 0;
};

using le::bench::benchTmp;

// The standard bundle (its "render" director is the standard one) and a twin whose "render"
// director is the heavy one: every other member is a link into the standard bundle. mp4: the
// drive frames as an H.264 movie instead of JPEG stills.
std::string forgeStandard(bool mp4) {
  le::forge::Params p = le::testmedia::uttBundleParams(1920, 1080, 512, 8);
  p.audio = true;
  p.drive = mp4 ? le::forge::DriveMedia::Movie : le::forge::DriveMedia::Stills;
  return le::bench::forgedOnce(mp4 ? "le_stream_bench_bundle_mp4" : "le_stream_bench_bundle", p, "fca_stream.onnx");
}

std::string heavyTwin(const std::string& standard) {
  const std::string d = standard + "_heavy";
  fs::remove_all(d);
  fs::create_directories(d);
  for (const auto& e : fs::directory_iterator(standard)) {
    const std::string name = e.path().filename().string();
    if (name == "model_render.onnx") continue;
    fs::create_symlink(e.path(), d + "/" + name);
  }
  fs::create_symlink(standard + "/model_b1_heavy.onnx", d + "/model_render.onnx");
  return d;
}

const std::string& bundle(bool heavy, bool mp4 = false) {
  if (mp4) {
    static const std::string standard = forgeStandard(true);
    static const std::string twin = heavyTwin(standard);
    return heavy ? twin : standard;
  }
  static const std::string standard = forgeStandard(false);
  static const std::string twin = heavyTwin(standard);
  return heavy ? twin : standard;
}

const std::vector<int16_t>& sentence() {
  static const std::vector<int16_t> s = le::testmedia::speak16kPcm(
      "The quick brown fox jumps over the lazy dog, and then it rests in the warm sun.");
  return s;
}

std::vector<float> sentenceFloat() {
  std::vector<float> f(sentence().size());
  for (size_t i = 0; i < f.size(); ++i) f[i] = sentence()[i] / 32768.0f;
  return f;
}

std::string encoder(const std::string& dir) { return dir + "/" + le::forge::kW2vMember; }

struct StreamDeleter {
  void operator()(le_stream* s) const { le_stream_destroy(s); }
};
struct CtxDeleter {
  void operator()(le_ctx* c) const { le_destroy(c); }
};

int count(void* user, int, const uint8_t*, int, int) {
  ++*static_cast<int*>(user);
  return 0;
}

// Wall-clock and CPU ms per crop of the "render" director alone on the stream's walk (f mod NT,
// the source keypoints driven by a small offset), after two warm-up crops; and the same of the
// paste of such a crop into its 1080p frame.
Cost directorMsPerCrop(const std::string& dir, int frames, Cost& paste) {
  std::unique_ptr<le_ctx, CtxDeleter> ctx(le_create(dir.c_str(), "render", 0, nullptr));
  if (!ctx) throw std::runtime_error(le_last_error());
  const int nt = le_nt(ctx.get());
  std::vector<float> targets(size_t(nt) * 63), xd(63);
  std::ifstream in(le::resolveMember(dir, "xs_target.bin"), std::ios::binary);
  if (!in.read(reinterpret_cast<char*>(targets.data()), std::streamsize(targets.size() * sizeof(float))))
    throw std::runtime_error("cannot read xs_target.bin");
  auto render = [&](int f) {
    const float* xs = targets.data() + size_t(f % nt) * 63;
    for (int i = 0; i < 63; ++i) xd[size_t(i)] = xs[i] + 0.01f * float((f + i) % 5);
    if (!le_render_kp_crop(ctx.get(), f % nt, xs, xd.data())) throw std::runtime_error(le_last_error());
  };
  render(0);
  render(1);
  const auto t = Clock::now();
  const double c = cpuMs();
  for (int f = 2; f < 2 + frames; ++f) render(f);
  const Cost director{msSince(t) / frames, (cpuMs() - c) / frames};
  const float* made = le_render_kp_crop(ctx.get(), 0, targets.data(), targets.data());
  const std::vector<float> crop(made, made + size_t(3) * size_t(le_crop(ctx.get())) * size_t(le_crop(ctx.get())));
  std::vector<uint8_t> frame(size_t(le_width(ctx.get())) * size_t(le_height(ctx.get())) * 3);
  const auto tp = Clock::now();
  const double cp = cpuMs();
  for (int f = 0; f < frames; ++f) le_paste_crop(ctx.get(), f % nt, crop.data(), frame.data(), frame.size());
  paste = {msSince(tp) / frames, (cpuMs() - cp) / frames};
  return director;
}

// The clip's deltas alone, as le_stream_run computes them before its first frame.
Cost fcaDeltasMs(const std::string& dir, const std::vector<float>& audio) {
  le_fca* f = le_fca_create(encoder(dir).c_str(), (dir + "/fca_stream.onnx").c_str(), 0);
  if (!f) throw std::runtime_error(le_fca_last_error());
  const int frames = int((audio.size() + 639) / 640);
  std::vector<float> d(size_t(frames) * 63);
  const auto t = Clock::now();
  const double c = cpuMs();
  const int got = le_fca_deltas(f, audio.data(), int(audio.size()), d.data(), frames);
  const Cost cost{msSince(t), cpuMs() - c};
  le_fca_destroy(f);
  if (got != frames) throw std::runtime_error(le_fca_last_error());
  return cost;
}

// le_stream_run over the sentence: delivered frames per second beside the director's own rate.
// The CPU figures tell a busy machine from a slow stream: render + paste CPU per frame of the
// run beside the director's and the paste's own, and the rate two cores could give at those
// costs (2000 / (director + paste CPU ms)) beside the director's own rate.
void BM_StreamRun(benchmark::State& state) {
  const bool heavy = state.range(0) != 0;
  const std::string& dir = bundle(heavy, state.range(1) != 0);
  const std::vector<float> audio = sentenceFloat();
  double fps = 0, alone = 0, renderFps = 0, runCpuPerFrame = 0;
  Cost deltas, director, paste;
  int frames = 0;
  for (auto _ : state) {
    std::unique_ptr<le_stream, StreamDeleter> s(le_stream_create(dir.c_str(), encoder(dir).c_str(), 0, 0, 1.0f));
    if (!s) throw std::runtime_error(le_stream_last_error());
    frames = 0;
    const auto t = Clock::now();
    const double c = cpuMs();
    if (le_stream_run(s.get(), audio.data(), int(audio.size()), count, &frames) < 0)
      throw std::runtime_error(le_stream_last_error());
    const double runMs = msSince(t), runCpu = cpuMs() - c;
    fps = 1000.0 * frames / runMs;
    s.reset();
    deltas = fcaDeltasMs(dir, audio);
    renderFps = 1000.0 * frames / (runMs - deltas.wallMs);
    runCpuPerFrame = (runCpu - deltas.cpuMs) / frames;
    director = directorMsPerCrop(dir, 24, paste);
    alone = 1000.0 / director.wallMs;
  }
  state.counters["frames"] = frames;
  state.counters["fps"] = fps;
  state.counters["director_alone_fps"] = alone;
  state.counters["ratio_vs_director"] = fps / alone;
  // the same without the clip's deltas, which come before the first frame
  state.counters["deltas_ms"] = deltas.wallMs;
  state.counters["render_paste_fps"] = renderFps;
  state.counters["render_paste_ratio_vs_director"] = renderFps / alone;
  state.counters["run_cpu_ms_per_frame"] = runCpuPerFrame;
  state.counters["director_cpu_ms"] = director.cpuMs;
  state.counters["director_wall_ms"] = director.wallMs;
  state.counters["paste_cpu_ms"] = paste.cpuMs;
  state.counters["paste_wall_ms"] = paste.wallMs;
  const double twoCores = 2000.0 / (director.cpuMs + paste.cpuMs);
  state.counters["two_core_fps_bound"] = twoCores;
  state.counters["two_core_bound_vs_director"] = twoCores / alone;
}
BENCHMARK(BM_StreamRun)
    ->ArgNames({"heavy", "mp4"})
    ->Args({0, 0})
    ->Args({1, 0})
    ->Args({0, 1})
    ->Args({1, 1})
    ->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// Seconds of audio turned into finished frames per second of wall clock: the whole clip through
// le_stream_run, and the same clip through the utterance pipeline (pushed at once, every frame
// pulled as it comes) with the same director, on the bundle's own speech stream.
void BM_OfflineVsLive(benchmark::State& state) {
  const std::string& dir = bundle(false);
  const std::vector<float> audio = sentenceFloat();
  const double audioSeconds = double(audio.size()) / 16000.0;
  double offline = 0, live = 0;
  for (auto _ : state) {
    {
      std::unique_ptr<le_stream, StreamDeleter> s(le_stream_create(dir.c_str(), encoder(dir).c_str(), 0, 0, 1.0f));
      if (!s) throw std::runtime_error(le_stream_last_error());
      int frames = 0;
      const auto t = Clock::now();
      if (le_stream_run(s.get(), audio.data(), int(audio.size()), count, &frames) < 0)
        throw std::runtime_error(le_stream_last_error());
      offline = audioSeconds / (msSince(t) / 1000.0);
    }
    std::unique_ptr<le_ctx, CtxDeleter> ctx(le_create(dir.c_str(), "render", 0, nullptr));
    if (!ctx) throw std::runtime_error(le_last_error());
    setenv("W2V_ONNX", encoder(dir).c_str(), 1);
    le_utt_opts o{};
    o.motion_dir = dir.c_str();
    le_utt* u = le_utt_create(ctx.get(), &o);
    if (!u) throw std::runtime_error(le_utt_last_error());
    std::vector<uint8_t> frame(size_t(le_width(ctx.get())) * le_height(ctx.get()) * 3);
    le_utt_frame_info info{};
    while (le_utt_ready(u) == 0) le_utt_pull_frame(u, frame.data(), frame.size(), &info);
    const auto t = Clock::now();
    le_utt_push_audio(u, sentence().data(), int(sentence().size()));
    le_utt_end_utterance(u);
    int speech = 0;
    for (;;) {
      if (!le_utt_pull_frame(u, frame.data(), frame.size(), &info)) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        continue;
      }
      if (info.kind == LE_UTT_KIND_SPEECH) ++speech;
      else if (speech > 0) break;  // the ramp begins: every speech frame is out
    }
    live = audioSeconds / (msSince(t) / 1000.0);
    le_utt_destroy(u);
  }
  state.counters["audio_s"] = audioSeconds;
  state.counters["offline_audio_s_per_s"] = offline;
  state.counters["live_audio_s_per_s"] = live;
  state.counters["offline_vs_live"] = offline / live;
}
BENCHMARK(BM_OfflineVsLive)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
