// Forged director graphs: small director-shaped models (standard tensor contract: inputs
// "pooled64" [batch, 64, 32, 32], "P_rgb" [batch, 3, crop, crop], "kp_driving" and "kp_source"
// [batch, 21, 3]; output "rgb" [batch, 3, crop, crop]) that carry every pattern the load-time
// rewrites look for:
//
//   source cone   Concat("P_rgb", Conv(Pad_edge("P_rgb"))): the image and its fixed second
//                 differences (xx, yy, xxyy) per channel
//   warp          GridSample(bilinear, border) of the cone's tip at a grid displaced from the
//                 keypoint differences, recombined by Slice/Mul/Sub/Add into a second-order
//                 corrected sample
//   grid          Gaussian-weighted offsets (kp_source - kp_driving) around each driving keypoint,
//                 blended by a 2-D MatMul named "/s2/blend" (at batch 1; a batched graph's
//                 3-D product is named "/s2/blend_batched", which no Gemm could replace)
//   head          "pooled64" scaled per channel, cubic x2 Resize, Conv
//   compose tail  rgb = Add(Mul(face, a), Mul(background, Sub(1, a))), a = Clip(ellipse)
//
// The warp is a real one on the forged face (forgeFacePrior): moving the lip keypoints of
// kp_driving opens and closes the mouth.
#pragma once

#include <cstdint>
#include <vector>

namespace le::forge {

// Each variant breaks exactly one pattern.
enum class DirectorVariant {
  Standard,           // every pattern in place
  TwoCubicResizes,    // a second cubic x2 Resize in the head
  ScalesNotTwo,       // the head Resize scales are [1, 1, 2, 2.0001]
  PrgbOutsideCone,    // a node outside the cone reads "P_rgb" (output unchanged)
  HasLipDelivery,     // the graph already declares the input "lip_delivery"
  ZerosPadding,       // the GridSample pads with zeros
};

struct DirectorGraphOptions {
  int crop = 64;   // edge of "P_rgb" and "rgb"
  int batch = 1;   // frames per run
  DirectorVariant variant = DirectorVariant::Standard;
  float sigma = 0.09f;  // reach of a keypoint's displacement, in normalised units
  // Edge of a coarse grid for the displacement field, resized (bilinear) to larger crops; 0
  // computes it at every crop pixel.
  int motion = 0;
};

std::vector<uint8_t> forgeDirectorGraph(const DirectorGraphOptions& opt = {});

// Keypoint indices of the forged face.
constexpr int kFaceKpCount = 21;
constexpr int kKpMouthLeft = 13, kKpMouthRight = 14, kKpUpperLipOuter = 15, kKpUpperLipInner = 16,
              kKpLowerLipInner = 17, kKpLowerLipOuter = 18;

// The forged face's 21 keypoints (x, y, z), x and y in the grid's normalised [-1, 1] units.
std::vector<float> forgeFaceKeypoints();
// The same face with the mouth opened by `open` (normalised units; 0 is the face as drawn).
std::vector<float> forgeFaceKeypointsMouthOpen(float open);
// The stylised face: planar RGB, 3 x crop x crop values in [0, 1], with its closed mouth (a thin
// dark gap between red lips) where forgeFaceKeypoints puts the lips.
std::vector<float> forgeFacePrior(int crop);

}  // namespace le::forge
