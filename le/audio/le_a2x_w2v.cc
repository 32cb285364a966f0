#include "le/audio/le_a2x_w2v.h"

#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "le/le_bundle.h"
#include "le/le_pool.h"

namespace le::a2x {
namespace {

struct EncoderState {
  std::mutex mu;
  std::shared_ptr<Ort::Session> shared;
  std::string sharedPath;
  WindowedPair pair;
  bool tried = false;
};

// Lives until the process ends and is never destroyed: ONNX Runtime's own statics may be gone
// by the time static destructors run.
EncoderState& state() {
  static EncoderState* s = std::make_unique<EncoderState>().release();
  return *s;
}

Ort::SessionOptions frontendOptions(int threads) {
  Ort::SessionOptions o;
  o.SetIntraOpNumThreads(threads < 1 ? pool::threads() : threads);
  o.SetInterOpNumThreads(1);
  o.AddConfigEntry("session.intra_op.allow_spinning", "0");
  o.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
  le_a2x_maybe_cuda(o, "w2v");
  return o;
}

std::string envStr(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "";
}

bool lookForPair(EncoderState& s, int threads, const std::string& encoderPath) {
  std::string trunk = envStr("LE_A2X_W2V_WIN_ONNX"), head = envStr("LE_A2X_W2V_HEAD_ONNX");
  if (trunk.empty() || head.empty()) {
    trunk.clear();
    head.clear();
    if (!encoderPath.empty()) {
      const size_t slash = encoderPath.rfind('/');
      const std::string dir = slash == std::string::npos ? "." : encoderPath.substr(0, slash);
      static const char* const kCandidates[][2] = {
          {"audio_encoder_fp16_window_trunk.onnx", "audio_encoder_fp16_window_head.onnx"},
          {"w2v_trunk32.onnx", "w2v_head32.onnx"}};
      for (const auto& c : kCandidates) {
        const std::string t = dir + "/" + c[0], h = dir + "/" + c[1];
        if (canOpenForRead(t) && canOpenForRead(h)) {
          trunk = t;
          head = h;
          break;
        }
      }
    }
  }
  if (trunk.empty()) {
    std::fprintf(stderr,
                 "[le_a2x] short-window audio frontend NOT DEPLOYED on this plane: neither "
                 "LE_A2X_W2V_WIN_ONNX/LE_A2X_W2V_HEAD_ONNX are set nor is the pair beside "
                 "$W2V_ONNX (%s) as audio_encoder_fp16_window_{trunk,head}.onnx (legacy "
                 "w2v_trunk32.onnx/w2v_head32.onnx). Serving the LEGACY 8s window — same "
                 "reference quality, 2.8-3.9x the audio hop cost. Ship the pair beside the "
                 "encoder (tools/export_w2v_window.py).\n",
                 encoderPath.c_str());
    return false;
  }
  try {
    Ort::Env& env = ortEnv();
    Ort::SessionOptions o = frontendOptions(threads);
    std::shared_ptr<Ort::Session> t = openWithGeluFallback(env, trunk, o);
    std::shared_ptr<Ort::Session> h = openWithGeluFallback(env, head, o);
    Ort::AllocatorWithDefaultOptions alloc;
    std::string outName = t->GetOutputNameAllocated(0, alloc).get();
    int64_t lt = 0;
    const std::vector<int64_t> shape =
        t->GetOutputTypeInfo(0).GetTensorTypeAndShapeInfo().GetShape();
    if (shape.size() == 3 && shape[2] >= 1) lt = shape[2];
    std::fprintf(stderr,
                 "[le_a2x] short-window w2v frontend loaded (LT=%s) trunk=%s (%lld B) head=%s "
                 "(%lld B)\n",
                 lt ? std::to_string(lt).c_str() : "from-first-run", trunk.c_str(),
                 static_cast<long long>(fileSize(trunk.c_str())), head.c_str(),
                 static_cast<long long>(fileSize(head.c_str())));
    s.pair.trunk = std::move(t);
    s.pair.head = std::move(h);
    s.pair.trunkOut = std::move(outName);
    s.pair.lt = lt;
    return true;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "[le_a2x] short-window w2v load FAILED (%s) — legacy 8s path\n", e.what());
    s.pair = WindowedPair{};
    return false;
  }
}

}  // namespace

