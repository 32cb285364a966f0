#include "tools/forge/director_graph.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "le/render/onnx_bytes.h"
#include "tools/forge/onnx_builder.h"

namespace le::forge {

namespace {

// Keypoints of the forged face, (x, y) in normalised units; z is 0.
constexpr float kFaceXY[kFaceKpCount][2] = {
    {0.f, 0.78f},     {-0.62f, 0.42f}, {0.62f, 0.42f},   // chin, jaw
    {-0.5f, -0.5f},   {-0.18f, -0.52f},                  // left brow
    {0.18f, -0.52f},  {0.5f, -0.5f},                     // right brow
    {-0.46f, -0.3f},  {-0.18f, -0.3f},                   // left eye corners
    {0.18f, -0.3f},   {0.46f, -0.3f},                    // right eye corners
    {0.f, -0.2f},     {0.f, 0.08f},                      // nose bridge, tip
    {-0.28f, 0.425f}, {0.28f, 0.425f},                   // mouth corners
    {0.f, 0.33f},     {0.f, 0.40f},                      // upper lip outer, inner
    {0.f, 0.45f},     {0.f, 0.53f},                      // lower lip inner, outer
    {0.f, -0.78f},    {0.f, -0.02f},                     // forehead, face centre
};

// Deterministic small weights.
struct Lcg {
  uint32_t s;
  float next() {
    s = s * 1664525u + 1013904223u;
    return float((s >> 8) & 0xffff) / 65535.f - 0.5f;
  }
};

// Pixel-centre coordinate of index i on an edge of n pixels (GridSample, align_corners = 0).
float centre(int i, int n) { return (2.f * float(i) + 1.f) / float(n) - 1.f; }

// Anti-aliased coverage of an ellipse.
float ellipse(float u, float v, float cx, float cy, float rx, float ry, float aa) {
  const float du = (u - cx) / rx, dv = (v - cy) / ry;
  const float sd = (std::sqrt(du * du + dv * dv) - 1.f) * std::min(rx, ry);
  return std::clamp(0.5f - sd / aa, 0.f, 1.f);
}

void paint(float* rgb, size_t plane, size_t at, float m, const float c[3]) {
  for (int k = 0; k < 3; ++k) rgb[k * plane + at] = rgb[k * plane + at] * (1.f - m) + c[k] * m;
}

}  // namespace

std::vector<float> forgeFaceKeypoints() {
  std::vector<float> kp(kFaceKpCount * 3, 0.f);
  for (int k = 0; k < kFaceKpCount; ++k) kp[k * 3] = kFaceXY[k][0], kp[k * 3 + 1] = kFaceXY[k][1];
  return kp;
}

std::vector<float> forgeFaceKeypointsMouthOpen(float open) {
  std::vector<float> kp = forgeFaceKeypoints();
  kp[kKpLowerLipInner * 3 + 1] += open;
  kp[kKpLowerLipOuter * 3 + 1] += open;
  kp[kKpUpperLipInner * 3 + 1] -= 0.1f * open;
  kp[kKpMouthLeft * 3 + 1] += open / 3.f;
  kp[kKpMouthRight * 3 + 1] += open / 3.f;
  kp[0 * 3 + 1] += 0.6f * open;  // the chin follows the jaw
  return kp;
}

std::vector<float> forgeFacePrior(int crop) {
  const size_t plane = size_t(crop) * crop;
  std::vector<float> rgb(3 * plane);
  const float aa = 3.f / float(crop);
  const float bg[3] = {0.25f, 0.30f, 0.40f}, skin[3] = {0.93f, 0.76f, 0.62f}, dark[3] = {0.18f, 0.12f, 0.1f},
              white[3] = {0.97f, 0.97f, 0.95f}, iris[3] = {0.2f, 0.35f, 0.55f}, lip[3] = {0.78f, 0.22f, 0.27f},
              gap[3] = {0.12f, 0.03f, 0.05f}, shade[3] = {0.82f, 0.62f, 0.5f};
  for (int y = 0; y < crop; ++y)
    for (int x = 0; x < crop; ++x) {
      const float u = centre(x, crop), v = centre(y, crop);
      const size_t at = size_t(y) * crop + x;
      for (int k = 0; k < 3; ++k) rgb[k * plane + at] = bg[k];
      paint(rgb.data(), plane, at, ellipse(u, v, 0.f, 0.f, 0.7f, 0.88f, aa), skin);
      for (float s : {-1.f, 1.f}) {
        paint(rgb.data(), plane, at, ellipse(u, v, s * 0.34f, -0.51f, 0.17f, 0.035f, aa), dark);
        paint(rgb.data(), plane, at, ellipse(u, v, s * 0.32f, -0.3f, 0.14f, 0.06f, aa), white);
        paint(rgb.data(), plane, at, ellipse(u, v, s * 0.32f, -0.3f, 0.05f, 0.05f, aa), iris);
      }
      paint(rgb.data(), plane, at, ellipse(u, v, 0.f, 0.1f, 0.08f, 0.05f, aa), shade);
      paint(rgb.data(), plane, at, ellipse(u, v, 0.f, 0.43f, 0.3f, 0.1f, aa), lip);
      paint(rgb.data(), plane, at, ellipse(u, v, 0.f, 0.425f, 0.25f, 0.022f, aa), gap);
    }
  return rgb;
}

namespace {

// The same model with its GridSample padding with zeros instead of border.
std::vector<uint8_t> withZerosPadding(const std::vector<uint8_t>& model) {
  namespace of = le::onnxf;
  const std::vector<uint8_t> zeros = Attr::s("padding_mode", "zeros").bytes();
  std::vector<uint8_t> out;
  GsReader r(model);
  GsField f;
  while (r.next(f)) {
    if (f.number != of::kModelGraph || f.wireType != 2) {
      gsPutRaw(out, f.raw);
      continue;
    }
    std::vector<uint8_t> g;
    GsReader gr(f.payload);
    GsField n;
    while (gr.next(n)) {
      if (n.number != of::kGraphNode || n.wireType != 2 || gsFirstStr(n.payload, of::kNodeOpType) != "GridSample") {
        gsPutRaw(g, n.raw);
        continue;
      }
      std::vector<uint8_t> node;
      GsReader nr(n.payload);
      GsField x;
      while (nr.next(x))
        if (x.number != of::kNodeAttribute || gsFirstStr(x.payload, of::kAttrName) != "padding_mode") gsPutRaw(node, x.raw);
      gsPutBytes(node, of::kNodeAttribute, zeros);
      gsPutBytes(g, of::kGraphNode, node);
    }
    gsPutBytes(out, of::kModelGraph, g);
  }
  return out;
}

}  // namespace

std::vector<uint8_t> forgeDirectorGraph(const DirectorGraphOptions& opt) {
  const int S = opt.crop;
  const int64_t B = opt.batch;
  const int64_t P = int64_t(S) * S;
  const int64_t K = kFaceKpCount;
  const DirectorVariant var = opt.variant;
  OnnxBuilder b("forged_director");
  b.input("pooled64", {B, 64, 32, 32});
  b.input("P_rgb", {B, 3, S, S});
  b.input("kp_driving", {B, K, 3});
  b.input("kp_source", {B, K, 3});
  if (var == DirectorVariant::HasLipDelivery) b.input("lip_delivery", {B, 1, S, S});

  auto i64 = [&](const std::string& name, const std::vector<int64_t>& v) {
    return b.initI64(name, {int64_t(v.size())}, v);
  };
  auto scalar = [&](const std::string& name, float v) { return b.initializer(Tensor::scalar(v, name)); };

  // ---- grid: Gaussian-weighted keypoint offsets around each driving keypoint --------------------
  const std::string s0 = i64("/kp/s0", {0}), s2 = i64("/kp/s2", {2}), ax2 = i64("/kp/axis2", {2});
  const std::string kd = b.op("Slice", {"kp_driving", s0, s2, ax2});
  const std::string ks = b.op("Slice", {"kp_source", s0, s2, ax2});
  const std::string delta = b.op("Sub", {ks, kd});  // [B, K, 2]
  std::vector<float> base(size_t(P) * 2);
  for (int y = 0; y < S; ++y)
    for (int x = 0; x < S; ++x) {
      base[(size_t(y) * S + x) * 2] = centre(x, S);
      base[(size_t(y) * S + x) * 2 + 1] = centre(y, S);
    }
  const std::string basePts = b.init("/warp/base", {1, P, 1, 2}, base);
  // With opt.motion the smooth displacement field is computed on a coarse grid of motion x motion
  // pixel centres and resized to the crop, as real directors do with their dense motion, rather
  // than weighing every keypoint at every crop pixel.
  const int M = opt.motion > 0 && opt.motion < S ? opt.motion : S;
  const int64_t PM = int64_t(M) * M;
  std::string fieldPts = basePts;
  if (M != S) {
    std::vector<float> coarse(size_t(PM) * 2);
    for (int y = 0; y < M; ++y)
      for (int x = 0; x < M; ++x) {
        coarse[(size_t(y) * M + x) * 2] = centre(x, M);
        coarse[(size_t(y) * M + x) * 2 + 1] = centre(y, M);
      }
    fieldPts = b.init("/warp/motion_base", {1, PM, 1, 2}, coarse);
  }
  const std::string kdRow = b.op("Reshape", {kd, i64("/warp/kd_shape", {B, 1, K, 2})});
  const std::string off = b.op("Sub", {fieldPts, kdRow});  // [B, PM, K, 2]
  const std::string d2 = b.op("ReduceSum", {b.op("Mul", {off, off}), i64("/warp/axis3", {3})},
                              {Attr::i("keepdims", 0)});
  const float k = -1.f / (2.f * opt.sigma * opt.sigma);
  const std::string w = b.op("Exp", {b.op("Mul", {d2, scalar("/warp/neg_inv_2s2", k)})});  // [B, PM, K]
  std::string blend, wsum;
  if (B == 1) {
    // The student's blend: one 2-D product, which a Gemm computes alike.
    const std::string w2 = b.op("Reshape", {w, i64("/warp/w_shape", {PM, K})});
    const std::string delta2 = b.op("Reshape", {delta, i64("/warp/delta_shape", {K, 2})});
    blend = b.node("MatMul", {w2, delta2}, {"/s2/blend_out"}, {}, "/s2/blend");
    wsum = b.op("ReduceSum", {w2, i64("/warp/axis1", {1})}, {Attr::i("keepdims", 1)});
  } else {
    blend = b.node("MatMul", {w, delta}, {"/s2/blend_out"}, {}, "/s2/blend_batched");
    wsum = b.op("ReduceSum", {w, i64("/warp/axis2", {2})}, {Attr::i("keepdims", 1)});
  }
  // Normalised only where keypoints crowd: a lone keypoint moves its neighbourhood fully.
  const std::string disp = b.op("Div", {blend, b.op("Max", {wsum, scalar("/warp/one", 1.f)})});
  std::string field = b.op("Reshape", {disp, i64("/warp/disp_shape", {B, M, M, 2})});
  if (M != S) {
    const std::string planes = b.op("Transpose", {field}, {Attr::ints("perm", {0, 3, 1, 2})});
    const std::string up = b.op("Resize", {planes, "", "", i64("/warp/motion_sizes", {B, 2, S, S})},
                                {Attr::s("mode", "linear"), Attr::s("coordinate_transformation_mode", "half_pixel")});
    field = b.op("Transpose", {up}, {Attr::ints("perm", {0, 2, 3, 1})});
  }
  const std::string grid = b.op("Add", {b.op("Reshape", {basePts, i64("/warp/grid_shape", {1, S, S, 2})}), field},
                                {}, "", "/warp/grid");

  // ---- warp: the source cone, one GridSample at its tip, the second-order recombination ---------
  const std::string warped = addStandardWarpBlock(b, "P_rgb", grid, S, S, "/warp");

  // ---- head: per-channel scale, cubic x2, Conv -----------------------------------------------------
  Lcg lcg{12345u};
  std::vector<float> chScale(64);
  for (int c = 0; c < 64; ++c) chScale[c] = 0.5f + 0.5f * float(c % 7) / 7.f;
  const std::string hs = b.op("Mul", {"pooled64", b.init("/head/ch_scale", {64, 1, 1}, chScale)});
  const std::vector<float> scales = {1.f, 1.f, 2.f, var == DirectorVariant::ScalesNotTwo ? 2.0001f : 2.f};
  const std::string scalesName = b.init("/head/scales", {4}, scales);
  const std::vector<Attr> cubic = {Attr::s("mode", "cubic"), Attr::s("coordinate_transformation_mode", "half_pixel")};
  std::string up = b.node("Resize", {hs, "", scalesName}, {"/head/up"}, cubic, "/head/Resize");
  if (var == DirectorVariant::TwoCubicResizes) {
    const std::string up2 = b.node("Resize", {hs, "", scalesName}, {"/head/up2"}, cubic, "/head/Resize_1");
    up = b.op("Add", {up, up2});
  }
  std::vector<float> wh(3 * 64 * 9), bh(3);
  for (float& v : wh) v = 0.04f * lcg.next();
  for (float& v : bh) v = 0.1f * lcg.next();
  std::string head = b.op("Conv", {up, b.init("/head/w", {3, 64, 3, 3}, wh), b.init("/head/b", {3}, bh)},
                          {Attr::ints("pads", {1, 1, 1, 1})});
  if (S != 64)
    head = b.op("Resize", {head, "", "", i64("/head/sizes", {B, 3, S, S})},
                {Attr::s("mode", "linear"), Attr::s("coordinate_transformation_mode", "half_pixel")});
  std::vector<float> wf(3 * 6, 0.f);
  for (int c = 0; c < 3; ++c) wf[c * 6 + c] = 1.f, wf[c * 6 + 3 + c] = 0.15f;
  const std::string face = b.op("Conv", {b.op("Concat", {warped, head}, {Attr::i("axis", 1)}),
                                         b.init("/face/w", {3, 6, 1, 1}, wf)});

  // ---- compose tail -------------------------------------------------------------------------------
  std::vector<float> ell(static_cast<size_t>(P));
  for (int y = 0; y < S; ++y)
    for (int x = 0; x < S; ++x) {
      const float u = centre(x, S) / 0.45f, v = (centre(y, S) - 0.42f) / 0.3f;
      ell[size_t(y) * S + x] = 3.f * (1.f - u * u - v * v);
    }
  const std::string lo = scalar("/compose/lo", 0.f), hi = scalar("/compose/hi", 1.f);
  const std::string alpha =
      b.node("Clip", {b.init("/compose/ellipse", {1, 1, S, S}, ell), lo, hi}, {"/compose/alpha"}, {}, "/compose/Clip");
  std::string bgIn = warped;
  if (var == DirectorVariant::PrgbOutsideCone) {
    const std::string probe =
        b.node("Mul", {"P_rgb", scalar("/leak/zero", 0.f)}, {"/leak/probe_out"}, {}, "/leak/prgb_probe");
    bgIn = b.op("Sum", {warped, probe});
  }
  const std::string background = b.op("Clip", {bgIn, lo, hi});
  const std::string inv = b.op("Sub", {scalar("/compose/one", 1.f), alpha});
  b.node("Add", {b.op("Mul", {face, alpha}), b.op("Mul", {background, inv})}, {"rgb"}, {}, "/compose/Add");
  b.output("rgb", {B, 3, S, S});
  return var == DirectorVariant::ZerosPadding ? withZerosPadding(b.build()) : b.build();
}

}  // namespace le::forge
