// What the le tool's hosts share: owned engine handles, the speech pipeline's set-up, the
// tool's H.264 output settings.
#pragma once

#include <memory>
#include <string>

#include "le/le.h"
#include "tools/forge/forge_movie.h"

namespace le::cli {

struct CtxDeleter {
  void operator()(le_ctx* c) const { le_destroy(c); }
};
using CtxPtr = std::unique_ptr<le_ctx, CtxDeleter>;

// The context family's last error, never empty.
std::string engineError();

// A context on bundle with director model_KEY.onnx; throws the engine's message.
CtxPtr openContext(const std::string& bundle, const std::string& key, int threads, const std::string& ep = "");

// The tool's H.264 settings (4:2:0, 25 fps) for WxH frames; throws when a side is odd.
forge::MovieSpec h264Spec(int width, int height, int crf);

}  // namespace le::cli
