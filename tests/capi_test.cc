// ctest-label: threaded
#include "le/le.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "bundle_fixture.h"
#include "le/le_capi.h"
#include "le/le_driver.h"
#include "le/le_error.h"
#include "le/le_pool.h"
#include "le/le_simd.h"
#include "le/le_util.h"
#include "tools/forge/forge.h"

namespace {

using le::startsWith;
using le::testing::ScratchDir;

std::string forged(const ScratchDir& dir, const std::string& name, le::forge::Params p) {
  const std::string path = dir / name;
  le::forge::forgeBundle(path, p);
  return path;
}

// A crop of the forged person, as the director would hand it over: planar float in [0, 1].
std::vector<float> planarCrop(const le::forge::Params& p, int si) {
  const std::vector<uint8_t> rgb = le::forge::cropImage(p, si);
  const size_t n = size_t(p.crop) * size_t(p.crop);
  std::vector<float> planes(3 * n);
  for (size_t i = 0; i < n; ++i)
    for (int k = 0; k < 3; ++k) planes[size_t(k) * n + i] = rgb[3 * i + size_t(k)] / 255.f;
  return planes;
}

}  // namespace

TEST(ErrorConvention, FreshThreadIsEmptyAndFamiliesArePerThread) {
  EXPECT_STREQ(le_last_error(), "");
  EXPECT_EQ(le_host_kp_rows(), 21);
  le::err::set(le::err::Family::Ctx, "main failure");
  std::string seen_in_thread = "unset";
  std::thread t([&] {
    seen_in_thread = le_last_error();
    le::err::set(le::err::Family::Ctx, "thread failure");
  });
  t.join();
  EXPECT_EQ(seen_in_thread, "");
  EXPECT_STREQ(le_last_error(), "main failure");
  EXPECT_EQ(le::err::slot(le::err::Family::Utt), "");
  le::err::clear(le::err::Family::Ctx);
  EXPECT_STREQ(le_last_error(), "");
}

TEST(Context, CreatesFromAForgedBundleAndPastesIntoTheDriveFrameOfItsSourceIndex) {
  ScratchDir dir("capi");
  le::forge::Params p;
  const std::string b = forged(dir, "b", p);

  EXPECT_EQ(le_create(nullptr, "render", 0, nullptr), nullptr);
  EXPECT_STREQ(le_last_error(), "le_create: NULL bundle_dir/model_key");
  EXPECT_EQ(le_create(b.c_str(), nullptr, 0, nullptr), nullptr);
  EXPECT_STREQ(le_last_error(), "le_create: NULL bundle_dir/model_key");

  le_ctx* ctx = le_create(b.c_str(), "render", 0, nullptr);
  ASSERT_NE(ctx, nullptr) << le_last_error();
  EXPECT_STREQ(le_last_error(), "");  // le_create clears
  EXPECT_EQ(std::vector<int>({le_nt(ctx), le_width(ctx), le_height(ctx), le_crop(ctx), le_drive_frames(ctx)}),
            std::vector<int>({p.nt, p.width, p.height, p.crop, p.frames}));
  EXPECT_EQ(ctx->n_threads, le::pool::threads());
  EXPECT_FALSE(ctx->threads_explicit);
  le_destroy(nullptr);
  EXPECT_EQ(le_nt(nullptr) | le_width(nullptr) | le_height(nullptr) | le_crop(nullptr) | le_drive_frames(nullptr), 0);

  // A crop pasted into the drive frame of its source index.
  const size_t bytes = size_t(p.width) * p.height * 3;
  const int si = 5;
  const std::vector<float> crop = planarCrop(p, 2);  // another frame's face: the paste shows

  std::vector<uint8_t> out(bytes, 0);
  EXPECT_EQ(le_paste_crop(ctx, si, crop.data(), out.data(), bytes - 1), 0);
  EXPECT_STREQ(le_last_error(), "le_paste_crop: bad args / out too small");
  EXPECT_EQ(le_paste_crop(ctx, p.nt, crop.data(), out.data(), bytes), 0);
  EXPECT_STREQ(le_last_error(), "le_paste_crop: bad args / out too small");
  EXPECT_EQ(le_paste_crop(ctx, -1, crop.data(), out.data(), bytes), 0);
  EXPECT_EQ(le_paste_crop(ctx, si, nullptr, out.data(), bytes), 0);
  EXPECT_EQ(le_paste_crop(nullptr, si, crop.data(), out.data(), bytes), 0);
  EXPECT_EQ(le_target_frame(ctx, p.nt), nullptr);
  EXPECT_STREQ(le_last_error(), "le_target_frame: bad args");
  EXPECT_EQ(le_target_frame(nullptr, 0), nullptr);

  const uint8_t* target = le_target_frame(ctx, si);
  ASSERT_NE(target, nullptr) << le_last_error();
  EXPECT_STREQ(le_last_error(), "");
  const std::vector<uint8_t> original(target, target + bytes);

  ASSERT_EQ(le_paste_crop(ctx, si, crop.data(), out.data(), bytes), 1) << le_last_error();
  // The same composite done by hand over a copy of the target frame.
  std::vector<uint8_t> want = original;
  le::Paste paste(le::readPasteMask(ctx->manifest), p.crop, ctx->manifest.unsharp);
  paste.composite(crop.data(), 255.f, ctx->identity.M(si), want.data(), p.width, p.height);
  EXPECT_EQ(out, want);
  EXPECT_NE(out, original);
  // The cursor's own frame is never pasted into.
  target = le_target_frame(ctx, si);
  ASSERT_NE(target, nullptr);
  EXPECT_EQ(std::vector<uint8_t>(target, target + bytes), original);
  le_destroy(ctx);
}

