// The audio-to-expression stream: speech features (shared 8 s encoder or windowed pair), the
// bundle's streaming encoder and its autoregressive decoder, live and offline.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "le/audio/le_a2x_w2v.h"
#include "le/le.h"
#include "le/le_a2x.h"
#include "le/le_bundle.h"
#include "le/le_error.h"
#include "le/le_imx.h"
#include "le/le_pool.h"
#include "le/le_simd.h"

namespace le::a2x {
namespace {

constexpr int kHop = 640;            // samples per video frame
constexpr int kBlockFrames = 8;      // live cadence
constexpr int kBlock = kHop * kBlockFrames;
constexpr int kWin8 = 128000;        // 8 s window
constexpr int kWin8Frames = 200;
constexpr int kTrunkWin = 32000;     // 2 s trunk window
constexpr int kTrunkCh = 640;
constexpr int kFeat = 9216;          // 12 x 768 per feature frame
constexpr int kKp = 3 * kHostKpRows;

int ceilFrames(int64_t samples) { return static_cast<int>((samples + kHop - 1) / kHop); }

// Raw little-endian float32, read whole; empty when unopenable or read short.
std::vector<float> readFloats(const std::string& path) {
  FilePtr f(std::fopen(path.c_str(), "rb"));
  if (!f || std::fseek(f.get(), 0, SEEK_END) != 0) return {};
  const long bytes = std::ftell(f.get());
  if (bytes < 0 || std::fseek(f.get(), 0, SEEK_SET) != 0) return {};
  std::vector<float> v(static_cast<size_t>(bytes) / 4);
  if (!v.empty() && std::fread(v.data(), 4, v.size(), f.get()) != v.size()) return {};
  return v;
}

// Scans a flat meta object: the first quoted occurrence of key, the next ':', blanks skipped.
const char* metaValue(const std::string& text, const char* key) {
  const std::string quoted = std::string("\"") + key + "\"";
  const size_t at = text.find(quoted);
  if (at == std::string::npos) return nullptr;
  const size_t colon = text.find(':', at + quoted.size());
  if (colon == std::string::npos) return nullptr;
  size_t v = colon + 1;
  while (v < text.size() && (text[v] == ' ' || text[v] == '\t')) ++v;
  return text.c_str() + v;
}

int metaInt(const std::string& text, const char* key, int def) {
  const char* v = metaValue(text, key);
  if (!v) return def;
  char* end = nullptr;
  const long x = std::strtol(v, &end, 10);
  return end == v ? def : static_cast<int>(x);
}

int metaBool(const std::string& text, const char* key) {
  const char* v = metaValue(text, key);
  if (!v) return 0;
  if (std::strncmp(v, "true", 4) == 0) return 1;
  if (std::strncmp(v, "false", 5) == 0) return 0;
  return std::strtol(v, nullptr, 10) != 0;
}

const char* kLostW2v = "the shared 8 s w2v encoder did not load ($W2V_ONNX=";

// Growth without zero-filling, for rows that are written right away.
template <class T>
struct NoInitAllocator : std::allocator<T> {
  template <class U>
  struct rebind {
    using other = NoInitAllocator<U>;
  };
  NoInitAllocator() = default;
  template <class U>
  NoInitAllocator(const NoInitAllocator<U>&) noexcept {}
  template <class U>
  void construct(U* p) noexcept {
    ::new (static_cast<void*>(p)) U;
  }
  template <class U, class... A>
  void construct(U* p, A&&... a) {
    ::new (static_cast<void*>(p)) U(std::forward<A>(a)...);
  }
};
using FeatRows = std::vector<float, NoInitAllocator<float>>;

thread_local int tRunDepth = 0;

// Seconds spent inside ONNX Runtime's runs, added to a handle's total.
class RunClock {
 public:
  explicit RunClock(double& total) : total_(total), t0_(std::chrono::steady_clock::now()) { ++tRunDepth; }
  ~RunClock() {
    --tRunDepth;
    total_ += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0_).count();
  }
  RunClock(const RunClock&) = delete;
  RunClock& operator=(const RunClock&) = delete;

 private:
  double& total_;
  std::chrono::steady_clock::time_point t0_;
};

// The outputs of one session, written into memory the handle owns. The first run with a new
// input shape (key) lets ONNX Runtime allocate them and records their shapes and types; later
// runs with the same key write straight into the owned buffers, so a steady stream allocates no
// output tensors. Inputs are passed as plain handles so that tensors kept in different places
// can go into one run.
class OwnedOutputs {
 public:
  void run(OrtSession* session, const char* const* inNames, const OrtValue* const* in, size_t nIn,
           const char* const* outNames, size_t nOut, int64_t key, double& runSeconds) {
    const OrtApi& api = Ort::GetApi();
    if (key == key_ && values_.size() == nOut) {
      RunClock clock(runSeconds);
      Ort::ThrowOnError(api.Run(session, nullptr, inNames, in, nIn, outNames, nOut,
                                reinterpret_cast<OrtValue**>(values_.data())));
      return;
    }
    std::vector<OrtValue*> raw(nOut, nullptr);
    std::vector<Ort::Value> out;
    {
      RunClock clock(runSeconds);
      OrtStatus* status = api.Run(session, nullptr, inNames, in, nIn, outNames, nOut, raw.data());
      for (OrtValue* v : raw) out.emplace_back(v);
      Ort::ThrowOnError(status);
    }
    values_.clear();
    slots_.resize(nOut);
    for (size_t i = 0; i < nOut; ++i) {
      Slot& slot = slots_[i];
      const Ort::TensorTypeAndShapeInfo info = out[i].GetTensorTypeAndShapeInfo();
      slot.shape = info.GetShape();
      slot.count = info.GetElementCount();
      const ONNXTensorElementDataType type = slot.type = info.GetElementType();
      const size_t bytes = slot.count * elementBytes(type);
      const size_t floats = std::max<size_t>(1, (bytes + sizeof(float) - 1) / sizeof(float));
      if (slot.data.size() < floats) slot.data.resize(floats);
      if (bytes) std::memcpy(slot.data.data(), out[i].GetTensorRawData(), bytes);
      values_.push_back(Ort::Value::CreateTensor(memory_, slot.data.data(), bytes, slot.shape.data(),
                                                 slot.shape.size(), type));
    }
    key_ = key;
  }
  template <class T>
  const T* data(size_t i) const { return reinterpret_cast<const T*>(slots_[i].data.data()); }
  size_t count(size_t i) const { return slots_[i].count; }
  const std::vector<int64_t>& shape(size_t i) const { return slots_[i].shape; }
  ONNXTensorElementDataType type(size_t i) const { return slots_[i].type; }

