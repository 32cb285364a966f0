#include "tools/le/audio_in.h"

#include "le/le_ff.h"

#include <memory>
#include <stdexcept>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

namespace le::cli {
namespace {

using ff::avText;

struct SwrFreer {
  void operator()(SwrContext* s) const { swr_free(&s); }
};

class Decoder {
 public:
  explicit Decoder(std::string path) : path_(std::move(path)) {}

  std::vector<int16_t> run() {
    AVFormatContext* raw = nullptr;
    int rc = avformat_open_input(&raw, path_.c_str(), nullptr, nullptr);
    if (rc < 0) fail("cannot open as audio (" + avText(rc) + ")");
    fmt_.reset(raw);
    rc = avformat_find_stream_info(fmt_.get(), nullptr);
    if (rc < 0) fail("not a media file FFmpeg understands (" + avText(rc) + ")");
    const AVCodec* codec = nullptr;
    stream_ = av_find_best_stream(fmt_.get(), AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
    if (stream_ < 0 || !codec) fail("holds no audio stream");
    dec_.reset(avcodec_alloc_context3(codec));
    pkt_.reset(av_packet_alloc());
    frame_.reset(av_frame_alloc());
    if (!dec_ || !pkt_ || !frame_) fail("out of memory");
    if (avcodec_parameters_to_context(dec_.get(), fmt_->streams[stream_]->codecpar) < 0) fail("bad stream parameters");
    rc = avcodec_open2(dec_.get(), codec, nullptr);
    if (rc < 0) fail("cannot open the " + std::string(codec->name) + " decoder (" + avText(rc) + ")");

    while ((rc = av_read_frame(fmt_.get(), pkt_.get())) >= 0) {
      if (pkt_->stream_index == stream_) decode(pkt_.get());
      av_packet_unref(pkt_.get());
    }
    if (rc != AVERROR_EOF) fail("read failed (" + avText(rc) + ")");
    decode(nullptr);
    if (swr_) convert(nullptr, 0);  // the resampler's delay line
    if (out_.empty()) fail("decodes to no audio samples");
    return std::move(out_);
  }

 private:
  [[noreturn]] void fail(const std::string& why) const { throw std::runtime_error(path_ + ": " + why); }

  void decode(const AVPacket* p) {
    int rc = avcodec_send_packet(dec_.get(), p);
    // A damaged packet is skipped as players do; a stream that never decodes fails below.
    if (rc < 0 && rc != AVERROR_INVALIDDATA && rc != AVERROR_EOF) fail("decode failed (" + avText(rc) + ")");
    for (;;) {
      rc = avcodec_receive_frame(dec_.get(), frame_.get());
      if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return;
      if (rc == AVERROR_INVALIDDATA) continue;
      if (rc < 0) fail("decode failed (" + avText(rc) + ")");
      if (!swr_) openResampler(*frame_);
      if (frame_->sample_rate != inRate_ || frame_->format != inFormat_)
        fail("changes its sample rate or format mid-stream");
      convert(const_cast<const uint8_t**>(frame_->extended_data), frame_->nb_samples);
      av_frame_unref(frame_.get());
    }
  }

  // Built from the first frame: some decoders only know their layout once they have decoded.
  void openResampler(const AVFrame& f) {
    AVChannelLayout in{};
    if (f.ch_layout.order != AV_CHANNEL_ORDER_UNSPEC && f.ch_layout.nb_channels > 0)
      av_channel_layout_copy(&in, &f.ch_layout);
    else
      av_channel_layout_default(&in, f.ch_layout.nb_channels > 0 ? f.ch_layout.nb_channels : 1);
    AVChannelLayout mono{};
    av_channel_layout_default(&mono, 1);
    SwrContext* s = nullptr;
    int rc = swr_alloc_set_opts2(&s, &mono, AV_SAMPLE_FMT_S16, kSampleRate, &in,
                                 static_cast<AVSampleFormat>(f.format), f.sample_rate, 0, nullptr);
    av_channel_layout_uninit(&in);
    swr_.reset(s);
    if (rc < 0 || !s) fail("cannot resample this audio (" + avText(rc) + ")");
    rc = swr_init(s);
    if (rc < 0) fail("cannot resample this audio (" + avText(rc) + ")");
    inRate_ = f.sample_rate;
    inFormat_ = f.format;
  }

  void convert(const uint8_t** in, int n) {
    const int room = swr_get_out_samples(swr_.get(), n);
    if (room <= 0) return;
    const size_t at = out_.size();
    out_.resize(at + static_cast<size_t>(room));
    uint8_t* dst = reinterpret_cast<uint8_t*>(out_.data() + at);
    const int got = swr_convert(swr_.get(), &dst, room, in, n);
    if (got < 0) fail("resampling failed (" + avText(got) + ")");
    out_.resize(at + static_cast<size_t>(got));
  }

  std::string path_;
  ff::FormatPtr fmt_;
  ff::CodecPtr dec_;
  ff::PacketPtr pkt_;
  ff::FramePtr frame_;
  std::unique_ptr<SwrContext, SwrFreer> swr_;
  int stream_ = -1;
  int inRate_ = 0, inFormat_ = -1;
  std::vector<int16_t> out_;
};

}  // namespace

std::vector<int16_t> readAudio16k(const std::string& path) { return Decoder(path).run(); }

}  // namespace le::cli
