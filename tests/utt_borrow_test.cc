// ctest-label: threaded
// The mouth-interior borrow attached to a running utterance pipeline: every refusal of the
// attachment, frames byte for byte those of the single-image path with the offline borrow run
// over the same crops (on the borrow thread and inline), and no frame lost or doubled across
// interrupts, ends and idle stretches.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "le/le.h"
#include "le/le_a2x.h"
#include "le/le_bundle.h"
#include "le/tessera/le_bundle_tessera.h"
#include "le/tessera/le_lip_contour.h"
#include "le/tessera/le_tessera_pi.h"
#include "le/tessera/le_tessera_stream.h"
#include "tests/bundle_fixture.h"
#include "tests/support/media.h"
#include "tests/support/speech.h"
#include "tests/support/utt_soak.h"
#include "tools/forge/forge.h"

namespace {

using le::testmedia::kSanitized;
using le::testmedia::ScopedEnv;
using Clock = std::chrono::steady_clock;

// A speaking bundle that carries the borrow and a lip template, its members and decoded bank.
struct Bundle : le::testmedia::SpeakingBundle {
  le::TesseraAttachInputs in;
  std::vector<uint8_t> donors;
  Bundle()
      : SpeakingBundle("utt_borrow", forgeParams()), in(le::loadTesseraMembers(path)), donors(in.bankData().band) {}
  static le::forge::Params forgeParams() {
    le::forge::Params p = le::testmedia::uttBundleParams(160, 128, 128, 5);
    p.tessera = true;
    p.tesseraDonors = 24;
    p.lips = le::forge::Lips::Template;
    return p;
  }
  // le_utt_tessera_attach with this bundle's members; stamp replaces the bank's when given.
  int attach(le_utt* u, std::string& err, const int32_t* stamp = nullptr) const {
    char buf[1024];
    const int r = le_utt_tessera_attach(u, donors.data(), in.n_donors, in.cent.data(), in.c_canon.data(),
                                        in.aperture.data(), stamp ? stamp : in.stamp.values().data(),
                                        in.head_pt.data(), uint32_t(in.head_pt.size()), in.head_json.c_str(),
                                        in.manifest_json.c_str(), buf, sizeof buf);
    err = buf;
    return r;
  }
};

const std::vector<int16_t>& clip() { return le::testmedia::sayAhClip(); }

using Frame = le::testmedia::UttFrame;

// A pipeline with the bundle's borrow attached once its source is ready.
struct Pipeline : le::testmedia::UttPipeline {
  explicit Pipeline(const Bundle& b) : UttPipeline(b.ctx, b.frameBytes(), opts(b)) {
    std::string err;
    if (b.attach(u, err) != 0) throw std::runtime_error(err);
  }
  static le_utt_opts opts(const Bundle& b) {
    le_utt_opts o{};
    o.motion_dir = b.path.c_str();
    o.steadyModel = "-";
    return o;
  }
};

// The plain reference of the borrow's byte conversion and its write-back arithmetic.
uint8_t byteOf(float v) { return v <= 0.f ? 0 : uint8_t(std::nearbyint(std::min(v, 1.f) * 255.f)); }
float writtenBack(uint8_t window, float v) {
  const float k = 0.003921569f;
  return std::min(std::max(float(window) * k - float(byteOf(v)) * k + v, 0.f), 1.f);
}

// Every refusal of the attachment. Then, with the borrow on its own thread (paste on its own
// thread) and inline on the render thread: speech and ramp frames through the pipeline with the
// borrow attached equal, byte for byte, the single-image render of the same keypoints, its crop
// run through le_tessera_run_shift with the delivery masks and shifts of the driven keypoints,
// written back and pasted. Interrupts, ends, idle stretches and a re-attachment while speaking lose
// or double no frame: sequence numbers run on (the interrupt's discarded frames excepted), every
// utterance shows its speech frames once and in order. A failed borrow stops delivery until a
// good one is attached.
TEST(UttBorrow, RefusalsFramesOfTheOfflineRunAndNoFrameLost) {
  Bundle b;
  // Refusals leave nothing attached; a capacity of 1 writes only the terminating zero.
  std::string err;
  char text[1024];
  EXPECT_EQ(b.attach(nullptr, err), 1);
  EXPECT_EQ(err, "le_utt_tessera_attach: null session");
  // A pipeline whose source directory has no target keypoints (nor a source).
  le_utt* u = le_utt_open(b.ctx, (b.dir / "missing").c_str());
  ASSERT_NE(u, nullptr);
  EXPECT_EQ(le_utt_tessera_attach(u, nullptr, 1, nullptr, nullptr, nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                  text, sizeof text),
            1);
  EXPECT_STREQ(text, "le_utt_tessera_attach: a required member is null — this ABI has no partial-attach state");
  EXPECT_EQ(le_utt_tessera_attach(u, b.donors.data(), 0, b.in.cent.data(), b.in.c_canon.data(), b.in.aperture.data(),
                                  b.in.stamp.values().data(), b.in.head_pt.data(), 1, "", "", text, sizeof text),
            1);
  EXPECT_STREQ(text, "le_utt_tessera_attach: n_donors <= 0");
  le::tessera::GeometryStamp big = b.in.stamp;
  big.canvas_w = big.canvas_h = 512;
  EXPECT_EQ(b.attach(u, err, big.values().data()), 1);
  EXPECT_EQ(err, "le_utt_tessera_attach: bank canvas 512x512 != this bundle's render crop 128");
  le::tessera::GeometryStamp bad = b.in.stamp;
  bad.window_w = 0;
  EXPECT_EQ(b.attach(u, err, bad.values().data()), 1);
  EXPECT_EQ(err.rfind("le_utt_tessera_attach: teeth: GeometryStamp incoherent: ", 0), 0u) << err;
  EXPECT_EQ(b.attach(u, err), 1);
  EXPECT_EQ(err,
            "le_utt_tessera_attach: xs_target.bin is absent or the wrong length, so this bundle's corpus pi frame "
            "cannot be identified — refusing to arm the borrow against the manifest's compose-field geometry");
  uint64_t written = 9, skipped = 9;
  EXPECT_EQ(le_utt_tessera_stats(u, &written, &skipped, text, sizeof text), 0);
  EXPECT_EQ(le_utt_tessera_geometry(u, text, sizeof text), 0);
  EXPECT_STREQ(text, "");
  le_utt_destroy(u);
  EXPECT_EQ(le_utt_tessera_stats(nullptr, nullptr, nullptr, nullptr, 0), 0);
  EXPECT_EQ(le_utt_tessera_geometry(nullptr, text, sizeof text), 0);
  EXPECT_EQ(le_utt_tessera_synth_w(nullptr, nullptr, nullptr, nullptr), 0);

  const auto& pcm = clip();
  const int n = int((pcm.size() + 639) / 640);
  const int canvas = le_crop(b.ctx), nt = le_nt(b.ctx);
  const size_t plane = size_t(canvas) * size_t(canvas);
  const std::string xsBytes = le::readFile(b.path + "/xs_target.bin");
  const float* targets = reinterpret_cast<const float*>(xsBytes.data());
  const le::tessera::UnifiedPi pi = le::tessera::UnifiedPi::corpusFromManifestJson(
      b.in.manifest_json, canvas, targets, nt, b.in.c_canon.data(), nullptr);
  const le::tessera::LipContour lip =
      le::tessera::LipContour::fromTemplateJson(le::readFile(b.path + "/lip_template.v1.json"), canvas);
  const le::tessera::GeometryStamp& st = b.in.stamp;

  for (const char* pipelined : kSanitized ? std::vector<const char*>{"1"} : std::vector<const char*>{"1", "0"}) {
    SCOPED_TRACE(std::string("pipelined paste ") + pipelined);
    ScopedEnv paste("LE_UTT_PIPELINE_PASTE", pipelined);
    std::vector<Frame> got;  // the first utterance's speech and ramp frames, for the offline run
    {
      Pipeline p(b);
      // attached: the corpus geometry and empty stats; a refused re-attachment keeps it
      EXPECT_EQ(le_utt_tessera_geometry(p.u, text, sizeof text), 1);
      EXPECT_STREQ(text, "v1");
      text[0] = 'x';
      text[1] = 'y';
      EXPECT_EQ(le_utt_tessera_geometry(p.u, text, 1), 1);
      EXPECT_EQ(text[0], '\0');
      EXPECT_EQ(text[1], 'y');
      EXPECT_EQ(le_utt_tessera_stats(p.u, &written, &skipped, text, sizeof text), 1);
      EXPECT_EQ(written, 0u);
      EXPECT_EQ(skipped, 0u);
      EXPECT_EQ(b.attach(p.u, err, big.values().data()), 1);
      EXPECT_EQ(le_utt_tessera_stats(p.u, nullptr, nullptr, nullptr, 0), 1);
      // one utterance in 640-sample pushes
      size_t from = p.got.size();
      p.push(pcm, 640);
      le_utt_end_utterance(p.u);
      p.untilIdle(from);
      for (size_t i = from; i < p.got.size(); ++i)
        if (p.got[i].info.kind != LE_UTT_KIND_IDLE) got.push_back(std::move(p.got[i]));
      EXPECT_EQ(le_utt_tessera_stats(p.u, &written, &skipped, text, sizeof text), 1) << text;
      EXPECT_EQ(written, uint64_t(n + 6));
      EXPECT_EQ(skipped, 0u);
      // interrupted after three speech frames
      from = p.got.size();
      ASSERT_EQ(le_utt_push_audio(p.u, pcm.data(), int(pcm.size())), 1);
      p.untilSpeech(from, 3);
      le_utt_interrupt(p.u);
      const size_t cut = p.got.size();
      p.untilIdle(cut, 4);
      for (size_t i = cut; i < p.got.size(); ++i)
        EXPECT_EQ(p.got[i].info.kind, i - cut < 4 ? LE_UTT_KIND_RAMP : LE_UTT_KIND_IDLE) << "frame " << i;
      // a whole utterance in small pushes, re-attached halfway through
      from = p.got.size();
      bool reattached = false;
      for (size_t at = 0; at < pcm.size(); at += 640) {
        ASSERT_EQ(le_utt_push_audio(p.u, pcm.data() + at, int(std::min<size_t>(640, pcm.size() - at))), 1);
        p.pull();
        if (!reattached && at >= pcm.size() / 2) {
          std::string err;
          ASSERT_EQ(b.attach(p.u, err), 0) << err;
          reattached = true;
        }
      }
      le_utt_end_utterance(p.u);
      p.untilIdle(from);
      std::vector<uint32_t> speech;
      for (size_t i = from; i < p.got.size(); ++i)
        if (p.got[i].info.kind == LE_UTT_KIND_SPEECH) speech.push_back(p.got[i].info.speechIndex);
      ASSERT_EQ(int(speech.size()), n);
      for (int k = 0; k < n; ++k) EXPECT_EQ(speech[size_t(k)], uint32_t(k));
      for (size_t i = 1; i < p.got.size(); ++i)
        if (i != cut) {
          EXPECT_EQ(p.got[i].info.seq, p.got[i - 1].info.seq + 1) << "frame " << i;
        }
      written = 0, skipped = 0;
      EXPECT_EQ(le_utt_tessera_stats(p.u, &written, &skipped, nullptr, 0), 1);
      EXPECT_GE(written, 1u);
      EXPECT_EQ(skipped, 0u);

      // A borrow whose every frame is refused (its canonical mouth 6 px off, beyond the shift range
      // of 4) fails at the second crop frame: nothing more reaches the host, the stats report -1
      // with the reason, and attaching a good borrow resumes delivery. It is moved in the first
      // direction in which the corpus geometry is still identified.
      char err[1024];
      int attached = 1;
      for (const auto& d : {std::pair<double, double>{-6, 0}, {6, 0}, {0, -6}, {0, 6}}) {
        const double off[2] = {b.in.c_canon[0] + d.first, b.in.c_canon[1] + d.second};
        attached = le_utt_tessera_attach(p.u, b.donors.data(), b.in.n_donors, b.in.cent.data(), off,
                                         b.in.aperture.data(), b.in.stamp.values().data(), b.in.head_pt.data(),
                                         uint32_t(b.in.head_pt.size()), b.in.head_json.c_str(),
                                         b.in.manifest_json.c_str(), err, sizeof err);
        if (attached == 0) break;
      }
      ASSERT_EQ(attached, 0) << err;
      ASSERT_EQ(le_utt_push_audio(p.u, pcm.data(), int(pcm.size())), 1);
      le_utt_end_utterance(p.u);
      char reason[256] = "";
      written = 9, skipped = 0;
      while (le_utt_tessera_stats(p.u, &written, &skipped, reason, sizeof reason) != -1) p.pullOrNap();
      EXPECT_STREQ(reason, "shift-out-of-range");
      EXPECT_EQ(written, 0u);
      EXPECT_EQ(skipped, 1u);
      p.pull();
      const size_t stopped = p.got.size();
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      p.pull();
      EXPECT_EQ(p.got.size(), stopped) << "frames reached the host through a failed borrow";
      EXPECT_EQ(le_utt_render_status(p.u, nullptr, 0, nullptr), 0);

      std::string e;
      ASSERT_EQ(b.attach(p.u, e), 0) << e;
      EXPECT_EQ(le_utt_tessera_stats(p.u, nullptr, nullptr, reason, sizeof reason), 1);
      EXPECT_STREQ(reason, "");
      p.untilIdle(stopped, 2);
    }
    ASSERT_EQ(int(got.size()), n + 6);

    // The triples a separate stream makes of the same audio, then the ramp back to the targets.
    auto [si, xs, xd] = le::testmedia::a2xTriples(b.path, int(got[0].info.sourceIndex), pcm, n);
    si.resize(size_t(n + 6));
    xs.resize(size_t(n + 6) * 63);
    xd.resize(size_t(n + 6) * 63);
    for (int k = 1; k <= 6; ++k) {
      const size_t f = size_t(n - 1 + k), last = size_t(n - 1);
      si[f] = int(got[f].info.sourceIndex);
      const float w = 1.0f - float(k) / 6.0f;
      for (size_t j = 0; j < 63; ++j) {
        const float t = targets[size_t(si[f]) * 63 + j];
        xs[f * 63 + j] = t;
        xd[f * 63 + j] = w * (xd[last * 63 + j] - targets[size_t(si[last]) * 63 + j]) + t;
      }
    }

    const size_t frames = got.size();
    std::vector<std::vector<float>> crops;
    std::vector<uint8_t> rgb(frames * plane * 3), masks(frames * plane);
    std::vector<int32_t> shifts(frames * 2);
    for (size_t f = 0; f < frames; ++f) {
      ASSERT_EQ(got[f].info.sourceIndex, uint32_t(si[f])) << "frame " << f;
      const float* c = le_render_kp_crop(b.ctx, si[f], &xs[f * 63], &xd[f * 63]);
      ASSERT_NE(c, nullptr) << le_last_error();
      crops.emplace_back(c, c + 3 * plane);
      for (size_t i = 0; i < plane; ++i)
        for (size_t ch = 0; ch < 3; ++ch) rgb[(f * plane + i) * 3 + ch] = byteOf(c[ch * plane + i]);
      int32_t dy = 0, dx = 0;
      const bool found = lip.deliveredU8AndShift(&xd[f * 63], pi, b.in.c_canon.data(), &masks[f * plane], dy, dx);
      shifts[2 * f] = found ? dy : -10000;
      shifts[2 * f + 1] = dx;
    }
    const size_t windowBytes = size_t(st.window_w) * size_t(st.window_h) * 3;
    std::vector<uint8_t> windows(frames * windowBytes);
    std::vector<uint32_t> flags(frames, 7);
    char err[512];
    ASSERT_EQ(le_tessera_run_shift(b.donors.data(), b.in.n_donors, b.in.cent.data(), b.in.c_canon.data(),
                                   b.in.aperture.data(), st.values().data(), b.in.head_pt.data(),
                                   uint32_t(b.in.head_pt.size()), b.in.head_json.c_str(), rgb.data(), masks.data(),
                                   shifts.data(), int(frames), windows.data(), flags.data(), err, sizeof err),
              0)
        << err;

    std::vector<uint8_t> want(b.frameBytes());
    int differing = 0, borrowed = 0;
    for (size_t f = 0; f < frames && differing < 3; ++f) {
      ASSERT_EQ(flags[f], 0u) << "frame " << f;
      std::vector<float>& c = crops[f];
      for (int y = 0; y < st.window_h; ++y)
        for (int x = 0; x < st.window_w; ++x)
          for (size_t ch = 0; ch < 3; ++ch) {
            float& v = c[ch * plane + size_t(st.window_y0 + y) * size_t(canvas) + size_t(st.window_x0 + x)];
            const uint8_t w = windows[f * windowBytes + (size_t(y) * size_t(st.window_w) + size_t(x)) * 3 + ch];
            borrowed += w != byteOf(v);
            v = writtenBack(w, v);
          }
      ASSERT_EQ(le_paste_crop(b.ctx, si[f], c.data(), want.data(), want.size()), 1) << le_last_error();
      if (got[f].rgb != want) {
        ++differing;
        ADD_FAILURE() << "frame " << f << " (kind " << got[f].info.kind << ") differs";
      }
    }
    EXPECT_GT(borrowed, 0) << "the borrow changed no pixel";
  }
}

}  // namespace