 private:
  static size_t elementBytes(ONNXTensorElementDataType t) {
    switch (t) {
      case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT: return 4;
      case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16: return 2;
      default: throw std::runtime_error("unexpected output element type");
    }
  }
  struct Slot {
    std::vector<float> data;  // float storage keeps 4-byte alignment for either element type
    std::vector<int64_t> shape;
    size_t count = 0;
    ONNXTensorElementDataType type = ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT;
  };
  std::vector<Slot> slots_;
  std::vector<Ort::Value> values_;
  int64_t key_ = -1;
  Ort::MemoryInfo memory_ = Ort::MemoryInfo::CreateCpu(OrtDeviceAllocator, OrtMemTypeDefault);
};

// What the encoder needs for one chunk length L: the mask, the positional rows and their
// tensors, and the outputs. A stream meets a few lengths (growing context at the start of an
// utterance, the clipped end, then one steady length), so each is built once and kept.
struct EncShape {
  int L = 0;
  std::vector<float> pos, attn;
  Ort::Value posValue{nullptr}, attnValue{nullptr};
  OwnedOutputs outputs;
};

// Float tensors over rows the handle owns, kept by address and shape: a tensor is only a pointer
// and a shape, so one made earlier for the same pair serves again, even after the rows behind
// it were rewritten. Feature rows are dropped from the front in batches while the stream
// advances 8 rows, so a steady stream comes back to a few dozen addresses.
class RowViews {
 public:
  OrtValue* get(const Ort::MemoryInfo& memory, float* data, const std::vector<int64_t>& shape) {
    size_t count = 1;
    for (int64_t d : shape) count *= size_t(d);
    for (View& v : views_)
      if (v.data == data && v.shape == shape) return v.value;
    View& v = views_[next_];
    next_ = (next_ + 1) % kViews;
    v.value = Ort::Value::CreateTensor<float>(memory, data, count, shape.data(), shape.size());
    v.data = data;
    v.shape = shape;  // within capacity once the slot has held a tensor of this rank
    return v.value;
  }

 private:
  static constexpr size_t kViews = 48;  // kept round robin
  struct View {
    float* data = nullptr;
    std::vector<int64_t> shape;
    Ort::Value value{nullptr};
  };
  View views_[kViews];
  size_t next_ = 0;
};

}  // namespace
}  // namespace le::a2x

using namespace le::a2x;

struct le_a2x {
  Ort::Env& env = le::ortEnv();
  Ort::SessionOptions options;
  std::shared_ptr<Ort::Session> w2v8;
  std::string w2vPath;
  int threads = 1;
  std::unique_ptr<Ort::Session> encoder, decoder;
  Ort::MemoryInfo memory = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  int hiddenSize = 256;
  int window = 0, left = 0;
  int nt = 0;
  int leftContext = 0, lookahead = 0;
  int rightContext = 12;
  bool windowed = false;
  int trunkRight = 12;
  std::vector<float> posTable, normMean, normScale, targets;
  std::string outName0, outName1;
  bool hasWidth = false;
  std::vector<float> offlineWidth;
  std::vector<float> samples;
  bool finished = false;
  int cursor = 0;
  int startIndex = 0, direction = 1, loopMode = 1;
  int eager = -1;
  // Feature rows of frames featBase, featBase + 1, ...: rows the encoder will not read again are
  // dropped as the stream advances, so a long utterance keeps a bounded, cache-warm set.
  FeatRows featFrames;
  int featBase = 0;
  int w2vPos = 0, featDone = 0;
  std::vector<float> encOut, widthRow;
  int encDone = 0;
  std::vector<float> deltas;
  std::vector<float> prev, hidden;
  int decDone = 0;
  std::vector<float> primedPrev, primedHidden;

  // Working buffers, sized once.
  WindowedPair pair;
  std::vector<float> win8, trunkWin, headIn, trunkF;
  std::vector<float> mOut, hOut;
  std::vector<uint16_t> trunkPair;
  OwnedOutputs out8, trunkOutput, headOutput;
  Ort::Value win8In{nullptr}, trunkIn{nullptr}, headInValue{nullptr};
  bool headDirect = false;  // the head writes into the feature rows
  static constexpr size_t kShapes = 16;  // kept round robin
  std::vector<std::unique_ptr<EncShape>> encShapes;
  size_t nextShape = 0;
  RowViews featViews, blockViews;
  std::vector<int64_t> featShape{1, 0, 12, 768};
  std::vector<float> ctxRow;
  Ort::Value decIn[3] = {Ort::Value{nullptr}, Ort::Value{nullptr}, Ort::Value{nullptr}};
  Ort::Value decOut[2] = {Ort::Value{nullptr}, Ort::Value{nullptr}};
  double runSeconds = 0;  // inside ONNX Runtime's runs, since creation

