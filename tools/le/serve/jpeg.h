// Frames to JPEG through libavcodec's mjpeg encoder: every browser decodes it without a
// script, each frame stands alone (a lost or skipped frame costs nothing), and it encodes in
// a few milliseconds on one core.
#pragma once

#include <cstdint>
#include <string>

#include "le/le_ff.h"

namespace le::serve {

class JpegEncoder {
 public:
  // width x height packed RGB frames; quality is the encoder's quantiser, 2 (best) .. 31.
  // Throws std::runtime_error when the encoder cannot be opened.
  JpegEncoder(int width, int height, int quality);

  // Appends the JPEG of one frame (width*height*3 bytes) to out. Throws on encoder failure.
  void encode(const uint8_t* rgb, std::string& out);

 private:
  int width_, height_, quality_;
  ff::CodecPtr codec_;
  ff::SwsPtr sws_;
  ff::FramePtr frame_;
  ff::PacketPtr packet_;
};

}  // namespace le::serve
