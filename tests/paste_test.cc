// ctest-label: threaded
#include "le/le_paste.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "bundle_fixture.h"
#include "le/le_bundle.h"
#include "le/le_pool.h"
#include "tests/support/fold_paste_ref.h"
#include "tests/support/media.h"

// Counts heap allocations while armed, to prove a warm composite allocates nothing.
static std::atomic<bool> g_count_allocs{false};
static std::atomic<long> g_allocs{0};
// GCC pairs the replaced operators with malloc/free and warns at every inlined delete.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t n) {
  if (g_count_allocs.load(std::memory_order_relaxed)) g_allocs.fetch_add(1);
  if (void* p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

using le::testmedia::ScopedEnv;

le::Unsharp unsharp(float amount, float sigma, int ksize) {
  le::Unsharp u;
  u.amount = amount;
  u.sigma = sigma;
  u.ksize = ksize;
  return u;
}

// ---- an independent reference, written straight from the formulas with plain loops ----

float clampf(float v) { return v < 0 ? 0 : (v > 255 ? 255 : v); }

void refUnsharp(std::vector<float>& plane, int crop, int ksize, float amount,
                const std::vector<float>& g) {
  int r = ksize / 2, padded = crop + ksize - 1;
  auto mirror = [&](int i) {
    if (i >= 0 && i < crop) return i;
    int a = std::abs(i);
    return a < crop ? a : 2 * crop - 2 - a;
  };
  std::vector<float> A(size_t(padded) * padded), B(size_t(padded) * padded, 0.f);
  for (int y = 0; y < padded; ++y)
    for (int x = 0; x < padded; ++x) A[y * padded + x] = plane[mirror(y - r) * crop + mirror(x - r)];
  for (int j = 0; j < padded * padded - ksize + 1; ++j)
    for (int k = 0; k < ksize; ++k) B[j] += g[k] * A[j + k];
  std::vector<float> out(plane.size());
  for (int y = 0; y < crop; ++y)
    for (int x = 0; x < crop; ++x) {
      float blur = 0;
      for (int k = 0; k < ksize; ++k) blur += g[k] * B[(y + k) * padded + x];
      out[y * crop + x] = clampf(plane[y * crop + x] * (1 + amount) - blur * amount);
    }
  plane = out;
}

void refComposite(const std::vector<uint8_t>& mask, int crop, int ksize, float amount, int mode,
                  const le::testref::PasteTables& t, const float* in, float scale, const float* M,
                  uint8_t* frame, int W, int H) {
  float a = M[0], b = M[1], tx = M[2], c = M[3], d = M[4], ty = M[5];
  double det = double(d) * a - double(b) * c;
  if (det == 0) return;
  float xs[4], ys[4];
  float cu[4] = {-4.f, crop + 3.f, -4.f, crop + 3.f}, cv[4] = {-4.f, -4.f, crop + 3.f, crop + 3.f};
  for (int i = 0; i < 4; ++i) {
    xs[i] = cu[i] * a + cv[i] * b + tx;
    ys[i] = cu[i] * c + cv[i] * d + ty;
  }
  int x0 = std::max(int(std::floor(*std::min_element(xs, xs + 4))), 0);
  int x1 = std::min(W - 1, int(std::ceil(*std::max_element(xs, xs + 4))));
  int y0 = std::max(int(std::floor(*std::min_element(ys, ys + 4))), 0);
  int y1 = std::min(H - 1, int(std::ceil(*std::max_element(ys, ys + 4))));
  if (x1 < x0 || y1 < y0) return;

  std::vector<float> planes[3];
  for (int k = 0; k < 3; ++k) {
    planes[k].resize(size_t(crop) * crop);
    for (int i = 0; i < crop * crop; ++i) planes[k][i] = scale * in[k * crop * crop + i];
    refUnsharp(planes[k], crop, ksize, amount, t.gauss);
  }
  double u_start = -(tx * (d / det) + ty * (-b / det));
  double v_start = -(tx * (-c / det) + ty * (a / det));
  for (int y = y0; y <= y1; ++y) {
    int row_x = int(std::rint((y * (-b / det) + u_start) * 1024)) + 16;
    int row_y = int(std::rint((y * (a / det) + v_start) * 1024)) + 16;
    for (int x = x0; x <= x1; ++x)
      le::testref::refPastePixel(t, mode, mask.data(), crop, row_x + int(std::rint(x * (d / det) * 1024)),
                                 row_y + int(std::rint(x * (-c / det) * 1024)),
                                 [&](int k, int yy, int xx) { return planes[k][yy * crop + xx]; },
                                 &frame[(size_t(y) * W + x) * 3]);
  }
}

// A crop with smooth structure, edges and values outside [0, 1], a mask with hard 0 and 255
// regions and a soft ramp between them, and a noisy frame.
struct Scene {
  int crop, W, H;
  std::vector<float> planes;
  std::vector<uint8_t> mask, frame;
  Scene(int crop_, int W_, int H_, unsigned seed) : crop(crop_), W(W_), H(H_) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-0.1f, 1.1f);
    planes.resize(size_t(3) * crop * crop);
    for (int k = 0; k < 3; ++k)
      for (int y = 0; y < crop; ++y)
        for (int x = 0; x < crop; ++x) {
          float v = 0.5f + 0.4f * std::sin(0.3f * x + k) * std::cos(0.2f * y);
          if ((x / 7 + y / 5) % 3 == 0) v = u(rng);
          planes[size_t(k) * crop * crop + y * crop + x] = v;
        }
    mask.resize(size_t(crop) * crop);
    for (int y = 0; y < crop; ++y)
      for (int x = 0; x < crop; ++x) {
        float r = std::hypot(x - crop / 2.f, y - crop / 2.f) / (crop / 2.f);
        mask[y * crop + x] = r < 0.6f ? 255 : (r > 0.95f ? 0 : uint8_t(255 * (0.95f - r) / 0.35f));
      }
    frame.resize(size_t(W) * H * 3);
    for (auto& b : frame) b = uint8_t(rng());
  }
};

}  // namespace

