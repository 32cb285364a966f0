// The utterance pipeline: the host pushes speech PCM and pulls finished frames; a render thread
// turns keypoint frames from the keypoint source (driven on its own dispatch thread) into crops,
// the paste stage (inline or on its own thread) composites them into drive frames, and an output
// ring of 8 frames hands them to the host. Between utterances the ring carries the drive video's
// own frames; after speech a short ramp eases the face back to the idle pose.
//
// With a borrow attached, the borrow stage sits between rendering and pasting: on its own thread
// when the paste has one, else inline on the render thread. It holds one crop frame back, because
// the borrowed mouth of a frame comes back with the next push.
//
// Locks: the main lock (with the main, the paste and the borrow condition) and the dispatch lock.
// No thread holds both; rendering, pasting and every keypoint-source call run without a lock, and every
// wait for space is a 2 ms timed wait that re-checks stop and the generation.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "le/le_a2x.h"
#include "le/le_bundle.h"
#include "le/le_capi.h"
#include "le/le_error.h"
#include "le/le_pool.h"
#include "le/pipeline/le_utt_borrow.h"
#include "le/pipeline/le_utt_queues.h"
#include "le/pipeline/le_utt_source.h"
#include "le/render/le_renderer.h"
#include "le/tessera/le_tessera_stream.h"

namespace le::utt {
namespace {

constexpr int kRingSlots = 8;
constexpr size_t kPasteJobs = 8;
constexpr size_t kBorrowJobs = 2;
constexpr size_t kPasteJobsAfterBorrow = 2;  // paste jobs while the borrow stage feeds the queue
constexpr int kKpFrames = 32;
constexpr auto kWaitStep = std::chrono::milliseconds(2);
constexpr uint32_t kNoSpeech = 0xFFFFFFFFu;
constexpr double kPcmScale = 1.0 / 32768.0;

enum State : int32_t { kIdle = 0, kBegun = 1, kSpeaking = 2, kRamp = 3 };

double nowMs() {
  return std::chrono::duration<double, std::milli>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

using Kp = std::array<float, kKpFloats>;

struct Options {
  std::string dir;
  int threads = 0;
  std::string motionEp;
  std::string steadyKey;
  bool hybrid = false;
  int batch = -1;
  double endSilenceMs = 600;  // < 0: never
  int rampFrames = 6;
  int interruptRampFrames = 4;
};

Options resolveOptions(const le_utt_opts& o, int ctxThreads) {
  Options r;
  if (!o.motion_dir || !*o.motion_dir) throw std::runtime_error("opts.motion_dir required");
  r.dir = o.motion_dir;
  r.threads = o.threads < 1 ? ctxThreads : o.threads;
  r.motionEp = o.motionEp ? o.motionEp : "";
  r.steadyKey = o.steadyModel && *o.steadyModel ? o.steadyModel : "b24_fp32";
  if (const char* e = std::getenv("LE_STEADY_MODEL"); e && *e) r.steadyKey = e;
  if (o.batch == -2) {
    r.hybrid = true;
  } else if (o.batch < 1) {
    const char* e = std::getenv("LE_UTT_HYBRID");
    r.hybrid = e && *e && std::strcmp(e, "0") != 0;
  } else {
    r.batch = o.batch;
  }
  r.endSilenceMs = o.endSilence > 0 ? o.endSilence * 1000.0 : o.endSilence == 0 ? 600.0 : -1.0;
  r.rampFrames = o.rampFrames < 1 ? 6 : o.rampFrames;
  r.interruptRampFrames = o.interruptRampFrames < 1 ? 4 : o.interruptRampFrames;
  return r;
}

// The pipelined-paste choice: on for the audio-to-expression source, replaced by a decimal
// LE_UTT_PIPELINE_PASTE (non-zero = on) when that is set.
bool pipelinedPaste(bool a2x) {
  const char* e = std::getenv("LE_UTT_PIPELINE_PASTE");
  if (!e || !*e) return a2x;
  return std::strtol(e, nullptr, 10) != 0;
}

// The source directory's target keypoints, kept only when they hold exactly NT rows.
std::vector<float> readTargets(const std::string& dir, int nt) {
  std::string bytes;
  try {
    bytes = readFile(resolveMember(dir, "xs_target.bin"));
  } catch (const std::exception&) {
    return {};
  }
  if (bytes.size() != size_t(nt) * kKpFloats * sizeof(float)) return {};
  std::vector<float> t(size_t(nt) * kKpFloats);
  std::memcpy(t.data(), bytes.data(), bytes.size());
  return t;
}

struct PasteJob {
  double enqueueMs = 0;
  std::vector<float> crop;
  bool hasCrop = false;
  uint32_t kind = LE_UTT_KIND_IDLE;
  int32_t si = 0;
  uint32_t speechIndex = kNoSpeech;
  Kp xd{};
  uint64_t gen = 0;
  double uttStartMs = 0;  // first push of the frame's utterance (speech frames)
};

struct Slot {
  std::vector<uint8_t> bytes;
  uint64_t seq = 0;
  uint32_t kind = 0, si = 0, speechIndex = kNoSpeech;
  Kp xd{};
};

// The dispatch job slot: one job at a time between the render and the dispatch thread.
struct DispatchSlot {
  bool posted = false, done = false, stop = false;
  uint64_t gen = 0;
  KeypointSource* source = nullptr;
  std::vector<float> samples;
  bool reset = false;
  int start = 0, direction = 1;
  int eager = 0;  // 0: unchanged
  bool finish = false;
  bool fill = false;  // keep asking the source until it has nothing more or the slot is full
  int maxFrames = 0;
  int pulled = 0, remaining = 0, total = -1;
  std::string error;
  std::vector<int32_t> si = std::vector<int32_t>(kKpFrames);
  std::vector<float> xs = std::vector<float>(size_t(kKpFrames) * kKpFloats);
  std::vector<float> xd = std::vector<float>(size_t(kKpFrames) * kKpFloats);
};

// The attached borrow (main lock). The pass itself is driven without the lock by the one thread
// that runs the borrow stage; shared so that a re-attachment can replace it meanwhile.
struct Borrow {
  std::shared_ptr<le::tessera::StreamBorrow> pass;
  uint64_t epoch = 0;  // attachments so far
  std::string geometry, reason;
  uint64_t written = 0, skipped = 0;
  bool failed = false;
  int64_t synthFrames = 0;
  double synthSum = 0, synthMax = 0;
};

// The crop frame the borrow stage holds back (touched only by the thread running the stage).
struct Held {
  PasteJob job;
  bool holding = false;
  std::shared_ptr<le::tessera::StreamBorrow> pass;  // the pass the frame was pushed into
  uint64_t epoch = 0;
};

// Counters of the stage report.
struct StageCounters {
  int64_t jobsB = 0, jobsC = 0;
  int64_t stageAFrames = 0;
  double stageAMs = 0, stageAWaitMs = 0;
  double stageBMs = 0, stageCMs = 0;
  int64_t deliverFrames = 0;
  double deliverMs = 0;
};

}  // namespace
}  // namespace le::utt

using le::utt::Kp;
using le::utt::kKpFloats;

struct le_utt {
  le_utt(le_ctx* ctx, const le_utt_opts& opts);
  ~le_utt();
  le_utt(const le_utt&) = delete;
  le_utt& operator=(const le_utt&) = delete;

