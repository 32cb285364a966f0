#include "le/audio/le_motion.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_a2x.h"
#include "le/le_bundle.h"
#include "le/le_error.h"
#include "le/le_pool.h"
#include "le/le_util.h"
#include "le/render/le_ort.h"

namespace le::motion {

namespace {

// ---------------------------------------------------------------------------------------------
// Members

// "nt", "n_src", ... of meta.json. A key present only in another role (no ':' after it) is bad.
double metaNumber(const std::string& text, const char* key, bool required, double dflt) {
  const size_t pos = manifest_key::scalarValuePos(text, key);
  if (pos == manifest_key::kNotFound) {
    if (text.find(std::string("\"") + key + "\"") != std::string::npos)
      fail(std::string("meta.json: bad ") + key);
    if (required) fail(std::string("meta.json: missing ") + key);
    return dflt;
  }
  char* end = nullptr;
  const double v = std::strtod(text.c_str() + pos, &end);
  if (end == text.c_str() + pos || !std::isfinite(v)) fail(std::string("meta.json: bad ") + key);
  return v;
}

int metaCount(const std::string& text, const char* key) {
  const double v = metaNumber(text, key, true, 0);
  if (v < 1 || v > 1e7) fail(std::string("meta.json: bad ") + key);
  return static_cast<int>(v);
}

std::vector<float> readTable(const std::string& path, size_t expected) {
  const std::string bytes = readFile(path);
  if (bytes.size() != expected * sizeof(float))
    fail("short read " + path + ": " + std::to_string(bytes.size() / sizeof(float)) +
         " floats, expected " + std::to_string(expected));
  std::vector<float> v(expected);
  std::memcpy(v.data(), bytes.data(), bytes.size());
  return v;
}

// Degrees from 66 angle-bin logits: softmax expectation of the bin index, 3 degrees a bin.
float angleOf(const float* logits) {
  float mx = logits[0];
  for (int i = 1; i < 66; ++i) mx = std::max(mx, logits[i]);
  float e[66], sum = 0;
  for (int i = 0; i < 66; ++i) sum += e[i] = std::exp(logits[i] - mx);
  float idx = 0;
  for (int i = 0; i < 66; ++i) idx += e[i] / sum * static_cast<float>(i);
  return 3.0f * idx - 97.5f;
}

// Row-major (Rz(az) Ry(ay) Rx(ax))^T of angles in degrees.
void rotation(float ax, float ay, float az, float R[3][3]) {
  const float k = 3.1415927f / 180.0f;
  const float x = ax * k, y = ay * k, z = az * k;
  const float sx = std::sin(x), cx = std::cos(x), sy = std::sin(y), cy = std::cos(y),
              sz = std::sin(z), cz = std::cos(z);
  const float r[3][3] = {{cy * cz, cy * sz, -sy},
                         {sx * sy * cz - cx * sz, cx * cz + sx * sy * sz, sx * cy},
                         {sx * sz + cx * sy * cz, cx * sy * sz - sx * cz, cx * cy}};
  std::memcpy(R, r, sizeof r);
}

// Lip keypoints 6, 12, 14, 17, 19 and 20 carry the generated expression.
constexpr bool isLip(int kp) { return kp == 6 || kp == 12 || kp == 14 || kp == 17 || kp == 19 || kp == 20; }

void writeDump(const std::string& dir, const char* name, const float* data, size_t n, bool append) {
  const std::string path = dir + "/" + name;
  FilePtr f(std::fopen(path.c_str(), append ? "ab" : "wb"));
  if (!f) fail("cannot write " + path);
  if (n && std::fwrite(data, sizeof(float), n, f.get()) != n) fail("short write " + path);
  if (std::fclose(f.release()) != 0) fail("short write " + path);
}

// ---------------------------------------------------------------------------------------------
// Networks

Ort::SessionOptions sessionOptions(int threads) {
  Ort::SessionOptions o;
  o.SetIntraOpNumThreads(threads);
  o.SetInterOpNumThreads(1);
  o.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
  const char* spin = std::getenv("LE_ORT_SPIN");
  if (!(spin && std::strcmp(spin, "1") == 0))
    o.AddConfigEntry("session.intra_op.allow_spinning", "0");
  return o;
}

// Depth of ONNX Runtime runs on this thread, for the benchmark's allocation count.
thread_local int tRunDepth = 0;
struct RunMark {
  RunMark() { ++tRunDepth; }
  ~RunMark() { --tRunDepth; }
  RunMark(const RunMark&) = delete;
  RunMark& operator=(const RunMark&) = delete;
};

// One network: names and input shapes recorded at open (unknown dimensions read as 1); runs
// over caller buffers.
class Net {
 public:
  // A CoreML ep that cannot be had is cleared, so the next network goes straight to the CPU.
  Net(Ort::Env& env, const std::string& path, int threads, std::string& ep, const std::string& dir) {
    if (!canOpenForRead(path)) fail("cannot open " + path);
    bool made = false;
    if (!ep.empty()) {
      try {
        Ort::SessionOptions o = sessionOptions(threads);
        appendCoreml(o, ep, dir);
        session_ = Ort::Session(env, path.c_str(), o);
        made = true;
      } catch (const std::exception& e) {
        std::fprintf(stderr, "[le] CoreML EP session refused: %s — falling back to the ORT CPU EP\n", e.what());
        ep.clear();
      }
    }
    if (!made) session_ = Ort::Session(env, path.c_str(), sessionOptions(threads));
    Ort::AllocatorWithDefaultOptions alloc;
    for (size_t i = 0; i < session_.GetInputCount(); ++i) {
      inNames_.emplace_back(session_.GetInputNameAllocated(i, alloc).get());
      std::vector<int64_t> shape = session_.GetInputTypeInfo(i).GetTensorTypeAndShapeInfo().GetShape();
      size_t n = 1;
      for (int64_t& d : shape) n *= static_cast<size_t>(d = std::max<int64_t>(d, 1));
      inShapes_.push_back(std::move(shape));
      inSizes_.push_back(n);
    }
    for (size_t i = 0; i < session_.GetOutputCount(); ++i)
      outNames_.emplace_back(session_.GetOutputNameAllocated(i, alloc).get());
    if (outNames_.empty()) fail(path + ": no outputs");
    for (const auto& s : inNames_) inPtrs_.push_back(s.c_str());
    outPtr_ = outNames_[0].c_str();
    for (size_t i = 0; i < inSizes_.size(); ++i) {
      inBufs_.emplace_back(inSizes_[i], 0.0f);
      inVals_.push_back(Ort::Value::CreateTensor<float>(mem_, inBufs_[i].data(), inSizes_[i],
                                                        inShapes_[i].data(), inShapes_[i].size()));
    }
  }

