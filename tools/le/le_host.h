// What the le tool's hosts share: owned engine handles, the speech pipeline's set-up, the
// tool's H.264 output settings.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "le/le.h"
#include "le/le_a2x.h"
#include "tools/forge/forge_movie.h"

namespace le::cli {

using Clock = std::chrono::steady_clock;
// The hosts play at 25 frames a second.
constexpr auto kFrameTime = std::chrono::milliseconds(40);

struct CtxDeleter {
  void operator()(le_ctx* c) const { le_destroy(c); }
};
struct UttDeleter {
  void operator()(le_utt* u) const { le_utt_destroy(u); }
};
using CtxPtr = std::unique_ptr<le_ctx, CtxDeleter>;
using UttPtr = std::unique_ptr<le_utt, UttDeleter>;

// The context family's last error, never empty.
std::string engineError();

// A context on bundle with director model_KEY.onnx; throws the engine's message.
CtxPtr openContext(const std::string& bundle, const std::string& key, int threads, const std::string& ep = "");

// The speech pipeline of a host: W2V_ONNX defaults to the bundle's own speech encoder, the
// keypoint source to the bundle's own (its stream, else its motion/ directory). Waits until the keypoint source is
// ready (the pipeline discards audio pushed before), printing a line while it warms up when
// chatty. Throws the pipeline's message.
UttPtr openSpeech(le_ctx* ctx, const std::string& bundle, const std::string& motionDir, bool chatty);

// The bundle's mouth-interior borrow attached to utt the way a host does it: the four members
// loaded, the bank track decoded into donor order, the attachment made. Does nothing for a bundle
// that does not carry all four members (a line says what is missing when it declares them); a
// refused borrow is reported in a line and left off. Prints the corpus geometry and the donors
// when chatty. Returns whether a borrow was attached.
bool attachBorrow(le_utt* utt, const std::string& bundle, bool chatty);
// One line of the attached borrow's statistics on standard error; nothing without a borrow.
void printBorrowStats(le_utt* utt);
// "" while the borrow serves (or none is attached), else why it stopped delivery.
std::string borrowFailure(le_utt* utt);

// The tool's H.264 settings (4:2:0, 25 fps) for WxH frames; throws when a side is odd.
forge::MovieSpec h264Spec(int width, int height, int crf);

}  // namespace le::cli