  // ---- host side -----------------------------------------------------------------------------
  int ready();
  void pushAudio(const int16_t* pcm, int n);
  void endUtterance();
  void interrupt();
  int framesAvailable();
  int pullFrame(uint8_t* out, size_t capacity, le_utt_frame_info* info);
  void stats(le_utt_stats* s);
  int renderStatus(char* text, int capacity, uint64_t* count);

  // ---- borrow attachment -----------------------------------------------------------------------
  const le_ctx& context() const { return *ctx_; }
  const std::vector<float>& targets() const { return targets_; }
  void attachBorrow(std::shared_ptr<le::tessera::StreamBorrow> pass, const std::string& geometry);
  le::utt::BorrowReport borrowReport();

 private:
  // ---- threads -------------------------------------------------------------------------------
  void warmMain();
  void dispatchMain();
  void renderMain();
  void pasteMain();
  void borrowMain();

  // ---- render thread -------------------------------------------------------------------------
  void adoptGeneration(uint64_t gen);
  // An interrupt or destruction has made the frame in hand worthless.
  bool stale();
  bool collectJob(bool wait);
  void postJob(bool finishNow);
  void startRamp(int length, int si, const float* xd);
  bool renderSpeech(int n);
  bool renderRampFrame();
  bool enqueueFrame(const float* crop, uint32_t kind, int32_t si, uint32_t speechIndex,
                    const float* xd, double renderMs);
  void endUtteranceNow();
  void setState(int32_t s);

  // ---- paste stage ---------------------------------------------------------------------------
  // Fetches drive frame si into the next ring slot, composites crop when present and publishes
  // the frame when its generation is still current. False when it was dropped.
  bool pasteIntoRing(const float* crop, uint32_t kind, int32_t si, uint32_t speechIndex,
                     const float* xd, uint64_t gen, double uttStartMs, double enqueueMs,
                     bool onPasteThread);
  // Waits (2 ms steps) until pred holds; false when stop or a newer generation came first.
  template <class Pred>
  bool waitFor(std::unique_lock<std::mutex>& lk, uint64_t gen, Pred pred);

  // ---- borrow stage (the borrow thread, or the render thread inline) ------------------------
  // Runs one job through the borrow: out receives the frames that go on to the paste, in order
  // (the held frame with its borrowed mouth, an idle frame). False when the job was refused (a
  // failed borrow, a stale generation).
  bool borrowStep(le::utt::PasteJob&& job, std::vector<le::utt::PasteJob>& out, bool threaded);
  // Flushes the held frame's pass, discarding the result, and drops the frame.
  void dropHeld();
  // The outcome of a push or flush for the held frame: a written mouth sends it on, a skip or
  // exception fails the borrow and drops it. Returns false when the borrow failed.
  bool settleHeld(bool emitted, const le::tessera::FrameResult& r, uint64_t epoch,
                  std::vector<le::utt::PasteJob>& out, bool threaded);
  void failBorrow(uint64_t epoch, const std::string& reason, bool skipped);
  void recycle(le::utt::PasteJob& job);
  // The borrow thread hands a frame to the paste thread (at most 2 queued); false when stopping
  // or its generation went stale.
  bool handOn(le::utt::PasteJob& job);

  void recordFailure(const char* stage, const std::string& reason, bool fatal);
  void printStageReport();
  std::vector<float> takeCropBuffer();

  // ---- fixed at creation ---------------------------------------------------------------------
  le_ctx* ctx_;
  le::utt::Options opt_;
  bool a2x_;
  bool pipelined_;
  const int nt_, width_, height_;
  const size_t frameBytes_, cropFloats_;
  std::vector<float> targets_;  // NT x 63, or empty

  // ---- main lock -----------------------------------------------------------------------------
  std::mutex mu_;
  std::condition_variable cv_;       // main condition
  std::condition_variable pasteCv_;  // the paste thread's
  std::vector<float> staged_;
  bool ended_ = false;
  bool stop_ = false;
  uint64_t generation_ = 0;
  bool runsCancelled_ = false;  // an interrupt stopped the renderers' runs until the new generation
  bool holdStaged_ = false;  // the render thread leaves staged audio for the next utterance
  bool jobSignal_ = false;   // a dispatch job completed
  double lastPushMs_ = 0;
  double firstPushMs_ = 0;
  bool haveFirstPush_ = false;
  int readyState_ = 0;  // 0 warming, 1 ready, -1 source creation failed
  std::string sourceError_;
  std::unique_ptr<le::utt::KeypointSource> source_;
  std::unique_ptr<le::Renderer> chunk_;
  std::array<le::utt::Slot, le::utt::kRingSlots> ring_;
  uint64_t head_ = 0, tail_ = 0, seq_ = 0;
  le::utt::FixedQueue<le::utt::PasteJob> pasteQ_{le::utt::kPasteJobs};
  std::vector<std::vector<float>> spareCrops_;
  le_utt_stats stats_{};
  uint64_t failures_ = 0;
  std::string status_;
  bool fatal_ = false;
  uint32_t lastPulledKind_ = LE_UTT_KIND_IDLE;
  int32_t lastPulledSi_ = -1;
  Kp lastPulledXd_{};
  le::utt::StageCounters stage_;
  le::utt::Borrow borrow_;
  std::condition_variable borrowCv_;  // the borrow thread's
  le::utt::FixedQueue<le::utt::PasteJob> borrowQ_{le::utt::kBorrowJobs};
  bool borrowThreaded_ = false;  // the borrow thread runs
  // Mirrors of stop_ and generation_ for the render thread's waits on the dispatch lock.
  std::atomic<bool> stopFlag_{false};
  std::atomic<uint64_t> genFlag_{0};

  // ---- dispatch lock -------------------------------------------------------------------------
  std::mutex dmu_;
  std::condition_variable dcv_;
  le::utt::DispatchSlot job_;

  // ---- render thread only --------------------------------------------------------------------
  uint64_t myGen_ = 0;
  int32_t state_ = le::utt::kIdle;  // written under the main lock, read freely here
  le::utt::KeypointSource* src_ = nullptr;  // set once ready
  le::Renderer* chunkR_ = nullptr;
  le::utt::KpQueue kpq_{le::utt::kKpFrames};
  int walk_ = 0;
  bool active_ = false;      // an utterance is being rendered
  bool finishing_ = false;   // its end was marked or detected
  bool finishSent_ = false;
  bool resetPending_ = false;
  bool jobOut_ = false;
  std::vector<float> pending_;
  int received_ = 0, remaining_ = 0, total_ = -1;
  uint32_t speechCounter_ = 0;
  double uttStartMs_ = 0;
  int eagerSent_ = 0;
  int eagerWanted_ = 0;
  struct Ramp {
    int remaining = 0, length = 0;
    Kp offset{};
  } ramp_;
  int32_t lastSpeechSi_ = -1;
  Kp lastSpeechXd_{};
  double renderAvg_ = -1;

  // ---- the thread running the borrow stage -------------------------------------------------
  le::utt::Held held_;