// Every construction failure surfaces as "le_create: <reason>" and leaves nothing behind (the
// sanitizer build checks the leaks).
TEST(Context, ConstructionFailuresUndoThemselves) {
  using le::forge::Break;
  ScratchDir dir("capi");
  auto params = [](std::vector<Break> breaks) {
    le::forge::Params p;
    p.nt = 4;
    p.frames = 4;
    p.breaks = std::move(breaks);
    return p;
  };
  auto broken = [&](const std::string& name, std::vector<Break> breaks) { return forged(dir, name, params(breaks)); };
  struct Case {
    std::string bundle, want;
    bool prefix;
  };
  std::vector<Case> cases = {
      {broken("short_mask", {Break::ShortMask}), "le_create: mask read failed", false},
      {broken("short_pooled", {Break::ShortPooled}),
       "le_create: size mismatch " + dir / "short_pooled/pooled64.f16", false},
      {broken("short_xs", {Break::ShortXs}),
       "le_create: size mismatch " + dir / "short_xs/drive/xs.f32", false},
      {broken("si_range", {Break::SiOutOfRange}), "le_create: drive: si out of range", false},
      {broken("no_last_still", {Break::NoLastStill}),
       "le_create: this bundle carries neither a populated target_frames/ nor target_frames.mp4 (",
       true},
      {dir / "absent", "le_create: ", true},
  };
  {
    le::forge::Params p = params({Break::NoPriorMovie});
    p.prior = le::forge::Prior::Hevc;
    const std::string b = forged(dir, "no_prior_movie", p);
    cases.push_back({b,
                     "le_create: this bundle's manifest names P_hevc 'P_hevc.mov' and the file is not "
                     "there (" + b + "/P_hevc.mov) — the renderer has no warp prior. REFUSING to "
                     "create a session.",
                     false});
  }
  // Paste settings the compositor cannot honour are refused, naming the value.
  for (float sigma : {0.f, -1.5f}) {
    le::forge::Params p = params({});
    p.sigma = sigma;
    char v[16];
    std::snprintf(v, sizeof v, "%g", double(sigma));
    cases.push_back({forged(dir, std::string("sigma") + v, p),
                     std::string("le_create: paste: manifest \"sigma\" is ") + v +
                         " — the unsharp mask's Gaussian needs a width above 0 (at 0 every tap "
                         "divides by zero, below 0 the width is a sign error). REFUSING to load a "
                         "paste whose blur nobody specified; the default is 2.0.",
                     false});
  }
  auto withRow = [&](const std::string& name, int row, std::vector<float> M) {
    const std::string bundle = broken(name, {});
    std::FILE* f = std::fopen((bundle + "/M.f32").c_str(), "r+b");
    EXPECT_TRUE(f && std::fseek(f, row * 24, SEEK_SET) == 0 &&
                std::fwrite(M.data(), 4, 6, f) == 6 && std::fclose(f) == 0);
    return bundle;
  };
  cases.push_back({withRow("near_singular", 2, {1e-7f, 0, 0, 0, 1e-7f, 0}),
                   "le_create: paste: M.f32 row 2 (a, b, tx, c, d, ty) = (1e-07, 0, 0, 0, 1e-07, "
                   "0) maps the 256x192 frame to crop positions beyond the paste's fixed-point "
                   "range (2^20 crop pixels) — so nearly singular a transform cannot place the "
                   "crop, and pasting would silently skip the frame. REFUSING to load it.",
                   false});
  cases.push_back({withRow("nan_row", 3, {1, 0, NAN, 0, 1, 0}),
                   "le_create: paste: M.f32 row 3 (a, b, tx, c, d, ty) = (1, 0, nan, 0, 1, 0) is "
                   "not finite — no frame position can be mapped through it, and pasting would "
                   "silently skip the frame. REFUSING to load it.",
                   false});
  // Singular and off-frame rows paste nothing by design and load.
  le_ctx* odd = le_create(withRow("singular", 1, {0, 0, 5, 0, 0, 5}).c_str(), "render", 1, nullptr);
  EXPECT_NE(odd, nullptr) << le_last_error();
  le_destroy(odd);
  for (const Case& c : cases) {
    EXPECT_EQ(le_create(c.bundle.c_str(), "render", 1, nullptr), nullptr);
    if (c.prefix)
      EXPECT_TRUE(startsWith(le_last_error(), c.want)) << le_last_error();
    else
      EXPECT_EQ(le_last_error(), c.want);
  }
  // A longer mask is read from its start and accepted.
  le_ctx* ctx = le_create(broken("long_mask", {Break::LongMask}).c_str(), "render", 1, nullptr);
  EXPECT_NE(ctx, nullptr) << le_last_error();
  le_destroy(ctx);

  // Two threads failing at the same time each read their own message.
  std::atomic<int> ready{0};
  std::string seen[2];
  auto worker = [&](int t) {
    const Case& c = cases[size_t(t)];
    ready.fetch_add(1);
    while (ready.load() < 2) {
    }
    for (int i = 0; i < 20; ++i) {
      if (le_create(c.bundle.c_str(), "render", 1, nullptr) != nullptr) return;
      seen[t] = le_last_error();
      if (seen[t] != c.want) return;
    }
  };
  std::thread a(worker, 0), b(worker, 1);
  a.join();
  b.join();
  EXPECT_EQ(seen[0], cases[0].want);
  EXPECT_EQ(seen[1], cases[1].want);
  EXPECT_STREQ(le_last_error(), "");  // this thread's string was cleared by its own last call
}

