#include "le/render/le_renderer.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "le/le.h"
#include "le/le_bundle.h"
#include "le/le_pool.h"
#include "le/le_simd.h"
#include "le/le_util.h"
#include "le/render/graph_rewrites.h"
#include "le/render/gridsample_fast.h"
#include "le/render/int8conv_vnni.h"
#include "le/render/le_conv.h"
#include "le/render/le_ort.h"
#include "le/tessera/le_lip_contour.h"

namespace le {

namespace {

constexpr size_t kPooledElems = 64 * 32 * 32;
constexpr size_t kFsRedElems = 64 * 64 * 64;
constexpr size_t kKpFloats = 3 * kHostKpRows;

// Switches are tested on their first character; unset or empty counts as neither '0' nor '1'.
char envFirst(const char* name) {
  const char* v = std::getenv(name);
  return v ? v[0] : '\0';
}

std::vector<uint8_t> readModel(const std::string& path) {
  std::ifstream f(path, std::ios::binary | std::ios::ate);
  if (!f) throw std::runtime_error("Renderer: cannot open " + path);
  const std::streamsize size = f.tellg();
  if (size < 0) throw std::runtime_error("Renderer: cannot open " + path);
  std::vector<uint8_t> bytes(static_cast<size_t>(size));
  f.seekg(0);
  if (!f.read(reinterpret_cast<char*>(bytes.data()), size) || f.gcount() != size)
    throw std::runtime_error("Renderer: short read on " + path);
  return bytes;
}

std::string xnnpackRefusal(const std::string& ep) {
  return "Renderer: ep '" + ep +
         "' is REFUSED. This renderer rewrites its graph to Vantorix custom-domain nodes "
         "(com.vantorix::GridSampleFast, and com.vantorix::WarpDirector wherever LE_WARP_NODE is "
         "on), and ORT's XNNPACK execution provider SEGFAULTS while partitioning a graph that "
         "carries them — measured 2026-09-15 on a published tamsine2-android AAR, null deref "
         "inside libonnxruntime.so at session create, on both a door-served and a hand-staged "
         "copy of the same identity. It is a signal, not an exception, so it cannot be caught "
         "and reported. Use the default ep (\"\", the ORT CPU EP), which opens the same bundle on "
         "the same bytes.";
}

std::string bakedRefusal(const std::string& path) {
  return "Renderer: LE_GS_FAST=0 (or VANTORIX_TAMSINE2_GRIDSAMPLE_FAST=0, which sets it) was "
         "asked for, but " +
         path +
         " has com.vantorix::GridSampleFast BAKED INTO THE GRAPH. That flag disables the "
         "custom-op registration, so there would be no kernel to bind and this session would "
         "die inside ORT with 'GridSampleFast(-1) is not a registered function/op'. There is no "
         "standard-GridSample arm on this bundle to measure: the artifact itself is "
         "non-standard. Run the A/B on a STANDARD-ONNX bundle (the shipping format since "
         "INFERENCE_STANDARDIZATION.md #1), or unset the flag to load this one.";
}

std::string kpContractRefusal(const std::string& path, const std::string& input, int64_t rows) {
  const std::string feed = std::to_string(kHostKpRows);
  std::string msg = "Renderer: HOST KEYPOINT CONTRACT MISMATCH on " + path +
                    " — the graph declares " + input + " with " + std::to_string(rows) +
                    " keypoint rows, and this renderer feeds " + feed +
                    " (le::kHostKpRows, le/le.h). ";
  if (rows == 22) {
    msg += "That is the recipe_v4 / kd_v4 shape: row " + feed +
           " is the WIDTH ROW (wn, seal, 0), fed from the a2x encoder's second output. This "
           "engine has no width feed (see le_a2x_width / le_a2x_pull_wn in le/le_a2x.h, which "
           "nothing on this path calls yet), so it cannot drive this director. ";
  }
  msg += "REFUSING AT LOAD rather than dying inside ORT at the first Run. This build must not "
         "have been published to a host that links this renderer: "
         "training/recipe/host_kp_contract.py is the publish gate that exists to prevent it.";
  return msg;
}

// One precomputed boundary of the split director.
struct ConeSlot {
  int32_t source = -1;  // -1: empty or being written
  std::vector<float> data;
  Ort::Value value{nullptr};
};

}  // namespace

struct Renderer::Impl {
  std::string epLabel;
  Ort::Env& env = ortEnv();
  Ort::SessionOptions sessionOptions;
  std::unique_ptr<Ort::Session> session;
  std::unique_ptr<Ort::IoBinding> binding;
  Ort::RunOptions runOptions;
  bool profiling = false;
  double runMsTotal = 0;
  int64_t runCount = 0;
  const Identity* identity = nullptr;
  int32_t batch = 0;
  int32_t crop = 0;
  size_t pooledElems = kPooledElems;
  size_t pElems = 0;
  size_t fsRedElems = kFsRedElems;
  bool fsRedGraph = false;
  std::vector<float> pooled, prior, fsRed, kpDriving, kpSource, out;
  std::vector<Ort::Value> values;
  std::unique_ptr<tessera::LipContour> lipContour;
  std::vector<float> lipDelivery;
  bool lipBound = false;
  std::unique_ptr<ConvBackend> convBackend;
  std::string directorNote;
  std::vector<const uint16_t*> pooledPtrs, priorPtrs;
  std::vector<uint16_t> halfPriorStaging;