  std::thread warm_, dispatch_, render_, paste_, borrowThread_;
};

// ---- construction and destruction -------------------------------------------------------------

le_utt::le_utt(le_ctx* ctx, const le_utt_opts& opts)
    : ctx_(ctx),
      opt_(le::utt::resolveOptions(opts, ctx->n_threads)),
      a2x_(le::utt::hasA2xStream(opt_.dir)),
      pipelined_(le::utt::pipelinedPaste(a2x_)),
      nt_(ctx->manifest.NT),
      width_(ctx->manifest.W),
      height_(ctx->manifest.H),
      frameBytes_(size_t(ctx->manifest.W) * size_t(ctx->manifest.H) * 3),
      cropFloats_(size_t(3) * size_t(ctx->manifest.crop) * size_t(ctx->manifest.crop)),
      targets_(le::utt::readTargets(opt_.dir, ctx->manifest.NT)) {
  le::Renderer& r = le::ensureRenderer(*ctx);
  if (*r.directorNote()) recordFailure("director load", r.directorNote(), false);
  for (auto& s : ring_) s.bytes.resize(frameBytes_);
  eagerSent_ = eagerWanted_ = opt_.hybrid ? 3 : opt_.batch;
  // Threads start last: a throw above leaves nothing running.
  render_ = std::thread(&le_utt::renderMain, this);
  warm_ = std::thread(&le_utt::warmMain, this);
  dispatch_ = std::thread(&le_utt::dispatchMain, this);
  if (pipelined_) paste_ = std::thread(&le_utt::pasteMain, this);
}

le_utt::~le_utt() {
  {
    std::lock_guard<std::mutex> lk(mu_);
    stop_ = true;
    stopFlag_ = true;
  }
  cv_.notify_all();
  borrowCv_.notify_all();
  pasteCv_.notify_all();
  if (borrowThread_.joinable()) borrowThread_.join();
  if (paste_.joinable()) paste_.join();
  render_.join();
  warm_.join();
  {
    std::lock_guard<std::mutex> lk(dmu_);
    job_.stop = true;
  }
  dcv_.notify_all();
  dispatch_.join();
  // The context outlives the pipeline: an interrupt's cut must not stay on its renderer.
  if (runsCancelled_) ctx_->renderer->resumeRuns();
  source_.reset();
  if (std::getenv("LE_UTT_STAGE_REPORT")) printStageReport();
}

void le_utt::warmMain() {
  std::unique_ptr<le::utt::KeypointSource> src;
  try {
    src = le::utt::openSource(opt_.dir, a2x_, opt_.threads, opt_.motionEp);
  } catch (const std::exception& e) {
    {
      std::lock_guard<std::mutex> lk(mu_);
      readyState_ = -1;
      sourceError_ = e.what();
    }
    cv_.notify_all();
    return;
  }
  src->setEager(opt_.hybrid ? 3 : opt_.batch);

  le::Renderer& main = *ctx_->renderer;
  std::unique_ptr<le::Renderer> chunk;
  if (opt_.steadyKey != "-") {
    try {
      chunk = std::make_unique<le::Renderer>(ctx_->manifest, ctx_->identity, opt_.steadyKey,
                                             ctx_->n_threads, ctx_->ep);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "[le_utt] steady chunk renderer '%s' unavailable, rendering frame by frame: %s\n",
                   opt_.steadyKey.c_str(), e.what());
    }
    const std::string mainEp = main.ep();
    if (chunk && mainEp.rfind("coreml-native", 0) == 0 &&
        std::string(chunk->ep()).rfind("coreml-native", 0) != 0) {
      std::fprintf(stderr,
                   "[le_utt] steady chunk renderer '%s' DROPPED (rendering b1-only): this frame graph "
                   "runs on ep=%s while the chunk graph fell back to ep=%s. A chunk that gives up the "
                   "bundle's own CoreML director costs MORE per frame than the per-frame path it was "
                   "meant to amortize, and letting timing choose between two runtimes makes the "
                   "delivered pixels depend on scheduling.\n",
                   opt_.steadyKey.c_str(), mainEp.c_str(), chunk->ep());
      chunk.reset();
    }
  }

  // Frames through each renderer, so the first speech frame does not pay for first runs: ONNX
  // Runtime plans its memory on the first run and allocates it on the second, and the split
  // director's two boundary slots are each bound once.
  const le::Drive& drive = ctx_->drive;
  if (drive.frames >= 1) {
    try {
      for (int k = 0; k < 2; ++k) {
        const int f = std::min(k, drive.frames - 1);
        const int32_t si = drive.si[size_t(f)];
        const float* xs = drive.xs.data() + size_t(f) * kKpFloats;
        main.render(&si, xs, xs, 1);
        if (chunk) chunk->render(&si, xs, xs, 1);
      }
    } catch (const std::exception& e) {
      recordFailure("warm-up", e.what(), false);
    }
  }

  {
    std::lock_guard<std::mutex> lk(mu_);
    // The first speech frames' crop copies, their pages touched now rather than while a host
    // waits for its first frame.
    if (pipelined_)
      for (int k = 0; k < 2; ++k) spareCrops_.emplace_back(cropFloats_);
    source_ = std::move(src);
    chunk_ = std::move(chunk);
    readyState_ = 1;
  }
  cv_.notify_all();
}

// ---- host side --------------------------------------------------------------------------------

int le_utt::ready() {
  std::lock_guard<std::mutex> lk(mu_);
  if (readyState_ < 0) le::err::set(le::err::Family::Utt, sourceError_);
  return readyState_;
}

void le_utt::pushAudio(const int16_t* pcm, int n) {
  {
    std::lock_guard<std::mutex> lk(mu_);
    const size_t at = staged_.size();
    staged_.resize(at + size_t(n));
    for (int i = 0; i < n; ++i) staged_[at + size_t(i)] = float(pcm[i] * le::utt::kPcmScale);
    lastPushMs_ = le::utt::nowMs();
    if (!haveFirstPush_) {
      firstPushMs_ = lastPushMs_;
      haveFirstPush_ = true;
    }
  }
  cv_.notify_all();
  pasteCv_.notify_all();
}

void le_utt::endUtterance() {
  {
    std::lock_guard<std::mutex> lk(mu_);
    ended_ = true;
  }
  cv_.notify_all();
}

void le_utt::interrupt() {
  {
    std::lock_guard<std::mutex> lk(mu_);
    staged_.clear();
    ended_ = false;
    head_ = tail_;
    const auto spare = [&](le::utt::PasteJob&& j) {
      if (!j.crop.empty()) spareCrops_.push_back(std::move(j.crop));
    };
    pasteQ_.drain(spare);
    borrowQ_.drain(spare);
    haveFirstPush_ = false;
    ++generation_;
    genFlag_ = generation_;
    // The frame on the render thread belongs to the cut utterance: its run stops now instead of
    // finishing, so the first ramp frame waits for one run, not two. Only speech and ramp frames
    // render outside idle, so warm-up runs are never cut.
    if (state_ != le::utt::kIdle) {
      runsCancelled_ = true;
      ctx_->renderer->cancelRuns();
      if (chunk_) chunk_->cancelRuns();
    }
  }
  cv_.notify_all();
  borrowCv_.notify_all();
}

