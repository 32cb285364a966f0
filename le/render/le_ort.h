// ONNX Runtime access: the C++ wrapper is built with ORT_API_MANUAL_INIT, so every user calls
// le::ortApi() once before touching Ort:: classes.
#pragma once

#include <onnxruntime_cxx_api.h>

#include <string>

namespace le {

// The oldest API version the engine relies on.
constexpr uint32_t kOrtApiVersion = 26;

// Initialises the wrapper on first call; throws when the loaded runtime cannot serve
// kOrtApiVersion. Thread-safe.
const OrtApi& ortApi();

// The process's one ONNX Runtime environment, made on first use and never destroyed. The runtime
// keeps a single environment per process whatever the handles ask for; holding it for good means
// handles made and destroyed on many threads never race its creation and release, and sessions
// that outlive static destruction still find it.
Ort::Env& ortEnv();

// Directory for CoreML's compiled-model cache inside a bundle:
// bundleDir + "/.coreml_cache/ort" + the runtime's version ("unknown" when it has none).
std::string coremlCacheDir(const std::string& bundleDir);

// Appends the CoreML provider for an ep text "coreml" or "coreml:cpu|gpu|ane" (compute units;
// anything else after the prefix means all units), caching compiled models under
// coremlCacheDir(dir). Throws where the runtime has no CoreML; callers fall back to the CPU.
void appendCoreml(Ort::SessionOptions& options, const std::string& ep, const std::string& dir);

}  // namespace le
