// The Lanczos-8 paste row, compiled once per x86 target (this file is re-included by
// foreach_target.h) with run-time dispatch.

// SSSE3 is the oldest target compiled; it also serves as the baseline slot of every table.
#ifndef HWY_BASELINE_TARGETS
#define HWY_BASELINE_TARGETS HWY_SSSE3
#endif
#ifndef HWY_WANT_AVX3_DL
#define HWY_WANT_AVX3_DL
#endif

// Products and sums stay separate roundings on every target (no fused multiply-add).
#if defined(__clang__)
#pragma STDC FP_CONTRACT OFF
#elif defined(__GNUC__)
#pragma GCC optimize("fp-contract=off")
#endif

#ifndef LE_PASTE_SIMD_SCALAR_ONCE
#define LE_PASTE_SIMD_SCALAR_ONCE

#include <cmath>

#include "le/le_simd.h"

namespace le::simd::detail {

// Source position of one output pixel, or !ok when it falls outside the crop.
struct PastePos {
  int ix, iy, px, py;
  bool ok;
};

inline PastePos pastePos(int sx, int sy, int crop) {
  PastePos p{sx >> 10, sy >> 10, (sx >> 5) & 31, (sy >> 5) & 31, false};
  p.ok = sx >= -1024 && sy >= -1024 && p.ix < crop && p.iy < crop;
  return p;
}

// Bilinear mask weight of the position, in [0, 1] after the division by 255.
inline float pasteAlpha(const uint8_t* mask, int crop, const float* bilinear, const PastePos& p) {
  const auto m = [&](int x, int y) -> float {
    return (x >= 0 && x < crop && y >= 0 && y < crop) ? static_cast<float>(mask[y * crop + x]) : 0.0f;
  };
  const float wx0 = bilinear[2 * p.px], wx1 = bilinear[2 * p.px + 1];
  const float wy0 = bilinear[2 * p.py], wy1 = bilinear[2 * p.py + 1];
  const float v = ((wx1 * m(p.ix + 1, p.iy + 1) + wx0 * m(p.ix, p.iy + 1)) * wy1) +
                  ((wx1 * m(p.ix + 1, p.iy) + wx0 * m(p.ix, p.iy)) * wy0);
  return std::rint(v) / 255.0f;
}

// Blends the three channel sums into the frame pixel; the result is truncated.
inline void pasteBlend(float alpha, const float* sum, uint8_t* px) {
  for (int k = 0; k < 3; ++k) {
    float v = (1.0f - alpha) * static_cast<float>(px[k]) + alpha * sum[k];
    v = v < 0.0f ? 0.0f : (v > 255.0f ? 255.0f : v);
    px[k] = static_cast<uint8_t>(static_cast<int>(v));
  }
}

inline bool pasteInterior(const PastePos& p, int crop) {
  return p.ix - 3 >= 0 && p.ix + 4 < crop && p.iy - 3 >= 0 && p.iy + 4 < crop;
}

}  // namespace le::simd::detail