  le_a2x(const std::string& dir, int threads);

  int posRows() const { return static_cast<int>(posTable.size() / size_t(hiddenSize)); }
  int64_t extentSamples() const;
  int liveHorizon() const;
  int ready() const;
  int sourceIndex(int t) const;

  Ort::Session& shared8();
  float* featRow(int f) { return featFrames.data() + size_t(f - featBase) * kFeat; }
  void ensureFeatRows(int frames);
  void dropFeatRows();
  // One run of the 8 s encoder over window w of audio[0, extent); returns "audio_emb", valid
  // until the next run.
  const float* runWindow8(const float* audio, int64_t extent, int w);
  void featuresLegacy(int need);
  void featuresWindowed(int need);
  // Encoder rows [s, e) into enc/width, with context start b and input end x (exclusive);
  // rows holds the feature rows of frames b .. x - 1.
  void encodeChunk(const float* rows, int b, int s, int e, int x,
                   std::vector<float>& enc, std::vector<float>* width);
  EncShape& encShape(int L);
  void decodeFrame(const float* ctx, float* deltaRow);
  void extend(int target);
  void silencePrime(int count);
  void reset(int start, int dir, int loop);
};

le_a2x::le_a2x(const std::string& dir, int threads_) : threads(threads_) {
  options.SetIntraOpNumThreads(threads);
  options.SetInterOpNumThreads(1);
  options.AddConfigEntry("session.intra_op.allow_spinning", "0");
  options.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
  le_a2x_maybe_cuda(options, "enc/dec");

  const std::string meta = le::canOpenForRead(dir + "/a2x_meta.json")
                               ? le::readFile(dir + "/a2x_meta.json")
                               : std::string();
  if (meta.empty()) throw std::runtime_error("a2x_meta.json missing in " + dir);
  hiddenSize = metaInt(meta, "h", 256);
  window = metaInt(meta, "window", -1);
  left = metaInt(meta, "left", -1);
  if (window < 0 || left < 0)
    throw std::runtime_error("meta lacks causal window/left (not a streaming a2x)");
  if (hiddenSize < 1) throw std::runtime_error("meta h must be positive");
  const int layers = metaInt(meta, "layers", 6);
  leftContext = left * layers;
  lookahead = window * layers;

  if (const char* r = std::getenv("LE_A2X_W2V_RIGHT"); r && *r)
    rightContext = std::max(0, static_cast<int>(std::strtol(r, nullptr, 10)));

  posTable = readFloats(dir + "/a2x_pos.f32");
  const std::vector<float> norm = readFloats(dir + "/a2x_norm.f32");
  targets = readFloats(le::resolveMember(dir, "xs_target.bin"));
  if (posTable.size() < 2 * size_t(hiddenSize) || norm.size() < 126 || targets.size() < size_t(kKp))
    throw std::runtime_error("pos/norm/xs_target read failed");
  normMean.assign(norm.begin(), norm.begin() + kKp);
  normScale.assign(norm.begin() + kKp, norm.begin() + 2 * kKp);
  nt = static_cast<int>(targets.size() / kKp);

  const char* w2v = std::getenv("W2V_ONNX");
  if (!w2v) throw std::runtime_error("$W2V_ONNX not set");
  w2vPath = w2v;

  if (windowedPair(threads, w2vPath, &pair)) {
    windowed = true;
    trunkRight = rightContext;
    rightContext += kBlockFrames;
  } else {
    try {
      w2v8 = sharedEncoder(w2vPath, threads);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "[le_a2x] shared w2v (%s): %s\n", w2vPath.c_str(), e.what());
    }
    if (!w2v8) throw std::runtime_error("shared w2v load failed");
  }

  const std::string encPath = le::resolveMember(dir, "a2x_enc_stream.onnx");
  encoder = std::make_unique<Ort::Session>(env, encPath.c_str(), options);
  Ort::AllocatorWithDefaultOptions alloc;
  const size_t outs = encoder->GetOutputCount();
  outName0 = encoder->GetOutputNameAllocated(0, alloc).get();
  if (outs >= 2) {
    outName1 = encoder->GetOutputNameAllocated(1, alloc).get();
    hasWidth = true;
  }
  const int metaWidth = metaBool(meta, "width");
  if (metaWidth != int(hasWidth))
    std::fprintf(stderr,
                 "[le_a2x] WARNING: a2x_meta width=%d but the encoder declares %zu output(s) — "
                 "serving the GRAPH (width=%d). Repackage this bundle.\n",
                 metaWidth, outs, int(hasWidth));
  const std::string decPath = le::resolveMember(dir, "a2x_dec.onnx");
  decoder = std::make_unique<Ort::Session>(env, decPath.c_str(), options);

  mOut.assign(kKp, 0.0f);
  hOut.assign(size_t(hiddenSize), 0.0f);
  prev.assign(kKp, 0.0f);
  hidden.assign(size_t(hiddenSize), 0.0f);
  ctxRow.assign(size_t(hiddenSize), 0.0f);
  // The decoder's tensors stay over the same buffers for the handle's life (prev and hidden
  // are only ever assigned at their own size, which keeps their storage).
  {
    const int64_t cshape[2] = {1, hiddenSize};
    const int64_t pshape[2] = {1, kKp};
    const int64_t hshape[3] = {1, 1, hiddenSize};
    decIn[0] = Ort::Value::CreateTensor<float>(memory, ctxRow.data(), ctxRow.size(), cshape, 2);
    decIn[1] = Ort::Value::CreateTensor<float>(memory, prev.data(), prev.size(), pshape, 2);
    decIn[2] = Ort::Value::CreateTensor<float>(memory, hidden.data(), hidden.size(), hshape, 3);
    decOut[0] = Ort::Value::CreateTensor<float>(memory, mOut.data(), mOut.size(), pshape, 2);
    decOut[1] = Ort::Value::CreateTensor<float>(memory, hOut.data(), hOut.size(), hshape, 3);
  }
  int prime = metaInt(meta, "silence_prime", 0);
  if (const char* sp = std::getenv("LE_A2X_SILENCE_PRIME"); sp && *sp)
    prime = static_cast<int>(std::strtol(sp, nullptr, 10));
  if (prime > 0) {
    if (!w2v8) {
      try {
        w2v8 = sharedEncoder(w2vPath, threads);
      } catch (const std::exception& e) {
        std::fprintf(stderr, "[le_a2x] shared w2v (%s): %s\n", w2vPath.c_str(), e.what());
      }
      if (!w2v8) throw std::runtime_error("shared w2v load failed (silence_prime)");
    }
    silencePrime(prime);
  }
  reset(0, 1, 1);
}

