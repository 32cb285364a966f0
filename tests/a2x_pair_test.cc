// Where the windowed trunk/head pair is looked for: the environment pair first (both variables
// set), then the two name pairs beside the 8 s encoder. The lookup runs once per process, so each
// case runs in a child process of its own.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "le/audio/le_a2x_w2v.h"
#include "tests/a2x_fixture.h"
#include "tests/support/media.h"

namespace {

namespace fs = std::filesystem;
using le::testing::ScratchDir;

// Looks for the pair beside encoder, twice: the second lookup must repeat the first whatever the
// environment says by then. Exits 0 when the pair was found as expected.
[[noreturn]] void lookup(const std::string& encoder, bool expectFound) {
  le::a2x::WindowedPair p;
  const bool found = le::a2x::windowedPair(1, encoder, &p);
  ::setenv("LE_A2X_W2V_WIN_ONNX", "/nonexistent/t.onnx", 1);
  ::setenv("LE_A2X_W2V_HEAD_ONNX", "/nonexistent/h.onnx", 1);
  const bool again = le::a2x::windowedPair(1, encoder, nullptr);
  std::exit(found == expectFound && again == found && (!found || (p.trunk && p.head && p.lt == 401)) ? 0 : 1);
}

TEST(A2xPair, EnvironmentPairThenNamesBesideTheEncoder) {
  GTEST_FLAG_SET(death_test_style, "fast");  // no threads yet: the lookups fork here
  const ScratchDir scratch("a2x_pair");
  const fs::path d = scratch.path();
  const fs::path b = le::testa2x::forgeAudioBundle(scratch, "b");  // encoder with its pair beside it
  const fs::path trunk = b / "w2v/audio_encoder_fp16_window_trunk.onnx";
  const fs::path head = b / "w2v/audio_encoder_fp16_window_head.onnx";
  const std::string encoder = le::testa2x::w2vOf(b.string());
  for (const char* sub : {"env", "legacy", "none"}) fs::create_directories(d / sub);
  fs::copy_file(trunk, d / "env/t.onnx");
  fs::copy_file(head, d / "env/h.onnx");
  fs::copy_file(trunk, d / "legacy/w2v_trunk32.onnx");
  fs::copy_file(head, d / "legacy/w2v_head32.onnx");
  for (const char* sub : {"legacy", "none"}) fs::copy_file(encoder, d / sub / "enc.onnx");
  {
    std::ofstream(d / "env/broken.onnx") << "not a model";
  }
  const std::string env = (d / "env").string(), t = env + "/t.onnx", h = env + "/h.onnx";
  const std::string broken = env + "/broken.onnx";
  const struct {
    const char *trunk, *head;  // the environment pair (null: unset)
    std::string encoder;
    bool found;
    const char* says;
  } cases[] = {
      // both variables set: they win over the pair beside the encoder
      {t.c_str(), h.c_str(), encoder, true, "loaded \\(LT=401\\) trunk=[^ ]*/env/t\\.onnx"},
      // one variable alone is ignored: the standard names beside the encoder
      {t.c_str(), nullptr, encoder, true, "trunk=[^ ]*/b/w2v/audio_encoder_fp16_window_trunk\\.onnx"},
      {nullptr, nullptr, (d / "legacy/enc.onnx").string(), true, "trunk=[^ ]*/legacy/w2v_trunk32\\.onnx"},
      {nullptr, nullptr, (d / "none/enc.onnx").string(), false, "short-window audio frontend NOT DEPLOYED"},
      // a pair that does not load: said so, and the 8 s window serves
      {broken.c_str(), h.c_str(), encoder, false,
       "short-window w2v load FAILED \\([^)]*\\) — legacy 8s path"},
  };
  for (const auto& c : cases) {
    le::testmedia::ScopedEnv winEnv("LE_A2X_W2V_WIN_ONNX", c.trunk), headEnv("LE_A2X_W2V_HEAD_ONNX", c.head);
    EXPECT_EXIT(lookup(c.encoder, c.found), ::testing::ExitedWithCode(0), c.says) << c.encoder;
  }
}

}  // namespace
