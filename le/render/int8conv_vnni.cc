#include "le/render/int8conv_vnni.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <string>

#include "le/le_pool.h"
#include "le/render/gridsample_fast.h"

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#include <immintrin.h>
#define LE_INT8_X86 1
#endif

// The dequantisation is shared by every path; products and sums stay separate roundings so the
// plain loops of any caller reproduce it bit for bit.
#include "le/le_fp_exact.h"

namespace le {

namespace {

const char* const kWho = "com.vantorix.int8::Int8ConvVNNI: ";

std::string shapeText(const std::vector<int64_t>& d) {
  std::string s = "[";
  for (size_t i = 0; i < d.size(); ++i) s += (i ? ", " : "") + std::to_string(d[i]);
  return s + "]";
}

[[noreturn]] void refuse(const std::string& what) { throw std::runtime_error(kWho + what); }

#if LE_INT8_X86
#define LE_CPU_HAS(feature) (__builtin_cpu_init(), __builtin_cpu_supports(feature))
#else
#define LE_CPU_HAS(feature) false
#endif

bool haveAvx2() {
  static const bool ok = LE_CPU_HAS("avx2");
  return ok;
}

// AVX-VNNI is CPUID leaf 7, sub-leaf 1, EAX bit 4; asked directly because clang 14's
// __builtin_cpu_supports does not know the feature name.
bool haveAvxVnni() {
#if LE_INT8_X86
  unsigned a = 0, b = 0, c = 0, d = 0;
  return __get_cpuid_count(7, 1, &a, &b, &c, &d) && (a & (1u << 4)) != 0;
#else
  return false;
#endif
}

// The same arithmetic as the vector quantiser: NaN lands on 0.
inline uint8_t quantOne(float x, float scale, float zp) {
  float v = std::rint(x / scale) + zp;
  v = v > 0.f ? v : 0.f;
  v = v < 255.f ? v : 255.f;
  return static_cast<uint8_t>(v);
}

void minmaxScalar(const float* d, size_t n, float& mn, float& mx) {
  for (size_t i = 0; i < n; ++i) {
    if (d[i] < mn) mn = d[i];
    if (d[i] > mx) mx = d[i];
  }
}

#if LE_INT8_X86
__attribute__((target("avx2"))) void minmaxAvx2(const float* d, size_t n, float& mn, float& mx) {
  __m256 mn0 = _mm256_set1_ps(mn), mn1 = mn0, mx0 = _mm256_set1_ps(mx), mx1 = mx0;
  size_t i = 0;
  // The loaded value is the first operand: a NaN in it leaves the running value.
  for (; i + 16 <= n; i += 16) {
    const __m256 a = _mm256_loadu_ps(d + i), b = _mm256_loadu_ps(d + i + 8);
    mn0 = _mm256_min_ps(a, mn0);
    mx0 = _mm256_max_ps(a, mx0);
    mn1 = _mm256_min_ps(b, mn1);
    mx1 = _mm256_max_ps(b, mx1);
  }
  alignas(32) float lo[8], hi[8];
  _mm256_store_ps(lo, _mm256_min_ps(mn0, mn1));
  _mm256_store_ps(hi, _mm256_max_ps(mx0, mx1));
  for (int k = 0; k < 8; ++k) {
    mn = std::min(mn, lo[k]);
    mx = std::max(mx, hi[k]);
  }
  minmaxScalar(d + i, n - i, mn, mx);
}

// One image row of W pixels: channels [c, c + 4) of x (planes hw apart) into 4-byte words at
// q, q + icp, ... Channels at or past IC are 0.
__attribute__((target("avx2"))) void quantRowAvx2(const float* x, size_t hw, int64_t W, int64_t c,
                                                  int64_t IC, int64_t icp, float scale, float zp,
                                                  uint8_t* q) {
  const __m256 vs = _mm256_set1_ps(scale), vz = _mm256_set1_ps(zp);
  const __m256 lo = _mm256_setzero_ps(), hi = _mm256_set1_ps(255.f);
  const int64_t live = std::min<int64_t>(4, IC - c);
  int64_t i = 0;
  for (; i + 8 <= W; i += 8) {
    __m256i word = _mm256_setzero_si256();
    for (int64_t k = 0; k < live; ++k) {
      const __m256 v = _mm256_loadu_ps(x + size_t(k) * hw + size_t(i));
      __m256 r = _mm256_add_ps(_mm256_round_ps(_mm256_div_ps(v, vs), _MM_FROUND_CUR_DIRECTION), vz);
      r = _mm256_min_ps(_mm256_max_ps(r, lo), hi);
      word = _mm256_or_si256(word, _mm256_slli_epi32(_mm256_cvttps_epi32(r), int(8 * k)));
    }
    alignas(32) uint32_t w[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(w), word);
    if (icp == 4) {
      std::memcpy(q + i * 4, w, sizeof w);
    } else {
      for (int k = 0; k < 8; ++k) std::memcpy(q + (i + k) * icp, &w[k], 4);
    }
  }
  for (; i < W; ++i)
    for (int64_t k = 0; k < 4; ++k)
      q[i * icp + k] = k < live ? quantOne(x[size_t(k) * hw + size_t(i)], scale, zp) : 0;
}
#endif

void quantRowScalar(const float* x, size_t hw, int64_t W, int64_t c, int64_t IC, int64_t icp,
                    float scale, float zp, uint8_t* q) {
  const int64_t live = std::min<int64_t>(4, IC - c);
  for (int64_t i = 0; i < W; ++i)
    for (int64_t k = 0; k < 4; ++k)
      q[i * icp + k] = k < live ? quantOne(x[size_t(k) * hw + size_t(i)], scale, zp) : 0;
}

// ---- dot-product kernels ------------------------------------------------------------------
//
// The same u8 x s8 dot products in three forms: 256-bit VEX (AVX-VNNI), 256-bit EVEX (AVX-512
// VNNI + VL) and, for two blocks at once, 512-bit EVEX. One register of weights holds 8 (or 16)
// output channels x 4 input channels, so one packed layout serves every width.
//
// A tile is 4 output pixels pixelStep bytes apart; taps are given as byte offsets from the
// first pixel's receptive-field origin with their tap indices. Its sums minus corr (one value
// per channel) go to out, pixel p at out + p * outStride.
struct TileArgs {
  const uint8_t* in;
  const int8_t* packed;  // the first block's weights
  const int64_t* tapOff;
  const int32_t* tapIdx;
  int taps, quads;
  int64_t pixelStep;
  size_t blockBytes;     // between consecutive blocks
  const int32_t* corr;
  int32_t* out;
  int64_t outStride;
};
using TileFn = void (*)(const TileArgs&);
// One pixel, blocks [0, blocks) of 16 channels, raw sums into acc.
using PixelFn = void (*)(const uint8_t*, const int8_t*, const int64_t*, const int32_t*, int, int,
                         int, int, int32_t*);

#if LE_INT8_X86
#define LE_INT8_DOT_KERNELS(NAME, TARGET, DPBUSD)                                                  \
  __attribute__((target(TARGET))) void NAME##Tile(const TileArgs& a) {                            \
    __m256i a00 = _mm256_setzero_si256(), a01 = a00, a10 = a00, a11 = a00;                        \
    __m256i a20 = a00, a21 = a00, a30 = a00, a31 = a00;                                           \
    const int64_t step = a.pixelStep;                                                             \
    for (int t = 0; t < a.taps; ++t) {                                                            \
      const uint8_t* p = a.in + a.tapOff[t];                                                      \
      const int8_t* w = a.packed + size_t(a.tapIdx[t]) * size_t(a.quads) * 64;                    \
      for (int g = 0; g < a.quads; ++g, p += 4, w += 64) {                                        \
        const __m256i w0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(w));              \
        const __m256i w1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(w + 32));         \
        int32_t v0, v1, v2, v3;                                                                   \
        std::memcpy(&v0, p, 4);                                                                   \
        std::memcpy(&v1, p + step, 4);                                                            \
        std::memcpy(&v2, p + 2 * step, 4);                                                        \
        std::memcpy(&v3, p + 3 * step, 4);                                                        \
        const __m256i b0 = _mm256_set1_epi32(v0), b1 = _mm256_set1_epi32(v1);                    \
        const __m256i b2 = _mm256_set1_epi32(v2), b3 = _mm256_set1_epi32(v3);                     \
        a00 = DPBUSD(a00, b0, w0);                                                                \
        a01 = DPBUSD(a01, b0, w1);                                                                \
        a10 = DPBUSD(a10, b1, w0);                                                                \
        a11 = DPBUSD(a11, b1, w1);                                                                \
        a20 = DPBUSD(a20, b2, w0);                                                                \
        a21 = DPBUSD(a21, b2, w1);                                                                \
        a30 = DPBUSD(a30, b3, w0);                                                                \
        a31 = DPBUSD(a31, b3, w1);                                                                \
      }                                                                                           \
    }                                                                                             \
    const __m256i c0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a.corr));             \
    const __m256i c1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a.corr + 8));         \
    const __m256i r[8] = {a00, a01, a10, a11, a20, a21, a30, a31};                                \
    for (int k = 0; k < 4; ++k) {                                                                 \
      auto* o = reinterpret_cast<__m256i*>(a.out + k * a.outStride);                              \
      _mm256_storeu_si256(o, _mm256_sub_epi32(r[2 * k], c0));                                     \
      _mm256_storeu_si256(o + 1, _mm256_sub_epi32(r[2 * k + 1], c1));                             \
    }                                                                                             \
  }                                                                                               \
  /* Up to four blocks per pass keep eight independent sums in flight. */                         \
  __attribute__((target(TARGET))) void NAME##Pixel(                                               \
      const uint8_t* in, const int8_t* packed, const int64_t* tapOff, const int32_t* tapIdx,      \
      int valid, int taps, int quads, int blocks, int32_t* acc) {                                 \
    const size_t blockBytes = size_t(taps) * size_t(quads) * 64;                                  \
    for (int b0 = 0; b0 < blocks; b0 += 4) {                                                      \
      const int nb = std::min(4, blocks - b0);                                                    \
      __m256i s[8];                                                                               \
      for (__m256i& v : s) v = _mm256_setzero_si256();                                            \
      const int8_t* base = packed + size_t(b0) * blockBytes;                                      \
      for (int i = 0; i < valid; ++i) {                                                           \
        const uint8_t* p = in + tapOff[i];                                                        \
        const int8_t* w = base + size_t(tapIdx[i]) * size_t(quads) * 64;                          \
        for (int g = 0; g < quads; ++g, p += 4, w += 64) {                                        \
          int32_t v;                                                                              \
          std::memcpy(&v, p, 4);                                                                  \
          const __m256i b = _mm256_set1_epi32(v);                                                 \
          const auto* wv = reinterpret_cast<const __m256i*>(w);                                   \
          s[0] = DPBUSD(s[0], b, _mm256_loadu_si256(wv));                                         \
          s[1] = DPBUSD(s[1], b, _mm256_loadu_si256(wv + 1));                                     \
          if (nb > 1) {                                                                           \
            const auto* w1 = reinterpret_cast<const __m256i*>(w + blockBytes);                    \
            s[2] = DPBUSD(s[2], b, _mm256_loadu_si256(w1));                                       \
            s[3] = DPBUSD(s[3], b, _mm256_loadu_si256(w1 + 1));                                   \
          }                                                                                       \
          if (nb > 2) {                                                                           \
            const auto* w2 = reinterpret_cast<const __m256i*>(w + 2 * blockBytes);                \
            s[4] = DPBUSD(s[4], b, _mm256_loadu_si256(w2));                                       \
            s[5] = DPBUSD(s[5], b, _mm256_loadu_si256(w2 + 1));                                   \
          }                                                                                       \
          if (nb > 3) {                                                                           \
            const auto* w3 = reinterpret_cast<const __m256i*>(w + 3 * blockBytes);                \
            s[6] = DPBUSD(s[6], b, _mm256_loadu_si256(w3));                                       \
            s[7] = DPBUSD(s[7], b, _mm256_loadu_si256(w3 + 1));                                   \
          }                                                                                       \
        }                                                                                         \
      }                                                                                           \
      for (int k = 0; k < 2 * nb; ++k)                                                            \
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(acc + (size_t(b0) * 16 + size_t(k) * 8)),  \
                            s[k]);                                                                \
    }                                                                                             \
  }

