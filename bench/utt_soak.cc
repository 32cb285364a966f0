// Soak of the utterance pipeline: cycles speak / interrupt / end / idle on a forged bundle for a
// given duration and prints resident memory over time, then its growth after the first sample.
//
//   utt_soak [seconds = 600] [sample every seconds = 10]
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>

#include "le/le.h"
#include "le/le_a2x.h"
#include "tests/support/speech.h"
#include "tests/support/utt_soak.h"
#include "tools/forge/forge.h"

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::atof(argv[1]) : 600.0;
  const double every = argc > 2 ? std::atof(argv[2]) : 10.0;
  const char* t = std::getenv("LE_BENCH_TMP");
  const std::string dir = std::string(t && *t ? t : "/tmp") + "/le_utt_soak_bundle";
  try {
    le::forge::Params p = le::testmedia::uttBundleParams(640, 360, 256, 8);
    p.replace = true;
    le::forge::forgeBundle(dir, p);
    le_ctx* ctx = le_create(dir.c_str(), "b1", 0, nullptr);
    if (!ctx) throw std::runtime_error(le_last_error());
    const std::string source = dir + "/motion";
    le_utt_opts o{};
    o.motion_dir = source.c_str();
    const auto clip = le::testmedia::speak16kPcm("Say ah, then stop. Now once more, a little longer.");
    double first = 0;
    const auto samples = le::testmedia::soakUtterances(
        ctx, o, clip, seconds, every, [&](const le::testmedia::SoakSample& s) {
          if (first == 0) first = s.rssMiB;
          std::printf("t=%7.1f s  rss=%8.1f MiB  cycles=%llu  frames=%llu  speech=%llu\n", s.seconds,
                      s.rssMiB, static_cast<unsigned long long>(s.cycles),
                      static_cast<unsigned long long>(s.frames),
                      static_cast<unsigned long long>(s.speechFrames));
          std::fflush(stdout);
        });
    le_destroy(ctx);
    // The first sample is taken once the pipeline is warm; growth is measured from there.
    const double last = samples.back().rssMiB;
    std::printf("rss growth after warm-up: %.2f %% (%.1f -> %.1f MiB)\n", 100.0 * (last - first) / first,
                first, last);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "utt_soak: %s\n", e.what());
    return 1;
  }
  return 0;
}
