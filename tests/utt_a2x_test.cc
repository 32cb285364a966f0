// ctest-label: threaded
// The utterance pipeline on the audio-to-expression source: speech frames are exactly what the
// single-image path makes of the stream's triples, and every one arrives once and in order
// whatever the push size, paste mode and cadence.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_a2x.h"
#include "tests/bundle_fixture.h"
#include "tests/support/media.h"
#include "tests/support/speech.h"
#include "tests/support/utt_soak.h"
#include "tools/forge/director_graph.h"
#include "tools/forge/forge.h"
#include "tools/forge/forge_audio.h"
#include "tools/forge/onnx_builder.h"

namespace {

using le::testmedia::kSanitized;
using le::testmedia::ScopedEnv;

// A steady chunk member that loads but fails every run: a Gather past the end of kp_driving,
// which only the run itself can see.
std::vector<uint8_t> brokenChunkDirector(int crop, int batch) {
  using le::forge::Attr;
  le::forge::OnnxBuilder b("broken_chunk");
  b.input("pooled64", {batch, 64, 32, 32});
  b.input("P_rgb", {batch, 3, crop, crop});
  b.input("kp_driving", {batch, 21, 3});
  b.input("kp_source", {batch, 21, 3});
  const std::string past = b.op("Gather", {"kp_driving", b.initI64("past_end", {1}, {100})}, {Attr::i("axis", 1)});
  const std::string zero = b.op("Mul", {b.op("ReduceSum", {past}), b.init("zero", {}, {0.f})});
  b.output(b.op("Add", {"P_rgb", zero}, {}, "", "rgb"), {batch, 3, crop, crop});
  return b.build();
}

// The pipeline's speaking bundle, with a steady chunk member that draws differently, so a test
// can see which frames it made, and one whose runs fail.
struct Bundle : le::testmedia::SpeakingBundle {
  Bundle() : SpeakingBundle("utt_a2x", forgeParams()) {}
  static le::forge::Params forgeParams() {
    le::forge::Params p = le::testmedia::uttBundleParams(96, 80, 64, 5);
    le::forge::DirectorGraphOptions g;
    g.crop = p.crop;
    g.batch = 24;
    g.sigma = 0.2f;
    p.extraMembers.push_back({"model_b24_probe.onnx", le::forge::forgeDirectorGraph(g)});
    p.extraMembers.push_back({"model_b24_broken.onnx", brokenChunkDirector(p.crop, 24)});
    return p;
  }
};

const std::vector<int16_t>& clip() { return le::testmedia::sayAhClip(); }

using Frame = le::testmedia::UttFrame;

// One utterance through a fresh pipeline: pushes in pieces of `push`, marks the end and pulls
// until idle frames follow the speech. Returns every frame pulled; a fatal failure throws, the
// last non-fatal one lands in status.
std::vector<Frame> speak(const Bundle& b, le_utt_opts o, size_t push, bool keepPixels,
                         std::string* status = nullptr, uint64_t* failures = nullptr) {
  o.motion_dir = b.path.c_str();
  le::testmedia::UttPipeline p(b.ctx, b.frameBytes(), o, keepPixels);
  const size_t from = p.got.size();
  p.push(clip(), push);
  le_utt_end_utterance(p.u);
  p.untilIdle(from);
  char text[256];
  if (le_utt_render_status(p.u, text, sizeof text, failures) != 0) throw std::runtime_error(text);
  if (status) *status = text;
  return std::move(p.got);
}

std::vector<const Frame*> speechFrames(const std::vector<Frame>& f) {
  std::vector<const Frame*> s;
  for (const Frame& x : f)
    if (x.info.kind == LE_UTT_KIND_SPEECH) s.push_back(&x);
  return s;
}

// Speech frames are byte for byte the single-image render + paste of the triples a separate
// stream makes of the same audio, started where the pipeline's walk stood; every one arrives
// once and in order, nothing between them, whatever the push size, paste mode and cadence.
TEST(UttA2x, SpeechFramesAreTheSingleImagePathOnceInOrder) {
  Bundle b;
  const auto& pcm = clip();
  const int n = int((pcm.size() + 639) / 640);

  // Without the steady chunk renderer in small pushes, the paste on its own thread and inline,
  // the hybrid cadence and a fixed batch. With it, the whole clip at once: once speech is
  // rendering, the queue fills and 24 frames go through the chunk renderer in one call. The
  // probe chunk member shows which frames that was (its pixels differ). A chunk member whose
  // runs fail falls back to rendering those frames one by one: nothing lost, the failures
  // reported but not fatal.
  struct Mode {
    const char* steady;
    const char* pipelined;  // null: the default
    int batch;
    size_t push;
  } modes[] = {{"-", "1", -2, 7},
               {"-", "0", 3, 333},
               {"", nullptr, 0, pcm.size()},
               {"b24_probe", nullptr, 0, pcm.size()},
               {"b24_broken", nullptr, 0, pcm.size()}};
  // Sanitized: the short clip has fewer than 24 frames for the chunk members.
  for (const Mode& m : kSanitized ? std::vector<Mode>{modes[0], modes[2]} : std::vector<Mode>(modes, modes + 5)) {
    const bool probe = std::string(m.steady) == "b24_probe", broken = std::string(m.steady) == "b24_broken";
    SCOPED_TRACE(std::string("steady renderer '") + m.steady + "' push " + std::to_string(m.push));
    ScopedEnv paste("LE_UTT_PIPELINE_PASTE", m.pipelined);
    le_utt_opts o{};
    o.steadyModel = m.steady;
    o.batch = m.batch;
    std::string status;
    uint64_t failures = 0;
    const std::vector<Frame> got = speak(b, o, m.push, true, &status, &failures);
    if (broken) {
      EXPECT_EQ(status.rfind("ep=cpu b24 chunk: ", 0), 0u) << status;
      EXPECT_GE(failures, 2u);  // its warm-up run and at least one chunk
    } else {
      EXPECT_EQ(failures, 0u) << status;
    }
    for (size_t i = 1; i < got.size(); ++i) ASSERT_EQ(got[i].info.seq, got[i - 1].info.seq + 1);
    const auto speech = speechFrames(got);
    ASSERT_EQ(int(speech.size()), n);
    for (int k = 0; k < n; ++k) {
      ASSERT_EQ(speech[size_t(k)]->info.speechIndex, uint32_t(k));
      if (k > 0) {
        ASSERT_EQ(speech[size_t(k)], speech[size_t(k - 1)] + 1) << "frame " << k;
      }
    }

    const auto [si, xs, xd] = le::testmedia::a2xTriples(b.path, int(speech[0]->info.sourceIndex), pcm, n);

    std::vector<uint8_t> want(b.frameBytes());
    int differing = 0, chunked = 0;
    for (int k = 0; k < n && differing < 3; ++k) {
      ASSERT_EQ(speech[size_t(k)]->info.sourceIndex, uint32_t(si[size_t(k)])) << "frame " << k;
      const float* crop = le_render_kp_crop(b.ctx, si[size_t(k)], &xs[size_t(k) * 63], &xd[size_t(k) * 63]);
      ASSERT_NE(crop, nullptr) << le_last_error();
      ASSERT_EQ(le_paste_crop(b.ctx, si[size_t(k)], crop, want.data(), want.size()), 1) << le_last_error();
      const bool same = speech[size_t(k)]->rgb == want;
      if (probe) {
        chunked += !same;
      } else if (!same) {
        ++differing;
        ADD_FAILURE() << "frame " << k << " differs from the single-image path";
      }
    }
    if (probe) {
      EXPECT_EQ(chunked, 24);
    }
  }
}

}  // namespace