LE_INT8_DOT_KERNELS(avxVnni, "avx2,avxvnni", _mm256_dpbusd_avx_epi32)
LE_INT8_DOT_KERNELS(avx512Vnni, "avx2,avx512f,avx512vl,avx512vnni", _mm256_dpbusd_epi32)
#undef LE_INT8_DOT_KERNELS

// Two blocks (32 channels) per tile with 512-bit dot products.
__attribute__((target("avx512f,avx512vnni"))) void avx512VnniTile2(const TileArgs& a) {
  __m512i a00 = _mm512_setzero_si512(), a01 = a00, a10 = a00, a11 = a00;
  __m512i a20 = a00, a21 = a00, a30 = a00, a31 = a00;
  const int64_t step = a.pixelStep;
  for (int t = 0; t < a.taps; ++t) {
    const uint8_t* p = a.in + a.tapOff[t];
    const int8_t* w = a.packed + size_t(a.tapIdx[t]) * size_t(a.quads) * 64;
    for (int g = 0; g < a.quads; ++g, p += 4, w += 64) {
      const __m512i w0 = _mm512_loadu_si512(w);
      const __m512i w1 = _mm512_loadu_si512(w + a.blockBytes);
      int32_t v0, v1, v2, v3;
      std::memcpy(&v0, p, 4);
      std::memcpy(&v1, p + step, 4);
      std::memcpy(&v2, p + 2 * step, 4);
      std::memcpy(&v3, p + 3 * step, 4);
      const __m512i b0 = _mm512_set1_epi32(v0), b1 = _mm512_set1_epi32(v1);
      const __m512i b2 = _mm512_set1_epi32(v2), b3 = _mm512_set1_epi32(v3);
      a00 = _mm512_dpbusd_epi32(a00, b0, w0);
      a01 = _mm512_dpbusd_epi32(a01, b0, w1);
      a10 = _mm512_dpbusd_epi32(a10, b1, w0);
      a11 = _mm512_dpbusd_epi32(a11, b1, w1);
      a20 = _mm512_dpbusd_epi32(a20, b2, w0);
      a21 = _mm512_dpbusd_epi32(a21, b2, w1);
      a30 = _mm512_dpbusd_epi32(a30, b3, w0);
      a31 = _mm512_dpbusd_epi32(a31, b3, w1);
    }
  }
  const __m512i c0 = _mm512_loadu_si512(a.corr), c1 = _mm512_loadu_si512(a.corr + 16);
  const __m512i r[8] = {a00, a01, a10, a11, a20, a21, a30, a31};
  for (int k = 0; k < 4; ++k) {
    int32_t* o = a.out + k * a.outStride;
    _mm512_storeu_si512(o, _mm512_sub_epi32(r[2 * k], c0));
    _mm512_storeu_si512(o + 16, _mm512_sub_epi32(r[2 * k + 1], c1));
  }
}
#endif

