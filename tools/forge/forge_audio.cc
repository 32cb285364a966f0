#include "tools/forge/forge_audio.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "le/le_bundle.h"
#include "tools/forge/forge_fca.h"
#include "tools/forge/onnx_builder.h"

namespace le::forge {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr int kTaps = 640, kStride = 80, kBands = 16, kFeats = kBands + 1, kCh = 640;
constexpr int kFrames8 = 200, kEmb = 9216;
constexpr double kLogEps = 9.2103403719761836;  // -ln(1e-4)
constexpr int kH = kA2xHidden;

// Deterministic weights in [-1, 1).
struct Lcg {
  uint64_t s;
  float next() {
    s = s * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<float>((s >> 40) & 0xFFFFFF) / 8388608.0f - 1.0f;
  }
};

// Gain of trunk channel c; channel c carries feature c % 17.
float channelGain(int c) { return static_cast<float>(1.0 + 0.25 * std::sin(0.37 * c)); }
int replicas(int feature) { return kCh / kFeats + (feature < kCh % kFeats ? 1 : 0); }
float layerScale(int l) { return 1.0f + 0.05f * static_cast<float>(l); }

// Band filters: rows 0..15 the in-phase band-passes, rows 16..31 their quadrature twins, so the
// sum of squares of a pair is the band's instantaneous energy.
std::vector<float> bandFilters() {
  std::vector<float> w(size_t(2 * kBands) * kTaps);
  for (int b = 0; b < kBands; ++b) {
    const double f1 = 100.0 * std::pow(70.0, b / double(kBands));
    const double f2 = 100.0 * std::pow(70.0, (b + 1) / double(kBands));
    const double w1 = 2 * kPi * f1 / 16000.0, w2 = 2 * kPi * f2 / 16000.0;
    for (int n = 0; n < kTaps; ++n) {
      const double m = n - (kTaps - 1) / 2.0;
      const double hann = 0.5 - 0.5 * std::cos(2 * kPi * (n + 0.5) / kTaps);
      w[size_t(b) * kTaps + n] = static_cast<float>(hann * (std::sin(w2 * m) - std::sin(w1 * m)) / (kPi * m));
      w[size_t(b + kBands) * kTaps + n] =
          static_cast<float>(hann * (std::cos(w1 * m) - std::cos(w2 * m)) / (kPi * m));
    }
  }
  return w;
}

// x [1, N] -> [1, 640, N / 80 + 1] float: channel c = gain_c * (1 + ln(E + 1e-4) / 9.21) of
// feature c % 17 (16 band energies averaged over 40 ms, then their sum).
std::string addTrunk(OnnxBuilder& b, const std::string& x) {
  const std::string x3 = b.op("Reshape", {x, b.initI64("shape3", {3}, {1, 1, -1})});
  const std::string y = b.op("Conv", {x3, b.init("bands", {2 * kBands, 1, kTaps}, bandFilters())},
                             {Attr::ints("kernel_shape", {kTaps}), Attr::ints("strides", {kStride}),
                              Attr::ints("pads", {kTaps / 2, kTaps / 2})});
  const std::string sq = b.op("Mul", {y, y});
  const std::string pairs = b.op("Reshape", {sq, b.initI64("shape_pairs", {4}, {1, 2, kBands, -1})});
  const std::string e = b.op("ReduceSum", {pairs, b.initI64("axis1", {1}, {1})}, {Attr::i("keepdims", 0)});
  const std::string avg = b.op("AveragePool", {e}, {Attr::ints("kernel_shape", {8}), Attr::ints("strides", {1}),
                                                    Attr::ints("pads", {4, 3})});
  const std::string tot = b.op("ReduceSum", {avg, "axis1"}, {Attr::i("keepdims", 1)});
  const std::string cat = b.op("Concat", {avg, tot}, {Attr::i("axis", 1)});
  const std::string lg = b.op("Log", {b.op("Add", {cat, b.init("eps", {1}, {1e-4f})})});
  std::vector<float> mw(size_t(kCh) * kFeats, 0.0f), mb(kCh);
  for (int c = 0; c < kCh; ++c) {
    mw[size_t(c) * kFeats + c % kFeats] = channelGain(c) / static_cast<float>(kLogEps);
    mb[size_t(c)] = channelGain(c);
  }
  return b.op("Conv", {lg, b.init("mix_w", {kCh, kFeats, 1}, mw), b.init("mix_b", {kCh}, mb)},
              {Attr::ints("kernel_shape", {1})});
}

std::string halfRound(OnnxBuilder& b, const std::string& x) {
  return b.op("Cast", {b.op("Cast", {x}, {Attr::i("to", int64_t(Elem::Float16))})},
              {Attr::i("to", int64_t(Elem::Float))});
}

// [.., 640] -> [.., 9216]: the 17 features recovered from their replicas, spread over 12
// layers of 768 (value j of layer l is feature j % 17 times 1 + 0.05 l).
std::string addHead(OnnxBuilder& b, const std::string& x) {
  std::vector<float> a(size_t(kCh) * kFeats, 0.0f), e(size_t(kFeats) * kEmb, 0.0f);
  for (int c = 0; c < kCh; ++c)
    a[size_t(c) * kFeats + c % kFeats] = 1.0f / (channelGain(c) * static_cast<float>(replicas(c % kFeats)));
  for (int l = 0; l < 12; ++l)
    for (int j = 0; j < 768; ++j) e[size_t(j % kFeats) * kEmb + size_t(l) * 768 + j] = layerScale(l);
  const std::string f = b.op("MatMul", {x, b.init("head_a", {kCh, kFeats}, a)});
  return b.op("MatMul", {f, b.init("head_e", {kFeats, kEmb}, e)});
}

void writeText(std::vector<Member>& out, const std::string& name, const std::string& text) {
  out.push_back({name, std::vector<uint8_t>(text.begin(), text.end())});
}

}  // namespace