int le_utt::framesAvailable() {
  std::lock_guard<std::mutex> lk(mu_);
  return int(tail_ - head_);
}

int le_utt::pullFrame(uint8_t* out, size_t capacity, le_utt_frame_info* info) {
  {
    std::lock_guard<std::mutex> lk(mu_);
    if (tail_ == head_) return 0;
    if (capacity < frameBytes_) {
      le::err::set(le::err::Family::Utt, "le_utt_pull_frame: buffer too small");
      return 0;
    }
    const le::utt::Slot& s = ring_[head_ % le::utt::kRingSlots];
    std::memcpy(out, s.bytes.data(), frameBytes_);
    if (info) *info = {s.seq, s.kind, s.si, s.speechIndex};
    lastPulledKind_ = s.kind;
    lastPulledSi_ = int32_t(s.si);
    lastPulledXd_ = s.xd;
    ++head_;
    ++stats_.framesPulled;
    if (s.kind == LE_UTT_KIND_SPEECH) ++stats_.speechFramesPulled;
  }
  cv_.notify_all();
  return 1;
}

void le_utt::stats(le_utt_stats* s) {
  std::lock_guard<std::mutex> lk(mu_);
  *s = stats_;
  s->state = state_;
}

int le_utt::renderStatus(char* text, int capacity, uint64_t* count) {
  std::lock_guard<std::mutex> lk(mu_);
  if (count) *count = failures_;
  if (text && capacity >= 1) {
    const size_t n = std::min(status_.size(), size_t(capacity) - 1);
    std::memcpy(text, status_.data(), n);
    text[n] = 0;
  }
  return fatal_ ? -1 : 0;
}

void le_utt::recordFailure(const char* stage, const std::string& reason, bool fatal) {
  const le::Renderer* r = ctx_->renderer.get();
  std::string text = std::string("ep=") + (r ? r->ep() : "unknown") + " " + stage + ": " +
                     (reason.empty() ? "unknown failure" : reason);
  std::lock_guard<std::mutex> lk(mu_);
  ++failures_;
  status_ = std::move(text);
  if (fatal) fatal_ = true;
}

void le_utt::printStageReport() {
  const le::utt::StageCounters& c = stage_;
  auto avg = [](double total, int64_t n) { return n > 0 ? total / double(n) : 0.0; };
  if (c.jobsC == 0) {
    std::fprintf(stderr,
                 "[le_utt-stage] MEASURED NOTHING — the stage report was asked for and the paste-job "
                 "counter never advanced (pipe=%d jobsB=%lld jobsC=0, %lld speech frames delivered). "
                 "stageA/stageB/stageC and the deliver latency are NOT reported rather than reported "
                 "as zero: on this path the paste does not run through the counted queue.\n",
                 borrowThreaded_ ? 1 : 0, static_cast<long long>(c.jobsB),
                 static_cast<long long>(stats_.speechFramesPulled));
    return;
  }
  const double a = avg(c.stageAMs, c.stageAFrames), w = avg(c.stageAWaitMs, c.stageAFrames);
  std::fprintf(stderr,
               "[le_utt-stage] pipe=%d jobsB=%lld jobsC=%lld stageA_ms=%.3f stageA_work_ms=%.3f "
               "stageA_wait_ms=%.3f stageB_ms=%.3f stageC_ms=%.3f deliver_lat_ms=%.3f over %lld "
               "speech frames\n",
               borrowThreaded_ ? 1 : 0, static_cast<long long>(c.jobsB), static_cast<long long>(c.jobsC), a,
               a - w, w,
               avg(c.stageBMs, c.jobsB), avg(c.stageCMs, c.jobsC), avg(c.deliverMs, c.deliverFrames),
               static_cast<long long>(c.deliverFrames));
}

// ---- dispatch thread --------------------------------------------------------------------------

void le_utt::dispatchMain() {
  le::utt::DispatchSlot& j = job_;
  std::unique_lock<std::mutex> lk(dmu_);
  for (;;) {
    dcv_.wait(lk, [&] { return j.stop || j.posted; });
    if (j.stop) return;
    j.posted = false;
    le::utt::KeypointSource* src = j.source;
    // The render thread touches nothing of the slot but the flags while a job is out.
    lk.unlock();
    int pulled = 0, avail = 0, total = -1;
    std::string error;
    try {
      if (j.reset) src->reset(j.start, j.direction, 1);
      if (j.eager != 0) src->setEager(j.eager);
      if (!j.samples.empty()) src->push(j.samples.data(), int(j.samples.size()));
      if (j.finish) src->finish();
      avail = src->avail();
      // A filling job takes every frame the source can make of its audio, asking again while
      // each answer is used up (the audio-to-expression stream advances one block per question),
      // so the steady chunk renderer sees whole batches.
      for (;;) {
        const int want = std::min(avail, j.maxFrames - pulled);
        if (want < 1) break;
        const size_t at = size_t(pulled);
        const int got = src->pull(j.si.data() + at, j.xs.data() + at * kKpFloats, j.xd.data() + at * kKpFloats, want);
        pulled += std::max(got, 0);
        avail -= std::max(got, 0);
        if (got < want || !j.fill || pulled >= j.maxFrames) break;
        avail = src->avail();
      }
      total = src->total();
    } catch (const std::exception& e) {
      error = e.what();
      if (error.empty()) error = "keypoint source failed";
    }
    lk.lock();
    j.pulled = pulled;
    j.remaining = std::max(0, avail);
    j.total = total;
    j.error = std::move(error);
    j.done = true;
    lk.unlock();
    dcv_.notify_all();
    {
      std::lock_guard<std::mutex> g(mu_);
      jobSignal_ = true;
    }
    cv_.notify_all();
    lk.lock();
  }
}

// ---- render thread ----------------------------------------------------------------------------

void le_utt::setState(int32_t s) {
  std::lock_guard<std::mutex> lk(mu_);
  state_ = s;
}

void le_utt::startRamp(int length, int si, const float* xd) {
  const float* t = targets_.data() + size_t(si) * kKpFloats;
  for (int k = 0; k < kKpFloats; ++k) ramp_.offset[size_t(k)] = xd[k] - t[k];
  ramp_.length = ramp_.remaining = length;
  walk_ = (si + 1) % nt_;
  setState(le::utt::kRamp);
}

void le_utt::adoptGeneration(uint64_t gen) {
  myGen_ = gen;
  if (!pipelined_ && held_.holding) dropHeld();
  active_ = finishing_ = finishSent_ = resetPending_ = false;
  pending_.clear();
  kpq_.clear();
  remaining_ = 0;
  ramp_.remaining = 0;
  uint32_t kind;
  int32_t si;
  Kp xd;
  {
    std::lock_guard<std::mutex> lk(mu_);
    if (runsCancelled_ && generation_ == gen) {
      runsCancelled_ = false;
      ctx_->renderer->resumeRuns();
      if (chunk_) chunk_->resumeRuns();
    }
    kind = lastPulledKind_;
    si = lastPulledSi_;
    xd = lastPulledXd_;
  }
  if (si < 0) {
    setState(le::utt::kIdle);  // nothing pulled yet: the walk goes on where it is
  } else if (kind != LE_UTT_KIND_IDLE && !targets_.empty()) {
    startRamp(opt_.interruptRampFrames, si, xd.data());
  } else {
    walk_ = (si + 1) % nt_;
    setState(le::utt::kIdle);
  }
}

