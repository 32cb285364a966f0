// le live BUNDLE: a live talking head. 16 kHz mono s16le PCM on standard input is pushed as it
// arrives; frames leave on standard output as YUV4MPEG2 at 25 fps, idle while nothing is said.
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tools/le/audio_in.h"
#include "tools/le/le_cli.h"
#include "tools/le/le_host.h"

extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

namespace le::cli {
namespace {

const char kHelp[] =
    "usage: le live BUNDLE [options] < PCM > OUT.y4m\n"
    "\n"
    "Reads signed 16-bit little-endian mono PCM at 16 kHz from standard input as it arrives,\n"
    "speaks it with the bundle's person and writes a YUV4MPEG2 stream (4:2:0) at 25 frames\n"
    "per second to standard output: idle frames while nothing is pushed. When no new frame is\n"
    "ready in time the previous one is shown again. At the end of the input the speech is\n"
    "finished, the face eases back to idle and the stream ends; Ctrl-C ends it at once.\n"
    "\n"
    "  arecord -q -f S16_LE -r 16000 -c 1 | le live BUNDLE | ffplay -\n"
    "\n"
    "options:\n"
    "  --size WxH        scale the frames (default: the bundle's frame size)\n"
    "  --frames N        stop after N frames\n"
    "  --motion DIR      keypoint source directory (default: the bundle's own)\n"
    "  --model KEY       director member model_KEY.onnx (default b1)\n"
    "  --threads N       engine thread budget (default: the engine's choice)\n"
    "  --no-borrow       leave the bundle's mouth-interior borrow (real teeth) off\n"
    "  --quiet           no summary on standard error\n"
    "\n"
    "W2V_ONNX, when unset, names the bundle's own speech encoder.\n";


std::atomic<bool> gStop{false};
extern "C" void onSignal(int) { gStop = true; }

struct SwsFreer {
  void operator()(SwsContext* s) const { sws_freeContext(s); }
};

// RGB frames of the engine to YUV4MPEG2 4:2:0 (BT.601, limited range) at the output size.
class Y4mWriter {
 public:
  Y4mWriter(int inW, int inH, int outW, int outH) : inW_(inW), inH_(inH), outW_(outW), outH_(outH) {
    sws_.reset(sws_getContext(inW, inH, AV_PIX_FMT_RGB24, outW, outH, AV_PIX_FMT_YUV420P, SWS_BICUBIC, nullptr,
                              nullptr, nullptr));
    if (!sws_) throw std::runtime_error("cannot scale " + std::to_string(inW) + "x" + std::to_string(inH) + " to " +
                                        std::to_string(outW) + "x" + std::to_string(outH));
    const int* bt601 = sws_getCoefficients(SWS_CS_ITU601);
    sws_setColorspaceDetails(sws_.get(), bt601, 1, bt601, 0, 0, 1 << 16, 1 << 16);
    const int cw = (outW + 1) / 2, ch = (outH + 1) / 2;
    y_.resize(static_cast<size_t>(outW) * outH);
    u_.resize(static_cast<size_t>(cw) * ch);
    v_.resize(u_.size());
  }

  // False once the reader has gone (a closed pipe).
  bool header() {
    const std::string h = "YUV4MPEG2 W" + std::to_string(outW_) + " H" + std::to_string(outH_) +
                          " F25:1 Ip A1:1 C420jpeg XYSCSS=420JPEG XCOLORRANGE=LIMITED\n";
    return put(h.data(), h.size());
  }

  void convert(const uint8_t* rgb) {
    const uint8_t* src[1] = {rgb};
    const int srcStride[1] = {inW_ * 3};
    uint8_t* dst[3] = {y_.data(), u_.data(), v_.data()};
    const int dstStride[3] = {outW_, (outW_ + 1) / 2, (outW_ + 1) / 2};
    sws_scale(sws_.get(), src, srcStride, 0, inH_, dst, dstStride);
  }

  // Writes the last converted frame; false once the reader has gone.
  bool frame() {
    return put("FRAME\n", 6) && put(y_.data(), y_.size()) && put(u_.data(), u_.size()) && put(v_.data(), v_.size()) &&
           std::fflush(stdout) == 0;
  }

 private:
  static bool put(const void* p, size_t n) { return std::fwrite(p, 1, n, stdout) == n; }

  int inW_, inH_, outW_, outH_;
  std::unique_ptr<SwsContext, SwsFreer> sws_;
  std::vector<uint8_t> y_, u_, v_;
};

// Pushes standard input into the pipeline as it arrives; at its end, ends the utterance.
class StdinPump {
 public:
  explicit StdinPump(le_utt* utt) : utt_(utt) { thread_ = std::thread([this] { loop(); }); }
  ~StdinPump() {
    quit_ = true;
    thread_.join();
  }
  bool ended() const { return ended_; }
  long long samples() const { return samples_; }

