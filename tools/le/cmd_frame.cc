// le frame BUNDLE -o OUT.png: one frame rendered and pasted through the engine's flat interface.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_bundle.h"
#include "le/le_image.h"
#include "le/tessera/le_lip_contour.h"
#include "tools/le/le_cli.h"
#include "tools/le/le_host.h"

namespace le::cli {
namespace {

const char kHelp[] =
    "usage: le frame BUNDLE -o OUT.png [--drive I | --si S] [--open AMOUNT] [options]\n"
    "\n"
    "Renders one face crop with the bundle's director, pastes it into its full frame and\n"
    "writes the frame as PNG.\n"
    "\n"
    "  -o, --output PATH   the PNG to write\n"
    "  --drive I           drive frame I of the idle track: its source frame and keypoints\n"
    "                      (default 0)\n"
    "  --si S              source frame S with its own target keypoints (xs_target.bin) as both\n"
    "                      source and driven keypoints\n"
    "  --open AMOUNT       opens the mouth: moves the lip keypoints of the driven set apart by\n"
    "                      AMOUNT (0 keeps them, 1 is a wide-open mouth)\n"
    "  --model KEY         director member model_KEY.onnx (default b1)\n"
    "  --threads N         director threads (default: the engine's choice)\n"
    "  --ep EP             execution provider request (default: the CPU provider)\n"
    "  --lip PATH          also writes the lip delivery of the frame as PNG: the rendered crop,\n"
    "                      and beside it the lip contour plane the director's compose alpha is\n"
    "                      cut to (needs a bundle with lip_template.v1.json)\n";

// Keypoint rows of the lips: the upper ones move up, the lower ones down.
constexpr int kUpperLip[] = {6, 19}, kLowerLip[] = {12, 20};
// Rows that give the face's vertical axis: forehead and chin, 1.22 face units apart.
constexpr int kForehead = 13, kChin = 0;
constexpr float kForeheadToChin = 1.22f, kLipTravel = 0.055f;

// Moves the lips of xd apart along the face's own vertical axis, so a tilted head opens its
// mouth the way it is tilted.
void openMouth(std::vector<float>& xd, float amount) {
  const float dx = (xd[3 * kChin] - xd[3 * kForehead]) / kForeheadToChin;
  const float dy = (xd[3 * kChin + 1] - xd[3 * kForehead + 1]) / kForeheadToChin;
  const float step = kLipTravel * amount;
  for (int k : kUpperLip) xd[3 * k] -= step * dx, xd[3 * k + 1] -= step * dy;
  for (int k : kLowerLip) xd[3 * k] += step * dx, xd[3 * k + 1] += step * dy;
}

// The crop, and beside it the contour plane in grey with the crop showing through where the
// plane lets the face in.
void writeLipDelivery(const std::string& path, const tessera::LipContour& lc, const float* crop, const float* xd) {
  const size_t n = size_t(lc.canvas()), plane = n * n;
  std::vector<float> lip(plane);
  lc.contourF32Canvas(xd, lip.data());
  std::vector<uint8_t> rgb(plane * 6);
  auto byte = [](float v) { return uint8_t(std::lround(std::clamp(v, 0.f, 1.f) * 255.f)); };
  for (size_t y = 0; y < n; ++y)
    for (size_t x = 0; x < n; ++x) {
      const size_t i = y * n + x;
      uint8_t* left = &rgb[(y * 2 * n + x) * 3];
      uint8_t* right = left + n * 3;
      for (int c = 0; c < 3; ++c) {
        left[c] = byte(crop[c * plane + i]);
        right[c] = byte(0.25f * crop[c * plane + i] * (1.f - lip[i]) + lip[i] * (0.35f + 0.65f * crop[c * plane + i]));
      }
    }
  writePNG(path, rgb.data(), int(2 * n), int(n));
  std::fprintf(stderr, "wrote %s: the crop and its lip contour (%d vertices, feather %.1f px)\n", path.c_str(), lc.nv(),
               double(lc.featherPx()));
}

float parseAmount(const std::string& s) {
  char* end = nullptr;
  const float v = std::strtof(s.c_str(), &end);
  if (s.empty() || *end != '\0' || !std::isfinite(v) || v < -1.0f || v > 4.0f)
    throw UsageError("--open wants a number in [-1, 4], got '" + s + "'");
  return v;
}

}  // namespace

int cmdFrame(const std::vector<std::string>& argv) {
  std::vector<std::string> args0;
  for (const std::string& a : argv) args0.push_back(a == "-o" ? "--output" : a);
  const Args args(args0, {}, {"output", "drive", "si", "open", "model", "threads", "ep", "lip"});
  if (args.help()) {
    std::fputs(kHelp, stdout);
    return kOk;
  }
  if (args.positional().size() != 1) throw UsageError("wants exactly one bundle");
  if (!args.has("output")) throw UsageError("wants -o OUT.png");
  if (args.has("drive") && args.has("si")) throw UsageError("--drive and --si exclude each other");
  const std::string bundle = args.positional()[0], out = args.str("output", "");
  const float open = args.has("open") ? parseAmount(args.str("open", "")) : 0.0f;
  const std::string model = args.str("model", "b1"), ep = args.str("ep", "");
  const int threads = args.integer("threads", 0, 0, 256);

  const Manifest m = loadManifest(bundle);
  std::unique_ptr<tessera::LipContour> lips;
  if (args.has("lip")) {
    if (m.lip_template.empty())
      throw std::runtime_error("--lip: " + m.dir + " carries no lip_template.v1.json, so the director serves its own ellipse");
    lips = std::make_unique<tessera::LipContour>(tessera::LipContour::fromTemplateJson(m.lip_template, m.crop));
  }
  const CtxPtr ctx = openContext(bundle, model, threads, ep);

  int si = 0;
  std::vector<float> xs, xd;
  if (args.has("si")) {
    si = args.integer("si", 0, 0, m.NT - 1);
    const std::vector<float> target = readRaw(resolveMember(m.dir, "xs_target.bin"), size_t(m.NT) * 63);
    xs.assign(target.begin() + 63 * si, target.begin() + 63 * (si + 1));
    xd = xs;
  } else {
    const Drive d = loadDrive(m);
    if (d.frames < 1) throw std::runtime_error("the bundle has no drive frames; use --si");
    const int i = args.integer("drive", 0, 0, d.frames - 1);
    si = d.si[size_t(i)];
    xs.assign(d.xs.begin() + 63 * i, d.xs.begin() + 63 * (i + 1));
    xd.assign(d.xd.begin() + 63 * i, d.xd.begin() + 63 * (i + 1));
  }
  if (open != 0.0f) openMouth(xd, open);

  const float* crop = le_render_kp_crop(ctx.get(), si, xs.data(), xd.data());
  if (!crop) throw std::runtime_error(engineError());
  if (lips) writeLipDelivery(args.str("lip", ""), *lips, crop, xd.data());
  const uint8_t* frame = le_paste_last(ctx.get(), si);
  if (!frame) throw std::runtime_error(engineError());
  writePNG(out, frame, le_width(ctx.get()), le_height(ctx.get()));
  std::fprintf(stderr, "wrote %s: source frame %d, %dx%d\n", out.c_str(), si, le_width(ctx.get()),
               le_height(ctx.get()));
  return kOk;
}

}  // namespace le::cli
