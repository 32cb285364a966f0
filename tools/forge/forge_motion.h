// The forged motion directory ("motion/" in a bundle): meta, tables and the three networks of
// the audio-driven motion generator, made for the bundle's stylised face. The speech-feature
// network measures loudness and vowel openness from the log-mel frames, the generator opens
// the lips with them (closed in silence) and the stitcher pulls the driven keypoints a little
// towards the source.
#pragma once

#include <vector>

#include "tools/forge/forge.h"

namespace le::forge {

// Members of the motion directory, named "motion/<member>".
std::vector<Member> motionMembers(const Params& p);

// The mel filterbank written as "hubert_stft_binmat.bin": 257 x 80, element (k, b) at k * 80 + b;
// triangles on the mel scale over 0 .. 8 kHz with area normalisation.
std::vector<float> melFilterbank();
// The periodic Hann window of 512 points written as "hubert_stft_window.bin".
std::vector<float> hannWindow();
// The generator's first state row (265) from the channel info "ch_xs_info.bin" (328).
std::vector<float> initialState(const std::vector<float>& ci);

}  // namespace le::forge
