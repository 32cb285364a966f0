// Every vector kernel, on every compiled target this processor runs, against plain scalar
// references written here from the kernels' formulas, bit for bit.
#include "le/le_simd.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "tests/support/fold_paste_ref.h"
#include "tests/support/media.h"
#include "tests/tessera_reference.h"
#include "tests/test_util2.h"

namespace {

uint32_t bitsOf(float f) {
  uint32_t u;
  std::memcpy(&u, &f, 4);
  return u;
}
float fromBits(uint32_t u) {
  float f;
  std::memcpy(&f, &u, 4);
  return f;
}

// ---- scalar references -------------------------------------------------------------

// binary16 <-> float by the compiler's IEEE conversions (nearest-even; NaNs quiet, payload kept
// as far as it fits), not the engine's.
float refHalfToFloat(uint16_t h) {
  _Float16 f;
  std::memcpy(&f, &h, 2);
  return static_cast<float>(f);
}
uint16_t refFloatToHalf(float x) {
  const _Float16 f = static_cast<_Float16>(x);
  uint16_t h;
  std::memcpy(&h, &f, 2);
  return h;
}

float refRoundHalf(float x) { return refHalfToFloat(refFloatToHalf(x)); }

float refDistance(const uint16_t* a, const uint16_t* b, size_t n, size_t i) {
  float d = 0.0f;
  for (int k = 0; k < 3; ++k)
    d = d + std::fabs(refRoundHalf(refHalfToFloat(a[k * n + i]) - refHalfToFloat(b[k * n + i])));
  return refRoundHalf(d / 3.0f);
}

float refPooled(const uint16_t* a, const uint16_t* b, const uint16_t* w, size_t n) {
  float total = 0.0f;
  for (size_t i = 0; i < n; ++i) total = total + refRoundHalf(refDistance(a, b, n, i) * refHalfToFloat(w[i]));
  return total;
}

float refExactRange(const uint16_t* a, const uint16_t* b, const float* w, size_t n, size_t lo, size_t hi) {
  float total = 0.0f;
  for (size_t i = lo; i < hi; ++i)
    if (w[i] != 0.0f) total = total + w[i] * refDistance(a, b, n, i);
  return total;
}

// Output planes (image, channel) begin .. end-1 of the plain-loop convolution; the rest untouched.
void refConv(const std::vector<float>& in, int N, int Cin, int H, int W, const std::vector<float>& wt,
             const std::vector<float>& bias, int Cout, std::vector<float>& out, int begin, int end) {
  const size_t plane = size_t(H) * W;
  for (int n = 0; n < N; ++n) {
    const std::vector<float> y = le::testref::conv3x3(in.data() + n * Cin * plane, Cin, H, W, wt, bias, Cout, false);
    for (int k = std::max(begin, n * Cout); k < std::min(end, (n + 1) * Cout); ++k)
      std::copy_n(y.data() + (k - n * Cout) * plane, plane, out.data() + k * plane);
  }
}

void refYuvRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, int width, int step, uint8_t* rgb) {
  for (int x = 0; x < width; ++x) le::testmedia::yuvToRgbRef(y[x], u[(x >> 1) * step], v[(x >> 1) * step], rgb + 3 * x);
}

// ---- running on every target ---------------------------------------------------------

// Runs body once per runnable target with dispatch forced to that target, which the engine names.
template <class Fn>
void forEachTarget(Fn&& body) {
  le::testing::onEveryTarget([&](const char* name) {
    ASSERT_STREQ(name, le::simd::target());
    SCOPED_TRACE(std::string("target ") + name);
    body();
  });
}

// Equal element for element (floats by their bits), naming the first difference.
template <class T>
::testing::AssertionResult same(const std::vector<T>& got, const std::vector<T>& want) {
  if (got.size() != want.size())
    return ::testing::AssertionFailure() << got.size() << " vs " << want.size() << " values";
  for (size_t i = 0; i < got.size(); ++i)
    if (std::memcmp(&got[i], &want[i], sizeof(T)) != 0)
      return ::testing::AssertionFailure() << "first difference at " << i << ": " << +got[i] << " vs "
                                           << +want[i];
  return ::testing::AssertionSuccess();
}

