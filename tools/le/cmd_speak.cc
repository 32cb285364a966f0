// le speak BUNDLE IN -o OUT.mp4: the bundle's person speaks an audio file. The utterance
// pipeline is driven as a live host drives it (40 ms packets pushed, frames pulled), and the
// frames become an H.264 movie with the audio muxed in as AAC. --offline renders the clip
// through the offline stream renderer instead.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tools/le/audio_in.h"
#include "tools/le/le_cli.h"
#include "tools/le/le_host.h"

namespace le::cli {
namespace {

const char kHelp[] =
    "usage: le speak BUNDLE IN -o OUT.mp4 [options]\n"
    "\n"
    "The bundle's person speaks the audio file IN (anything FFmpeg decodes; resampled to\n"
    "16 kHz mono). The speech pipeline is driven as a live host drives it: 40 ms packets are\n"
    "pushed and finished frames pulled. The movie shows the idle lead-in, the speech, the ramp\n"
    "back to the idle pose and the idle tail, as H.264 at 25 frames per second with the audio\n"
    "as AAC, in step: speech frame k shows audio samples 640k .. 640k+639.\n"
    "\n"
    "options:\n"
    "  -o, --output FILE     the movie to write (required)\n"
    "  --realtime            push and pull on the wall clock, one packet and one frame every\n"
    "                        40 ms, and print the pipeline's figures (first-frame latency,\n"
    "                        late pulls, render time, the stage report)\n"
    "  --lead-in SECONDS     idle before the speech (default 0.4)\n"
    "  --tail SECONDS        idle after the ramp (default 0.4)\n"
    "  --interrupt-at SECONDS  interrupt the speech this far into the audio: the face ramps\n"
    "                        back to idle and the audio stops there\n"
    "  --motion DIR          keypoint source directory (default: the bundle's own)\n"
    "  --model KEY           director member model_KEY.onnx (default b1)\n"
    "  --threads N           engine thread budget (default: the engine's choice)\n"
    "  --crf N               H.264 quality, 0 (lossless) .. 51 (default 18)\n"
    "  --no-borrow           leave the bundle's mouth-interior borrow (real teeth from its\n"
    "                        donor bank) off; it is on whenever the bundle carries it\n"
    "  --quiet               no progress bar on standard error\n"
    "  --offline             render the whole clip at once with the offline stream renderer\n"
    "                        (the bundle's model_render.onnx and fca_stream.onnx): the movie\n"
    "                        holds the speech frames alone, one per 640 samples, with the\n"
    "                        audio; no lead-in, ramp or tail\n"
    "\n"
    "W2V_ONNX, when unset, names the bundle's own speech encoder.\n";

constexpr auto kStall = std::chrono::seconds(30);

// Encodes on its own thread so that a slow encoder does not delay the host's pulls.
class MovieSink {
 public:
  MovieSink(forge::MovieWriter& movie, size_t frameBytes) : movie_(movie), frameBytes_(frameBytes) {
    worker_ = std::thread([this] { loop(); });
  }
  ~MovieSink() { stop(); }

  // A buffer for the next frame, recycled from written ones.
  std::vector<uint8_t> buffer() {
    std::lock_guard<std::mutex> lock(mu_);
    if (free_.empty()) return std::vector<uint8_t>(frameBytes_);
    std::vector<uint8_t> b = std::move(free_.back());
    free_.pop_back();
    return b;
  }

  void push(std::vector<uint8_t>&& frame, std::vector<int16_t>&& audio) {
    std::unique_lock<std::mutex> lock(mu_);
    // bounded, so a slow encoder holds back the host rather than memory
    space_.wait(lock, [&] { return queue_.size() < 32 || error_; });
    rethrow();
    queue_.push_back({std::move(frame), std::move(audio)});
    work_.notify_one();
  }

  // Waits until everything queued is written; rethrows the encoder's failure.
  void close() {
    stop();
    std::lock_guard<std::mutex> lock(mu_);
    rethrow();
  }

 private:
  struct Item {
    std::vector<uint8_t> frame;
    std::vector<int16_t> audio;
  };

  void stop() noexcept {
    {
      std::lock_guard<std::mutex> lock(mu_);
      closing_ = true;
      work_.notify_one();
    }
    if (worker_.joinable()) worker_.join();
  }

