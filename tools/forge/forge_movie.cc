#include "tools/forge/forge_movie.h"

#include "le/le_ff.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

#include "le/le_util.h"

namespace le::forge {
namespace {

using le::ff::avText;

// BT.601 limited range, 8-bit integer form.
inline uint8_t lumaOf(int r, int g, int b) { return clampByte(((66 * r + 129 * g + 25 * b + 128) >> 8) + 16); }
inline uint8_t cbOf(int r, int g, int b) { return clampByte(((-38 * r - 74 * g + 112 * b + 128) >> 8) + 128); }
inline uint8_t crOf(int r, int g, int b) { return clampByte(((112 * r - 94 * g - 18 * b + 128) >> 8) + 128); }

}  // namespace

struct MovieWriter::Impl {
  MovieSpec spec;
  std::string path;
  AVFormatContext* fmt = nullptr;
  AVCodecContext* enc = nullptr;
  AVStream* stream = nullptr;
  AVFrame* frame = nullptr;
  AVPacket* pkt = nullptr;
  int64_t pts = 0;
  // audio track (spec.audioRate > 0)
  AVCodecContext* aenc = nullptr;
  AVStream* astream = nullptr;
  AVFrame* aframe = nullptr;
  std::vector<float> apending;
  int64_t apts = 0;
  bool headerWritten = false;
  bool finished = false;

  ~Impl() {
    av_frame_free(&frame);
    av_frame_free(&aframe);
    av_packet_free(&pkt);
    avcodec_free_context(&enc);
    avcodec_free_context(&aenc);
    if (fmt) {
      if (!(fmt->oformat->flags & AVFMT_NOFILE)) avio_closep(&fmt->pb);
      avformat_free_context(fmt);
    }
  }

  [[noreturn]] void fail(const std::string& what) { throw std::runtime_error(path + ": " + what); }

  void drain(AVCodecContext* e, AVStream* st, const AVFrame* f) {
    int rc = avcodec_send_frame(e, f);
    if (rc < 0) fail("encoder refused a frame (" + avText(rc) + ")");
    for (;;) {
      rc = avcodec_receive_packet(e, pkt);
      if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return;
      if (rc < 0) fail("encode failed (" + avText(rc) + ")");
      // Every frame lasts one tick; without it the muxer's edit list drops the last frame.
      if (e == enc && pkt->duration <= 0) pkt->duration = 1;
      av_packet_rescale_ts(pkt, e->time_base, st->time_base);
      pkt->stream_index = st->index;
      rc = av_interleaved_write_frame(fmt, pkt);
      if (rc < 0) fail("write failed (" + avText(rc) + ")");
    }
  }

  void openAudio() {
    const AVCodec* codec = avcodec_find_encoder_by_name("aac");
    if (!codec) fail("encoder aac is not available in this FFmpeg");
    astream = avformat_new_stream(fmt, nullptr);
    aenc = avcodec_alloc_context3(codec);
    aframe = av_frame_alloc();
    if (!astream || !aenc || !aframe) fail("out of memory");
    aenc->sample_fmt = AV_SAMPLE_FMT_FLTP;
    aenc->sample_rate = spec.audioRate;
    av_channel_layout_default(&aenc->ch_layout, 1);
    aenc->bit_rate = 64000;
    aenc->time_base = AVRational{1, spec.audioRate};
    aenc->flags |= AV_CODEC_FLAG_BITEXACT;
    if (fmt->oformat->flags & AVFMT_GLOBALHEADER) aenc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    const int rc = avcodec_open2(aenc, codec, nullptr);
    if (rc < 0) fail("cannot open encoder aac (" + avText(rc) + ")");
    if (avcodec_parameters_from_context(astream->codecpar, aenc) < 0) fail("cannot copy encoder parameters");
    astream->time_base = aenc->time_base;
  }

  // Encodes the pending samples in whole encoder frames; at the end also the short remainder.
  void encodeAudio(bool last) {
    const size_t fs = static_cast<size_t>(aenc->frame_size);
    size_t at = 0;
    while (apending.size() - at >= fs || (last && apending.size() > at)) {
      const size_t n = std::min(fs, apending.size() - at);
      av_frame_unref(aframe);
      aframe->format = AV_SAMPLE_FMT_FLTP;
      aframe->sample_rate = spec.audioRate;
      aframe->nb_samples = static_cast<int>(n);
      if (av_channel_layout_copy(&aframe->ch_layout, &aenc->ch_layout) < 0 || av_frame_get_buffer(aframe, 0) < 0)
        fail("out of memory");
      std::copy(apending.begin() + static_cast<std::ptrdiff_t>(at),
                apending.begin() + static_cast<std::ptrdiff_t>(at + n), reinterpret_cast<float*>(aframe->data[0]));
      aframe->pts = apts;
      apts += static_cast<int64_t>(n);
      at += n;
      drain(aenc, astream, aframe);
    }
    apending.erase(apending.begin(), apending.begin() + static_cast<std::ptrdiff_t>(at));
  }

