// le info BUNDLE: what the engine sees in a bundle, refusals in the engine's own words.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_a2x.h"
#include "le/le_bundle.h"
#include "le/le_driver.h"
#include "le/le_imx.h"
#include "tools/le/le_cli.h"

namespace le::cli {
namespace {

const char kHelp[] =
    "usage: le info BUNDLE\n"
    "\n"
    "Prints what the engine sees in BUNDLE (a directory or an .imx container): the\n"
    "manifest values, every member with the name it resolves to and its size against the\n"
    "size the manifest implies, the warp prior, the drive source, and the engine's refusals\n"
    "in its own words (what le_create says). Exit status 1 when the engine refuses the bundle.\n";

long long fileSize(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return -1;
  return static_cast<long long>(st.st_size);
}

std::string relative(const std::string& dir, const std::string& path) {
  const std::string prefix = dir + "/";
  return path.compare(0, prefix.size(), prefix) == 0 ? path.substr(prefix.size()) : path;
}

struct Row {
  std::string name;
  long long expected;  // -1: any size; -2: at least `min`
  long long min = 0;
};

// A manifest string value naming a member, or def; ambiguity is reported by the loaders.
std::string memberKey(const std::string& text, const char* key, const std::string& def) {
  std::string v = def;
  try {
    le::optStr(text, key, v);
  } catch (const std::exception&) {
  }
  return v;
}

}  // namespace

int cmdInfo(const std::vector<std::string>& argv) {
  const Args args(argv, {}, {});
  if (args.help()) {
    std::fputs(kHelp, stdout);
    return kOk;
  }
  if (args.positional().size() != 1) throw UsageError("wants exactly one bundle");
  const std::string bundle = args.positional()[0];
  std::vector<std::string> refusals;

  std::printf("bundle      %s\n", bundle.c_str());
  const std::string dir = le::resolveBundlePath(bundle);
  std::printf("directory   %s%s\n", dir.c_str(), dir != bundle ? "  (unwrapped container)" : "");
  struct stat st;
  if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) throw std::runtime_error(bundle + " is neither a bundle directory nor a container");

  le::Manifest m;
  bool haveManifest = false;
  try {
    m = le::loadManifest(dir);
    haveManifest = true;
    std::printf("manifest\n");
    std::printf("  agent     %s\n", m.agent.c_str());
    std::printf("  NT        %d source frames\n", m.NT);
    std::printf("  frame     %dx%d\n", m.W, m.H);
    std::printf("  crop      %d\n", m.crop);
    std::printf("  stamp     %dx%d%s\n", m.M_src_w, m.M_src_h,
                m.M_src_w == m.W && m.M_src_h == m.H ? "" : "  (M is rescaled to the frame)");
    std::printf("  unsharp   amount %g, sigma %g, ksize %d\n", m.unsharp.amount, m.unsharp.sigma, m.unsharp.ksize);
    std::printf("  frames    %d drive frames\n", m.frames);
    if (!m.lip_template.empty()) std::printf("  lips      lip template of %zu bytes\n", m.lip_template.size());
  } catch (const std::exception& e) {
    std::printf("manifest    REFUSED: %s\n", e.what());
    refusals.push_back(e.what());
  }

  std::string text;
  try {
    text = le::readFile(dir + "/manifest.json");
  } catch (const std::exception&) {
  }
  const long long nt = haveManifest ? m.NT : -1, c2 = haveManifest ? 1LL * m.crop * m.crop : -1;
  const long long fr = haveManifest ? m.frames : -1;
  auto times = [&](long long n, long long k) { return n < 0 ? -1 : n * k; };
  const std::string pRaw = memberKey(text, "P_rgb", "P.f16");
  const std::string pHevc = memberKey(text, "P_hevc", "P_hevc.mov");
  const std::string jpgDir = memberKey(text, "target_frames", "target_frames");
  const std::string mp4 = memberKey(text, "target_frames_mp4", "target_frames.mp4");
  std::vector<Row> rows = {
      {"manifest.json", -1},
      {pRaw, times(nt, 6 * c2)},
      {pHevc, -1},
      {"pooled64.f16", times(nt, 131072)},
      {"fs_red.f16", times(nt, 524288)},
      {"M.f32", times(nt, 24)},
      {"mask_512.u8", -2, c2},
      {"xs_target.bin", times(nt, 252)},
      {"drive/xs.f32", times(fr, 252)},
      {"drive/xd.f32", times(fr, 252)},
      {"drive/si.i32", times(fr, 4)},
      {"lip_template.v1.json", -1},
      {"a2x_meta.json", -1},
      {"a2x_pos.f32", -1},
      {"a2x_norm.f32", -1},
      {"a2x_enc_stream.onnx", -1},
      {"a2x_dec.onnx", -1},
      {"w2v/audio_encoder_fp16.onnx", -1},
      {"w2v/audio_encoder_fp16_window_trunk.onnx", -1},
      {"w2v/audio_encoder_fp16_window_head.onnx", -1},
      {mp4, -1},
  };
  // director models, under either spelling
  std::error_code ec;
  std::vector<std::string> models;
  for (const auto& e : std::filesystem::directory_iterator(dir, ec)) {
    const std::string n = e.path().filename().string();
    const bool onnx = n.size() > 5 && n.compare(n.size() - 5, 5, ".onnx") == 0;
    if (onnx && (n.rfind("model_", 0) == 0 || n.rfind("render_model.", 0) == 0)) models.push_back(n);
  }
  std::sort(models.begin(), models.end());
  for (const std::string& n : models) rows.push_back({n, -1});

