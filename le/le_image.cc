// stb_image is compiled here with internal linkage so that other users of stb in the same
// process (tests, hosts) cannot clash with our copy.
#include "le/le_image.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "le/le_simd.h"

namespace le {
namespace {

// A frame-sized buffer of the caller that stb may take as its output allocation, so that a
// decoded frame lands where the caller wants it without a copy. Only an allocation of the
// image's size (or one byte more, as stb's JPEG decoder asks) that fits is handed out; at frame
// sizes (>= 1 MiB) no other allocation of the decoder can have it.
struct Adoptable {
  void* buffer = nullptr;
  size_t bytes = 0, capacity = 0;
  bool taken = false;
};
thread_local Adoptable tlsAdopt;
constexpr size_t kAdoptMin = size_t(1) << 20;

void* stbMalloc(size_t n) {
  if (tlsAdopt.buffer && !tlsAdopt.taken && n >= tlsAdopt.bytes && n <= tlsAdopt.bytes + 1 &&
      n <= tlsAdopt.capacity) {
    tlsAdopt.taken = true;
    return tlsAdopt.buffer;
  }
  return std::malloc(n);
}

void stbFree(void* p) {
  if (p && p != tlsAdopt.buffer) std::free(p);
}

void* stbRealloc(void* p, size_t n) {
  if (!p || p != tlsAdopt.buffer) return std::realloc(p, n);
  void* q = std::malloc(n);
  if (q) std::memcpy(q, p, std::min(n, tlsAdopt.bytes));
  return q;
}

}  // namespace
}  // namespace le

#define STBI_MALLOC(n) le::stbMalloc(n)
#define STBI_FREE(p) le::stbFree(p)
#define STBI_REALLOC(p, n) le::stbRealloc(p, n)
#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#define STBI_NO_HDR
#define STBI_NO_LINEAR
#define STB_IMAGE_WRITE_STATIC
#define STB_IMAGE_WRITE_IMPLEMENTATION
#define LE_STB_WRITE
#include "le/le_stb.h"

namespace le {

namespace {

// stb's colour step with the same rounding, a vector at a time (stb vectorises only the
// four-channel case, and with a coarser rounding).
void ycbcrToRgb(stbi_uc* out, const stbi_uc* y, const stbi_uc* cb, const stbi_uc* cr, int count, int step) {
  if (step == 3)
    simd::jpegYCbCrRowToRgb24(y, cb, cr, count, out);
  else
    stbi__YCbCr_to_RGB_row(out, y, cb, cr, count, step);
}

struct StbFree {
  void operator()(void* p) const { stbi_image_free(p); }
};
using Pixels = std::unique_ptr<stbi_uc, StbFree>;

// The whole file in one read (stb's own file reader refills 128 bytes at a time).
bool readWhole(const std::string& path, std::vector<stbi_uc>& bytes) {
  std::unique_ptr<FILE, int (*)(FILE*)> f(std::fopen(path.c_str(), "rb"), &std::fclose);
  if (!f || std::fseek(f.get(), 0, SEEK_END) != 0) return false;
  const long n = std::ftell(f.get());
  if (n <= 0 || n > 0x7fffffffL || std::fseek(f.get(), 0, SEEK_SET) != 0) return false;
  bytes.resize(static_cast<size_t>(n));
  return std::fread(bytes.data(), 1, bytes.size(), f.get()) == bytes.size();
}

// Packed RGB of the image at path, or throws: JPEG through stb's decoder with the colour step
// above, every other format through stb_image as it comes.
Pixels decodeRGB(const std::string& path, int* w, int* h) {
  std::vector<stbi_uc> bytes;
  stbi_uc* px = nullptr;
  int comp = 0;
  if (readWhole(path, bytes)) {
    stbi__context s;
    stbi__start_mem(&s, bytes.data(), static_cast<int>(bytes.size()));
    if (stbi__jpeg_test(&s)) {
      std::unique_ptr<stbi__jpeg, StbFree> j(static_cast<stbi__jpeg*>(stbi__malloc(sizeof(stbi__jpeg))));
      if (j) {
        j->s = &s;
        stbi__setup_jpeg(j.get());
        j->YCbCr_to_RGB_kernel = ycbcrToRgb;
        px = load_jpeg_image(j.get(), w, h, &comp, 3);
      }
    } else {
      px = stbi_load_from_memory(bytes.data(), static_cast<int>(bytes.size()), w, h, &comp, 3);
    }
  }
  if (!px) throw std::runtime_error("decode failed: " + path);
  return Pixels(px);
}

}  // namespace

std::vector<uint8_t> loadImageRGB(const std::string& path, int* w, int* h) {
  int iw = 0, ih = 0;
  const Pixels px = decodeRGB(path, &iw, &ih);
  std::vector<uint8_t> out(px.get(), px.get() + static_cast<size_t>(iw) * static_cast<size_t>(ih) * 3);
  *w = iw;
  *h = ih;
  return out;
}

bool loadImageRGBInto(const std::string& path, int w, int h, uint8_t* out, size_t capacity, int* gotW,
                      int* gotH) {
  const size_t bytes = static_cast<size_t>(w) * static_cast<size_t>(h) * 3;
  // Withdrawn however the decode ends, after the pixels are released: stbFree skips out.
  struct Offer {
    Offer(uint8_t* out, size_t bytes, size_t capacity) {
      if (bytes >= kAdoptMin) tlsAdopt = {out, bytes, capacity, false};
    }
    ~Offer() { tlsAdopt = {}; }
  } offer(out, bytes, capacity);
  const Pixels px = decodeRGB(path, gotW, gotH);
  if (*gotW != w || *gotH != h) return false;
  if (px.get() != out) std::memcpy(out, px.get(), bytes);
  return true;
}

void writePNG(const std::string& path, const uint8_t* rgb, int w, int h) {
  if (!rgb || w < 1 || h < 1 || !stbi_write_png(path.c_str(), w, h, 3, rgb, w * 3))
    throw std::runtime_error("png write failed: " + path);
}

}  // namespace le
