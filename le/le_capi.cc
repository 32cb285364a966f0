// The flat interface of the engine context family.
#include "le/le_capi.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "le/le_bundle.h"
#include "le/le_error.h"
#include "le/le_imx.h"
#include "le/le_pool.h"
#include "le/render/le_renderer.h"

namespace le::err {

std::string& slot(Family f) {
  thread_local std::string strings[static_cast<int>(Family::Count)];
  return strings[static_cast<int>(f)];
}

void setErr(Family f, const char* fn, const std::exception& e) {
  std::string& s = slot(f);
  s = fn;
  s += ": ";
  s += e.what();
}

}  // namespace le::err

namespace le {

std::vector<uint8_t> readPasteMask(const Manifest& m) {
  const std::string path = resolveMember(m.dir, "mask_512.u8");
  std::vector<uint8_t> mask(size_t(m.crop) * size_t(m.crop), 0);
  FilePtr f(std::fopen(path.c_str(), "rb"));
  if (!f || std::fread(mask.data(), 1, mask.size(), f.get()) != mask.size())
    throw std::runtime_error("mask read failed");
  return mask;
}

}  // namespace le

le_ctx::le_ctx(const char* bundle_dir, const char* model_key_, int n_threads_, const char* ep_,
               bool threads_explicit_)
    : manifest(le::loadManifest(bundle_dir)),
      identity(manifest),
      drive(le::loadDrive(manifest)),
      n_threads(n_threads_),
      ep(ep_),
      threads_explicit(threads_explicit_),
      model_key(model_key_) {
  paste = std::make_unique<le::Paste>(le::readPasteMask(manifest), manifest.crop, manifest.unsharp);
  // Every source frame's transform must be pasteable, or a frame would vanish at run time.
  const std::string m_path = le::resolveMember(manifest.dir, "M.f32");
  const std::string m_name = m_path.substr(m_path.rfind('/') + 1);
  for (int si = 0; si < manifest.NT; ++si)
    le::Paste::checkTransform(identity.M(si), manifest.crop, manifest.W, manifest.H,
                              m_name + " row " + std::to_string(si));
  cursor = le::DriverCursor::open(manifest, 2, 11);
  frame.resize(size_t(manifest.W) * size_t(manifest.H) * 3);
}

le_prior::le_prior(const char* bundle_dir, int lookahead, int history)
    : manifest(le::loadManifest(le::resolveBundlePath(bundle_dir))),
      cursor(le::DriverCursor::openPrior(manifest, lookahead < 1 ? 2 : lookahead,
                                         history < 0 ? 0 : history)),
      backend(cursor->name) {}

