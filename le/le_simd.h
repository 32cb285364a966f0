// The engine's vector kernels: half-precision conversion, video row colour conversion,
// the Lanczos-8 paste row, a 3x3 convolution and the retrieval distance terms.
//
// Each kernel is compiled once per x86 target (SSSE3, SSE4, AVX2, AVX3, AVX3_DL); the entry
// points below pick the best version for the running processor on first call. Every version
// computes bit-identical results (same operation order, no fused multiply-add, scalar tails
// with the same formulas), so callers never see which one ran.
//
// Thread rules: all kernels are pure functions of their arguments and may be called from any
// number of threads at once; conv3x3Range keeps one reusable scratch image per thread.
// Pointers are read (or written) during the call only; nothing is retained or allocated,
// except conv3x3Range's thread-local scratch.
#pragma once

#include <cstddef>
#include <cstdint>

#include "le/le.h"

namespace le {

// Widens n IEEE binary16 values to float, exactly.
void halfToFloat(const uint16_t* src, float* dst, size_t n);

// Converts one float to binary16 with round-to-nearest-even. Every magnitude >= 65536,
// infinity and NaN becomes +-infinity (this conversion never yields a NaN).
uint16_t f32ToF16(float x);

namespace simd {

// dst[i] = binary16(src[i]), round-to-nearest-even (also subnormal), overflow to +-inf,
// NaN stays a quiet NaN keeping its top mantissa bits.
void f32ToF16(const float* src, uint16_t* dst, size_t n);

// dst[i] = float(src[i]) exactly; subnormals normalised, a NaN comes back quiet.
void f16ToF32(const uint16_t* src, float* dst, size_t n);

// dst[i] = h(src[i]), h as below: f16ToF32 of f32ToF16, in registers. src may equal dst.
void roundF16(const float* src, float* dst, size_t n);

// dst[i] = h(float(double(v0[i]) * (1 - a) + double(v1[i]) * a)): linear interpolation in
// double, then rounded to float and to binary16 and back.
void blendRoundF16(const float* v0, const float* v1, double a, float* dst, size_t n);

// out[i] = h(a[i]) * b[i], where h rounds to binary16 and back.
void roundF16Mul(const float* a, const float* b, float* out, size_t n);

// Interleaved RGB bytes of n pixels -> three binary16 planes (byte / 255), planes
// plane_stride elements apart.
void rgb8ToPlanarF16(const uint8_t* rgb, uint16_t* out, size_t plane_stride, size_t n);

// Sum over i in index order of h(h(d_i / 3) * w[i]), d_i the sum of the three absolute
// half-rounded channel differences of the planar half images a and b (planes n apart).
float retrieveTermPooled(const uint16_t* a, const uint16_t* b, const uint16_t* w, size_t n);

// How many images one interleaved group of retrieveTermPooledLanes holds.
constexpr size_t kPooledLanes = 16;

// retrieveTermPooled of kPooledLanes planar half images against one b and w, bit for bit, with
// the images interleaved: a[(3 * i + k) * kPooledLanes + j] is channel k of pixel i of image j.
// out[j] receives image j's sum. Each image keeps its own sum in index order, so the lanes run
// side by side without reordering anything. Pixels of zero weight are skipped: their term is +0
// as long as the images there are finite with channel differences below 65520 (always so for
// values in [0, 1]); an infinity or NaN at such a pixel does not reach the sum.
void retrieveTermPooledLanes(const uint16_t* a, const uint16_t* b, const uint16_t* w, size_t n, float* out);

// Sum over i in [lo, hi), index order, of w[i] * h(d_i / 3), skipping i where w[i] == 0.
float retrieveTermExactRange(const uint16_t* a, const uint16_t* b, const float* w, size_t n,
                             size_t lo, size_t hi);
// retrieveTermExactRange over [0, n).
float retrieveTermExact(const uint16_t* a, const uint16_t* b, const float* w, size_t n);

// Same-size 3x3 convolution, zero padding, of in [N][Cin][H][W] by weight [Cout][Cin][3][3]
// plus bias[Cout] into out [N][Cout][H][W], for the (image, output channel) items
// k = n * Cout + oc with begin <= k < end. Accumulation order: ky, kx, then ci ascending.
void conv3x3Range(const float* in, int N, int Cin, int H, int W, const float* weight,
                  const float* bias, int Cout, float* out, int begin, int end);

// One row of limited-range BT.601 4:2:0 video to packed RGB (3 * width bytes). Pixel x uses
// chroma sample (x >> 1) * chroma_step of u and v: chroma_step 1 for separate planes,
// 2 for interleaved UV (v = u + 1).
void yuv420RowToRgb24(const uint8_t* y, const uint8_t* u, const uint8_t* v, int width,
                      int chroma_step, uint8_t* rgb);

// One row of a JPEG still's full-range YCbCr samples to packed RGB (3 * count bytes), exactly
// as stb_image's scalar conversion rounds.
void jpegYCbCrRowToRgb24(const uint8_t* y, const uint8_t* cb, const uint8_t* cr, int count, uint8_t* rgb);

// The crop as pasteLanczos8Row reads it: bands of 16 rows starting every 8 rows, so that any
// 8 consecutive rows lie inside one band; inside a band, column by column, channel by channel,
// 16 rows each. Channel k of crop pixel (x, y) is at pasteSourceIndex(crop, y >> 3, x, k) +
// (y & 7), and for y >= 8 also at pasteSourceIndex(crop, (y >> 3) - 1, x, k) + (y & 7) + 8.
// A pixel's 8 x 8 taps are then 24 runs of 8 floats in 1.5 KiB of consecutive memory.
inline size_t pasteSourceIndex(int crop, int band, int x, int k) {
  return ((static_cast<size_t>(band) * static_cast<size_t>(crop) + static_cast<size_t>(x)) * 3 +
          static_cast<size_t>(k)) * 16;
}
inline size_t pasteSourceFloats(int crop) { return pasteSourceIndex(crop, (crop + 7) / 8, 0, 0); }

// Blends output pixels x_begin..x_end (inclusive) of one frame row from the crop src (laid
// out as above) under the crop mask, whose quads (see pasteMaskQuads) are beside it, with
// 32-phase Lanczos-8 (256 floats) and bilinear (64 floats) tables. col_x / col_y hold the
// fixed-point (10 fractional bits) source offsets of columns x_begin.., row_x / row_y the row
// start. dst_row is the frame row (pixel x at bytes 3x..3x+2); only bytes between x_begin and
// x_end are written, and only blended pixels change.
void pasteLanczos8Row(const float* src, int crop, const uint8_t* mask, const uint32_t* quads,
                      const float* lanczos, const float* bilinear, const int* col_x, const int* col_y,
                      int row_x, int row_y, int x_begin, int x_end, uint8_t* dst_row);
// Per source position (x, y), -1 <= x, y < crop: the mask bytes at (x, y), (x + 1, y), (x, y + 1)
// and (x + 1, y + 1), low byte first, 0 outside the crop, in word (y + 1) * (crop + 1) + x + 1.
// quads holds (crop + 1)^2 words.
void pasteMaskQuads(const uint8_t* mask, int crop, uint32_t* quads);

// The source of pasteLanczos8Row, a range of rows of one channel at a time: rows holds rows
// y0 <= y < y1 of channel k of an n x n crop (n floats each, row y0 first); their columns
// x0 <= x < x1 are written to every place of dst that holds them.
void pasteColumns(const float* rows, int n, int y0, int y1, int k, int x0, int x1, float* dst);

// The paste's unsharp mask, one row at a time: out[x] = sum over t ascending of
// g[t] * rows[t][x] (from 0, a product and a separate addition per tap) for x < n ...
void pasteBlurRow(const float* const* rows, const float* g, int K, int n, float* out);
// ... and, with that sum as the blur, the sharpened row
// out[x] = clamp(scale * in[x] * (1 + amount) - blur * amount, 0, 255), NaN giving 0.
void pasteSharpenRow(const float* const* rows, const float* g, int K, int n, const float* in, float scale,
                     float amount, float* out);

// Name of the best target the processor supports ("AVX3_DL", "AVX2", ...). Static string.
LE_API const char* target();

// Bit mask (Highway's target bits) of the targets the kernels were compiled for; tests use
// it to run every compiled version the processor can execute.
int64_t compiledTargets();

}  // namespace simd
}  // namespace le