bool le_utt::stale() {
  std::lock_guard<std::mutex> lk(mu_);
  return stop_ || generation_ != myGen_;
}

// Takes a finished dispatch job's results; with wait, waits for it (2 ms steps re-checking stop
// and the generation). Returns whether it brought frames or ended the utterance.
bool le_utt::collectJob(bool wait) {
  if (!jobOut_) return false;
  le::utt::DispatchSlot& j = job_;
  std::unique_lock<std::mutex> lk(dmu_);
  while (!j.done) {
    if (!wait || stopFlag_ || genFlag_ != myGen_) return false;
    dcv_.wait_for(lk, le::utt::kWaitStep);
  }
  j.done = false;
  jobOut_ = false;
  if (j.gen != myGen_) return false;  // an interrupted utterance's frames
  if (!j.error.empty()) {
    const std::string e = j.error;
    lk.unlock();
    recordFailure("keypoint source", e, true);
    // A source that fails mid-utterance ends it with the frames it delivered.
    total_ = received_;
    finishing_ = finishSent_ = true;
    remaining_ = 0;
    return true;
  }
  kpq_.append(j.si.data(), j.xs.data(), j.xd.data(), j.pulled);
  received_ += j.pulled;
  remaining_ = j.remaining;
  if (j.total >= 0) total_ = j.total;
  return j.pulled > 0;
}

void le_utt::postJob(bool finishNow) {
  {
    std::lock_guard<std::mutex> lk(dmu_);
    le::utt::DispatchSlot& j = job_;
    j.samples.swap(pending_);
    pending_.clear();
    j.gen = myGen_;
    j.source = src_;
    j.reset = resetPending_;
    j.start = walk_;
    j.direction = 1;
    j.eager = eagerWanted_ != eagerSent_ ? eagerWanted_ : 0;
    j.finish = finishNow;
    j.maxFrames = kpq_.capacity() - kpq_.queued();
    // Once speech is rendering, fill the queue for the chunk renderer; the first job of an
    // utterance takes what is ready at once, so the first frame is not held back.
    j.fill = chunkR_ && speechCounter_ > 0;
    j.done = false;
    j.posted = true;
    j.error.clear();
  }
  dcv_.notify_all();
  if (eagerWanted_ != eagerSent_ && eagerWanted_ != 0) eagerSent_ = eagerWanted_;
  resetPending_ = false;
  if (finishNow) finishSent_ = true;
  jobOut_ = true;
}

void le_utt::endUtteranceNow() {
  active_ = false;
  {
    std::lock_guard<std::mutex> lk(mu_);
    haveFirstPush_ = false;
  }
  if (speechCounter_ > 0 && !targets_.empty() && lastSpeechSi_ >= 0)
    startRamp(opt_.rampFrames, lastSpeechSi_, lastSpeechXd_.data());
  else
    setState(le::utt::kIdle);
}

std::vector<float> le_utt::takeCropBuffer() {
  std::vector<float> b;
  {
    std::lock_guard<std::mutex> lk(mu_);
    if (!spareCrops_.empty()) {
      b = std::move(spareCrops_.back());
      spareCrops_.pop_back();
    }
  }
  b.resize(cropFloats_);
  return b;
}

template <class Pred>
bool le_utt::waitFor(std::unique_lock<std::mutex>& lk, uint64_t gen, Pred pred) {
  while (!pred()) {
    if (stop_ || generation_ != gen) return false;
    cv_.wait_for(lk, le::utt::kWaitStep);
  }
  return !stop_ && generation_ == gen;
}

// Hands a finished crop (null for an idle frame) to the borrow or the paste stage. False when it
// was not accepted (stop, an interrupt made it stale, a failed borrow refused it).
bool le_utt::enqueueFrame(const float* crop, uint32_t kind, int32_t si, uint32_t speechIndex,
                          const float* xd, double renderMs) {
  const double t0 = le::utt::nowMs();
  double waitMs = 0;
  bool borrowed, threaded;
  {
    std::unique_lock<std::mutex> lk(mu_);
    if (borrow_.pass && borrow_.failed) {
      // Every frame is refused until a new attachment: wait for one rather than making the frame
      // again on every pass.
      cv_.wait(lk, [&] { return stop_ || generation_ != myGen_ || !borrow_.failed; });
      if (stop_ || generation_ != myGen_ || borrow_.failed) return false;
      waitMs = le::utt::nowMs() - t0;
    }
    borrowed = borrow_.pass != nullptr;
    threaded = borrowThreaded_;
  }
  const auto makeJob = [&] {
    le::utt::PasteJob job;
    job.hasCrop = crop != nullptr;
    if (crop) {
      job.crop = takeCropBuffer();
      std::memcpy(job.crop.data(), crop, cropFloats_ * sizeof(float));
    }
    job.kind = kind;
    job.si = si;
    job.speechIndex = speechIndex;
    if (xd) std::copy(xd, xd + kKpFloats, job.xd.begin());
    job.gen = myGen_;
    job.uttStartMs = uttStartMs_;
    return job;
  };
  bool accepted;
  if (pipelined_) {
    le::utt::PasteJob job = makeJob();
    auto& q = threaded ? borrowQ_ : pasteQ_;
    std::unique_lock<std::mutex> lk(mu_);
    const double w0 = le::utt::nowMs();
    accepted = waitFor(lk, myGen_, [&] { return !q.full(); });
    waitMs += le::utt::nowMs() - w0;
    if (accepted) {
      job.enqueueMs = le::utt::nowMs();
      q.push(std::move(job));
      lk.unlock();
      (threaded ? borrowCv_ : pasteCv_).notify_one();
    } else if (!job.crop.empty()) {
      spareCrops_.push_back(std::move(job.crop));
    }
  } else if (borrowed) {
    std::vector<le::utt::PasteJob> out;
    le::utt::PasteJob job = makeJob();
    job.enqueueMs = t0;
    accepted = borrowStep(std::move(job), out, false);
    for (le::utt::PasteJob& j : out) {
      try {
        pasteIntoRing(j.hasCrop ? j.crop.data() : nullptr, j.kind, j.si, j.speechIndex, j.xd.data(), j.gen,
                      j.uttStartMs, j.enqueueMs, false);
      } catch (const std::exception& e) {
        recordFailure("paste", e.what(), true);
      }
      recycle(j);
    }
  } else {
    try {
      accepted = pasteIntoRing(crop, kind, si, speechIndex, xd, myGen_, uttStartMs_, t0, false);
    } catch (const std::exception& e) {
      recordFailure("paste", e.what(), true);
      accepted = false;
    }
  }
  if (accepted && kind == LE_UTT_KIND_SPEECH) {
    const double frameMs = renderMs + (le::utt::nowMs() - t0);
    std::lock_guard<std::mutex> lk(mu_);
    renderAvg_ = renderAvg_ < 0 ? frameMs : 0.9 * renderAvg_ + 0.1 * frameMs;
    stats_.renderMsAverage = renderAvg_;
    ++stage_.stageAFrames;
    stage_.stageAMs += frameMs;
    stage_.stageAWaitMs += waitMs;
  }
  return accepted;
}

