// A plain-loop reference of the audio-to-expression stream over a bundle's members, written
// from the formulas (window placement, normalisation, half rounding, chunks, mask, positional
// rows, decoder) with its own ONNX Runtime sessions, for closed utterances.
#pragma once

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "le/render/le_ort.h"
#include "tests/a2x_fixture.h"
#include "tests/bundle_fixture.h"
#include "tests/onnx_ort.h"

namespace le::testa2x {

using le::test::maxAbsDiff;

inline float half(float x) { return static_cast<float>(static_cast<_Float16>(x)); }

class Reference {
 public:
  // Members of bundle dir; the 8 s encoder at w2v, its pair beside it (when present).
  Reference(const std::string& dir, const std::string& w2v, int window, int left, int layers,
            const std::string& trunk = "", const std::string& head = "")
      : window_(window), left_(left), la_(window * layers), lc_(left * layers) {
    le::ortApi();
    env_ = std::make_unique<Ort::Env>(ORT_LOGGING_LEVEL_WARNING, "ref");
    Ort::SessionOptions o;
    o.SetIntraOpNumThreads(1);
    auto open = [&](const std::string& p) { return std::make_unique<Ort::Session>(*env_, p.c_str(), o); };
    w2v_ = open(w2v);
    if (!trunk.empty()) {
      trunk_ = open(trunk);
      head_ = open(head);
    }
    enc_ = open(dir + "/a2x_enc_stream.onnx");
    dec_ = open(dir + "/a2x_dec.onnx");
    width_ = enc_->GetOutputCount() >= 2;
    pos_ = le::testing::readTable<float>(dir + "/a2x_pos.f32");
    const std::vector<float> norm = le::testing::readTable<float>(dir + "/a2x_norm.f32");
    mean_.assign(norm.begin(), norm.begin() + 63);
    scale_.assign(norm.begin() + 63, norm.begin() + 126);
    h_ = static_cast<int>(enc_->GetOutputTypeInfo(0).GetTensorTypeAndShapeInfo().GetShape().back());
  }

  int hidden() const { return h_; }
  bool width() const { return width_; }

  // Runs s on float inputs; returns the named outputs.
  static std::vector<Ort::Value> run(Ort::Session& s, const std::vector<le::test::Feed>& feeds,
                                     const std::vector<std::string>& outputs) {
    Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
    std::vector<Ort::Value> in;
    std::vector<const char*> inN, outN;
    for (const le::test::Feed& f : feeds) {
      in.push_back(Ort::Value::CreateTensor<float>(mem, const_cast<float*>(f.data), f.count, f.shape.data(), f.shape.size()));
      inN.push_back(f.name.c_str());
    }
    for (const std::string& o : outputs) outN.push_back(o.c_str());
    return s.Run(Ort::RunOptions{nullptr}, inN.data(), in.data(), in.size(), outN.data(), outN.size());
  }
  static std::vector<float> values(const Ort::Value& v) {
    const float* p = v.GetTensorData<float>();
    return std::vector<float>(p, p + v.GetTensorTypeAndShapeInfo().GetElementCount());
  }

  // (x - mean) / sqrt(var + 1e-7): statistics in double, the root in float.
  static void normalise(std::vector<float>& x) {
    double s = 0, ss = 0;
    for (float v : x) s += v;
    const double m = s / double(x.size());
    for (float v : x) ss += (v - m) * (v - m);
    const float inv = 1.0f / std::sqrt(float(ss / double(x.size()) + 1e-7));
    for (float& v : x) v = float((v - m) * inv);
  }

  // The 8 s encoder's 12 x 200 x 768 output over audio[640 w, 640 w + 128000).
  std::vector<float> window8(const std::vector<float>& audio, int w) const {
    std::vector<float> x(128000, 0.0f);
    for (size_t i = 0; i < x.size() && size_t(w) * 640 + i < audio.size(); ++i) x[i] = audio[size_t(w) * 640 + i];
    normalise(x);
    return values(run(*w2v_, {{"input_values", {1, 128000}, x.data(), x.size()}}, {"audio_emb"})[0]);
  }

  // Feature frames [from, to) from the 8 s window starting at frame w (12 x 200 x 768), half-rounded.
  static void takeRows(const std::vector<float>& e, int w, int from, int to, std::vector<float>& feat) {
    for (int f = from; f < to; ++f)
      for (int l = 0; l < 12; ++l)
        for (int c = 0; c < 768; ++c)
          feat[size_t(f) * 9216 + size_t(l) * 768 + c] = half(e[(size_t(l) * 200 + size_t(f - w)) * 768 + c]);
  }

