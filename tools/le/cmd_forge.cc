// le forge DIR [options]: write a bundle of the drawn face.
#include <cstdio>
#include <memory>

#include "tools/forge/forge.h"
#include "tools/forge/imx_pack.h"
#include "tools/le/le_cli.h"

namespace le::cli {
namespace {
using forge::DriveMedia;
using forge::Prior;

const char kHelp[] =
    "usage: le forge DIR [options]\n"
    "\n"
    "Writes a complete bundle of a procedurally drawn stylised face into DIR.\n"
    "The same options always give the same bytes.\n"
    "\n"
    "options:\n"
    "  --nt N              identity (source) frames (default 25)\n"
    "  --frames N          drive frames of the idle track (default 50)\n"
    "  --size WxH          full frame size (default 640x360)\n"
    "  --crop N            face crop side (default 256)\n"
    "  --prior KIND        warp prior: raw (P.f16), hevc (P_hevc.mov), fs_red (fs_red.f16 only)\n"
    "                      (default raw)\n"
    "  --fs-red            also write fs_red.f16 beside a picture prior\n"
    "  --drive KIND        drive frames: stills (target_frames/), mp4 (target_frames.mp4),\n"
    "                      both, none (default stills)\n"
    "  --alt-names         newer member names (source_frames.f16, idle_loop/, ...)\n"
    "  --frame-count-key   manifest says \"frame_count\" instead of \"NT\"\n"
    "  --crop-size-key     manifest says \"crop_size\" instead of \"crop\"\n"
    "  --long-stamp-keys   manifest says \"paste_source_width/height\" instead of \"M_src_w/h\"\n"
    "  --stamp S           paste-space stamp: canvas (W x H), none, or WxH of another canvas\n"
    "                      (M.f32 is then written in that canvas) (default canvas)\n"
    "  --unsharp A,S,K     unsharp amount, sigma, ksize (default 1.3,2,13)\n"
    "  --lips KIND         mouth region: none, unified (the manifest's \"unified\" pi block),\n"
    "                      template (also lip_template.v1.json, measured on the face's lips),\n"
    "                      learned (the template with a learned map) (default none)\n"
    "  --seed N            picture seed (default 1)\n"
    "  --break NAME        write a deliberately broken bundle; repeatable; --break list\n"
    "                      prints the names\n"
    "  --imx               also pack the bundle into the container DIR.imx\n"
    "  --no-directors      leave out the director models (model_b1.onnx, ...)\n"
    "  --no-motion         leave out the motion directory (motion/: the speech-driven generator)\n"
    "  --no-tessera        leave out the mouth-interior borrow members (tessera_bank.v1.mp4, ...)\n"
    "  --tessera-donors N  donor mouth patches in the borrow bank (default 64, at most 1024)\n"
    "  --no-audio          leave out the audio members (w2v/ speech encoders, a2x_*)\n"
    "  --force             replace DIR when it exists and is not empty\n"
    "  --quiet             no progress on standard error\n";

forge::Prior priorOf(const std::string& s) {
  if (s == "raw") return Prior::Raw;
  if (s == "hevc") return Prior::Hevc;
  if (s == "fs_red") return Prior::FsRedOnly;
  throw UsageError("--prior wants raw, hevc or fs_red, got '" + s + "'");
}

forge::Lips lipsOf(const std::string& s) {
  if (s == "none") return forge::Lips::None;
  if (s == "unified") return forge::Lips::Unified;
  if (s == "template") return forge::Lips::Template;
  if (s == "learned") return forge::Lips::Learned;
  throw UsageError("--lips wants none, unified, template or learned, got '" + s + "'");
}

forge::DriveMedia driveOf(const std::string& s) {
  if (s == "stills") return DriveMedia::Stills;
  if (s == "mp4") return DriveMedia::Movie;
  if (s == "both") return DriveMedia::Both;
  if (s == "none") return DriveMedia::None;
  throw UsageError("--drive wants stills, mp4, both or none, got '" + s + "'");
}

void unsharpOf(const std::string& s, forge::Params& p) {
  float a = 0, sg = 0;
  int k = 0;
  char tail = 0;
  if (std::sscanf(s.c_str(), "%f,%f,%d%c", &a, &sg, &k, &tail) != 3 || k < 1 || sg <= 0)
    throw UsageError("--unsharp wants AMOUNT,SIGMA,KSIZE (e.g. 1.3,2,13), got '" + s + "'");
  p.amount = a;
  p.sigma = sg;
  p.ksize = k;
}

}  // namespace

int cmdForge(const std::vector<std::string>& argv) {
  using namespace le::forge;
  const Args args(argv, {"fs-red", "alt-names", "frame-count-key", "crop-size-key", "long-stamp-keys", "imx", "force", "quiet", "no-directors", "no-motion",
                   "no-tessera", "no-audio"},
                  {"nt", "frames", "size", "crop", "prior", "drive", "stamp", "unsharp", "seed", "break", "lips", "tessera-donors"});
  if (args.help()) {
    std::fputs(kHelp, stdout);
    return kOk;
  }
  for (const std::string& b : args.all("break"))
    if (b == "list") {
      for (const auto& [name, value] : breakNames()) std::printf("%s\n", name);
      return kOk;
    }
  if (args.positional().size() != 1) throw UsageError("wants exactly one bundle directory");
  const std::string dir = args.positional()[0];

  Params p;
  p.nt = args.integer("nt", 25, 1, 100000);
  p.frames = args.integer("frames", 50, 0, 10000000);
  p.width = 640;
  p.height = 360;
  if (args.has("size")) parseSize("size", args.str("size", ""), p.width, p.height);
  p.crop = args.integer("crop", 256, 2, 1024);
  p.prior = priorOf(args.str("prior", "raw"));
  p.fsRed = args.flag("fs-red");
  p.drive = driveOf(args.str("drive", "stills"));
  p.alternativeNames = args.flag("alt-names");
  p.frameCountKey = args.flag("frame-count-key");
  p.cropSizeKey = args.flag("crop-size-key");
  p.longStampKeys = args.flag("long-stamp-keys");
  const std::string stamp = args.str("stamp", "canvas");
  if (stamp == "canvas") {
    p.stamp = Stamp::Canvas;
  } else if (stamp == "none") {
    p.stamp = Stamp::None;
  } else {
    p.stamp = Stamp::Other;
    parseSize("stamp", stamp, p.stampWidth, p.stampHeight);
  }
  if (args.has("unsharp")) unsharpOf(args.str("unsharp", ""), p);
  p.lips = lipsOf(args.str("lips", "none"));
  p.seed = static_cast<uint32_t>(args.integer("seed", 1, 0, 2147483647));
  for (const std::string& b : args.all("break")) {
    bool found = false;
    for (const auto& [name, value] : breakNames())
      if (b == name) {
        p.breaks.push_back(value);
        found = true;
      }
    if (!found) throw UsageError("unknown break '" + b + "' (--break list prints the names)");
  }
  if (p.drive != DriveMedia::Stills && p.drive != DriveMedia::None && (p.width % 2 || p.height % 2))
    throw UsageError("--drive mp4 needs an even frame size, got " + std::to_string(p.width) + "x" + std::to_string(p.height));
  p.replace = args.flag("force");
  p.directors = !args.flag("no-directors");
  p.motion = !args.flag("no-motion");
  p.tessera = !args.flag("no-tessera");
  p.tesseraDonors = args.integer("tessera-donors", 64, 1, 1024);
  p.audio = !args.flag("no-audio");

  const bool quiet = args.flag("quiet");
  std::unique_ptr<Progress> bar;
  std::string stage;
  if (!quiet) {
    p.progress = [&](const std::string& what, int done, int total) {
      if (what != stage) {
        if (bar) bar->finish();
        stage = what;
        bar = std::make_unique<Progress>(what, total, true);
      }
      bar->update(done);
    };
  }
  const forge::Result r = forgeBundle(dir, p);
  if (bar) bar->finish();
  if (args.flag("imx")) {
    std::string stem = dir;
    while (stem.size() > 1 && stem.back() == '/') stem.pop_back();
    const size_t n = forge::packImx(dir, stem + ".imx");
    if (!quiet) std::fprintf(stderr, "packed %zu members into %s.imx\n", n, stem.c_str());
  }
  if (!quiet) std::fprintf(stderr, "forged %s: %zu members, NT %d, %dx%d, crop %d, %d drive frames\n", dir.c_str(), r.members.size(), p.nt, p.width, p.height, p.crop, p.frames);
  return kOk;
}

}  // namespace le::cli
