// The utterance pipeline at 1080p with crop 512 on forged bundles: speech frames per second while
// speaking a synthesised sentence, beside the rate the director alone allows (1000 / its run ms,
// from the same run); the first speech frame's latency and the first ramp frame's latency after
// an interrupt, beside their bounds (one director run + one paste + 20 ms, resp. 10 ms); the
// speaking rate with the mouth-interior borrow attached beside the rate without it (goal >= 90 %).
//
// LE_UTT_STAGE_REPORT is set, so every pipeline prints its stage split when it is destroyed.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "le/le.h"
#include "le/le_a2x.h"
#include "le/le_capi.h"
#include "le/le_bundle.h"
#include "le/render/le_renderer.h"
#include "le/tessera/le_bundle_tessera.h"
#include "bench/bench_bundle.h"
#include "tests/support/speech.h"
#include "tests/support/utt_soak.h"
#include "tools/forge/forge.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point t) {
  return std::chrono::duration<double, std::milli>(Clock::now() - t).count();
}

// CPU time of the whole process (every thread), ms.
double cpuMs() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return double(t.tv_sec) * 1e3 + double(t.tv_nsec) * 1e-6;
}

// One forged 1080p bundle per drive kind: the drive frames as JPEG stills, or (mp4) as an H.264
// movie.
std::string forgeBundle(bool mp4) {
  le::forge::Params p = le::testmedia::uttBundleParams(1920, 1080, 512, 8);
  p.audio = true;  // the audio-to-expression source beside the motion generator
  p.tessera = !mp4;
  p.lips = le::forge::Lips::Template;
  p.drive = mp4 ? le::forge::DriveMedia::Movie : le::forge::DriveMedia::Stills;
  const std::string d =
      le::bench::forgedOnce(mp4 ? "le_utt_bench_bundle_mp4" : "le_utt_bench_bundle_borrow", p, "a2x_enc_stream.onnx");
  setenv("LE_UTT_STAGE_REPORT", "1", 1);
  setenv("W2V_ONNX", (d + "/w2v/audio_encoder_fp16.onnx").c_str(), 1);
  return d;
}

const std::string& bundle(bool mp4 = false) {
  static const std::string stills = forgeBundle(false);
  if (!mp4) return stills;
  static const std::string movie = forgeBundle(true);
  return movie;
}

std::string sourceDir(int source, bool mp4) { return source == 0 ? bundle(mp4) + "/motion" : bundle(mp4); }

const std::vector<int16_t>& sentence() {
  static const std::vector<int16_t> s = le::testmedia::speak16kPcm(
      "The quick brown fox jumps over the lazy dog, and then it rests in the warm sun.");
  return s;
}

const char* directorKey(int d) { return d == 0 ? "b1" : "b1_heavy"; }

struct Host {
  le_ctx* ctx;
  le_utt* u = nullptr;
  std::vector<uint8_t> frame;
  le_utt_frame_info info{};
  // split: false keeps the director whole (LE_CONE_SPLIT=0 while the renderer is made).
  Host(int director, int source, const char* steady, bool split = true, bool mp4 = false) {
    ctx = le_create(bundle(mp4).c_str(), directorKey(director), 0, nullptr);
    if (!ctx) throw std::runtime_error(le_last_error());
    frame.resize(size_t(le_width(ctx)) * size_t(le_height(ctx)) * 3);
    const std::string dir = sourceDir(source, mp4);
    le_utt_opts o{};
    o.motion_dir = dir.c_str();
    o.steadyModel = steady;
    if (!split) setenv("LE_CONE_SPLIT", "0", 1);
    u = le_utt_create(ctx, &o);
    unsetenv("LE_CONE_SPLIT");
    if (!u) throw std::runtime_error(le_utt_last_error());
    while (le_utt_ready(u) == 0) pull();
    if (le_utt_ready(u) < 0) throw std::runtime_error(le_utt_last_error());
  }
  ~Host() {
    le_utt_destroy(u);
    le_destroy(ctx);
  }
  // One frame when one waits; false (after a short nap) when none does.
  bool pull() {
    if (le_utt_pull_frame(u, frame.data(), frame.size(), &info)) return true;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
    return false;
  }
  double directorRunMs() const {
    const le::Renderer& r = *ctx->renderer;
    return r.runCount() > 0 ? r.runMsTotal() / double(r.runCount()) : 0;
  }
  // Paste cost of one crop into a full frame, measured on the context after the pipeline is gone.
  static double pasteMs(le_ctx* ctx) {
    std::vector<float> crop(size_t(3) * size_t(le_crop(ctx)) * size_t(le_crop(ctx)), 0.5f);
    std::vector<uint8_t> out(size_t(le_width(ctx)) * size_t(le_height(ctx)) * 3);
    le_paste_crop(ctx, 0, crop.data(), out.data(), out.size());
    const auto t = Clock::now();
    for (int k = 0; k < 5; ++k) le_paste_crop(ctx, k % le_nt(ctx), crop.data(), out.data(), out.size());
    return msSince(t) / 5;
  }
};