  std::printf("members\n");
  int nameWidth = 22;
  for (const Row& r : rows) nameWidth = std::max(nameWidth, static_cast<int>(r.name.size()));
  for (const Row& r : rows) {
    const std::string path = le::resolveMember(dir, r.name);
    const long long size = fileSize(path);
    if (size < 0) {
      std::printf("  %-*s missing\n", nameWidth, r.name.c_str());
      continue;
    }
    std::string note;
    if (r.expected >= 0) note = size == r.expected ? "ok" : "SIZE MISMATCH, the manifest implies " + std::to_string(r.expected);
    if (r.expected == -2 && r.min >= 0) note = size >= r.min ? "ok" : "SHORT, the manifest implies " + std::to_string(r.min);
    const std::string shown = relative(dir, path);
    std::printf("  %-*s %-32s %12lld bytes  %s\n", nameWidth, r.name.c_str(), shown == r.name ? "" : ("-> " + shown).c_str(), size, note.c_str());
  }
  if (nt > 0) {
    int stills = 0;
    for (int i = 0; i < nt; ++i) {
      char name[64];
      std::snprintf(name, sizeof name, "/frame_%06d.jpg", i);
      stills += le::canOpenForRead(dir + "/" + jpgDir + name);
    }
    if (stills == 0)
      std::printf("  %-*s missing\n", nameWidth, (jpgDir + "/").c_str());
    else
      std::printf("  %-*s %d of %lld stills%s\n", nameWidth, (jpgDir + "/").c_str(), stills, nt, stills == nt ? "" : ", INCOMPLETE");
  }

  if (haveManifest) {
    // The sources as the engine opens them: the first frame must decode.
    auto probe = [&](const char* what, bool prior) {
      try {
        auto c = prior ? DriverCursor::openPrior(m, 1, 0) : DriverCursor::open(m, 1, 0);
        std::vector<uint8_t> frame(c->frameBytes);
        c->pullAt(0, frame.data());
        std::printf("%-11s %s, %d frames %dx%d, frame 0 decodes\n", what, c->name.c_str(), c->NT, c->W, c->H);
      } catch (const std::exception& e) {
        std::printf("%-11s REFUSED: %s\n", what, e.what());
        refusals.push_back(e.what());
      }
    };
    std::fflush(stdout);
    if (le::canOpenForRead(le::resolveMember(dir, pRaw)))
      std::printf("warp prior  mmap %s\n", pRaw.c_str());
    else if (le::canOpenForRead(le::resolveMember(dir, pHevc)))
      probe("warp prior", true);
    else if (le::canOpenForRead(le::resolveMember(dir, "fs_red.f16")))
      std::printf("warp prior  none: fs_red.f16 feeds the director instead\n");
    else
      std::printf("warp prior  none\n");
    std::fflush(stdout);
    probe("drive", false);
  }

  // The verdict of a whole context: identity tables, drive track, mask, compositor, cursor.
  std::fflush(stdout);
  if (le_ctx* ctx = le_create(bundle.c_str(), "b1", 1, nullptr)) {
    std::printf("engine      le_create accepts this bundle (NT %d, %d drive frames)\n", le_nt(ctx), le_drive_frames(ctx));
    le_destroy(ctx);
  } else {
    std::printf("engine      REFUSED: %s\n", le_last_error());
    refusals.push_back(le_last_error());
  }

  // The audio stream, when the bundle has one: what le_a2x_create says.
  if (le::canOpenForRead(dir + "/a2x_meta.json")) {
    const std::string w2v = defaultW2v(dir);
    std::fflush(stdout);
    if (le_a2x* a = le_a2x_create(bundle.c_str(), 1)) {
      std::printf("audio       le_a2x_create accepts this bundle (speech encoder %s, width output %s)\n",
                  w2v.c_str(), le_a2x_width(a) ? "yes" : "no");
      le_a2x_destroy(a);
    } else {
      std::printf("audio       REFUSED: %s\n", le_a2x_last_error());
      refusals.push_back(le_a2x_last_error());
    }
  } else {
    std::printf("audio       none (no a2x_meta.json)\n");
  }

  if (!refusals.empty()) std::fprintf(stderr, "le info: the engine refuses this bundle: %s\n", refusals.front().c_str());
  return refusals.empty() ? kOk : kFailed;
}

}  // namespace le::cli
