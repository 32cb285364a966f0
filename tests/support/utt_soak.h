// The utterance pipeline soak: one pipeline cycles speak / interrupt / end / idle while a host
// loop pulls every frame, sampling resident memory as it goes. Shared by the soak program under
// bench/ and its short CI run.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "le/le_a2x.h"
#include "tools/forge/forge.h"

namespace le::testmedia {

struct SoakSample {
  double seconds = 0;  // since the start of the soak
  double rssMiB = 0;   // resident memory of the process
  uint64_t cycles = 0;
  uint64_t frames = 0, speechFrames = 0;
};

// Forge parameters of a speaking bundle: nt source and drive frames of width x height, the face
// crop, the director members and the motion directory.
le::forge::Params uttBundleParams(int width, int height, int crop, int nt);

// Resident memory of this process (/proc/self/statm), in MiB.
double residentMiB();

// Runs the cycles on a pipeline made with opts over ctx for `seconds`, speaking clip (16 kHz
// mono) in 40 ms pushes; calls onSample every `every` seconds and once at the end. Throws
// std::runtime_error when the pipeline cannot be made or stops delivering frames.
std::vector<SoakSample> soakUtterances(le_ctx* ctx, const le_utt_opts& opts,
                                       const std::vector<int16_t>& clip, double seconds,
                                       double every,
                                       const std::function<void(const SoakSample&)>& onSample = {});

}  // namespace le::testmedia
