#include "le/le_driver_ff.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/error.h>
#include <libavutil/pixdesc.h>
}

#include "le/le_ff.h"
#include "le/le_moviedec_ff.h"
#include "le/le_simd.h"
#include "le/le_util.h"

namespace le::driver {

namespace {

using ff::CodecPtr;
using ff::FormatPtr;
using ff::FramePtr;
using ff::PacketPtr;

using ff::avText;

constexpr const char* kHwDecoder = "h264_cuvid";
constexpr int kSoftwareThreads = 4;

class FfSource final : public Source {
 public:
  FfSource(MovieMode mode, std::string path, int NT, int W, int H)
      : mode_(mode), path_(std::move(path)), NT_(NT), W_(W), H_(H) {
    if (mode_ == MovieMode::PlanarHalf)
      for (int v = 0; v < 256; ++v) half_[v] = le::f32ToF16(static_cast<float>(v / 255.0));
    openMember();
  }

  int NT() const override { return NT_; }
  int W() const override { return W_; }
  int H() const override { return H_; }
  size_t frameBytes() const override {
    const size_t px = static_cast<size_t>(W_) * static_cast<size_t>(H_);
    return mode_ == MovieMode::PlanarHalf ? px * 6 : px * 3;
  }
  std::string name() const override { return name_; }

  size_t residentBytes() const override {
    const size_t px = static_cast<size_t>(W_) * static_cast<size_t>(H_);
    const size_t s = mode_ == MovieMode::PlanarHalf ? px * 3 : px * 3 / 2;
    const int threads = threads_.load(std::memory_order_relaxed);
    const size_t frames = threads == 0 ? 6 : static_cast<size_t>(std::max(1, threads)) + 5;
    return s * frames + maxPacket_.load(std::memory_order_relaxed);
  }

  bool next(uint8_t* out) override {
    if (!receive()) return false;
    try {
      convert(out);
    } catch (...) {
      av_frame_unref(frame_.get());
      throw;
    }
    av_frame_unref(frame_.get());
    ++position_;
    return true;
  }

  void rewind() override {
    if (av_seek_frame(fmt_.get(), stream_, 0, AVSEEK_FLAG_BACKWARD) < 0) {
      openMember();  // replaces the demuxer and decoder only once the new ones are open
    } else {
      avcodec_flush_buffers(dec_.get());
    }
    position_ = 0;
    eof_ = false;
  }

  void seek(int i) override {
    if (i < 0 || i >= NT_) throw std::runtime_error("le_driver: seek outside the member");
    if (position_ > i) rewind();
    while (position_ < i) {
      if (!receive())
        throw std::runtime_error("le_driver: " + path_ + " ended at frame " + std::to_string(position_) +
                                 " while seeking to " + std::to_string(i));
      av_frame_unref(frame_.get());
      ++position_;
    }
  }

 private:
  void openMember() {
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path_.c_str(), nullptr, nullptr) < 0)
      throw std::runtime_error("le_driver: " + path_ + " is not a readable container");
    FormatPtr fmt(raw);
    if (avformat_find_stream_info(fmt.get(), nullptr) < 0)
      throw std::runtime_error("le_driver: " + path_ + " carries no stream info");
    int vs = -1;
    for (unsigned s = 0; s < fmt->nb_streams; ++s)
      if (fmt->streams[s]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
        vs = static_cast<int>(s);
        break;
      }
    if (vs < 0) throw std::runtime_error("le_driver: " + path_ + " has no video stream");
    const AVStream* st = fmt->streams[vs];
    const AVCodecParameters* par = st->codecpar;
    if (par->width != W_ || par->height != H_)
      throw std::runtime_error("le_driver: " + path_ + " is " + std::to_string(par->width) + "x" +
                               std::to_string(par->height) + ", the manifest says " + std::to_string(W_) +
                               "x" + std::to_string(H_) + " — refusing to rescale the driver");
    if (st->nb_frames > 0 && st->nb_frames != NT_)
      throw std::runtime_error("le_driver: " + path_ + " carries " + std::to_string(st->nb_frames) +
                               " frames, the manifest says NT=" + std::to_string(NT_) +
                               " — member/manifest mismatch, refusing");