TEST(PasteTables, ReferenceRows) {
  ScopedEnv f("LE_PASTE_FAST", nullptr), k("LE_PASTE_KSIZE", nullptr);
  le::Paste p(std::vector<uint8_t>(16 * 16, 255), 16, unsharp(1.3f, 2.0f, 13));
  EXPECT_EQ(p.fast(), 0);
  // Known values at phase 1/2 (a symmetric row) and the Gaussian's centre and tail.
  const double l16[4] = {-0.012630, 0.059764, -0.166011, 0.618877};
  for (int i = 0; i < 4; ++i) {
    EXPECT_NEAR(p.lanczos()[8 * 16 + i], l16[i], 5e-7) << i;
    EXPECT_NEAR(p.lanczos()[8 * 16 + 7 - i], l16[i], 5e-7) << i;
  }
  EXPECT_NEAR(p.bicubic()[4 * 16], -0.09375, 5e-7);
  EXPECT_NEAR(p.bicubic()[4 * 16 + 1], 0.59375, 5e-7);
  EXPECT_EQ(p.bilinear()[2 * 8 + 1], 0.25f);
  EXPECT_NEAR(p.gauss()[6], 0.199676, 5e-7);
  EXPECT_NEAR(p.gauss()[0], 0.002218, 5e-7);
  // The test's own tables from the formulas agree bit for bit: the composites below show it.
}

TEST(PasteConstruction, RefusalsAndSwitches) {
  ScopedEnv f("LE_PASTE_FAST", nullptr), k("LE_PASTE_KSIZE", nullptr);
  using le::testing::thrown;
  EXPECT_EQ(thrown([] { le::Paste(std::vector<uint8_t>(15), 4, unsharp(1, 2, 13)); }),
            "paste: mask size");
  EXPECT_EQ(thrown([] { le::Paste(std::vector<uint8_t>(16), 4, unsharp(1, 2, 12)); }),
            "paste: ksize must be odd");
  EXPECT_EQ(thrown([] { le::Paste(std::vector<uint8_t>(16), 4, unsharp(1, 2, -3)); }),
            "paste: ksize must be positive");

  auto mode = [](const char* v) {
    ScopedEnv e("LE_PASTE_FAST", v);
    return le::Paste(std::vector<uint8_t>(16), 4, unsharp(1, 2, 13)).fast();
  };
  const std::pair<const char*, int> modes[] = {{"1", 1}, {"2", 2}, {"7", 0}, {"-1", 0}, {"bicubic", 0}};
  for (const auto& [v, want] : modes) EXPECT_EQ(mode(v), want) << v;

  auto taps = [](const char* v, int manifest_ksize) {
    ScopedEnv e("LE_PASTE_KSIZE", v);
    le::Paste p(std::vector<uint8_t>(16), 4, unsharp(1, 2, manifest_ksize));
    EXPECT_EQ(p.gauss().size(), size_t(p.ksize()));
    return p.ksize();
  };
  // It can only shrink the manifest's taps, to an odd count over 2.
  for (const auto& [v, want] : {std::pair<const char*, int>{"5", 5}, {"15", 13}, {"4", 13}, {"1", 13}})
    EXPECT_EQ(taps(v, 13), want) << v;
  EXPECT_EQ(taps(nullptr, 7), 7);
  EXPECT_EQ(le::testref::pasteTables(5, 2.0).gauss,
            [] {
              ScopedEnv e("LE_PASTE_KSIZE", "5");
              return le::Paste(std::vector<uint8_t>(16), 4, unsharp(1, 2, 13)).gauss();
            }());
}