// The kernels of a path; null where the path has none (tile2: AVX-512 only).
struct PathKernels {
  TileFn tile = nullptr, tile2 = nullptr;
  PixelFn pixel = nullptr;
};

PathKernels kernelsOf(int8conv::Path p) {
#if LE_INT8_X86
  if (p == int8conv::Path::AvxVnni) return {avxVnniTile, nullptr, avxVnniPixel};
  if (p == int8conv::Path::Avx512Vnni) return {avx512VnniTile, avx512VnniTile2, avx512VnniPixel};
#endif
  (void)p;
  return {};
}

std::atomic<int> gForced{static_cast<int>(int8conv::Path::Auto)};
std::atomic<uint64_t> gPreparations{0};

}  // namespace

// ---- range ------------------------------------------------------------------------------

void minmax_avx2(const float* data, size_t count, float& mn, float& mx) {
#if LE_INT8_X86
  if (haveAvx2()) {
    minmaxAvx2(data, count, mn, mx);
    return;
  }
#endif
  minmaxScalar(data, count, mn, mx);
}

void minmax_par(const float* data, size_t count, float& mn, float& mx) {
  mn = 0.f;
  mx = 0.f;
  const int p = pool::parts(count, 4096);
  if (p < 2) {
    minmax_avx2(data, count, mn, mx);
    return;
  }
  std::vector<float> lo(size_t(p), 0.f), hi(size_t(p), 0.f);
  pool::parallelRange(size_t(p), 1, [&](size_t b, size_t e) {
    for (size_t i = b; i < e; ++i) {
      const size_t from = count * i / size_t(p), to = count * (i + 1) / size_t(p);
      minmax_avx2(data + from, to - from, lo[i], hi[i]);
    }
  });
  for (int i = 0; i < p; ++i) {
    mn = std::min(mn, lo[size_t(i)]);
    mx = std::max(mx, hi[size_t(i)]);
  }
}

