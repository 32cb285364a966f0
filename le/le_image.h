// Still images: JPEG (and other stb formats) in, PNG out. Reentrant.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace le {

// Decodes the image at path to packed RGB (3 channels forced) and stores its size in w and h.
// Throws "decode failed: " + path.
std::vector<uint8_t> loadImageRGB(const std::string& path, int* w, int* h);

// The same into out (capacity bytes, at least w×h×3) when the image is exactly w×h: true.
// Otherwise the image's size goes to gotW and gotH, out holds no image, and the result is false.
// With capacity ≥ w×h×3 + 1, a large JPEG frame is decoded there directly (stb's JPEG decoder
// asks for one byte more than the image, and writes it for a grey picture); otherwise it is
// copied.
bool loadImageRGBInto(const std::string& path, int w, int h, uint8_t* out, size_t capacity, int* gotW,
                      int* gotH);

// Writes w×h packed RGB rows as a PNG. Throws "png write failed: " + path.
void writePNG(const std::string& path, const uint8_t* rgb, int w, int h);

}  // namespace le
