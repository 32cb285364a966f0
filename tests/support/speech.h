// Real synthesised speech for tests and benchmarks: espeak-ng speaks a text, sox resamples it to
// 16 kHz mono 16-bit without dither (so the same text always gives the same samples). Results are
// cached by text under $LE_TEST_TMP (or /tmp), so a sentence is synthesised once per build tree.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace le::testmedia {

// The text spoken by espeak-ng (default English voice), as 16 kHz mono signed 16-bit samples.
// Throws std::runtime_error when espeak-ng or sox is missing or fails. Safe from several
// processes and threads at once.
std::vector<int16_t> speak16kPcm(const std::string& text);

// The same samples as float, scaled by 1/32768 (the engine's own PCM scaling).
std::vector<float> speak16k(const std::string& text);

}  // namespace le::testmedia