std::vector<uint8_t> speechTrunk() {
  OnnxBuilder b("speech_trunk");
  b.input("input_values", {1, 32000});
  const std::string t = addTrunk(b, "input_values");
  b.output(b.op("Cast", {t}, {Attr::i("to", int64_t(Elem::Float16))}, "", "trunk_out"),
           {1, kCh, 32000 / kStride + 1}, Elem::Float16);
  return b.build();
}

std::vector<uint8_t> speechHead() {
  OnnxBuilder b("speech_head");
  b.input("x", {8, kCh});
  b.output(b.op("Identity", {addHead(b, "x")}, {}, "", "emb"), {8, kEmb});
  return b.build();
}

std::vector<uint8_t> speechEncoder8s() {
  OnnxBuilder b("speech_encoder_8s");
  b.input("input_values", {1, 128000});
  const std::string t = halfRound(b, addTrunk(b, "input_values"));
  // Frame j sits at trunk step j * 1598 / 199, as the windowed frontend places it.
  const int64_t steps = 128000 / kStride + 1;
  std::vector<int64_t> i0(kFrames8), i1(kFrames8);
  std::vector<float> a(kFrames8), na(kFrames8);
  for (int j = 0; j < kFrames8; ++j) {
    const double u = j * 1598.0 / 199.0, fl = std::floor(u);
    i0[size_t(j)] = static_cast<int64_t>(fl);
    i1[size_t(j)] = std::min<int64_t>(i0[size_t(j)] + 1, steps - 1);
    a[size_t(j)] = static_cast<float>(u - fl);
    na[size_t(j)] = 1.0f - a[size_t(j)];
  }
  const std::string g0 = b.op("Gather", {t, b.initI64("i0", {kFrames8}, i0)}, {Attr::i("axis", 2)});
  const std::string g1 = b.op("Gather", {t, b.initI64("i1", {kFrames8}, i1)}, {Attr::i("axis", 2)});
  const std::string it = halfRound(b, b.op("Add", {b.op("Mul", {g0, b.init("na", {kFrames8}, na)}),
                                                   b.op("Mul", {g1, b.init("a", {kFrames8}, a)})}));
  const std::string rows = b.op("Transpose", {it}, {Attr::ints("perm", {0, 2, 1})});
  const std::string emb = addHead(b, rows);
  const std::string r = b.op("Reshape", {emb, b.initI64("shape_emb", {3}, {kFrames8, 12, 768})});
  b.output(b.op("Transpose", {r}, {Attr::ints("perm", {1, 0, 2})}, "", "audio_emb"), {12, kFrames8, 768});
  return b.build();
}