// Speaks the sentence (pushed in 40 ms packets ahead of the pulls) while pulling as fast as
// frames come; returns speech frames per second from the first to the last speech frame.
double speakFps(Host& h, int64_t& frames) {
  const auto& pcm = sentence();
  for (size_t at = 0; at < pcm.size(); at += 640)
    le_utt_push_audio(h.u, pcm.data() + at, int(std::min<size_t>(640, pcm.size() - at)));
  le_utt_end_utterance(h.u);
  Clock::time_point first{};
  int64_t speech = 0;
  double lastMs = 0;
  for (;;) {
    if (!h.pull()) continue;
    if (h.info.kind == LE_UTT_KIND_SPEECH) {
      if (speech++ == 0) first = Clock::now();
      lastMs = msSince(first);
    } else if (speech > 0 && h.info.kind == LE_UTT_KIND_IDLE) {
      break;
    }
  }
  frames = speech;
  return speech > 1 ? 1000.0 * double(speech - 1) / lastMs : 0;
}

// Speech frames per second while the host pulls as fast as frames come, over the whole sentence
// (pushed in 40 ms packets ahead of the pulls), beside 1000 / the director's own run ms; with
// and without the source-cone split. On a shared machine the wall-clock rate says little, so the
// process's CPU time per speech frame (every thread: keypoint source, director, prefetch, paste)
// is reported too, with the rate two dedicated cores could sustain at that cost. mp4: the drive
// frames come from the bundle's H.264 movie instead of its JPEG stills.
void BM_UttSpeaking(benchmark::State& state) {
  const int director = int(state.range(0)), source = int(state.range(1));
  const bool steady = state.range(2) != 0;
  const bool split = state.range(3) != 0;
  const bool mp4 = state.range(4) != 0;
  double fps = 0, alone = 0, renderAvg = 0, cpuPerFrame = 0;
  int64_t frames = 0;
  for (auto _ : state) {
    Host h(director, source, steady ? nullptr : "-", split, mp4);
    // the director's rate from the runs while speaking, not the warm-up's first runs
    const double ms0 = h.ctx->renderer->runMsTotal();
    const int64_t runs0 = h.ctx->renderer->runCount();
    const double cpu0 = cpuMs();
    fps = speakFps(h, frames);
    cpuPerFrame = (cpuMs() - cpu0) / double(std::max<int64_t>(1, frames));
    le_utt_stats st{};
    le_utt_get_stats(h.u, &st);
    renderAvg = st.renderMsAverage;
    alone = 1000.0 * double(h.ctx->renderer->runCount() - runs0) / (h.ctx->renderer->runMsTotal() - ms0);
  }
  state.counters["speech_frames"] = double(frames);
  state.counters["fps"] = fps;
  state.counters["director_alone_fps"] = alone;
  state.counters["ratio_vs_director"] = fps / alone;
  state.counters["render_ms_avg"] = renderAvg;
  state.counters["cpu_ms_per_frame"] = cpuPerFrame;
  state.counters["two_core_fps_bound"] = 2000.0 / cpuPerFrame;
}
BENCHMARK(BM_UttSpeaking)
    ->ArgNames({"heavy", "a2x", "steady", "split", "mp4"})
    ->Args({0, 0, 0, 1, 0})
    ->Args({1, 0, 0, 1, 0})
    ->Args({1, 0, 0, 0, 0})  // the heavy director kept whole: what the split buys while speaking
    ->Args({0, 0, 1, 1, 0})
    ->Args({0, 1, 0, 1, 0})  // the audio-to-expression source pastes on its own thread
    ->Args({1, 1, 0, 1, 0})
    ->Args({1, 1, 0, 0, 0})
    ->Args({0, 1, 1, 1, 0})
    ->Args({0, 0, 0, 1, 1})  // the drive frames from the movie
    ->Args({1, 0, 0, 1, 1})
    ->Args({0, 1, 0, 1, 1})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The bundle's borrow attached the way a host does it: members loaded, bank decoded, attached.
void attachBorrow(le_utt* u) {
  static const le::TesseraAttachInputs in = le::loadTesseraMembers(bundle());
  static const std::vector<uint8_t> donors = [] {
    const std::string track = le::readFile(in.bank_track_path);
    return le::tessera::decodeBankTrack(reinterpret_cast<const uint8_t*>(track.data()), track.size(), in.n_donors,
                                        in.band_h, in.band_w, in.track_order);
  }();
  char err[1024];
  if (le_utt_tessera_attach(u, donors.data(), in.n_donors, in.cent.data(), in.c_canon.data(), in.aperture.data(),
                            in.stamp.values().data(), in.head_pt.data(), uint32_t(in.head_pt.size()),
                            in.head_json.c_str(), in.manifest_json.c_str(), err, sizeof err) != 0)
    throw std::runtime_error(err);
}

