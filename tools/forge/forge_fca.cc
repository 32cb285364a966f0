#include "tools/forge/forge_fca.h"

#include <string>

#include "tools/forge/onnx_builder.h"

namespace le::forge {

std::vector<uint8_t> fcaStreamDecoder() {
  constexpr int kKp = 63, kDim = 768, kTaps = 7, kCond = kTaps * kDim, kH = 384, kBands = 16, kFeats = 17;
  // Feature j of a frame carries speech feature j % 17 (16 band energies, then loudness), times
  // the mean layer scale of the six layers the model averages.
  constexpr float kLayerMean = 1.325f;
  const int replicas = kDim / kFeats;  // whole replicas of every feature in one frame
  OnnxBuilder b("fca_stream");
  b.input("cond", {1, kCond});
  b.input("prev", {1, kKp});
  b.input("h", {1, 1, kH});
  std::vector<float> wc(size_t(kCond) * kH, 0.0f), wh(size_t(kH) * kH, 0.0f), bc(kH, 0.0f);
  // Unit 0 opens the mouth: loudness relative to the voiced mean, over the current frame and
  // a little of its neighbours (taps are offsets -1 .. 5).
  const float tapWeight[kTaps] = {0.25f, 0.4f, 0.25f, 0.1f, 0.0f, 0.0f, 0.0f};
  for (int t = 0; t < kTaps; ++t)
    for (int r = 0; r < replicas; ++r) {
      const size_t j = size_t(t) * kDim + size_t(r) * kFeats;
      wc[(j + kBands) * kH + 0] += 4.0f * tapWeight[t] / (kLayerMean * replicas);
      // Units 1..16: each band relative to loudness, on the current frame.
      if (t == 1)
        for (int k = 0; k < kBands; ++k) {
          wc[(j + size_t(k)) * kH + size_t(k + 1)] += 2.0f / (kLayerMean * replicas);
          wc[(j + kBands) * kH + size_t(k + 1)] -= 2.0f / (kLayerMean * replicas);
        }
    }
  bc[0] = 0.9f;
  wh[0] = 0.3f;
  std::vector<float> u0(kKp, 0.0f), um(size_t(kH) * kKp, 0.0f);
  u0[6 * 3 + 1] = -1.0f;   // upper lip top
  u0[19 * 3 + 1] = -1.0f;  // upper inner lip
  u0[12 * 3 + 1] = 1.0f;   // lower lip bottom
  u0[20 * 3 + 1] = 1.0f;   // lower inner lip
  u0[0 * 3 + 1] = 0.6f;    // chin
  u0[14 * 3 + 1] = 0.2f;   // mouth centre
  for (int k = 1; k <= kBands; ++k) {
    const float spread = 0.2f * (float(k - 1) - 7.5f) / 7.5f;
    um[size_t(k) * kKp + 17 * 3] = -spread;  // corners widen on high bands
    um[size_t(k) * kKp + 18 * 3] = spread;
  }
  decoderStep(b, "cond", kCond, kH, wc, wh, bc, u0, um, "hn");
  return b.build();
}

void decoderStep(OnnxBuilder& b, const std::string& x, int64_t xWidth, int64_t hidden, const std::vector<float>& wc,
                 const std::vector<float>& wh, const std::vector<float>& bc, const std::vector<float>& u0,
                 const std::vector<float>& um, const std::string& stateOut) {
  const std::string hr = b.op("Reshape", {"h", b.initI64("shape_h2", {2}, {1, hidden})});
  const std::string pre = b.op("Add", {b.op("Add", {b.op("MatMul", {x, b.init("wc", {xWidth, hidden}, wc)}),
                                                    b.op("MatMul", {hr, b.init("wh", {hidden, hidden}, wh)})}),
                                       b.init("bc", {hidden}, bc)});
  const std::string z = b.op("Tanh", {pre});
  // Everything is gated by the opening, so silence leaves the keypoints alone.
  const std::string g = b.op("Relu", {b.op("Slice", {z, b.initI64("s0", {1}, {0}), b.initI64("s1", {1}, {1}),
                                                     b.initI64("s_ax", {1}, {1})})});
  const std::string open = b.op("MatMul", {g, b.init("u_open", {1, 63}, u0)});
  const std::string rest = b.op("MatMul", {b.op("Mul", {z, g}), b.init("um", {hidden, 63}, um)});
  const std::string m = b.op("Add", {b.op("Add", {open, rest}), b.op("Mul", {"prev", b.init("ar", {1}, {0.2f})})});
  b.output(b.op("Identity", {m}, {}, "", "m"), {1, 63});
  b.output(b.op("Reshape", {z, b.initI64("shape_h3", {3}, {1, 1, hidden})}, {}, "", stateOut), {1, 1, hidden});
}

}  // namespace le::forge