// The compositor's frame bytes equal the reference's exactly, for every mode and a spread of
// transforms, including crops partly or wholly outside the frame and singular transforms. The
// larger crop is sharpened by two pool parts and ends in a partial band of rows.
TEST(PasteComposite, MatchesReferenceExactly) {
  ScopedEnv k("LE_PASTE_KSIZE", nullptr);
  for (const int crop : {64, 133}) {
    SCOPED_TRACE("crop " + std::to_string(crop));
    const int W = 200, H = 150;
    const float pi = 3.14159265f;
    auto rot = [](float s, float th, float tx, float ty) {
      return std::vector<float>{s * std::cos(th), -s * std::sin(th), tx,
                                s * std::sin(th), s * std::cos(th),  ty};
    };
    const std::vector<std::vector<float>> transforms = {
        {1, 0, 0, 0, 1, 0},                  // identity
        {1, 0, 37.25f, 0, 1, 20.5f},         // translated by fractions
        {1.17f, 0, 50.3f, 0, 1.17f, 31.7f},  // typical face scale
        {0.61f, 0, 12.9f, 0, 0.58f, 7.1f},   // shrunk, anisotropic
        rot(1.21f, 17 * pi / 180, 80.f, 10.f),
        rot(0.9f, -125 * pi / 180, 130.f, 120.f),
        {1.05f, 0.2f, -30.4f, -0.1f, 0.98f, 110.2f},  // partly outside: left and bottom
        {1.3f, 0, 170.f, 0, 1.3f, -40.f},            // partly outside: right and top
        {-1.0f, 0, 120.f, 0, 1.0f, 40.f},            // mirrored
        {1, 0, 500, 0, 1, 500},                      // entirely outside
        {1, 2, 10, 0.5f, 1, 10},                     // singular
        {0, 0, 10, 0, 0, 10},                        // singular, degenerate
    };
    for (int mode = 0; mode < 3; ++mode) {
      ScopedEnv f("LE_PASTE_FAST", std::to_string(mode).c_str());
      for (int ksize : {13, 7, 1}) {
        Scene sc(crop, W, H, 1234u + unsigned(mode * 7 + ksize));
        // A small off-centre mask: sharpening skips most of the crop, which no tap may read.
        if (ksize == 7)
          for (int y = 0; y < crop; ++y)
            for (int x = 0; x < crop; ++x)
              sc.mask[size_t(y) * crop + x] =
                  std::hypot(x - 0.35f * crop, y - 0.5f * crop) < 0.25f * crop ? uint8_t(40 + (x * 7 + y) % 200) : 0;
        le::Paste paste(sc.mask, crop, unsharp(1.3f, 2.0f, ksize));
        ASSERT_EQ(paste.fast(), mode);
        const le::testref::PasteTables t = le::testref::pasteTables(ksize, 2.0);
        for (size_t ti = 0; ti < transforms.size(); ++ti) {
          std::vector<uint8_t> got = sc.frame, want = sc.frame;
          paste.composite(sc.planes.data(), 255.f, transforms[ti].data(), got.data(), W, H);
          refComposite(sc.mask, crop, ksize, 1.3f, mode, t, sc.planes.data(), 255.f,
                       transforms[ti].data(), want.data(), W, H);
          const auto first = std::mismatch(got.begin(), got.end(), want.begin()).first - got.begin();
          EXPECT_EQ(size_t(first), got.size())
              << "first differing byte: mode " << mode << " ksize " << ksize << " transform " << ti;
          if (ti >= transforms.size() - 3) EXPECT_EQ(got, sc.frame) << "transform " << ti;
          else EXPECT_NE(got, sc.frame) << "transform " << ti;
        }
      }
    }
  }
}

