// Small helpers for tests and benchmarks that run forged models in real ONNX Runtime sessions.
#pragma once

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "le/render/gridsample_fast.h"
#include "le/render/le_ort.h"
#include "tests/test_util.h"

namespace le::test {

// The engine's process-wide environment: the runtime keeps one per process anyway.
inline Ort::Env& ortEnv() { return le::ortEnv(); }

// A CPU session over model bytes with the engine's operators registered ("com.vantorix"
// GridSampleFast unless the caller names another registration). Without the CPU arena every
// output is an allocation of its own: sessions run from several threads at once under
// ThreadSanitizer need that, since the arena passes one buffer from run to run under locks inside
// the runtime that ThreadSanitizer cannot see.
inline Ort::Session ortSession(const std::vector<uint8_t>& model, int intraThreads = 1,
                               void (*registerOps)(Ort::SessionOptions&) = le::registerGridSampleFast,
                               bool cpuArena = true) {
  Ort::Env& env = ortEnv();
  Ort::SessionOptions so;
  if (!cpuArena) so.DisableCpuMemArena();
  so.SetIntraOpNumThreads(intraThreads);
  so.SetInterOpNumThreads(1);
  registerOps(so);
  return Ort::Session(env, model.data(), model.size(), so);
}

struct Feed {
  std::string name;
  std::vector<int64_t> shape;
  const float* data;
  size_t count;
};

// Runs the session on float inputs; returns the first output's values (and its shape).
inline std::vector<float> ortRun(Ort::Session& s, const std::vector<Feed>& feeds, const std::string& output,
                                 std::vector<int64_t>* shape = nullptr) {
  Ort::MemoryInfo mi = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  std::vector<Ort::Value> values;
  std::vector<const char*> names;
  for (const Feed& f : feeds) {
    values.push_back(Ort::Value::CreateTensor<float>(mi, const_cast<float*>(f.data), f.count, f.shape.data(),
                                                     f.shape.size()));
    names.push_back(f.name.c_str());
  }
  const char* out = output.c_str();
  auto res = s.Run(Ort::RunOptions{nullptr}, names.data(), values.data(), values.size(), &out, 1);
  auto info = res[0].GetTensorTypeAndShapeInfo();
  if (shape) *shape = info.GetShape();
  const float* p = res[0].GetTensorData<float>();
  return std::vector<float>(p, p + info.GetElementCount());
}

// The runtime's message when fn fails with an ONNX Runtime exception; "" when it runs.
template <class Fn>
std::string ortFailure(Fn&& fn) {
  return le::testing::messageOf<Ort::Exception>(fn);
}

inline std::vector<float> randomFloats(size_t n, float lo, float hi, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> d(lo, hi);
  std::vector<float> v(n);
  for (float& x : v) x = d(rng);
  return v;
}

// Largest absolute difference; infinite when the sizes differ.
inline float maxAbsDiff(const std::vector<float>& a, const std::vector<float>& b) {
  if (a.size() != b.size()) return INFINITY;
  float m = 0;
  for (size_t i = 0; i < a.size(); ++i) m = std::max(m, std::fabs(a[i] - b[i]));
  return m;
}

}  // namespace le::test