  // Feature frames of a closed utterance through the 8 s window.
  std::vector<float> featuresLegacy(const std::vector<float>& audio) const {
    const int frames = static_cast<int>((audio.size() + 639) / 640);
    std::vector<float> feat(size_t(frames) * 9216);
    int filled = 0;
    for (int w = 0; w < frames; w += 100) {
      takeRows(window8(audio, w), w, std::max(filled, w > 0 ? w + 50 : 0), std::min(frames, w + 200), feat);
      filled = std::min(frames, w + 200);
    }
    return feat;
  }

  // Feature frames of a closed utterance through the trunk/head pair, trunk right context tr.
  std::vector<float> featuresWindowed(const std::vector<float>& audio, int tr = 12) const {
    const int frames = static_cast<int>((audio.size() + 639) / 640);
    std::vector<float> feat;
    for (int p = 0; p < frames; p += 8) {
      const long E = 640L * (p + 8 + tr), start = E - 32000;
      std::vector<float> x(32000);
      for (long i = 0; i < 32000; ++i) {
        const long k = start + i;
        x[size_t(i)] = k >= 0 && k < long(audio.size()) ? audio[size_t(k)] : 0.0f;
      }
      normalise(x);
      std::vector<Ort::Value> out = run(*trunk_, {{"input_values", {1, 32000}, x.data(), x.size()}}, {outName(*trunk_, 0)});
      const long LT = long(out[0].GetTensorTypeAndShapeInfo().GetShape()[2]);
      const _Float16* t = reinterpret_cast<const _Float16*>(out[0].GetTensorRawData());
      std::vector<float> hx(8 * 640);
      for (int j = 0; j < 8; ++j) {
        const int f = p + j, k = f <= 199 ? 0 : (f / 100 - 1) * 100;
        const double u = double(640L * k - start) / 80.0 + double(f - k) * 1598.0 / 199.0;
        const long i0 = long(std::floor(u)), i1 = std::min(i0 + 1, LT - 1);
        const double a = u - std::floor(u);
        for (int c = 0; c < 640; ++c)
          hx[size_t(j) * 640 + c] = half(float(double(float(t[c * LT + i0])) * (1 - a) + double(float(t[c * LT + i1])) * a));
      }
      const std::vector<float> emb = values(run(*head_, {{"x", {8, 640}, hx.data(), hx.size()}}, {"emb"})[0]);
      for (float v : emb) feat.push_back(half(v));
    }
    feat.resize(size_t(frames) * 9216);
    return feat;
  }

  // Encoder rows (and widths) of every frame: chunks of `chunk` frames, clipped at the table's
  // end when clip is set.
  void encode(const std::vector<float>& feat, int frames, int chunk, bool clip, std::vector<float>& enc,
              std::vector<float>& wn) const {
    const int P = static_cast<int>(pos_.size() / size_t(h_));
    enc.assign(size_t(frames) * h_, 0.0f);
    wn.assign(size_t(frames), 0.0f);
    for (int s = 0; s < frames;) {
      const int b = std::max(0, s - lc_);
      int e = std::min(frames, s + chunk), x = std::min(frames, e + la_);
      if (clip && s < P) {
        e = std::min(e, P);
        x = std::min(x, P);
      }
      const int L = x - b;
      std::vector<float> f(feat.begin() + long(b) * 9216, feat.begin() + long(x) * 9216);
      std::vector<float> pw(size_t(L) * h_), mask(size_t(L) * L);
      for (int k = 0; k < L; ++k) {
        int row = b + k;
        while (row >= P) row -= P - P / 2;  // beyond the table: around its second half again
        for (int d = 0; d < h_; ++d) pw[size_t(k) * h_ + d] = pos_[size_t(row) * h_ + d];
      }
      for (int r = 0; r < L; ++r)
        for (int j = 0; j < L; ++j)
          mask[size_t(r) * L + j] = (j - r > window_ || r - j > left_) ? -std::numeric_limits<float>::infinity() : 0.0f;
      std::vector<std::string> outs = {outName(*enc_, 0)};
      if (width_) outs.push_back(outName(*enc_, 1));
      std::vector<Ort::Value> out = run(*enc_,
                                        {{"feat", {1, L, 12, 768}, f.data(), f.size()},
                                         {"pos_window", {1, L, h_}, pw.data(), pw.size()},
                                         {"attn", {1, 1, L, L}, mask.data(), mask.size()}},
                                        outs);
      const float* r = out[0].GetTensorData<float>();
      for (int t = s; t < e; ++t)
        for (int d = 0; d < h_; ++d) enc[size_t(t) * h_ + d] = r[size_t(t - b) * h_ + d];
      if (width_)
        for (int t = s; t < e; ++t) wn[size_t(t)] = out[1].GetTensorData<float>()[t - b];
      s = e;
    }
  }

