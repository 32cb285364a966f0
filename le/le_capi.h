// The engine context and the prior handle behind the flat interface: shared with the rendering
// entry points and the pipelines that call into a context.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_bundle.h"
#include "le/le_driver.h"
#include "le/le_paste.h"

namespace le {
class Renderer;
}  // namespace le

// Members are declared in construction order; destruction runs in reverse: frame, cursor,
// model key, ep, paste, renderer, drive, identity, manifest. A throw in the constructor undoes
// the members already built.
struct le_ctx {
  le_ctx(const char* bundle_dir, const char* model_key, int n_threads, const char* ep,
         bool threads_explicit);
  le_ctx(const le_ctx&) = delete;
  le_ctx& operator=(const le_ctx&) = delete;

  le::Manifest manifest;
  le::Identity identity;
  le::Drive drive;
  // Null until the first render. The deleter travels with the pointer, so the code that builds
  // the renderer supplies it and this header needs no complete type.
  std::unique_ptr<le::Renderer, void (*)(le::Renderer*)> renderer{nullptr, nullptr};
  std::unique_ptr<le::Paste> paste;
  int n_threads;
  std::string ep;
  bool threads_explicit;
  std::string model_key;
  std::unique_ptr<le::DriverCursor> cursor;
  std::vector<uint8_t> frame;  // W*H*3, written by le_paste_last
  const float* last_crop = nullptr;
};

struct le_prior {
  explicit le_prior(const char* bundle_dir, int lookahead, int history);
  le_prior(const le_prior&) = delete;
  le_prior& operator=(const le_prior&) = delete;

  le::Manifest manifest;
  std::unique_ptr<le::DriverCursor> cursor;
  std::string backend;
};

namespace le {
// The context's renderer, built on first use with the context's threads and ep (no lock: calls on
// one context never overlap). Throws what the renderer's construction throws and leaves it null.
Renderer& ensureRenderer(le_ctx& c);

// The paste mask of a bundle: exactly crop*crop bytes from the start of "mask_512.u8" (or its
// newer name). Throws "mask read failed" when the member is missing or shorter.
std::vector<uint8_t> readPasteMask(const Manifest& m);
}  // namespace le
