// Audio input of the le tool's hosts: any file FFmpeg decodes, as the engine hears it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace le::cli {

// The engine's audio: mono, 16,000 samples per second, 640 samples per video frame.
constexpr int kSampleRate = 16000;
constexpr int kSamplesPerFrame = 640;

// The first audio stream of path, decoded, down-mixed to mono and resampled to 16 kHz signed
// 16-bit. Throws std::runtime_error with a one-line reason naming the file when it cannot be
// opened, holds no audio stream, or does not decode.
std::vector<int16_t> readAudio16k(const std::string& path);

}  // namespace le::cli
