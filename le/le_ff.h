// Unique owners of the FFmpeg objects the decoders hold, released with FFmpeg's own functions.
#pragma once

#include <memory>
#include <string>

extern "C" {
#include <libavutil/error.h>
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

namespace le::ff {

struct FormatCloser {
  void operator()(AVFormatContext* f) const { avformat_close_input(&f); }
};
struct CodecFreer {
  void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct PacketFreer {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct FrameFreer {
  void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct SwsFreer {
  void operator()(SwsContext* s) const { sws_freeContext(s); }
};
using FormatPtr = std::unique_ptr<AVFormatContext, FormatCloser>;
using CodecPtr = std::unique_ptr<AVCodecContext, CodecFreer>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFreer>;
using FramePtr = std::unique_ptr<AVFrame, FrameFreer>;
using SwsPtr = std::unique_ptr<SwsContext, SwsFreer>;

// FFmpeg's words for an error code.
inline std::string avText(int code) {
  char buf[AV_ERROR_MAX_STRING_SIZE] = {0};
  av_strerror(code, buf, sizeof buf);
  return buf;
}

}  // namespace le::ff