// The speaking rate with the borrow attached (its stage on a thread of its own beside the paste
// thread) against the rate without it, in one run: standard director, paste on its own thread.
void BM_UttBorrow(benchmark::State& state) {
  setenv("LE_UTT_PIPELINE_PASTE", "1", 1);
  double without = 0, with = 0;
  double cpuWithout = 1e9, cpuWith = 1e9;  // process CPU per speech frame, least of the rounds
  int64_t frames = 0;
  uint64_t written = 0;
  auto measure = [&](Host& h, double& fps, double& cpu) {
    const double cpu0 = cpuMs();
    fps = std::max(fps, speakFps(h, frames));
    cpu = std::min(cpu, (cpuMs() - cpu0) / double(std::max<int64_t>(1, frames)));
  };
  for (auto _ : state) {
    // Alternating rounds, the best of each: the other programs on a shared machine slow single
    // rounds at random.
    for (int round = 0; round < 2; ++round) {
      {
        Host h(0, 0, "-");
        measure(h, without, cpuWithout);
      }
      Host h(0, 0, "-");
      attachBorrow(h.u);
      measure(h, with, cpuWith);
      le_utt_tessera_stats(h.u, &written, nullptr, nullptr, 0);
    }
  }
  state.counters["cpu_ms_per_frame_without"] = cpuWithout;
  state.counters["cpu_ms_per_frame_with"] = cpuWith;
  unsetenv("LE_UTT_PIPELINE_PASTE");
  state.counters["speech_frames"] = double(frames);
  state.counters["fps_without_borrow"] = without;
  state.counters["fps_with_borrow"] = with;
  state.counters["ratio_with_vs_without"] = without > 0 ? with / without : 0;
  state.counters["borrowed_frames"] = double(written);
}
BENCHMARK(BM_UttBorrow)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

// The first speech frame after one push of the whole sentence (that push completes every frame's
// audio), and the first ramp frame after an interrupt, beside their bounds; over several
// utterances of one pipeline, each after idle frames pulled at 25 per second as a live host does,
// since single figures on a shared machine vary by a third. The first utterance of a new
// pipeline is reported on its own as well.
void BM_UttLatency(benchmark::State& state) {
  const int source = int(state.range(0));
  constexpr int kRounds = 7;
  const auto& pcm = sentence();
  std::vector<double> first, afterInterrupt, beyondRun;
  double firstOfPipeline = 0, runMs = 0, pasteMs = 0;
  for (auto _ : state) {
    Host h(0, source, "-");
    const le::Renderer& r = *h.ctx->renderer;
    // The bound's director run: the runs while speaking, not the warm-up's first runs.
    const double ms0 = r.runMsTotal();
    const int64_t runs0 = r.runCount();
    for (int round = 0; round < kRounds; ++round) {
      // Idle frames at 25 per second, as a live host pulls them, until ten in a row were idle.
      for (int k = 0; k < 10;) {
        const auto due = Clock::now() + std::chrono::milliseconds(40);
        while (!h.pull()) {
        }
        k = h.info.kind == LE_UTT_KIND_IDLE ? k + 1 : 0;
        std::this_thread::sleep_until(due);
      }
      const auto push = Clock::now();
      le_utt_push_audio(h.u, pcm.data(), int(pcm.size()));
      le_utt_end_utterance(h.u);
      for (int speech = 0; speech < 5;) {
        if (!h.pull() || h.info.kind != LE_UTT_KIND_SPEECH) continue;
        if (speech++ == 0) first.push_back(msSince(push));
      }
      const double runMsCut = r.runMsTotal();
      // Frames already in the ring came before the interrupt; the ramp frame is the first after.
      le_utt_interrupt(h.u);
      const auto cut = Clock::now();
      // polled with naps: a spinning host would take a core from the pipeline it times
      while (le_utt_frames_available(h.u) == 0) std::this_thread::sleep_for(std::chrono::microseconds(100));
      afterInterrupt.push_back(msSince(cut));
      // less the director runs finished since the cut (the ramp frame's own, and the speech
      // frame's that was under way)
      beyondRun.push_back(afterInterrupt.back() - (r.runMsTotal() - runMsCut));
    }
    firstOfPipeline = first.front();
    runMs = (r.runMsTotal() - ms0) / double(std::max<int64_t>(1, r.runCount() - runs0));
    le_utt_destroy(h.u);
    h.u = nullptr;
    pasteMs = Host::pasteMs(h.ctx);
  }
  state.counters["first_speech_ms"] = median(first);
  state.counters["first_speech_ms_worst"] = *std::max_element(first.begin(), first.end());
  state.counters["first_speech_of_pipeline_ms"] = firstOfPipeline;
  state.counters["first_speech_bound_ms"] = runMs + pasteMs + 20;
  state.counters["first_ramp_after_interrupt_ms"] = median(afterInterrupt);
  state.counters["first_ramp_ms_worst"] = *std::max_element(afterInterrupt.begin(), afterInterrupt.end());
  state.counters["interrupt_bound_ms"] = runMs + pasteMs + 10;
  // the interrupt latency beyond the ramp frame's own director run, against paste + 10 ms: the
  // part that does not scale with the machine's load the way a run does
  state.counters["interrupt_beyond_run_ms"] = median(beyondRun);
  state.counters["interrupt_beyond_run_bound_ms"] = pasteMs + 10;
  state.counters["director_run_ms"] = runMs;
  state.counters["paste_ms"] = pasteMs;
}
BENCHMARK(BM_UttLatency)->ArgNames({"a2x"})->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
