#include "tools/forge/forge_motion.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/forge/onnx_builder.h"

namespace le::forge {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr int kMels = 80, kBins = 257, kFeat = 1024, kRow = 265, kInfo = 328, kEmo = 8;

// Mel bands of the speech features: loudness is the mean log-mel over every band, openness the
// first-formant bands (about 300 .. 1000 Hz) over that mean.
constexpr int kF1Lo = 11, kF1Hi = 28;
// De-normalised loudness of silence and of ordinary speech, and where openness sits.
constexpr float kLoudClosed = -8.5f, kLoudOpen = -4.5f;
constexpr float kOpenMid = 1.0f, kOpenSpan = 2.5f;

// Deterministic N(0, 1) values (xorshift and Box-Muller), so equal parameters give equal bytes.
class Noise {
 public:
  explicit Noise(uint32_t seed) : s_(seed * 2654435761u + 12345u) {}
  float next() {
    const double u1 = (uniform() + 1.0) / 4294967297.0, u2 = uniform() / 4294967296.0;
    return static_cast<float>(std::sqrt(-2.0 * std::log(u1)) * std::cos(2 * kPi * u2));
  }

 private:
  double uniform() {
    s_ ^= s_ << 13;
    s_ ^= s_ >> 17;
    s_ ^= s_ << 5;
    return s_;
  }
  uint32_t s_;
};

double hzToMel(double f) { return 2595.0 * std::log10(1.0 + f / 700.0); }
double melToHz(double m) { return 700.0 * (std::pow(10.0, m / 2595.0) - 1.0); }

// 66 angle-bin logits peaked at `degrees` (3 degrees a bin, bin 32.5 is 0), and the angle a
// softmax expectation decodes from them.
std::vector<float> angleLogits(double degrees) {
  const double u = (degrees + 97.5) / 3.0;
  std::vector<float> l(66);
  for (int i = 0; i < 66; ++i)
    l[i] = static_cast<float>(std::max(-(i - u) * (i - u) / (2 * 1.5 * 1.5), -40.0));
  return l;
}
double decodedAngle(const std::vector<float>& l) {
  double mx = l[0], s = 0, e = 0;
  for (float v : l) mx = std::max<double>(mx, v);
  for (int i = 0; i < 66; ++i) {
    const double p = std::exp(l[i] - mx);
    s += p;
    e += p * i;
  }
  return 3.0 * e / s - 97.5;
}

// Row-major (Rz Ry Rx)^T of angles in degrees: a keypoint row p maps to p * R.
void rotation(double ax, double ay, double az, double R[3][3]) {
  const double k = kPi / 180.0;
  const double sx = std::sin(ax * k), cx = std::cos(ax * k), sy = std::sin(ay * k), cy = std::cos(ay * k),
               sz = std::sin(az * k), cz = std::cos(az * k);
  const double r[3][3] = {{cy * cz, cy * sz, -sy},
                          {sx * sy * cz - cx * sz, cx * cz + sx * sy * sz, sx * cy},
                          {sx * sz + cx * sy * cz, cx * sy * sz - sx * cz, cx * cy}};
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) R[i][j] = r[i][j];
}

// Motion info of source frame s: a head pose, scale, translation and a small expression whose
// composition gives exactly the forged keypoints of that frame (canonical = inverse pose).
std::vector<float> sourceInfo(const Params& p, int s) {
  const double t = 2 * kPi * s / std::max(1, p.nt);
  const std::vector<float> ax = angleLogits(2.0 * std::sin(t)), ay = angleLogits(3.0 * std::cos(t)),
                           az = angleLogits(2.5 * std::sin(t + 0.4));
  const double scale = 1.0 + 0.02 * std::sin(t + 0.5);
  const double tx = 0.01 * std::sin(t), ty = -0.005 * std::cos(t);
  std::vector<float> info(kInfo, 0.0f);
  for (int k = 0; k < 63; ++k) info[k] = static_cast<float>(0.004 * std::sin(1.7 * k + t));
  double R[3][3];
  rotation(decodedAngle(ax), decodedAngle(ay), decodedAngle(az), R);
  const std::vector<float> kp = keypoints(p, s);
  for (int j = 0; j < 21; ++j) {
    double q[3];
    q[0] = (kp[3 * j] - tx) / scale - info[3 * j];
    q[1] = (kp[3 * j + 1] - ty) / scale - info[3 * j + 1];
    q[2] = kp[3 * j + 2] / scale - info[3 * j + 2];
    for (int e = 0; e < 3; ++e)  // R is orthonormal: canonical = q * R^T
      info[63 + 3 * j + e] = static_cast<float>(q[0] * R[e][0] + q[1] * R[e][1] + q[2] * R[e][2]);
  }
  std::copy(ax.begin(), ax.end(), info.begin() + 126);
  std::copy(az.begin(), az.end(), info.begin() + 192);
  info[258] = static_cast<float>(scale);
  info[259] = static_cast<float>(tx);
  info[260] = static_cast<float>(ty);
  std::copy(ay.begin(), ay.end(), info.begin() + 262);
  return info;
}

