// ctest-label: threaded
// The drive cursor: ring, look-ahead and history, seeks, loop, failure state, readers on
// several threads, and the choice of bundle member.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "le/le_bundle.h"
#include "le/le_driver.h"
#include "tests/bundle_fixture.h"
#include "tests/support/media.h"

namespace media = le::testmedia;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using namespace std::chrono_literals;

namespace {

// An in-memory source of tagged frames whose decode can be slowed, gated, or made to fail.
struct Knobs {
  std::atomic<int> decodes{0}, sourceSeeks{0}, rewinds{0};
  std::atomic<int> failAt{-1};      // next() throws when delivering this frame index
  std::atomic<bool> failSeek{false};
  std::atomic<int> delayUs{0};
  // When gated, next() blocks until open is set.
  std::mutex m;
  std::condition_variable cv;
  bool gated = false, open = false, inDecode = false;
  std::atomic<bool> destroyed{false};
  int realFrames = -1;  // frames the member really holds (defaults to NT)
};

class TaggedSource final : public le::driver::Source {
 public:
  TaggedSource(int NT, int W, int H, Knobs& k) : NT_(NT), W_(W), H_(H), k_(k) {}
  ~TaggedSource() override { k_.destroyed = true; }
  int NT() const override { return NT_; }
  int W() const override { return W_; }
  int H() const override { return H_; }
  bool next(uint8_t* out) override {
    {
      std::unique_lock<std::mutex> lk(k_.m);
      k_.inDecode = true;
      k_.cv.notify_all();
      k_.cv.wait(lk, [&] { return !k_.gated || k_.open; });
      k_.inDecode = false;
    }
    const int real = k_.realFrames < 0 ? NT_ : k_.realFrames;
    if (pos_ >= real) return false;
    if (k_.delayUs > 0) std::this_thread::sleep_for(std::chrono::microseconds(k_.delayUs.load()));
    if (pos_ == k_.failAt) throw std::runtime_error("synthetic decode fault at " + std::to_string(pos_));
    const auto f = media::patternRgb(W_, H_, pos_);
    std::memcpy(out, f.data(), f.size());
    ++pos_;
    ++k_.decodes;
    return true;
  }
  void rewind() override {
    ++k_.rewinds;
    pos_ = 0;
  }
  void seek(int i) override {
    ++k_.sourceSeeks;
    if (k_.failSeek) throw std::runtime_error("synthetic seek fault");
    pos_ = i;
  }
  std::string name() const override { return "tagged"; }
  size_t residentBytes() const override { return 1000; }

 private:
  const int NT_, W_, H_;
  Knobs& k_;
  int pos_ = 0;
};

constexpr int kW = 64, kH = 16;
constexpr size_t kFrame = kW * kH * 3;

std::unique_ptr<le::DriverCursor> tagged(Knobs& k, int NT, int L, int Hs) {
  return le::DriverCursor::over(std::make_unique<TaggedSource>(NT, kW, kH, k), L, Hs);
}

int tagOf(const uint8_t* p) { return media::frameTag(p, kW); }

}  // namespace

TEST(DriverCursor, SequentialReadsLoopWithoutSeeking) {
  Knobs k;
  auto c = tagged(k, 7, 2, 3);
  EXPECT_EQ(c->residentBytes(), 6 * kFrame + 1000);
  std::vector<uint8_t> out(kFrame);
  for (int n = 0; n < 7 * 3 + 2; ++n) {
    EXPECT_EQ(c->position(), n % 7);
    const int got = c->pull(out.data());
    ASSERT_EQ(got, n % 7);
    ASSERT_EQ(tagOf(out.data()), got);
  }
  EXPECT_EQ(c->seeks(), 0u);
  EXPECT_EQ(k.sourceSeeks, 0);
  EXPECT_GE(k.rewinds, 3);
}

