// JPEG stills through stb_image_write. Its encoder shifts negative values, so this file is
// built without the sanitizer's shift check.
#include <stdexcept>
#include <vector>

#include "tools/forge/forge.h"

// Static functions keep this copy of stb private to the forge.
#define STB_IMAGE_WRITE_STATIC
#define STB_IMAGE_WRITE_IMPLEMENTATION
#define LE_STB_WRITE_ONLY
#include "le/le_stb.h"

namespace le::forge {

void writeJpeg(const std::string& path, const uint8_t* rgb, int w, int h, int quality) {
  std::vector<uint8_t> out;
  auto sink = [](void* ctx, void* data, int size) {
    auto* v = static_cast<std::vector<uint8_t>*>(ctx);
    const auto* b = static_cast<const uint8_t*>(data);
    v->insert(v->end(), b, b + size);
  };
  if (!stbi_write_jpg_to_func(sink, &out, w, h, 3, rgb, quality)) throw std::runtime_error("forge: jpeg encode failed " + path);
  writeBytes(path, out);
}

}  // namespace le::forge