int64_t fileSize(const char* path) {
  if (!path || !*path) return -1;
  struct stat st {};
  if (::stat(path, &st) != 0 || !canOpenForRead(path)) return -1;
  return static_cast<int64_t>(st.st_size);
}

// (x - mean) / sqrt(var + 1e-7) over n samples: statistics in double, the root in float.
std::unique_ptr<Ort::Session> openWithGeluFallback(Ort::Env& env, const std::string& path,
                                                   Ort::SessionOptions& options) {
  try {
    return std::make_unique<Ort::Session>(env, path.c_str(), options);
  } catch (const Ort::Exception& e) {
    const std::string what = e.what();
    if (what.find("Gelu") == std::string::npos || what.find("float16") == std::string::npos) throw;
  }
  std::fprintf(stderr,
               "[le_a2x] %s: ORT's level-2 Gelu fusion produced a float16 com.microsoft.Gelu this "
               "runtime has no CPU kernel for; reopening at ORT_ENABLE_BASIC\n",
               path.c_str());
  options.SetGraphOptimizationLevel(ORT_ENABLE_BASIC);
  return std::make_unique<Ort::Session>(env, path.c_str(), options);
}

std::shared_ptr<Ort::Session> sharedEncoder(const std::string& path, int threads) {
  EncoderState& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  if (s.shared) return s.shared;
  Ort::Env& env = ortEnv();
  Ort::SessionOptions o = frontendOptions(threads);
  s.shared = openWithGeluFallback(env, path, o);
  s.sharedPath = path;
  return s.shared;
}

bool windowedPair(int threads, const std::string& encoderPath, WindowedPair* out) {
  EncoderState& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  if (!s.pair.trunk) {
    if (s.tried) return false;
    s.tried = true;
    if (!lookForPair(s, threads, encoderPath)) return false;
  }
  if (out) *out = s.pair;
  return true;
}

int64_t noteTrunkLength(int64_t lt) {
  EncoderState& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  if (s.pair.lt == 0) s.pair.lt = lt;
  return s.pair.lt;
}

}  // namespace le::a2x

void le_a2x_maybe_cuda(Ort::SessionOptions& options, const char* tag) {
  const char* on = std::getenv("LE_A2X_CUDA");
  if (!on || std::string(on) != "1" || !tag || std::string(tag) != "w2v") return;
  long long mib = 0;
  if (const char* m = std::getenv("LE_A2X_CUDA_MEM_MIB")) mib = std::strtoll(m, nullptr, 10);
  if (mib <= 0) mib = 3072;
  const std::string bytes = std::to_string(mib * 1048576LL);
  const OrtApi& api = le::ortApi();
  OrtCUDAProviderOptionsV2* cuda = nullptr;
  try {
    Ort::ThrowOnError(api.CreateCUDAProviderOptions(&cuda));
    const char* keys[] = {"device_id", "arena_extend_strategy", "gpu_mem_limit",
                          "cudnn_conv_use_max_workspace", "use_tf32"};
    const char* values[] = {"0", "kSameAsRequested", bytes.c_str(), "0", "0"};
    Ort::ThrowOnError(api.UpdateCUDAProviderOptions(cuda, keys, values, 5));
    Ort::ThrowOnError(api.SessionOptionsAppendExecutionProvider_CUDA_V2(options, cuda));
    api.ReleaseCUDAProviderOptions(cuda);
    std::fprintf(stderr, "[le_a2x] CUDA EP appended (%s, V2: no-max-workspace, mem<=%zuMiB)\n", tag,
                 static_cast<size_t>(mib));
  } catch (const std::exception& e) {
    if (cuda) api.ReleaseCUDAProviderOptions(cuda);
    std::fprintf(stderr, "[le_a2x] CUDA EP append failed (%s): %s -- falling back to CPU\n", tag,
                 e.what());
  }
}
