// le frame BUNDLE -o OUT.png: one frame rendered and pasted through the engine's flat interface.
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
#include "tools/le/le_cli.h"

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
    "  --ep EP             execution provider request (default: the CPU provider)\n";

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

std::string lastError() { return le_last_error(); }

struct CtxDeleter {
  void operator()(le_ctx* c) const { le_destroy(c); }
};

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
  const Args args(args0, {}, {"output", "drive", "si", "open", "model", "threads", "ep"});
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

  std::unique_ptr<le_ctx, CtxDeleter> ctx(le_create(bundle.c_str(), model.c_str(), threads, ep.c_str()));
  if (!ctx) throw std::runtime_error(lastError());
  const Manifest m = loadManifest(bundle);

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

  if (!le_render_kp_crop(ctx.get(), si, xs.data(), xd.data())) throw std::runtime_error(lastError());
  const uint8_t* frame = le_paste_last(ctx.get(), si);
  if (!frame) throw std::runtime_error(lastError());
  writePNG(out, frame, le_width(ctx.get()), le_height(ctx.get()));
  std::fprintf(stderr, "wrote %s: source frame %d, %dx%d\n", out.c_str(), si, le_width(ctx.get()),
               le_height(ctx.get()));
  return kOk;
}

}  // namespace le::cli