TEST(DriverCursor, HistoryAndLookAheadAreServedFromTheRing) {
  Knobs k;
  const int L = 2, Hs = 4;
  auto c = tagged(k, 50, L, Hs);
  std::vector<uint8_t> out(kFrame);
  int got = -1;
  for (int i = 0; i < 6; ++i) ASSERT_EQ(c->pull(out.data()), i);
  // frame 5 twice, then 4 (history >= 1)
  ASSERT_EQ(c->pullAt(5, out.data()), 5);
  EXPECT_EQ(tagOf(out.data()), 5);
  ASSERT_EQ(c->pullAt(4, out.data()), 4);
  EXPECT_EQ(tagOf(out.data()), 4);
  EXPECT_EQ(c->position(), 5);
  // the whole history window, oldest first
  ASSERT_NE(c->pullAt(1, &got), nullptr);
  EXPECT_EQ(got, 1);
  EXPECT_EQ(c->seeks(), 0u);
  // back to the newest and one step into the look-ahead
  for (int i = 2; i <= 6; ++i) ASSERT_EQ(tagOf(c->pullAt(i, &got)), i);
  EXPECT_EQ(c->seeks(), 0u);
  // waiting lets the producer fill the look-ahead; a jump within it is free
  while (true) {
    std::this_thread::sleep_for(1ms);
    if (k.decodes >= 9) break;
  }
  ASSERT_EQ(tagOf(c->pullAt(8, &got)), 8);
  EXPECT_EQ(c->seeks(), 0u);
  // more than L ahead, and more than Hs behind: one source seek each
  ASSERT_EQ(tagOf(c->pullAt(30, &got)), 30);
  EXPECT_EQ(c->seeks(), 1u);
  ASSERT_EQ(tagOf(c->pullAt(30 - Hs - 2, &got)), 30 - Hs - 2);
  EXPECT_EQ(c->seeks(), 2u);
  // the index-free read continues from the last delivered frame
  ASSERT_EQ(c->pull(out.data()), 30 - Hs - 1);
  EXPECT_EQ(tagOf(out.data()), 30 - Hs - 1);

  EXPECT_EQ(le::testing::thrown([&] { c->seek(50); }), "le_driver: seek(50) outside [0,50)");
  EXPECT_EQ(le::testing::thrown([&] { c->pullAt(-1, &got); }), "le_driver: seek(-1) outside [0,50)");
  // a refused index leaves the cursor usable
  ASSERT_EQ(tagOf(c->pullAt(0, &got)), 0);
}

TEST(DriverCursor, DeliveredPointersSurviveHistoryFrames) {
  Knobs k;
  const int L = 2, Hs = 5;
  auto c = tagged(k, 40, L, Hs);
  int got = -1;
  const uint8_t* p = c->pull(&got);
  ASSERT_EQ(got, 0);
  const std::vector<uint8_t> snapshot(p, p + kFrame);
  for (int i = 1; i <= Hs; ++i) {
    ASSERT_EQ(tagOf(c->pull(&got)), i);
    std::this_thread::sleep_for(2ms);  // let the producer run as far ahead as it may
  }
  EXPECT_EQ(0, std::memcmp(p, snapshot.data(), kFrame));
  // frame 0 is still history, served without the source
  EXPECT_EQ(c->pullAt(0, &got), p);
  EXPECT_EQ(c->seeks(), 0u);
}

TEST(DriverCursor, MutableTakesAreNeverServedAgain) {
  Knobs k;
  auto c = tagged(k, 20, 2, 6);
  int got = -1;
  for (int i = 0; i < 5; ++i) c->pull(&got);
  uint8_t* m = c->pullMutAt(3, &got);
  ASSERT_EQ(got, 3);
  EXPECT_EQ(c->seeks(), 0u);
  std::memset(m, 0x7F, kFrame);  // painted over in place
  const uint8_t* again = c->pullAt(3, &got);
  EXPECT_EQ(c->seeks(), 1u);
  EXPECT_EQ(tagOf(again), 3);
  // frames before the mutable take are no longer served from the ring either
  EXPECT_EQ(tagOf(c->pullAt(2, &got)), 2);
  EXPECT_EQ(c->seeks(), 2u);
  uint8_t* m2 = c->pullMut(&got);
  EXPECT_EQ(got, 3);
  EXPECT_EQ(tagOf(m2), 3);
}

