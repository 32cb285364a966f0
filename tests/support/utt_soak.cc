#include "tests/support/utt_soak.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "le/le.h"
#include "tests/support/speech.h"
#include "tools/forge/forge_audio.h"

namespace le::testmedia {

le::forge::Params uttBundleParams(int width, int height, int crop, int nt) {
  le::forge::Params p = le::forge::sized(nt, width, height, crop, nt);
  p.directors = true;
  p.motion = true;
  return p;
}

OpenBundle::OpenBundle(const std::string& tag, le::forge::Params p) : dir(tag), params(std::move(p)) {
  path = le::forge::forgeBundle(dir / "b", params).dir;
  ctx = le_create(path.c_str(), "b1", 2, nullptr);
  if (!ctx) throw std::runtime_error(le_last_error());
}

OpenBundle::~OpenBundle() { le_destroy(ctx); }

size_t OpenBundle::frameBytes() const { return size_t(le_width(ctx)) * size_t(le_height(ctx)) * 3; }

namespace {
le::forge::Params withAudio(le::forge::Params p) {
  auto audio = le::forge::audioMembers(p, {});
  p.extraMembers.insert(p.extraMembers.begin(), std::make_move_iterator(audio.begin()),
                        std::make_move_iterator(audio.end()));
  return p;
}
}  // namespace

SpeakingBundle::SpeakingBundle(const std::string& tag, le::forge::Params p)
    : OpenBundle(tag, withAudio(std::move(p))),
      w2v_(std::make_unique<ScopedEnv>("W2V_ONNX", (path + "/" + le::forge::kW2vMember).c_str())) {}

UttPipeline::UttPipeline(le_ctx* ctx, size_t frameBytes, const le_utt_opts& opts, Keep keep)
    : buf_(frameBytes), keep_(keep), lastFrame_(std::chrono::steady_clock::now()) {
  u = le_utt_create(ctx, &opts);
  if (!u) throw std::runtime_error(le_utt_last_error());
  // A throwing constructor runs no destructor: the pipeline's threads must not outlive the
  // context they render from.
  try {
    while (le_utt_ready(u) == 0) pullOrNap();
    if (le_utt_ready(u) != 1) throw std::runtime_error(le_utt_last_error());
  } catch (...) {
    le_utt_destroy(u);
    throw;
  }
}

UttPipeline::~UttPipeline() { le_utt_destroy(u); }

bool UttPipeline::pull() {
  le_utt_frame_info info{};
  bool any = false;
  while (le_utt_pull_frame(u, buf_.data(), buf_.size(), &info)) {
    ++frames;
    speechFrames += info.kind == LE_UTT_KIND_SPEECH;
    if (keep_ != Keep::Counts) got.push_back({info, keep_ == Keep::Pixels ? buf_ : std::vector<uint8_t>()});
    any = true;
  }
  if (any) lastFrame_ = std::chrono::steady_clock::now();
  return any;
}

void UttPipeline::pullOrNap() {
  if (pull()) return;
  if (std::chrono::steady_clock::now() - lastFrame_ > kPatience) throw std::runtime_error("the pipeline stalled");
  std::this_thread::sleep_for(std::chrono::microseconds(300));
}

void UttPipeline::untilIdle(size_t from, int idle) {
  const auto until = std::chrono::steady_clock::now() + kPatience;
  for (;;) {
    int trailing = 0;
    bool spoke = false;
    for (size_t i = got.size(); i > from && !spoke; --i)
      got[i - 1].info.kind == LE_UTT_KIND_IDLE ? void(++trailing) : void(spoke = true);
    if (spoke && trailing >= idle) return;
    // Idle frames keep coming when the speech never does.
    if (std::chrono::steady_clock::now() > until) throw std::runtime_error("no speech or ramp frame came");
    pullOrNap();
  }
}

void UttPipeline::untilSpeech(size_t from, int n) {
  const auto until = std::chrono::steady_clock::now() + kPatience;
  while (std::count_if(got.begin() + long(from), got.end(),
                       [](const UttFrame& f) { return f.info.kind == LE_UTT_KIND_SPEECH; }) < n) {
    if (std::chrono::steady_clock::now() > until) throw std::runtime_error("the speech frames did not come");
    pullOrNap();
  }
}

void UttPipeline::push(const std::vector<int16_t>& pcm, size_t step) {
  for (size_t at = 0; at < pcm.size(); at += step) {
    if (le_utt_push_audio(u, pcm.data() + at, int(std::min(step, pcm.size() - at))) != 1)
      throw std::runtime_error(le_utt_last_error());
    pull();
  }
}

Triples a2xTriples(const std::string& bundle, int start, const std::vector<int16_t>& pcm, int n) {
  std::vector<float> audio(pcm.size());
  for (size_t i = 0; i < pcm.size(); ++i) audio[i] = float(pcm[i]) / 32768.0f;
  le_a2x* h = le_a2x_create(bundle.c_str(), 1);
  if (!h) throw std::runtime_error(le_a2x_last_error());
  Triples t{std::vector<int>(size_t(n), -1), std::vector<float>(size_t(n) * 63), std::vector<float>(size_t(n) * 63)};
  le_a2x_reset(h, start, 1, 1);
  bool ok = le_a2x_push(h, audio.data(), int(audio.size())) == 1;
  le_a2x_finish(h);
  ok = ok && le_a2x_pull(h, t.si.data(), t.xs.data(), t.xd.data(), n) == n;
  const std::string err = le_a2x_last_error();
  le_a2x_destroy(h);
  if (!ok) throw std::runtime_error("a2xTriples: " + err);
  return t;
}

const std::vector<int16_t>& sayAhClip() {
  static const std::vector<int16_t> c = speak16kPcm(kSanitized ? "Say ah." : "Open wide and say ah.");
  return c;
}

double residentMiB() {
  std::ifstream f("/proc/self/statm");
  size_t pages = 0, resident = 0;
  f >> pages >> resident;
  return double(resident) * double(::sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

std::vector<SoakSample> soakUtterances(le_ctx* ctx, const le_utt_opts& opts,
                                       const std::vector<int16_t>& clip, double seconds,
                                       double every,
                                       const std::function<void(const SoakSample&)>& onSample,
                                       uint64_t minCycles) {
  UttPipeline p(ctx, size_t(le_width(ctx)) * size_t(le_height(ctx)) * 3, opts, UttPipeline::Keep::Counts);
  const std::vector<int16_t> half(clip.begin(), clip.begin() + long(clip.size() / 2));
  std::vector<SoakSample> samples;
  uint64_t cycles = 0;
  const auto t0 = std::chrono::steady_clock::now();
  auto elapsed = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(); };
  double nextSample = 0;
  auto sample = [&] {
    samples.push_back({elapsed(), residentMiB(), cycles, p.frames, p.speechFrames});
    if (onSample) onSample(samples.back());
  };
  while (elapsed() < seconds || cycles < minCycles) {
    if (elapsed() >= nextSample) {
      sample();
      nextSample += every;
    }
    const int mode = int(cycles % 3);  // 0 end mark, 1 interrupt, 2 end by silence
    p.push(mode == 1 ? half : clip, 640);
    if (mode == 0) le_utt_end_utterance(p.u);
    if (mode == 1) {
      for (int k = 0; k < 5; ++k) p.pullOrNap();
      le_utt_interrupt(p.u);
    }
    // Back to idle: the ramp is over and idle frames flow again.
    le_utt_stats st{};
    uint64_t idleSeen = 0;
    while (idleSeen < 10) {
      const uint64_t before = p.frames - p.speechFrames;
      p.pullOrNap();
      le_utt_get_stats(p.u, &st);
      if (st.state == 0) idleSeen += p.frames - p.speechFrames - before;
    }
    ++cycles;
  }
  sample();
  return samples;
}

}  // namespace le::testmedia