const size_t kLengths[] = {0, 1, 3, 7, 8, 15, 16, 17, 31, 33, 63, 64, 65, 100, 131};

TEST(SimdHalf, WideningAllHalvesExact) {
  std::vector<uint16_t> all(65536);
  std::vector<float> want(65536);
  for (size_t i = 0; i < all.size(); ++i) want[i] = refHalfToFloat(all[i] = static_cast<uint16_t>(i));
  forEachTarget([&] {
    std::vector<float> got(65536), widened(65536);
    le::simd::f16ToF32(all.data(), got.data(), all.size());
    ASSERT_TRUE(same(got, want));
    // Every length and start offset: the scalar tail on the same values, nothing written past n.
    for (size_t len : kLengths)
      for (size_t base = 0x7BF0; base < 0x7BF0 + 3 * 977; base += 977) {
        std::vector<float> part(len + 1, -7.0f), exp(want.data() + base, want.data() + base + len);
        exp.push_back(-7.0f);
        le::simd::f16ToF32(all.data() + base, part.data(), len);
        ASSERT_TRUE(same(part, exp));
      }
    le::halfToFloat(all.data(), widened.data(), all.size());
    ASSERT_TRUE(same(widened, got));
  });
}

// Floats that probe every rounding decision: all halves, the midpoints between neighbours
// and one float either side, the overflow threshold, NaNs, and random bit patterns.
std::vector<float> probeFloats() {
  std::vector<float> v;
  for (uint32_t h = 0; h < 0x7C00; ++h) {
    const float a = refHalfToFloat(static_cast<uint16_t>(h));
    const float b = h + 1 < 0x7C00 ? refHalfToFloat(static_cast<uint16_t>(h + 1)) : 65536.0f;
    const float mid = static_cast<float>((static_cast<double>(a) + b) / 2);
    for (float f : {a, mid, std::nextafter(mid, 0.0f), std::nextafter(mid, 1e9f)}) {
      v.push_back(f);
      v.push_back(-f);
    }
  }
  for (uint32_t b : {0x7F800000u, 0xFF800000u, 0x7F800001u, 0x7FC00000u, 0xFFFFFFFFu, 0x7FA00000u,
                     0x7F802001u, 0x00000001u, 0x80000001u, 0x007FFFFFu, 0x33000000u, 0x33000001u,
                     0x477FEFFFu, 0x477FF000u, 0x47800000u, 0x7F7FFFFFu})
    v.push_back(fromBits(b));
  std::mt19937 rng(12345);
  for (int i = 0; i < 300000; ++i) v.push_back(fromBits(static_cast<uint32_t>(rng())));
  return v;
}

TEST(SimdHalf, NarrowingMatchesNearestEven) {
  const std::vector<float> in = probeFloats();
  std::vector<uint16_t> want(in.size());
  for (size_t i = 0; i < in.size(); ++i) want[i] = refFloatToHalf(in[i]);
  forEachTarget([&] {
    std::vector<uint16_t> got(in.size());
    le::simd::f32ToF16(in.data(), got.data(), in.size());
    ASSERT_TRUE(same(got, want));
    for (size_t len : kLengths) {
      std::vector<uint16_t> part(len + 1, 0xABCD), exp(want.begin() + 5, want.begin() + 5 + long(len));
      exp.push_back(0xABCD);
      le::simd::f32ToF16(in.data() + 5, part.data(), len);
      ASSERT_TRUE(same(part, exp));
    }
  });
  // The scalar conversion saturates NaNs to infinity: everything from 65536 up is infinite.
  for (float f : in) {
    const uint32_t b = bitsOf(f);
    const uint16_t inf = static_cast<uint16_t>(((b >> 16) & 0x8000) | 0x7C00);
    ASSERT_EQ(le::f32ToF16(f), (b & 0x7FFFFFFF) >= 0x47800000u ? inf : refFloatToHalf(f)) << std::hex << b;
  }
}