// A member shorter than the manifest says, or a decode fault: the failure lands when the
// producer, L frames ahead, reaches it, and from then on nothing is served, not even the frames
// still in the ring. A failed seek fails the same way.
TEST(DriverCursor, SourceFailuresEndTheCursorWithTheirText) {
  struct Case {
    int realFrames, failAt;
    std::string text;
  };
  const Case cases[] = {
      {5, -1,
       "le_driver: tagged ended after 5 frames, the manifest says NT=8 — a short driver is a session that stops part "
       "way through the loop, refusing"},
      {-1, 4, "le_driver: synthetic decode fault at 4"},
  };
  for (const Case& k : cases) {
    Knobs knobs;
    knobs.realFrames = k.realFrames;
    knobs.failAt = k.failAt;
    auto c = tagged(knobs, 8, 2, 3);
    std::vector<uint8_t> out(kFrame);
    int delivered = 0, got;
    EXPECT_EQ(le::testing::thrown([&] {
                for (;; ++delivered) ASSERT_EQ(c->pull(out.data()), delivered);
              }),
              k.text);
    const int at = k.realFrames > 0 ? k.realFrames : k.failAt;
    EXPECT_GE(delivered, at - 2);
    EXPECT_LE(delivered, at);
    EXPECT_EQ(le::testing::thrown([&] { c->pull(out.data()); }), k.text);
    EXPECT_EQ(le::testing::thrown([&] { c->pullAt(2, out.data()); }), k.text);
    EXPECT_EQ(le::testing::thrown([&] { c->seek(0); }), k.text);
    EXPECT_EQ(le::testing::thrown([&] { c->pullMut(&got); }), k.text);
    // argument checks come first
    EXPECT_EQ(le::testing::thrown([&] { c->seek(8); }), "le_driver: seek(8) outside [0,8)");
  }
  Knobs k;
  k.failSeek = true;
  auto c = tagged(k, 30, 2, 2);
  int got;
  c->pull(&got);
  EXPECT_EQ(le::testing::thrown([&] { c->pullAt(20, &got); }), "le_driver: seek failed: synthetic seek fault");
  EXPECT_EQ(le::testing::thrown([&] { c->pull(&got); }), "le_driver: seek failed: synthetic seek fault");
}

TEST(DriverCursor, ReadersOnSeveralThreadsGetTheFramesTheyAskFor) {
  Knobs k;
  k.delayUs = 200;
  const int NT = 60;
  auto c = tagged(k, NT, 2, 11);
  std::atomic<int> bad{0}, done{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      std::mt19937 rng(1234 + t);
      std::vector<uint8_t> out(kFrame);
      for (int n = 0; n < 150; ++n) {
        const int op = static_cast<int>(rng() % 5), i = static_cast<int>(rng() % NT);
        int got = -1;
        if (op == 0 || op == 3) {
          // one frame, or a sequential run as the paste does
          for (int r = 0; r < (op == 0 ? 1 : 5); ++r) {
            got = c->pull(out.data());
            if (tagOf(out.data()) != got) ++bad;
          }
        } else if (op == 1) {
          if (c->pullAt(i, out.data()) != i || tagOf(out.data()) != i) ++bad;
        } else if (op == 2) {
          c->seek(i);
        } else {
          c->pullAt(i, &got);  // the pointer is not read: other readers may move the ring on
          if (got != i) ++bad;
          (void)c->position();
          (void)c->residentBytes();
          (void)c->seeks();
        }
      }
      ++done;
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(done, 4);
  EXPECT_EQ(bad, 0);
  EXPECT_GT(c->seeks(), 0u);
}

TEST(DriverCursor, DestructionWaitsForADecodeInFlight) {
  Knobs k;
  k.gated = true;
  auto c = tagged(k, 10, 2, 2);
  {
    std::unique_lock<std::mutex> lk(k.m);
    k.cv.wait(lk, [&] { return k.inDecode; });
  }
  std::atomic<bool> opened{false};
  std::thread opener([&] {
    std::this_thread::sleep_for(50ms);
    std::lock_guard<std::mutex> lk(k.m);
    opened = k.open = true;
    k.cv.notify_all();
  });
  c.reset();  // the producer is blocked inside next(): the reset cannot return before it is let go
  EXPECT_TRUE(opened);
  EXPECT_TRUE(k.destroyed);
  opener.join();
}

TEST(DriverCursor, AProducerFailureWakesEveryWaitingReader) {
  Knobs k;
  k.gated = true;
  k.failAt = 0;
  auto c = tagged(k, 10, 2, 2);
  std::vector<std::string> errors(3);
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t)
    readers.emplace_back([&, t] {
      std::vector<uint8_t> out(kFrame);
      errors[t] = le::testing::thrown([&] { c->pullAt(0, out.data()); });
    });
  std::this_thread::sleep_for(30ms);  // readers are waiting on the first frame
  {
    std::lock_guard<std::mutex> lk(k.m);
    k.open = true;
    k.cv.notify_all();
  }
  for (auto& r : readers) r.join();
  for (const auto& e : errors) EXPECT_EQ(e, "le_driver: synthetic decode fault at 0");
}