  size_t inputs() const { return inNames_.size(); }
  size_t inputSize(size_t i) const { return inSizes_[i]; }

  // Inputs are copied into tensors made once at open, and the output comes through one kept for
  // its shape, so a run allocates nothing outside ONNX Runtime.
  void run(const float* const* in, size_t nIn, float* out, const std::array<int64_t, 3>& outShape) {
    if (nIn != inNames_.size())
      fail("network takes " + std::to_string(inNames_.size()) + " inputs, fed " + std::to_string(nIn));
    for (size_t i = 0; i < nIn; ++i) std::memcpy(inBufs_[i].data(), in[i], inSizes_[i] * sizeof(float));
    if (outShape != outShape_) {
      size_t outN = 1;
      for (int64_t d : outShape) outN *= static_cast<size_t>(d);
      outShape_ = outShape;
      outBuf_.assign(outN, 0.0f);
      outVal_ = Ort::Value::CreateTensor<float>(mem_, outBuf_.data(), outN, outShape_.data(), outShape_.size());
    }
    const RunMark mark;
    session_.Run(Ort::RunOptions{nullptr}, inPtrs_.data(), inVals_.data(), nIn, &outPtr_, &outVal_, 1);
    std::memcpy(out, outBuf_.data(), outBuf_.size() * sizeof(float));
  }