  void rethrow() {
    if (error_) {
      std::exception_ptr e = error_;
      error_ = nullptr;
      std::rethrow_exception(e);
    }
  }

  void loop() {
    for (;;) {
      Item item;
      {
        std::unique_lock<std::mutex> lock(mu_);
        work_.wait(lock, [&] { return !queue_.empty() || closing_; });
        if (queue_.empty()) return;
        item = std::move(queue_.front());
        queue_.pop_front();
        space_.notify_one();
      }
      try {
        movie_.write(item.frame.data());
        movie_.writeAudio(item.audio.data(), item.audio.size());
      } catch (...) {
        std::lock_guard<std::mutex> lock(mu_);
        error_ = std::current_exception();
        queue_.clear();
        space_.notify_all();
        return;
      }
      std::lock_guard<std::mutex> lock(mu_);
      free_.push_back(std::move(item.frame));
    }
  }

  forge::MovieWriter& movie_;
  const size_t frameBytes_;
  std::mutex mu_;
  std::condition_variable work_, space_;
  std::deque<Item> queue_;
  std::vector<std::vector<uint8_t>> free_;
  std::exception_ptr error_;
  bool closing_ = false;
  std::thread worker_;
};

// The movie's plan, in frames.
struct Plan {
  int leadIn = 0, tail = 0;
  int interruptAt = -1;  // speech frames shown before the interrupt; -1: none
};

enum class Phase { LeadIn, Speech, Ramp, Tail, Done };

// Drives the pipeline and composes the movie on the audio's timeline: the lead-in, every
// speech frame, the ramp, the tail. Idle frames the pipeline delivers while the first speech
// frame is on its way are what a live viewer would see during the latency; the movie leaves
// them out so that lips and sound stay in step.
class Speaker {
 public:
  Speaker(le_utt* utt, const std::vector<int16_t>& pcm, const Plan& plan, MovieSink& sink, Progress& bar)
      : utt_(utt), pcm_(pcm), plan_(plan), sink_(sink), bar_(bar), audioCut_(pcm.size()) {
    phase_ = plan.leadIn > 0 ? Phase::LeadIn : Phase::Speech;
  }

