#include "tools/le/serve/jpeg.h"

#include <stdexcept>

extern "C" {
#include <libavutil/imgutils.h>
}

namespace le::serve {
using ff::avText;

JpegEncoder::JpegEncoder(int width, int height, int quality) : width_(width), height_(height), quality_(quality) {
  const AVCodec* mjpeg = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
  if (!mjpeg) throw std::runtime_error("this FFmpeg has no mjpeg encoder");
  codec_.reset(avcodec_alloc_context3(mjpeg));
  frame_.reset(av_frame_alloc());
  packet_.reset(av_packet_alloc());
  if (!codec_ || !frame_ || !packet_) throw std::runtime_error("out of memory opening the JPEG encoder");
  codec_->width = width;
  codec_->height = height;
  codec_->time_base = AVRational{1, 25};
  // Full-range 4:2:0, the JPEG file format's own; swscale writes plain yuv420p planes at full
  // range, which is the same memory layout.
  codec_->pix_fmt = AV_PIX_FMT_YUVJ420P;
  codec_->color_range = AVCOL_RANGE_JPEG;
  codec_->flags |= AV_CODEC_FLAG_QSCALE;
  codec_->global_quality = FF_QP2LAMBDA * quality;
  codec_->thread_count = 1;
  int rc = avcodec_open2(codec_.get(), mjpeg, nullptr);
  if (rc < 0) throw std::runtime_error("cannot open the mjpeg encoder (" + avText(rc) + ")");
  frame_->format = AV_PIX_FMT_YUVJ420P;
  frame_->width = width;
  frame_->height = height;
  frame_->color_range = AVCOL_RANGE_JPEG;
  rc = av_frame_get_buffer(frame_.get(), 0);
  if (rc < 0) throw std::runtime_error("cannot allocate a JPEG frame (" + avText(rc) + ")");
  sws_.reset(sws_getContext(width, height, AV_PIX_FMT_RGB24, width, height, AV_PIX_FMT_YUV420P, SWS_BICUBIC,
                            nullptr, nullptr, nullptr));
  if (!sws_) throw std::runtime_error("cannot convert " + std::to_string(width) + "x" + std::to_string(height) + " RGB to YUV");
  const int* bt601 = sws_getCoefficients(SWS_CS_ITU601);
  sws_setColorspaceDetails(sws_.get(), bt601, 1, bt601, 1, 0, 1 << 16, 1 << 16);
}

void JpegEncoder::encode(const uint8_t* rgb, std::string& out) {
  int rc = av_frame_make_writable(frame_.get());
  if (rc < 0) throw std::runtime_error("JPEG frame not writable (" + avText(rc) + ")");
  const uint8_t* src[1] = {rgb};
  const int stride[1] = {width_ * 3};
  sws_scale(sws_.get(), src, stride, 0, height_, frame_->data, frame_->linesize);
  frame_->quality = codec_->global_quality;
  rc = avcodec_send_frame(codec_.get(), frame_.get());
  if (rc < 0) throw std::runtime_error("JPEG encoding failed (" + avText(rc) + ")");
  rc = avcodec_receive_packet(codec_.get(), packet_.get());
  if (rc < 0) throw std::runtime_error("JPEG encoding gave no picture (" + avText(rc) + ")");
  out.append(reinterpret_cast<const char*>(packet_->data), static_cast<size_t>(packet_->size));
  av_packet_unref(packet_.get());
}

}  // namespace le::serve