int64_t le_a2x::extentSamples() const {
  const int64_t S = static_cast<int64_t>(samples.size());
  if (finished) return S;
  return std::min<int64_t>(S, int64_t(kBlock) * ((S + kHop - 1) / kBlock));
}

int le_a2x::liveHorizon() const {
  const int64_t S = static_cast<int64_t>(samples.size());
  return static_cast<int>(kBlockFrames * ((S + kHop - 1) / kBlock));
}

int le_a2x::ready() const {
  if (finished) return ceilFrames(static_cast<int64_t>(samples.size()));
  return std::max(0, liveHorizon() - std::max(lookahead, rightContext));
}

int le_a2x::sourceIndex(int t) const {
  if (nt < 2) return 0;
  const int64_t p = int64_t(direction) * t + startIndex;
  if (loopMode == 1) return static_cast<int>(((p % nt) + nt) % nt);
  const int64_t period = 2 * int64_t(nt - 1);
  const int64_t q = ((p % period) + period) % period;
  return static_cast<int>(q <= nt - 1 ? q : period - q);
}

Ort::Session& le_a2x::shared8() {
  if (!w2v8) {
    try {
      w2v8 = sharedEncoder(w2vPath, threads);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "[le_a2x] shared w2v (%s): %s\n", w2vPath.c_str(), e.what());
    }
    if (!w2v8) throw std::runtime_error(std::string(kLostW2v) + w2vPath + ")");
  }
  return *w2v8;
}

// Feature rows not computed yet read as zeros: the vector only ever grows zero-filled, and
// reset empties it, so no row is stale from an earlier utterance.
void le_a2x::ensureFeatRows(int frames) {
  const size_t need = size_t(std::max(0, frames - featBase)) * kFeat;
  if (featFrames.size() < need) featFrames.resize(need, 0.0f);
}

// Encoder chunks start at their first row minus the left context, and chunks only move
// forward, so rows below encDone - leftContext are never read again (features are computed at
// or beyond featDone >= encDone). The rows kept move to the front, a megabyte or so each time,
// so rows are dropped once there are eight times as many as move (64 at least, 256 at most).
void le_a2x::dropFeatRows() {
  const int keep = std::max(0, encDone - leftContext);
  const size_t rows = std::min(size_t(std::max(0, keep - featBase)), featFrames.size() / kFeat);
  const size_t moved = featFrames.size() / kFeat - rows;
  if (rows < 64 || (rows < 8 * moved && rows < 256)) return;
  featFrames.erase(featFrames.begin(), featFrames.begin() + std::ptrdiff_t(rows * kFeat));
  featBase += int(rows);
}

const float* le_a2x::runWindow8(const float* audio, int64_t extent, int w) {
  if (!win8In) {
    win8.assign(kWin8, 0.0f);
    const int64_t shape[2] = {1, kWin8};
    win8In = Ort::Value::CreateTensor<float>(memory, win8.data(), win8.size(), shape, 2);
  }
  const int64_t from = int64_t(w) * kHop;
  const int64_t n = std::max<int64_t>(0, std::min<int64_t>(kWin8, extent - from));
  normaliseWindowFrom(audio + (n > 0 ? from : 0), 0, size_t(n), win8.data(), win8.size());
  const char* inName = "input_values";
  const char* outName = "audio_emb";
  const OrtValue* in = win8In;
  out8.run(shared8(), &inName, &in, 1, &outName, 1, 0, runSeconds);
  if (out8.count(0) < size_t(12) * kWin8Frames * 768)
    throw std::runtime_error("w2v: audio_emb holds fewer than 12 x 200 x 768 values");
  return out8.data<float>(0);
}

// Frame `local` of the 12 planes of an 8 s encoder output, half-rounded into feature row dst.
static void gatherPlanes(const float* emb, int local, float* dst) {
  for (int l = 0; l < 12; ++l)
    le::simd::roundF16(emb + (size_t(l) * kWin8Frames + size_t(local)) * 768, dst + l * 768, 768);
}

void le_a2x::featuresLegacy(int need) {
  const int64_t extent = extentSamples();
  const int live = liveHorizon();
  while (featDone < need) {
    const int w = w2vPos;
    const float* emb = runWindow8(samples.data(), extent, w);
    const int first = w > 0 ? w + 50 : w;
    const int limit = finished ? w + kWin8Frames
                               : std::min(w + kWin8Frames, std::max(0, live - rightContext));
    ensureFeatRows(std::max(featDone, limit));
    for (int f = std::max(first, featDone); f < limit; ++f) {
      float* row = featRow(f);
      gatherPlanes(emb, f - w, row);
    }
    featDone = std::max(featDone, std::min(w + kWin8Frames, limit));
    if (!finished && limit < w + kWin8Frames) break;
    w2vPos += 100;
  }
}

