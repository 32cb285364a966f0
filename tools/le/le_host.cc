#include "tools/le/le_host.h"

#include <stdexcept>

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
