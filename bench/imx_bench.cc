// Unwrapping a 200 MB container against `cp` of the same file: the streaming copy (in the
// kernel, through a pipe for members that lie unlike their destination within a page) should
// stay within 1.2x of what the system's own copy takes. The scratch data lives under /tmp and
// is removed when the benchmark ends.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "le/le_imx.h"
#include "tools/forge/imx_pack.h"

namespace {

using Clock = std::chrono::steady_clock;

// Silences standard error (the unwrap's one-line notice) while alive.
class Quiet {
 public:
  Quiet() : saved_(::dup(2)) {
    const int null = ::open("/dev/null", O_WRONLY);
    if (null >= 0) {
      ::dup2(null, 2);
      ::close(null);
    }
  }
  Quiet(const Quiet&) = delete;
  Quiet& operator=(const Quiet&) = delete;
  ~Quiet() {
    if (saved_ >= 0) {
      ::dup2(saved_, 2);
      ::close(saved_);
    }
  }

 private:
  int saved_;
};

class Scratch {
 public:
  explicit Scratch(size_t total) : base_("/tmp/le_imx_bench." + std::to_string(::getpid())) {
    le::imx::rmTree(base_);
    const std::string src = base_ + "/src";
    // A bundle-like mix: two large tables, a movie-sized member and a few small files.
    const std::vector<std::pair<std::string, size_t>> members = {
        {"pooled64.f16", total / 2},      {"P.f16", total * 3 / 10},
        {"target_frames.mp4", total / 5}, {"M.f32", 24 * 1000},
        {"drive/xs.f32", 252 * 1000},     {"manifest.json", 400}};
    std::vector<char> chunk(1 << 20);
    uint32_t x = 12345;
    for (char& c : chunk) c = static_cast<char>((x = x * 1664525u + 1013904223u) >> 24);
    for (const auto& [name, bytes] : members) {
      const std::string path = src + "/" + name;
      le::imx::mkdirs(le::imx::dirName(path));
      std::FILE* f = std::fopen(path.c_str(), "wb");
      if (!f) throw std::runtime_error("cannot write " + path);
      for (size_t left = bytes; left > 0;) {
        const size_t n = left < chunk.size() ? left : chunk.size();
        std::fwrite(chunk.data(), 1, n, f);
        left -= n;
      }
      std::fclose(f);
    }
    container_ = base_ + "/bundle.imx";
    le::forge::packImx(src, container_);
    le::imx::rmTree(src);
    std::FILE* f = std::fopen(container_.c_str(), "rb");
    std::fseek(f, 0, SEEK_END);
    bytes_ = static_cast<size_t>(std::ftell(f));
    std::fclose(f);
  }
  ~Scratch() { le::imx::rmTree(base_); }

  const std::string& container() const { return container_; }
  std::string unwrapDir() const { return le::imx::unwrapDirFor(container_); }
  std::string copyPath() const { return base_ + "/copy.imx"; }
  size_t bytes() const { return bytes_; }

  // Seconds for one fresh unwrap (previous output removed first, untimed).
  double unwrap() const {
    le::imx::rmTree(unwrapDir());
    std::remove((unwrapDir() + le::imx::kMarkerSuffix).c_str());
    ::sync();
    Quiet quiet;
    const auto t0 = Clock::now();
    le::imx::unwrapOnce(container_);
    return std::chrono::duration<double>(Clock::now() - t0).count();
  }
  // Seconds for copying the container through the user-space buffer alone.
  double buffered() const {
    std::remove(copyPath().c_str());
    ::sync();
    const auto t0 = Clock::now();
    const int in = ::open(container_.c_str(), O_RDONLY);
    const int out = ::open(copyPath().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    le::imx::StreamCopier copier(le::imx::kCopyBuffer, /*in_kernel=*/false);
    const auto st = copier.copy(in, 0, out, bytes_);
    ::close(in);
    if (::close(out) != 0 || st != le::imx::CopyStatus::Ok) throw std::runtime_error("copy failed");
    return std::chrono::duration<double>(Clock::now() - t0).count();
  }
  // Seconds for `cp` of the container to a fresh file.
  double cp() const {
    std::remove(copyPath().c_str());
    ::sync();
    const std::string cmd = "cp '" + container_ + "' '" + copyPath() + "'";
    const auto t0 = Clock::now();
    if (std::system(cmd.c_str()) != 0) throw std::runtime_error("cp failed");
    return std::chrono::duration<double>(Clock::now() - t0).count();
  }

 private:
  std::string base_;
  std::string container_;
  size_t bytes_ = 0;
};

// Both copies alternate inside each iteration so that page-cache and disk state treat them
// alike; the reported time is the measured copy's, with cp's beside it and their ratio.
void compareWithCp(benchmark::State& state, double (Scratch::*copy)() const, const char* counter) {
  Scratch s(200u * 1000 * 1000);
  double total = 0, cp_total = 0;
  s.cp();  // warm the container into the page cache
  for (auto _ : state) {
    const double t = (s.*copy)();
    const double c = s.cp();
    total += t;
    cp_total += c;
    state.SetIterationTime(t);
  }
  const double n = static_cast<double>(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(s.bytes() * state.iterations()));
  state.counters[counter] = 1e3 * total / n;
  state.counters["cp_ms"] = 1e3 * cp_total / n;
  state.counters["ratio_vs_cp"] = total / cp_total;
  state.counters["MB"] = static_cast<double>(s.bytes()) / 1e6;
}

void BM_UnwrapVsCp(benchmark::State& state) { compareWithCp(state, &Scratch::unwrap, "unwrap_ms"); }
BENCHMARK(BM_UnwrapVsCp)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(8);

// The buffered fallback on its own (taken where the kernel cannot copy between the files).
void BM_BufferedCopyVsCp(benchmark::State& state) {
  compareWithCp(state, &Scratch::buffered, "buffered_ms");
}
BENCHMARK(BM_BufferedCopyVsCp)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(8);

// The reuse path: one status query and one marker read.
void BM_ReuseUnwrapped(benchmark::State& state) {
  Scratch s(1u << 20);
  {
    Quiet quiet;
    le::imx::unwrapOnce(s.container());
  }
  for (auto _ : state) benchmark::DoNotOptimize(le::resolveBundlePath(s.container()));
}
BENCHMARK(BM_ReuseUnwrapped)->Unit(benchmark::kMicrosecond);

}  // namespace