  void convert(const uint8_t* rgb) {
    const int W = spec.width, H = spec.height;
    if (spec.chroma == Chroma::Rgb) {
      for (int y = 0; y < H; ++y)
        std::memcpy(frame->data[0] + static_cast<size_t>(y) * frame->linesize[0], rgb + static_cast<size_t>(y) * W * 3,
                    static_cast<size_t>(W) * 3);
      return;
    }
    for (int y = 0; y < H; ++y) {
      const uint8_t* s = rgb + static_cast<size_t>(y) * W * 3;
      uint8_t* dy = frame->data[0] + static_cast<size_t>(y) * frame->linesize[0];
      for (int x = 0; x < W; ++x) dy[x] = lumaOf(s[3 * x], s[3 * x + 1], s[3 * x + 2]);
    }
    // Chroma from the mean colour of the block each sample covers.
    const int sx = spec.chroma == Chroma::Yuv444 ? 1 : 2;
    const int sy = spec.chroma == Chroma::Yuv420 ? 2 : 1;
    const int cw = (W + sx - 1) / sx, ch = (H + sy - 1) / sy;
    for (int cy = 0; cy < ch; ++cy) {
      uint8_t* du = frame->data[1] + static_cast<size_t>(cy) * frame->linesize[1];
      uint8_t* dv = frame->data[2] + static_cast<size_t>(cy) * frame->linesize[2];
      for (int cx = 0; cx < cw; ++cx) {
        int r = 0, g = 0, b = 0, n = 0;
        for (int j = 0; j < sy; ++j) {
          const int y = cy * sy + j < H ? cy * sy + j : H - 1;
          for (int i = 0; i < sx; ++i) {
            const int x = cx * sx + i < W ? cx * sx + i : W - 1;
            const uint8_t* p = rgb + (static_cast<size_t>(y) * W + x) * 3;
            r += p[0], g += p[1], b += p[2], ++n;
          }
        }
        r = (r + n / 2) / n, g = (g + n / 2) / n, b = (b + n / 2) / n;
        du[cx] = cbOf(r, g, b);
        dv[cx] = crOf(r, g, b);
      }
    }
  }
};

MovieWriter::MovieWriter(const std::string& path, const MovieSpec& spec) : impl_(std::make_unique<Impl>()) {
  Impl& m = *impl_;
  m.spec = spec;
  m.path = path;
  if (spec.width < 1 || spec.height < 1) m.fail("bad movie size");
  const bool planes = !spec.pixFmt.empty();
  if (!planes && spec.chroma != Chroma::Yuv444 && spec.chroma != Chroma::Rgb &&
      (spec.width % 2 || (spec.chroma == Chroma::Yuv420 && spec.height % 2)))
    m.fail("a subsampled movie needs an even size, got " + std::to_string(spec.width) + "x" +
           std::to_string(spec.height));
  if (avformat_alloc_output_context2(&m.fmt, nullptr, nullptr, path.c_str()) < 0 || !m.fmt)
    m.fail("no container format for this file name");
  const AVCodec* codec = avcodec_find_encoder_by_name(spec.encoder.c_str());
  if (!codec) m.fail("encoder " + spec.encoder + " is not available in this FFmpeg");
  m.stream = avformat_new_stream(m.fmt, nullptr);
  m.enc = avcodec_alloc_context3(codec);
  m.frame = av_frame_alloc();
  m.pkt = av_packet_alloc();
  if (!m.stream || !m.enc || !m.frame || !m.pkt) m.fail("out of memory");

  const AVPixelFormat pix = planes                          ? av_get_pix_fmt(spec.pixFmt.c_str())
                            : spec.chroma == Chroma::Yuv420 ? AV_PIX_FMT_YUV420P
                            : spec.chroma == Chroma::Yuv422 ? AV_PIX_FMT_YUV422P
                            : spec.chroma == Chroma::Rgb    ? AV_PIX_FMT_RGB24
                                                            : AV_PIX_FMT_YUV444P;
  if (pix == AV_PIX_FMT_NONE) m.fail("unknown pixel format " + spec.pixFmt);
  AVCodecContext* e = m.enc;
  e->width = spec.width;
  e->height = spec.height;
  e->pix_fmt = pix;
  e->time_base = AVRational{1, spec.fps};
  e->framerate = AVRational{spec.fps, 1};
  e->gop_size = spec.gop > 0 ? spec.gop : spec.fps;
  e->thread_count = spec.threads;
  // RGB: the decoder hands back planar RGB, untouched
  const bool rgb = (av_pix_fmt_desc_get(pix)->flags & AV_PIX_FMT_FLAG_RGB) != 0;
  e->color_range = rgb ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
  e->colorspace = rgb ? AVCOL_SPC_RGB : AVCOL_SPC_SMPTE170M;
  e->color_primaries = AVCOL_PRI_SMPTE170M;
  e->color_trc = AVCOL_TRC_SMPTE170M;
  e->flags |= AV_CODEC_FLAG_BITEXACT;
  if (m.fmt->oformat->flags & AVFMT_GLOBALHEADER) e->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;

  AVDictionary* opts = nullptr;
  av_dict_set(&opts, "preset", spec.preset.c_str(), 0);
  if (spec.qp >= 0)
    av_dict_set_int(&opts, "qp", spec.qp, 0);
  else
    av_dict_set_int(&opts, "crf", spec.crf, 0);
  if (spec.encoder == "libx264" || spec.encoder == "libx264rgb") av_dict_set(&opts, "x264-params", "log=0", 0);
  if (spec.encoder == "libx265") {
    std::string x265 = "log-level=error:info=0";
    if (spec.threads == 1) x265 += ":pools=none:frame-threads=1:wpp=0:lookahead-slices=0";
    if (spec.lossless) x265 += ":lossless=1";
    av_dict_set(&opts, "x265-params", x265.c_str(), 0);
  }
  const int rc = avcodec_open2(e, codec, &opts);
  av_dict_free(&opts);
  if (rc < 0) m.fail("cannot open encoder " + spec.encoder + " (" + avText(rc) + ")");
  if (avcodec_parameters_from_context(m.stream->codecpar, e) < 0) m.fail("cannot copy encoder parameters");
  m.stream->time_base = e->time_base;
  if (spec.audioRate > 0) m.openAudio();

  m.frame->format = pix;
  m.frame->width = spec.width;
  m.frame->height = spec.height;
  if (av_frame_get_buffer(m.frame, 0) < 0) m.fail("out of memory");

  m.fmt->flags |= AVFMT_FLAG_BITEXACT;
  if (!(m.fmt->oformat->flags & AVFMT_NOFILE)) {
    const int orc = avio_open(&m.fmt->pb, path.c_str(), AVIO_FLAG_WRITE);
    if (orc < 0) m.fail("cannot open for writing (" + avText(orc) + ")");
  }
  const int hrc = avformat_write_header(m.fmt, nullptr);
  if (hrc < 0) m.fail("cannot write the container header (" + avText(hrc) + ")");
  m.headerWritten = true;
}

MovieWriter::~MovieWriter() {
  if (impl_ && impl_->headerWritten && !impl_->finished) {
    try {
      finish();
    } catch (...) {
      // a destructor cannot report; callers who care call finish()
    }
  }
}

void MovieWriter::write(const uint8_t* rgb) {
  Impl& m = *impl_;
  if (m.finished) m.fail("frame after finish");
  if (!m.spec.pixFmt.empty()) m.fail("packed RGB written to a movie of " + m.spec.pixFmt + " planes");
  if (av_frame_make_writable(m.frame) < 0) m.fail("out of memory");
  m.convert(rgb);
  m.frame->pts = m.pts++;
  m.drain(m.enc, m.stream, m.frame);
}

void MovieWriter::writePlanes(const PlaneFill& fill) {
  Impl& m = *impl_;
  if (m.finished) m.fail("frame after finish");
  if (m.spec.pixFmt.empty()) m.fail("planes written to a movie of packed RGB frames");
  if (av_frame_make_writable(m.frame) < 0) m.fail("out of memory");
  fill(m.frame->data, m.frame->linesize);
  m.frame->pts = m.pts++;
  m.drain(m.enc, m.stream, m.frame);
}

void MovieWriter::writeAudio(const int16_t* pcm, size_t n) {
  Impl& m = *impl_;
  if (!m.aenc) m.fail("audio written to a movie without an audio track");
  if (m.finished) m.fail("audio after finish");
  for (size_t i = 0; i < n; ++i) m.apending.push_back(static_cast<float>(pcm[i]) * (1.0f / 32768.0f));
  m.encodeAudio(false);
}

void MovieWriter::finish() {
  Impl& m = *impl_;
  if (m.finished) return;
  m.finished = true;
  m.drain(m.enc, m.stream, nullptr);
  if (m.aenc) {
    m.encodeAudio(true);
    m.drain(m.aenc, m.astream, nullptr);
  }
  const int rc = av_write_trailer(m.fmt);
  if (rc < 0) m.fail("cannot write the container trailer (" + avText(rc) + ")");
  if (!(m.fmt->oformat->flags & AVFMT_NOFILE)) {
    if (avio_closep(&m.fmt->pb) < 0) m.fail("close failed");
  }
}

int MovieWriter::frames() const { return static_cast<int>(impl_->pts); }

}  // namespace le::forge
