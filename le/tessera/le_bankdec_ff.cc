// The donor bank track, decoded from memory with FFmpeg straight into donor order.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/mem.h>
}

#include "le/le.h"
#include "le/le_ff.h"
#include "le/le_moviedec_ff.h"
#include "le/tessera/le_bankdec_ff.h"

namespace le::tessera {

namespace bankio {

int memRead(void* opaque, uint8_t* buf, int want) {
  auto* r = static_cast<MemReader*>(opaque);
  if (r->pos >= r->size) return AVERROR_EOF;
  const int64_t n = std::min<int64_t>(r->size - r->pos, want);
  std::memcpy(buf, r->data + r->pos, static_cast<size_t>(n));
  r->pos += n;
  return static_cast<int>(n);
}

int64_t memSeek(void* opaque, int64_t offset, int whence) {
  auto* r = static_cast<MemReader*>(opaque);
  whence &= ~AVSEEK_FORCE;
  if (whence == AVSEEK_SIZE) return r->size;
  int64_t to;
  if (whence == SEEK_SET)
    to = offset;
  else if (whence == SEEK_CUR)
    to = offset + r->pos;
  else if (whence == SEEK_END)
    to = offset + r->size;
  else
    return -1;
  if (to < 0 || to > r->size) return -1;
  r->pos = to;
  return to;
}

}  // namespace bankio

namespace {

using bankio::MemReader;
using bankio::memRead;
using bankio::memSeek;

[[noreturn]] void refuse(const std::string& msg) { throw std::runtime_error(msg); }

constexpr int kIoBuffer = 0x10000;

// The custom I/O context and the buffer FFmpeg may have replaced while reading.
struct IoFreer {
  void operator()(AVIOContext* io) const {
    av_freep(&io->buffer);
    avio_context_free(&io);
  }
};
using IoPtr = std::unique_ptr<AVIOContext, IoFreer>;

}  // namespace

std::vector<uint8_t> decodeBankTrack(const uint8_t* data, uint64_t len, int32_t n, int32_t band_h, int32_t band_w,
                                     const std::vector<int32_t>& track_order) {
  if (!data || len == 0) refuse("reference bank track is empty — refusing to serve");
  if (band_h <= 0 || band_w <= 0 || n < 1) refuse("reference bank geometry is not positive — refusing to serve");
  if (track_order.size() != static_cast<size_t>(n))
    refuse("reference bank sidecar track_order has " + std::to_string(track_order.size()) + " entries, expected " +
           std::to_string(n) + " — sidecar/track mismatch, refusing to serve");
  if (len > static_cast<uint64_t>(INT64_MAX)) refuse("reference bank track is not a readable container — refusing to serve");

  MemReader reader{data, static_cast<int64_t>(len), 0};
  auto* buf = static_cast<uint8_t*>(av_malloc(kIoBuffer));
  if (!buf) refuse("reference bank decode: out of memory");
  IoPtr io(avio_alloc_context(buf, kIoBuffer, 0, &reader, memRead, nullptr, memSeek));
  if (!io) {
    av_free(buf);
    refuse("reference bank decode: avio_alloc_context failed");
  }
  // Declared after io: the demuxer goes first, it still points at the I/O context.
  AVFormatContext* raw = avformat_alloc_context();
  if (!raw) refuse("reference bank decode: avformat_alloc_context failed");
  raw->pb = io.get();
  raw->flags |= AVFMT_FLAG_CUSTOM_IO;
  if (avformat_open_input(&raw, nullptr, nullptr, nullptr) < 0)  // frees raw on failure
    refuse("reference bank track is not a readable container — refusing to serve");
  ff::FormatPtr fmt(raw);
  if (avformat_find_stream_info(fmt.get(), nullptr) < 0)
    refuse("reference bank track carries no stream info — refusing to serve");

  int vs = -1;
  for (unsigned s = 0; s < fmt->nb_streams; ++s)
    if (fmt->streams[s]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
      vs = static_cast<int>(s);
      break;
    }
  if (vs < 0) refuse("reference bank track has no video stream — refusing to serve");
  const AVCodecParameters* par = fmt->streams[vs]->codecpar;
  if (par->width != band_w || par->height != band_h)
    refuse("reference bank track is " + std::to_string(par->width) + "x" + std::to_string(par->height) +
           ", the geometry stamp says " + std::to_string(band_w) + "x" + std::to_string(band_h) +
           " — geometry mismatch, refusing to serve");

  const AVCodec* codec = avcodec_find_decoder(par->codec_id);
  if (!codec)
    refuse("no decoder for the reference bank track — this build must carry the h264 decoder (see "
           "build_ffmpeg_android.sh); refusing to serve");
  ff::CodecPtr dec(avcodec_alloc_context3(codec));
  if (!dec) refuse("reference bank decode: avcodec_alloc_context3 failed");
  if (avcodec_parameters_to_context(dec.get(), par) < 0)
    refuse("reference bank decode: avcodec_parameters_to_context failed");
  dec->thread_count = 1;
  if (avcodec_open2(dec.get(), codec, nullptr) < 0)
    refuse("reference bank decode: could not open the decoder — refusing to serve");

  ff::PacketPtr pkt(av_packet_alloc());
  ff::FramePtr frame(av_frame_alloc());
  if (!pkt || !frame) refuse("reference bank decode: out of memory");
  const size_t row = static_cast<size_t>(band_w) * 3;
  const size_t patch = row * static_cast<size_t>(band_h);
  std::vector<uint8_t> out(patch * static_cast<size_t>(n), 0);

  std::vector<char> seen(static_cast<size_t>(n), 0);
  for (const int32_t d : track_order) {
    if (d < 0 || d >= n) refuse("reference bank track_order is out of range — refusing to serve");
    if (seen[static_cast<size_t>(d)]) refuse("reference bank track_order is not a permutation — refusing to serve");
    seen[static_cast<size_t>(d)] = 1;
  }

  // libswscale's 4:2:0 -> RGB fast path stores whole groups of 16 pixels: at other widths the
  // last row of a patch would spill into the next donor (or past the buffer). Such widths go
  // through one padded frame of scratch instead.
  const bool direct = band_w % 16 == 0;
  const size_t scratch_row = (static_cast<size_t>(band_w) + 16) / 16 * 16 * 3;
  std::vector<uint8_t> scratch;
  ff::SwsPtr sws;
  int sws_fmt = -1;
  int k = 0;
  bool draining = false;
  for (;;) {
    if (!draining) {
      if (av_read_frame(fmt.get(), pkt.get()) < 0) {
        avcodec_send_packet(dec.get(), nullptr);
        draining = true;
      } else {
        if (pkt->stream_index == vs) avcodec_send_packet(dec.get(), pkt.get());
        av_packet_unref(pkt.get());
      }
    }
    int r;
    while ((r = avcodec_receive_frame(dec.get(), frame.get())) == 0) {
      const AVFrame* f = frame.get();
      if (f->width != band_w || f->height != band_h) {
        av_frame_unref(frame.get());
        refuse("reference bank frame changed size mid-track — refusing to serve");
      }
      if (!sws || f->format != sws_fmt) {
        sws.reset(sws_getContext(band_w, band_h, static_cast<AVPixelFormat>(f->format), band_w, band_h,
                                 AV_PIX_FMT_RGB24, SWS_BILINEAR, nullptr, nullptr, nullptr));
        if (!sws) {
          av_frame_unref(frame.get());
          refuse("reference bank decode: no rgb24 conversion — refusing to serve");
        }
        sws_fmt = f->format;
      }
      if (k >= n) {
        av_frame_unref(frame.get());
        refuse("bank track carries more frames than the sidecar's n_donors — sidecar/track mismatch, refusing to "
               "serve");
      }
      uint8_t* slot = out.data() + static_cast<size_t>(track_order[static_cast<size_t>(k)]) * patch;
      if (direct) {
        uint8_t* dst[4] = {slot, nullptr, nullptr, nullptr};
        const int stride[4] = {static_cast<int>(row), 0, 0, 0};
        sws_scale(sws.get(), f->data, f->linesize, 0, band_h, dst, stride);
      } else {
        if (scratch.empty()) scratch.resize(scratch_row * static_cast<size_t>(band_h));
        uint8_t* dst[4] = {scratch.data(), nullptr, nullptr, nullptr};
        const int stride[4] = {static_cast<int>(scratch_row), 0, 0, 0};
        sws_scale(sws.get(), f->data, f->linesize, 0, band_h, dst, stride);
        for (int y = 0; y < band_h; ++y)
          std::memcpy(slot + static_cast<size_t>(y) * row, scratch.data() + static_cast<size_t>(y) * scratch_row, row);
      }
      av_frame_unref(frame.get());
      ++k;
    }
    // Once drained, whatever the decoder answers ends the track.
    if (draining) {
      if (k != n)
        refuse("bank track decoded to " + std::to_string(k) + " frames, expected " + std::to_string(n) +
               " — geometry/N mismatch, refusing to serve");
      break;
    }
  }
  return out;
}

std::string bankDecoderBuild() { return movieDecoderBuild(); }

}  // namespace le::tessera