// A forged bundle whose warp prior is a video: rows in any order, through the flat interface's
// prior and through the identity's prior cursor (created on first need; it reports its backend,
// memory and seeks). Every loader works from the manifest text read at load: the file is gone.
TEST(Prior, ReadsRowsOfTheVideoPrior) {
  ScratchDir dir("capi");
  le::forge::Params p;
  p.nt = 6, p.crop = 64, p.prior = le::forge::Prior::Hevc;
  const std::string b = forged(dir, "hevc", p);
  const le::Manifest m = le::loadManifest(b);

  EXPECT_EQ(le_prior_open(nullptr, 2, 0), nullptr);
  EXPECT_STREQ(le_last_error(), "le_prior_open: NULL bundle_dir");
  EXPECT_EQ(le_prior_row_bytes(nullptr), 0u);
  EXPECT_STREQ(le_prior_backend(nullptr), "");
  le_prior_close(nullptr);

  le_prior* prior = le_prior_open(b.c_str(), 0, -5);
  ASSERT_NE(prior, nullptr) << le_last_error();
  const size_t bytes = le_prior_row_bytes(prior);
  ASSERT_EQ(bytes, size_t(6) * p.crop * p.crop);
  EXPECT_STRNE(le_prior_backend(prior), "");
  ASSERT_EQ(std::remove((b + "/manifest.json").c_str()), 0);
  EXPECT_NE(le::DriverCursor::open(m, 2, 11), nullptr);
  le::Identity id(m);
  EXPECT_FALSE(id.hasP());
  EXPECT_EQ(id.priorPath(), b + "/P_hevc.mov");
  EXPECT_NE(id.priorBackend(), "none");
  EXPECT_NE(id.priorBackend(), "mmap P.f16");
  EXPECT_GT(id.priorResidentBytes(), size_t(14) * 6 * 64 * 64 - 1);  // the ring at least

  std::vector<uint16_t> row(bytes / 2, 0xABCD);
  EXPECT_EQ(le_prior_row(prior, 0, row.data(), bytes - 1), 0);
  EXPECT_EQ(le_last_error(), "le_prior_row: cap " + std::to_string(bytes - 1) + " < row bytes " +
                                 std::to_string(bytes));
  EXPECT_EQ(row, std::vector<uint16_t>(bytes / 2, 0xABCD));
  EXPECT_EQ(le_prior_row(prior, 0, nullptr, bytes), 0);
  EXPECT_STREQ(le_last_error(), "le_prior_row: NULL prior/out");
  EXPECT_EQ(le_prior_row(nullptr, 0, row.data(), bytes), 0);
  EXPECT_STREQ(le_last_error(), "le_prior_row: NULL prior/out");

  // Rows in any order match the forged crops (the video is near lossless: within 2 of 255 on
  // average), and the identity's rows are the same decode.
  for (int si : {0, 1, 5, 2, 3}) {
    ASSERT_EQ(le_prior_row(prior, si, row.data(), bytes), 1) << le_last_error();
    EXPECT_STREQ(le_last_error(), "");
    const std::vector<float> want = planarCrop(p, si);
    std::vector<float> got(want.size());
    le::halfToFloat(row.data(), got.data(), got.size());
    double err = 0;
    for (size_t i = 0; i < got.size(); ++i) err += std::fabs(got[i] - want[i]);
    EXPECT_LT(err / double(got.size()), 0.008) << "row " << si;
    EXPECT_EQ(std::memcmp(id.P(si), row.data(), bytes), 0) << "row " << si;
  }
  id.walkP(3);
  // Only 1 -> 5 and then 5 -> 2 can reach the source, when the decoder has not got that far.
  EXPECT_LE(id.priorSeeks(), 2u);
  EXPECT_EQ(le_prior_row(prior, p.nt, row.data(), bytes), 0);
  EXPECT_EQ(le_last_error(), "le_prior_row: le_driver: seek(" + std::to_string(p.nt) +
                                 ") outside [0," + std::to_string(p.nt) + ")");
  le_prior_close(prior);

  // A bundle whose prior is mapped has no prior video to open.
  le::forge::Params raw;
  raw.nt = 2;
  raw.crop = 32;
  const std::string rb = forged(dir, "raw", raw);
  EXPECT_EQ(le_prior_open(rb.c_str(), 2, 0), nullptr);
  EXPECT_TRUE(startsWith(le_last_error(),
                         "le_prior_open: this bundle carries neither a raw P.f16 nor P_hevc.mov ("))
      << le_last_error();
}