TEST(SimdHalf, RoundMulAndRgbPlanes) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> ua(-70000.0f, 70000.0f), ub(-3.0f, 3.0f);
  std::vector<float> a(4099), b(4099);
  for (size_t i = 0; i < a.size(); ++i) {
    const float s = std::ldexp(1.0f, static_cast<int>(rng() % 40) - 30);
    a[i] = ua(rng) * s / 70000.0f * (i % 5 == 0 ? 70000.0f : 1.0f);
    b[i] = ub(rng);
  }
  a[3] = std::nanf(""), a[4] = INFINITY, a[5] = 1e-9f;
  // Every byte value in every channel position, with planes further apart than n.
  std::vector<uint8_t> rgb(3 * 300);
  for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<uint8_t>((i * 7 + i / 3) & 255);
  rgb[0] = 255, rgb[1] = 0;
  forEachTarget([&] {
    for (size_t len : {a.size(), size_t{0}, size_t{9}, size_t{17}, size_t{35}}) {
      // f(i) for the first len values, then the sentinel nothing may overwrite
      const auto expect = [&](auto f) {
        std::vector<float> w(len + 1, 5.0f);
        for (size_t i = 0; i < len; ++i) w[i] = f(i);
        return w;
      };
      std::vector<float> got(len + 1, 5.0f), rounded(a.begin(), a.begin() + std::ptrdiff_t(len));
      le::simd::roundF16Mul(a.data(), b.data(), got.data(), len);
      ASSERT_TRUE(same(got, expect([&](size_t i) { return refRoundHalf(a[i]) * b[i]; })));
      rounded.push_back(5.0f);
      le::simd::roundF16(rounded.data(), rounded.data(), len);  // in place
      ASSERT_TRUE(same(rounded, expect([&](size_t i) { return refRoundHalf(a[i]); })));
      for (double w : {0.0, 0.3017, 0.999}) {
        le::simd::blendRoundF16(a.data(), b.data(), w, got.data(), len);
        const auto blend = [&](size_t i) {
          return refRoundHalf(float(double(a[i]) * (1.0 - w) + double(b[i]) * w));
        };
        ASSERT_TRUE(same(got, expect(blend)));
      }
    }
    for (size_t n : {size_t{300}, size_t{1}, size_t{19}, size_t{64}}) {
      const size_t stride = n + 11;
      std::vector<uint16_t> out(3 * stride, 0xEEEE), want(3 * stride, 0xEEEE);
      for (size_t k = 0; k < 3; ++k)
        for (size_t i = 0; i < n; ++i) want[k * stride + i] = refFloatToHalf(float(rgb[3 * i + k]) / 255.0f);
      le::simd::rgb8ToPlanarF16(rgb.data(), out.data(), stride, n);
      ASSERT_TRUE(same(out, want)) << n << " pixels";
    }
  });
}

