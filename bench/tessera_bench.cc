// The borrow's load-time work: decoding a 1024-donor bank track from memory beside the ffmpeg
// tool decoding the same file to raw RGB, and reading the head weights file. Its per-frame work:
// one push of the teeth pass at the forge's geometry (split into its stages), and the pooled pass
// over the whole bank beside a memcpy of the pooled index it reads.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_bundle.h"
#include "le/le_imx.h"
#include "le/tessera/le_bundle_tessera.h"
#include "le/le_pool.h"
#include "le/tessera/le_tessera.h"
#include "le/tessera/le_tessera_pt.h"
#include "tools/forge/forge_tessera.h"

namespace {

// The forge's frame around a crop of the given size (256 as forged by default, 512 as the
// 1080p pipeline renders).
le::forge::Params frameParams(int crop) { return le::forge::sized(8, crop + 64, crop + 32, crop, 2); }

struct Bank {
  std::string dir;
  le::TesseraAttachInputs in;
  std::vector<uint8_t> track;
  explicit Bank(int crop) {
    dir = "/tmp/le_tessera_bench." + std::to_string(::getpid()) + "." + std::to_string(crop);
    le::forge::Params p = frameParams(crop);
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

const Bank& bank(int crop = 256) {
  if (crop == 512) {
    static const Bank b512(512);
    return b512;
  }
  static const Bank b(256);
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

// The pass over the forged 1024-donor bank, and two crops with the mouth opened differently.
struct Pass {
  std::unique_ptr<le::tessera::TeethPass> pass;
  std::vector<uint8_t> crops[2], mask;
  explicit Pass(int crop) {
    const Bank& b = bank(crop);
    pass = std::make_unique<le::tessera::TeethPass>(b.in.bankData(), le::tessera::loadHeadPt(b.in.head_pt),
                                                    le::tessera::ServeConfig::fromHeadMemberJson(b.in.head_json));
    const le::forge::Params p = frameParams(crop);
    const le::tessera::GeometryStamp& s = b.in.stamp;
    const int c = s.canvas_w;
    const int x0 = s.window_x0 + s.band_c0 - s.shift_margin, y0 = s.window_y0 + s.band_r0 - s.shift_margin;
    for (int k = 0; k < 2; ++k) {
      crops[k] = le::forge::cropImage(p, 0);
      const auto patch = le::forge::mouthPatch(p, 0, k ? 0.9f : 0.4f, x0, y0, s.bandW(), s.bandH());
      for (int y = 0; y < s.bandH(); ++y)
        std::memcpy(crops[k].data() + (size_t(y0 + y) * c + x0) * 3, patch.data() + size_t(y) * s.bandW() * 3,
                    size_t(s.bandW()) * 3);
    }
    // delivery mask: a soft ellipse over the band
    mask.assign(size_t(c) * c, 0);
    const double cx = b.in.c_canon[0], cy = b.in.c_canon[1];
    const double rx = (s.band_c1 - s.band_c0) / 2.0, ry = (s.band_r1 - s.band_r0) / 2.0;
    for (int y = 0; y < c; ++y)
      for (int x = 0; x < c; ++x) {
        const double e = std::hypot((x - cx) / rx, (y - cy) / ry);
        mask[size_t(y) * c + x] = static_cast<uint8_t>(std::clamp(255.0 * (1.2 - e) / 0.2, 0.0, 255.0));
      }
  }
};

Pass& pass(int crop = 256) {
  if (crop == 512) {
    static Pass p512(512);
    return p512;
  }
  static Pass p(256);
  return p;
}

double processCpuMs() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return double(t.tv_sec) * 1e3 + double(t.tv_nsec) * 1e-6;
}

// One frame pushed (retrieval of it and emit of the one before), with the stage split in ms and
// the processor time of every thread per push, at the forge's crop and at the pipeline's.
void BM_TeethPush(benchmark::State& state) {
  Pass& p = pass(int(state.range(0)));
  const double cpu0 = processCpuMs();
  le::tessera::FrameResult r;
  int32_t frame = 0;
  const le::tessera::Shift shift{0, 0};
  double prepare = 0, pooled = 0, exact = 0, select = 0, head = 0, compose = 0;
  for (auto _ : state) {
    p.pass->push(frame, p.crops[frame & 1].data(), p.mask.data(), &shift, r);
    ++frame;
    const auto& t = p.pass->lastTimes();
    prepare += t.prepare, pooled += t.pooled, exact += t.exact, select += t.select, head += t.head,
        compose += t.compose;
  }
  const double n = static_cast<double>(state.iterations()) / 1000.0;
  state.counters["cpu_ms"] = (processCpuMs() - cpu0) / static_cast<double>(state.iterations());
  state.counters["prepare_ms"] = prepare / n;
  state.counters["pooled_ms"] = pooled / n;
  state.counters["exact_ms"] = exact / n;
  state.counters["select_ms"] = select / n;
  state.counters["head_ms"] = head / n;
  state.counters["compose_ms"] = compose / n;
  state.counters["threads"] = le::pool::threads();
  state.counters["donors"] = p.pass->nDonors();
  state.counters["candidates"] = r.candidates;
}
BENCHMARK(BM_TeethPush)->ArgName("crop")->Arg(256)->Arg(512)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

double memcpySeconds = 0;

// What the pooled pass cannot beat: reading the pooled index once.
void BM_MemcpyPooledIndex(benchmark::State& state) {
  const std::vector<uint16_t>& idx = pass().pass->pooledIndex();
  std::vector<uint16_t> dst(idx.size());
  double total = 0;
  for (auto _ : state) {
    const auto t0 = std::chrono::steady_clock::now();
    std::memcpy(dst.data(), idx.data(), idx.size() * sizeof(uint16_t));
    benchmark::ClobberMemory();
    total += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  }
  memcpySeconds = total / static_cast<double>(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * idx.size() * sizeof(uint16_t)));
}
BENCHMARK(BM_MemcpyPooledIndex)->Unit(benchmark::kMicrosecond)->UseRealTime();

// The coarse distance of every donor to one prepared query, on the pool.
void BM_PooledPass(benchmark::State& state) {
  Pass& p = pass();
  le::tessera::TeethPass::RetrieveWork w;
  p.pass->retrievePrepare(p.crops[1].data(), p.mask.data(), 0, 0, w);
  std::vector<float> coarse;
  double total = 0;
  for (auto _ : state) {
    const auto t0 = std::chrono::steady_clock::now();
    p.pass->coarsePass(w, coarse);
    total += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    benchmark::DoNotOptimize(coarse.data());
  }
  const double ours = total / static_cast<double>(state.iterations());
  if (memcpySeconds > 0) state.counters["vs_memcpy"] = ours / memcpySeconds;
  state.counters["index_kb"] = static_cast<double>(p.pass->pooledIndex().size()) * 2 / 1024.0;
  state.counters["threads"] = le::pool::threads();
}
BENCHMARK(BM_PooledPass)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