bool le_utt::pasteIntoRing(const float* crop, uint32_t kind, int32_t si, uint32_t speechIndex,
                           const float* xd, uint64_t gen, double uttStartMs, double enqueueMs,
                           bool onPasteThread) {
  le::utt::Slot* slot;
  {
    std::unique_lock<std::mutex> lk(mu_);
    if (!waitFor(lk, gen, [&] { return tail_ - head_ < le::utt::kRingSlots; })) return false;
    // Only this stage writes the slot at tail; the host reads at head, behind it.
    slot = &ring_[tail_ % le::utt::kRingSlots];
  }
  const double t0 = le::utt::nowMs();
  ctx_->cursor->pullAt(si, slot->bytes.data());
  if (crop)
    ctx_->paste->composite(crop, 255.0f, ctx_->identity.M(si), slot->bytes.data(), width_, height_);
  else
    ctx_->identity.walkP(si);
  const double t1 = le::utt::nowMs();
  {
    std::lock_guard<std::mutex> lk(mu_);
    if (stop_ || generation_ != gen) return false;
    slot->seq = seq_++;
    slot->kind = kind;
    slot->si = uint32_t(si);
    slot->speechIndex = speechIndex;
    if (xd)
      std::copy(xd, xd + kKpFloats, slot->xd.begin());
    else
      slot->xd.fill(0.f);
    ++tail_;
    if (onPasteThread) {
      ++stage_.jobsC;
      stage_.stageCMs += t1 - t0;
      if (kind == LE_UTT_KIND_SPEECH) {
        ++stage_.deliverFrames;
        stage_.deliverMs += t1 - enqueueMs;
      }
    }
    if (kind == LE_UTT_KIND_SPEECH && speechIndex == 0) {
      ++stats_.firstFrames;
      stats_.firstFrameLatencyMs = t1 - uttStartMs;
    }
  }
  cv_.notify_all();
  return true;
}

bool le_utt::renderSpeech(int n) {
  const int k = std::min(n, kpq_.queued());
  if (k < 1) return false;
  const int32_t* si = kpq_.si();
  const float* xs = kpq_.xs();
  const float* xd = kpq_.xd();
  le::Renderer& main = *ctx_->renderer;
  const float* crops = nullptr;
  double perFrameMs = 0;
  if (k > 1 && chunkR_ && k <= chunkR_->batch()) {
    const double t0 = le::utt::nowMs();
    try {
      crops = chunkR_->render(si, xs, xd, k);
      perFrameMs = (le::utt::nowMs() - t0) / k;
    } catch (const std::exception& e) {
      if (stale()) return false;
      recordFailure("b24 chunk", e.what(), false);
      crops = nullptr;
    }
  }
  bool any = false;
  for (int i = 0; i < k; ++i) {
    const float* crop;
    double ms = perFrameMs;
    if (crops) {
      crop = crops + size_t(i) * cropFloats_;
    } else {
      const double t0 = le::utt::nowMs();
      try {
        crop = main.render(&si[i], xs + size_t(i) * kKpFloats, xd + size_t(i) * kKpFloats, 1);
      } catch (const std::exception& e) {
        if (!stale()) recordFailure("render", e.what(), true);
        break;  // the frame stays queued for the next pass
      }
      ms = le::utt::nowMs() - t0;
    }
    const float* fxd = xd + size_t(i) * kKpFloats;
    if (!enqueueFrame(crop, LE_UTT_KIND_SPEECH, si[i], speechCounter_, fxd, ms)) break;
    lastSpeechSi_ = si[i];
    std::copy(fxd, fxd + kKpFloats, lastSpeechXd_.begin());
    walk_ = (si[i] + 1) % nt_;
    if (speechCounter_++ == 0) setState(le::utt::kSpeaking);
    kpq_.advance(1);
    any = true;
  }
  return any;
}

bool le_utt::renderRampFrame() {
  const int s = walk_;
  const int L = ramp_.length, r = ramp_.remaining;
  const float w = 1.0f - float(L - r + 1) / float(L);
  const float* t = targets_.data() + size_t(s) * kKpFloats;
  Kp xd;
  for (int k = 0; k < kKpFloats; ++k) xd[size_t(k)] = w * ramp_.offset[size_t(k)] + t[k];
  const int32_t si = s;
  const float* crop = nullptr;
  try {
    crop = ctx_->renderer->render(&si, t, xd.data(), 1);
  } catch (const std::exception& e) {
    if (stale()) return false;
    recordFailure("ramp", e.what(), true);
  }
  if (crop && !enqueueFrame(crop, LE_UTT_KIND_RAMP, si, le::utt::kNoSpeech, xd.data(), 0))
    return false;  // made again on the next pass
  walk_ = (s + 1) % nt_;
  if (--ramp_.remaining == 0) setState(le::utt::kIdle);
  return true;
}

void le_utt::renderMain() {
  for (;;) {
    std::vector<float> audio;
    bool endedTaken = false;
    uint64_t gen;
    double lastPush;
    int inRing;
    size_t inPaste;
    {
      std::lock_guard<std::mutex> lk(mu_);
      if (stop_) return;
      if (!src_ && readyState_ == 1) {
        src_ = source_.get();
        chunkR_ = chunk_.get();
      }
      holdStaged_ = state_ == le::utt::kRamp || (active_ && finishing_);
      if (!holdStaged_) {
        audio.swap(staged_);
        endedTaken = ended_;
        ended_ = false;
      }
      jobSignal_ = false;
      gen = generation_;
      lastPush = lastPushMs_;
      inRing = int(tail_ - head_);
      inPaste = pasteQ_.size() + borrowQ_.size();
    }
    if (gen != myGen_) adoptGeneration(gen);
    const bool collected = collectJob(false);

    // Audio before the source is ready is dropped; otherwise it opens or extends the utterance.
    if (!src_) {
      if (!audio.empty()) {
        std::lock_guard<std::mutex> lk(mu_);
        haveFirstPush_ = false;
      }
      audio.clear();
      endedTaken = false;
    } else if (!audio.empty()) {
      if (!active_) {
        active_ = true;
        finishing_ = finishSent_ = false;
        received_ = remaining_ = 0;
        total_ = -1;
        speechCounter_ = 0;
        kpq_.clear();
        resetPending_ = true;
        // The first speech frame shows the walk position: its source cone is computed while the
        // keypoint source works on the audio.
        ctx_->renderer->prefetchSource(walk_);
        {
          std::lock_guard<std::mutex> lk(mu_);
          uttStartMs_ = haveFirstPush_ ? firstPushMs_ : le::utt::nowMs();
          if (state_ == le::utt::kIdle) state_ = le::utt::kBegun;
        }
      }
      pending_.insert(pending_.end(), audio.begin(), audio.end());
    }

    bool progressed = collected;
    if (active_) {
      if (endedTaken) finishing_ = true;
      if (opt_.endSilenceMs >= 0 && le::utt::nowMs() - lastPush >= opt_.endSilenceMs)
        finishing_ = true;

      const int queued = kpq_.queued();
      if (opt_.hybrid) {
        const int backlog = remaining_ + queued + inRing;
        if (eagerWanted_ != 24 && backlog > 23) eagerWanted_ = 24;
        else if (eagerWanted_ == 24 && backlog <= 11) eagerWanted_ = 3;
      }
      const int B = chunkR_ ? chunkR_->batch() : 1;
      const bool waitingBatch = chunkR_ && speechCounter_ > 0 && queued < B && queued + remaining_ >= B;
      if (!jobOut_) {
        const bool finishNow = finishing_ && !finishSent_;
        const bool allIn = total_ >= 0 && received_ >= total_;
        const bool idleJob = pending_.empty() && !finishNow && !waitingBatch && (allIn || queued >= 8);
        if (!idleJob) {
          postJob(finishNow);
          if (!opt_.hybrid) progressed |= collectJob(true);
        }
      }

      // Speech frames.
      if (kpq_.queued() > 0 && inRing < le::utt::kRingSlots) {
        const int q = kpq_.queued();
        int n = 1;
        if (chunkR_ && speechCounter_ > 0) {
          if (q >= B) n = B;
          else if (q + remaining_ >= B) n = 0;
        }
        if (n > 0) progressed |= renderSpeech(n);
      }

      // End of speech.
      if (active_ && !jobOut_ && kpq_.queued() == 0 && total_ >= 0 && received_ >= total_ &&
          finishing_ && finishSent_) {
        endUtteranceNow();
        progressed = true;
      }
    }

    if (!active_ && state_ == le::utt::kRamp && ramp_.remaining > 0 && inRing < le::utt::kRingSlots)
      progressed |= renderRampFrame();

    // Idle frames one at a time, only while the host has drained everything.
    if (!progressed && state_ != le::utt::kRamp && state_ != le::utt::kSpeaking &&
        kpq_.queued() == 0 && inRing == 0 && inPaste == 0) {
      if (enqueueFrame(nullptr, LE_UTT_KIND_IDLE, walk_, le::utt::kNoSpeech, nullptr, 0)) {
        walk_ = (walk_ + 1) % nt_;
        progressed = true;
      }
    }

    if (!progressed) {
      std::unique_lock<std::mutex> lk(mu_);
      cv_.wait_for(lk, le::utt::kWaitStep, [&] {
        return stop_ || generation_ != myGen_ || (jobSignal_ && jobOut_) ||
               (!holdStaged_ && (!staged_.empty() || ended_)) || (!src_ && readyState_ == 1);
      });
    }
  }
}