TEST(SimdRetrieve, TermsFollowIndexOrder) {
  std::mt19937 rng(99);
  const auto randomHalf = [&](uint32_t range, float div) {
    return refFloatToHalf(float(rng() % range) / div);
  };
  const size_t n = 1037;
  std::vector<uint16_t> a(3 * n), b(3 * n), wh(n);
  std::vector<float> wf(n), wzero(n, 0.0f);
  for (size_t i = 0; i < 3 * n; ++i) a[i] = randomHalf(100000, 1e5f), b[i] = randomHalf(100000, 1e5f);
  for (size_t i = 0; i < n; ++i) wh[i] = randomHalf(1000, 997.0f), wf[i] = float(rng() % 5000) / 313.0f;
  // Infinities only where the exact weight is zero: those pixels must not count.
  std::vector<uint16_t> ainf = a;
  for (size_t i = 0; i < n; i += 7) ainf[i] = 0x7C00, ainf[n + i] = 0xFC00, wf[i] = 0.0f;
  for (size_t i = 3; i < n; i += 7) wf[i] = 0.0f;
  forEachTarget([&] {
    EXPECT_EQ(bitsOf(le::simd::retrieveTermExact(ainf.data(), b.data(), wf.data(), n)),
              bitsOf(refExactRange(ainf.data(), b.data(), wf.data(), n, 0, n)));
    for (size_t lo : {size_t{0}, size_t{1}, size_t{13}, size_t{500}})
      for (size_t hi : {lo, lo + 1, lo + 9, lo + 40, n})
        ASSERT_EQ(bitsOf(le::simd::retrieveTermExactRange(ainf.data(), b.data(), wf.data(), n, lo, hi)),
                  bitsOf(refExactRange(ainf.data(), b.data(), wf.data(), n, lo, hi)))
            << lo << ".." << hi;
    for (size_t len : {size_t{1}, size_t{5}, size_t{16}, size_t{21}, n})
      ASSERT_EQ(bitsOf(le::simd::retrieveTermPooled(a.data(), b.data(), wh.data(), len)),
                bitsOf(refPooled(a.data(), b.data(), wh.data(), len)));
    EXPECT_EQ(le::simd::retrieveTermExact(ainf.data(), b.data(), wzero.data(), n), 0.0f);
  });

  // sixteen images interleaved: each lane equals the scalar sum of its own image
  constexpr size_t L = le::simd::kPooledLanes;
  const size_t m = 301;
  std::vector<uint16_t> imgs(L * 3 * m), lanes(L * 3 * m), q(3 * m), wq(m);
  for (auto& v : imgs) v = randomHalf(100000, 1e5f);
  for (auto& v : q) v = randomHalf(100000, 1e5f);
  // runs of zero weights, as a mouth's pooled weights have; an infinity under a zero weight
  // stays out of the sums
  for (size_t i = 0; i < m; ++i) wq[i] = (i / 9) % 3 == 1 ? 0 : randomHalf(1000, 997.0f);
  for (size_t j = 0; j < L; ++j)
    for (size_t i = 0; i < m; ++i)
      for (size_t k = 0; k < 3; ++k) lanes[(3 * i + k) * L + j] = imgs[j * 3 * m + k * m + i];
  lanes[(3 * 10 + 1) * L + 3] = 0x7C00;
  forEachTarget([&] {
    for (size_t len : {size_t{0}, size_t{1}, size_t{17}, m}) {
      float out[L];
      // a shorter length reads the leading pixels of the same interleaved layout
      std::vector<uint16_t> qa(3 * len), img(3 * len);
      for (size_t k = 0; k < 3; ++k) std::copy_n(q.begin() + k * m, len, qa.begin() + k * len);
      le::simd::retrieveTermPooledLanes(lanes.data(), qa.data(), wq.data(), len, out);
      for (size_t j = 0; j < L; ++j) {
        for (size_t k = 0; k < 3; ++k) std::copy_n(imgs.data() + (3 * j + k) * m, len, img.data() + k * len);
        ASSERT_EQ(bitsOf(out[j]), bitsOf(refPooled(img.data(), qa.data(), wq.data(), len))) << j << " n=" << len;
      }
    }
  });
}

TEST(SimdConv, ItemsMatchReferenceAndLeaveOthersAlone) {
  std::mt19937 rng(3);
  std::uniform_real_distribution<float> u(-2.0f, 2.0f);
  struct Shape { int N, Cin, H, W, Cout; };
  for (const Shape s : {Shape{2, 3, 5, 37, 6}, Shape{1, 1, 1, 1, 1}, Shape{3, 2, 4, 16, 5}, Shape{1, 4, 9, 70, 9},
                        Shape{2, 5, 7, 87, 6}}) {
    std::vector<float> in(static_cast<size_t>(s.N) * s.Cin * s.H * s.W), wt(static_cast<size_t>(s.Cout) * s.Cin * 9),
        bias(s.Cout);
    for (float& v : in) v = u(rng);
    for (float& v : wt) v = u(rng);
    for (float& v : bias) v = u(rng);
    const size_t outSize = static_cast<size_t>(s.N) * s.Cout * s.H * s.W;
    const int items = s.N * s.Cout;
    std::vector<std::pair<int, int>> ranges = {{0, items}, {1, items - 1}, {items / 2, items}, {0, 1}};
    forEachTarget([&] {
      for (auto [begin, end] : ranges) {
        if (begin >= end) continue;
        std::vector<float> want(outSize, 42.0f), got(outSize, 42.0f);
        refConv(in, s.N, s.Cin, s.H, s.W, wt, bias, s.Cout, want, begin, end);
        le::simd::conv3x3Range(in.data(), s.N, s.Cin, s.H, s.W, wt.data(), bias.data(), s.Cout, got.data(),
                               begin, end);
        ASSERT_TRUE(same(got, want)) << "range " << begin << ".." << end;
      }
    });
    // The thread's padded copy must follow a new input even for the same image index.
    std::vector<float> in2 = in;
    for (float& v : in2) v = -v;
    std::vector<float> want(outSize, 0.0f), got(outSize, 0.0f);
    refConv(in2, s.N, s.Cin, s.H, s.W, wt, bias, s.Cout, want, 0, items);
    le::simd::conv3x3Range(in2.data(), s.N, s.Cin, s.H, s.W, wt.data(), bias.data(), s.Cout, got.data(), 0, items);
    ASSERT_TRUE(same(got, want));
  }
}

