// The motion generator against independent plain-loop references: spectrum and mel bands
// against a naive DFT, generator chunks and emission against the written-out formulas, the
// availability arithmetic and source walks, lip sync on real speech, and every refusal.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "le/audio/le_motion.h"
#include "le/le_a2x.h"
#include "le/le_bundle.h"
#include "tests/bundle_fixture.h"
#include "tests/onnx_ort.h"
#include "tests/support/speech.h"
#include "tools/forge/forge_motion.h"

namespace {

using le::testing::ScratchDir;
using le::testing::writeFile;
namespace mo = le::motion;

// A forged motion directory for nt source frames, written into dir.
std::string forgeMotionDir(const ScratchDir& dir, int nt) {
  le::forge::Params p;
  p.nt = nt;
  for (const le::forge::Member& m : le::forge::motionMembers(p))
    writeFile(dir / m.name, std::string(m.bytes.begin(), m.bytes.end()));
  return dir / "motion";
}

std::vector<float> readFloats(const std::string& path) {
  const std::string b = le::readFile(path);
  std::vector<float> v(b.size() / 4);
  std::memcpy(v.data(), b.data(), v.size() * 4);
  return v;
}

// RAII handle with the dump directory set for its creation only.
struct Handle {
  le_motion* m = nullptr;
  explicit Handle(const std::string& dir, const std::string& dump = "", const char* ep = nullptr) {
    if (!dump.empty()) setenv("LE_MOTION_DUMP", dump.c_str(), 1);
    m = le_motion_create(dir.c_str(), 1, ep);
    unsetenv("LE_MOTION_DUMP");
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

struct Frames {
  std::vector<int> si;
  std::vector<float> xs, xd;
  int n() const { return static_cast<int>(si.size()); }
};

Frames pullAll(le_motion* m, int max = 7) {
  Frames f;
  std::vector<int> si(max);
  std::vector<float> xs(63 * max), xd(63 * max);
  for (int got; (got = le_motion_pull(m, si.data(), xs.data(), xd.data(), max)) > 0;) {
    f.si.insert(f.si.end(), si.begin(), si.begin() + got);
    f.xs.insert(f.xs.end(), xs.begin(), xs.begin() + 63 * got);
    f.xd.insert(f.xd.end(), xd.begin(), xd.begin() + 63 * got);
  }
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
  // The FFT alone on random complex data.
  const mo::Fft512 fft;
  std::vector<float> re = le::test::randomFloats(512, -1, 1, 3), im = le::test::randomFloats(512, -1, 1, 4);
  std::vector<float> r2 = re, i2 = im;
  fft.forward(r2.data(), i2.data());
  double worst = 0;
  for (int k = 0; k < 512; ++k) {
    std::complex<double> acc;
    for (int n = 0; n < 512; ++n) acc += std::complex<double>(re[n], im[n]) * std::polar(1.0, -2 * M_PI * k * n / 512);
    worst = std::max(worst, std::abs(acc - std::complex<double>(r2[k], i2[k])));
  }
  EXPECT_LT(worst, 2e-4);

  // Window 0 of speech through the dumps; the condition rows of the first frames.
  ScratchDir d("motion_mel");
  const std::string dir = forgeMotionDir(d, 4);
  Handle h(dir, d.path());
  ASSERT_TRUE(h.m) << le_motion_last_error();
  const std::vector<float> audio(speech().begin(), speech().begin() + 16000);
  le_motion_push(h.m, audio.data(), static_cast<int>(audio.size()));
  le_motion_finish(h.m);
  const std::vector<float> mel = readFloats(d / "mel0.bin"), feat = readFloats(d / "feat0.bin"),
                           cond = readFloats(d / "cond.bin");
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
  const std::vector<float> emo = readFloats(dir + "/emo.bin"), sc = readFloats(dir + "/ch_sc.bin");
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

}  // namespace