// The character's reference: frontal, unit scale, neutral expression, the first frame's face.
std::vector<float> characterInfo(const Params& p) {
  std::vector<float> info(kInfo, 0.0f);
  const std::vector<float> kp = keypoints(p, 0);
  std::copy(kp.begin(), kp.end(), info.begin() + 63);
  const std::vector<float> zero = angleLogits(0.0);
  std::copy(zero.begin(), zero.end(), info.begin() + 126);
  std::copy(zero.begin(), zero.end(), info.begin() + 192);
  std::copy(zero.begin(), zero.end(), info.begin() + 262);
  info[258] = 1.0f;
  return info;
}

}  // namespace

std::vector<float> initialState(const std::vector<float>& ci) {
  std::vector<float> s(kRow);
  s[0] = ci[258] - 1.0f;
  std::copy(ci.begin() + 126, ci.begin() + 192, s.begin() + 1);
  std::copy(ci.begin() + 262, ci.begin() + 328, s.begin() + 67);
  std::copy(ci.begin() + 192, ci.begin() + 258, s.begin() + 133);
  std::copy(ci.begin() + 259, ci.begin() + 262, s.begin() + 199);
  std::copy(ci.begin(), ci.begin() + 63, s.begin() + 202);
  return s;
}

namespace {

// Features 0 (loudness) and 1 (openness) from mel weights; the other 1022 are fixed random
// projections of the band shape. Written normalised: the engine de-normalises with fmean, fstd.
struct Student {
  std::vector<float> W, bias, fmean, fstd;
};

Student studentWeights(uint32_t seed) {
  Student s;
  std::vector<float> raw(static_cast<size_t>(kMels) * kFeat, 0.0f);
  for (int b = 0; b < kMels; ++b) {
    raw[static_cast<size_t>(b) * kFeat + 0] = 1.0f / kMels;
    const bool f1 = b >= kF1Lo && b < kF1Hi;
    raw[static_cast<size_t>(b) * kFeat + 1] = (f1 ? 1.0f / (kF1Hi - kF1Lo) : 0.0f) - 1.0f / kMels;
  }
  Noise n(seed + 77);
  for (int b = 0; b < kMels; ++b)
    for (int k = 2; k < kFeat; ++k) raw[static_cast<size_t>(b) * kFeat + k] = 0.02f * n.next();
  s.fmean.assign(kFeat, 0.0f);
  s.fstd.assign(kFeat, 1.0f);
  s.fmean[0] = -8.0f, s.fstd[0] = 4.0f;
  s.fmean[1] = 0.5f, s.fstd[1] = 1.5f;
  for (int k = 2; k < kFeat; ++k) s.fmean[k] = 0.1f * n.next(), s.fstd[k] = 0.5f + 0.1f * std::fabs(n.next());
  s.W.resize(raw.size());
  s.bias.resize(kFeat);
  for (int k = 0; k < kFeat; ++k) {
    for (int b = 0; b < kMels; ++b)
      s.W[static_cast<size_t>(b) * kFeat + k] = raw[static_cast<size_t>(b) * kFeat + k] / s.fstd[k];
    s.bias[k] = -s.fmean[k] / s.fstd[k];
  }
  return s;
}

std::vector<uint8_t> studentModel(const Student& s) {
  OnnxBuilder b("motion_student");
  b.input("mel", {1, kMels, 21});
  const auto i64 = [&](const char* name, std::vector<int64_t> v) {
    return b.initI64(name, {static_cast<int64_t>(v.size())}, v);
  };
  const std::string axis = i64("axis_t", {2});
  const std::string a = b.op("Slice", {"mel", i64("s0", {0}), i64("e0", {20}), axis});
  const std::string c = b.op("Slice", {"mel", i64("s1", {1}), i64("e1", {21}), axis});
  const std::string avg = b.op("Mul", {b.op("Add", {a, c}), b.init("half", {1}, {0.5f})});
  const std::string t = b.op("Transpose", {avg}, {Attr::ints("perm", {0, 2, 1})});
  const std::string y = b.op("MatMul", {t, b.init("W", {kMels, kFeat}, s.W)});
  b.op("Add", {y, b.init("bias", {kFeat}, s.bias)}, {}, "", "feat");
  b.output("feat", {1, 20, kFeat});
  return b.build();
}

// State carried half-way back to the character's pose each chunk; lips opened by loudness
// times openness, smoothed over three frames; a small head bob with the opening.
std::vector<uint8_t> generatorModel(const std::vector<float>& init) {
  OnnxBuilder b("motion_generator");
  b.input("kp_cond", {1, kRow});
  b.input("aud_cond", {1, 80, 1103});
  const auto i64 = [&](const char* name, std::vector<int64_t> v) {
    return b.initI64(name, {static_cast<int64_t>(v.size())}, v);
  };
  const auto scalar = [&](const char* name, float v) { return b.init(name, {}, {v}); };
  const std::string axis = i64("axis_c", {2});
  const std::string loud = b.op("Slice", {"aud_cond", i64("l0", {0}), i64("l1", {1}), axis});
  const std::string open = b.op("Slice", {"aud_cond", i64("o0", {1}), i64("o1", {2}), axis});
  const float g1 = 1.0f / (kLoudOpen - kLoudClosed);
  const std::string o1 = b.op("Clip", {b.op("Add", {b.op("Mul", {loud, scalar("g1", g1)}), scalar("c1", -kLoudClosed * g1)}),
                                       scalar("zero", 0.0f), scalar("one", 1.0f)});
  const float g2 = 0.4f / kOpenSpan;
  const std::string o2 = b.op("Clip", {b.op("Add", {b.op("Mul", {open, scalar("g2", g2)}), scalar("c2", 1.0f - kOpenMid * g2)}),
                                       scalar("lo2", 0.6f), scalar("hi2", 1.4f)});
  const std::string amt = b.op("Mul", {o1, o2});  // [1, 80, 1]
  const std::string amtT = b.op("Transpose", {amt}, {Attr::ints("perm", {0, 2, 1})});
  const std::string padded = b.op("Pad", {amtT, i64("pads", {0, 0, 1, 0, 0, 1})}, {Attr::s("mode", "edge")});
  const std::string smooth = b.op("Conv", {padded, b.init("tri", {1, 1, 3}, {0.25f, 0.5f, 0.25f})});
  const std::string amtS = b.op("Transpose", {smooth}, {Attr::ints("perm", {0, 2, 1})});

  std::vector<float> D(kRow, 0.0f), keep(kRow, 1.0f), toward(kRow, 0.0f);
  const auto lip = [&](int kp, int d, float v) { D[202 + 3 * kp + d] = v; };
  lip(20, 1, 0.075f);   // lower inner lip drops
  lip(12, 1, 0.075f);   // lower lip bottom with it
  lip(14, 1, 0.035f);   // mouth centre
  lip(19, 1, -0.012f);  // upper inner lip lifts a little
  lip(6, 1, -0.010f);
  lip(17, 0, -0.020f);  // the left corner widens
  D[0] = 0.002f;        // scale
  D[200] = 0.004f;      // translation y: a small nod
  for (int k = 0; k < 202; ++k) keep[k] = 0.5f, toward[k] = 0.5f * init[k];
  const std::string state = b.op("Add", {b.op("Mul", {"kp_cond", b.init("keep", {kRow}, keep)}), b.init("toward", {kRow}, toward)});
  const std::string state3 = b.op("Unsqueeze", {state, i64("ax1", {1})});
  const std::string delta = b.op("MatMul", {amtS, b.init("D", {1, kRow}, D)});
  b.op("Add", {state3, delta}, {}, "", "pred");
  b.output("pred", {1, 80, kRow});
  return b.build();
}

std::vector<uint8_t> stitchModel() {
  OnnxBuilder b("motion_stitch");
  b.input("kp_source", {1, 21, 3});
  b.input("kp_driving", {1, 21, 3});
  const std::string d = b.op("Sub", {"kp_source", "kp_driving"});
  b.op("Add", {"kp_driving", b.op("Mul", {d, b.init("pull", {}, {0.05f})})}, {}, "", "kp_stitched");
  b.output("kp_stitched", {1, 21, 3});
  return b.build();
}

}  // namespace