TEST(SimdYuv, EveryYuvTripleBothChromaLayouts) {
  const int W = 512;
  std::vector<uint8_t> y(W), u(W / 2), v(W / 2), uv(W), want(3 * W), got(3 * W);
  forEachTarget([&] {
    // Row r: U fixed, V = chroma index, Y sweeping so every (Y, U, V) appears.
    for (int u0 = 0; u0 < 256; u0 += 1)
      for (int yoff = 0; yoff < 128; yoff += (u0 % 17 == 0 ? 1 : 31)) {
        for (int c = 0; c < W / 2; ++c) {
          uv[2 * c] = u[c] = static_cast<uint8_t>(u0), uv[2 * c + 1] = v[c] = static_cast<uint8_t>(c);
          y[2 * c] = static_cast<uint8_t>(2 * yoff + c), y[2 * c + 1] = static_cast<uint8_t>(2 * yoff + 1 + c);
        }
        refYuvRow(y.data(), u.data(), v.data(), W, 1, want.data());
        le::simd::yuv420RowToRgb24(y.data(), u.data(), v.data(), W, 1, got.data());
        ASSERT_TRUE(same(got, want)) << "u " << u0 << " yoff " << yoff;
        le::simd::yuv420RowToRgb24(y.data(), uv.data(), uv.data() + 1, W, 2, got.data());
        ASSERT_TRUE(same(got, want)) << "nv12 u " << u0;
      }
    // Every width, odd ones included: the last pixel uses chroma (width - 1) >> 1; nothing past it.
    std::mt19937 rng(5);
    for (int width = 1; width <= 200; ++width) {
      const int cw = (width + 1) / 2;
      std::vector<uint8_t> yy(width), uu(cw), vv(cw), nv(2 * cw), w2(3 * width + 1, 0x5A), g1 = w2, g2 = w2;
      for (auto& b : yy) b = static_cast<uint8_t>(rng());
      for (int c = 0; c < cw; ++c) uu[c] = nv[2 * c] = uint8_t(rng()), vv[c] = nv[2 * c + 1] = uint8_t(rng());
      refYuvRow(yy.data(), uu.data(), vv.data(), width, 1, w2.data());
      le::simd::yuv420RowToRgb24(yy.data(), uu.data(), vv.data(), width, 1, g1.data());
      le::simd::yuv420RowToRgb24(yy.data(), nv.data(), nv.data() + 1, width, 2, g2.data());
      ASSERT_TRUE(same(g1, w2)) << "width " << width;
      ASSERT_TRUE(same(g2, w2)) << "nv12 width " << width;
    }
    const uint8_t black[2] = {16, 235}, mid[1] = {128};
    std::vector<uint8_t> px(6);
    le::simd::yuv420RowToRgb24(black, mid, mid, 2, 1, px.data());
    EXPECT_EQ(px, (std::vector<uint8_t>{0, 0, 0, 255, 255, 255}));
  });
}

// stb_image's scalar JPEG colour step, restated: 20 fractional bits, the green term from Cb cut
// to its top 16 bits.
void refJpegRow(const uint8_t* y, const uint8_t* cb, const uint8_t* cr, int n, uint8_t* rgb) {
  const auto fixed = [](float x) { return int(x * 4096.0f + 0.5f) << 8; };
  const auto clamp = [](int v) { return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v); };
  for (int i = 0; i < n; ++i) {
    const int yf = (y[i] << 20) + (1 << 19), r = cr[i] - 128, b = cb[i] - 128;
    rgb[3 * i] = clamp((yf + r * fixed(1.40200f)) >> 20);
    rgb[3 * i + 1] = clamp((yf + r * -fixed(0.71414f) + ((b * -fixed(0.34414f)) & int(0xffff0000))) >> 20);
    rgb[3 * i + 2] = clamp((yf + b * fixed(1.77200f)) >> 20);
  }
}

