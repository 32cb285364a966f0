#include "tests/support/media.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "tools/forge/forge.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace le::testmedia {

namespace {

constexpr int kTagBits = 8;
constexpr int kTagBlock = 8;

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error("testmedia: " + what); }

bool tagBit(int index, int x, int y) {
  if (y >= kTagBlock || x >= kTagBits * kTagBlock) return false;
  return (index >> (x / kTagBlock)) & 1;
}
bool inTag(int x, int y) { return y < kTagBlock && x < kTagBits * kTagBlock; }

}  // namespace

void fillPattern(int index, const std::string& pixFmt, uint8_t* const* data, const int* linesize, int w, int h) {
  const AVPixelFormat f = av_get_pix_fmt(pixFmt.c_str());
  const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(f);
  if (!d) fail("unknown pixel format " + pixFmt);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      int Y = 16 + ((x * 3 + y * 2 + index * 9) % 200);
      if (inTag(x, y)) Y = tagBit(index, x, y) ? 235 : 16;
      data[0][y * linesize[0] + x] = static_cast<uint8_t>(Y);
    }
  if (f == AV_PIX_FMT_NV12) {
    for (int y = 0; y < (h + 1) / 2; ++y)
      for (int x = 0; x < (w + 1) / 2; ++x) {
        const bool tag = inTag(2 * x, 2 * y);
        data[1][y * linesize[1] + 2 * x] = static_cast<uint8_t>(tag ? 128 : 64 + (x * 5 + index * 3) % 128);
        data[1][y * linesize[1] + 2 * x + 1] = static_cast<uint8_t>(tag ? 128 : 64 + (y * 7 + index * 5) % 128);
      }
    return;
  }
  const int cw = -((-w) >> d->log2_chroma_w), ch = -((-h) >> d->log2_chroma_h);
  for (int y = 0; y < ch; ++y)
    for (int x = 0; x < cw; ++x) {
      const bool tag = inTag(x << d->log2_chroma_w, y << d->log2_chroma_h);
      data[1][y * linesize[1] + x] = static_cast<uint8_t>(tag ? 128 : 64 + (x * 5 + index * 3) % 128);
      data[2][y * linesize[2] + x] = static_cast<uint8_t>(tag ? 128 : 64 + (y * 7 + index * 5) % 128);
    }
}

forge::MovieSpec movieSpec(int w, int h, int gop, const std::string& pixFmt) {
  forge::MovieSpec s;
  s.width = w, s.height = h, s.gop = gop, s.pixFmt = pixFmt;
  return s;
}

void writeMovie(const std::string& path, const forge::MovieSpec& spec, int frames, const FillFn& fill) {
  forge::MovieWriter movie(path, spec);
  for (int i = 0; i < frames; ++i)
    movie.writePlanes([&](uint8_t* const* data, const int* linesize) {
      if (fill)
        fill(i, data, linesize, spec.width, spec.height);
      else
        fillPattern(i, spec.pixFmt, data, linesize, spec.width, spec.height);
    });
  movie.finish();
}

std::vector<uint8_t> patternRgb(int w, int h, int index) {
  std::vector<uint8_t> rgb(static_cast<size_t>(w) * h * 3);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint8_t* p = &rgb[(static_cast<size_t>(y) * w + x) * 3];
      if (inTag(x, y)) {
        p[0] = p[1] = p[2] = tagBit(index, x, y) ? 255 : 0;
      } else {
        p[0] = static_cast<uint8_t>((x * 2 + index * 13) & 255);
        p[1] = static_cast<uint8_t>((y * 3 + index * 7) & 255);
        p[2] = static_cast<uint8_t>(((x + y) + index * 5) & 255);
      }
    }
  return rgb;
}

int frameTag(const uint8_t* rgb, int w) {
  if (w < kTagBits * kTagBlock) return -1;
  int v = 0;
  const int y = kTagBlock / 2;
  for (int b = 0; b < kTagBits; ++b) {
    const int x = b * kTagBlock + kTagBlock / 2;
    const uint8_t* p = rgb + (static_cast<size_t>(y) * w + x) * 3;
    const int lum = (p[0] + p[1] + p[2]) / 3;
    if (lum > 170)
      v |= 1 << b;
    else if (lum > 85)
      return -1;
  }
  return v;
}