    CodecPtr dec;
    const char* hw = std::getenv("LE_DRIVER_HWDEC");
    if (hw && std::strcmp(hw, "0") == 0) {
      std::fprintf(stderr,
                   "[le-driver] LE_DRIVER_HWDEC=0 — %s not attempted; the software decoder is the one "
                   "decoder on this fleet (same samples)\n",
                   kHwDecoder);
    } else if (mode_ == MovieMode::Rgb24 && par->codec_id == AV_CODEC_ID_H264) {
      dec = tryHardware(par);
    }
    if (!dec) dec = openSoftware(par);

    PacketPtr pkt(av_packet_alloc());
    FramePtr frame(av_frame_alloc());
    if (!pkt || !frame) throw std::runtime_error("le_driver: out of memory");

    name_ = std::string(mode_ == MovieMode::PlanarHalf ? "hevc444/libavcodec " : "mp4/libavcodec ") +
            libavcodecBuildVersion() + " " + (dec->codec ? dec->codec->name : "?");
    threads_.store(dec->thread_count, std::memory_order_relaxed);
    fmt_ = std::move(fmt);
    dec_ = std::move(dec);
    pkt_ = std::move(pkt);
    frame_ = std::move(frame);
    stream_ = vs;
    eof_ = false;
    position_ = 0;
  }

  // The hardware H.264 decoder when it opens; null (after saying so) when it exists but refuses.
  CodecPtr tryHardware(const AVCodecParameters* par) {
    const AVCodec* codec = avcodec_find_decoder_by_name(kHwDecoder);
    if (!codec) return nullptr;
    CodecPtr ctx(avcodec_alloc_context3(codec));
    if (ctx && avcodec_parameters_to_context(ctx.get(), par) >= 0) {
      ctx->thread_count = 1;
      if (avcodec_open2(ctx.get(), codec, nullptr) >= 0) return ctx;
    }
    std::fprintf(stderr,
                 "[le-driver] %s refused %s — falling back to the software h264 decoder (same samples, "
                 "more CPU)\n",
                 kHwDecoder, path_.c_str());
    return nullptr;
  }

  CodecPtr openSoftware(const AVCodecParameters* par) {
    const AVCodec* codec = avcodec_find_decoder(par->codec_id);
    if (!codec)
      throw std::runtime_error("le_driver: no decoder for " + path_ + " (codec id " +
                               std::to_string(static_cast<int>(par->codec_id)) + ")");
    CodecPtr ctx(avcodec_alloc_context3(codec));
    if (!ctx) throw std::runtime_error("le_driver: avcodec_alloc_context3 failed");
    if (avcodec_parameters_to_context(ctx.get(), par) < 0)
      throw std::runtime_error("le_driver: avcodec_parameters_to_context failed");
    ctx->thread_count = kSoftwareThreads;
    ctx->thread_type = FF_THREAD_FRAME;
    if (avcodec_open2(ctx.get(), codec, nullptr) < 0)
      throw std::runtime_error("le_driver: could not open the decoder for " + path_);
    return ctx;
  }

  // Leaves the next decoded frame in frame_; false at the end of the member.
  bool receive() {
    for (;;) {
      int r = avcodec_receive_frame(dec_.get(), frame_.get());
      if (r == 0) {
        if (frame_->width != W_ || frame_->height != H_) {
          av_frame_unref(frame_.get());
          throw std::runtime_error("le_driver: " + path_ + " changed size mid-stream — refusing");
        }
        return true;
      }
      if (r == AVERROR_EOF) return false;
      if (r != AVERROR(EAGAIN))
        throw std::runtime_error("le_driver: " + path_ + " decode fault at frame " + std::to_string(position_) +
                                 " (" + avText(r) + ")");
      if (eof_) return false;
      r = av_read_frame(fmt_.get(), pkt_.get());
      if (r == AVERROR_EOF) {
        eof_ = true;
        avcodec_send_packet(dec_.get(), nullptr);
        continue;
      }
      if (r < 0) throw std::runtime_error("le_driver: " + path_ + " read fault (" + avText(r) + ")");
      if (pkt_->stream_index == stream_) {
        const size_t sz = static_cast<size_t>(pkt_->size);
        if (sz > maxPacket_.load(std::memory_order_relaxed)) maxPacket_.store(sz, std::memory_order_relaxed);
        r = avcodec_send_packet(dec_.get(), pkt_.get());
        av_packet_unref(pkt_.get());
        if (r < 0 && r != AVERROR(EAGAIN))
          throw std::runtime_error("le_driver: " + path_ + " packet refused (" + avText(r) + ")");
      } else {
        av_packet_unref(pkt_.get());
      }
    }
  }

