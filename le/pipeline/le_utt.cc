// The utterance pipeline: the host pushes speech PCM and pulls finished frames; a render thread
// turns keypoint frames from the keypoint source (driven on its own dispatch thread) into crops,
// the paste stage (inline or on its own thread) composites them into drive frames, and an output
// ring of 8 frames hands them to the host. Between utterances the ring carries the drive video's
// own frames; after speech a short ramp eases the face back to the idle pose.
//
// Locks: the main lock (with the main and the paste condition) and the dispatch lock. No thread
// holds both; rendering, pasting and every keypoint-source call run without a lock, and every
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
#include "le/pipeline/le_utt_queues.h"
#include "le/pipeline/le_utt_source.h"
#include "le/render/le_renderer.h"

namespace le::utt {
namespace {

constexpr int kRingSlots = 8;
constexpr size_t kPasteJobs = 8;
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
  int maxFrames = 0;
  int pulled = 0, remaining = 0, total = -1;
  std::string error;
  std::vector<int32_t> si = std::vector<int32_t>(kKpFrames);
  std::vector<float> xs = std::vector<float>(size_t(kKpFrames) * kKpFloats);
  std::vector<float> xd = std::vector<float>(size_t(kKpFrames) * kKpFloats);
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

 private:
  // ---- threads -------------------------------------------------------------------------------
  void warmMain();
  void dispatchMain();
  void renderMain();
  void pasteMain();

  // ---- render thread -------------------------------------------------------------------------
  void adoptGeneration(uint64_t gen);
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

  std::thread warm_, dispatch_, render_, paste_;
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
  pasteCv_.notify_all();
  if (paste_.joinable()) paste_.join();
  render_.join();
  warm_.join();
  {
    std::lock_guard<std::mutex> lk(dmu_);
    job_.stop = true;
  }
  dcv_.notify_all();
  dispatch_.join();
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

  // One frame through each renderer, so the first speech frame does not pay for first runs.
  const le::Drive& drive = ctx_->drive;
  if (drive.frames >= 1) {
    const int32_t si = drive.si[0];
    const float* xs = drive.xs.data();
    try {
      main.render(&si, xs, xs, 1);
      if (chunk) chunk->render(&si, xs, xs, 1);
    } catch (const std::exception& e) {
      recordFailure("warm-up", e.what(), false);
    }
  }

  {
    std::lock_guard<std::mutex> lk(mu_);
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
    pasteQ_.drain([&](le::utt::PasteJob&& j) {
      if (!j.crop.empty()) spareCrops_.push_back(std::move(j.crop));
    });
    haveFirstPush_ = false;
    ++generation_;
    genFlag_ = generation_;
  }
  cv_.notify_all();
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
                 0, static_cast<long long>(c.jobsB), static_cast<long long>(stats_.speechFramesPulled));
    return;
  }
  const double a = avg(c.stageAMs, c.stageAFrames), w = avg(c.stageAWaitMs, c.stageAFrames);
  std::fprintf(stderr,
               "[le_utt-stage] pipe=%d jobsB=%lld jobsC=%lld stageA_ms=%.3f stageA_work_ms=%.3f "
               "stageA_wait_ms=%.3f stageB_ms=%.3f stageC_ms=%.3f deliver_lat_ms=%.3f over %lld "
               "speech frames\n",
               0, static_cast<long long>(c.jobsB), static_cast<long long>(c.jobsC), a, a - w, w,
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
      if (avail >= 1 && j.maxFrames >= 1)
        pulled = src->pull(j.si.data(), j.xs.data(), j.xd.data(), std::min(avail, j.maxFrames));
      total = src->total();
    } catch (const std::exception& e) {
      error = e.what();
      if (error.empty()) error = "keypoint source failed";
    }
    lk.lock();
    j.pulled = pulled;
    j.remaining = std::max(0, avail - pulled);
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

// Hands a finished crop (null for an idle frame) to the paste stage. False when it was not
// accepted (stop, or an interrupt made it stale).
bool le_utt::enqueueFrame(const float* crop, uint32_t kind, int32_t si, uint32_t speechIndex,
                          const float* xd, double renderMs) {
  const double t0 = le::utt::nowMs();
  double waitMs = 0;
  bool accepted;
  if (pipelined_) {
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
    std::unique_lock<std::mutex> lk(mu_);
    const double w0 = le::utt::nowMs();
    accepted = waitFor(lk, myGen_, [&] { return !pasteQ_.full(); });
    waitMs = le::utt::nowMs() - w0;
    if (accepted) {
      job.enqueueMs = le::utt::nowMs();
      pasteQ_.push(std::move(job));
      lk.unlock();
      pasteCv_.notify_one();
    } else if (!job.crop.empty()) {
      spareCrops_.push_back(std::move(job.crop));
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
        recordFailure("render", e.what(), true);
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
      inPaste = pasteQ_.size();
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

// ---- paste thread -----------------------------------------------------------------------------

void le_utt::pasteMain() {
  for (;;) {
    le::utt::PasteJob job;
    {
      std::unique_lock<std::mutex> lk(mu_);
      pasteCv_.wait(lk, [&] { return stop_ || !pasteQ_.empty(); });
      if (stop_) return;
      job = pasteQ_.pop();
      if (job.gen != generation_) {
        if (!job.crop.empty()) spareCrops_.push_back(std::move(job.crop));
        lk.unlock();
        cv_.notify_all();
        continue;
      }
    }
    cv_.notify_all();
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