extern "C" {

LE_API const char* le_last_error(void) { return le::err::slot(le::err::Family::Ctx).c_str(); }

LE_API int le_host_kp_rows(void) { return le::kHostKpRows; }

LE_API int le_bundle_resolve_handle(const char* bundle, char* out, size_t cap) {
  using le::err::Family;
  le::err::clear(Family::Ctx);
  if (!bundle || !out || cap == 0) return -1;
  out[0] = 0;
  return le::err::guard(Family::Ctx, "le_bundle_resolve_handle", -1, [&] {
    const std::string dir = le::resolveBundlePath(bundle);
    if (cap < dir.size() + 1) {
      le::err::set(Family::Ctx, "le_bundle_resolve_handle: buffer too small");
      return -1;
    }
    std::memcpy(out, dir.c_str(), dir.size() + 1);
    return 1;
  });
}

LE_API int le_bundle_resolve_member(const char* bundle, const char* member, char* out, size_t cap) {
  using le::err::Family;
  le::err::clear(Family::Ctx);
  if (!bundle || !member || !out || cap == 0) return -1;
  out[0] = 0;
  return le::err::guard(Family::Ctx, "le_bundle_resolve_member", -1, [&] {
    const std::string path = le::resolveMember(le::resolveBundlePath(bundle), member);
    if (cap < path.size() + 1) return -1;
    std::memcpy(out, path.c_str(), path.size() + 1);
    return le::canOpenForRead(path) ? 1 : 0;
  });
}


LE_API le_ctx* le_create(const char* bundle_dir, const char* model_key, int n_threads,
                         const char* ep) {
  using le::err::Family;
  le::err::clear(Family::Ctx);
  LE_CHECK_ARG(bundle_dir && model_key, Family::Ctx, "le_create: NULL bundle_dir/model_key",
               nullptr);
  const bool threads_explicit = n_threads > 0;
  if (n_threads < 1) n_threads = le::pool::threads();
  return le::err::guard(Family::Ctx, "le_create", static_cast<le_ctx*>(nullptr), [&] {
    return new le_ctx(bundle_dir, model_key, n_threads, ep ? ep : "", threads_explicit);
  });
}

LE_API void le_destroy(le_ctx* ctx) { delete ctx; }

LE_API int le_nt(const le_ctx* ctx) { return ctx ? ctx->manifest.NT : 0; }
LE_API int le_width(const le_ctx* ctx) { return ctx ? ctx->manifest.W : 0; }
LE_API int le_height(const le_ctx* ctx) { return ctx ? ctx->manifest.H : 0; }
LE_API int le_crop(const le_ctx* ctx) { return ctx ? ctx->manifest.crop : 0; }
LE_API int le_drive_frames(const le_ctx* ctx) { return ctx ? ctx->drive.frames : 0; }

LE_API int le_paste_crop(le_ctx* ctx, int si, const float* crop, uint8_t* out, size_t out_bytes) {
  using le::err::Family;
  le::err::clear(Family::Ctx);
  LE_CHECK_ARG(ctx && crop && out && si >= 0 && si < ctx->manifest.NT &&
                   out_bytes >= ctx->frame.size(),
               Family::Ctx, "le_paste_crop: bad args / out too small", 0);
  return le::err::guard(Family::Ctx, "le_paste_crop", 0, [&] {
    ctx->cursor->pullAt(si, out);
    ctx->paste->composite(crop, 255.0f, ctx->identity.M(si), out, ctx->manifest.W,
                          ctx->manifest.H);
    return 1;
  });
}

LE_API const uint8_t* le_target_frame(le_ctx* ctx, int si) {
  using le::err::Family;
  le::err::clear(Family::Ctx);
  LE_CHECK_ARG(ctx && si >= 0 && si < ctx->manifest.NT, Family::Ctx, "le_target_frame: bad args",
               nullptr);
  return le::err::guard(Family::Ctx, "le_target_frame", static_cast<const uint8_t*>(nullptr), [&] {
    int got = -1;
    return ctx->cursor->pullAt(si, &got);
  });
}

LE_API le_prior* le_prior_open(const char* bundle_dir, int lookahead, int history) {
  using le::err::Family;
  le::err::clear(Family::Ctx);
  LE_CHECK_ARG(bundle_dir, Family::Ctx, "le_prior_open: NULL bundle_dir", nullptr);
  return le::err::guard(Family::Ctx, "le_prior_open", static_cast<le_prior*>(nullptr),
                        [&] { return new le_prior(bundle_dir, lookahead, history); });
}

LE_API size_t le_prior_row_bytes(const le_prior* prior) {
  return prior ? prior->cursor->frameBytes : 0;
}

LE_API const char* le_prior_backend(const le_prior* prior) {
  return prior ? prior->backend.c_str() : "";
}

LE_API int le_prior_row(le_prior* prior, int row, uint16_t* out, size_t cap) {
  using le::err::Family;
  le::err::clear(Family::Ctx);
  LE_CHECK_ARG(prior && out, Family::Ctx, "le_prior_row: NULL prior/out", 0);
  const size_t bytes = prior->cursor->frameBytes;
  if (cap < bytes) {
    le::err::set(Family::Ctx, "le_prior_row: cap " + std::to_string(cap) + " < row bytes " +
                                  std::to_string(bytes));
    return 0;
  }
  return le::err::guard(Family::Ctx, "le_prior_row", 0, [&] {
    prior->cursor->pullAt(row, reinterpret_cast<uint8_t*>(out));
    return 1;
  });
}

LE_API void le_prior_close(le_prior* prior) { delete prior; }

}  // extern "C"

// ---- rendering entry points --------------------------------------------------------------------