namespace int8conv {

// ---- geometry and quantisation parameters ---------------------------------------------------

Geometry geometry(const std::vector<int64_t>& x, const std::vector<int64_t>& w,
                  const std::vector<int64_t>& strides, const std::vector<int64_t>& pads,
                  const std::vector<int64_t>& dilations, int64_t group) {
  if (x.size() != 4) refuse("input 0 must be [N, IC, H, W], got " + shapeText(x));
  if (w.size() != 4) refuse("the weights must be [OC, IC / group, KH, KW], got " + shapeText(w));
  for (int64_t d : x)
    if (d < 0) refuse("input 0 has a dynamic dimension " + shapeText(x));
  Geometry g;
  g.N = x[0], g.IC = x[1], g.H = x[2], g.W = x[3];
  g.OC = w[0], g.KH = w[2], g.KW = w[3];
  if (group < 1) refuse("group " + std::to_string(group) + " is not positive");
  g.group = group;
  if (g.IC % group != 0 || w[1] != g.IC / group || g.OC < 1 || g.OC % group != 0)
    refuse("weights " + shapeText(w) + " do not fit input " + shapeText(x) + " with group " +
           std::to_string(group));
  if (g.KH < 1 || g.KW < 1) refuse("empty kernel " + shapeText(w));
  auto pairOf = [](const std::vector<int64_t>& v, const char* name, int64_t lo, int64_t& a, int64_t& b) {
    if (v.empty()) return;
    if (v.size() != 2 || v[0] < lo || v[1] < lo)
      refuse(std::string("\"") + name + "\" must hold two values of at least " + std::to_string(lo) +
             ", got " + shapeText(v));
    a = v[0], b = v[1];
  };
  pairOf(strides, "strides", 1, g.strideH, g.strideW);
  pairOf(dilations, "dilations", 1, g.dilH, g.dilW);
  if (!pads.empty()) {
    if (pads.size() != 4 || *std::min_element(pads.begin(), pads.end()) < 0)
      refuse("\"pads\" must hold four non-negative values, got " + shapeText(pads));
    g.padTop = pads[0], g.padLeft = pads[1], g.padBottom = pads[2], g.padRight = pads[3];
  }
  const int64_t spanH = g.H + g.padTop + g.padBottom - g.dilH * (g.KH - 1) - 1;
  const int64_t spanW = g.W + g.padLeft + g.padRight - g.dilW * (g.KW - 1) - 1;
  if (spanH < 0 || spanW < 0)
    refuse("the kernel " + shapeText(w) + " with its dilations does not fit the padded input " +
           shapeText(x));
  g.OH = spanH / g.strideH + 1;
  g.OW = spanW / g.strideW + 1;
  if (g.taps() > INT32_MAX / 2 || g.icPadded() / 4 > INT32_MAX / 2 || g.OC > INT32_MAX / 2)
    refuse("a kernel of " + shapeText(w) + " is larger than this operator indexes");
  return g;
}

Quant quantParams(float mn, float mx) {
  Quant q;
  const float s = (mx - mn) / 255.f;
  q.scale = s > 0.f ? s : 1.f;
  const float z = std::rint(-mn / q.scale);
  q.zeroPoint = z >= 255.f ? 255 : (z > 0.f ? static_cast<int>(z) : 0);
  return q;
}

// ---- paths --------------------------------------------------------------------------------

bool pathAvailable(Path p) {
  switch (p) {
    case Path::Auto:
    case Path::Scalar: return true;
    case Path::AvxVnni: {
      static const bool ok = haveAvx2() && haveAvxVnni();
      return ok;
    }
    case Path::Avx512Vnni: {
      static const bool ok = haveAvx2() && LE_CPU_HAS("avx512vl") && LE_CPU_HAS("avx512vnni");
      return ok;
    }
  }
  return false;
}

Path bestPath() {
  if (pathAvailable(Path::Avx512Vnni)) return Path::Avx512Vnni;
  if (pathAvailable(Path::AvxVnni)) return Path::AvxVnni;
  return Path::Scalar;
}

void forcePath(Path p) { gForced.store(static_cast<int>(p)); }

uint64_t preparations() { return gPreparations.load(); }

// ---- weights --------------------------------------------------------------------------------

PreparedWeights::PreparedWeights(const int8_t* weights, const Geometry& g) {
  const int64_t OC = g.OC, icg = g.icPerGroup(), ocg = g.ocPerGroup(), taps = g.taps();
  oc_ = OC, icg_ = icg, kh_ = g.KH, kw_ = g.KW, group_ = g.group;
  original_.assign(weights, weights + OC * icg * taps);
  sums_.assign(size_t(OC), 0);
  tapSums_.assign(size_t(taps * OC), 0);
  for (int64_t oc = 0; oc < OC; ++oc)
    for (int64_t ic = 0; ic < icg; ++ic)
      for (int64_t t = 0; t < taps; ++t) {
        const int32_t v = weights[(oc * icg + ic) * taps + t];
        sums_[size_t(oc)] += v;
        tapSums_[size_t(t * OC + oc)] += v;
      }
  ocBlocks_ = (ocg + 15) / 16;
  icQuads_ = (icg + 3) / 4;
  const size_t blockBytes = size_t(taps * icQuads_ * 64);
  packed_.assign(size_t(g.group * ocBlocks_) * blockBytes, 0);
  for (int64_t gi = 0; gi < g.group; ++gi)
    for (int64_t o = 0; o < ocg; ++o) {
      const int64_t oc = gi * ocg + o;
      int8_t* block = packed_.data() + size_t(gi * ocBlocks_ + o / 16) * blockBytes;
      for (int64_t t = 0; t < taps; ++t)
        for (int64_t ic = 0; ic < icg; ++ic)
          block[size_t((t * icQuads_ + ic / 4) * 64 + (o % 16) * 4 + ic % 4)] =
              weights[(oc * icg + ic) * taps + t];
    }
  gPreparations.fetch_add(1);
}

bool PreparedWeights::same(const int8_t* weights, const Geometry& g) const {
  return g.OC == oc_ && g.icPerGroup() == icg_ && g.KH == kh_ && g.KW == kw_ && g.group == group_ &&
         std::memcmp(weights, original_.data(), original_.size()) == 0;
}

// ---- quantisation ----------------------------------------------------------------------------

void quantise(const float* x, const Geometry& g, Quant qp, uint8_t* q) {
  const int64_t icp = g.icPadded(), rows = g.N * g.H;
  const size_t hw = size_t(g.H * g.W);
  const float zp = static_cast<float>(qp.zeroPoint);
  const size_t rowValues = size_t(std::max<int64_t>(1, g.W * g.IC));
  pool::parallelRange(size_t(rows), std::max<size_t>(1, 16384 / rowValues), [&](size_t b, size_t e) {
    for (size_t r = b; r < e; ++r) {
      const int64_t n = int64_t(r) / g.H, y = int64_t(r) % g.H;
      uint8_t* dst = q + size_t(r) * size_t(g.W * icp);
      for (int64_t c = 0; c < icp; c += 4) {
        const float* src = x + (size_t(n * g.IC + std::min(c, g.IC - 1)) * hw) + size_t(y * g.W);
#if LE_INT8_X86
        if (haveAvx2()) {
          quantRowAvx2(src, hw, g.W, c, g.IC, icp, qp.scale, zp, dst + c);
          continue;
        }
#endif
        quantRowScalar(src, hw, g.W, c, g.IC, icp, qp.scale, zp, dst + c);
      }
    }
  });
}

void interior_tile(Path path, const uint8_t* in, const int8_t* packed, const int64_t* tapOffsets,
                   int taps, int quads, int64_t pixelStep, int32_t* acc) {
  const TileFn f = pathAvailable(path) ? kernelsOf(path).tile : nullptr;
  if (!f) throw std::runtime_error("interior_tile: the processor has no such dot-product path");
  std::vector<int32_t> idx(static_cast<size_t>(taps));
  for (int t = 0; t < taps; ++t) idx[size_t(t)] = t;
  const int32_t zeros[16] = {0};
  f(TileArgs{in, packed, tapOffsets, idx.data(), taps, quads, pixelStep, 0, zeros, acc, 16});
}

// ---- the convolution ---------------------------------------------------------------------------

namespace {

// What every output row of one call shares.
struct RowJob {
  const Geometry* g;
  const PreparedWeights* w;
  const uint8_t* q;
  const float* scale;  // per output channel: quant scale x weight scale
  const float* bias;
  float* y;
  uint32_t zp;
  TileFn tile;    // null on the plain path
  TileFn tile2;   // two blocks per tile, where the processor has 512-bit dot products
  PixelFn pixel;  // null on the plain path
  int64_t oxLo, oxHi;  // columns whose horizontal taps all fall inside
};

// One worker's buffers, reused row to row. Sums are kept pixel-major: [OW][channels of a group
// rounded up to 16], corrected.
struct RowScratch {
  std::vector<int32_t> acc;
  std::vector<int64_t> off;   // valid taps: byte offsets ...
  std::vector<int32_t> idx;   // ... and tap indices
  std::vector<int32_t> corr;  // zero point x the weights of those taps, per channel
  std::vector<int32_t> pix;   // a lone pixel's raw sums
  RowScratch(const Geometry& g, const PreparedWeights& w)
      : acc(size_t(w.ocBlocks() * 16 * g.OW)), off(size_t(g.taps())), idx(size_t(g.taps())),
        corr(size_t(w.ocBlocks() * 16)), pix(size_t(w.ocBlocks() * 16)) {}
};

// corr[o] = zp x the sum of group gi's channel o weights over the listed taps (wrapping like
// the sums themselves); channels past the group's stay 0.
void correction(const RowJob& j, int64_t gi, const int32_t* idx, int valid, int32_t* corr) {
  const Geometry& g = *j.g;
  const int64_t ocg = g.ocPerGroup();
  const int32_t* tapSums = j.w->tapSums().data() + gi * ocg;
  uint32_t* c = reinterpret_cast<uint32_t*>(corr);
  std::fill(c, c + j.w->ocBlocks() * 16, 0u);
  for (int i = 0; i < valid; ++i) {
    const int32_t* ts = tapSums + size_t(idx[i]) * size_t(g.OC);
    for (int64_t o = 0; o < ocg; ++o) c[o] += uint32_t(ts[o]);
  }
  for (int64_t o = 0; o < ocg; ++o) c[o] *= j.zp;
}

// Raw sums of one output pixel over its valid taps, plain loops.
void pixelScalar(const RowJob& j, const uint8_t* image, const int64_t* off, const int32_t* idx,
                 int valid, int64_t gi, int32_t* acc) {
  const Geometry& g = *j.g;
  const int64_t icg = g.icPerGroup(), taps = g.taps(), blocks = j.w->ocBlocks(), quads = j.w->icQuads();
  for (int64_t b = 0; b < blocks; ++b) {
    uint32_t s[16] = {0};
    const int8_t* block = j.w->packed() + size_t((gi * blocks + b) * taps * quads * 64);
    for (int i = 0; i < valid; ++i) {
      const uint8_t* p = image + off[i];
      const int8_t* wt = block + size_t(idx[i]) * size_t(quads) * 64;
      for (int64_t ic = 0; ic < icg; ++ic) {
        const int32_t v = p[ic];
        const int8_t* wk = wt + (ic / 4) * 64 + ic % 4;
        for (int o = 0; o < 16; ++o) s[o] += static_cast<uint32_t>(v * wk[4 * o]);
      }
    }
    for (int o = 0; o < 16; ++o) acc[b * 16 + o] = static_cast<int32_t>(s[o]);
  }
}

void convRow(const RowJob& j, int64_t n, int64_t oy, RowScratch& rs) {
  const Geometry& g = *j.g;
  const PreparedWeights& w = *j.w;
  const int64_t icp = g.icPadded(), taps = g.taps(), ocg = g.ocPerGroup(), icg = g.icPerGroup();
  const int64_t OW = g.OW, chans = w.ocBlocks() * 16;
  const int quads = static_cast<int>(w.icQuads()), blocks = static_cast<int>(w.ocBlocks());
  const int64_t iy0 = oy * g.strideH - g.padTop;
  const uint8_t* image = j.q + size_t(n * g.H * g.W * icp);
  const size_t blockBytes = size_t(taps) * size_t(quads) * 64;
  int32_t* acc = rs.acc.data();
  int64_t* off = rs.off.data();
  int32_t* idx = rs.idx.data();

  for (int64_t gi = 0; gi < g.group; ++gi) {
    const int8_t* packed = w.packed() + size_t(gi * blocks) * blockBytes;
    // Columns with every horizontal tap inside go in tiles of 4 pixels over the kernel rows
    // that fall inside this output row (the last tile may overlap its neighbour).
    int64_t tiledLo = 0, tiledHi = 0;
    if (j.tile && j.oxHi - j.oxLo >= 4) {
      int valid = 0;
      for (int64_t ky = 0; ky < g.KH; ++ky) {
        const int64_t iy = iy0 + ky * g.dilH;
        if (iy < 0 || iy >= g.H) continue;
        for (int64_t kx = 0; kx < g.KW; ++kx) {
          off[valid] = (ky * g.dilH * g.W + kx * g.dilW) * icp;
          idx[valid] = static_cast<int32_t>(ky * g.KW + kx);
          ++valid;
        }
      }
      correction(j, gi, idx, valid, rs.corr.data());
      tiledLo = j.oxLo, tiledHi = j.oxHi;
      for (int64_t ox = tiledLo;; ox += 4) {
        const int64_t x = std::min(ox, tiledHi - 4);
        const int64_t ix0 = x * g.strideW - g.padLeft;
        TileArgs a{image + (iy0 * g.W + ix0) * icp + gi * icg, packed, off, idx, valid, quads,
                   g.strideW * icp, blockBytes, rs.corr.data(), acc + x * chans, chans};
        for (int b = 0; b < blocks;) {
          const int nb = j.tile2 && b + 2 <= blocks ? 2 : 1;
          a.packed = packed + size_t(b) * blockBytes;
          a.corr = rs.corr.data() + b * 16;
          a.out = acc + x * chans + b * 16;
          (nb == 2 ? j.tile2 : j.tile)(a);
          b += nb;
        }
        if (x == tiledHi - 4) break;
      }
    }
    // The other pixels one by one: only the taps inside the input, corrected by exactly
    // their weights.
    for (int64_t ox = 0; ox < OW; ++ox) {
      if (ox == tiledLo && tiledHi > tiledLo) ox = tiledHi;
      if (ox >= OW) break;
      const int64_t ix0 = ox * g.strideW - g.padLeft;
      const int64_t origin = (iy0 * g.W + ix0) * icp + gi * icg;  // may lie outside the image
      int valid = 0;
      for (int64_t ky = 0; ky < g.KH; ++ky) {
        const int64_t iy = iy0 + ky * g.dilH;
        if (iy < 0 || iy >= g.H) continue;
        for (int64_t kx = 0; kx < g.KW; ++kx) {
          const int64_t ix = ix0 + kx * g.dilW;
          if (ix < 0 || ix >= g.W) continue;
          off[valid] = origin + (ky * g.dilH * g.W + kx * g.dilW) * icp;
          idx[valid] = static_cast<int32_t>(ky * g.KW + kx);
          ++valid;
        }
      }
      if (j.pixel)
        j.pixel(image, packed, off, idx, valid, int(taps), quads, blocks, rs.pix.data());
      else
        pixelScalar(j, image, off, idx, valid, gi, rs.pix.data());
      correction(j, gi, idx, valid, rs.corr.data());
      int32_t* a = acc + ox * chans;
      for (int64_t o = 0; o < chans; ++o)
        a[o] = static_cast<int32_t>(uint32_t(rs.pix[size_t(o)]) - uint32_t(rs.corr[size_t(o)]));
    }
    // Dequantise the group's channels of this row.
    for (int64_t o = 0; o < ocg; ++o) {
      const int64_t oc = gi * ocg + o;
      const float s = j.scale[oc], bias = j.bias[oc];
      float* dst = j.y + size_t(((n * g.OC + oc) * g.OH + oy) * OW);
      for (int64_t x = 0; x < OW; ++x) dst[x] = static_cast<float>(acc[x * chans + o]) * s + bias;
    }
  }
}

}  // namespace

void conv(const float* x, const PreparedWeights& w, const float* weightScale, const float* bias,
          float* y, const Geometry& g, Path path) {
  if (path == Path::Auto) {
    const Path forced = static_cast<Path>(gForced.load());
    path = forced == Path::Auto ? bestPath() : forced;
  }
  if (!pathAvailable(path))
    throw std::runtime_error(std::string(kWho) + "the processor has no such dot-product path");
  if (g.N * g.OC * g.OH * g.OW == 0) return;

  const size_t count = size_t(g.N * g.IC * g.H * g.W);
  float mn = 0.f, mx = 0.f;
  minmax_par(x, count, mn, mx);
  const Quant qp = quantParams(mn, mx);

  // The quantised input lives as long as the calling thread and is reused call to call.
  thread_local std::vector<uint8_t> qbuf;
  const size_t qbytes = size_t(g.N * g.H * g.W * g.icPadded());
  if (qbuf.size() < qbytes + kQuantSlack) qbuf.resize(qbytes + kQuantSlack);
  std::memset(qbuf.data() + qbytes, 0, kQuantSlack);
  quantise(x, g, qp, qbuf.data());

  std::vector<float> scale(size_t(g.OC));
  for (int64_t oc = 0; oc < g.OC; ++oc) scale[size_t(oc)] = qp.scale * weightScale[oc];

  RowJob j;
  j.g = &g;
  j.w = &w;
  j.q = qbuf.data();
  j.scale = scale.data();
  j.bias = bias;
  j.y = y;
  j.zp = static_cast<uint32_t>(qp.zeroPoint);
  const PathKernels k = kernelsOf(path);
  j.tile = k.tile, j.tile2 = k.tile2, j.pixel = k.pixel;
  // Columns whose horizontal taps all fall inside: ix0 >= 0 and ix0 + span < W.
  j.oxLo = std::min(g.OW, (g.padLeft + g.strideW - 1) / g.strideW);
  const int64_t lastStart = g.W - 1 - g.dilW * (g.KW - 1) + g.padLeft;
  j.oxHi = lastStart < 0 ? j.oxLo : std::clamp(lastStart / g.strideW + 1, j.oxLo, g.OW);

  const size_t rows = size_t(g.N * g.OH);
  pool::parallelRange(rows, 1, [&](size_t b, size_t e) {
    RowScratch rs(g, w);
    for (size_t r = b; r < e; ++r) convRow(j, int64_t(r) / g.OH, int64_t(r) % g.OH, rs);
  });
}

}  // namespace int8conv

