// The borrow's load-time work: decoding a 1024-donor bank track from memory beside the ffmpeg
// tool decoding the same file to raw RGB, and reading the head weights file.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_bundle.h"
#include "le/le_imx.h"
#include "le/tessera/le_bundle_tessera.h"
#include "le/tessera/le_tessera_pt.h"
#include "tools/forge/forge_tessera.h"

namespace {

struct Bank {
  std::string dir;
  le::TesseraAttachInputs in;
  std::vector<uint8_t> track;
  Bank() {
    dir = "/tmp/le_tessera_bench." + std::to_string(::getpid());
    le::forge::Params p;
    p.nt = 8;
    p.frames = 2;
    p.crop = 256;
    p.width = 320;
    p.height = 288;
    p.tessera = true;
    p.tesseraDonors = 1024;
    p.replace = true;
    le::forge::forgeBundle(dir, p);
    in = le::loadTesseraMembers(dir);
    const std::string t = le::readFile(in.bank_track_path);
    track.assign(t.begin(), t.end());
  }
  ~Bank() { le::imx::rmTree(dir); }
};

const Bank& bank() {
  static const Bank b;
  return b;
}

double toolSeconds = 0;

long statusKb(const char* key) {
  std::ifstream f("/proc/self/status");
  std::string line;
  while (std::getline(f, line))
    if (line.rfind(key, 0) == 0) return std::atol(line.c_str() + std::string(key).size());
  return -1;
}

// What a user would run instead: the ffmpeg tool, one decoding thread, raw RGB to nowhere.
void BM_FfmpegToolBank(benchmark::State& state) {
  const Bank& b = bank();
  const std::string cmd = "ffmpeg -v error -threads 1 -i '" + b.in.bank_track_path +
                          "' -sws_flags bilinear -f rawvideo -pix_fmt rgb24 -y /dev/null";
  double total = 0;
  for (auto _ : state) {
    const auto t0 = std::chrono::steady_clock::now();
    if (std::system(cmd.c_str()) != 0) state.SkipWithError("ffmpeg tool failed");
    total += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  }
  toolSeconds = total / static_cast<double>(state.iterations());
}
BENCHMARK(BM_FfmpegToolBank)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

void BM_DecodeBankTrack(benchmark::State& state) {
  const Bank& b = bank();
  const le::TesseraAttachInputs& in = b.in;
  double total = 0;
  for (auto _ : state) {
    const auto t0 = std::chrono::steady_clock::now();
    auto out = le::tessera::decodeBankTrack(b.track.data(), b.track.size(), in.n_donors, in.band_h, in.band_w,
                                            in.track_order);
    total += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    benchmark::DoNotOptimize(out.data());
  }
  const double ours = total / static_cast<double>(state.iterations());
  if (toolSeconds > 0) state.counters["vs_ffmpeg_tool"] = ours / toolSeconds;
  // Peak memory of one decode beyond what was resident before it: freed heap is handed back
  // first, so reused pages count again.
  malloc_trim(0);
  if (std::FILE* f = std::fopen("/proc/self/clear_refs", "w")) {
    std::fputs("5", f);  // resets the peak resident size
    std::fclose(f);
  }
  const long before = statusKb("VmRSS:");
  {
    auto out = le::tessera::decodeBankTrack(b.track.data(), b.track.size(), in.n_donors, in.band_h, in.band_w,
                                            in.track_order);
    benchmark::DoNotOptimize(out.data());
  }
  const long peak = statusKb("VmHWM:");
  state.counters["peak_extra_kb"] = static_cast<double>(peak - before);
  state.counters["output_kb"] = static_cast<double>(in.bandBytes()) / 1024.0;
  state.counters["frame_kb"] = static_cast<double>(in.band_w) * in.band_h * 3 / 1024.0;
  state.counters["donors"] = in.n_donors;
}
BENCHMARK(BM_DecodeBankTrack)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);

void BM_LoadHeadPt(benchmark::State& state) {
  const std::vector<uint8_t> pt =
      le::forge::torchStateDict("tessera_head.v1", le::forge::headTensors(true), true);
  for (auto _ : state) {
    auto w = le::tessera::loadHeadPt(pt);
    benchmark::DoNotOptimize(w.t[0].data());
  }
  state.counters["file_bytes"] = static_cast<double>(pt.size());
}
BENCHMARK(BM_LoadHeadPt)->Unit(benchmark::kMicrosecond);

}  // namespace