#endif  // LE_PASTE_SIMD_SCALAR_ONCE

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "le/le_paste_simd.cc"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace le::simd {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// One pixel's four interleaved channels per 128-bit vector.
using D4 = hn::FixedTag<float, 4>;
using V4 = hn::Vec<D4>;

// Channel sums of one pixel; columns and rows outside the crop contribute nothing.
HWY_INLINE V4 LanczosPixel(const float* HWY_RESTRICT src, int crop, const float* HWY_RESTRICT kx,
                           const float* HWY_RESTRICT ky, const detail::PastePos& p, bool interior) {
  const D4 d;
  V4 sum = hn::Zero(d);
  for (int j = 0; j < 8; ++j) {
    const int row = p.iy - 3 + j;
    if (!interior && (row < 0 || row >= crop)) continue;
    const float* s = src + static_cast<size_t>(row) * crop * 4;
    V4 r;
    if (interior) {
      s += static_cast<size_t>(p.ix - 3) * 4;
      r = hn::Mul(hn::Set(d, kx[0]), hn::LoadU(d, s));
      for (int i = 1; i < 8; ++i) r = hn::Add(r, hn::Mul(hn::Set(d, kx[i]), hn::LoadU(d, s + 4 * i)));
    } else {
      const auto tap = [&](int i) {
        const int col = p.ix - 3 + i;
        return (col >= 0 && col < crop) ? hn::LoadU(d, s + 4 * static_cast<size_t>(col)) : hn::Zero(d);
      };
      r = hn::Mul(hn::Set(d, kx[0]), tap(0));
      for (int i = 1; i < 8; ++i) r = hn::Add(r, hn::Mul(hn::Set(d, kx[i]), tap(i)));
    }
    sum = hn::Add(sum, hn::Mul(r, hn::Set(d, ky[j])));
  }
  return sum;
}

#if HWY_TARGET <= HWY_AVX2
// Wide targets hold kGroup pixels per vector, one per 128-bit block; each block runs
// exactly the single-pixel sequence of operations.
using DW = hn::ScalableTag<float>;
using VW = hn::Vec<DW>;
constexpr int kGroup = static_cast<int>(hn::MaxLanes(DW()) / 4);

// One vector of kGroup 128-bit pieces, piece k from p[k].
HWY_INLINE VW Pieces(const float* const* p) {
  const D4 d4;
#if HWY_TARGET <= HWY_AVX3
  const hn::Half<DW> d8;
  return hn::Combine(DW(), hn::Combine(d8, hn::LoadU(d4, p[3]), hn::LoadU(d4, p[2])),
                     hn::Combine(d8, hn::LoadU(d4, p[1]), hn::LoadU(d4, p[0])));
#else
  return hn::Combine(DW(), hn::LoadU(d4, p[1]), hn::LoadU(d4, p[0]));
#endif
}

// Piece k of the result broadcasts v[k].
HWY_INLINE VW Broadcasts(const float* v) {
  const D4 d4;
#if HWY_TARGET <= HWY_AVX3
  const hn::Half<DW> d8;
  return hn::Combine(DW(), hn::Combine(d8, hn::Set(d4, v[3]), hn::Set(d4, v[2])),
                     hn::Combine(d8, hn::Set(d4, v[1]), hn::Set(d4, v[0])));
#else
  return hn::Combine(DW(), hn::Set(d4, v[1]), hn::Set(d4, v[0]));
#endif
}

// Channel sums of kGroup interior pixels, stored as kGroup runs of four floats.
HWY_INLINE void LanczosGroup(const float* HWY_RESTRICT src, int crop, const float* HWY_RESTRICT lanczos,
                             const detail::PastePos* p, float* HWY_RESTRICT sums) {
  const DW dw;
  VW kx[8];
  float tap[kGroup];
  for (int i = 0; i < 8; ++i) {
    for (int k = 0; k < kGroup; ++k) tap[k] = lanczos[8 * p[k].px + i];
    kx[i] = Broadcasts(tap);
  }
  VW sum = hn::Zero(dw);
  for (int j = 0; j < 8; ++j) {
    const float* s[kGroup];
    for (int k = 0; k < kGroup; ++k) {
      s[k] = src + (static_cast<size_t>(p[k].iy - 3 + j) * crop + (p[k].ix - 3)) * 4;
      tap[k] = lanczos[8 * p[k].py + j];
    }
    VW r = hn::Mul(kx[0], Pieces(s));
    for (int i = 1; i < 8; ++i) {
      for (int k = 0; k < kGroup; ++k) s[k] += 4;
      r = hn::Add(r, hn::Mul(kx[i], Pieces(s)));
    }
    sum = hn::Add(sum, hn::Mul(r, Broadcasts(tap)));
  }
  hn::StoreU(sum, dw, sums);
}
#endif

// Blends one output pixel through the single-pixel path.
HWY_INLINE void PastePixel(const float* HWY_RESTRICT src, int crop, const uint8_t* HWY_RESTRICT mask,
                           const float* HWY_RESTRICT lanczos, const float* HWY_RESTRICT bilinear, int sx,
                           int sy, uint8_t* HWY_RESTRICT px) {
  const detail::PastePos p = detail::pastePos(sx, sy, crop);
  if (!p.ok) return;
  const float alpha = detail::pasteAlpha(mask, crop, bilinear, p);
  if (!(alpha > 0.0f)) return;
  HWY_ALIGN float sum[4];
  hn::Store(LanczosPixel(src, crop, lanczos + 8 * p.px, lanczos + 8 * p.py, p, detail::pasteInterior(p, crop)),
            D4(), sum);
  detail::pasteBlend(alpha, sum, px);
}

void PasteLanczos8Row(const float* HWY_RESTRICT src, int crop, const uint8_t* HWY_RESTRICT mask,
                      const float* HWY_RESTRICT lanczos, const float* HWY_RESTRICT bilinear,
                      const int* HWY_RESTRICT col_x, const int* HWY_RESTRICT col_y, int row_x,
                      int row_y, int x_begin, int x_end, uint8_t* HWY_RESTRICT dst_row) {
#if HWY_TARGET <= HWY_AVX2
  HWY_ALIGN float sums[4 * kGroup];
#endif
  for (int x = x_begin; x <= x_end;) {
#if HWY_TARGET <= HWY_AVX2
    if (x + kGroup - 1 <= x_end) {
      detail::PastePos p[kGroup];
      float alpha[kGroup];
      bool interior = true, any = false;
      for (int k = 0; k < kGroup && interior; ++k) {
        const int i = x + k - x_begin;
        p[k] = detail::pastePos(row_x + col_x[i], row_y + col_y[i], crop);
        interior = p[k].ok && detail::pasteInterior(p[k], crop);
        if (interior) {
          alpha[k] = detail::pasteAlpha(mask, crop, bilinear, p[k]);
          any = any || alpha[k] > 0.0f;
        }
      }
      if (interior) {
        if (any) {
          LanczosGroup(src, crop, lanczos, p, sums);
          for (int k = 0; k < kGroup; ++k)
            if (alpha[k] > 0.0f) detail::pasteBlend(alpha[k], sums + 4 * k, dst_row + 3 * static_cast<size_t>(x + k));
        }
        x += kGroup;
        continue;
      }
    }
#endif
    const int i = x - x_begin;
    PastePixel(src, crop, mask, lanczos, bilinear, row_x + col_x[i], row_y + col_y[i],
               dst_row + 3 * static_cast<size_t>(x));
    ++x;
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace le::simd
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace le::simd {

HWY_EXPORT(PasteLanczos8Row);

void pasteLanczos8Row(const float* src, int crop, const uint8_t* mask, const float* lanczos,
                      const float* bilinear, const int* col_x, const int* col_y, int row_x,
                      int row_y, int x_begin, int x_end, uint8_t* dst_row) {
  HWY_DYNAMIC_DISPATCH(PasteLanczos8Row)(src, crop, mask, lanczos, bilinear, col_x, col_y, row_x,
                                         row_y, x_begin, x_end, dst_row);
}

}  // namespace le::simd
#endif  // HWY_ONCE