void le_a2x::featuresWindowed(int need) {
  const int64_t extent = extentSamples();
  const char* inName = "input_values";
  const char* trunkOut = pair.trunkOut.c_str();
  const char* headInName = "x";
  const char* headOutName = "emb";
  if (!trunkIn) {
    trunkWin.assign(kTrunkWin, 0.0f);
    headIn.assign(size_t(kBlockFrames) * kTrunkCh, 0.0f);
    const int64_t tshape[2] = {1, kTrunkWin};
    const int64_t hshape[2] = {kBlockFrames, kTrunkCh};
    trunkIn = Ort::Value::CreateTensor<float>(memory, trunkWin.data(), trunkWin.size(), tshape, 2);
    trunkPair.assign(2 * size_t(kBlockFrames) * kTrunkCh, 0);
    trunkF.assign(2 * size_t(kBlockFrames) * kTrunkCh, 0.0f);
    headInValue = Ort::Value::CreateTensor<float>(memory, headIn.data(), headIn.size(), hshape, 2);
  }
  while (featDone < need) {
    const int p = w2vPos;
    const int64_t E = int64_t(kHop) * (p + kBlockFrames + trunkRight);
    if (!finished && E > extent) break;
    const int64_t start = E - kTrunkWin;
    const int64_t from = std::clamp<int64_t>(-start, 0, kTrunkWin);         // zeros before 0
    const int64_t to = std::clamp<int64_t>(extent - start, from, kTrunkWin);  // audio up to extent
    const float* audio = to > from ? samples.data() + (start + from) : samples.data();
    normaliseWindowFrom(audio, size_t(from), size_t(to), trunkWin.data(), trunkWin.size());
    const OrtValue* trunkInput = trunkIn;
    trunkOutput.run(*pair.trunk, &inName, &trunkInput, 1, &trunkOut, 1, 0, runSeconds);
    if (pair.lt == 0) {
      const std::vector<int64_t>& s = trunkOutput.shape(0);
      pair.lt = noteTrunkLength(s.empty() ? 0 : s.back());
    }
    const int64_t LT = pair.lt;
    const size_t count = trunkOutput.count(0);
    if (LT < 1 || count < size_t(kTrunkCh) * size_t(LT))
      throw std::runtime_error("w2v_win: trunk output holds fewer than 640 x LT values");
    const uint16_t* trunkHalf = trunkOutput.data<uint16_t>(0);
    int64_t i0[kBlockFrames], i1[kBlockFrames];
    double a[kBlockFrames];
    for (int j = 0; j < kBlockFrames; ++j) {
      const int f = p + j;
      const int k = f <= 199 ? 0 : (f / 100 - 1) * 100;
      const int local = f - k;
      const double u = double(int64_t(kHop) * k - start) / 80.0 + double(local) * 1598.0 / 199.0;
      const double fl = std::floor(u);
      if (fl < 0 || fl >= double(LT)) throw std::runtime_error("w2v_win: trunk pos out of range");
      i0[j] = static_cast<int64_t>(fl);
      i1[j] = std::min<int64_t>(i0[j] + 1, LT - 1);
      a[j] = u - fl;
    }
    // Only the two trunk steps each frame reads are widened from half; channel by channel the
    // block's steps lie within a few cache lines.
    for (int c = 0; c < kTrunkCh; ++c) {
      const uint16_t* v = trunkHalf + size_t(c) * size_t(LT);
      // The steps of a channel a few rows on are asked for early: rows are LT steps apart,
      // further than the hardware's prefetch follows.
      if (c + 4 < kTrunkCh) {
        __builtin_prefetch(v + 4 * LT + i0[0]);
        __builtin_prefetch(v + 4 * LT + i1[kBlockFrames - 1]);
      }
      for (int j = 0; j < kBlockFrames; ++j) {
        trunkPair[size_t(2 * j) * kTrunkCh + size_t(c)] = v[i0[j]];
        trunkPair[size_t(2 * j + 1) * kTrunkCh + size_t(c)] = v[i1[j]];
      }
    }
    le::simd::f16ToF32(trunkPair.data(), trunkF.data(), trunkF.size());
    for (int j = 0; j < kBlockFrames; ++j) {
      const float* v0 = trunkF.data() + size_t(2 * j) * kTrunkCh;
      le::simd::blendRoundF16(v0, v0 + kTrunkCh, a[j], headIn.data() + size_t(j) * kTrunkCh, kTrunkCh);
    }
    // The block's rows are written whole: grown without the zero fill. Once the head's output
    // is known to be the block's rows as floats, the head writes them in place, and they are
    // rounded while still in cache.
    constexpr size_t kBlockValues = size_t(kBlockFrames) * kFeat;
    const size_t rows = size_t(p + kBlockFrames - featBase) * kFeat;
    if (featFrames.size() < rows) featFrames.resize(rows);
    float* block = featRow(p);
    const OrtValue* headInput = headInValue;
    if (headDirect) {
      OrtValue* out = blockViews.get(memory, block, headOutput.shape(0));
      RunClock clock(runSeconds);
      Ort::ThrowOnError(Ort::GetApi().Run(*pair.head, nullptr, &headInName, &headInput, 1, &headOutName, 1, &out));
    } else {
      headOutput.run(*pair.head, &headInName, &headInput, 1, &headOutName, 1, 0, runSeconds);
      if (headOutput.count(0) < kBlockValues)
        throw std::runtime_error("w2v_win: head output holds fewer than 8 x 9216 values");
      std::memcpy(block, headOutput.data<float>(0), kBlockValues * sizeof(float));
      headDirect = headOutput.count(0) == kBlockValues && headOutput.type(0) == ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT;
    }
    le::simd::roundF16(block, block, kBlockValues);
    w2vPos = featDone = p + kBlockFrames;
  }
}