TEST(SimdYuv, JpegColourEveryTripleAndWidth) {
  const int W = 256;
  std::vector<uint8_t> y(W), cb(W), cr(W), want(3 * W), got(3 * W);
  forEachTarget([&] {
    for (int c0 = 0; c0 < 256; ++c0)
      for (int c1 = 0; c1 < 256; ++c1) {
        for (int i = 0; i < W; ++i) y[i] = uint8_t(i), cb[i] = uint8_t(c0), cr[i] = uint8_t(c1);
        refJpegRow(y.data(), cb.data(), cr.data(), W, want.data());
        le::simd::jpegYCbCrRowToRgb24(y.data(), cb.data(), cr.data(), W, got.data());
        ASSERT_TRUE(same(got, want)) << "cb " << c0 << " cr " << c1;
      }
    std::mt19937 rng(7);
    for (int width = 0; width <= 150; ++width) {
      std::vector<uint8_t> yy(width + 1), bb(width + 1), rr(width + 1), w2(3 * width + 1, 0x5A), g = w2;
      for (int i = 0; i < width; ++i) yy[i] = uint8_t(rng()), bb[i] = uint8_t(rng()), rr[i] = uint8_t(rng());
      refJpegRow(yy.data(), bb.data(), rr.data(), width, w2.data());
      le::simd::jpegYCbCrRowToRgb24(yy.data(), bb.data(), rr.data(), width, g.data());
      ASSERT_TRUE(same(g, w2)) << "width " << width;
    }
  });
}

TEST(SimdPaste, RowsMatchReferenceInsideAndAtBorders) {
  std::mt19937 rng(11);
  const le::testref::PasteTables t = le::testref::pasteTables(1, 1.0);
  for (int crop : {48, 21, 7, 2, 1}) {
    // The source in row bands (channel k of (x, y) at ((y / 8 * crop + x) * 3 + k) * 16 + y % 8,
    // each band holding the next eight rows too), from three planes: pasteColumns against the
    // plain loop. Rows past the crop are never read: NaN there would show.
    std::vector<float> planes(static_cast<size_t>(crop) * crop * 3);
    for (float& v : planes) v = static_cast<float>(rng() % 30000) / 100.0f - 20.0f;
    const int bands = (crop + 7) / 8;
    ASSERT_EQ(le::simd::pasteSourceFloats(crop), static_cast<size_t>(bands) * crop * 48);
    std::vector<float> src(le::simd::pasteSourceFloats(crop), std::nanf(""));
    for (int b = 0; b < bands; ++b)
      for (int x = 0; x < crop; ++x)
        for (int k = 0; k < 3; ++k)
          for (int i = 0; i < 16 && 8 * b + i < crop; ++i)
            src[((b * crop + x) * 3 + k) * 16 + i] = planes[(k * crop + 8 * b + i) * crop + x];
    forEachTarget([&] {
      std::vector<float> got(src.size(), std::nanf(""));
      // Bands of rows in any order, as the sharpening parts write them, each in two column runs.
      const int s1 = crop * 5 / 13, s2 = crop * 2 / 3, xs = crop * 3 / 7;
      for (int k = 0; k < 3; ++k)
        for (const auto& band : {std::make_pair(s2, crop), std::make_pair(0, s1), std::make_pair(s1, s2)})
          for (const auto& run : {std::make_pair(xs, crop), std::make_pair(0, xs)})
            le::simd::pasteColumns(planes.data() + (k * crop + band.first) * crop, crop, band.first, band.second, k,
                                   run.first, run.second, got.data());
      ASSERT_TRUE(same(got, src)) << "crop " << crop;
    });
    std::vector<uint8_t> mask(static_cast<size_t>(crop) * crop);
    for (int yy = 0; yy < crop; ++yy)
      for (int xx = 0; xx < crop; ++xx)  // zero band on the left, full and soft regions elsewhere
        mask[yy * crop + xx] = xx < crop / 8 ? 0 : uint8_t(xx > crop * 5 / 8 ? 255 : rng() % 256);
    std::vector<uint32_t> quads(static_cast<size_t>(crop + 1) * (crop + 1));
    le::simd::pasteMaskQuads(mask.data(), crop, quads.data());
    const int W = 600;  // rows longer than the kernel's internal span
    int blended = 0;
    forEachTarget([&] {
      for (int trial = 0; trial < 40; ++trial) {
        // A scaled, slightly rotated map (about 1.2x) whose rows cross the whole crop.
        const double scale = crop < 8 ? 0.05 : 1.0 / (0.8 + 0.8 * (rng() % 100) / 100.0);
        const double rot = ((rng() % 100) - 50) / 400.0, da = scale * std::cos(rot), dc = scale * std::sin(rot);
        const int x0 = static_cast<int>(rng() % 20), x1 = W - 1 - static_cast<int>(rng() % 20);
        std::vector<int> cx(size_t(x1 - x0 + 1)), cy(cx.size());
        for (int x = x0; x <= x1; ++x)
          cx[x - x0] = int(std::lrint(x * da * 1024)), cy[x - x0] = int(std::lrint(x * dc * 1024));
        const int rx = -static_cast<int>(rng() % ((crop + 16) * 1024)) - 2048 + 16;
        const int ry = static_cast<int>(rng() % ((crop + 8) * 1024)) - 4 * 1024 + 16;
        std::vector<uint8_t> row(3 * W);
        for (auto& b : row) b = static_cast<uint8_t>(rng());
        std::vector<uint8_t> want = row;
        for (int x = x0; x <= x1; ++x)
          le::testref::refPastePixel(
              t, 0, mask.data(), crop, rx + cx[x - x0], ry + cy[x - x0],
              [&](int k, int r, int c) { return src[((r / 8 * crop + c) * 3 + k) * 16 + r % 8]; },
              &want[3 * x]);
        blended += want != row;
        le::simd::pasteLanczos8Row(src.data(), crop, mask.data(), quads.data(), t.lanczos.data(),
                                   t.bilinear.data(), cx.data(), cy.data(), rx, ry, x0, x1, row.data());
        ASSERT_TRUE(same(row, want)) << "crop " << crop << " trial " << trial;
      }
    });
    EXPECT_GT(blended, 0) << "crop " << crop;
  }
}