 private:
  Ort::Session session_{nullptr};
  std::vector<std::string> inNames_, outNames_;
  std::vector<const char*> inPtrs_;
  const char* outPtr_ = nullptr;
  std::vector<std::vector<int64_t>> inShapes_;
  std::vector<size_t> inSizes_;
  Ort::MemoryInfo mem_ = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  std::vector<std::vector<float>> inBufs_;
  std::vector<Ort::Value> inVals_;
  std::array<int64_t, 3> outShape_{};
  std::vector<float> outBuf_;
  Ort::Value outVal_{nullptr};
};

// Feature-path scratch of the calling thread.
struct FeatureScratch {
  float padded[kPadded];
  float re[kFftSize], im[kFftSize];
  float mag[kBins];
  float frame[kFftSize];
};

FeatureScratch& featureScratch() {
  thread_local std::unique_ptr<FeatureScratch> s = std::make_unique<FeatureScratch>();
  return *s;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// FFT and log-mel

Fft512::Fft512() {
  for (int k = 0; k < 256; ++k) {
    const double a = -2.0 * 3.14159265358979323846 * k / kFftSize;
    cos_[k] = static_cast<float>(std::cos(a));
    sin_[k] = static_cast<float>(std::sin(a));
  }
  for (int h = 1; h < kFftSize; h *= 2)
    for (int k = 0; k < h; ++k) {
      stageCos_[h + k] = cos_[k * (256 / h)];
      stageSin_[h + k] = sin_[k * (256 / h)];
    }
  stageCos_[0] = stageSin_[0] = 0;
}

void Fft512::forward(float* re, float* im) const { fftForward(re, im, stageCos_, stageSin_); }

void logMelWindow(const Fft512& fft, const float* window, const float* binmat, const float* audio,
                  float* mel) {
  FeatureScratch& s = featureScratch();
  // Mirror without repeating the edge sample.
  std::memcpy(s.padded + kPad, audio, sizeof(float) * kWindowSamples);
  for (int k = 0; k < kPad; ++k) {
    s.padded[kPad - 1 - k] = audio[k + 1];
    s.padded[kPad + kWindowSamples + k] = audio[kWindowSamples - 2 - k];
  }
  for (int j = 0; j < kMelFrames; ++j) {
    const float* src = s.padded + kMelHop * j;
    for (int i = 0; i < kFftSize; ++i) {
      s.re[i] = src[i] * window[i];
      s.im[i] = 0;
    }
    fft.forward(s.re, s.im);
    for (int k = 0; k < kBins; ++k) s.mag[k] = std::sqrt(s.re[k] * s.re[k] + s.im[k] * s.im[k]);
    float acc[kMels] = {};
    for (int k = 0; k < kBins; ++k) {
      const float m = s.mag[k];
      const float* row = binmat + static_cast<size_t>(k) * kMels;
      for (int b = 0; b < kMels; ++b) acc[b] += m * row[b];
    }
    for (int b = 0; b < kMels; ++b) mel[b * kMelFrames + j] = std::log(acc[b] + 1e-8f);
  }
}

// ---------------------------------------------------------------------------------------------
// The generator

struct Motion::Impl {
  std::string dir, dumpDir;
  int nt = 0, nSrc = 0, nEmo = 0;
  float bridge = 0, pitchOffset = 0, expGain = 1;
  std::vector<float> window, binmat, fmean, fstd, emo, chInfo, chSc, eyeOpen, eyeBall, vMinMax,
      srcInfo, xsTarget;
  float initState[kRowDim];
  Ort::Env& env = ortEnv();
  std::unique_ptr<Net> student, generator, stitcher;
  Fft512 fft;
  double studentMs = 0;

  // utterance
  std::vector<float> samples;
  bool finished = false;
  int total = -1;
  int nextWindow = 0;
  std::vector<float> condRows;
  int provisional = 0;
  std::vector<float> seq;
  int seqCount = 0;
  int chunkIdx = 0;
  float kpState[kRowDim];
  std::vector<float> final;
  bool finalBuilt = false;
  int emitted = 0;
  float exp0[kKp];
  bool exp0Set = false;
  int srcIdx = 0, direction = 1, loopMode = 1;  // 1 wraps, 0 walks ping-pong
  int eager = 0;
  // eager bookkeeping
  bool haveSaved = false;
  int savedCount = 0;
  float savedTail[kFade * kRowDim];
  int lastPassF = 0, horizon = 0;
  bool committedChunk = false;
  int passes = 0;
  double passMs = 0;

  // scratch
  std::vector<float> winAudio = std::vector<float>(kWindowSamples);
  std::vector<float> mel = std::vector<float>(kMels * kMelFrames);
  std::vector<float> feat = std::vector<float>(kFeatFrames * kFeatDim);
  std::vector<float> pred = std::vector<float>(kChunk * kRowDim);
  std::vector<float> genIn = std::vector<float>(kChunk * kCondDim);
  std::vector<float> snapshot = std::vector<float>((kFade + 3) * kRowDim);

  void load(int threads, std::string ep);
  void warmUp();
  void resetState(int start, int dir, int loop);

  int rows() const { return static_cast<int>(condRows.size() / kCondDim); }
  float* row(int i) { return seq.data() + static_cast<size_t>(i) * kRowDim; }

  void window5(int w, float* out);
  void appendWindow(int w);
  void dropProvisional();
  void restoreSaved();
  void runChunk(int n, int end, float* state);
  void buildFinal();
  void advance();
  void eagerPass(int F);
  int pullable() const;
  void rowAt(int t, float* out);
  void emit(const float* r, int s, float* source, float* driven);
  void dump(const char* name, const float* data, size_t n, bool append = false) const {
    if (!dumpDir.empty()) writeDump(dumpDir, name, data, n, append);
  }
};

void Motion::Impl::load(int threads, std::string ep) {
  const std::string metaPath = dir + "/meta.json";
  const std::string meta = readFile(metaPath);
  nt = metaCount(meta, "nt");
  nSrc = metaCount(meta, "n_src");
  nEmo = metaCount(meta, "n_emo");
  bridge = static_cast<float>(metaNumber(meta, "s_bridge", true, 0));
  pitchOffset = static_cast<float>(metaNumber(meta, "delta_pitch", false, 0));
  if (nSrc != nt) fail("le_motion: n_src != nt unsupported");

  const auto table = [&](const char* name, size_t n) { return readTable(dir + "/" + name, n); };
  window = table("hubert_stft_window.bin", kFftSize);
  binmat = table("hubert_stft_binmat.bin", static_cast<size_t>(kBins) * kMels);
  fmean = table("hubert_fmean.bin", kFeatDim);
  fstd = table("hubert_fstd.bin", kFeatDim);
  emo = table("emo.bin", static_cast<size_t>(nEmo) * 8);
  chInfo = table("ch_xs_info.bin", kInfoDim);
  chSc = table("ch_sc.bin", kKp);
  eyeOpen = table("ch_eye_open.bin", 2);
  eyeBall = table("ch_eye_ball.bin", 6);
  vMinMax = table("v_min_max.bin", 2 * kRowDim);
  srcInfo = table("src_xs_info.bin", static_cast<size_t>(nSrc) * kInfoDim);
  xsTarget = readTable(resolveMember(dir, "xs_target.bin"), static_cast<size_t>(nt) * kKp);

  // Initial state: scale - 1, angle logits x, y, z, translation, expression.
  const float* ci = chInfo.data();
  initState[0] = ci[258] - 1.0f;
  std::copy(ci + 126, ci + 192, initState + 1);
  std::copy(ci + 262, ci + 328, initState + 67);
  std::copy(ci + 192, ci + 258, initState + 133);
  std::copy(ci + 259, ci + 262, initState + 199);
  std::copy(ci, ci + kKp, initState + 202);
  expGain = ci[258] / srcInfo[258];

  if (!ep.empty() && ep.compare(0, 6, "coreml") != 0) fail("le_motion: unknown ep '" + ep + "'");
  student = std::make_unique<Net>(env, dir + "/hubert_student.onnx", threads, ep, dir);
  generator = std::make_unique<Net>(env, dir + "/lmdm.onnx", threads, ep, dir);
  stitcher = std::make_unique<Net>(env, dir + "/stitch.onnx", threads, ep, dir);
  if (generator->inputs() != 2) fail(dir + "/lmdm.onnx: wants 2 inputs (state, condition rows)");
  if (stitcher->inputs() != 2) fail(dir + "/stitch.onnx: wants 2 inputs (source, driven)");
  if (student->inputs() != 1) fail(dir + "/hubert_student.onnx: wants 1 input (log-mel)");
  // Inputs are fed from fixed-size buffers: a model declaring more would read past them.
  const auto fits = [&](const Net& net, size_t i, size_t cap, const char* name) {
    if (net.inputSize(i) > cap)
      fail(dir + "/" + name + ": input " + std::to_string(i) + " declares " +
           std::to_string(net.inputSize(i)) + " values, more than the " + std::to_string(cap) + " it is fed");
  };
  fits(*student, 0, static_cast<size_t>(kMels) * kMelFrames, "hubert_student.onnx");
  fits(*generator, 0, kRowDim, "lmdm.onnx");
  fits(*generator, 1, static_cast<size_t>(kChunk) * kCondDim, "lmdm.onnx");
  fits(*stitcher, 0, kKp, "stitch.onnx");
  fits(*stitcher, 1, kKp, "stitch.onnx");
}

void Motion::Impl::warmUp() {
  std::fill(mel.begin(), mel.end(), 0.0f);
  const float* s[1] = {mel.data()};
  student->run(s, 1, feat.data(), {1, kFeatFrames, kFeatDim});
  std::fill(genIn.begin(), genIn.end(), 0.0f);
  float zeros[kRowDim] = {};
  const float* g[2] = {zeros, genIn.data()};
  generator->run(g, 2, pred.data(), {1, kChunk, kRowDim});
  float out[kKp];
  const float* t[2] = {zeros, zeros};
  stitcher->run(t, 2, out, {1, 21, 3});
}

void Motion::Impl::resetState(int start, int dirArg, int loop) {
  samples.clear();
  condRows.clear();
  seq.clear();
  final.clear();
  finished = false;
  finalBuilt = false;
  total = -1;
  nextWindow = chunkIdx = seqCount = emitted = provisional = 0;
  haveSaved = false;
  savedCount = lastPassF = horizon = passes = 0;
  committedChunk = false;
  passMs = 0;
  std::copy(initState, initState + kRowDim, kpState);
  exp0Set = false;
  direction = dirArg < 0 ? -1 : 1;
  loopMode = loop;
  srcIdx = std::min(std::max(start, 0), nt - 1);
}

// Condition rows of frames w .. w+4 into out (5 x 1103).
void Motion::Impl::window5(int w, float* out) {
  const int64_t first = static_cast<int64_t>(kHop) * w - kWindowLead;
  const int64_t n = static_cast<int64_t>(samples.size());
  for (int i = 0; i < kWindowSamples; ++i) {
    const int64_t s = first + i;
    winAudio[i] = s >= 0 && s < n ? samples[static_cast<size_t>(s)] : 0.0f;
  }
  logMelWindow(fft, window.data(), binmat.data(), winAudio.data(), mel.data());
  const auto t0 = std::chrono::steady_clock::now();
  const float* in[1] = {mel.data()};
  student->run(in, 1, feat.data(), {1, kFeatFrames, kFeatDim});
  studentMs += std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  for (int f = 0; f < kFeatFrames; ++f) {
    float* r = feat.data() + static_cast<size_t>(f) * kFeatDim;
    for (int k = 0; k < kFeatDim; ++k) r[k] = r[k] * fstd[k] + fmean[k];
  }
  for (int i = 0; i < kWindowFrames; ++i) {
    float* r = out + static_cast<size_t>(i) * kCondDim;
    const float* a = feat.data() + static_cast<size_t>(6 + 2 * i) * kFeatDim;
    const float* b = a + kFeatDim;
    for (int k = 0; k < kFeatDim; ++k) r[k] = (a[k] + b[k]) * 0.5f;
    r += kFeatDim;
    r = std::copy_n(emo.data() + static_cast<size_t>((w + i) % nEmo) * 8, 8, r);
    r = std::copy_n(eyeOpen.data(), 2, r);
    r = std::copy_n(eyeBall.data(), 6, r);
    std::copy_n(chSc.data(), kKp, r);
  }
  if (w == 0) {
    dump("mel0.bin", mel.data(), mel.size());
    dump("feat0.bin", feat.data(), feat.size());
  }
}

void Motion::Impl::appendWindow(int w) {
  const size_t at = condRows.size();
  condRows.resize(at + static_cast<size_t>(kWindowFrames) * kCondDim);
  window5(w, condRows.data() + at);
}

void Motion::Impl::dropProvisional() {
  condRows.resize(condRows.size() - static_cast<size_t>(provisional) * kCondDim);
  provisional = 0;
}

void Motion::Impl::restoreSaved() {
  if (!haveSaved) return;
  seqCount = savedCount;
  seq.resize(static_cast<size_t>(seqCount) * kRowDim);
  if (seqCount >= kFade)
    std::copy_n(savedTail, kFade * kRowDim, row(seqCount - kFade));
  haveSaved = false;
}

// 3-row mean of the pose floats of rows [from, to] of seq, from a copy of rows from-1 .. to+1.
void smoothPose(float* seq, int count, int from, int to, std::vector<float>& snap) {
  const int lo = std::max(from - 1, 0), hi = std::min(to + 1, count - 1);
  snap.resize(static_cast<size_t>(hi - lo + 1) * kRowDim);
  std::copy(seq + static_cast<size_t>(lo) * kRowDim, seq + static_cast<size_t>(hi + 1) * kRowDim, snap.begin());
  for (int r = from; r <= to; ++r) {
    const int a = std::max(r - 1, 0), b = std::min(r + 1, count - 1);
    for (int k = 0; k < kPoseDim; ++k) {
      float sum = 0;
      for (int q = a; q <= b; ++q) sum += snap[static_cast<size_t>(q - lo) * kRowDim + k];
      seq[static_cast<size_t>(r) * kRowDim + k] = sum / static_cast<float>(b - a + 1);
    }
  }
}

void Motion::Impl::runChunk(int n, int end, float* state) {
  const int first = kStride * n;
  const int last = std::min(rows(), end) - 1;
  if (last < 0) fail("generator chunk " + std::to_string(n) + " has no condition rows");
  for (int i = 0; i < kChunk; ++i)
    std::copy_n(condRows.data() + static_cast<size_t>(std::min(first + i, last)) * kCondDim, kCondDim,
                genIn.data() + static_cast<size_t>(i) * kCondDim);
  const float* in[2] = {state, genIn.data()};
  generator->run(in, 2, pred.data(), {1, kChunk, kRowDim});
  if (n == 0) {
    dump("lmdm0_kp.bin", state, kRowDim);
    dump("lmdm0_aud.bin", genIn.data(), genIn.size());
    dump("lmdm0_pred.bin", pred.data(), pred.size());
  }
  if (seqCount == 0) {
    seq.assign(pred.begin(), pred.end());
    seqCount = kChunk;
    smoothPose(seq.data(), seqCount, 0, kChunk - 1, snapshot);
  } else {
    const int old = seqCount;
    for (int k = 0; k < kFade; ++k) {
      float* r = row(old - kFade + k);
      const float* p = pred.data() + static_cast<size_t>(k) * kRowDim;
      const float a = 1.0f - static_cast<float>(k) / kFade, b = static_cast<float>(k) / kFade;
      for (int q = 0; q < kRowDim; ++q) r[q] = a * r[q] + b * p[q];
    }
    seq.insert(seq.end(), pred.begin() + static_cast<size_t>(kFade) * kRowDim, pred.end());
    seqCount += kChunk - kFade;
    smoothPose(seq.data(), seqCount, old - kFade, old, snapshot);
  }
  std::copy(initState, initState + kRowDim, state);
  std::copy_n(row(seqCount - 11), kPoseDim, state);
}

void Motion::Impl::buildFinal() {
  const int n = std::min(total, seqCount);
  seq.resize(static_cast<size_t>(n) * kRowDim);
  seqCount = n;
  dump("res_post.bin", seq.data(), seq.size());
  final = seq;
  if (n > 0) smoothPose(final.data(), n, 0, n - 1, snapshot);
  for (size_t i = 0; i < final.size(); ++i) {
    const size_t k = i % kRowDim;
    final[i] = std::min(std::max(final[i], vMinMax[k]), vMinMax[kRowDim + k]);
  }
  finalBuilt = true;
  dump("final.bin", final.data(), final.size());
}

void Motion::Impl::advance() {
  if (finalBuilt) return;
  if (finished) dropProvisional();  // no eager pass runs once finished
  const int64_t n = static_cast<int64_t>(samples.size());
  for (;;) {
    const int w = nextWindow;
    const bool due = finished ? w < total : static_cast<int64_t>(kHop) * w + (kWindowSamples - kWindowLead) <= n;
    if (!due) break;
    dropProvisional();
    appendWindow(w);
    nextWindow += kWindowFrames;
    if (finished && rows() > total) condRows.resize(static_cast<size_t>(total) * kCondDim);
  }
  for (;;) {
    const int first = kStride * chunkIdx;
    const int committed = rows() - provisional;
    const bool due = finished ? first < std::min(committed, total) : committed > first + kChunk - 1;
    if (!due) break;
    dropProvisional();
    restoreSaved();
    runChunk(chunkIdx, finished ? std::min(committed, total) : committed, kpState);
    ++chunkIdx;
    committedChunk = true;
  }
  if (finished && kStride * chunkIdx >= total) {
    dropProvisional();
    restoreSaved();
    buildFinal();
    return;
  }
  if (eager == 0 || finished) return;
  const int F = static_cast<int>((n + kHop - 1) / kHop);
  int step = eager;
  if (eager < 0)
    step = emitted == 0 ? 1 : std::min(std::max(static_cast<int>(passMs / 40.0 + 0.999), 1), 8);
  const bool run = committedChunk || F - lastPassF >= step || (eager > 0 && F > lastPassF && emitted == 0);
  if (run && F > 0) eagerPass(F);
}

void Motion::Impl::eagerPass(int F) {
  const auto t0 = std::chrono::steady_clock::now();
  dropProvisional();
  restoreSaved();
  for (int w = nextWindow; w < F; w += kWindowFrames) {
    appendWindow(w);
    provisional += kWindowFrames;
  }
  savedCount = seqCount;
  if (seqCount >= kFade) std::copy_n(row(seqCount - kFade), kFade * kRowDim, savedTail);
  haveSaved = true;
  float state[kRowDim];
  std::copy(kpState, kpState + kRowDim, state);
  for (int n = chunkIdx; kStride * n < F; ++n) runChunk(n, F, state);
  horizon = std::max(F - 1, horizon);
  committedChunk = false;
  lastPassF = F;
  const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  passMs = passes++ == 0 ? ms : 0.7 * passMs + 0.3 * ms;
}

int Motion::Impl::pullable() const {
  if (finalBuilt) return seqCount - emitted;
  if (eager != 0) return std::max(0, std::min(seqCount - 1, horizon) - emitted);
  return std::max(0, std::min(rows() - provisional - 1, seqCount - 11) - emitted);
}

void Motion::Impl::rowAt(int t, float* out) {
  if (finalBuilt) {
    std::copy_n(final.data() + static_cast<size_t>(t) * kRowDim, kRowDim, out);
    return;
  }
  std::copy_n(row(t), kRowDim, out);
  const int a = std::max(t - 1, 0), b = t + 1;
  for (int k = 0; k < kPoseDim; ++k) {
    float sum = 0;
    for (int q = a; q <= b; ++q) sum += seq[static_cast<size_t>(q) * kRowDim + k];
    out[k] = sum / static_cast<float>(b - a + 1);
  }
  for (int k = 0; k < kRowDim; ++k) out[k] = std::min(std::max(out[k], vMinMax[k]), vMinMax[kRowDim + k]);
}

void Motion::Impl::emit(const float* r, int s, float* source, float* driven) {
  const float* info = srcInfo.data() + static_cast<size_t>(s) * kInfoDim;
  if (!exp0Set) {
    std::copy_n(r + 202, kKp, exp0);
    exp0Set = true;
  }
  float e[kKp];
  for (int k = 0; k < kKp; ++k)
    e[k] = isLip(k / 3) ? (r[202 + k] - exp0[k]) * expGain + info[k] : info[k];
  const float ax = angleOf(info + 126), ay = angleOf(info + 262), az = angleOf(info + 192);
  float Rs[3][3], Rd[3][3];
  rotation(ax, ay, az, Rs);
  rotation(ax + pitchOffset, ay, az, Rd);
  const float scale = info[258];
  const float t[3] = {info[259], info[260], 0.0f};
  float xs[kKp], xd[kKp];
  for (int j = 0; j < 21; ++j) {
    const float* p = info + kKp + 3 * j;
    for (int d = 0; d < 3; ++d) {
      const float ps = p[0] * Rs[0][d] + p[1] * Rs[1][d] + p[2] * Rs[2][d];
      const float pd = p[0] * Rd[0][d] + p[1] * Rd[1][d] + p[2] * Rd[2][d];
      xs[3 * j + d] = scale * (ps + info[3 * j + d]) + t[d];
      xd[3 * j + d] = scale * (pd + e[3 * j + d]) + t[d];
    }
  }
  float stitched[kKp];
  const float* in[2] = {xs, xd};
  stitcher->run(in, 2, stitched, {1, 21, 3});
  const float* target = xsTarget.data() + static_cast<size_t>(s) * kKp;
  for (int k = 0; k < kKp; ++k) {
    source[k] = target[k];
    driven[k] = target[k] + bridge * (stitched[k] - xs[k]);
  }
  const bool append = emitted > 0;
  dump("xs.bin", source, kKp, append);
  dump("xd.bin", driven, kKp, append);
  dump("xsla.bin", xs, kKp, append);
  dump("xdla.bin", stitched, kKp, append);
}

// ---------------------------------------------------------------------------------------------

Motion::Motion(const std::string& dir, int threads, const std::string& ep) : impl_(std::make_unique<Impl>()) {
  Impl& m = *impl_;
  m.dir = dir;
  if (const char* d = std::getenv("LE_MOTION_DUMP")) m.dumpDir = d;
  m.load(threads < 1 ? pool::threads() : threads, ep);
  m.warmUp();
  m.resetState(0, 1, 1);
}

Motion::~Motion() = default;

void Motion::reset(int start, int direction, int loop) { impl_->resetState(start, direction, loop); }
void Motion::setEager(int value) { impl_->eager = value; }
int Motion::total() const { return impl_->finished ? impl_->total : -1; }
int Motion::nt() const { return impl_->nt; }
bool insideRun() { return tRunDepth > 0; }

double Motion::studentMs() const { return impl_->studentMs; }

void Motion::push(const float* samples, int n) {
  if (impl_->finished) fail("already finished");
  impl_->samples.insert(impl_->samples.end(), samples, samples + n);
}

void Motion::finish() {
  Impl& m = *impl_;
  if (m.finished) return;
  m.finished = true;
  m.total = static_cast<int>((m.samples.size() + kHop - 1) / kHop);
  if (m.dumpDir.empty()) return;
  m.advance();
  m.dump("cond.bin", m.condRows.data(), m.condRows.size());
}

int Motion::avail() {
  impl_->advance();
  return impl_->pullable();
}

int Motion::pull(int* sourceIdx, float* source, float* driven, int max) {
  Impl& m = *impl_;
  m.advance();
  const int n = std::min(max, m.pullable());
  float r[kRowDim];
  for (int i = 0; i < n; ++i) {
    m.rowAt(m.emitted, r);
    const int s = m.srcIdx;
    if (!m.loopMode) {
      int next = s + m.direction;
      if (next >= m.nt) {
        m.direction = -1;
        next = m.nt - 2;
      } else if (next < 0) {
        if (m.nt > 1) {
          m.direction = 1;
          next = 1;
        } else {
          m.direction = -1;
          next = 0;
        }
      }
      m.srcIdx = std::max(std::min(next, m.nt - 1), 0);
    } else {
      m.srcIdx = (s + m.direction + m.nt) % m.nt;
    }
    if (sourceIdx) sourceIdx[i] = s;
    m.emit(r, s, source + static_cast<size_t>(i) * kKp, driven + static_cast<size_t>(i) * kKp);
    ++m.emitted;
  }
  return n;
}

void Motion::featureWindow(int w, float* rows) { impl_->window5(w, rows); }

}  // namespace le::motion

// ---------------------------------------------------------------------------------------------
// Flat interface

struct le_motion {
  le::motion::Motion m;
  le_motion(const char* dir, int threads, const char* ep) : m(dir, threads, ep ? ep : "") {}
};

namespace {
constexpr auto kFam = le::err::Family::Motion;
}

extern "C" {

LE_API const char* le_motion_last_error(void) { return le::err::slot(kFam).c_str(); }

LE_API le_motion* le_motion_create(const char* motion_dir, int threads, const char* ep) {
  le::err::clear(kFam);
  LE_CHECK_ARG(motion_dir, kFam, "le_motion_create: NULL motion_dir", nullptr);
  return le::err::guard(kFam, "le_motion_create", static_cast<le_motion*>(nullptr),
                        [&] { return new le_motion(motion_dir, threads, ep); });
}

LE_API void le_motion_destroy(le_motion* m) {
  le::err::clear(kFam);
  delete m;
}

LE_API int le_motion_nt(const le_motion* m) {
  le::err::clear(kFam);
  return m ? m->m.nt() : 0;
}

LE_API void le_motion_reset(le_motion* m, int start, int direction, int loop) {
  le::err::clear(kFam);
  if (m) m->m.reset(start, direction, loop);
}

LE_API void le_motion_set_eager(le_motion* m, int value) {
  le::err::clear(kFam);
  if (m) m->m.setEager(value);
}

LE_API int le_motion_push(le_motion* m, const float* samples, int n) {
  le::err::clear(kFam);
  LE_CHECK_ARG(m && samples && n >= 0 && m->m.total() < 0, kFam,
               "le_motion_push: bad args / already finished", 0);
  if (n == 0) return 1;
  return le::err::guard(kFam, "le_motion_push", 0, [&] {
    m->m.push(samples, n);
    return 1;
  });
}

LE_API void le_motion_finish(le_motion* m) {
  le::err::clear(kFam);
  if (!m) return;
  le::err::guard(kFam, "le_motion_finish", 0, [&] {
    m->m.finish();
    return 1;
  });
}

LE_API int le_motion_total(const le_motion* m) {
  le::err::clear(kFam);
  return m ? m->m.total() : -1;
}

LE_API int le_motion_avail(le_motion* m) {
  le::err::clear(kFam);
  if (!m) return 0;
  return le::err::guard(kFam, "le_motion_avail", 0, [&] { return m->m.avail(); });
}

LE_API int le_motion_pull(le_motion* m, int* source_idx, float* source, float* driven, int max) {
  le::err::clear(kFam);
  LE_CHECK_ARG(m && source && driven && max >= 1, kFam, "le_motion_pull: bad args", 0);
  return le::err::guard(kFam, "le_motion_pull", 0,
                        [&] { return m->m.pull(source_idx, source, driven, max); });
}

}  // extern "C"