EncShape& le_a2x::encShape(int L) {
  for (const std::unique_ptr<EncShape>& sh : encShapes)
    if (sh->L == L) return *sh;
  auto sh = std::make_unique<EncShape>();
  sh->L = L;
  const int h = hiddenSize;
  sh->pos.assign(size_t(L) * h, 0.0f);
  sh->attn.resize(size_t(L) * L);
  const float ninf = -std::numeric_limits<float>::infinity();
  for (int r = 0; r < L; ++r)
    for (int j = 0; j < L; ++j)
      sh->attn[size_t(r) * L + j] = (j > r + window || j < r - left) ? ninf : 0.0f;
  const int64_t pshape[3] = {1, L, h};
  const int64_t ashape[4] = {1, 1, L, L};
  sh->posValue = Ort::Value::CreateTensor<float>(memory, sh->pos.data(), sh->pos.size(), pshape, 3);
  sh->attnValue = Ort::Value::CreateTensor<float>(memory, sh->attn.data(), sh->attn.size(), ashape, 4);
  if (encShapes.size() < kShapes) {
    encShapes.push_back(std::move(sh));
    return *encShapes.back();
  }
  std::unique_ptr<EncShape>& slot = encShapes[nextShape];
  nextShape = (nextShape + 1) % kShapes;
  slot = std::move(sh);
  return *slot;
}

void le_a2x::encodeChunk(const float* rows, int b, int s, int e, int x,
                         std::vector<float>& enc, std::vector<float>* width) {
  const int L = x - b, h = hiddenSize, P = posRows();
  EncShape& shape = encShape(L);
  for (int k = 0; k < L; ++k) {
    const int f = b + k;
    const int row = f < P ? f : (f - P) % (P - P / 2) + P / 2;
    std::memcpy(shape.pos.data() + size_t(k) * h, posTable.data() + size_t(row) * h, size_t(h) * sizeof(float));
  }
  featShape[1] = L;
  const OrtValue* in[3] = {featViews.get(memory, const_cast<float*>(rows), featShape), shape.posValue,
                           shape.attnValue};
  const char* inNames[3] = {"feat", "pos_window", "attn"};
  const char* outNames[2] = {outName0.c_str(), outName1.c_str()};
  const size_t nOut = hasWidth ? 2 : 1;
  OwnedOutputs& encOutputs = shape.outputs;
  encOutputs.run(*encoder, inNames, in, 3, outNames, nOut, L, runSeconds);
  if (encOutputs.count(0) < size_t(L) * h)
    throw std::runtime_error("a2x encoder: output holds fewer than L x h values");
  if (enc.size() < size_t(e) * h) enc.resize(size_t(e) * h, 0.0f);
  std::memcpy(enc.data() + size_t(s) * h, encOutputs.data<float>(0) + size_t(s - b) * h,
              size_t(e - s) * h * sizeof(float));
  if (hasWidth && width) {
    if (encOutputs.count(1) < size_t(L))
      throw std::runtime_error("a2x encoder: width output holds fewer than L values");
    if (width->size() < size_t(e)) width->resize(size_t(e), 0.0f);
    std::memcpy(width->data() + s, encOutputs.data<float>(1) + (s - b), size_t(e - s) * sizeof(float));
  }
}

void le_a2x::decodeFrame(const float* ctx, float* deltaRow) {
  std::copy(ctx, ctx + hiddenSize, ctxRow.begin());
  const char* inNames[3] = {"ctx_t", "prev", "h"};
  const char* outNames[2] = {"m", "h_out"};
  {
    RunClock clock(runSeconds);
    decoder->Run(Ort::RunOptions{nullptr}, inNames, decIn, 3, outNames, decOut, 2);
  }
  std::copy(mOut.begin(), mOut.end(), prev.begin());
  std::copy(hOut.begin(), hOut.end(), hidden.begin());
  for (int k = 0; k < kKp; ++k) deltaRow[k] = mOut[size_t(k)] * normScale[size_t(k)] + normMean[size_t(k)];
}

void le_a2x::extend(int target) {
  const int T = std::min(target, ready());
  if (T <= decDone) return;
  try {
    const int frames = ceilFrames(extentSamples());
    const int need = std::min(T + lookahead, frames);
    dropFeatRows();
    if (windowed) featuresWindowed(need);
    else featuresLegacy(need);
    const int P = posRows();
    while (encDone < T) {
      const int s = encDone, b = std::max(0, s - leftContext);
      int e = std::min(T, s + 64), x = std::min(frames, e + lookahead);
      if (s < P) {
        e = std::min(e, P);
        x = std::min(x, P);
      }
      // On the 8 s window with an open utterance and a look-ahead beyond the right context,
      // x can pass featDone: those rows are zeros (ensureFeatRows), never uninitialised.
      ensureFeatRows(x);
      encodeChunk(featRow(b), b, s, e, x, encOut, &widthRow);
      encDone = e;
    }
    if (deltas.size() < size_t(T) * kKp) deltas.resize(size_t(T) * kKp);
    for (int t = decDone; t < T; ++t) {
      decodeFrame(encOut.data() + size_t(t) * hiddenSize, deltas.data() + size_t(t) * kKp);
      decDone = t + 1;
    }
  } catch (const std::exception& e) {
    le::err::set(le::err::Family::A2x, std::string("le_a2x extend: ") + e.what());
  }
}

