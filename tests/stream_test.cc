// ctest-label: threaded
// The offline stream renderer: every delivered frame against render + paste of its own triple,
// the source walk with skip, empty runs, and the refusals on the same bundle broken step by step.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_bundle.h"
#include "tests/a2x_fixture.h"
#include "tools/forge/director_members.h"

namespace {

using le::testa2x::longSpeech;
using le::testing::ScratchDir;

struct Delivered {
  std::vector<int> index;
  std::vector<std::vector<uint8_t>> frames;
  int width = 0, height = 0;
};

int collect(void* user, int frameIndex, const uint8_t* rgb, int width, int height) {
  auto* d = static_cast<Delivered*>(user);
  d->index.push_back(frameIndex);
  d->frames.emplace_back(rgb, rgb + size_t(width) * height * 3);
  d->width = width;
  d->height = height;
  return 0;
}

// Three source frames with stills to paste into, and the audio members.
std::string forgeStreamBundle(const ScratchDir& d) {
  le::forge::Params p = le::forge::sized(3, 64, 48, 16, 4);
  p.extraMembers = le::forge::audioMembers(p);
  le::forge::DirectorMemberOptions o;
  o.featSynth = o.heavy = false;
  o.steadyBatch = 0;
  for (auto& m : le::forge::directorMembers(p, o)) p.extraMembers.push_back(std::move(m));
  return le::forge::forgeBundle(d / "b", p).dir;
}

std::string encoderOf(const std::string& dir) { return dir + "/" + le::forge::kW2vMember; }

TEST(Stream, FramesAreRenderAndPasteOfTheirTriplesAndRefusals) {
  ScratchDir d("stream");
  const std::string dir = forgeStreamBundle(d);
  const int skip = 2;
  const float gain = 1.5f;
  le_stream* s = le_stream_create(dir.c_str(), encoderOf(dir).c_str(), 1, skip, gain);
  ASSERT_NE(s, nullptr) << le_stream_last_error();
  const std::vector<float> audio(longSpeech().begin(), longSpeech().begin() + 40 * 640 - 100);
  Delivered got;
  ASSERT_EQ(le_stream_run(s, audio.data(), int(audio.size()), collect, &got), 40 - skip)
      << le_stream_last_error();
  ASSERT_EQ(got.width, le_stream_width(s));
  ASSERT_EQ(got.height, le_stream_height(s));

  // Independent triples: deltas from le_fca, source f mod 3, rendered and pasted one by one.
  le_fca* fca = le_fca_create(encoderOf(dir).c_str(), (dir + "/fca_stream.onnx").c_str(), 1);
  ASSERT_NE(fca, nullptr) << le_fca_last_error();
  std::vector<float> deltas(40 * 63);
  ASSERT_EQ(le_fca_deltas(fca, audio.data(), int(audio.size()), deltas.data(), 40), 40);
  le_fca_destroy(fca);
  const std::vector<float> xs = le::testing::readTable<float>(le::resolveMember(dir, "xs_target.bin"));
  ASSERT_EQ(xs.size(), 3u * 63);
  le_ctx* ctx = le_create(dir.c_str(), "render", 1, "");
  ASSERT_NE(ctx, nullptr) << le_last_error();
  std::vector<uint8_t> want(size_t(got.width) * got.height * 3);
  std::vector<float> driven(63);
  int differing = 0;
  for (int j = 0; j < 40 - skip; ++j) {
    const int src = (j + skip) % 3;  // 2, 0, 1, 2, ...
    for (int k = 0; k < 63; ++k) driven[size_t(k)] = xs[size_t(src) * 63 + k] + gain * deltas[size_t(j + skip) * 63 + k];
    const float* crop = le_render_kp_crop(ctx, src, xs.data() + src * 63, driven.data());
    ASSERT_NE(crop, nullptr) << le_last_error();
    ASSERT_EQ(le_paste_crop(ctx, src, crop, want.data(), want.size()), 1) << le_last_error();
    ASSERT_EQ(got.index[size_t(j)], j);
    ASSERT_EQ(got.frames[size_t(j)], want) << "frame " << j << " source " << src;
    if (j > 0 && got.frames[size_t(j)] != got.frames[size_t(j - 1)]) ++differing;
  }
  EXPECT_GT(differing, 20);  // the comparison sees sources and lips move
  le_destroy(ctx);

  // Nothing to render: no deltas, no frames, no callback.
  Delivered none;
  EXPECT_EQ(le_stream_run(s, audio.data(), 0, collect, &none), 0);
  EXPECT_EQ(le_stream_run(s, audio.data(), 2 * 640, collect, &none), 0);  // skip == frames
  EXPECT_EQ(le_stream_run(s, audio.data(), 1, collect, &none), 0);        // skip > frames
  EXPECT_TRUE(none.index.empty());
  EXPECT_EQ(le_stream_run(s, nullptr, 640, collect, &none), -1);
  EXPECT_STREQ(le_stream_last_error(), "le_stream_run: NULL handle, audio or callback");
  le_stream_destroy(s);
  le_stream_destroy(nullptr);

  // Refusals, the bundle broken step by step.
  const std::string enc = encoderOf(dir);
  EXPECT_EQ(le_stream_create(nullptr, enc.c_str(), 1, 0, 1.0f), nullptr);
  EXPECT_STREQ(le_stream_last_error(), "le_stream_create: no bundle directory");
  EXPECT_EQ(le_stream_create((d / "absent").c_str(), enc.c_str(), 1, 0, 1.0f), nullptr);
  EXPECT_STRNE(le_stream_last_error(), "");

  EXPECT_EQ(le_stream_create(dir.c_str(), (d / "none.onnx").c_str(), 1, 0, 1.0f), nullptr);
  EXPECT_EQ(std::string(le_stream_last_error()).rfind("le_fca_create: le_fca_create: ", 0), 0u)
      << le_stream_last_error();

  // A drive frame that cannot be read fails a paste: the run ends with -1 and the frames
  // delivered before it stay delivered, in order.
  s = le_stream_create(dir.c_str(), enc.c_str(), 1, 2, 1.0f);
  ASSERT_NE(s, nullptr) << le_stream_last_error();
  std::vector<std::string> stills;
  for (const auto& e : std::filesystem::directory_iterator(dir + "/target_frames")) stills.push_back(e.path().string());
  std::sort(stills.begin(), stills.end());
  ASSERT_EQ(stills.size(), 3u);
  std::filesystem::resize_file(stills[1], 10);
  Delivered cut;
  EXPECT_EQ(le_stream_run(s, audio.data(), 12 * 640, collect, &cut), -1);
  EXPECT_STREQ(le_stream_last_error(), "le_stream_run: render/paste failed");
  EXPECT_LT(cut.index.size(), 10u);
  for (size_t j = 0; j < cut.index.size(); ++j) EXPECT_EQ(cut.index[j], int(j));
  le_stream_destroy(s);

  const std::string xsPath = le::resolveMember(dir, "xs_target.bin");
  std::filesystem::resize_file(xsPath, 3 * 63 * 4 - 4);
  EXPECT_EQ(le_stream_create(dir.c_str(), enc.c_str(), 1, 0, 1.0f), nullptr);
  EXPECT_STREQ(le_stream_last_error(), "le_stream_create: cannot read xs_target.bin (NT*63 f32)");

  std::filesystem::remove(dir + "/fca_stream.onnx");
  EXPECT_EQ(le_stream_create(dir.c_str(), enc.c_str(), 1, 0, 1.0f), nullptr);
  EXPECT_NE(std::string(le_stream_last_error()).find("fca_stream.onnx"), std::string::npos)
      << le_stream_last_error();
}

}  // namespace