namespace {

// A bundle directory with a manifest and the drive/prior members the test asks for.
struct Bundle {
  le::testing::ScratchDir tmp;
  std::string dir;
  le::Manifest m;
  Bundle(const std::string& name, const std::string& extraKeys, int NT = 6, int W = 80, int H = 48)
      : tmp(name), dir(tmp.path()) {
    FILE* f = std::fopen((dir + "/manifest.json").c_str(), "w");
    std::fprintf(f,
                 "{\"format\": \"le-bundle-v0\", \"agent\": \"t\", \"NT\": %d, \"W\": %d, \"H\": %d, \"crop\": 64,"
                 " \"M_src_w\": %d, \"M_src_h\": %d, \"amount\": 1.3, \"sigma\": 2.0, \"ksize\": 13, \"frames\": "
                 "%d%s}\n",
                 NT, W, H, W, H, NT, extraKeys.c_str());
    std::fclose(f);
    m = le::loadManifest(dir);
  }
  void movie(const std::string& member, int frames = -1) const {
    media::writeMovie(dir + "/" + member, media::movieSpec(m.W, m.H), frames < 0 ? m.NT : frames);
  }
  void stills(const std::string& sub) const { media::writeJpegDir(dir + "/" + sub, m.W, m.H, m.NT); }
  void prior(const std::string& member) const {
    le::forge::MovieSpec spec = media::movieSpec(m.crop, m.crop, 12, "yuv444p");
    spec.encoder = "libx265", spec.preset = "ultrafast";
    media::writeMovie(dir + "/" + member, spec, m.NT);
  }
};

std::string openDrive(const Bundle& b, std::unique_ptr<le::DriverCursor>* out = nullptr) {
  std::string err;
  const std::string printed = le::testing::stderrOf([&] {
    try {
      auto c = le::DriverCursor::open(b.m, 2, 11);
      if (out) *out = std::move(c);
    } catch (const std::exception& e) {
      err = std::string("THROW ") + e.what();
    }
  });
  return err.empty() ? printed : err;
}

}  // namespace