namespace le {

Renderer& ensureRenderer(le_ctx& c) {
  if (c.renderer) return *c.renderer;
  int intra = c.n_threads;
  if (!c.threads_explicit && c.ep.empty()) {
    intra = std::min(c.n_threads, 2);
    std::fprintf(stderr,
                 "[le] director intra-op %d of pool %d: the caller did not choose, the core sized "
                 "it for the le_utt pipeline\n",
                 intra, c.n_threads);
  }
  auto made = std::make_unique<Renderer>(c.manifest, c.identity, c.model_key, intra, c.ep);
  c.renderer = {made.release(), [](Renderer* r) { delete r; }};
  return *c.renderer;
}

}  // namespace le

namespace {

// The RGBA step shared by the two RGBA entry points: paste the last crop, widen to RGBA.
int pasteLastRgba(le_ctx* ctx, int si, uint8_t* out, size_t out_bytes) {
  const size_t pixels = static_cast<size_t>(ctx->manifest.W) * static_cast<size_t>(ctx->manifest.H);
  LE_CHECK_ARG(out && out_bytes >= pixels * 4, le::err::Family::Ctx,
               "le_render_*_rgba: out buffer too small", 0);
  const uint8_t* rgb = le_paste_last(ctx, si);
  if (!rgb) return 0;
  for (size_t p = 0; p < pixels; ++p) {
    out[4 * p + 0] = rgb[3 * p + 0];
    out[4 * p + 1] = rgb[3 * p + 1];
    out[4 * p + 2] = rgb[3 * p + 2];
    out[4 * p + 3] = 255;
  }
  return 1;
}

// One render, its failure named after the entry point the host called.
const float* renderOne(le_ctx* ctx, int si, const float* xs, const float* xd, const char* fn) {
  return le::err::guard(le::err::Family::Ctx, fn, static_cast<const float*>(nullptr), [&] {
    const int32_t idx = si;
    const float* crop = le::ensureRenderer(*ctx).render(&idx, xs, xd, 1);
    ctx->last_crop = crop;
    return crop;
  });
}

}  // namespace

extern "C" {

LE_API const float* le_render_kp_crop(le_ctx* ctx, int si, const float* xs, const float* xd) {
  using le::err::Family;
  le::err::clear(Family::Ctx);
  LE_CHECK_ARG(ctx && xs && xd && si >= 0 && si < ctx->manifest.NT, Family::Ctx,
               "le_render_kp_crop: bad args", nullptr);
  return renderOne(ctx, si, xs, xd, "le_render_kp_crop");
}

LE_API const float* le_render_drive_crop(le_ctx* ctx, int i) {
  using le::err::Family;
  le::err::clear(Family::Ctx);
  LE_CHECK_ARG(ctx && i >= 0 && i < ctx->drive.frames, Family::Ctx,
               "le_render_drive_crop: bad frame index", nullptr);
  const size_t row = static_cast<size_t>(i) * 3 * le::kHostKpRows;
  return renderOne(ctx, ctx->drive.si[static_cast<size_t>(i)], ctx->drive.xs.data() + row,
                   ctx->drive.xd.data() + row, "le_render_drive_crop");
}

LE_API const uint8_t* le_paste_last(le_ctx* ctx, int si) {
  using le::err::Family;
  le::err::clear(Family::Ctx);
  LE_CHECK_ARG(ctx && ctx->last_crop && si >= 0 && si < ctx->manifest.NT, Family::Ctx,
               "le_paste_last: bad args / no prior render", nullptr);
  return le::err::guard(Family::Ctx, "le_paste_last", static_cast<const uint8_t*>(nullptr), [&] {
    uint8_t* out = ctx->frame.data();
    ctx->cursor->pullAt(si, out);
    ctx->paste->composite(ctx->last_crop, 255.0f, ctx->identity.M(si), out, ctx->manifest.W,
                          ctx->manifest.H);
    return static_cast<const uint8_t*>(out);
  });
}

LE_API int le_render_kp_rgba(le_ctx* ctx, int si, const float* xs, const float* xd, uint8_t* out,
                             size_t out_bytes) {
  if (!ctx || !le_render_kp_crop(ctx, si, xs, xd)) return 0;
  return pasteLastRgba(ctx, si, out, out_bytes);
}

LE_API int le_render_drive_rgba(le_ctx* ctx, int i, uint8_t* out, size_t out_bytes) {
  if (!ctx || !le_render_drive_crop(ctx, i)) return 0;
  return pasteLastRgba(ctx, ctx->drive.si[static_cast<size_t>(i)], out, out_bytes);
}

}  // extern "C"
