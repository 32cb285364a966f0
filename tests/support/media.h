// Real media for tests and benchmarks: movies and JPEG stills written by the forge. Every frame
// carries its index as a row of black/white blocks so that a reader can tell which frame it got.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/forge/forge_movie.h"

namespace le::testmedia {

// The forge's movie spec for test media: libx264 frames given as planes of pixFmt (any libavcodec
// encoder and pixel format can be set on it), w x h, a keyframe every gop frames.
forge::MovieSpec movieSpec(int w = 96, int h = 64, int gop = 12, const std::string& pixFmt = "yuv420p");

// Writes the samples of frame `index` into data/linesize (planes as the pixel format lays them).
using FillFn = std::function<void(int index, uint8_t* const* data, const int* linesize, int w, int h)>;

// Encodes `frames` frames (fillPattern unless fill is given) through the forge's movie writer; the
// container follows the file extension (.mp4, .mov, .mkv, .nut). Throws std::runtime_error.
void writeMovie(const std::string& path, const forge::MovieSpec& spec, int frames, const FillFn& fill = {});

// The default content: a moving colour gradient with the index blocks on top. Works for planar
// yuv formats and nv12.
void fillPattern(int index, const std::string& pixFmt, uint8_t* const* data, const int* linesize, int w, int h);

// Packed RGB frame with the same kind of content and index blocks.
std::vector<uint8_t> patternRgb(int w, int h, int index);

// The index read back from the blocks of a packed RGB frame (w >= 64); -1 when unreadable.
int frameTag(const uint8_t* rgb, int w);

// Writes frame_%06d.jpg for frames 0 … n-1 into dir (created).
void writeJpegDir(const std::string& dir, int w, int h, int n);

// Sets (or, with null, removes) an environment variable for the life of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_, saved_;
  bool had_;
};

// Runs a shell command; returns its exit status.
int run(const std::string& cmd);

// Whole file as bytes.
std::vector<uint8_t> readBytes(const std::string& path);

// The reference conversions the engine promises, written out scalar.
void yuvToRgbRef(int Y, int U, int V, uint8_t* rgb);
void yuv444ToRgbRef(int Y, int U, int V, int* rgb);

}  // namespace le::testmedia