void writeJpegDir(const std::string& dir, int w, int h, int n) {
  ::mkdir(dir.c_str(), 0755);
  for (int i = 0; i < n; ++i) {
    char name[64];
    std::snprintf(name, sizeof name, "/frame_%06d.jpg", i);
    const auto rgb = patternRgb(w, h, i);
    le::forge::writeJpeg(dir + name, rgb.data(), w, h, 92);
  }
}

ScopedEnv::ScopedEnv(const char* name, const char* value) : name_(name) {
  const char* old = std::getenv(name);
  had_ = old != nullptr;
  if (had_) saved_ = old;
  if (value)
    setenv(name, value, 1);
  else
    unsetenv(name);
}

ScopedEnv::~ScopedEnv() {
  if (had_)
    setenv(name_.c_str(), saved_.c_str(), 1);
  else
    unsetenv(name_.c_str());
}

int run(const std::string& cmd) {
  const int r = std::system(cmd.c_str());
  return r == -1 ? -1 : WEXITSTATUS(r);
}

std::vector<uint8_t> readBytes(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  if (!f) fail("cannot open " + path);
  return std::vector<uint8_t>((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

void yuvToRgbRef(int Y, int U, int V, uint8_t* rgb) {
  const int L = 298 * (Y - 16) + 128, D = U - 128, E = V - 128;
  auto c = [](int x) { return static_cast<uint8_t>(x < 0 ? 0 : x > 255 ? 255 : x); };
  rgb[0] = c((L + 409 * E) >> 8);
  rgb[1] = c((L - 100 * D - 208 * E) >> 8);
  rgb[2] = c((L + 516 * D) >> 8);
}

void yuv444ToRgbRef(int Y, int U, int V, int* rgb) {
  const int y = (Y - 16) * 76312, u = U - 128, v = V - 128;
  auto c = [](int x) { return x < 0 ? 0 : x > 255 ? 255 : x; };
  rgb[0] = c((y + 104600 * v + 32768) >> 16);
  rgb[1] = c((y - 25672 * u - 53280 * v + 32768) >> 16);
  rgb[2] = c((y + 132200 * u + 32768) >> 16);
}

}  // namespace le::testmedia

// Every test binary asks the linker for this symbol, so the suppressions below come along even
// where a test uses nothing else of this file (the sanitizer runtimes define weak defaults of
// the suppression hooks themselves, which would satisfy a request for those).
extern "C" const int le_test_suppressions_anchor = 1;

#if defined(__SANITIZE_THREAD__)
// FFmpeg and the encoders are not instrumented: their frame threads hand buffers over through
// atomics ThreadSanitizer cannot see, so the allocator calls they make look racy. Our own
// accesses to decoded frames stay checked. ONNX Runtime is not instrumented either: its intra-op
// pool runs the custom operator kernels and joins them through synchronisation ThreadSanitizer
// cannot see, so a session's own buffers look shared between the caller and the pool threads, and
// the pool's condition waits unlock mutexes ThreadSanitizer never saw locked. Its frames are not
// symbolised in ThreadSanitizer's stacks, so three of its mutex reports are named by the
// third-party frame that does show: libstdc++'s condition_variable::wait inside the pool,
// ONNX Runtime's own C++ header (Ort::detail::OrtRelease) destroying a session whose pool
// mutexes were locked unseen, and glibc's exit handlers running its static destructors.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
  return "called_from_lib:libonnxruntime.so\n"
         "race:libonnxruntime.so\n"
         "mutex:libonnxruntime.so\n"
         "mutex:std::condition_variable::wait\n"
         "mutex:Ort::detail::OrtRelease\n"
         "mutex:__run_exit_handlers\n"
         "called_from_lib:libavcodec.so\n"
         "called_from_lib:libavutil.so\n"
         "called_from_lib:libavformat.so\n"
         "called_from_lib:libswscale.so\n"
         "called_from_lib:libx264.so\n"
         "called_from_lib:libx265.so\n";
}
#endif

#if defined(__SANITIZE_ADDRESS__)
// libx265 keeps a few filter buffers of every encoder it opens until the process ends, and ONNX
// Runtime a few allocations of its own.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
  return "leak:libx265.so\n"
         "leak:libonnxruntime.so\n";
}
#endif