TEST(PasteComposite, SingularIsSilentAndAnnouncesOnceWithoutAllocating) {
  ScopedEnv f("LE_PASTE_FAST", nullptr), k("LE_PASTE_KSIZE", nullptr);
  Scene sc(64, 160, 120, 7);
  const float singular[6] = {2, 4, 5, 1, 2, 5};
  const float M[6] = {1.1f, 0.05f, 40, -0.05f, 1.1f, 30};

  // The diagnostic line is once per process: watch it in a fresh one.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        le::Paste paste(sc.mask, 64, unsharp(1.3f, 2.0f, 13));
        std::vector<uint8_t> frame = sc.frame;
        testing::internal::CaptureStderr();
        paste.composite(sc.planes.data(), 255.f, singular, frame.data(), 160, 120);
        const std::string quiet = testing::internal::GetCapturedStderr();
        const bool untouched = frame == sc.frame;
        testing::internal::CaptureStderr();
        paste.composite(sc.planes.data(), 255.f, M, frame.data(), 160, 120);
        paste.composite(sc.planes.data(), 255.f, M, frame.data(), 160, 120);
        le::Paste other(sc.mask, 64, unsharp(1.3f, 2.0f, 13));
        other.composite(sc.planes.data(), 255.f, M, frame.data(), 160, 120);
        const std::string err = testing::internal::GetCapturedStderr();
        const std::string want = "[le-paste] executor=cpu (side=64, ksize=13, threads=" +
                                 std::to_string(le::pool::threads()) + ") — 1080p frame\n";
        const bool ok = quiet.empty() && untouched && err == want;
        std::fprintf(stderr, "singular: '%s' untouched %d; announced: '%s'\n", quiet.c_str(),
                     int(untouched), err.c_str());
        std::_Exit(ok ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");

  // Warm: a further paste of the same or a smaller extent allocates nothing.
  le::Paste paste(sc.mask, 64, unsharp(1.3f, 2.0f, 13));
  std::vector<uint8_t> frame = sc.frame;
  paste.composite(sc.planes.data(), 255.f, M, frame.data(), 160, 120);
  g_allocs = 0;
  g_count_allocs = true;
  paste.composite(sc.planes.data(), 255.f, M, frame.data(), 160, 120);
  const float smaller[6] = {0.9f, 0, 30, 0, 0.9f, 20};
  paste.composite(sc.planes.data(), 255.f, smaller, frame.data(), 160, 120);
  g_count_allocs = false;
  EXPECT_EQ(g_allocs.load(), 0);
}

TEST(PasteComposite, UnplaceableInputFailsBeforeTouchingTheFrame) {
  ScopedEnv f("LE_PASTE_FAST", nullptr), k("LE_PASTE_KSIZE", nullptr);
  using le::testing::thrown;
  std::vector<uint8_t> frame(64 * 64 * 3, 9);
  const float M[6] = {1, 0, 0, 0, 1, 0};
  {
    const int n = 1025;
    le::Paste paste(std::vector<uint8_t>(size_t(n) * n, 255), n, unsharp(1.3f, 2.0f, 3));
    std::vector<float> planes(size_t(3) * n * n, 0.5f);
    EXPECT_EQ(thrown([&] { paste.composite(planes.data(), 255.f, M, frame.data(), 64, 64); }),
              "paste: side > 1024");
  }
  // Column offsets of 2^30 and more would wrap when added to the row start.
  le::Paste paste(std::vector<uint8_t>(16 * 16, 255), 16, unsharp(1.3f, 2.0f, 3));
  std::vector<float> planes(3 * 16 * 16, 0.5f);
  const float tiny[6] = {1e-6f, 0, 30, 0, 1e-6f, 30};
  EXPECT_EQ(thrown([&] { paste.composite(planes.data(), 255.f, tiny, frame.data(), 64, 64); })
                .rfind("paste: transform (a, b, tx, c, d, ty) = (1e-06, 0, 30, 0, 1e-06, 30) maps "
                       "the 64x64 frame to crop positions beyond",
                       0),
            0u);
  EXPECT_EQ(frame, std::vector<uint8_t>(64 * 64 * 3, 9));
  // Just inside the range it pastes.
  const float small[6] = {0.25f, 0, 0, 0, 0.25f, 0};
  paste.composite(planes.data(), 255.f, small, frame.data(), 64, 64);
  EXPECT_NE(frame, std::vector<uint8_t>(64 * 64 * 3, 9));
}
