// Still images: JPEG (and other stb formats) in, PNG out. Reentrant.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace le {

// Decodes the image at path to packed RGB (3 channels forced) and stores its size in w and h.
// Throws "decode failed: " + path.
std::vector<uint8_t> loadImageRGB(const std::string& path, int* w, int* h);

// The same into out (w×h×3 bytes; a large frame is decoded there directly) when the image is
// exactly w×h: true. Otherwise the image's size goes to gotW and gotH, out holds no image, and
// the result is false.
bool loadImageRGBInto(const std::string& path, int w, int h, uint8_t* out, int* gotW, int* gotH);

// Writes w×h packed RGB rows as a PNG. Throws "png write failed: " + path.
void writePNG(const std::string& path, const uint8_t* rgb, int w, int h);

}  // namespace le
