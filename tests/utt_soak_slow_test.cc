// ctest-label: threaded
// Thirty seconds of the pipeline soak: speak / interrupt / end / idle cycles leave resident memory
// flat after warm-up.
#include <gtest/gtest.h>

#include "le/le.h"
#include "tests/support/speech.h"
#include "tests/support/utt_soak.h"

using le::testmedia::kSanitized;

TEST(UttSoak, ResidentMemoryStaysFlat) {
  std::vector<le::testmedia::SoakSample> s;
  {
    const le::testmedia::OpenBundle b("utt_soak", le::testmedia::uttBundleParams(160, 120, 64, 6));
    const std::string source = b.path + "/motion";
    le_utt_opts o{};
    o.motion_dir = source.c_str();
    o.endSilence = 0.2;
    const auto clip = le::testmedia::speak16kPcm("Say ah, then stop.");
    // Sanitized builds run each kind of cycle once (the races and memory errors they may hold),
    // however long that takes there.
    s = le::testmedia::soakUtterances(b.ctx, o, clip, kSanitized ? 0 : 30, 5, {}, kSanitized ? 3 : 0);
  }
  if (kSanitized) {
    EXPECT_GE(s.back().cycles, 3u);
    GTEST_SKIP() << "resident memory not bounded: the sanitizer runtime holds freed memory in "
                    "quarantine and shadow pages grow with it";
  }
  ASSERT_GE(s.size(), 3u);
  EXPECT_GE(s.back().cycles, 6u);
  // From the second sample on (pipeline, sessions and pools warm), within 5 %.
  EXPECT_LE(s.back().rssMiB, s[1].rssMiB * 1.05) << "from " << s[1].rssMiB << " MiB";
}
