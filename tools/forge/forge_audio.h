// Audio members of forged bundles: a speech encoder whose features follow the speech, its
// windowed trunk/head pair, and the bundle's streaming encoder and decoder that open the lips
// with loudness.
//
// Features (every encoder): 16 band energies (analytic band-pass filters of 640 taps, 100 Hz to
// 7 kHz, every 80 samples, averaged over 40 ms) and their total, as 1 + ln(E + 1e-4) / 9.21
// (0 in digital silence), spread over 640 trunk channels and 12 x 768 feature values. The 8 s
// encoder runs the trunk's filters over the window and samples them where the engine's windowed
// frontend interpolates, so the pair reproduces its features up to half rounding and the
// difference of the two windows' normalisation.
//
//   "w2v/audio_encoder_fp16.onnx"                 8 s encoder: "input_values" [1, 128000]
//                                                 -> "audio_emb" [12, 200, 768]
//   "w2v/audio_encoder_fp16_window_trunk.onnx"    trunk: [1, 32000] -> float16 [1, 640, 401]
//   "w2v/audio_encoder_fp16_window_head.onnx"     head: "x" [8, 640] -> "emb" [8, 9216]
//   "a2x_meta.json", "a2x_pos.f32", "a2x_norm.f32", "a2x_enc_stream.onnx", "a2x_dec.onnx"
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/forge/forge.h"

namespace le::forge {

// The 8 s encoder's member; point W2V_ONNX at bundle + "/" + this.
constexpr const char* kW2vMember = "w2v/audio_encoder_fp16.onnx";

struct AudioOptions {
  bool width = false;       // the streaming encoder also outputs "wn" [1, L] (mouth width)
  bool windowedPair = true; // write the trunk/head pair beside the 8 s encoder
  bool w2v = true;          // write the w2v/ folder at all
  int silencePrime = 0;     // meta "silence_prime"
  int posRows = 160;        // rows of the positional table (6.4 s)
  int window = 1, left = 6, layers = 2;  // attention reach per layer; layers of the encoder
};

// Hidden size of the forged streaming encoder.
constexpr int kA2xHidden = 32;

std::vector<uint8_t> speechEncoder8s();
std::vector<uint8_t> speechTrunk();
std::vector<uint8_t> speechHead();
std::vector<uint8_t> streamEncoder(const AudioOptions& o);
std::vector<uint8_t> streamDecoder();
// "a2x_meta.json" text.
std::string a2xMeta(const AudioOptions& o);

// Every audio member (names as above; encoder and decoder under their alternative names when
// p.alternativeNames), ready for Params::extraMembers.
std::vector<Member> audioMembers(const Params& p, const AudioOptions& o = {});

}  // namespace le::forge
