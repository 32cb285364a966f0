// Drive cursor and frame sources at 1080p: sequential decode through the cursor against the
// ffmpeg tool's decode-only run of the same file, the cost of pullAt from the ring against
// memcpy, residency while the member loops, and the prior's 4:4:4 → half conversion against
// libswscale.
#include <benchmark/benchmark.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

extern "C" {
#include <libswscale/swscale.h>
}

#include "le/le_driver.h"
#include "le/le_driver_ff.h"
#include "le/le_simd.h"
#include "tests/support/media.h"

namespace media = le::testmedia;

namespace {

constexpr int kW = 1920, kH = 1080, kFrames = 100;

// A 1080p talking-head-like drive: textured, moving content at a realistic bitrate.
const std::string& movie1080() {
  static const std::string path = [] {
    const char* base = std::getenv("LE_TEST_TMP");
    std::string dir = base && *base ? base : "/tmp";
    const std::string p = dir + "/le_driver_bench_1080p.mp4";
    struct stat st;
    if (::stat(p.c_str(), &st) == 0 && st.st_size > 0) return p;
    le::forge::MovieSpec spec = media::movieSpec(kW, kH, 50);
    spec.crf = 20, spec.threads = 2;
    media::writeMovie(p + ".part.mp4", spec, kFrames, [](int i, uint8_t* const* d, const int* ls, int w, int h) {
      for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
          const unsigned n = (static_cast<unsigned>(x / 3 + i) * 2654435761u) ^ (static_cast<unsigned>(y / 3) * 40503u);
          d[0][y * ls[0] + x] = static_cast<uint8_t>(40 + ((x + 2 * i) % 160) / 2 + (y % 120) / 2 + (n >> 28));
        }
      for (int y = 0; y < h / 2; ++y)
        for (int x = 0; x < w / 2; ++x) {
          d[1][y * ls[1] + x] = static_cast<uint8_t>(100 + ((x + i) % 60));
          d[2][y * ls[2] + x] = static_cast<uint8_t>(110 + ((y + 2 * i) % 50));
        }
    });
    std::rename((p + ".part.mp4").c_str(), p.c_str());
    return p;
  }();
  return path;
}

double seconds(std::chrono::steady_clock::duration d) { return std::chrono::duration<double>(d).count(); }

double cpuSeconds(int who) {
  rusage ru{};
  getrusage(who, &ru);
  return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
         static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) * 1e-6;
}

size_t rssBytes() {
  std::ifstream f("/proc/self/statm");
  size_t pages = 0, resident = 0;
  f >> pages >> resident;
  return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace

// Every frame of the movie through a fresh cursor (decode + RGB conversion on the producer;
// the reader takes frames without copying), against `ffmpeg -threads 4 -i movie -f null -`
// run right after each pass so both see the same machine load. Wall and CPU time ratios.
static void BM_CursorSequential1080p(benchmark::State& state) {
  const std::string& path = movie1080();
  unsetenv("LE_DRIVER_HWDEC");
  double wall = 1e9, cpu = 1e9, ffWall = 1e9, ffCpu = 1e9;
  for (auto _ : state) {
    const double c0 = cpuSeconds(RUSAGE_SELF);
    const auto t0 = std::chrono::steady_clock::now();
    {
      auto c = le::DriverCursor::over(le::driver::openMp4(path, kFrames, kW, kH), 2, 11);
      int got = -1;
      for (int i = 0; i < kFrames; ++i) benchmark::DoNotOptimize(c->pull(&got));
    }
    wall = std::min(wall, seconds(std::chrono::steady_clock::now() - t0));
    cpu = std::min(cpu, cpuSeconds(RUSAGE_SELF) - c0);

    state.PauseTiming();
    const double f0 = cpuSeconds(RUSAGE_CHILDREN);
    const auto t1 = std::chrono::steady_clock::now();
    if (media::run("ffmpeg -nostdin -v error -threads 4 -i '" + path + "' -f null -") != 0)
      state.SkipWithError("ffmpeg failed");
    ffWall = std::min(ffWall, seconds(std::chrono::steady_clock::now() - t1));
    ffCpu = std::min(ffCpu, cpuSeconds(RUSAGE_CHILDREN) - f0);
    state.ResumeTiming();
  }
  state.counters["cursor_fps"] = kFrames / wall;
  state.counters["ffmpeg_fps"] = kFrames / ffWall;
  state.counters["ratio_vs_ffmpeg"] = wall / ffWall;  // target: <= 1.3
  state.counters["cpu_ratio_vs_ffmpeg"] = cpu / ffCpu;
}
BENCHMARK(BM_CursorSequential1080p)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

// pullAt of a frame already in the ring (history), copied out; memcpy of a frame beside it.
static void BM_PullAtRing1080p(benchmark::State& state) {
  const bool copy = state.range(0) != 0;
  auto c = le::DriverCursor::over(le::driver::openMp4(movie1080(), kFrames, kW, kH), 2, 11);
  std::vector<uint8_t> out(c->frameBytes), src(c->frameBytes, 1);
  int got = -1;
  for (int i = 0; i < 8; ++i) c->pull(&got);
  const uint64_t seeks0 = c->seeks();
  int n = 0;
  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    const int i = 3 + (n++ & 3);  // history frames 3..6
    if (copy)
      benchmark::DoNotOptimize(c->pullAt(i, out.data()));
    else
      benchmark::DoNotOptimize(c->pullAt(i, &got));
  }
  const double pullUs = seconds(std::chrono::steady_clock::now() - start) / static_cast<double>(state.iterations()) * 1e6;
  if (c->seeks() != seeks0) state.SkipWithError("pullAt reached the source");
  const auto t0 = std::chrono::steady_clock::now();
  const int reps = 50;
  for (int r = 0; r < reps; ++r) {
    std::memcpy(out.data(), src.data(), out.size());
    benchmark::ClobberMemory();
  }
  const double memcpyUs = seconds(std::chrono::steady_clock::now() - t0) / reps * 1e6;
  state.counters["pullAt_us"] = pullUs;
  state.counters["memcpy_us"] = memcpyUs;
  state.counters["ratio_vs_memcpy"] = pullUs / memcpyUs;
  state.SetBytesProcessed(copy ? static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(out.size()) : 0);
}
BENCHMARK(BM_PullAtRing1080p)->Arg(1)->Arg(0)->ArgName("copy")->Unit(benchmark::kMicrosecond)->UseRealTime();