// The unsharp rows against plain loops on every target: taps in ascending order from 0, the
// sharpened value clamped to 0..255 with NaN giving 0, any length (vector blocks and tails).
TEST(SimdPaste, UnsharpRowsMatchPlainLoops) {
  std::mt19937 rng(5);
  const int K = 13;
  std::vector<float> g(K);
  for (float& v : g) v = static_cast<float>(rng() % 1000) / 7000.0f;
  const int maxN = 131 + K;
  std::vector<float> rowsData(static_cast<size_t>(K) * maxN), in(maxN);
  for (float& v : rowsData) v = static_cast<float>(rng() % 60000) / 100.0f - 150.0f;
  for (float& v : in) v = static_cast<float>(rng() % 2000) / 1000.0f - 0.5f;
  in[3] = std::nanf("");
  in[40] = 1e30f;
  std::vector<const float*> rows(K);
  for (int t = 0; t < K; ++t) rows[t] = rowsData.data() + static_cast<size_t>(t) * maxN;
  forEachTarget([&] {
    for (size_t n : kLengths) {
      std::vector<float> blur(n + 1, -7.0f), sharp(n + 1, -7.0f);
      le::simd::pasteBlurRow(rows.data(), g.data(), K, static_cast<int>(n), blur.data());
      le::simd::pasteSharpenRow(rows.data(), g.data(), K, static_cast<int>(n), in.data(), 255.0f, 1.3f, sharp.data());
      for (size_t x = 0; x < n; ++x) {
        float acc = 0.0f;
        for (int t = 0; t < K; ++t) acc = acc + g[t] * rows[t][x];
        ASSERT_EQ(blur[x], acc) << n << " " << x;
        const float v = 255.0f * in[x] * (1.0f + 1.3f) - acc * 1.3f;
        ASSERT_EQ(sharp[x], v > 0.0f ? (v < 255.0f ? v : 255.0f) : 0.0f) << n << " " << x;
      }
      ASSERT_EQ(blur[n], -7.0f);
      ASSERT_EQ(sharp[n], -7.0f);
    }
  });
}

}  // namespace
