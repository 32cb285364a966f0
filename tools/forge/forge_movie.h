// Movie encoding through libavcodec/libavformat: the forge's drive movie and video prior and
// the le tool's output. With threads = 1 the bytes are the same on every run.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace le::forge {

// Rgb: the frames as given, packed RGB (encoder libx264rgb; lossless at qp 0).
enum class Chroma { Yuv420, Yuv422, Yuv444, Rgb };

struct MovieSpec {
  std::string encoder = "libx264";  // or "libx265"
  Chroma chroma = Chroma::Yuv420;
  int width = 0, height = 0;
  int fps = 25;
  int crf = 18;        // quality (libx264 crf); used when qp < 0
  int qp = -1;         // constant quantiser when >= 0
  int threads = 1;     // 1 keeps the output deterministic
  std::string preset = "veryfast";
  int audioRate = 0;   // > 0: also a mono AAC track of this many samples per second (writeAudio)
  int gop = 0;         // keyframe interval; 0: one keyframe a second
  // When set, frames arrive as planes of this libavcodec pixel format (writePlanes) for any
  // encoder, rawvideo included; chroma is then unused.
  std::string pixFmt;
  bool lossless = false;  // libx265's lossless mode (libx264 is lossless at qp 0)
};

// Writes one video stream (and optionally one audio stream) into the container chosen by the file name (.mp4, .mov, ...).
// Frames arrive as packed RGB and are converted with BT.601 limited range, the matrix the
// engine decodes with. Throws std::runtime_error with a one-line reason.
class MovieWriter {
 public:
  MovieWriter(const std::string& path, const MovieSpec& spec);
  ~MovieWriter();
  MovieWriter(const MovieWriter&) = delete;
  MovieWriter& operator=(const MovieWriter&) = delete;

  // One frame of width×height×3 bytes.
  void write(const uint8_t* rgb);
  // One frame in the planes of spec.pixFmt: fill writes the samples into data/linesize.
  using PlaneFill = std::function<void(uint8_t* const* data, const int* linesize)>;
  void writePlanes(const PlaneFill& fill);
  // Mono 16-bit samples of the audio track, in order; the muxer interleaves them with the
  // frames, so feed them in step with the frames to keep memory flat.
  void writeAudio(const int16_t* pcm, size_t n);
  // Drains the encoder and writes the trailer; the destructor does it when not called.
  void finish();
  int frames() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace le::forge
