// The motion generator against independent plain-loop references: spectrum and mel bands
// against a naive DFT, generator chunks and emission against the written-out formulas, the
// availability arithmetic and source walks, and every refusal.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "le/audio/le_motion.h"
#include "le/le_a2x.h"
#include "le/le_bundle.h"
#include "tests/onnx_ort.h"
#include "tests/support/media.h"
#include "tests/support/speech.h"
#include "tests/test_util2.h"

namespace {

using le::testing::ScratchDir;
using le::testing::writeFile;
namespace mo = le::motion;

std::string forgeMotionDir(const ScratchDir& dir, int nt) {
  le::forge::Params p;
  p.nt = nt;
  return le::testing::forgeMotionDir(dir.path(), p);
}

// RAII handle with the dump directory set for its creation only.
struct Handle {
  le_motion* m = nullptr;
  explicit Handle(const std::string& dir, const std::string& dump = "", const char* ep = nullptr) {
    le::testmedia::ScopedEnv env("LE_MOTION_DUMP", dump.empty() ? nullptr : dump.c_str());
    m = le_motion_create(dir.c_str(), 1, ep);
  }
  ~Handle() { le_motion_destroy(m); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
};

// Speech with its leading silence cut to 1000 samples, so feature window 0 hears speech.
const std::vector<float>& speech() {
  static const std::vector<float> s = [] {
    std::vector<float> a = le::testmedia::speak16k("Hello there. How are you today? Open wide and say ah.");
    size_t i = 0;
    while (i < a.size() && std::fabs(a[i]) < 0.02f) ++i;
    a.erase(a.begin(), a.begin() + static_cast<long>(i > 1000 ? i - 1000 : 0));
    return a;
  }();
  return s;
}

using Frames = le::testing::MotionFrames;

Frames pullAll(le_motion* m) {
  Frames f;
  le::testing::pullMotion(m, f);
  return f;
}

Frames run(le_motion* m, const std::vector<float>& audio) {
  EXPECT_EQ(le_motion_push(m, audio.data(), static_cast<int>(audio.size())), 1);
  le_motion_finish(m);
  return pullAll(m);
}

// Log-mel of one window by the definition: zeros outside, mirror padding, naive DFT in double.
std::vector<double> referenceMel(const std::vector<float>& audio, int w) {
  const std::vector<float> win = le::forge::hannWindow(), mat = le::forge::melFilterbank();
  std::vector<double> a(6480), pad(6992), mel(80 * 21);
  for (int i = 0; i < 6480; ++i) {
    const long s = 640L * w - 2000 + i;
    a[i] = s >= 0 && s < static_cast<long>(audio.size()) ? audio[s] : 0.0;
  }
  for (int i = 0; i < 6992; ++i) {
    const int k = i - 256;
    pad[i] = a[k < 0 ? -k : k >= 6480 ? 2 * 6479 - k : k];
  }
  for (int j = 0; j < 21; ++j) {
    std::vector<double> mag(257);
    for (int k = 0; k < 257; ++k) {
      std::complex<double> acc;
      for (int n = 0; n < 512; ++n) acc += pad[320 * j + n] * win[n] * std::polar(1.0, -2 * M_PI * k * n / 512);
      mag[k] = std::abs(acc);
    }
    for (int b = 0; b < 80; ++b) {
      double e = 0;
      for (int k = 0; k < 257; ++k) e += mag[k] * mat[k * 80 + b];
      mel[b * 21 + j] = std::log(e + 1e-8);
    }
  }
  return mel;
}

TEST(Motion, SpectrumAndMelMatchNaiveDftOnSpeech) {
  // Every vector target gives the bits of the plain radix-2 loops (bit reversal, then butterflies
  // with twiddle k * 256 / h of stage h); the twiddles themselves show in the mel bands below.
  const mo::Fft512 fft;
  const std::vector<float> re = le::test::randomFloats(512, -1, 1, 3);
  const std::vector<float> im = le::test::randomFloats(512, -1, 1, 4);
  std::vector<float> pr(512), pi(512);
  for (int n = 0; n < 512; ++n) {
    int r = 0;
    for (int b = 0; b < 9; ++b) r |= ((n >> b) & 1) << (8 - b);
    pr[r] = re[n], pi[r] = im[n];
  }
  for (int h = 1; h < 512; h *= 2)
    for (int s = 0; s < 512; s += 2 * h)
      for (int k = 0; k < h; ++k) {
        const float wr = fft.twiddleCos(k * 256 / h), wi = fft.twiddleSin(k * 256 / h);
        const int a = s + k, b = a + h;
        const float tr = pr[b] * wr - pi[b] * wi, ti = pr[b] * wi + pi[b] * wr;
        pr[b] = pr[a] - tr, pi[b] = pi[a] - ti;
        pr[a] = pr[a] + tr, pi[a] = pi[a] + ti;
      }
  le::testing::onEveryTarget([&](const char* target) {
    std::vector<float> r3 = re, i3 = im;
    fft.forward(r3.data(), i3.data());
    EXPECT_EQ(0, std::memcmp(r3.data(), pr.data(), sizeof(float) * 512)) << target;
    EXPECT_EQ(0, std::memcmp(i3.data(), pi.data(), sizeof(float) * 512)) << target;
  });

  // Window 0 of speech through the dumps; the condition rows of the first frames.
  ScratchDir d("motion_mel");
  const std::string dir = forgeMotionDir(d, 4);
  Handle h(dir, d.path());
  ASSERT_TRUE(h.m) << le_motion_last_error();
  const std::vector<float> audio(speech().begin(), speech().begin() + 16000);
  le_motion_push(h.m, audio.data(), static_cast<int>(audio.size()));
  le_motion_finish(h.m);
  const std::vector<float> mel = le::testing::readTable<float>(d / "mel0.bin"), feat = le::testing::readTable<float>(d / "feat0.bin"),
                           cond = le::testing::readTable<float>(d / "cond.bin");
  ASSERT_EQ(mel.size(), 80u * 21);
  ASSERT_EQ(feat.size(), 20u * 1024);
  ASSERT_EQ(cond.size(), 25u * 1103);
  const std::vector<double> ref = referenceMel(audio, 0);
  double melErr = 0, lo = 1e9, hi = -1e9;
  for (size_t i = 0; i < ref.size(); ++i) {
    melErr = std::max(melErr, std::fabs(ref[i] - mel[i]));
    lo = std::min(lo, ref[i]), hi = std::max(hi, ref[i]);
  }
  EXPECT_LT(melErr, 2e-3) << "log-mel range " << lo << " .. " << hi;
  EXPECT_GT(hi - lo, 5.0) << "the window should hear speech";
  const std::vector<float> emo = le::testing::readTable<float>(dir + "/emo.bin"), sc = le::testing::readTable<float>(dir + "/ch_sc.bin");
  for (int i = 0; i < 5; ++i) {
    const float* row = cond.data() + i * 1103;
    for (int k = 0; k < 1024; k += 97)
      EXPECT_FLOAT_EQ(row[k], 0.5f * (feat[(6 + 2 * i) * 1024 + k] + feat[(7 + 2 * i) * 1024 + k]));
    EXPECT_EQ(row[1024 + i], emo[i * 8 + i]);
    EXPECT_EQ(row[1103 - 1], sc[62]);
  }
  // The loudness feature (mean log-mel of the two middle frames) survives de-normalisation.
  double loud = 0;
  for (int b = 0; b < 80; ++b) loud += (ref[b * 21 + 6] + 2 * ref[b * 21 + 7] + ref[b * 21 + 8]) / 4 / 80;
  EXPECT_NEAR(cond[0], loud, 1e-3);
}

// Writes meta.json of dir with the given body lines.
void writeMeta(const std::string& dir, const std::string& body) { writeFile(dir + "/meta.json", "{\n" + body + "\n}\n"); }

std::vector<float> rowOf(const std::vector<float>& v, int r, int n) {
  return std::vector<float>(v.begin() + static_cast<long>(r) * n, v.begin() + static_cast<long>(r + 1) * n);
}

// 3-row mean of the pose floats (0 .. 201) of rows [from, to], from the unsmoothed values.
void smooth(std::vector<std::vector<float>>& seq, int from, int to) {
  const auto snap = seq;
  for (int r = from; r <= to; ++r) {
    const int a = std::max(r - 1, 0), b = std::min(r + 1, static_cast<int>(seq.size()) - 1);
    for (int k = 0; k < 202; ++k) {
      float s = 0;
      for (int q = a; q <= b; ++q) s += snap[q][k];
      seq[r][k] = s / static_cast<float>(b - a + 1);
    }
  }
}

double angle(const float* l) {
  double mx = -1e30, s = 0, e = 0;
  for (int i = 0; i < 66; ++i) mx = std::max<double>(mx, l[i]);
  for (int i = 0; i < 66; ++i) s += std::exp(l[i] - mx), e += std::exp(l[i] - mx) * i;
  return 3 * e / s - 97.5;
}

// p * (Rz Ry Rx)^T, angles in degrees: p turned about x, then y, then z.
void rotate(const float* p, double ax, double ay, double az, double* out) {
  double v[3] = {p[0], p[1], p[2]};
  const auto turn = [&](int i, int j, double degrees) {  // (v_i, v_j) by the angle
    const double c = std::cos(degrees * M_PI / 180), s = std::sin(degrees * M_PI / 180), vi = v[i], vj = v[j];
    v[i] = c * vi - s * vj, v[j] = s * vi + c * vj;
  };
  turn(1, 2, ax);
  turn(2, 0, ay);
  turn(0, 1, az);
  std::copy(v, v + 3, out);
}

TEST(Motion, ChunksAndEmissionMatchPlainLoops) {
  ScratchDir d("motion_chunks");
  const std::string dir = forgeMotionDir(d, 5);
  writeMeta(dir, "\"nt\": 5, \"n_src\": 5, \"n_emo\": 8, \"s_bridge\": 0.8, \"delta_pitch\": 4.0");
  std::vector<float> audio = speech();
  for (int k = 0; k < 2; ++k) {
    audio.insert(audio.end(), 8000, 0.0f);
    audio.insert(audio.end(), speech().begin(), speech().end());
  }
  audio.resize(std::min<size_t>(audio.size(), 640 * 231 - 100));
  const int total = static_cast<int>((audio.size() + 639) / 640);
  ASSERT_GT(total, 210) << "four chunks";
  Handle h(dir, d.path());
  ASSERT_TRUE(h.m) << le_motion_last_error();
  le_motion_reset(h.m, 3, -1, 0);
  const Frames f = run(h.m, audio);
  ASSERT_EQ(f.n(), total);
  EXPECT_EQ(le_motion_avail(h.m), 0);

  // The generator over the dumped condition rows, chunk by chunk.
  const std::vector<float> cond = le::testing::readTable<float>(d / "cond.bin"), fin = le::testing::readTable<float>(d / "final.bin");
  ASSERT_EQ(cond.size(), static_cast<size_t>(total) * 1103);
  const std::vector<float> ch = le::testing::readTable<float>(dir + "/ch_xs_info.bin"), vmm = le::testing::readTable<float>(dir + "/v_min_max.bin");
  const std::vector<float> init = le::forge::initialState(ch);
  Ort::Session gen = le::test::ortSession(le::testing::readTable<uint8_t>(dir + "/lmdm.onnx"));
  std::vector<std::vector<float>> seq;
  std::vector<float> state = init;
  for (int n = 0; 70 * n < total; ++n) {
    std::vector<float> in;
    for (int i = 0; i < 80; ++i) {
      const auto r = rowOf(cond, std::min(70 * n + i, total - 1), 1103);
      in.insert(in.end(), r.begin(), r.end());
    }
    const std::vector<float> pred = le::test::ortRun(
        gen, {{"kp_cond", {1, 265}, state.data(), 265}, {"aud_cond", {1, 80, 1103}, in.data(), in.size()}}, "pred");
    const int old = static_cast<int>(seq.size());
    if (n == 0) {
      for (int i = 0; i < 80; ++i) seq.push_back(rowOf(pred, i, 265));
      smooth(seq, 0, 79);
    } else {
      for (int k = 0; k < 10; ++k)
        for (int q = 0; q < 265; ++q)
          seq[old - 10 + k][q] = (1 - k / 10.0f) * seq[old - 10 + k][q] + (k / 10.0f) * pred[k * 265 + q];
      for (int i = 10; i < 80; ++i) seq.push_back(rowOf(pred, i, 265));
      smooth(seq, old - 10, old);
    }
    state = init;
    std::copy(seq[seq.size() - 11].begin(), seq[seq.size() - 11].begin() + 202, state.begin());
  }
  seq.resize(total);
  smooth(seq, 0, total - 1);
  ASSERT_EQ(fin.size(), static_cast<size_t>(total) * 265);
  float worst = 0;
  for (int t = 0; t < total; ++t)
    for (int k = 0; k < 265; ++k)
      worst = std::max(worst, std::fabs(std::clamp(seq[t][k], vmm[k], vmm[265 + k]) - fin[t * 265 + k]));
  EXPECT_LT(worst, 1e-5f);

  // Emission: walk, angles, rotation with the pitch offset, lip mask, exp0, expGain, stitcher, bridge.
  const std::vector<float> src = le::testing::readTable<float>(dir + "/src_xs_info.bin"), target = le::testing::readTable<float>(dir + "/xs_target.bin"),
                           xsla = le::testing::readTable<float>(d / "xsla.bin");
  Ort::Session stitch = le::test::ortSession(le::testing::readTable<uint8_t>(dir + "/stitch.onnx"));
  const std::vector<int> walk = {3, 2, 1, 0, 1, 2, 3, 4, 3, 2};
  const float gain = ch[258] / src[258];
  const bool lip[21] = {0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0, 1, 0, 0, 1, 0, 1, 1};
  double srcErr = 0, drvErr = 0, targetErr = 0;
  for (int t = 0; t < total; ++t) {
    const int s = walk[t % 8];
    ASSERT_EQ(f.si[t], s) << t;
    const float* info = src.data() + s * 328;
    const double ax = angle(info + 126), ay = angle(info + 262), az = angle(info + 192);
    std::vector<float> xs(63), xd(63);
    for (int j = 0; j < 21; ++j) {
      double ps[3], pd[3];
      rotate(info + 63 + 3 * j, ax, ay, az, ps);
      rotate(info + 63 + 3 * j, ax + 4.0, ay, az, pd);
      for (int c = 0; c < 3; ++c) {
        const int k = 3 * j + c;
        const double e = lip[j] ? (fin[t * 265 + 202 + k] - fin[202 + k]) * gain + info[k] : info[k];
        const double tr = c < 2 ? info[259 + c] : 0.0;
        xs[k] = static_cast<float>(info[258] * (ps[c] + info[k]) + tr);
        xd[k] = static_cast<float>(info[258] * (pd[c] + e) + tr);
      }
    }
    const std::vector<float> st = le::test::ortRun(
        stitch, {{"kp_source", {1, 21, 3}, xs.data(), 63}, {"kp_driving", {1, 21, 3}, xd.data(), 63}}, "kp_stitched");
    for (int k = 0; k < 63; ++k) {
      srcErr = std::max(srcErr, std::fabs(double(xs[k]) - xsla[t * 63 + k]));
      targetErr = std::max(targetErr, std::fabs(double(xs[k]) - target[s * 63 + k]));
      ASSERT_EQ(f.xs[t * 63 + k], target[s * 63 + k]);
      drvErr = std::max(drvErr, std::fabs(target[s * 63 + k] + 0.8 * (st[k] - xs[k]) - f.xd[t * 63 + k]));
    }
  }
  EXPECT_LT(srcErr, 2e-5);
  EXPECT_LT(drvErr, 2e-5);
  EXPECT_LT(targetErr, 1e-4) << "the forged source motion agrees with xs_target.bin";
}

TEST(Motion, AvailabilityEagerAndSourceWalks) {
  ScratchDir d("motion_avail");
  const std::string dir = forgeMotionDir(d, 4);
  std::vector<float> audio = speech();
  audio.resize(100000, 0.0f);
  Handle h(dir);
  ASSERT_TRUE(h.m) << le_motion_last_error();
  const auto pushTo = [&](size_t n, size_t& at) {
    ASSERT_EQ(le_motion_push(h.m, audio.data() + at, static_cast<int>(n - at)), 1);
    at = n;
  };
  size_t at = 0;
  // The first chunk needs 80 condition rows, each further one 70 more.
  const std::pair<size_t, int> steps[] = {{4479, 0}, {52479, 0}, {52480, 69}, {97279, 69}, {97280, 139}};
  for (const auto& [samples, avail] : steps) {
    pushTo(samples, at);
    EXPECT_EQ(le_motion_avail(h.m), avail) << samples;
  }
  std::vector<int> si(5);
  std::vector<float> xs(5 * 63), xd(5 * 63);
  EXPECT_EQ(le_motion_pull(h.m, si.data(), xs.data(), xd.data(), 5), 5);
  EXPECT_EQ(le_motion_avail(h.m), 134);
  EXPECT_EQ(le_motion_total(h.m), -1);
  pushTo(audio.size(), at);
  le_motion_finish(h.m);
  le_motion_finish(h.m);
  EXPECT_EQ(le_motion_total(h.m), 157);
  EXPECT_EQ(le_motion_avail(h.m), 152);
  EXPECT_EQ(pullAll(h.m).n(), 152);
  EXPECT_EQ(le_motion_avail(h.m), 0);

  // Eager: adaptive delivers the first frame after two frames of audio; every step size ends
  // with exactly the utterance's frames.
  for (int eager : {-1, 1, 4}) {
    le_motion_reset(h.m, 0, 1, 1);
    le_motion_set_eager(h.m, eager);
    size_t first = 0;
    int pulled = 0;
    for (size_t p = 0; p < audio.size(); p += 640) {
      le_motion_push(h.m, audio.data() + p, static_cast<int>(std::min<size_t>(640, audio.size() - p)));
      const int got = pullAll(h.m).n();
      if (got && !first) first = p + 640;
      pulled += got;
    }
    le_motion_finish(h.m);
    pulled += pullAll(h.m).n();
    EXPECT_EQ(pulled, 157) << "eager " << eager;
    if (eager < 0) {
      EXPECT_EQ(first, 1280u);
    }
    EXPECT_LE(first, 640u * (eager > 0 ? eager + 1 : 2)) << "eager " << eager;
    EXPECT_STREQ(le_motion_last_error(), "");
  }
  le_motion_set_eager(h.m, 0);

  // Source walks over nt = 4, and nt = 1 ping-pong.
  const std::vector<float> eight(8 * 640, 0.0f);
  const auto walk = [&](le_motion* m, int start, int dir, int loop) {
    le_motion_reset(m, start, dir, loop);
    return run(m, eight).si;
  };
  EXPECT_EQ(walk(h.m, 0, 1, 0), (std::vector<int>{0, 1, 2, 3, 2, 1, 0, 1}));
  EXPECT_EQ(walk(h.m, 0, 1, 1), (std::vector<int>{0, 1, 2, 3, 0, 1, 2, 3}));
  EXPECT_EQ(walk(h.m, 9, -5, 1), (std::vector<int>{3, 2, 1, 0, 3, 2, 1, 0}));
  ScratchDir d1("motion_nt1");
  Handle one(forgeMotionDir(d1, 1));
  ASSERT_TRUE(one.m) << le_motion_last_error();
  EXPECT_EQ(le_motion_nt(one.m), 1);
  EXPECT_EQ(walk(one.m, 0, 1, 0), std::vector<int>(8, 0));
}

TEST(Motion, RefusalsAndBadCalls) {
  EXPECT_EQ(le_motion_create(nullptr, 1, nullptr), nullptr);
  EXPECT_STREQ(le_motion_last_error(), "le_motion_create: NULL motion_dir");
  EXPECT_EQ(le_motion_create("/nonexistent/motion", 1, nullptr), nullptr);
  EXPECT_STREQ(le_motion_last_error(), "le_motion_create: cannot open /nonexistent/motion/meta.json");

  ScratchDir d("motion_bad");
  const std::string dir = forgeMotionDir(d, 4);
  const std::string meta = le::readFile(dir + "/meta.json");
  const auto refusal = [&](const char* ep = nullptr) {
    Handle h(dir, "", ep);
    return h.m ? std::string("created") : std::string(le_motion_last_error());
  };
  writeMeta(dir, "\"nt\": 4, \"n_src\": 4, \"n_emo\": 8");
  EXPECT_EQ(refusal(), "le_motion_create: meta.json: missing s_bridge");
  writeMeta(dir, "\"nt\": 4, \"n_src\": 4, \"n_emo\": 8, \"note\": \"s_bridge\"");
  EXPECT_EQ(refusal(), "le_motion_create: meta.json: bad s_bridge");
  writeMeta(dir, "\"nt\": 4, \"n_src\": 3, \"n_emo\": 8, \"s_bridge\": 1");
  EXPECT_EQ(refusal(), "le_motion_create: le_motion: n_src != nt unsupported");
  writeFile(dir + "/meta.json", meta);
  EXPECT_EQ(refusal("cuda"), "le_motion_create: le_motion: unknown ep 'cuda'");
  EXPECT_EQ(refusal("coreml:ane"), "created") << "CoreML falls back to the CPU";
  for (const auto& [name, floats] : {std::pair<std::string, int>{"emo.bin", 64}, {"v_min_max.bin", 530},
                                     {"src_xs_info.bin", 4 * 328}, {"xs_target.bin", 4 * 63}}) {
    const std::string path = dir + "/" + name, bytes = le::readFile(path);
    writeFile(path, bytes.substr(0, bytes.size() - 4));
    EXPECT_EQ(refusal(), "le_motion_create: short read " + path + ": " + std::to_string(floats - 1) +
                             " floats, expected " + std::to_string(floats));
    writeFile(path, bytes);
  }

  Handle h(dir);
  ASSERT_TRUE(h.m) << le_motion_last_error();
  EXPECT_STREQ(le_motion_last_error(), "");
  float buf[63], buf2[63];
  const char* pushBad = "le_motion_push: bad args / already finished";
  EXPECT_EQ(le_motion_push(nullptr, buf, 1), 0);
  EXPECT_STREQ(le_motion_last_error(), pushBad);
  EXPECT_EQ(le_motion_push(h.m, nullptr, 1), 0);
  EXPECT_EQ(le_motion_push(h.m, buf, -1), 0);
  EXPECT_EQ(le_motion_push(h.m, buf, 0), 1);
  EXPECT_EQ(le_motion_pull(h.m, nullptr, nullptr, buf2, 1), 0);
  EXPECT_STREQ(le_motion_last_error(), "le_motion_pull: bad args");
  EXPECT_EQ(le_motion_pull(h.m, nullptr, buf, buf2, 0), 0);
  EXPECT_STREQ(le_motion_last_error(), "le_motion_pull: bad args");
  EXPECT_EQ(le_motion_pull(h.m, nullptr, buf, buf2, 1), 0);
  EXPECT_STREQ(le_motion_last_error(), "") << "nothing pullable is no error";
  EXPECT_EQ(le_motion_total(nullptr), -1);
  EXPECT_EQ(le_motion_nt(nullptr), 0);
  EXPECT_EQ(le_motion_avail(nullptr), 0);
  le_motion_finish(nullptr);
  le_motion_reset(nullptr, 0, 1, 0);

  // A reset mid-utterance starts afresh: the replay matches a new handle's run exactly.
  const std::vector<float> audio(speech().begin(), speech().begin() + 60000);
  le_motion_push(h.m, audio.data(), 55000);
  ASSERT_GT(le_motion_pull(h.m, nullptr, buf, buf2, 1), 0);
  le_motion_reset(h.m, 0, 1, 1);
  const Frames again = run(h.m, audio);
  EXPECT_EQ(le_motion_push(h.m, buf, 1), 0);
  EXPECT_STREQ(le_motion_last_error(), pushBad);
  Handle fresh(dir);
  const Frames ref = run(fresh.m, audio);
  EXPECT_EQ(std::tie(again.si, again.xs, again.xd), std::tie(ref.si, ref.xs, ref.xd));
  EXPECT_EQ(again.n(), 94);
}

}  // namespace
