// ONNX Runtime access: the C++ wrapper is built with ORT_API_MANUAL_INIT, so every user calls
// le::ortApi() once before touching Ort:: classes.
#pragma once

#include <onnxruntime_cxx_api.h>

namespace le {

// The oldest API version the engine relies on.
constexpr uint32_t kOrtApiVersion = 26;

// Initialises the wrapper on first call; throws when the loaded runtime cannot serve
// kOrtApiVersion. Thread-safe.
const OrtApi& ortApi();

}  // namespace le