  void runOffline() {
    auto lastFrame = Clock::now();
    while (phase_ != Phase::Done) {
      if (phase_ == Phase::Speech) pushPacket();
      if (pullOne()) {
        lastFrame = Clock::now();
        if (phase_ == Phase::Speech && plan_.interruptAt >= 0 && speech_ == plan_.interruptAt) interrupt();
        continue;
      }
      if (Clock::now() - lastFrame > kStall) stalled();
      if (pushed_ == pcm_.size() || phase_ != Phase::Speech)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  void runRealtime() {
    const auto t0 = Clock::now();
    auto lastFrame = t0;
    int speechTicks = 0;
    for (long tick = 0; phase_ != Phase::Done; ++tick) {
      std::this_thread::sleep_until(t0 + tick * kFrameTime);
      if (phase_ == Phase::Speech) {
        if (plan_.interruptAt >= 0 && speechTicks == plan_.interruptAt)
          interrupt();
        else
          pushPacket();
        ++speechTicks;
      }
      if (pullOne()) {
        lastFrame = Clock::now();
      } else {
        ++late_;
        if (Clock::now() - lastFrame > kStall) stalled();
      }
      ++pulls_;
    }
  }

  int frames() const { return written_; }
  int speechFrames() const { return speech_; }
  int rampFrames() const { return ramp_; }
  int latePulls() const { return late_; }
  int pulls() const { return pulls_; }
  int waitingIdle() const { return waitingIdle_; }
  bool interrupted() const { return interrupted_; }
  size_t audioSamples() const { return audioCut_; }

 private:
  void pushPacket() {
    if (interrupted_ || pushed_ == pcm_.size()) return;
    const size_t n = std::min<size_t>(kSamplesPerFrame, pcm_.size() - pushed_);
    if (!le_utt_push_audio(utt_, pcm_.data() + pushed_, static_cast<int>(n))) throw std::runtime_error(le_utt_last_error());
    pushed_ += n;
    // The host knows its clip ended: no need to wait for the pipeline's end silence.
    if (pushed_ == pcm_.size() && plan_.interruptAt < 0) le_utt_end_utterance(utt_);
  }

  void interrupt() {
    le_utt_interrupt(utt_);
    interrupted_ = true;
    // The sound stops where the face stopped speaking.
    audioCut_ = std::min(audioCut_, static_cast<size_t>(speech_) * kSamplesPerFrame);
    phase_ = Phase::Ramp;
  }

  bool pullOne() {
    if (next_.empty()) next_ = sink_.buffer();
    le_utt_frame_info info{};
    if (!le_utt_pull_frame(utt_, next_.data(), next_.size(), &info)) return false;
    take(info, std::move(next_));
    next_.clear();
    return true;
  }

  void take(const le_utt_frame_info& info, std::vector<uint8_t>&& frame) {
    switch (phase_) {
      case Phase::LeadIn:
        write(std::move(frame));
        if (written_ == plan_.leadIn) phase_ = Phase::Speech;
        return;
      case Phase::Speech:
        if (info.kind == LE_UTT_KIND_SPEECH) {
          if (static_cast<int>(info.speechIndex) != speech_)
            throw std::runtime_error("the pipeline delivered speech frame " + std::to_string(info.speechIndex) +
                                     " where frame " + std::to_string(speech_) + " was due");
          write(std::move(frame));
          ++speech_;
        } else if (info.kind == LE_UTT_KIND_RAMP) {
          phase_ = Phase::Ramp;
          take(info, std::move(frame));
        } else if (speech_ == 0) {
          ++waitingIdle_;
        } else {
          throw std::runtime_error("the pipeline went idle after speech frame " + std::to_string(speech_ - 1) +
                                   " without a ramp while speech was due");
        }
        return;
      case Phase::Ramp:
        if (info.kind == LE_UTT_KIND_RAMP) {
          write(std::move(frame));
          ++ramp_;
        } else if (info.kind == LE_UTT_KIND_IDLE) {
          phase_ = Phase::Tail;
          take(info, std::move(frame));
        } else {
          throw std::runtime_error("the pipeline delivered speech frame " + std::to_string(info.speechIndex) +
                                   " after its ramp began");
        }
        return;
      case Phase::Tail:
        if (tail_ < plan_.tail) {
          write(std::move(frame));
          ++tail_;
        }
        if (tail_ == plan_.tail) phase_ = Phase::Done;
        return;
      case Phase::Done:
        return;
    }
  }

  // The frame, and the audio the movie plays while it shows: the lead-in's silence, the
  // input up to the cut, silence after.
  void write(std::vector<uint8_t>&& frame) {
    const size_t from = static_cast<size_t>(written_) * kSamplesPerFrame;
    const size_t to = from + kSamplesPerFrame;
    const size_t speechStart = static_cast<size_t>(plan_.leadIn) * kSamplesPerFrame;
    std::vector<int16_t> audio(kSamplesPerFrame, 0);
    for (size_t t = std::max(from, speechStart); t < to; ++t) {
      const size_t i = t - speechStart;
      if (i < audioCut_) audio[t - from] = pcm_[i];
    }
    sink_.push(std::move(frame), std::move(audio));
    ++written_;
    bar_.update(written_);
  }

  [[noreturn]] void stalled() {
    char text[512] = {0};
    uint64_t failures = 0;
    le_utt_render_status(utt_, text, sizeof text, &failures);
    std::string why = "the speech pipeline delivered no frame for 30 s";
    if (failures) why += " (" + std::to_string(failures) + " render failures, the last: " + text + ")";
    const std::string borrow = borrowFailure(utt_);
    if (!borrow.empty()) why += " (the mouth borrow failed: " + borrow + "; --no-borrow renders without it)";
    throw std::runtime_error(why);
  }

  le_utt* utt_;
  const std::vector<int16_t>& pcm_;
  const Plan plan_;
  MovieSink& sink_;
  Progress& bar_;
  Phase phase_;
  std::vector<uint8_t> next_;
  size_t pushed_ = 0, audioCut_;
  int written_ = 0, speech_ = 0, ramp_ = 0, tail_ = 0, waitingIdle_ = 0, late_ = 0, pulls_ = 0;
  bool interrupted_ = false;
};

int framesOf(double seconds) { return static_cast<int>(std::lround(seconds * 25.0)); }

struct StreamDeleter {
  void operator()(le_stream* s) const { le_stream_destroy(s); }
};

struct OfflineRun {
  MovieSink* sink;
  const std::vector<int16_t>* pcm;
  Progress* bar;
  std::exception_ptr error;
};

// Frame j shows samples 640j .. 640j+639; the last frame's missing samples are silence.
int takeStreamFrame(void* user, int j, const uint8_t* rgb, int width, int height) {
  auto* run = static_cast<OfflineRun*>(user);
  if (run->error) return 0;
  try {
    std::vector<uint8_t> frame = run->sink->buffer();
    std::copy(rgb, rgb + size_t(width) * height * 3, frame.begin());
    const size_t from = size_t(j) * kSamplesPerFrame;
    std::vector<int16_t> audio(kSamplesPerFrame, 0);
    for (size_t t = from; t < std::min(from + kSamplesPerFrame, run->pcm->size()); ++t) audio[t - from] = (*run->pcm)[t];
    run->sink->push(std::move(frame), std::move(audio));
    run->bar->update(j + 1);
  } catch (...) {
    run->error = std::current_exception();  // never across the engine's callback
  }
  return 0;
}

// The whole clip through the offline stream renderer: rendering on its thread overlaps
// pasting and encoding on this one.
void speakOffline(const std::string& bundle, const std::vector<int16_t>& pcm, const std::string& out, int threads,
                  int crf, bool quiet) {
  std::vector<char> dir(4096);
  if (le_bundle_resolve_handle(bundle.c_str(), dir.data(), dir.size()) != 1) throw std::runtime_error(engineError());
  const std::string encoder = defaultW2v(dir.data());
  std::unique_ptr<le_stream, StreamDeleter> stream(le_stream_create(dir.data(), encoder.c_str(), threads, 0, 1.0f));
  if (!stream) throw std::runtime_error(le_stream_last_error());
  const int W = le_stream_width(stream.get()), H = le_stream_height(stream.get());
  forge::MovieSpec spec = h264Spec(W, H, crf);
  spec.audioRate = kSampleRate;
  forge::MovieWriter movie(out, spec);
  const int frames = static_cast<int>((pcm.size() + kSamplesPerFrame - 1) / kSamplesPerFrame);
  Progress bar("speak (offline)", frames, !quiet);
  bar.update(0);
  MovieSink sink(movie, static_cast<size_t>(W) * H * 3);
  std::vector<float> audio(pcm.size());
  for (size_t i = 0; i < pcm.size(); ++i) audio[i] = pcm[i] / 32768.0f;
  OfflineRun run{&sink, &pcm, &bar, nullptr};
  const int delivered = le_stream_run(stream.get(), audio.data(), static_cast<int>(audio.size()), takeStreamFrame, &run);
  if (run.error) std::rethrow_exception(run.error);
  if (delivered < 0) throw std::runtime_error(le_stream_last_error());
  sink.close();
  movie.finish();
  bar.finish();
  if (!quiet)
    std::fprintf(stderr, "wrote %s: %d frames %dx%d at 25 fps (offline), %.2f s of audio\n", out.c_str(), delivered, W,
                 H, static_cast<double>(pcm.size()) / kSampleRate);
}

}  // namespace

int cmdSpeak(const std::vector<std::string>& argv) {
  std::vector<std::string> args0;
  for (const std::string& a : argv) args0.push_back(a == "-o" ? "--output" : a);
  const Args args(args0, {"realtime", "quiet", "offline", "no-borrow"},
                  {"output", "lead-in", "tail", "interrupt-at", "motion", "model", "threads", "crf"});
  if (args.help()) {
    std::fputs(kHelp, stdout);
    return kOk;
  }
  if (args.positional().size() != 2) throw UsageError("wants a bundle and an audio file");
  if (!args.has("output")) throw UsageError("wants an output movie: -o OUT.mp4");
  const std::string bundle = args.positional()[0], input = args.positional()[1], out = args.str("output", "");
  const bool realtime = args.flag("realtime"), quiet = args.flag("quiet");
  Plan plan;
  plan.leadIn = framesOf(args.number("lead-in", 0.4, 0.0, 3600.0));
  plan.tail = framesOf(args.number("tail", 0.4, 0.0, 3600.0));
  const double interruptAt = args.number("interrupt-at", -1.0, 0.0, 1e6);
  const int threads = args.integer("threads", 0, 0, 256);
  const int crf = args.integer("crf", 18, 0, 51);

  if (args.flag("offline")) {
    for (const char* live : {"realtime", "lead-in", "tail", "interrupt-at", "motion", "model"})
      if (args.flag(live) || args.has(live))
        throw UsageError(std::string("--offline renders the speech alone: it takes no --") + live);
    speakOffline(bundle, readAudio16k(input), out, threads, crf, quiet);
    return kOk;
  }
  const std::vector<int16_t> pcm = readAudio16k(input);
  const int speechFrames = static_cast<int>((pcm.size() + kSamplesPerFrame - 1) / kSamplesPerFrame);
  if (args.has("interrupt-at")) {
    plan.interruptAt = static_cast<int>(std::floor(interruptAt * 25.0));
    if (plan.interruptAt < 1 || plan.interruptAt >= speechFrames) {
      char range[96];
      std::snprintf(range, sizeof range, "0.04 <= SECONDS < %.2f, the audio's length", (speechFrames) / 25.0);
      throw UsageError(std::string("--interrupt-at wants a time inside the speech: ") + range);
    }
  }

  // Asked for before the pipeline exists: it reads the switch when it is destroyed.
  if (realtime) setenv("LE_UTT_STAGE_REPORT", "1", 0);
  const CtxPtr ctx = openContext(bundle, args.str("model", "b1"), threads);
  const int W = le_width(ctx.get()), H = le_height(ctx.get());
  forge::MovieSpec spec = h264Spec(W, H, crf);
  spec.audioRate = kSampleRate;
  forge::MovieWriter movie(out, spec);
  UttPtr utt = openSpeech(ctx.get(), bundle, args.str("motion", ""), !quiet);
  if (!args.flag("no-borrow")) attachBorrow(utt.get(), bundle, !quiet);

  const int expected = plan.leadIn + (plan.interruptAt >= 0 ? plan.interruptAt + 4 : speechFrames + 6) + plan.tail;
  Progress bar(realtime ? "speak (live)" : "speak", expected, !quiet);
  bar.update(0);
  MovieSink sink(movie, static_cast<size_t>(W) * H * 3);
  Speaker speaker(utt.get(), pcm, plan, sink, bar);
  if (realtime)
    speaker.runRealtime();
  else
    speaker.runOffline();
  sink.close();
  movie.finish();
  bar.finish();

  le_utt_stats stats{};
  le_utt_get_stats(utt.get(), &stats);
  char status[512] = {0};
  uint64_t failures = 0;
  le_utt_render_status(utt.get(), status, sizeof status, &failures);
  if (realtime) {
    std::fprintf(stderr,
                 "first-frame latency %.1f ms, render %.2f ms per speech frame, %d late pulls of %d, "
                 "%d idle frames while the first speech frame was on its way\n",
                 stats.firstFrameLatencyMs, stats.renderMsAverage, speaker.latePulls(), speaker.pulls(),
                 speaker.waitingIdle());
  }
  if (failures) std::fprintf(stderr, "%llu render failures, the last: %s\n", static_cast<unsigned long long>(failures), status);
  if (!quiet) printBorrowStats(utt.get());
  utt.reset();  // prints the stage report when asked
  if (!quiet)
    std::fprintf(stderr, "wrote %s: %d frames %dx%d at 25 fps (%d lead-in, %d speech, %d ramp, %d tail)%s, %.2f s of audio\n",
                 out.c_str(), speaker.frames(), W, H, plan.leadIn, speaker.speechFrames(), speaker.rampFrames(), plan.tail,
                 speaker.interrupted() ? ", interrupted" : "",
                 static_cast<double>(speaker.audioSamples()) / kSampleRate);
  return kOk;
}

}  // namespace le::cli