  // De-normalised deltas of every frame from the decoder state (prev, hidden), which it advances.
  std::vector<float> decode(const std::vector<float>& enc, int frames, std::vector<float>& prev,
                            std::vector<float>& hid) const {
    std::vector<float> out(size_t(frames) * 63);
    for (int t = 0; t < frames; ++t) {
      std::vector<Ort::Value> o = run(*dec_,
                                      {{"ctx_t", {1, h_}, enc.data() + size_t(t) * h_, size_t(h_)},
                                       {"prev", {1, 63}, prev.data(), prev.size()},
                                       {"h", {1, 1, h_}, hid.data(), hid.size()}},
                                      {"m", "h_out"});
      const float* m = o[0].GetTensorData<float>();
      const float* hn = o[1].GetTensorData<float>();
      for (int k = 0; k < 63; ++k) {
        prev[size_t(k)] = m[k];
        out[size_t(t) * 63 + k] = m[k] * scale_[size_t(k)] + mean_[size_t(k)];
      }
      for (int d = 0; d < h_; ++d) hid[size_t(d)] = hn[d];
    }
    return out;
  }

  // The decoder state after n frames of silence features (the 8 s encoder on zeros).
  void prime(int n, std::vector<float>& prev, std::vector<float>& hid) const {
    std::vector<float> feat(size_t(n) * 9216);
    takeRows(window8(std::vector<float>(128000, 0.0f), 0), 0, 0, n, feat);
    prev.assign(63, 0.0f);
    hid.assign(size_t(h_), 0.0f);
    deltas(feat, n, n, false, nullptr, prev, hid);
  }

  // encode, then decode from the state (prev, hid), which it advances; widths into wn if given.
  std::vector<float> deltas(const std::vector<float>& feat, int frames, int chunk, bool clip,
                            std::vector<float>* wn, std::vector<float>& prev, std::vector<float>& hid) const {
    std::vector<float> enc, w;
    encode(feat, frames, chunk, clip, enc, w);
    if (wn) *wn = w;
    return decode(enc, frames, prev, hid);
  }
  // The same from the zero state.
  std::vector<float> deltas(const std::vector<float>& feat, int frames, int chunk, bool clip,
                            std::vector<float>* wn = nullptr) const {
    std::vector<float> prev(63, 0.0f), hid(size_t(h_), 0.0f);
    return deltas(feat, frames, chunk, clip, wn, prev, hid);
  }

 private:
  static std::string outName(Ort::Session& s, size_t i) {
    Ort::AllocatorWithDefaultOptions alloc;
    return s.GetOutputNameAllocated(i, alloc).get();
  }

  int window_, left_, la_, lc_;
  int h_ = 0;
  bool width_ = false;
  std::unique_ptr<Ort::Env> env_;
  std::unique_ptr<Ort::Session> w2v_, trunk_, head_, enc_, dec_;
  std::vector<float> pos_, mean_, scale_;
};

// The engine on h against ref: the pulls of a closed utterance (chunks of 64, clipped at the
// positional table) from featStream, the offline deltas (chunks of 24) from featOffline, both from
// the decoder state after `prime` frames of silence (none: zeros), and the widths when the encoder
// has them. The pulls go to *stream.
inline void expectAgreement(le_a2x* h, const Reference& ref, const std::vector<float>& audio,
                            const std::vector<float>& featStream, const std::vector<float>& featOffline,
                            int prime = 0, Pulled* stream = nullptr) {
  const int frames = static_cast<int>((audio.size() + 639) / 640);
  std::vector<float> prev0(63, 0.0f), hid0(size_t(ref.hidden()), 0.0f);
  if (prime) ref.prime(prime, prev0, hid0);
  const Pulled p = pullAll(h, audio);
  if (stream) *stream = p;
  ASSERT_EQ(p.frames, frames) << le_a2x_last_error();
  std::vector<float> got(p.driven.size()), wn, prev = prev0, hid = hid0;
  for (size_t i = 0; i < got.size(); ++i) got[i] = p.driven[i] - p.target[i];
  EXPECT_LT(maxAbsDiff(got, ref.deltas(featStream, frames, 64, true, &wn, prev, hid)), 1e-6) << "stream";
  if (ref.width()) {
    EXPECT_LT(maxAbsDiff(p.wn, wn), 1e-6);
  }

  std::vector<float> out(static_cast<size_t>(frames) * 63), outWn(static_cast<size_t>(frames));
  const int samples = static_cast<int>(audio.size());
  const int n = ref.width() ? le_a2x_deltas_wn(h, audio.data(), samples, out.data(), outWn.data(), frames)
                            : le_a2x_deltas(h, audio.data(), samples, out.data(), frames);
  ASSERT_EQ(n, frames) << le_a2x_last_error();
  prev = prev0, hid = hid0;
  EXPECT_LT(maxAbsDiff(out, ref.deltas(featOffline, frames, 24, false, &wn, prev, hid)), 1e-6) << "offline";
  if (ref.width()) {
    EXPECT_LT(maxAbsDiff(outWn, wn), 1e-6);
  }
}

}  // namespace le::testa2x