// The cursor's residency and the process RSS while the member loops `loops` times.
static void BM_ResidentWhileLooping1080p(benchmark::State& state) {
  const int loops = static_cast<int>(state.range(0));
  for (auto _ : state) {
    auto c = le::DriverCursor::over(le::driver::openMp4(movie1080(), kFrames, kW, kH), 2, 11);
    int got = -1;
    for (int i = 0; i < kFrames; ++i) c->pull(&got);  // one warm pass
    const size_t rss0 = rssBytes();
    size_t lo = SIZE_MAX, hi = 0;
    for (int i = 0; i < loops * kFrames; ++i) {
      c->pull(&got);
      const size_t r = c->residentBytes();
      lo = std::min(lo, r);
      hi = std::max(hi, r);
    }
    state.counters["resident_MB"] = static_cast<double>(hi) / (1 << 20);
    state.counters["resident_spread_MB"] = static_cast<double>(hi - lo) / (1 << 20);
    state.counters["rss_growth_MB"] = (static_cast<double>(rssBytes()) - static_cast<double>(rss0)) / (1 << 20);
    state.counters["video_s"] = loops * kFrames / 25.0;
  }
}
BENCHMARK(BM_ResidentWhileLooping1080p)->Arg(5)->ArgName("loops")->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

// One 512×512 prior frame: yuv444p → three binary16 planes, against libswscale's yuv444p →
// packed RGB24 of the same frame (what a user would reach for, without the half step).
static void BM_PriorConvert512(benchmark::State& state) {
  const int side = 512;
  const bool swscale = state.range(0) != 0;
  std::vector<uint8_t> Y(side * side), U(side * side), V(side * side);
  for (int i = 0; i < side * side; ++i)
    Y[i] = static_cast<uint8_t>(16 + i % 220), U[i] = static_cast<uint8_t>(i * 7), V[i] = static_cast<uint8_t>(i * 13);
  uint16_t half[256];
  for (int v = 0; v < 256; ++v) half[v] = le::f32ToF16(static_cast<float>(v / 255.0));
  std::vector<uint16_t> planes(side * side * 3);
  std::vector<uint8_t> rgb(side * side * 3);
  SwsContext* sws = sws_getContext(side, side, AV_PIX_FMT_YUV444P, side, side, AV_PIX_FMT_RGB24, SWS_POINT, nullptr,
                                   nullptr, nullptr);
  const uint8_t* src[3] = {Y.data(), U.data(), V.data()};
  const int srcStride[3] = {side, side, side};
  uint8_t* dst[1] = {rgb.data()};
  const int dstStride[1] = {side * 3};
  for (auto _ : state) {
    if (swscale) {
      sws_scale(sws, src, srcStride, 0, side, dst, dstStride);
    } else {
      const size_t plane = static_cast<size_t>(side) * side;
      for (int y = 0; y < side; ++y) {
        const size_t o = static_cast<size_t>(y) * side;
        le::driver::yuv444RowToHalfPlanes(&Y[o], &U[o], &V[o], side, half, &planes[o], &planes[plane + o],
                                          &planes[2 * plane + o]);
      }
    }
    benchmark::ClobberMemory();
  }
  sws_freeContext(sws);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * side * side);
}
BENCHMARK(BM_PriorConvert512)->Arg(0)->Arg(1)->ArgName("swscale")->Unit(benchmark::kMicrosecond);
