// The movie source: a bundle movie decoded with FFmpeg, converted row by row straight into
// the caller's frame.
#pragma once

#include <cstdint>

#include "le/le_driver.h"

namespace le::driver {

// Mode 0 delivers packed RGB (4:2:0 input); mode 1 delivers planar binary16 RGB (yuv444p input).
enum class MovieMode : int { Rgb24 = 0, PlanarHalf = 1 };

std::unique_ptr<Source> openMovie(MovieMode mode, const std::string& path, int NT, int W, int H);

// One row of limited-range BT.601 yuv444p to three binary16 planes: 16.16 fixed point, each
// channel clamped to [0, 255] and mapped through half_of (entry v = binary16 of v / 255).
void yuv444RowToHalfPlanes(const uint8_t* y, const uint8_t* u, const uint8_t* v, int width,
                           const uint16_t* half_of, uint16_t* r, uint16_t* g, uint16_t* b);

}  // namespace le::driver