// ---- borrow stage -----------------------------------------------------------------------------

void le_utt::attachBorrow(std::shared_ptr<le::tessera::StreamBorrow> pass, const std::string& geometry) {
  std::shared_ptr<le::tessera::StreamBorrow> old;
  {
    std::lock_guard<std::mutex> lk(mu_);
    if (pipelined_ && !borrowThreaded_) {
      borrowThread_ = std::thread(&le_utt::borrowMain, this);
      borrowThreaded_ = true;
    }
    old = std::move(borrow_.pass);
    borrow_.pass = std::move(pass);
    ++borrow_.epoch;
    borrow_.geometry = geometry;
    borrow_.reason.clear();
    borrow_.written = borrow_.skipped = 0;
    borrow_.failed = false;
    borrow_.synthFrames = 0;
    borrow_.synthSum = borrow_.synthMax = 0;
  }
  cv_.notify_all();
  borrowCv_.notify_all();
}

le::utt::BorrowReport le_utt::borrowReport() {
  std::lock_guard<std::mutex> lk(mu_);
  le::utt::BorrowReport r;
  r.attached = borrow_.pass != nullptr;
  r.failed = borrow_.failed;
  r.written = borrow_.written;
  r.skipped = borrow_.skipped;
  r.reason = borrow_.reason;
  r.geometry = borrow_.geometry;
  r.synthFrames = borrow_.synthFrames;
  r.synthSum = borrow_.synthSum;
  r.synthMax = borrow_.synthMax;
  return r;
}

void le_utt::recycle(le::utt::PasteJob& job) {
  if (job.crop.empty()) return;
  std::lock_guard<std::mutex> lk(mu_);
  spareCrops_.push_back(std::move(job.crop));
}

void le_utt::failBorrow(uint64_t epoch, const std::string& reason, bool skipped) {
  std::lock_guard<std::mutex> lk(mu_);
  if (borrow_.epoch != epoch) return;  // a newer attachment is not touched by the old one's end
  if (skipped) ++borrow_.skipped;
  borrow_.reason = reason.empty() ? "unknown failure" : reason;
  borrow_.failed = true;
}

void le_utt::dropHeld() {
  if (!held_.holding) return;
  held_.holding = false;
  le::tessera::FrameResult discarded;
  try {
    held_.pass->flush(discarded);
  } catch (const std::exception& e) {
    failBorrow(held_.epoch, e.what(), false);
  }
  held_.pass.reset();
  recycle(held_.job);
}

bool le_utt::settleHeld(bool emitted, const le::tessera::FrameResult& r, uint64_t epoch,
                        std::vector<le::utt::PasteJob>& out, bool threaded) {
  if (!held_.holding) return true;
  held_.holding = false;
  std::shared_ptr<le::tessera::StreamBorrow> pass = std::move(held_.pass);
  if (!emitted && threaded) {
    out.push_back(std::move(held_.job));  // delivered without a borrowed mouth
    return true;
  }
  if (!emitted || r.skip) {
    failBorrow(epoch,
               emitted ? r.reason
                       : "flush: the pass held no pending frame while a crop was held — refusing to deliver it "
                         "uncomposed",
               emitted);
    recycle(held_.job);
    return false;
  }
  le::tessera::StreamBorrow::writeWindowDelta(held_.job.crop.data(), pass->canvas(), r, pass->stamp());
  {
    std::lock_guard<std::mutex> lk(mu_);
    if (borrow_.epoch == epoch) ++borrow_.written;
  }
  out.push_back(std::move(held_.job));
  return true;
}

bool le_utt::borrowStep(le::utt::PasteJob&& job, std::vector<le::utt::PasteJob>& out, bool threaded) {
  std::shared_ptr<le::tessera::StreamBorrow> pass;
  uint64_t epoch, gen;
  bool failed;
  {
    std::lock_guard<std::mutex> lk(mu_);
    pass = borrow_.pass;
    epoch = borrow_.epoch;
    failed = borrow_.failed;
    gen = generation_;
  }
  // A newer generation: the held frame belongs to the cut utterance.
  if (held_.holding && held_.job.gen != gen) dropHeld();
  if (job.gen != gen || failed || !pass) {
    recycle(job);
    return false;
  }
  const auto measured = [&](const le::tessera::StreamBorrow& p, uint64_t e) {
    const le::tessera::TeethPass::Stats& st = p.stats();
    std::lock_guard<std::mutex> lk(mu_);
    if (borrow_.epoch != e) return;
    borrow_.synthFrames = st.frames;
    borrow_.synthSum = st.sum_mean;
    borrow_.synthMax = st.max;
  };
  try {
    // Re-attached since the held frame was pushed: it takes its mouth from its own pass.
    if (held_.holding && held_.epoch != epoch) {
      le::tessera::FrameResult r;
      const uint64_t heldEpoch = held_.epoch;
      const bool emitted = held_.pass->flush(r);
      settleHeld(emitted, r, heldEpoch, out, threaded);
    }
    le::tessera::FrameResult r;
    if (job.hasCrop) {
      const bool emitted = pass->push(job.crop.data(), job.xd.data(), r);
      measured(*pass, epoch);
      if (held_.holding && !settleHeld(emitted, r, epoch, out, threaded)) {
        recycle(job);
        return false;
      }
      held_.job = std::move(job);
      held_.pass = std::move(pass);
      held_.epoch = epoch;
      held_.holding = true;
      return true;
    }
    if (held_.holding) {
      const bool emitted = held_.pass->flush(r);
      measured(*held_.pass, epoch);
      if (!settleHeld(emitted, r, epoch, out, threaded)) {
        recycle(job);
        return false;
      }
    }
    out.push_back(std::move(job));
    return true;
  } catch (const std::exception& e) {
    failBorrow(epoch, e.what(), false);
  }
  if (held_.holding) {
    held_.holding = false;
    held_.pass.reset();
    recycle(held_.job);
  }
  recycle(job);
  return false;
}

