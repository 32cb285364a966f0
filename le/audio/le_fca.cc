// The stream delta model: whole-clip speech features from the 8 s encoder, conditioned on the
// running mean of the voiced frames, through an autoregressive decoder over a 7-frame window.
#include <algorithm>
#include <iterator>
#include <cmath>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "le/audio/le_a2x_w2v.h"
#include "le/le_a2x.h"
#include "le/le_error.h"
#include "le/le_pool.h"
#include "le/render/le_ort.h"

namespace {

using le::err::Family;

constexpr int kHop = 640;
constexpr int kWin = 128000;
constexpr int kWinFrames = 200;
constexpr int kDim = 768;
constexpr int kKp = 63;
constexpr int kHidden = 384;
constexpr int kLayers[] = {4, 5, 6, 7, 8, 9};
constexpr int kOffsets[] = {-1, 0, 1, 2, 3, 4, 5};
constexpr int kTaps = sizeof(kOffsets) / sizeof(kOffsets[0]);
constexpr int kWindow = kTaps * kDim;

// Value at fractional position q of the ascending sort of v, linear between neighbours.
double quantileAt(std::vector<double>& v, double q) {
  std::sort(v.begin(), v.end());
  const size_t lo = static_cast<size_t>(std::floor(q));
  const size_t hi = std::min(v.size() - 1, static_cast<size_t>(std::ceil(q)));
  return v[lo] + (v[hi] - v[lo]) * (q - double(lo));
}

}  // namespace

struct le_fca {
  Ort::Env& env = le::ortEnv();
  Ort::SessionOptions options;
  Ort::MemoryInfo memory = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  std::unique_ptr<Ort::Session> encoder, decoder;

  le_fca(const char* encoderPath, const char* decoderPath, int threads) {
    if (!encoderPath || !*encoderPath) throw std::runtime_error("no speech encoder path");
    if (!decoderPath || !*decoderPath) throw std::runtime_error("no decoder path");
    options.SetIntraOpNumThreads(threads < 1 ? le::pool::threads() : threads);
    options.SetInterOpNumThreads(1);
    options.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
    encoder = le::a2x::openWithGeluFallback(env, encoderPath, options);
    decoder = std::make_unique<Ort::Session>(env, decoderPath, options);
  }

  void features(const float* audio, int n, int frames, std::vector<float>& feat);
  void decode(const std::vector<float>& cond, int frames, float* out);
};

void le_fca::features(const float* audio, int n, int frames, std::vector<float>& feat) {
  feat.assign(size_t(frames) * kDim, 0.0f);
  std::vector<float> win(kWin);
  const int64_t shape[2] = {1, kWin};
  const char* inName = "input_values";
  const char* outName = "audio_emb";
  int filled = 0;
  for (int w = 0; w < frames; w += 100) {
    std::fill(win.begin(), win.end(), 0.0f);
    const int64_t from = int64_t(w) * kHop;
    const int64_t take = std::max<int64_t>(0, std::min<int64_t>(kWin, n - from));
    if (take > 0) std::memcpy(win.data(), audio + from, size_t(take) * sizeof(float));
    le::a2x::normaliseWindow(win.data(), win.size());
    Ort::Value in = Ort::Value::CreateTensor<float>(memory, win.data(), win.size(), shape, 2);
    std::vector<Ort::Value> out = encoder->Run(Ort::RunOptions{nullptr}, &inName, &in, 1, &outName, 1);
    if (out.front().GetTensorTypeAndShapeInfo().GetElementCount() < size_t(12) * kWinFrames * kDim)
      throw std::runtime_error("audio_emb holds fewer than 12 x 200 x 768 values");
    const float* emb = out.front().GetTensorData<float>();
    const int first = std::max(w > 0 ? w + 50 : w, filled);
    const int last = std::min(w + kWinFrames, frames);
    for (int f = first; f < last; ++f) {
      float* row = feat.data() + size_t(f) * kDim;
      for (int l : kLayers) {
        const float* src = emb + (size_t(l) * kWinFrames + size_t(f - w)) * kDim;
        for (int k = 0; k < kDim; ++k) row[k] += src[k];
      }
      for (int k = 0; k < kDim; ++k) row[k] /= float(std::size(kLayers));
    }
    filled = std::max(filled, last);
  }
}