std::vector<float> hannWindow() {
  std::vector<float> w(512);
  for (int n = 0; n < 512; ++n) w[n] = static_cast<float>(0.5 - 0.5 * std::cos(2 * kPi * n / 512));
  return w;
}

std::vector<float> melFilterbank() {
  std::vector<double> hz(kMels + 2);
  const double top = hzToMel(8000.0);
  for (int i = 0; i < kMels + 2; ++i) hz[i] = melToHz(top * i / (kMels + 1));
  std::vector<float> m(static_cast<size_t>(kBins) * kMels, 0.0f);
  for (int b = 0; b < kMels; ++b) {
    const double lo = hz[b], mid = hz[b + 1], hi = hz[b + 2], area = 2.0 / (hi - lo);
    for (int k = 0; k < kBins; ++k) {
      const double f = k * 16000.0 / 512;
      const double w = std::max(0.0, std::min((f - lo) / (mid - lo), (hi - f) / (hi - mid)));
      m[static_cast<size_t>(k) * kMels + b] = static_cast<float>(w * area);
    }
  }
  return m;
}

std::vector<Member> motionMembers(const Params& p) {
  std::vector<Member> out;
  const auto put = [&](const std::string& name, std::vector<uint8_t> bytes) {
    out.push_back({"motion/" + name, std::move(bytes)});
  };
  const std::string meta = "{\n  \"nt\": " + std::to_string(p.nt) + ",\n  \"n_src\": " + std::to_string(p.nt) +
                           ",\n  \"n_emo\": " + std::to_string(kEmo) + ",\n  \"s_bridge\": 1.0,\n  \"delta_pitch\": 0.0\n}\n";
  put("meta.json", std::vector<uint8_t>(meta.begin(), meta.end()));
  put("hubert_stft_window.bin", bytesOf(hannWindow()));
  put("hubert_stft_binmat.bin", bytesOf(melFilterbank()));
  const Student st = studentWeights(p.seed);
  put("hubert_fmean.bin", bytesOf(st.fmean));
  put("hubert_fstd.bin", bytesOf(st.fstd));
  std::vector<float> emo(static_cast<size_t>(kEmo) * 8, 0.0f);
  for (int r = 0; r < kEmo; ++r) emo[static_cast<size_t>(r) * 8 + r % 8] = 1.0f;  // one-hot emotion classes
  put("emo.bin", bytesOf(emo));
  const std::vector<float> ch = characterInfo(p);
  put("ch_xs_info.bin", bytesOf(ch));
  put("ch_sc.bin", bytesOf(keypoints(p, 0)));
  put("ch_eye_open.bin", bytesOf(std::vector<float>{0.34f, 0.34f}));
  put("ch_eye_ball.bin", bytesOf(std::vector<float>{0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f}));
  std::vector<float> vmm(2 * kRow);
  for (int k = 0; k < kRow; ++k) {
    const bool logit = k >= 1 && k < 199;
    vmm[k] = logit ? -45.0f : k < 202 ? -0.5f : -0.3f;
    vmm[kRow + k] = logit ? 5.0f : k < 202 ? 0.5f : 0.3f;
  }
  put("v_min_max.bin", bytesOf(vmm));
  std::vector<float> src, xs;
  for (int s = 0; s < p.nt; ++s) {
    const std::vector<float> info = sourceInfo(p, s), kp = keypoints(p, s);
    src.insert(src.end(), info.begin(), info.end());
    xs.insert(xs.end(), kp.begin(), kp.end());
  }
  put("src_xs_info.bin", bytesOf(src));
  put("xs_target.bin", bytesOf(xs));
  put("hubert_student.onnx", studentModel(st));
  put("lmdm.onnx", generatorModel(initialState(ch)));
  put("stitch.onnx", stitchModel());
  return out;
}

}  // namespace le::forge
