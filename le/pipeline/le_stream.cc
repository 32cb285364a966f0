// The offline stream renderer: a whole clip's deltas, rendered on one thread and pasted and
// delivered on the calling one through a ring of four crops. Each crop is pasted straight into
// the drive cursor's own copy of its frame (taken for modification), so no frame is copied.
#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "le/le.h"
#include "le/le_a2x.h"
#include "le/le_bundle.h"
#include "le/le_capi.h"
#include "le/le_error.h"
#include "le/le_pool.h"

namespace {

using le::err::Family;

constexpr int kHop = 640;
constexpr int kKp = 63;
constexpr int kSlots = 4;

struct CtxDeleter {
  void operator()(le_ctx* c) const { le_destroy(c); }
};
struct FcaDeleter {
  void operator()(le_fca* f) const { le_fca_destroy(f); }
};

// NT x 63 float32 targets; empty when unreadable or not a whole positive number of rows.
std::vector<float> readTargets(const std::string& path, int nt) {
  std::unique_ptr<FILE, int (*)(FILE*)> f(std::fopen(path.c_str(), "rb"), &std::fclose);
  if (!f || nt < 1) return {};
  std::vector<float> v(size_t(nt) * kKp);
  if (std::fread(v.data(), sizeof(float), v.size(), f.get()) != v.size()) return {};
  return v;
}

}  // namespace

struct le_stream {
  std::unique_ptr<le_ctx, CtxDeleter> ctx;
  std::unique_ptr<le_fca, FcaDeleter> fca;
  std::vector<float> targets;
  int nt = 0, width = 0, height = 0, crop = 0;
  int skip = 0;
  float gain = 1.0f;

  int run(const float* audio, int n, le_stream_frame_fn callback, void* user);
};

int le_stream::run(const float* audio, int n, le_stream_frame_fn callback, void* user) {
  if (n <= 0) return 0;
  const int frames = static_cast<int>((int64_t(n) + kHop - 1) / kHop);
  std::vector<float> deltas(size_t(frames) * kKp);
  if (le_fca_deltas(fca.get(), audio, n, deltas.data(), frames) != frames) {
    le::err::set(Family::Stream, std::string("le_fca_deltas: ") + le_fca_last_error());
    return -1;
  }
  const int count = frames - std::max(skip, 0);
  if (count <= 0) return 0;
  const int first = frames - count;
  auto source = [&](int j) { return nt <= 1 ? 0 : (first + j) % nt; };

  const size_t cropFloats = size_t(3) * crop * crop;
  std::vector<float> ring(kSlots * cropFloats);
  std::mutex mu;
  std::condition_variable rendered, freed;
  int made = 0, taken = 0;  // crops rendered into the ring; crops pasted and released
  bool done = false;
  std::atomic<bool> failed{false};

  std::thread renderer([&] {
    std::vector<float> driven(kKp);
    for (int j = 0; j < count && !failed.load(); ++j) {
      const int s = source(j);
      const float* xs = targets.data() + size_t(s) * kKp;
      const float* d = deltas.data() + size_t(first + j) * kKp;
      for (int k = 0; k < kKp; ++k) driven[size_t(k)] = xs[k] + gain * d[k];
      const float* img = le_render_kp_crop(ctx.get(), s, xs, driven.data());
      if (!img) {
        std::fprintf(stderr, "[le_stream] render of frame %d failed: %s\n", j, le_last_error());
        failed = true;
        break;
      }
      std::unique_lock<std::mutex> lock(mu);
      freed.wait(lock, [&] { return made - taken < kSlots || failed.load(); });
      if (failed.load()) break;
      std::memcpy(ring.data() + size_t(made % kSlots) * cropFloats, img, cropFloats * sizeof(float));
      ++made;
      rendered.notify_one();
    }
    std::lock_guard<std::mutex> lock(mu);
    done = true;
    rendered.notify_one();
  });

  int delivered = 0;
  // Beside a director that keeps both cores busy, a split paste only adds a runnable thread.
  const le::pool::SerialScope serial(le::pool::threads() <= 2);
  for (int j = 0; j < count; ++j) {
    {
      std::unique_lock<std::mutex> lock(mu);
      rendered.wait(lock, [&] { return made > j || failed.load() || done; });
      if (made <= j) break;
    }
    // The renderer never writes slot j % 4 until it is released below.
    const float* img = ring.data() + size_t(j % kSlots) * cropFloats;
    // The frame stays the cursor's until its next pull, after the callback.
    const uint8_t* frame = nullptr;
    try {
      const int s = source(j);
      uint8_t* f = ctx->cursor->pullMutAt(s, nullptr);
      ctx->paste->composite(img, 255.0f, ctx->identity.M(s), f, width, height);
      frame = f;
    } catch (const std::exception& e) {
      std::fprintf(stderr, "[le_stream] paste of frame %d failed: %s\n", j, e.what());
    }
    const bool pasted = frame != nullptr;
    {
      std::lock_guard<std::mutex> lock(mu);
      if (!pasted) failed = true;
      ++taken;
      freed.notify_one();
    }
    if (!pasted) break;
    callback(user, j, frame, width, height);
    ++delivered;
  }
  renderer.join();
  if (failed.load()) {
    le::err::set(Family::Stream, "le_stream_run: render/paste failed");
    return -1;
  }
  return delivered;
}