  // Source-cone split: the prep session and the ring the prefetch thread fills.
  std::unique_ptr<Ort::Session> coneSession;
  std::unique_ptr<Ort::IoBinding> coneBinding;
  Ort::Value conePriorValue{nullptr};
  Ort::RunOptions coneRunOptions;
  std::string boundaryName;
  int64_t boundaryDims[4] = {0, 0, 0, 0};
  size_t boundaryElems = 0;
  std::vector<std::unique_ptr<ConeSlot>> coneSlots;
  std::thread prefetchThread;
  std::mutex mutex;
  std::condition_variable wake;
  int32_t requestedSource = -1;
  int32_t requestedSlot = -1;
  int32_t inUseSlot = -1;
  bool stop = false;
  std::string coneError;
  int32_t lastSource = -1;
  int32_t step = 1;
  bool wrapMode = false;
  int64_t hits = 0, misses = 0;

  // What construction needs beyond the fields above.
  const Manifest* manifest = nullptr;
  std::string member;
  std::string modelPath;
  int threads = 1;

  void createSession(const std::string& ep);
  void inspectInputs();
  void bindTensors();
  void fillSlot(int k, int32_t si, const float* ks, const float* kd);
  void copySlot(int from, int to);
  bool trySplit(const std::string& ep, bool warpMoved, const std::vector<uint8_t>& bytes,
                std::vector<uint8_t>& perFrame);
  void startCone();
  int freeSlotL(int32_t si) const;
  int holdingL(int32_t si) const;
  int acquire(int32_t si);
  void runPrepL(int32_t si, int slot, std::unique_lock<std::mutex>& lock);
  void prefetchLoop();
  int32_t predict(int32_t si);
  // Asks the prefetch thread for si's boundary unless a request is pending or a slot holds it.
  void queuePrefetch(int32_t si);
};

// The split of the director at the one Concat that reads P_rgb; false (with its line printed)
// leaves the director whole.
bool Renderer::Impl::trySplit(const std::string& ep, bool warpMoved, const std::vector<uint8_t>& bytes,
                              std::vector<uint8_t>& perFrame) {
  const char* name = member.c_str();
  if (startsWith(ep, "coreml") && !warpMoved) {
    const std::string units = ep.size() > 7 ? ep.substr(7) : "all";
    if (units == "all" || units == "gpu") {
      std::fprintf(stderr,
                   "[le] source-cone hoist NOT applied (%s): CoreML unit set '%s' can place the "
                   "director on the GPU and the 12.58 MB boundary input would cross that partition "
                   "every frame (measured 0.61x on an M4) — the cone stays in the graph\n",
                   name, units.c_str());
      return false;
    }
  }
  if (warpMoved) {
    std::fprintf(stderr,
                 "[le] source-cone hoist SKIPPED (%s): the warp node subsumes the cone — there is "
                 "nothing left to hoist\n",
                 name);
    return false;
  }
  if (!identity || (!identity->hasP() && identity->priorPath().empty()) || bytes.empty()) return false;
  if (envFirst("LE_CONE_SPLIT") == '0') {
    std::fprintf(stderr, "[le] source-cone hoist NOT applied (%s): LE_CONE_SPLIT=0\n", name);
    return false;
  }

  std::string reason;
  try {
    std::string boundary;
    const int found = findSourceConeBoundary(bytes, boundary);
    std::vector<uint8_t> prep;
    if (found != 1) {
      reason = "expected exactly one Concat consuming P_rgb, found " + std::to_string(found);
    } else if (buildSourceConePrep(bytes, boundary, prep, reason)) {
      Ort::SessionOptions opts;
      opts.SetIntraOpNumThreads(1);
      opts.SetInterOpNumThreads(1);
      opts.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
      opts.AddConfigEntry("session.intra_op.allow_spinning", "0");
      opts.AddConfigEntry("mlas.disable_kleidiai", "1");
      coneSession = std::make_unique<Ort::Session>(env, prep.data(), prep.size(), opts);
      const std::vector<int64_t> in =
          coneSession->GetInputTypeInfo(0).GetTensorTypeAndShapeInfo().GetShape();
      const std::vector<int64_t> outShape =
          coneSession->GetOutputTypeInfo(0).GetTensorTypeAndShapeInfo().GetShape();
      if (in.size() != 4 || in[0] != 1) {
        reason = "batch-1 lever; this graph declares batch " + std::to_string(in.empty() ? 0 : in[0]);
      } else if (outShape.size() != 4 ||
                 std::any_of(outShape.begin(), outShape.end(), [](int64_t d) { return d <= 0; })) {
        reason = "boundary shape is not static";
      } else {
        std::copy(outShape.begin(), outShape.end(), boundaryDims);
        boundaryElems = 1;
        for (int64_t d : outShape) boundaryElems *= static_cast<size_t>(d);
        if (buildSourceConePerFrame(bytes, boundary, boundaryDims, 4, perFrame, reason)) {
          session = std::make_unique<Ort::Session>(env, perFrame.data(), perFrame.size(), sessionOptions);
          boundaryName = boundary;
          std::fprintf(stderr,
                       "[le] source-cone hoist: '%s' [%lld,%lld,%lld,%lld] leaves the per-frame "
                       "graph and is prefetched per SOURCE FRAME on one spare core (%s)\n",
                       boundaryName.c_str(), static_cast<long long>(boundaryDims[0]),
                       static_cast<long long>(boundaryDims[1]), static_cast<long long>(boundaryDims[2]),
                       static_cast<long long>(boundaryDims[3]), name);
          return true;
        }
      }
    }
  } catch (const std::exception& e) {
    reason = e.what();
  }
  session.reset();
  coneSession.reset();
  boundaryName.clear();
  boundaryElems = 0;
  std::fprintf(stderr, "[le] source-cone hoist NOT applied (%s): %s\n", name, reason.c_str());
  return false;
}

void Renderer::Impl::createSession(const std::string& ep) {
  // 1. Drop what an earlier attempt made.
  coneBinding.reset();
  coneSession.reset();
  boundaryName.clear();
  binding.reset();
  session.reset();

  // 2. Fresh options.
  sessionOptions = Ort::SessionOptions();
  sessionOptions.SetIntraOpNumThreads(threads);
  sessionOptions.SetInterOpNumThreads(1);
  sessionOptions.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
  if (envFirst("LE_ORT_SPIN") != '1')
    sessionOptions.AddConfigEntry("session.intra_op.allow_spinning", "0");
  sessionOptions.AddConfigEntry("mlas.disable_kleidiai", "1");
  profiling = false;
  if (const char* prof = std::getenv("LE_ORT_PROFILE"); prof && *prof) {
    sessionOptions.EnableProfiling(prof);
    profiling = true;
  }

  // 3. Provider.
  const bool cpu = ep.empty();
  if (!cpu) {
    if (startsWith(ep, "xnnpack")) throw std::runtime_error(xnnpackRefusal(ep));
    if (!startsWith(ep, "coreml")) throw std::runtime_error("Renderer: unknown ep '" + ep + "'");
    appendCoreml(sessionOptions, ep, manifest->dir);
  }

  // 4. Custom operators.
  bool gsRewrite = false;
  std::vector<uint8_t> bytes;
  const bool customDomain = envFirst("LE_GS_FAST") != '0';
  if (customDomain) {
    gsRewrite = envFirst("LE_GS_REWRITE") != '0';
    registerGridSampleFast(sessionOptions);
    registerInt8ConvVNNI(sessionOptions);
    if (!gsRewrite && cpu) {
      std::fprintf(stderr,
                   "[le] LE_GS_REWRITE=0: load-time std GridSample -> com.vantorix::GridSampleFast "
                   "rewrite DISABLED (%s); the custom op is still registered, so a baked bundle "
                   "loads and runs its baked kernel. A standard bundle now runs ORT's own "
                   "GridSample.\n",
                   member.c_str());
    }
  } else {
    bytes = readModel(modelPath);
    if (graphHasBakedGridSampleFast(bytes)) throw std::runtime_error(bakedRefusal(modelPath));
    registerInt8ConvVNNI(sessionOptions);
  }

  // 5. The model's bytes.
  if (bytes.empty()) bytes = readModel(modelPath);

  // 6. Rewrites, in order.
  bool changed = false;
  bool warpMoved = false;
  const bool warpNode = [] {
    const char* v = std::getenv("LE_WARP_NODE");
    return v && *v && v[0] != '0';
  }();
  if (warpNode && cpu) {
    std::string reason;
    const size_t removed = rewriteWarpBlockToCustomOp(bytes, reason);
    if (removed > 0) {
      changed = true;
      warpMoved = true;
      std::fprintf(stderr,
                   "[le] director warp -> com.vantorix::WarpDirector (%zu nodes removed, the "
                   "source cone with them)\n",
                   removed);
      if (!customDomain)
        throw std::runtime_error(
            "Renderer: LE_WARP_NODE=1 moved the director warp of " + modelPath +
            " to com.vantorix::WarpDirector, but LE_GS_FAST=0 turned off the com.vantorix "
            "operator domain that holds its kernel, so the session cannot bind it. Unset "
            "LE_GS_FAST=0 or LE_WARP_NODE.");
    } else {
      std::fprintf(stderr,
                   "[le] director warp NOT moved to one node (%s) — the graph loads exactly as "
                   "it did before\n",
                   reason.empty() ? "no reason given" : reason.c_str());
    }
  }
  size_t gsCount = 0;
  if (gsRewrite && cpu) gsCount = rewriteGridSampleToFast(bytes);
  const size_t blendCount = normaliseStudentBlend(bytes);
  const size_t cubicCount = rewriteHeadCubicResize(bytes);
  changed = changed || gsCount || blendCount || cubicCount;
  lipBound = false;
  if (lipContour) {
    std::string reason;
    int canvas = 0, lipBatch = 0;
    if (rewriteBindLipContour(bytes, reason, &canvas, &lipBatch) == 1) {
      if (canvas != crop)
        throw std::runtime_error("Renderer: the director's compose canvas is " + std::to_string(canvas) +
                                 " and this bundle's manifest declares crop " + std::to_string(crop) +
                                 " — refusing to bind a lip contour rasterised on the wrong canvas");
      lipBound = true;
      changed = true;
    } else {
      std::fprintf(stderr,
                   "[le] !!! lip contour NOT bound to the compose alpha (%s): %s — this session serves "
                   "the graph's own ELLIPSE\n",
                   member.c_str(), reason.empty() ? "no reason given" : reason.c_str());
    }
  } else {
    std::fprintf(stderr,
                 "[le] !!! compose alpha: ELLIPSE (%s) — this bundle carries no %s, so the director "
                 "generates the over-covering elliptical region the contour replaces. BACKFILL IT: "
                 "models/tamsine-2/tools/carry_lip_template_fleet.py\n",
                 member.c_str(), "lip_template.v1.json");
  }

  // 7. The source-cone split; when it is made it also creates the director session.
  std::vector<uint8_t> perFrame;
  const bool split = trySplit(ep, warpMoved, bytes, perFrame);

  // 8. Log lines.
  const std::pair<size_t, const char*> rewrites[] = {
      {gsCount, "[le] std GridSample -> com.vantorix::GridSampleFast load-time rewrite: %zu node(s) (%s)\n"},
      {blendCount,
       "[le] L3 student blend MatMul -> Gemm load-time normalisation: %zu node(s) (%s) — a pre-2026-09-11 "
       "student; as MatMul this graph aborts Apple's MPSGraph compiler on every CoreML unit that includes the "
       "GPU\n"},
      {cubicCount,
       "[le] head cubic x2 -> Pad(edge,2)+Conv5x5(dw)+DepthToSpace(2,CRD) load-time rewrite: %zu node(s) (%s) — "
       "the same filter to fp32 round-off; ORT's cubic Resize kernel is the pole on every CPU-class EP and no "
       "CoreML/NNAPI EP can claim it\n"}};
  for (const auto& [count, line] : rewrites)
    if (count) std::fprintf(stderr, line, count, member.c_str());
  if (lipBound)
    std::fprintf(stderr,
                 "[le] compose alpha: LIP CONTOUR (%s) — Min(a, lip_delivery) bound at load, %d verts, "
                 "feather %.1f px; the graph's ellipse is not reachable in this session\n",
                 member.c_str(), lipContour->nv(), static_cast<double>(lipContour->featherPx()));

  // 9. The session.
  if (split) {
  } else if (changed)
    session = std::make_unique<Ort::Session>(env, bytes.data(), bytes.size(), sessionOptions);
  else
    session = std::make_unique<Ort::Session>(env, modelPath.c_str(), sessionOptions);

  // 10. Label.
  epLabel = cpu ? "cpu" : ep;
  std::fprintf(stderr, "[le] director ep=%s (%s)\n", epLabel.c_str(),
               cpu ? "ORT CPU EP"
                   : "ORT CoreML EP; unclaimed nodes on the CPU EP; std GridSample kept in the "
                     "graph");
}

void Renderer::Impl::inspectInputs() {
  Ort::AllocatorWithDefaultOptions alloc;
  const size_t count = session->GetInputCount();
  std::vector<std::string> names(count);
  for (size_t i = 0; i < count; ++i) names[i] = session->GetInputNameAllocated(i, alloc).get();
  fsRedGraph = false;
  for (const std::string& n : names) fsRedGraph = fsRedGraph || n == "fs_red";

  const char* batchInput = fsRedGraph ? "pooled" : "pooled64";
  const char* kdName = fsRedGraph ? "kd" : "kp_driving";
  const char* ksName = fsRedGraph ? "ks" : "kp_source";
  batch = 0;
  bool batchSeen = false;
  for (size_t i = 0; i < count; ++i) {
    const bool isBatch = names[i] == batchInput;
    const bool isKp = names[i] == kdName || names[i] == ksName;
    if (!isBatch && !isKp) continue;
    Ort::TypeInfo info = session->GetInputTypeInfo(i);
    if (info.GetONNXType() != ONNX_TYPE_TENSOR) continue;
    const std::vector<int64_t> shape = info.GetTensorTypeAndShapeInfo().GetShape();
    if (isBatch && !batchSeen && shape.size() == 4) {
      batchSeen = true;
      if (shape[0] > 0) batch = static_cast<int32_t>(shape[0]);
    }
    if (isKp && shape.size() == 3 && shape[1] >= 1 && shape[1] != kHostKpRows)
      throw std::runtime_error(kpContractRefusal(modelPath, names[i], shape[1]));
  }
  if (batch < 1) throw std::runtime_error(std::string(batchInput) + " input not found / bad shape");
}

void Renderer::Impl::bindTensors() {
  const size_t b = static_cast<size_t>(batch);
  pooled.assign(b * pooledElems, 0.f);
  kpDriving.assign(b * kKpFloats, 0.f);
  kpSource.assign(b * kKpFloats, 0.f);
  out.assign(b * pElems, 0.f);
  if (fsRedGraph) {
    if (!identity->hasFsRed())
      throw std::runtime_error("FeatSynth graph but bundle lacks fs_red.f16");
    fsRed.assign(b * fsRedElems, 0.f);
  } else {
    if (!identity->hasP() && identity->priorPath().empty())
      throw std::runtime_error(
          "m4b graph (P_rgb input) but this bundle carries no warp prior: neither P.f16, nor "
          "fs_red.f16, nor a P_hevc.mov to play in place is present, so le::Identity mapped "
          "NOTHING and Identity::P(si) would be an offset from a null pointer — a SEGFAULT on "
          "the first frame, not a refusal. REFUSING to create a session.");
    prior.assign(b * pElems, 0.f);
  }

  const Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  binding = std::make_unique<Ort::IoBinding>(*session);
  const int64_t bb = batch, c = crop;
  const int64_t pooledShape[4] = {bb, 64, 32, 32};
  const int64_t imageShape[4] = {bb, 3, c, c};
  const int64_t fsShape[4] = {bb, 64, 64, 64};
  const int64_t kpShape[3] = {bb, kHostKpRows, 3};
  auto tensor = [&](std::vector<float>& v, const int64_t* shape, size_t rank) {
    values.push_back(Ort::Value::CreateTensor<float>(mem, v.data(), v.size(), shape, rank));
    return values.size() - 1;
  };
  values.clear();
  values.reserve(7);
  if (fsRedGraph) {
    binding->BindInput("fs_red", values[tensor(fsRed, fsShape, 4)]);
    binding->BindInput("pooled", values[tensor(pooled, pooledShape, 4)]);
    binding->BindInput("kd", values[tensor(kpDriving, kpShape, 3)]);
    binding->BindInput("ks", values[tensor(kpSource, kpShape, 3)]);
  } else {
    binding->BindInput("pooled64", values[tensor(pooled, pooledShape, 4)]);
    if (coneSession)
      conePriorValue = Ort::Value::CreateTensor<float>(mem, prior.data(), prior.size(), imageShape, 4);
    else
      binding->BindInput("P_rgb", values[tensor(prior, imageShape, 4)]);
    binding->BindInput("kp_driving", values[tensor(kpDriving, kpShape, 3)]);
    binding->BindInput("kp_source", values[tensor(kpSource, kpShape, 3)]);
  }
  if (lipBound) {
    lipDelivery.assign(b * static_cast<size_t>(c) * static_cast<size_t>(c), 1.f);
    const int64_t lipShape[4] = {bb, 1, c, c};
    binding->BindInput("lip_delivery", values[tensor(lipDelivery, lipShape, 4)]);
  }
  binding->BindOutput("rgb", values[tensor(out, imageShape, 4)]);
  if (coneSession) startCone();
}

void Renderer::Impl::startCone() {
  const Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  const int64_t c = crop, bb = batch;
  const int64_t shape[4] = {bb, static_cast<int64_t>(boundaryElems) / (c * c * bb), c, c};
  coneSlots.clear();
  for (int i = 0; i < 2; ++i) {
    auto slot = std::make_unique<ConeSlot>();
    slot->data.assign(boundaryElems, 0.f);
    slot->value = Ort::Value::CreateTensor<float>(mem, slot->data.data(), slot->data.size(), shape, 4);
    coneSlots.push_back(std::move(slot));
  }
  coneBinding = std::make_unique<Ort::IoBinding>(*coneSession);
  coneBinding->BindInput("P_rgb", conePriorValue);
  prefetchThread = std::thread([this] { prefetchLoop(); });
}

int Renderer::Impl::holdingL(int32_t si) const {
  for (size_t i = 0; i < coneSlots.size(); ++i)
    if (coneSlots[i]->source == si) return static_cast<int>(i);
  return -1;
}

// The first slot that is not bound into the director and may be overwritten.
int Renderer::Impl::freeSlotL(int32_t si) const {
  for (size_t i = 0; i < coneSlots.size(); ++i)
    if (static_cast<int>(i) != inUseSlot && coneSlots[i]->source != si) return static_cast<int>(i);
  return -1;
}

int Renderer::Impl::acquire(int32_t si) {
  std::unique_lock<std::mutex> lock(mutex);
  inUseSlot = -1;
  while (coneError.empty()) {
    if (const int held = holdingL(si); held >= 0) {
      ++hits;
      inUseSlot = held;
      return held;
    }
    if (requestedSource < 0) {
      const int slot = freeSlotL(si);
      if (slot < 0) throw std::runtime_error("Renderer: source-cone ring exhausted");
      ++misses;
      coneSlots[size_t(slot)]->source = -1;
      runPrepL(si, slot, lock);
    } else {
      wake.wait(lock);
    }
  }
  throw std::runtime_error("Renderer: the hoisted source cone failed in ORT — " + coneError);
}

void Renderer::Impl::runPrepL(int32_t si, int slot, std::unique_lock<std::mutex>& lock) {
  ConeSlot& s = *coneSlots[size_t(slot)];
  lock.unlock();
  std::string failure;
  try {
    halfToFloat(identity->P(si), prior.data(), pElems);
    coneBinding->BindOutput(boundaryName.c_str(), s.value);
    coneSession->Run(coneRunOptions, *coneBinding);
  } catch (const std::exception& e) {
    failure = e.what();
    if (failure.empty()) failure = "unknown error";
  }
  lock.lock();
  if (!failure.empty()) {
    if (coneError.empty()) coneError = failure;
  } else {
    s.source = si;
  }
}

void Renderer::Impl::queuePrefetch(int32_t si) {
  std::lock_guard<std::mutex> lock(mutex);
  if (requestedSource >= 0 || !coneError.empty() || holdingL(si) >= 0) return;
  const int free = freeSlotL(si);
  if (free < 0) return;
  coneSlots[size_t(free)]->source = -1;
  requestedSlot = free;
  requestedSource = si;
  wake.notify_all();
}

void Renderer::Impl::prefetchLoop() {
  std::unique_lock<std::mutex> lock(mutex);
  while (!stop) {
    if (requestedSource >= 0) {
      runPrepL(requestedSource, requestedSlot, lock);
      requestedSource = -1;
      requestedSlot = -1;
      wake.notify_all();
    } else {
      wake.wait(lock);
    }
  }
}

// The source index the next frame most likely reads: the walk either bounces at the ends or,
// once it has jumped from the last frame to the first, wraps.
int32_t Renderer::Impl::predict(int32_t si) {
  const int32_t n = identity->NT;
  const int32_t prev = lastSource;
  lastSource = si;
  if (n < 2) return si;
  if (prev == n - 1 && si == 0) {
    wrapMode = true;
    if (prev == 1 || prev == -1) step = -1;
    return ((si + step) % n + n) % n;
  }
  if (prev >= 0 && (si - prev == 1 || si - prev == -1)) step = si - prev;
  const int32_t next = si + step;
  if (wrapMode) return ((next % n) + n) % n;
  if (next >= n) return n - 2;
  if (next < 0) return 1;
  return next;
}

void Renderer::Impl::fillSlot(int k, int32_t si, const float* ks, const float* kd) {
  const size_t kk = static_cast<size_t>(k);
  halfToFloat(identity->pooled64(si), pooled.data() + kk * pooledElems, pooledElems);
  if (fsRedGraph)
    halfToFloat(identity->fsRed(si), fsRed.data() + kk * fsRedElems, fsRedElems);
  else
    halfToFloat(identity->P(si), prior.data() + kk * pElems, pElems);
  std::memcpy(kpSource.data() + kk * kKpFloats, ks, kKpFloats * sizeof(float));
  std::memcpy(kpDriving.data() + kk * kKpFloats, kd, kKpFloats * sizeof(float));
  if (lipBound) lipContour->contourF32Canvas(kd, lipDelivery.data() + kk * static_cast<size_t>(crop) * crop);
}

void Renderer::Impl::copySlot(int from, int to) {
  auto dup = [from, to](std::vector<float>& v, size_t elems) {
    std::memcpy(v.data() + static_cast<size_t>(to) * elems,
                v.data() + static_cast<size_t>(from) * elems, elems * sizeof(float));
  };
  dup(pooled, pooledElems);
  if (fsRedGraph)
    dup(fsRed, fsRedElems);
  else
    dup(prior, pElems);
  dup(kpSource, kKpFloats);
  dup(kpDriving, kKpFloats);
  if (lipBound) dup(lipDelivery, static_cast<size_t>(crop) * crop);
}

Renderer::Renderer(const Manifest& manifest, const Identity& identity, const std::string& member,
                   int threads, const std::string& ep)
    : impl_(std::make_unique<Impl>()) {
  Impl& m = *impl_;
  m.identity = &identity;
  m.manifest = &manifest;
  m.crop = manifest.crop;
  m.pElems = static_cast<size_t>(m.crop) * m.crop * 3;
  m.member = member;
  m.modelPath = manifest.modelPath(member);
  m.threads = threads < 1 ? pool::threads() : threads;

  std::string chosen = ep;
  const char* convEnv = std::getenv("LE_CONV_BACKEND");
  if (ep == "neon" || (ep.empty() && convEnv && std::strcmp(convEnv, "neon") == 0)) {
    if (!ConvBackend::available()) {
      std::fprintf(stderr,
                   "[le] fp16 NEON backend requested but unavailable on this build/CPU; using "
                   "ORT\n");
      chosen.clear();
    } else if (ConvBackend::graphSupported(m.modelPath)) {
      if (m.crop != 512) throw std::runtime_error("le_conv: only crop=512 m4b bundles");
      m.convBackend = ConvBackend::create(m.modelPath, m.threads);
      m.epLabel = "neon";
      m.batch = 1;
      m.out.assign(m.pElems, 0.f);
      return;
    } else {
      std::fprintf(stderr,
                   "[le] NEON backend refused: %s is not the fused m4b graph (golden/unified "
                   "director?); using ORT\n",
                   member.c_str());
      chosen.clear();
    }
  }
  // The lip template is the bundle's own: a bad one refuses the bundle.
  if (!manifest.lip_template.empty())
    m.lipContour = std::make_unique<tessera::LipContour>(
        tessera::LipContour::fromTemplateJson(manifest.lip_template, m.crop));

  try {
    m.createSession(chosen);
  } catch (const std::exception& e) {
    if (!startsWith(chosen, "coreml")) throw;
    std::fprintf(stderr, "[le] CoreML EP session refused: %s — falling back to the ORT CPU EP\n",
                 e.what());
    m.binding.reset();
    m.session.reset();
    m.createSession("");
  }
  m.inspectInputs();
  m.bindTensors();
}

Renderer::~Renderer() {
  if (!impl_) return;
  Impl& m = *impl_;
  if (m.prefetchThread.joinable()) {
    {
      std::lock_guard<std::mutex> lock(m.mutex);
      m.stop = true;
    }
    m.wake.notify_all();
    m.prefetchThread.join();
  }
  if (m.profiling && m.session) {
    if (m.runCount > 0)
      std::fprintf(stderr, "[le_ort_profile] %ld frames: %.2f ms/frame in Session::Run\n",
                   static_cast<long>(m.runCount), m.runMsTotal / static_cast<double>(m.runCount));
    try {
      Ort::AllocatorWithDefaultOptions alloc;
      Ort::AllocatedStringPtr file = m.session->EndProfilingAllocated(alloc);
      std::fprintf(stderr, "[le_ort_profile] %s\n", file.get());
    } catch (const std::exception& e) {
      std::fprintf(stderr, "[le_ort_profile] FAILED: %s\n", e.what());
    }
  }
  // Sessions first: their intra-op threads are joined there, before the buffers those threads
  // read (the cone slots, the bound inputs) are freed.
  m.binding.reset();
  m.session.reset();
  m.coneBinding.reset();
  m.coneSession.reset();
}

const float* Renderer::render(const int32_t* sourceIdx, const float* kpSource,
                              const float* kpDriving, int n) {
  Impl& m = *impl_;
  if (n < 1 || n > m.batch) throw std::runtime_error("render: bad n");
  const int nt = m.identity->NT;
  for (int k = 0; k < n; ++k) {
    if (sourceIdx[k] < 0 || sourceIdx[k] >= nt)
      throw std::runtime_error("render: source index " + std::to_string(sourceIdx[k]) +
                               " outside [0," + std::to_string(nt) + ")");
  }
  if (m.convBackend) {
    // The fp16 tables go in as they are; a prior played from a movie is copied out of the
    // cursor's frame before the next frame replaces it.
    m.pooledPtrs.assign(size_t(n), nullptr);
    m.priorPtrs.assign(size_t(n), nullptr);
    if (!m.identity->hasP()) m.halfPriorStaging.resize(size_t(n) * m.pElems);
    for (int k = 0; k < n; ++k) {
      m.pooledPtrs[size_t(k)] = m.identity->pooled64(sourceIdx[k]);
      const uint16_t* p = m.identity->P(sourceIdx[k]);
      if (!m.identity->hasP()) {
        uint16_t* slot = m.halfPriorStaging.data() + size_t(k) * m.pElems;
        std::memcpy(slot, p, m.pElems * sizeof(uint16_t));
        p = slot;
      }
      m.priorPtrs[size_t(k)] = p;
    }
    m.convBackend->run(m.pooledPtrs.data(), m.priorPtrs.data(), kpSource, kpDriving, n, m.out.data());
    return m.out.data();
  }
  if (m.coneSession) {
    const int32_t si = sourceIdx[0];
    const int slot = m.acquire(si);
    m.binding->BindInput(m.boundaryName.c_str(), m.coneSlots[size_t(slot)]->value);
    halfToFloat(m.identity->pooled64(si), m.pooled.data(), m.pooledElems);
    std::memcpy(m.kpSource.data(), kpSource, kKpFloats * sizeof(float));
    std::memcpy(m.kpDriving.data(), kpDriving, kKpFloats * sizeof(float));
    if (m.lipBound) m.lipContour->contourF32Canvas(kpDriving, m.lipDelivery.data());
    m.queuePrefetch(m.predict(si));
  } else {
    for (int k = 0; k < m.batch; ++k) {
      if (k >= n)
      m.copySlot(n - 1, k);
    else
        m.fillSlot(k, sourceIdx[k], kpSource + static_cast<size_t>(k) * kKpFloats,
                   kpDriving + static_cast<size_t>(k) * kKpFloats);
    }
  }
  const auto t0 = std::chrono::steady_clock::now();
  m.session->Run(m.runOptions, *m.binding);
  const auto t1 = std::chrono::steady_clock::now();
  m.runMsTotal += std::chrono::duration<double, std::milli>(t1 - t0).count();
  ++m.runCount;
  return m.out.data();
}

int Renderer::batch() const { return impl_->batch; }
const char* Renderer::ep() const { return impl_->epLabel.c_str(); }
const char* Renderer::backend() const { return impl_->convBackend ? "neon" : "ort"; }
const char* Renderer::directorNote() const { return impl_->directorNote.c_str(); }
int Renderer::crop() const { return impl_->crop; }
double Renderer::runMsTotal() const { return impl_->runMsTotal; }
int64_t Renderer::runCount() const { return impl_->runCount; }
bool Renderer::coneSplit() const { return impl_->coneSession != nullptr; }
void Renderer::prefetchSource(int32_t si) {
  if (impl_->coneSession && si >= 0 && si < impl_->identity->NT) impl_->queuePrefetch(si);
}
void Renderer::cancelRuns() {
  if (impl_->session) impl_->runOptions.SetTerminate();
}
void Renderer::resumeRuns() {
  if (impl_->session) impl_->runOptions.UnsetTerminate();
}
int64_t Renderer::coneHits() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->hits;
}
int64_t Renderer::coneMisses() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->misses;
}
void testing::terminateConeRuns(Renderer& r) { r.impl_->coneRunOptions.SetTerminate(); }
void testing::awaitConePrefetch(Renderer& r) {
  Renderer::Impl& m = *r.impl_;
  std::unique_lock<std::mutex> lock(m.mutex);
  m.wake.wait(lock, [&] { return m.requestedSource < 0; });
}

}  // namespace le
