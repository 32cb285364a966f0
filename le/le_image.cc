// stb_image is compiled here with internal linkage so that other users of stb in the same
// process (tests, hosts) cannot clash with our copy.
#include "le/le_image.h"

#include <stdexcept>

#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#define STBI_NO_HDR
#define STBI_NO_LINEAR
#define STB_IMAGE_WRITE_STATIC
#define STB_IMAGE_WRITE_IMPLEMENTATION
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#pragma GCC diagnostic ignored "-Wsign-compare"
#pragma GCC diagnostic ignored "-Wunused-but-set-variable"
#endif
#include <stb_image.h>
#include <stb_image_write.h>
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

namespace le {

std::vector<uint8_t> loadImageRGB(const std::string& path, int* w, int* h) {
  int iw = 0, ih = 0, comp = 0;
  stbi_uc* px = stbi_load(path.c_str(), &iw, &ih, &comp, 3);
  if (!px) throw std::runtime_error("decode failed: " + path);
  std::vector<uint8_t> out(px, px + static_cast<size_t>(iw) * static_cast<size_t>(ih) * 3);
  stbi_image_free(px);
  *w = iw;
  *h = ih;
  return out;
}

void writePNG(const std::string& path, const uint8_t* rgb, int w, int h) {
  if (!rgb || w < 1 || h < 1 || !stbi_write_png(path.c_str(), w, h, 3, rgb, w * 3))
    throw std::runtime_error("png write failed: " + path);
}

}  // namespace le