TEST(DriverCursorOpen, ChoosesBetweenStillsAndMovie) {
  media::ScopedEnv hw("LE_DRIVER_HWDEC", "0");
  const std::string hwLine =
      "[le-driver] LE_DRIVER_HWDEC=0 — h264_cuvid not attempted; the software decoder is the one decoder on this "
      "fleet (same samples)\n";
  {
    Bundle b("open_none", "");
    media::ScopedEnv p("LE_DRIVER_PREFER_MP4", nullptr);
    EXPECT_EQ(openDrive(b), "THROW this bundle carries neither a populated target_frames/ nor target_frames.mp4 (" +
                                b.dir +
                                "/target_frames.mp4) — there is no driver video to play. REFUSING to create a session.");
  }
  {
    Bundle b("open_stills", "");
    b.stills("target_frames");
    std::unique_ptr<le::DriverCursor> c;
    media::ScopedEnv p("LE_DRIVER_PREFER_MP4", "1");  // preference without a movie: silent
    EXPECT_EQ(openDrive(b, &c), "[le-driver] target_frames/ (raw jpg, 6 frames) — read one frame per pull\n");
    ASSERT_TRUE(c);
    EXPECT_EQ(c->name, "jpg/stb");
    int got;
    EXPECT_EQ(media::frameTag(c->pullAt(4, &got), 80), 4);
  }
  {
    Bundle b("open_both", "");
    b.stills("target_frames");
    b.movie("target_frames.mp4");
    std::unique_ptr<le::DriverCursor> c;
    {
      media::ScopedEnv p("LE_DRIVER_PREFER_MP4", "1");
      const std::string printed = openDrive(b, &c);
      ASSERT_TRUE(c);
      EXPECT_EQ(printed, "[le-driver] LE_DRIVER_PREFER_MP4=1 — target_frames/ is populated and NOT used; "
                         "target_frames.mp4 is the member this consumer reads\n" +
                             hwLine + "[le-driver] target_frames.mp4 decoded IN PLACE (" + c->name +
                             ", 6 frames 80x48, look-ahead 2, history 11) — no frame of the driver is expanded ahead "
                             "of the paste\n");
      EXPECT_THAT(c->name, StartsWith("mp4/libavcodec "));
    }
    {
      media::ScopedEnv p("LE_DRIVER_PREFER_MP4", "true");  // only exactly "1" counts
      EXPECT_EQ(openDrive(b, &c), "[le-driver] target_frames/ (raw jpg, 6 frames) — read one frame per pull\n");
    }
    // without its last still the directory does not count
    ASSERT_EQ(::unlink((b.dir + "/target_frames/frame_000005.jpg").c_str()), 0);
    EXPECT_THAT(openDrive(b, &c), StartsWith("[le-driver] LE_DRIVER_HWDEC=0"));
    EXPECT_THAT(c->name, StartsWith("mp4/"));
  }
  {
    // renamed members
    Bundle b("open_renamed", ", \"target_frames\": \"stills\", \"target_frames_mp4\": \"clip.mkv\"");
    b.movie("clip.mkv");
    std::unique_ptr<le::DriverCursor> c;
    EXPECT_THAT(openDrive(b, &c), HasSubstr("[le-driver] clip.mkv decoded IN PLACE ("));
    b.stills("stills");
    EXPECT_EQ(openDrive(b, &c), "[le-driver] stills/ (raw jpg, 6 frames) — read one frame per pull\n");
  }
  {
    // a movie of the wrong size propagates the source's refusal
    Bundle b("open_wrong", "");
    media::writeMovie(b.dir + "/target_frames.mp4", media::movieSpec(96, 48), 6);
    EXPECT_EQ(openDrive(b), "THROW le_driver: " + b.dir +
                                "/target_frames.mp4 is 96x48, the manifest says 80x48 — refusing to rescale the driver");
  }
}

TEST(DriverCursorOpen, PriorCursorPlaysTheVideoPrior) {
  media::ScopedEnv hw("LE_DRIVER_HWDEC", nullptr);
  {
    Bundle b("prior_default", "");
    b.prior("source_frames.hevc");  // the newer name of P_hevc.mov
    testing::internal::CaptureStderr();
    auto c = le::DriverCursor::openPrior(b.m, 2, 11);
    const std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(printed, "Vantorix: identity source ready — 6 frames 64x64, played straight from P_hevc.mov (" + c->name +
                           "); nothing is unpacked to disk\n");
    EXPECT_THAT(c->name, StartsWith("hevc444/libavcodec "));
    EXPECT_EQ(c->frameBytes, 64u * 64 * 6);
    int got;
    for (int i = 0; i < 8; ++i) {
      const auto* p = reinterpret_cast<const uint16_t*>(c->pull(&got));
      EXPECT_EQ(got, i % 6);
      for (int q = 0; q < 64 * 64 * 3; q += 97) ASSERT_LE(p[q], 0x3C00) << "a value above 1.0";
    }
  }
  {
    Bundle b("prior_named", ", \"P_hevc\": \"prior.mov\"");
    EXPECT_EQ(le::testing::thrown([&] { le::DriverCursor::openPrior(b.m, 2, 11); }),
              "this bundle carries neither a raw P.f16 nor prior.mov (" + b.dir +
                  "/prior.mov) — there is no warp prior to play. REFUSING to create a session.");
    b.prior("prior.mov");
    testing::internal::CaptureStderr();
    auto c = le::DriverCursor::openPrior(b.m, 1, 0);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("played straight from prior.mov ("));
    int got;
    c->pullAt(5, &got);
    EXPECT_EQ(got, 5);
  }
}
