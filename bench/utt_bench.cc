// The utterance pipeline at 1080p with crop 512 on forged bundles: speech frames per second while
// speaking a synthesised sentence, beside the rate the director alone allows (1000 / its run ms,
// from the same run); the first speech frame's latency and the first ramp frame's latency after
// an interrupt, beside their bounds (one director run + one paste + 20 ms, resp. 10 ms).
//
// LE_UTT_STAGE_REPORT is set, so every pipeline prints its stage split when it is destroyed.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "le/le.h"
#include "le/le_a2x.h"
#include "le/le_capi.h"
#include "le/render/le_renderer.h"
#include "tests/support/speech.h"
#include "tests/support/utt_soak.h"
#include "tools/forge/forge.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point t) {
  return std::chrono::duration<double, std::milli>(Clock::now() - t).count();
}

// One forged 1080p bundle per process, rebuilt when missing.
const std::string& bundle() {
  static const std::string dir = [] {
    const char* t = std::getenv("LE_BENCH_TMP");
    const std::string d = std::string(t && *t ? t : "/tmp") + "/le_utt_bench_bundle";
    if (!fs::exists(d + "/motion/meta.json")) {
      le::forge::Params p = le::testmedia::uttBundleParams(1920, 1080, 512, 8);
      p.replace = true;
      le::forge::forgeBundle(d, p);
    }
    setenv("LE_UTT_STAGE_REPORT", "1", 1);
    return d;
  }();
  return dir;
}

std::string sourceDir(int source) { return source == 0 ? bundle() + "/motion" : bundle(); }

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
  Host(int director, int source, const char* steady) {
    ctx = le_create(bundle().c_str(), directorKey(director), 0, nullptr);
    if (!ctx) throw std::runtime_error(le_last_error());
    frame.resize(size_t(le_width(ctx)) * size_t(le_height(ctx)) * 3);
    const std::string dir = sourceDir(source);
    le_utt_opts o{};
    o.motion_dir = dir.c_str();
    o.steadyModel = steady;
    u = le_utt_create(ctx, &o);
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

// Speech frames per second while the host pulls as fast as frames come, over the whole sentence
// (pushed in 40 ms packets ahead of the pulls), beside 1000 / the director's own run ms.
void BM_UttSpeaking(benchmark::State& state) {
  const int director = int(state.range(0)), source = int(state.range(1));
  const bool steady = state.range(2) != 0;
  const auto& pcm = sentence();
  double fps = 0, alone = 0, renderAvg = 0;
  int64_t frames = 0;
  for (auto _ : state) {
    Host h(director, source, steady ? nullptr : "-");
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
    le_utt_stats st{};
    le_utt_get_stats(h.u, &st);
    renderAvg = st.renderMsAverage;
    frames = speech;
    fps = speech > 1 ? 1000.0 * double(speech - 1) / lastMs : 0;
    alone = 1000.0 / h.directorRunMs();
  }
  state.counters["speech_frames"] = double(frames);
  state.counters["fps"] = fps;
  state.counters["director_alone_fps"] = alone;
  state.counters["ratio_vs_director"] = fps / alone;
  state.counters["render_ms_avg"] = renderAvg;
}
BENCHMARK(BM_UttSpeaking)
    ->ArgNames({"heavy", "a2x", "steady"})
    ->Args({0, 0, 0})
    ->Args({1, 0, 0})
    ->Args({0, 0, 1})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The first speech frame after one push of the whole sentence (that push completes every frame's
// audio), and the first ramp frame after an interrupt, beside their bounds.
void BM_UttLatency(benchmark::State& state) {
  const int source = int(state.range(0));
  const auto& pcm = sentence();
  double first = 0, firstStat = 0, afterInterrupt = 0, runMs = 0, pasteMs = 0;
  for (auto _ : state) {
    {
      Host h(0, source, "-");
      for (int k = 0; k < 3;) k += h.pull();
      const auto push = Clock::now();
      le_utt_push_audio(h.u, pcm.data(), int(pcm.size()));
      le_utt_end_utterance(h.u);
      int speech = 0;
      while (speech < 5) {
        if (!h.pull() || h.info.kind != LE_UTT_KIND_SPEECH) continue;
        if (speech++ == 0) first = msSince(push);
      }
      le_utt_interrupt(h.u);
      const auto cut = Clock::now();
      while (le_utt_frames_available(h.u) == 0) std::this_thread::yield();
      afterInterrupt = msSince(cut);
      le_utt_stats st{};
      le_utt_get_stats(h.u, &st);
      firstStat = st.firstFrameLatencyMs;
      runMs = h.directorRunMs();
      le_utt_destroy(h.u);
      h.u = nullptr;
      pasteMs = Host::pasteMs(h.ctx);
    }
  }
  state.counters["first_speech_ms"] = first;
  state.counters["first_speech_ms_stats"] = firstStat;
  state.counters["first_speech_bound_ms"] = runMs + pasteMs + 20;
  state.counters["first_ramp_after_interrupt_ms"] = afterInterrupt;
  state.counters["interrupt_bound_ms"] = runMs + pasteMs + 10;
  state.counters["director_run_ms"] = runMs;
  state.counters["paste_ms"] = pasteMs;
}
BENCHMARK(BM_UttLatency)->ArgNames({"a2x"})->Arg(0)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