bool le_utt::handOn(le::utt::PasteJob& job) {
  std::unique_lock<std::mutex> lk(mu_);
  while (pasteQ_.size() >= le::utt::kPasteJobsAfterBorrow) {
    if (stop_ || generation_ != job.gen) return false;
    borrowCv_.wait_for(lk, le::utt::kWaitStep);
  }
  if (stop_ || generation_ != job.gen) return false;
  pasteQ_.push(std::move(job));
  lk.unlock();
  pasteCv_.notify_one();
  return true;
}

void le_utt::borrowMain() {
  std::vector<le::utt::PasteJob> out;
  for (;;) {
    le::utt::PasteJob job;
    bool have = false;
    {
      std::unique_lock<std::mutex> lk(mu_);
      borrowCv_.wait(lk, [&] {
        return stop_ || !borrowQ_.empty() || (held_.holding && held_.job.gen != generation_);
      });
      if (stop_) return;
      if (!borrowQ_.empty()) {
        job = borrowQ_.pop();
        have = true;
      }
    }
    if (!have) {
      dropHeld();  // an interrupt cut the held frame's utterance
      continue;
    }
    cv_.notify_all();
    const uint64_t gen = job.gen;
    const double t0 = le::utt::nowMs();
    out.clear();
    borrowStep(std::move(job), out, true);
    const double t1 = le::utt::nowMs();
    {
      std::lock_guard<std::mutex> lk(mu_);
      if (gen == generation_) {
        ++stage_.jobsB;
        stage_.stageBMs += t1 - t0;
      }
    }
    for (le::utt::PasteJob& j : out)
      if (!handOn(j)) recycle(j);
  }
}

// ---- paste thread -----------------------------------------------------------------------------

void le_utt::pasteMain() {
  const bool fewCores = le::pool::threads() <= 2;
  for (;;) {
    le::utt::PasteJob job;
    {
      std::unique_lock<std::mutex> lk(mu_);
      pasteCv_.wait(lk, [&] { return stop_ || !pasteQ_.empty(); });
      if (stop_) return;
      job = pasteQ_.pop();
      borrowCv_.notify_all();
      if (job.gen != generation_) {
        if (!job.crop.empty()) spareCrops_.push_back(std::move(job.crop));
        lk.unlock();
        cv_.notify_all();
        continue;
      }
    }
    cv_.notify_all();
    // Beside a director that keeps both cores busy, a split paste only adds a runnable thread.
    // But a host waits for the first frame of speech and of a ramp: split, its paste takes a
    // larger share of the cores while the director renders the next frame.
    const bool urgent =
        job.kind == LE_UTT_KIND_RAMP || (job.kind == LE_UTT_KIND_SPEECH && job.speechIndex == 0);
    const le::pool::SerialScope serial(fewCores && !urgent);
    try {
      pasteIntoRing(job.hasCrop ? job.crop.data() : nullptr, job.kind, job.si, job.speechIndex,
                    job.xd.data(), job.gen, job.uttStartMs, job.enqueueMs, true);
    } catch (const std::exception& e) {
      recordFailure("paste", e.what(), true);
    }
    if (!job.crop.empty()) {
      std::lock_guard<std::mutex> lk(mu_);
      spareCrops_.push_back(std::move(job.crop));
    }
  }
}

// ---- flat interface ---------------------------------------------------------------------------

extern "C" {

LE_API const char* le_utt_last_error(void) { return le::err::slot(le::err::Family::Utt).c_str(); }

LE_API le_utt* le_utt_create(le_ctx* ctx, const le_utt_opts* opts) {
  using le::err::Family;
  le::err::clear(Family::Utt);
  LE_CHECK_ARG(ctx && opts, Family::Utt, "le_utt_create: NULL ctx/opts", nullptr);
  return le::err::guard(Family::Utt, "le_utt_create", static_cast<le_utt*>(nullptr),
                        [&] { return new le_utt(ctx, *opts); });
}

LE_API le_utt* le_utt_open(le_ctx* ctx, const char* motion_dir) {
  le_utt_opts o{};
  o.motion_dir = motion_dir;
  return le_utt_create(ctx, &o);
}

LE_API void le_utt_destroy(le_utt* utt) { delete utt; }

LE_API int le_utt_ready(le_utt* utt) { return utt ? utt->ready() : -1; }

LE_API int le_utt_push_audio(le_utt* utt, const int16_t* pcm, int n) {
  LE_CHECK_ARG(utt && pcm && n >= 0, le::err::Family::Utt, "le_utt_push_audio: bad args", 0);
  return le::err::guard(le::err::Family::Utt, "le_utt_push_audio", 0, [&] {
    utt->pushAudio(pcm, n);
    return 1;
  });
}

LE_API void le_utt_end_utterance(le_utt* utt) {
  if (utt) utt->endUtterance();
}

LE_API void le_utt_interrupt(le_utt* utt) {
  if (utt) utt->interrupt();
}

LE_API int le_utt_frames_available(le_utt* utt) { return utt ? utt->framesAvailable() : 0; }

LE_API int le_utt_pull_frame(le_utt* utt, uint8_t* out, size_t capacity, le_utt_frame_info* info) {
  LE_CHECK_ARG(utt && out, le::err::Family::Utt, "le_utt_pull_frame: bad args", 0);
  return utt->pullFrame(out, capacity, info);
}

LE_API void le_utt_get_stats(le_utt* utt, le_utt_stats* stats) {
  if (utt && stats) utt->stats(stats);
}

LE_API int le_utt_render_status(le_utt* utt, char* text, int capacity, uint64_t* count) {
  if (!utt) return 0;
  return utt->renderStatus(text, capacity, count);
}

}  // extern "C"

// ---- what the borrow's flat functions reach ---------------------------------------------------

namespace le::utt {

const le_ctx& context(const le_utt& u) { return u.context(); }
const std::vector<float>& targets(const le_utt& u) { return u.targets(); }
void attachBorrow(le_utt& u, std::unique_ptr<le::tessera::StreamBorrow> pass, const std::string& geometry) {
  u.attachBorrow(std::move(pass), geometry);
}
BorrowReport borrowReport(le_utt& u) { return u.borrowReport(); }

}  // namespace le::utt
