#include "le/render/le_ort.h"

#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <unordered_map>

namespace le {

const OrtApi& ortApi() {
  static const OrtApi* api = [] {
    const OrtApiBase* base = OrtGetApiBase();
    const OrtApi* a = base ? base->GetApi(kOrtApiVersion) : nullptr;
    if (!a) {
      throw std::runtime_error(
          std::string("ONNX Runtime ") + (base ? base->GetVersionString() : "(no api base)") +
          " does not provide C API version " + std::to_string(kOrtApiVersion) +
          "; link the engine against ONNX Runtime 1.26 or newer");
    }
    Ort::InitApi(a);
    return a;
  }();
  return *api;
}

Ort::Env& ortEnv() {
  static Ort::Env* env = [] {
    ortApi();
    return std::make_unique<Ort::Env>(ORT_LOGGING_LEVEL_WARNING, "le").release();
  }();
  return *env;
}

std::string coremlCacheDir(const std::string& bundleDir) {
  ortApi();
  const char* v = OrtGetApiBase()->GetVersionString();
  return bundleDir + "/.coreml_cache/ort" + (v && *v ? v : "unknown");
}

void appendCoreml(Ort::SessionOptions& options, const std::string& ep, const std::string& dir) {
  const std::string units = ep.size() > 7 ? ep.substr(7) : "all";
  const char* mlUnits = units == "cpu"   ? "CPUOnly"
                        : units == "gpu" ? "CPUAndGPU"
                        : units == "ane" ? "CPUAndNeuralEngine"
                                         : "ALL";
  std::unordered_map<std::string, std::string> opts{
      {"ModelFormat", "MLProgram"}, {"MLComputeUnits", mlUnits}, {"ModelCacheDirectory", coremlCacheDir(dir)}};
  options.AppendExecutionProvider("CoreML", opts);
}

}  // namespace le
