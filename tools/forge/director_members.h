// Director members of forged bundles: the forged director graph in the forms and variants the
// renderer loads; the FeatSynth and heavy forms are derived from the batch-1 standard graph by
// surgery on its bytes.
//
//   "model_b1.onnx"        standard form, batch 1
//   "model_render.onnx"    the same, under the key the offline stream renderer opens
//   "model_b4.onnx"        the same director on 4 frames per call, written under its
//                          alternative name "render_model.batch4.onnx"
//   "model_b1_fs.onnx"     FeatSynth form: "fs_red", "pooled", "kd", "ks" in, "rgb" out; the warp
//                          prior is decoded from "fs_red" inside the graph
//   "model_b1_heavy.onnx"  standard form with a convolution trunk at 64 channels on the pooled
//                          features and an encoder in the source cone, so a frame costs about
//                          what a real director's does and the cone a real share of it
//   "model_b24_fp32.onnx"  the standard director on 24 frames per call: the steady chunk
//                          renderer of the utterance pipeline
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/forge/forge.h"

namespace le::forge {

// Adds `layers` 3x3 convolutions at 64 channels (on the pooled features upsampled to 64x64)
// whose result joins "rgb" with a small weight, and to the source cone an encoder of the source
// frame at full crop size (grouped 3x3 convolutions, 24 channels, `coneLayers` of them between
// its first and last) whose result joins the cone's second differences with a small weight.
std::vector<uint8_t> heavyDirector(const std::vector<uint8_t>& b1, int crop, int layers, int coneLayers);

// The FeatSynth form: "pooled64" -> "pooled", "kp_driving" -> "kd", "kp_source" -> "ks", and
// "P_rgb" computed from the input "fs_red" [1, 64, 64, 64].
std::vector<uint8_t> featSynthDirector(const std::vector<uint8_t>& b1, int crop);

struct DirectorMemberOptions {
  int batch = 4;         // frames per call of the batched member
  int heavyLayers = 6;   // convolutions of the heavy member's trunk
  int heavyConeLayers = 1;  // inner convolutions of the heavy member's source-cone encoder
  bool featSynth = true;
  bool heavy = true;
  // frames per call of the steady chunk member "model_b<steadyBatch>_fp32.onnx" (the pipeline's
  // default steady key is "b24_fp32"); 0 leaves it out
  int steadyBatch = 24;
};

// The director members of a bundle forged with p (crop p.crop), ready for Params::extraMembers.
std::vector<Member> directorMembers(const Params& p, const DirectorMemberOptions& o = {});

}  // namespace le::forge
