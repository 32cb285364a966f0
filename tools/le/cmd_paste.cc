// le paste BUNDLE -o OUT.mp4: the engine pastes each source frame's prior crop into its drive
// frame, and the frames become an H.264 movie.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_bundle.h"
#include "le/le_simd.h"
#include "tools/forge/forge_movie.h"
#include "tools/le/le_cli.h"
#include "tools/le/le_host.h"

namespace le::cli {
namespace {

const char kHelp[] =
    "usage: le paste BUNDLE -o OUT.mp4 [options]\n"
    "\n"
    "Opens an engine context on BUNDLE (a directory or an .imx container) and plays its idle\n"
    "drive track: for every drive frame the warp-prior crop of its source frame is pasted\n"
    "into that source frame's full drive frame through the bundle's paste transform and mask.\n"
    "The frames are written as an H.264 MP4 (yuv420p, 25 frames per second).\n"
    "\n"
    "options:\n"
    "  -o, --output FILE   the movie to write (required)\n"
    "  --frames N          frames to write (default: the drive track's length; the track\n"
    "                      loops when N is longer)\n"
    "  --threads N         engine thread budget (default: the engine's choice)\n"
    "  --crf N             H.264 quality, 0 (lossless) .. 51 (default 18)\n"
    "  --quiet             no progress bar on standard error\n";

}  // namespace

int cmdPaste(const std::vector<std::string>& argv) {
  // "-o" is the conventional short spelling of --output
  std::vector<std::string> args2;
  for (const std::string& a : argv) args2.push_back(a == "-o" ? "--output" : a);
  const Args args(args2, {"quiet"}, {"output", "frames", "threads", "crf"});
  if (args.help()) {
    std::fputs(kHelp, stdout);
    return kOk;
  }
  if (args.positional().size() != 1) throw UsageError("wants exactly one bundle");
  if (!args.has("output")) throw UsageError("wants an output movie: -o OUT.mp4");
  const std::string bundle = args.positional()[0];
  const std::string out = args.str("output", "");
  const int threads = args.integer("threads", 0, 0, 256);
  const int crf = args.integer("crf", 18, 0, 51);
  const int wanted = args.integer("frames", -1, 1, 10000000);

  const CtxPtr ctx = openContext(bundle, "b1", threads);
  // The prior rows and the drive track come from the same bundle the context opened.
  const Manifest manifest = loadManifest(bundle);
  const Identity identity(manifest);
  if (!identity.hasP() && identity.priorPath().empty())
    throw std::runtime_error("this bundle's warp prior is fs_red.f16 alone: it holds no picture to paste (" +
                             manifest.dir + ")");
  const Drive drive = loadDrive(manifest);
  const int W = le_width(ctx.get()), H = le_height(ctx.get()), crop = le_crop(ctx.get());
  const int n = wanted > 0 ? wanted : drive.frames;
  if (n < 1) throw std::runtime_error("the bundle's drive track has no frames; pass --frames N");
  forge::MovieWriter movie(out, h264Spec(W, H, crf));

  const size_t plane = static_cast<size_t>(crop) * crop;
  std::vector<float> planes(plane * 3);
  std::vector<uint8_t> frame(static_cast<size_t>(W) * H * 3);
  Progress bar("paste", n, !args.flag("quiet"));
  bar.update(0);
  for (int i = 0; i < n; ++i) {
    const int si = drive.frames > 0 ? drive.si[i % drive.frames] : i % manifest.NT;
    halfToFloat(identity.P(si), planes.data(), planes.size());
    if (!le_paste_crop(ctx.get(), si, planes.data(), frame.data(), frame.size()))
      throw std::runtime_error(engineError());
    movie.write(frame.data());
    bar.update(i + 1);
  }
  movie.finish();
  bar.finish();
  if (!args.flag("quiet"))
    std::fprintf(stderr, "wrote %s: %d frames %dx%d at 25 fps\n", out.c_str(), n, W, H);
  return kOk;
}

}  // namespace le::cli