namespace le::a2x {
namespace {
// The 8 s encoder's output on 128000 zeros, computed once per process.
const std::vector<float>& zeroEmbedding(le_a2x& h) {
  static std::mutex mu;
  static std::vector<float> emb;
  std::lock_guard<std::mutex> lock(mu);
  if (emb.empty()) {
    const float none = 0.0f;
    const float* p = h.runWindow8(&none, 0, 0);
    emb.assign(p, p + size_t(12) * kWin8Frames * 768);
  }
  return emb;
}
}  // namespace
}  // namespace le::a2x

void le_a2x::silencePrime(int count) {
  const int N = std::min(count, kWin8Frames);
  try {
    const std::vector<float>& zero = zeroEmbedding(*this);
    std::vector<float> feat(size_t(N) * kFeat);
    for (int f = 0; f < N; ++f) {
      gatherPlanes(zero.data(), f, feat.data() + size_t(f) * kFeat);
    }
    std::vector<float> enc;
    encodeChunk(feat.data(), 0, 0, N, N, enc, nullptr);
    prev.assign(kKp, 0.0f);
    hidden.assign(size_t(hiddenSize), 0.0f);
    std::vector<float> row(kKp);
    for (int f = 0; f < N; ++f) decodeFrame(enc.data() + size_t(f) * hiddenSize, row.data());
    primedPrev = prev;
    primedHidden = hidden;
    std::fprintf(stderr, "[le_a2x] silence-primed AR state cached (%d frames)\n", N);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "[le_a2x] silence-prime failed (%s) -- legacy zero state\n", e.what());
    primedPrev.clear();
    primedHidden.clear();
  }
}

void le_a2x::reset(int start, int dir, int loop) {
  if (start < 0) startIndex = sourceIndex(cursor);
  else startIndex = start;
  direction = dir < 0 ? -1 : 1;
  loopMode = loop;
  samples.clear();
  featFrames.clear();
  featBase = 0;
  encOut.clear();
  widthRow.clear();
  deltas.clear();
  cursor = encDone = w2vPos = featDone = decDone = 0;
  finished = false;
  if (!primedPrev.empty() && !primedHidden.empty()) {
    prev = primedPrev;
    hidden = primedHidden;
  } else {
    prev.assign(kKp, 0.0f);
    hidden.assign(size_t(hiddenSize), 0.0f);
  }
}

namespace {

using le::err::Family;

int pullFrames(le_a2x* h, int* sourceIdx, float* target, float* driven, float* wn, int max) {
  const int ready = h->ready();
  if (h->cursor >= h->decDone) h->extend(std::min(ready, h->cursor + std::max(max, 0)));
  const int limit = std::min(ready, h->decDone);
  if (limit <= h->cursor || max < 1) return 0;
  int n = 0;
  while (h->cursor < limit && n < max) {
    const int t = h->cursor;
    const int si = h->sourceIndex(t);
    sourceIdx[n] = si;
    const float* row = h->targets.data() + size_t(si) * kKp;
    const float* d = h->deltas.data() + size_t(t) * kKp;
    std::memcpy(target + size_t(n) * kKp, row, kKp * sizeof(float));
    for (int k = 0; k < kKp; ++k) driven[size_t(n) * kKp + k] = row[k] + d[k];
    if (wn) wn[n] = (h->hasWidth && size_t(t) < h->widthRow.size()) ? h->widthRow[size_t(t)] : 0.0f;
    ++h->cursor;
    ++n;
  }
  return n;
}

int offlineDeltas(le_a2x* h, const float* audio, int n, float* out, int maxFrames) {
  if (n <= 0) return 0;
  const int frames = ceilFrames(n);
  if (frames > maxFrames) return -2;
  // The whole clip through the 8 s window: windows every 100 frames, each filling the frames
  // no earlier window filled (later windows from their 50th frame on).
  std::vector<float> feat(size_t(frames) * kFeat);
  int filled = 0;
  for (int w = 0; w < frames; w += 100) {
    const float* emb = h->runWindow8(audio, n, w);
    const int first = std::max(w > 0 ? w + 50 : w, filled);
    const int last = std::min(w + kWin8Frames, frames);
    for (int f = first; f < last; ++f) {
      float* row = feat.data() + size_t(f) * kFeat;
      gatherPlanes(emb, f - w, row);
    }
    filled = std::max(filled, last);
  }
  std::vector<float> enc;
  h->offlineWidth.assign(h->hasWidth ? size_t(frames) : 0, 0.0f);
  for (int s = 0; s < frames;) {
    const int b = std::max(0, s - h->leftContext), e = std::min(frames, s + 24);
    const int x = std::min(frames, e + h->lookahead);
    h->encodeChunk(feat.data() + size_t(b) * kFeat, b, s, e, x, enc, &h->offlineWidth);
    s = e;
  }
  // The decoder state of the stream is left alone: run from the primed (or zero) state.
  std::vector<float> savedPrev = h->prev, savedHidden = h->hidden;
  if (!h->primedPrev.empty() && !h->primedHidden.empty()) {
    h->prev = h->primedPrev;
    h->hidden = h->primedHidden;
  } else {
    h->prev.assign(kKp, 0.0f);
    h->hidden.assign(size_t(h->hiddenSize), 0.0f);
  }
  std::vector<float> rows(size_t(frames) * kKp);
  try {
    for (int f = 0; f < frames; ++f)
      h->decodeFrame(enc.data() + size_t(f) * h->hiddenSize, rows.data() + size_t(f) * kKp);
  } catch (...) {
    h->prev = savedPrev;
    h->hidden = savedHidden;
    throw;
  }
  h->prev = savedPrev;
  h->hidden = savedHidden;
  std::memcpy(out, rows.data(), rows.size() * sizeof(float));
  return frames;
}

}  // namespace

double le::a2x::runSeconds(const le_a2x* h) { return h ? h->runSeconds : 0; }

