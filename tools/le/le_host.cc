#include "tools/le/le_host.h"

#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <thread>
#include <vector>

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