// ---- the ONNX Runtime operator ------------------------------------------------------------

namespace {

std::vector<int64_t> intsAttr(const Ort::ConstKernelInfo& info, const char* name) {
  try {
    return info.GetAttributes<int64_t>(name);
  } catch (const Ort::Exception&) {
    return {};  // absent
  }
}

}  // namespace

Int8ConvKernel::Int8ConvKernel(const OrtKernelInfo* info) {
  const Ort::ConstKernelInfo ki(info);
  strides_ = intsAttr(ki, "strides");
  pads_ = intsAttr(ki, "pads");
  dilations_ = intsAttr(ki, "dilations");
  try {
    group_ = ki.GetAttribute<int64_t>("group");
  } catch (const Ort::Exception&) {
    group_ = 1;
  }
  vnni_ = int8conv::bestPath() != int8conv::Path::Scalar;
}

OrtStatusPtr Int8ConvKernel::ComputeV2(OrtKernelContext* context) {
  return gsf::computeStatus(*this, context);
}

void Int8ConvKernel::compute(Ort::KernelContext& ctx) {
  Ort::ConstValue x = ctx.GetInput(0), w = ctx.GetInput(1), s = ctx.GetInput(2), b = ctx.GetInput(3);
  const std::vector<int64_t> xs = x.GetTensorTypeAndShapeInfo().GetShape();
  const std::vector<int64_t> ws = w.GetTensorTypeAndShapeInfo().GetShape();
  const int8conv::Geometry g = int8conv::geometry(xs, ws, strides_, pads_, dilations_, group_);
  const size_t scales = s.GetTensorTypeAndShapeInfo().GetElementCount();
  const size_t biases = b.GetTensorTypeAndShapeInfo().GetElementCount();
  if (scales != size_t(g.OC) || biases != size_t(g.OC))
    refuse("weight scales and bias must hold one value per output channel (" + std::to_string(g.OC) +
           "), got " + std::to_string(scales) + " and " + std::to_string(biases));
  Ort::UnownedValue y = ctx.GetOutput(0, {g.N, g.OC, g.OH, g.OW});
  const int8_t* wd = w.GetTensorData<int8_t>();
  std::call_once(prepareOnce_, [&] { prepared_ = std::make_unique<int8conv::PreparedWeights>(wd, g); });
  if (!prepared_->same(wd, g))
    refuse("the weights differ from those of the first run; this operator prepares constant "
           "(initializer) weights once");
  int8conv::conv(x.GetTensorData<float>(), *prepared_, s.GetTensorData<float>(), b.GetTensorData<float>(),
                 y.GetTensorMutableData<float>(), g, vnni_ ? int8conv::Path::Auto : int8conv::Path::Scalar);
}

namespace {
using Int8ConvOp = gsf::FloatOp<Int8ConvKernel>;
}  // namespace

Ort::CustomOpDomain& int8Domain() {
  ortApi();
  static Int8ConvOp op;
  static Ort::CustomOpDomain domain = [] {
    Ort::CustomOpDomain d(kInt8Domain);
    d.Add(&op);
    return d;
  }();
  return domain;
}

void registerInt8ConvVNNI(Ort::SessionOptions& options) { options.Add(int8Domain()); }

}  // namespace le