void le_fca::decode(const std::vector<float>& cond, int frames, float* out) {
  std::vector<float> window(kWindow), prev(kKp, 0.0f), h(kHidden, 0.0f);
  const int64_t shapeCond[2] = {1, kWindow}, shapePrev[2] = {1, kKp}, shapeH[3] = {1, 1, kHidden};
  const char* inNames[] = {"cond", "prev", "h"};
  const char* outNames[] = {"m", "hn"};
  for (int f = 0; f < frames; ++f) {
    for (int t = 0; t < kTaps; ++t) {
      const int g = std::clamp(f + kOffsets[t], 0, frames - 1);
      std::memcpy(window.data() + size_t(t) * kDim, cond.data() + size_t(g) * kDim, kDim * sizeof(float));
    }
    Ort::Value in[3] = {
        Ort::Value::CreateTensor<float>(memory, window.data(), window.size(), shapeCond, 2),
        Ort::Value::CreateTensor<float>(memory, prev.data(), prev.size(), shapePrev, 2),
        Ort::Value::CreateTensor<float>(memory, h.data(), h.size(), shapeH, 3)};
    std::vector<Ort::Value> o = decoder->Run(Ort::RunOptions{nullptr}, inNames, in, 3, outNames, 2);
    if (o[0].GetTensorTypeAndShapeInfo().GetElementCount() < size_t(kKp) ||
        o[1].GetTensorTypeAndShapeInfo().GetElementCount() < size_t(kHidden))
      throw std::runtime_error("decoder outputs m/hn hold fewer than 63/384 values");
    const float* m = o[0].GetTensorData<float>();
    std::memcpy(out + size_t(f) * kKp, m, kKp * sizeof(float));
    std::memcpy(prev.data(), m, kKp * sizeof(float));
    std::memcpy(h.data(), o[1].GetTensorData<float>(), kHidden * sizeof(float));
  }
}

extern "C" {

LE_API le_fca* le_fca_create(const char* encoder_path, const char* decoder_path, int threads) {
  le::err::clear(Family::Fca);
  return le::err::guard(Family::Fca, "le_fca_create", static_cast<le_fca*>(nullptr),
                        [&] { return new le_fca(encoder_path, decoder_path, threads); });
}

LE_API void le_fca_destroy(le_fca* h) { delete h; }

LE_API const char* le_fca_last_error(void) { return le::err::slot(Family::Fca).c_str(); }

LE_API int le_fca_deltas(le_fca* h, const float* audio, int n, float* out, int max_frames) {
  le::err::clear(Family::Fca);
  if (n <= 0) return 0;
  LE_CHECK_ARG(h, Family::Fca, "le_fca_deltas: NULL handle", -1);
  LE_CHECK_ARG(audio && out, Family::Fca, "le_fca_deltas: NULL audio or out", -1);
  const int frames = static_cast<int>((int64_t(n) + kHop - 1) / kHop);
  LE_CHECK_ARG(frames <= max_frames, Family::Fca, "le_fca_deltas: more frames than max_frames", -1);
  return le::err::guard(Family::Fca, "le_fca_deltas", -1, [&] {
    std::vector<float> feat;
    h->features(audio, n, frames, feat);
    std::vector<double> norm(static_cast<size_t>(frames));
    for (int f = 0; f < frames; ++f) {
      double s = 0;
      for (int k = 0; k < kDim; ++k) s += double(feat[size_t(f) * kDim + k]) * feat[size_t(f) * kDim + k];
      norm[size_t(f)] = std::sqrt(s);
    }
    // Only frames above the quietest fifth so far join the running mean: the speaker's
    // average voice is removed, silence does not drag it.
    std::vector<float> cond(feat.size()), sum(kDim, 0.0f);
    std::vector<double> sorted;
    int count = 0;
    for (int f = 0; f < frames; ++f) {
      double t = 0;
      if (f > 6) {
        sorted.assign(norm.begin(), norm.begin() + f + 1);
        t = quantileAt(sorted, 0.2 * f);
      }
      const float* x = feat.data() + size_t(f) * kDim;
      if (norm[size_t(f)] > t) {
        for (int k = 0; k < kDim; ++k) sum[k] += x[k];
        ++count;
      }
      const float inv = float(std::max(count, 1));
      for (int k = 0; k < kDim; ++k) cond[size_t(f) * kDim + k] = x[k] - sum[k] / inv;
    }
    h->decode(cond, frames, out);
    return frames;
  });
}

}  // extern "C"
