// The stills writers of the test media, on their own so that stb's JPEG bit writer (which
// shifts negative ints) can be built without the shift check under UBSan.
#include <stdexcept>

#include "tests/support/media.h"

#define STB_IMAGE_WRITE_STATIC
#define STB_IMAGE_WRITE_IMPLEMENTATION
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#endif
#include <stb_image_write.h>
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

namespace le::testmedia {

void writeJpeg(const std::string& path, const uint8_t* rgb, int w, int h, int quality) {
  if (!stbi_write_jpg(path.c_str(), w, h, 3, rgb, quality)) throw std::runtime_error("testmedia: jpeg write " + path);
}

void writeGreyPng(const std::string& path, const uint8_t* grey, int w, int h) {
  if (!stbi_write_png(path.c_str(), w, h, 1, grey, w)) throw std::runtime_error("testmedia: png write " + path);
}

void writeRgbPng(const std::string& path, const uint8_t* rgb, int w, int h) {
  if (!stbi_write_png(path.c_str(), w, h, 3, rgb, 3 * w)) throw std::runtime_error("testmedia: png write " + path);
}

}  // namespace le::testmedia
