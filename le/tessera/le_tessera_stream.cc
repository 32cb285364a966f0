#include "le/tessera/le_tessera_stream.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <utility>

#include "le/le_pool.h"

namespace le::tessera {
namespace {

// 1/255 as the write-back has always rounded it; the residual arithmetic depends on these bits.
constexpr float kInv255 = 0.003921569f;

int32_t checkedCanvas(const TeethPass& pass, const UnifiedPi& pi) {
  const int32_t w = pass.canvasW(), h = pass.canvasH();
  if (w != h)
    throw std::runtime_error("teeth stream: non-square compose canvas " + std::to_string(w) + "x" + std::to_string(h) +
                             " — le_core renders a square crop");
  if (pi.canvas != w)
    throw std::runtime_error("teeth stream: manifest pi canvas " + std::to_string(pi.canvas) +
                             " != bank compose canvas " + std::to_string(w) +
                             " — refusing to compose a mouth on a canvas the stamp does not name");
  return w;
}

// The window's byte in place of the crop value's 8-bit part: window * k - q + v, clamped.
inline float replaced(uint8_t window, float v) {
  const float q = float(piByte(v)) * kInv255;
  const float x = float(window) * kInv255 - q + v;
  return std::min(std::max(x, 0.f), 1.f);
}

void checkWindow(const FrameResult& r, const GeometryStamp& s) {
  const size_t want = size_t(s.window_w) * size_t(s.window_h) * 3;
  if (r.window.size() != want)
    throw std::runtime_error("teeth stream: window " + std::to_string(r.window.size()) +
                             " bytes does not match the stamp window " + std::to_string(s.window_h) + "x" +
                             std::to_string(s.window_w) + " — refusing to write back");
}

}  // namespace

StreamBorrow::StreamBorrow(BankData bank, HeadWeights head, ServeConfig config, const UnifiedPi& pi,
                           const std::string& lipTemplateText)
    : TeethPass(std::move(bank), std::move(head), std::move(config)),
      pi_(pi),
      cCanon_{cCanon()[0], cCanon()[1]},
      canvas_(checkedCanvas(*this, pi)) {
  rgb_.assign(size_t(canvas_) * size_t(canvas_) * 3, 0);
  // A shift moves the window by at most pad; nothing outside that reach is ever read.
  const GeometryStamp& s = stamp();
  r0_ = std::max(s.window_y0 - s.pad, 0);
  r1_ = std::max(std::min(s.window_y0 + s.window_h + s.pad, canvas_), r0_);
  c0_ = std::max(s.window_x0 - s.pad, 0);
  c1_ = std::max(std::min(s.window_x0 + s.window_w + s.pad, canvas_), c0_);
  mask_.assign(size_t(canvas_) * size_t(canvas_), 0);
  if (!lipTemplateText.empty()) {
    lip_ = std::make_unique<LipContour>(LipContour::fromTemplateJson(lipTemplateText, canvas_));
    std::fprintf(stderr,
                 "[borrow] delivery mask: LIP CONTOUR (%d verts, feather %.1f px) — the ellipse is not "
                 "reachable in this session\n",
                 lip_->nv(), double(lip_->featherPx()));
  } else {
    std::fprintf(stderr,
                 "[borrow] !!! delivery mask: ELLIPSE — this bundle carries no %s, so it serves the "
                 "over-covering elliptical mask the contour replaces. BACKFILL IT: "
                 "models/tamsine-2/tools/bake_lip_templates.py\n",
                 "lip_template.v1.json");
  }
}

bool StreamBorrow::push(const float* crop_f32, const float* kp, FrameResult& result) {
  const size_t n = size_t(canvas_) * size_t(canvas_), w = size_t(canvas_);
  uint8_t* rgb = rgb_.data();
  le::pool::parallelRange(size_t(r1_ - r0_), 16, [&](size_t b, size_t e) {
    for (size_t y = size_t(r0_) + b; y < size_t(r0_) + e; ++y)
      for (size_t c = 0; c < 3; ++c) {
        const float* plane = crop_f32 + c * n + y * w;
        uint8_t* row = rgb + y * w * 3;
        for (size_t x = size_t(c0_); x < size_t(c1_); ++x) row[x * 3 + c] = piByte(plane[x]);
      }
  });
  return pushSynth(kp, result);
}

bool StreamBorrow::pushRgba(const uint8_t* crop_rgba, const float* kp, FrameResult& result) {
  const size_t w = size_t(canvas_);
  for (size_t y = size_t(r0_); y < size_t(r1_); ++y)
    for (size_t x = size_t(c0_); x < size_t(c1_); ++x)
      for (size_t c = 0; c < 3; ++c) rgb_[(y * w + x) * 3 + c] = crop_rgba[(y * w + x) * 4 + c];
  return pushSynth(kp, result);
}

bool StreamBorrow::pushSynth(const float* kp, FrameResult& result) {
  Shift s;
  const bool found = lip_ ? lip_->deliveredU8AndShift(kp, pi_, cCanon_, mask_.data(), s.dy, s.dx)
                          : pi_.piU8AndShift(kp, cCanon_, mask_.data(), s.dy, s.dx);
  const bool emitted = TeethPass::push(counter_, rgb_.data(), mask_.data(), found ? &s : nullptr, result);
  ++counter_;
  return emitted;
}

void StreamBorrow::writeWindowDelta(float* crop, int32_t canvas, const FrameResult& r, const GeometryStamp& s) {
  if (r.skip) return;
  checkWindow(r, s);
  const size_t plane = size_t(canvas) * size_t(canvas);
  for (int32_t y = 0; y < s.window_h; ++y) {
    const uint8_t* w = r.window.data() + size_t(y) * size_t(s.window_w) * 3;
    const size_t row = size_t(s.window_y0 + y) * size_t(canvas) + size_t(s.window_x0);
    for (int32_t x = 0; x < s.window_w; ++x)
      for (int c = 0; c < 3; ++c) {
        float& v = crop[size_t(c) * plane + row + size_t(x)];
        v = replaced(w[size_t(x) * 3 + size_t(c)], v);
      }
  }
}

void StreamBorrow::writeWindowDeltaRgba(uint8_t* crop, int32_t canvas, const FrameResult& r,
                                        const GeometryStamp& s) {
  const size_t n = size_t(canvas) * size_t(canvas);
  for (size_t i = 0; i < n; ++i) crop[i * 4 + 3] = 255;
  if (r.skip) return;
  checkWindow(r, s);
  for (int32_t y = 0; y < s.window_h; ++y) {
    const uint8_t* w = r.window.data() + size_t(y) * size_t(s.window_w) * 3;
    uint8_t* px = crop + (size_t(s.window_y0 + y) * size_t(canvas) + size_t(s.window_x0)) * 4;
    for (int32_t x = 0; x < s.window_w; ++x)
      for (int c = 0; c < 3; ++c) {
        uint8_t& b = px[size_t(x) * 4 + size_t(c)];
        b = piByte(replaced(w[size_t(x) * 3 + size_t(c)], float(b) / 255.f));
      }
  }
}

int StreamBorrow::hostSplit(void*) const { return 0; }

}  // namespace le::tessera