  void convert(uint8_t* out) const {
    const AVFrame* f = frame_.get();
    const auto fmt = static_cast<AVPixelFormat>(f->format);
    const char* fname = av_get_pix_fmt_name(fmt);
    const size_t row = static_cast<size_t>(W_) * 3;
    if (mode_ == MovieMode::Rgb24) {
      if (fmt == AV_PIX_FMT_YUV420P) {
        for (int y = 0; y < H_; ++y)
          simd::yuv420RowToRgb24(f->data[0] + static_cast<ptrdiff_t>(y) * f->linesize[0],
                                 f->data[1] + static_cast<ptrdiff_t>(y / 2) * f->linesize[1],
                                 f->data[2] + static_cast<ptrdiff_t>(y / 2) * f->linesize[2], W_, 1,
                                 out + static_cast<size_t>(y) * row);
      } else if (fmt == AV_PIX_FMT_NV12) {
        for (int y = 0; y < H_; ++y) {
          const uint8_t* uv = f->data[1] + static_cast<ptrdiff_t>(y / 2) * f->linesize[1];
          simd::yuv420RowToRgb24(f->data[0] + static_cast<ptrdiff_t>(y) * f->linesize[0], uv, uv + 1, W_, 2,
                                 out + static_cast<size_t>(y) * row);
        }
      } else {
        throw std::runtime_error("le_driver: " + path_ + " decoded to " + (fname ? fname : "?") +
                                 ", not the 4:2:0 layout the canvas conversion is written for (yuv420p / nv12)"
                                 " — refusing rather than pasting onto a different pixel domain");
      }
      return;
    }
    if (fmt != AV_PIX_FMT_YUV444P)
      throw std::runtime_error("le_driver: " + path_ + " decoded to " + (fname ? fname : "?") +
                               ", not the yuv444p a warp prior is authored in — a subsampled prior is a "
                               "different mouth, refusing");
    const size_t plane = static_cast<size_t>(W_) * static_cast<size_t>(H_);
    auto* r = reinterpret_cast<uint16_t*>(out);
    uint16_t* g = r + plane;
    uint16_t* b = g + plane;
    for (int y = 0; y < H_; ++y) {
      const size_t o = static_cast<size_t>(y) * static_cast<size_t>(W_);
      yuv444RowToHalfPlanes(f->data[0] + static_cast<ptrdiff_t>(y) * f->linesize[0],
                            f->data[1] + static_cast<ptrdiff_t>(y) * f->linesize[1],
                            f->data[2] + static_cast<ptrdiff_t>(y) * f->linesize[2], W_, half_, r + o, g + o,
                            b + o);
    }
  }

  const MovieMode mode_;
  const std::string path_;
  const int NT_, W_, H_;
  uint16_t half_[256] = {};
  FormatPtr fmt_;
  CodecPtr dec_;
  PacketPtr pkt_;
  FramePtr frame_;
  int stream_ = -1;
  bool eof_ = false;
  int position_ = 0;
  // Read by residentBytes() from other threads while the decoding thread updates them.
  std::atomic<size_t> maxPacket_{0};
  std::atomic<int> threads_{0};
  std::string name_;
};

}  // namespace

void yuv444RowToHalfPlanes(const uint8_t* y, const uint8_t* u, const uint8_t* v, int width,
                           const uint16_t* half_of, uint16_t* r, uint16_t* g, uint16_t* b) {
  for (int x = 0; x < width; ++x) {
    const int32_t yy = (static_cast<int32_t>(y[x]) - 16) * 76312;
    const int32_t uu = static_cast<int32_t>(u[x]) - 128;
    const int32_t vv = static_cast<int32_t>(v[x]) - 128;
    r[x] = half_of[clampByte((yy + 104600 * vv + 32768) >> 16)];
    g[x] = half_of[clampByte((yy - 25672 * uu - 53280 * vv + 32768) >> 16)];
    b[x] = half_of[clampByte((yy + 132200 * uu + 32768) >> 16)];
  }
}

std::unique_ptr<Source> openMovie(MovieMode mode, const std::string& path, int NT, int W, int H) {
  return std::make_unique<FfSource>(mode, path, NT, W, H);
}

std::unique_ptr<Source> openMp4(const std::string& path, int NT, int W, int H) {
  return openMovie(MovieMode::Rgb24, path, NT, W, H);
}

std::unique_ptr<Source> openPriorHevc(const std::string& path, int NT, int side) {
  return openMovie(MovieMode::PlanarHalf, path, NT, side, side);
}

}  // namespace le::driver
