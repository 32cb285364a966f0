#include "le/render/le_ort.h"

#include <mutex>
#include <stdexcept>
#include <string>

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

}  // namespace le