extern "C" {

LE_API le_stream* le_stream_create(const char* bundle_dir, const char* encoder_path, int threads,
                                   int skip, float gain) {
  le::err::clear(Family::Stream);
  LE_CHECK_ARG(bundle_dir && *bundle_dir, Family::Stream, "le_stream_create: no bundle directory",
               nullptr);
  return le::err::guard(Family::Stream, "le_stream_create", static_cast<le_stream*>(nullptr), [&] {
    auto s = std::make_unique<le_stream>();
    s->ctx.reset(le_create(bundle_dir, "render", threads, ""));
    if (!s->ctx) {
      le::err::set(Family::Stream, le_last_error());
      return static_cast<le_stream*>(nullptr);
    }
    const std::string decoder = std::string(bundle_dir) + "/fca_stream.onnx";
    s->fca.reset(le_fca_create(encoder_path, decoder.c_str(), threads));
    if (!s->fca) {
      le::err::set(Family::Stream, std::string("le_fca_create: ") + le_fca_last_error());
      return static_cast<le_stream*>(nullptr);
    }
    s->nt = le_nt(s->ctx.get());
    s->targets = readTargets(le::resolveMember(bundle_dir, "xs_target.bin"), s->nt);
    if (s->targets.empty()) {
      le::err::set(Family::Stream, "le_stream_create: cannot read xs_target.bin (NT*63 f32)");
      return static_cast<le_stream*>(nullptr);
    }
    s->width = le_width(s->ctx.get());
    s->height = le_height(s->ctx.get());
    s->crop = le_crop(s->ctx.get());
    s->skip = skip;
    s->gain = gain;
    return s.release();
  });
}

LE_API void le_stream_destroy(le_stream* s) { delete s; }

LE_API const char* le_stream_last_error(void) { return le::err::slot(Family::Stream).c_str(); }

LE_API int le_stream_width(const le_stream* s) { return s ? s->width : 0; }

LE_API int le_stream_height(const le_stream* s) { return s ? s->height : 0; }

LE_API int le_stream_run(le_stream* s, const float* audio, int n, le_stream_frame_fn callback,
                         void* user) {
  le::err::clear(Family::Stream);
  if (n <= 0) return 0;
  LE_CHECK_ARG(s && audio && callback, Family::Stream, "le_stream_run: NULL handle, audio or callback",
               -1);
  return le::err::guard(Family::Stream, "le_stream_run", -1,
                        [&] { return s->run(audio, n, callback, user); });
}

}  // extern "C"
