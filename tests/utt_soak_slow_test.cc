// ctest-label: threaded
// Thirty seconds of the pipeline soak: speak / interrupt / end / idle cycles leave resident memory
// flat after warm-up.
#include <gtest/gtest.h>

#include "le/le.h"
#include "tests/bundle_fixture.h"
#include "tests/support/speech.h"
#include "tests/support/utt_soak.h"
#include "tools/forge/forge.h"

TEST(UttSoak, ResidentMemoryStaysFlat) {
  le::testing::ScratchDir dir("utt_soak");
  const le::forge::Params p = le::testmedia::uttBundleParams(160, 120, 64, 6);
  le::forge::forgeBundle(dir / "b", p);
  le_ctx* ctx = le_create((dir / "b").c_str(), "b1", 2, nullptr);
  ASSERT_NE(ctx, nullptr) << le_last_error();
  const std::string source = dir / "b/motion";
  le_utt_opts o{};
  o.motion_dir = source.c_str();
  o.endSilence = 0.2;
  const auto clip = le::testmedia::speak16kPcm("Say ah, then stop.");
  const auto s = le::testmedia::soakUtterances(ctx, o, clip, 30, 5);
  le_destroy(ctx);
  ASSERT_GE(s.size(), 3u);
  EXPECT_GE(s.back().cycles, 6u);
  // From the second sample on (pipeline, sessions and pools warm), within 5 %.
  EXPECT_LE(s.back().rssMiB, s[1].rssMiB * 1.05) << "from " << s[1].rssMiB << " MiB";
}
