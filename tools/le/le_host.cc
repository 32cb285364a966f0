#include "tools/le/le_host.h"

#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <thread>
#include <vector>

#include "le/le_bundle.h"

namespace le::cli {

std::string engineError() {
  const std::string e = le_last_error();
  return e.empty() ? "unknown engine failure" : e;
}

CtxPtr openContext(const std::string& bundle, const std::string& key, int threads, const std::string& ep) {
  CtxPtr ctx(le_create(bundle.c_str(), key.c_str(), threads, ep.c_str()));
  if (!ctx) throw std::runtime_error(engineError());
  return ctx;
}

namespace {

// The speech encoder a bundle carries for its audio-to-expression stream.
constexpr const char* kSpeechEncoder = "w2v/audio_encoder_fp16.onnx";

// The bundle's own keypoint source: its audio-to-expression stream when it carries one, else
// its motion directory.
std::string keypointSource(const std::string& dir) {
  std::vector<char> path(4096);
  if (le_bundle_resolve_member(dir.c_str(), "a2x_enc_stream.onnx", path.data(), path.size()) == 1) return dir;
  struct stat st {};
  const std::string motion = dir + "/motion";
  return stat(motion.c_str(), &st) == 0 && S_ISDIR(st.st_mode) ? motion : dir;
}

std::string uttError() {
  const std::string e = le_utt_last_error();
  return e.empty() ? "unknown pipeline failure" : e;
}

}  // namespace

UttPtr openSpeech(le_ctx* ctx, const std::string& bundle, const std::string& motionDir, bool chatty) {
  std::vector<char> dir(4096);
  if (le_bundle_resolve_handle(bundle.c_str(), dir.data(), dir.size()) != 1) throw std::runtime_error(engineError());
  const std::string source = motionDir.empty() ? keypointSource(dir.data()) : motionDir;
  const char* w2v = std::getenv("W2V_ONNX");
  if (!w2v || !*w2v) {
    std::vector<char> member(4096);
    if (le_bundle_resolve_member(dir.data(), kSpeechEncoder, member.data(), member.size()) == 1)
      setenv("W2V_ONNX", member.data(), 1);
  }
  le_utt_opts opts{};
  opts.motion_dir = source.c_str();
  UttPtr utt(le_utt_create(ctx, &opts));
  if (!utt) throw std::runtime_error(uttError());
  const auto start = std::chrono::steady_clock::now();
  bool told = false;
  for (;;) {
    const int r = le_utt_ready(utt.get());
    if (r == 1) break;
    if (r < 0) throw std::runtime_error(uttError());
    if (!told && chatty && std::chrono::steady_clock::now() - start > std::chrono::milliseconds(500)) {
      std::fprintf(stderr, "warming up the speech pipeline...\n");
      told = true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return utt;
}

namespace {

struct CarriageDeleter {
  void operator()(le_tessera_carriage* c) const { le_tessera_carriage_close(c); }
};
struct MembersDeleter {
  void operator()(le_tessera_members* m) const { le_tessera_members_close(m); }
};

void attachOrThrow(le_utt* utt, const std::string& bundle, bool chatty);

}  // namespace

bool attachBorrow(le_utt* utt, const std::string& bundle, bool chatty) {
  std::unique_ptr<le_tessera_carriage, CarriageDeleter> carriage(le_tessera_carriage_open(bundle.c_str()));
  if (!carriage || !le_tessera_carriage_complete(carriage.get())) {
    if (carriage && chatty && le_tessera_carriage_declared(carriage.get())) {
      std::string missing;
      for (int i = 0; i < le_tessera_carriage_missing_count(carriage.get()); ++i)
        missing += std::string(i ? ", " : "") + le_tessera_carriage_missing(carriage.get(), i);
      std::fprintf(stderr, "borrow: off, the bundle declares it but lacks %s\n", missing.c_str());
    }
    return false;
  }
  try {
    attachOrThrow(utt, bundle, chatty);
    return true;
  } catch (const std::exception& e) {
    // The speech goes on without it: the borrow is an addition the host did not ask for by name.
    std::fprintf(stderr, "borrow: OFF, the engine refused this bundle's borrow: %s\n", e.what());
    return false;
  }
}

namespace {

void attachOrThrow(le_utt* utt, const std::string& bundle, bool chatty) {
  char err[2048] = {0};
  std::unique_ptr<le_tessera_members, MembersDeleter> m(le_tessera_members_open(bundle.c_str(), err, sizeof err));
  if (!m) throw std::runtime_error(err);
  const int n = le_tessera_members_n_donors(m.get());
  const std::string track = le::readFile(le_tessera_members_bank_track_path(m.get()));
  std::vector<int32_t> inTrackOrder(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) inTrackOrder[static_cast<size_t>(i)] = i;
  const std::vector<uint8_t> decoded = le::tessera::decodeBankTrack(
      reinterpret_cast<const uint8_t*>(track.data()), track.size(), n, le_tessera_members_band_h(m.get()),
      le_tessera_members_band_w(m.get()), inTrackOrder);
  std::vector<uint8_t> donors(decoded.size());
  if (le_tessera_members_reorder(m.get(), decoded.data(), donors.data(), err, sizeof err) != 0)
    throw std::runtime_error(err);
  if (le_utt_tessera_attach(utt, donors.data(), n, le_tessera_members_cent(m.get()),
                            le_tessera_members_c_canon(m.get()), le_tessera_members_aperture(m.get()),
                            le_tessera_members_stamp(m.get()), le_tessera_members_head_pt(m.get()),
                            le_tessera_members_head_pt_len(m.get()), le_tessera_members_head_json(m.get()),
                            le_tessera_members_manifest_json(m.get()), err, sizeof err) != 0)
    throw std::runtime_error(err);
  if (chatty) {
    char geometry[16] = {0};
    le_utt_tessera_geometry(utt, geometry, sizeof geometry);
    const int32_t* st = le_tessera_members_stamp(m.get());
    std::fprintf(stderr, "borrow: corpus geometry %s, %d donors, window %dx%d at (%d, %d) of the %dx%d crop\n",
                 geometry, n, st[4], st[5], st[2], st[3], st[0], st[1]);
  }
}

}  // namespace

void printBorrowStats(le_utt* utt) {
  uint64_t written = 0, skipped = 0;
  char reason[512] = {0};
  const int r = le_utt_tessera_stats(utt, &written, &skipped, reason, sizeof reason);
  if (r == 0) return;
  std::fprintf(stderr, "borrow: %llu frames with borrowed teeth, %llu skipped%s%s\n",
               static_cast<unsigned long long>(written), static_cast<unsigned long long>(skipped),
               r < 0 ? "; FAILED, delivery stopped: " : *reason ? "; last skip: " : "", reason);
}

std::string borrowFailure(le_utt* utt) {
  char reason[512] = {0};
  return le_utt_tessera_stats(utt, nullptr, nullptr, reason, sizeof reason) < 0 ? reason : "";
}

forge::MovieSpec h264Spec(int width, int height, int crf) {
  if (width % 2 || height % 2)
    throw std::runtime_error("the frames are " + std::to_string(width) + "x" + std::to_string(height) +
                             "; an H.264 4:2:0 movie needs an even width and height");
  forge::MovieSpec spec;
  spec.encoder = "libx264";
  spec.chroma = forge::Chroma::Yuv420;
  spec.width = width;
  spec.height = height;
  spec.crf = crf;
  spec.threads = 2;
  spec.preset = "veryfast";
  return spec;
}

}  // namespace le::cli