bool le::a2x::insideRun() { return tRunDepth > 0; }

extern "C" {

LE_API const char* le_a2x_last_error(void) { return le::err::slot(Family::A2x).c_str(); }

LE_API le_a2x* le_a2x_create(const char* bundle_dir, int threads) {
  le::err::clear(Family::A2x);
  LE_CHECK_ARG(bundle_dir, Family::A2x, "le_a2x_create: NULL bundle_dir", nullptr);
  return le::err::guard(Family::A2x, "le_a2x_create", static_cast<le_a2x*>(nullptr), [&] {
    const std::string dir = le::resolveBundlePath(bundle_dir);
    const int budget = le::pool::threads();
    const int t = (threads < 1 || threads >= budget) ? budget : threads;
    static std::once_flag banner;
    std::call_once(banner, [t] {
      std::fprintf(stderr,
                   "[le_a2x] live cadence: block-%d (one trunk window per %d frames), push-size "
                   "invariant, threads=%d\n",
                   kBlockFrames * 40, kBlockFrames, t);
    });
    return new le_a2x(dir, t);
  });
}

LE_API void le_a2x_destroy(le_a2x* h) { delete h; }

LE_API int le_a2x_push(le_a2x* h, const float* samples, int n) {
  le::err::clear(Family::A2x);
  LE_CHECK_ARG(h, Family::A2x, "le_a2x_push: NULL handle", 0);
  if (n < 1) return 1;
  LE_CHECK_ARG(samples, Family::A2x, "le_a2x_push: NULL samples", 0);
  return le::err::guard(Family::A2x, "le_a2x_push", 0, [&] {
    h->samples.insert(h->samples.end(), samples, samples + n);
    return 1;
  });
}

LE_API void le_a2x_finish(le_a2x* h) {
  le::err::clear(Family::A2x);
  LE_CHECK_ARG(h, Family::A2x, "le_a2x_finish: NULL handle", );
  h->finished = true;
}

LE_API int le_a2x_total(le_a2x* h) {
  if (!h) return -1;
  return h->finished ? ceilFrames(static_cast<int64_t>(h->samples.size())) : -1;
}

LE_API int le_a2x_avail(le_a2x* h) {
  le::err::clear(Family::A2x);
  LE_CHECK_ARG(h, Family::A2x, "le_a2x_avail: NULL handle", 0);
  const int ready = h->ready();
  if (h->decDone < ready) h->extend(std::min(h->decDone + (h->windowed ? 8 : 64), ready));
  return std::max(0, h->decDone - h->cursor);
}

LE_API int le_a2x_pull(le_a2x* h, int* source_idx, float* target, float* driven, int max) {
  return le_a2x_pull_wn(h, source_idx, target, driven, nullptr, max);
}

LE_API int le_a2x_pull_wn(le_a2x* h, int* source_idx, float* target, float* driven, float* wn,
                          int max) {
  le::err::clear(Family::A2x);
  LE_CHECK_ARG(h && source_idx && target && driven, Family::A2x, "le_a2x_pull: bad args", 0);
  return le::err::guard(Family::A2x, "le_a2x_pull", 0,
                        [&] { return pullFrames(h, source_idx, target, driven, wn, max); });
}

LE_API void le_a2x_reset(le_a2x* h, int start, int direction, int loop) {
  le::err::clear(Family::A2x);
  LE_CHECK_ARG(h, Family::A2x, "le_a2x_reset: NULL handle", );
  h->reset(start, direction, loop);
}

LE_API void le_a2x_set_eager(le_a2x* h, int value) {
  if (h) h->eager = value;
}

LE_API int le_a2x_nt(const le_a2x* h) { return h ? h->nt : 0; }

LE_API int le_a2x_width(const le_a2x* h) { return h && h->hasWidth ? 1 : 0; }

LE_API int le_a2x_deltas(le_a2x* h, const float* audio, int n, float* out, int max_frames) {
  le::err::clear(Family::A2x);
  LE_CHECK_ARG(h && (n <= 0 || (audio && out)), Family::A2x, "le_a2x_deltas: bad args", -1);
  return le::err::guard(Family::A2x, "le_a2x_deltas", -1,
                        [&] { return offlineDeltas(h, audio, n, out, max_frames); });
}

LE_API int le_a2x_deltas_wn(le_a2x* h, const float* audio, int n, float* out, float* wn,
                            int max_frames) {
  le::err::clear(Family::A2x);
  LE_CHECK_ARG(h && (n <= 0 || (audio && out && wn)), Family::A2x, "le_a2x_deltas_wn: bad args",
               -1);
  if (!h->hasWidth) {
    le::err::set(Family::A2x, "le_a2x_deltas_wn: encoder declares no wn output");
    return -3;
  }
  const int r = le_a2x_deltas(h, audio, n, out, max_frames);
  if (r > 0)
    for (int f = 0; f < r; ++f)
      wn[f] = size_t(f) < h->offlineWidth.size() ? h->offlineWidth[size_t(f)] : 0.0f;
  return r;
}

LE_API int le_a2x_preload_w2v(const char* path) {
  le::err::clear(Family::A2x);
  std::string p = path ? path : "";
  if (p.empty()) {
    const char* env = std::getenv("W2V_ONNX");
    p = env ? env : "";
  }
  if (p.empty()) {
    le::err::set(Family::A2x, "le_a2x_preload_w2v: no path and $W2V_ONNX unset");
    return 0;
  }
  return le::err::guard(Family::A2x, "le_a2x_preload_w2v", 0,
                        [&] { return sharedEncoder(p, le::pool::threads()) ? 1 : 0; });
}

LE_API int le_a2x_w2v8_lazy(void) { return 1; }

}  // extern "C"