std::vector<uint8_t> streamEncoder(const AudioOptions& o) {
  OnnxBuilder b("a2x_enc_stream");
  b.input("feat", {1, "L", 12, 768});
  b.input("pos_window", {1, "L", kH});
  b.input("attn", {1, 1, "L", "L"});
  Lcg rng{7};
  // Column 0: loudness; 1..16: band energies; 17..31: position (from pos_window).
  std::vector<float> wi(size_t(768) * kH, 0.0f);
  const float meanScale = 1.275f;  // mean of the 12 layer scales
  for (int j = 0; j < 768; ++j) {
    const int f = j % kFeats;
    const int col = f == kBands ? 0 : f + 1;
    wi[size_t(j) * kH + col] = 1.0f / (meanScale * static_cast<float>(768 / kFeats + (f < 768 % kFeats)));
  }
  const std::string feat = b.op("ReduceMean", {"feat"}, {Attr::ints("axes", {2}), Attr::i("keepdims", 0)});
  std::string x = b.op("Add", {b.op("MatMul", {feat, b.init("w_in", {768, kH}, wi)}), "pos_window"});
  const std::string mask = b.op("Squeeze", {"attn", b.initI64("axis_1", {1}, {1})});
  const int layers = o.layers < 1 ? 1 : o.layers;
  for (int l = 0; l < layers; ++l) {
    std::vector<float> wq(size_t(kH) * kH, 0.0f), wk(size_t(kH) * kH, 0.0f), wv(size_t(kH) * kH, 0.0f);
    for (int r = 1; r < kH; ++r)
      for (int c = kBands + 1; c < kH; ++c) {
        wq[size_t(r) * kH + c] = 0.6f * rng.next();
        wk[size_t(r) * kH + c] = 0.6f * rng.next();
      }
    // Context reaches loudness only weakly, so the mouth opens on the frame that is loud.
    for (int r = 0; r < kH; ++r) wv[size_t(r) * kH + r] = r == 0 ? 0.1f : 0.3f;
    for (int r = kBands + 1; r < kH; ++r)
      for (int c = kBands + 1; c < kH; ++c) wv[size_t(r) * kH + c] += 0.05f * rng.next();
    const std::string p = "l" + std::to_string(l) + "_";
    const std::string q = b.op("MatMul", {x, b.init(p + "wq", {kH, kH}, wq)});
    const std::string k = b.op("MatMul", {x, b.init(p + "wk", {kH, kH}, wk)});
    const std::string v = b.op("MatMul", {x, b.init(p + "wv", {kH, kH}, wv)});
    const std::string s = b.op("Mul", {b.op("MatMul", {q, b.op("Transpose", {k}, {Attr::ints("perm", {0, 2, 1})})}),
                                       b.init(p + "scale", {1}, {1.0f / std::sqrt(float(kH))})});
    const std::string att = b.op("Softmax", {b.op("Add", {s, mask})}, {Attr::i("axis", -1)});
    x = b.op("Add", {x, b.op("MatMul", {att, v})});
  }
  b.output(b.op("Identity", {x}, {}, "", "enc"), {1, "L", kH});
  if (o.width) {
    // Mouth width: high bands against low bands.
    std::vector<float> ww(kH, 0.0f);
    for (int c = 1; c <= kBands; ++c) ww[size_t(c)] = 2.0f * (float(c - 1) - 7.5f) / 7.5f;
    const std::string wn = b.op("Sigmoid", {b.op("MatMul", {x, b.init("w_wn", {kH, 1}, ww)})});
    b.output(b.op("Reshape", {wn, b.initI64("shape_wn", {2}, {1, -1})}, {}, "", "wn"), {1, "L"});
  }
  return b.build();
}