 private:
  void loop() {
    std::vector<uint8_t> buf(8192 + 1);
    size_t carry = 0;  // a sample split between two reads
    while (!quit_) {
      pollfd p{STDIN_FILENO, POLLIN, 0};
      const int r = poll(&p, 1, 20);  // wakes to notice quit_
      if (r < 0 && errno == EINTR) continue;
      if (r == 0) continue;
      const ssize_t got = r > 0 ? read(STDIN_FILENO, buf.data() + carry, buf.size() - 1 - carry) : -1;
      if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
      if (got <= 0) break;
      const size_t have = carry + static_cast<size_t>(got), n = have / 2;
      std::vector<int16_t> pcm(n);
      for (size_t i = 0; i < n; ++i)
        pcm[i] = static_cast<int16_t>(static_cast<uint16_t>(buf[2 * i]) | static_cast<uint16_t>(buf[2 * i + 1]) << 8);
      if (n) le_utt_push_audio(utt_, pcm.data(), static_cast<int>(n));
      samples_ += static_cast<long long>(n);
      carry = have % 2;
      if (carry) buf[0] = buf[have - 1];
    }
    le_utt_end_utterance(utt_);
    ended_ = true;
  }

  le_utt* utt_;
  std::atomic<bool> quit_{false}, ended_{false};
  std::atomic<long long> samples_{0};
  std::thread thread_;
};

}  // namespace

int cmdLive(const std::vector<std::string>& argv) {
  const Args args(argv, {"quiet", "no-borrow"}, {"size", "frames", "motion", "model", "threads"});
  if (args.help()) {
    std::fputs(kHelp, stdout);
    return kOk;
  }
  if (args.positional().size() != 1) throw UsageError("wants exactly one bundle");
  const std::string bundle = args.positional()[0];
  int outW = 0, outH = 0;
  if (args.has("size")) parseSize("size", args.str("size", ""), outW, outH);
  const int maxFrames = args.integer("frames", 0, 1, 100000000);
  const int threads = args.integer("threads", 0, 0, 256);
  const bool quiet = args.flag("quiet");
  if (isatty(STDOUT_FILENO)) throw UsageError("writes a video stream: redirect standard output (| ffplay -)");

  struct sigaction sa {};
  sa.sa_handler = onSignal;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  signal(SIGPIPE, SIG_IGN);

  const CtxPtr ctx = openContext(bundle, args.str("model", "b1"), threads);
  const int W = le_width(ctx.get()), H = le_height(ctx.get());
  if (!outW) outW = W, outH = H;
  Y4mWriter y4m(W, H, outW, outH);
  const UttPtr utt = openSpeech(ctx.get(), bundle, args.str("motion", ""), !quiet);
  if (!args.flag("no-borrow")) attachBorrow(utt.get(), bundle, !quiet);
  if (!y4m.header()) return kOk;

  StdinPump pump(utt.get());
  std::vector<uint8_t> rgb(static_cast<size_t>(W) * H * 3);
  long frames = 0, repeated = 0, counts[3] = {0, 0, 0};
  bool have = false;
  Clock::time_point endedAt{};
  const auto t0 = Clock::now();
  for (long tick = 0; !gStop; ++tick) {
    std::this_thread::sleep_until(t0 + tick * kFrameTime);
    le_utt_frame_info info{};
    const bool fresh = le_utt_pull_frame(utt.get(), rgb.data(), rgb.size(), &info) == 1;
    if (fresh) {
      y4m.convert(rgb.data());
      have = true;
      if (info.kind < 3) ++counts[info.kind];
    } else if (have) {
      ++repeated;
    } else {
      continue;  // nothing to show yet
    }
    if (!y4m.frame()) break;
    if (++frames == maxFrames) break;
    // Done once the input has ended and the face is idle again; the margin lets the pipeline
    // take the last pushed audio before its state is believed.
    if (pump.ended()) {
      if (endedAt == Clock::time_point{}) endedAt = Clock::now();
      le_utt_stats st{};
      le_utt_get_stats(utt.get(), &st);
      if (fresh && info.kind == LE_UTT_KIND_IDLE && st.state == 0 && Clock::now() - endedAt > 2 * kFrameTime) break;
    }
  }
  if (!quiet) {
    le_utt_stats st{};
    le_utt_get_stats(utt.get(), &st);
    std::fprintf(stderr,
                 "le live: %ld frames (%ld speech, %ld ramp, %ld idle, %ld shown again), %lld samples in, "
                 "first-frame latency %.1f ms\n",
                 frames, counts[1], counts[2], counts[0], repeated, pump.samples(), st.firstFrameLatencyMs);
    printBorrowStats(utt.get());
  }
  return kOk;
}

}  // namespace le::cli