std::vector<uint8_t> streamDecoder() {
  OnnxBuilder b("a2x_dec");
  b.input("ctx_t", {1, kH});
  b.input("prev", {1, 63});
  b.input("h", {1, 1, kH});
  Lcg rng{11};
  std::vector<float> wc(size_t(kH) * kH, 0.0f), wh(size_t(kH) * kH, 0.0f), bc(kH, 0.0f);
  // Unit 0 opens the mouth: loudness above 0.96, with a little memory; 1..16: spectral shape
  // relative to loudness; 17..31: context.
  wc[0] = 2.5f;
  bc[0] = -2.4f;
  wh[0] = 0.3f;
  for (int k = 1; k <= kBands; ++k) {
    wc[size_t(k) * kH + k] = 1.0f;
    wc[size_t(0) * kH + k] = -1.0f;
  }
  for (int k = kBands + 1; k < kH; ++k) wc[size_t(k) * kH + k] = 0.5f;
  std::vector<float> um(size_t(kH) * 63, 0.0f);
  auto at = [&](int unit, int row, int axis) -> float& { return um[size_t(unit) * 63 + size_t(row) * 3 + axis]; };
  at(0, 6, 1) = -1.0f;   // upper lip top
  at(0, 19, 1) = -1.0f;  // upper inner lip
  at(0, 12, 1) = 1.0f;   // lower lip bottom
  at(0, 20, 1) = 1.0f;   // lower inner lip
  at(0, 0, 1) = 0.6f;    // chin
  at(0, 14, 1) = 0.2f;   // mouth centre
  for (int k = 1; k <= kBands; ++k) {
    const float spread = 0.3f * (float(k - 1) - 7.5f) / 7.5f;
    at(k, 17, 0) = -spread;  // corners widen on high bands
    at(k, 18, 0) = spread;
  }
  for (int k = kBands + 1; k < kH; ++k)
    for (int row : {8, 9, 13}) at(k, row, 1) = 0.2f * rng.next();  // brows and forehead
  // The opening itself is linear in the gate; the other units are scaled by it.
  std::vector<float> u0(um.begin(), um.begin() + 63);
  std::fill(um.begin(), um.begin() + 63, 0.0f);
  decoderStep(b, "ctx_t", kH, kH, wc, wh, bc, u0, um, "h_out");
  return b.build();
}

std::string a2xMeta(const AudioOptions& o) {
  return "{\n  \"h\": " + std::to_string(kH) + ",\n  \"window\": " + std::to_string(o.window) +
         ",\n  \"left\": " + std::to_string(o.left) + ",\n  \"layers\": " + std::to_string(o.layers) +
         ",\n  \"silence_prime\": " + std::to_string(o.silencePrime) + ",\n  \"width\": " +
         (o.width ? "true" : "false") + "\n}\n";
}

std::vector<Member> audioMembers(const Params& p, const AudioOptions& o) {
  std::vector<Member> out;
  if (o.w2v) {
    out.push_back({kW2vMember, speechEncoder8s()});
    if (o.windowedPair) {
      out.push_back({"w2v/audio_encoder_fp16_window_trunk.onnx", speechTrunk()});
      out.push_back({"w2v/audio_encoder_fp16_window_head.onnx", speechHead()});
    }
  }
  writeText(out, "a2x_meta.json", a2xMeta(o));
  std::vector<float> pos(size_t(o.posRows) * kH, 0.0f);
  for (int f = 0; f < o.posRows; ++f)
    for (int d = kBands + 1; d < kH; ++d)
      pos[size_t(f) * kH + d] = static_cast<float>(0.5 * std::sin(0.07 * (d - kBands) * f + 0.3 * d));
  out.push_back({"a2x_pos.f32", bytesOf(pos)});
  std::vector<float> norm(126, 0.0f);
  for (int k = 0; k < 63; ++k) {
    norm[size_t(k)] = k % 3 == 2 ? 0.001f : 0.0f;  // mean: a trace of depth
    const int row = k / 3;
    const bool mouth = row == 0 || row == 6 || row == 12 || row == 14 || (row >= 17 && row <= 20);
    norm[size_t(63 + k)] = mouth ? 0.03f : 0.01f;
  }
  out.push_back({"a2x_norm.f32", bytesOf(norm)});
  auto named = [&](const std::string& canonical) {
    const std::string alt = p.alternativeNames ? le::alternativeMemberName(canonical) : std::string();
    return alt.empty() ? canonical : alt;
  };
  out.push_back({named("a2x_enc_stream.onnx"), streamEncoder(o)});
  out.push_back({named("a2x_dec.onnx"), streamDecoder()});
  out.push_back({"fca_stream.onnx", fcaStreamDecoder()});
  return out;
}

}  // namespace le::forge
