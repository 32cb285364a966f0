#include "tools/forge/forge.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "le/le_bundle.h"
#include "le/le_simd.h"
#include "tools/forge/director_members.h"
#include "tools/forge/forge_lip.h"
#include "tools/forge/forge_motion.h"
#include "tools/forge/forge_audio.h"
#include "tools/forge/forge_movie.h"
#include "tools/forge/forge_tessera.h"

namespace fs = std::filesystem;

namespace le::forge {
namespace {

constexpr double kTwoPi = 6.28318530717958647692;
constexpr size_t kPooledRow = 65536, kFsRedRow = 262144;

std::string num(float v) {
  char buf[32];
  auto r = std::to_chars(buf, buf + sizeof buf, v);
  return std::string(buf, r.ptr);
}

// Member names in the spelling the parameters ask for: the engine's own alternatives.
struct Names {
  bool alt;
  std::string of(const std::string& canonical) const {
    const std::string a = alt ? le::alternativeMemberName(canonical) : std::string();
    return a.empty() ? canonical : a;
  }
};

inline uint64_t mix64(uint64_t z) {
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

// A member written row by row, so tables of gigabytes never sit in memory; the breaks cut
// the last byte or add one at the end.
class RowFile {
 public:
  RowFile(const std::string& path, bool shortOne, bool longOne)
      : path_(path), shortOne_(shortOne), longOne_(longOne) {
    const fs::path fp(path);
    std::error_code ec;
    if (fp.has_parent_path()) fs::create_directories(fp.parent_path(), ec);
    f_.open(path, std::ios::binary | std::ios::trunc);
    if (!f_) throw std::runtime_error("forge: cannot write " + path);
  }
  template <class T>
  void row(const std::vector<T>& v) {
    f_.write(reinterpret_cast<const char*>(v.data()), static_cast<std::streamsize>(v.size() * sizeof(T)));
    bytes_ += v.size() * sizeof(T);
  }
  void close() {
    if (longOne_) f_.put('\0');
    f_.close();
    if (!f_) throw std::runtime_error("forge: short write " + path_);
    if (shortOne_ && bytes_ > 0) fs::resize_file(path_, bytes_ - 1);
  }

 private:
  std::string path_;
  bool shortOne_, longOne_;
  std::ofstream f_;
  uint64_t bytes_ = 0;
};

// A feature table: a fixed random pattern per column that drifts smoothly with the frame.
void writeFeatureTable(const Params& p, RowFile& out, size_t rowLen, uint64_t salt) {
  std::vector<float> base(rowLen), phase(rowLen);
  for (size_t j = 0; j < rowLen; ++j) {
    const uint64_t h = mix64((static_cast<uint64_t>(p.seed) << 40) ^ (salt << 32) ^ j);
    base[j] = static_cast<float>((h & 0xFFFF) / 65536.0 - 0.5);
    phase[j] = static_cast<float>(((h >> 16) & 0xFFFF) / 65536.0 * kTwoPi);
  }
  std::vector<uint16_t> row(rowLen);
  for (int si = 0; si < p.nt; ++si) {
    const float ph = static_cast<float>(kTwoPi * si / p.nt);
    for (size_t j = 0; j < rowLen; ++j) row[j] = le::f32ToF16(base[j] + 0.1f * std::sin(ph + phase[j]));
    out.row(row);
  }
  out.close();
}

// Cuts the last byte (short) or appends one (long) as the breaks ask.
std::vector<uint8_t> sized(std::vector<uint8_t> b, bool shortOne, bool longOne = false) {
  if (shortOne && !b.empty()) b.pop_back();
  if (longOne) b.push_back(0);
  return b;
}

// Planar R, G, B halves in [0, 1] of a packed RGB crop.
std::vector<uint16_t> planarHalves(const std::vector<uint8_t>& rgb, size_t pixels) {
  std::vector<uint16_t> out(pixels * 3);
  le::simd::rgb8ToPlanarF16(rgb.data(), out.data(), pixels, pixels);
  return out;
}

// The left w columns of a packed RGB image.
std::vector<uint8_t> narrower(const std::vector<uint8_t>& rgb, int W, int H, int w) {
  std::vector<uint8_t> out(static_cast<size_t>(w) * H * 3);
  for (int y = 0; y < H; ++y)
    std::memcpy(&out[static_cast<size_t>(y) * w * 3], &rgb[static_cast<size_t>(y) * W * 3], static_cast<size_t>(w) * 3);
  return out;
}

class Writer {
 public:
  Writer(const std::string& dir, Result& r) : dir_(dir), r_(r) {}
  std::string path(const std::string& name) const { return dir_ + "/" + name; }
  void put(const std::string& name, const std::vector<uint8_t>& bytes) {
    writeBytes(path(name), bytes);
    r_.members.push_back(name);
  }
  void noted(const std::string& name) { r_.members.push_back(name); }

 private:
  std::string dir_;
  Result& r_;
};

void prepareDir(const std::string& dir, bool replace) {
  std::error_code ec;
  if (fs::exists(dir, ec)) {
    if (!fs::is_directory(dir, ec)) throw std::runtime_error("forge: " + dir + " exists and is not a directory");
    if (!fs::is_empty(dir, ec)) {
      if (!replace) throw std::runtime_error("forge: " + dir + " exists and is not empty");
      fs::remove_all(dir, ec);
      if (ec) throw std::runtime_error("forge: cannot remove " + dir + " (" + ec.message() + ")");
    }
  }
  fs::create_directories(dir, ec);
  if (ec || !fs::is_directory(dir)) throw std::runtime_error("forge: cannot create " + dir);
}

void writeDriveMedia(const Params& p, Writer& w) {
  const bool stills = p.drive == DriveMedia::Stills || p.drive == DriveMedia::Both;
  const bool movie = p.drive == DriveMedia::Movie || p.drive == DriveMedia::Both;
  if (!stills && !movie) return;
  std::unique_ptr<MovieWriter> mw;
  int movieW = p.width;
  if (movie) {
    MovieSpec spec;
    spec.encoder = "libx264";
    spec.chroma = p.has(Break::MovieYuv422) ? Chroma::Yuv422 : Chroma::Yuv420;
    movieW = p.has(Break::MovieWrongSize) ? p.width - 2 : p.width;
    spec.width = movieW;
    spec.height = p.height;
    spec.crf = p.driveCrf;
    spec.preset = "medium";
    mw = std::make_unique<MovieWriter>(w.path("target_frames.mp4"), spec);
  }
  const int movieFrames = p.has(Break::ShortMovie) ? p.nt - 1 : p.nt;
  const int narrowStill = std::min(3, p.nt - 1);
  for (int si = 0; si < p.nt; ++si) {
    if (p.progress) p.progress("drive frames", si, p.nt);
    const std::vector<uint8_t> frame = driveFrame(p, si);
    if (stills && !(p.has(Break::NoLastStill) && si == p.nt - 1)) {
      char name[64];
      std::snprintf(name, sizeof name, "target_frames/frame_%06d.jpg", si);
      if (p.has(Break::StillWrongSize) && si == narrowStill) {
        const auto cut = narrower(frame, p.width, p.height, p.width - 1);
        writeJpeg(w.path(name), cut.data(), p.width - 1, p.height, p.jpegQuality);
      } else {
        writeJpeg(w.path(name), frame.data(), p.width, p.height, p.jpegQuality);
      }
      w.noted(name);
    }
    if (mw && si < movieFrames) {
      if (movieW != p.width)
        mw->write(narrower(frame, p.width, p.height, movieW).data());
      else
        mw->write(frame.data());
    }
  }
  if (mw) {
    mw->finish();
    w.noted("target_frames.mp4");
  }
  if (p.progress) p.progress("drive frames", p.nt, p.nt);
}

void writePrior(const Params& p, Writer& w, const Names& names) {
  const size_t px = static_cast<size_t>(p.crop) * p.crop;
  if (p.prior == Prior::Raw) {
    const std::string name = names.of("P.f16");
    RowFile P(w.path(name), p.has(Break::ShortPrior), false);
    for (int si = 0; si < p.nt; ++si) {
      if (p.progress) p.progress("prior rows", si, p.nt);
      P.row(planarHalves(cropImage(p, si), px));
    }
    P.close();
    w.noted(name);
    if (p.progress) p.progress("prior rows", p.nt, p.nt);
  } else if (p.prior == Prior::Hevc && !p.has(Break::NoPriorMovie)) {
    MovieSpec spec;
    spec.encoder = "libx265";
    spec.chroma = p.has(Break::PriorYuv420) ? Chroma::Yuv420 : Chroma::Yuv444;
    const int side = p.has(Break::PriorWrongSize) ? p.crop - 2 : p.crop;
    spec.width = spec.height = side;
    spec.qp = p.priorQp;
    spec.preset = "fast";
    const std::string name = names.of("P_hevc.mov");
    MovieWriter mw(w.path(name), spec);
    const int n = p.has(Break::PriorShortMovie) ? p.nt - 1 : p.nt;
    for (int si = 0; si < n; ++si) {
      if (p.progress) p.progress("prior movie", si, n);
      std::vector<uint8_t> img = cropImage(p, si);
      if (side != p.crop) {
        img = narrower(img, p.crop, p.crop, side);
        img.resize(static_cast<size_t>(side) * side * 3);  // keep the top rows
      }
      mw.write(img.data());
    }
    mw.finish();
    w.noted(name);
    if (p.progress) p.progress("prior movie", n, n);
  }
  if (p.prior == Prior::FsRedOnly || p.fsRed) {
    const std::string name = names.of("fs_red.f16");
    RowFile f(w.path(name), p.has(Break::ShortFsRed), false);
    writeFeatureTable(p, f, kFsRedRow, 2);
    w.noted(name);
  }
}

}  // namespace

const std::vector<std::pair<const char*, Break>>& breakNames() {
  static const std::vector<std::pair<const char*, Break>> names = {
      {"short-pooled", Break::ShortPooled}, {"long-pooled", Break::LongPooled}, {"short-prior", Break::ShortPrior},
      {"short-fs-red", Break::ShortFsRed}, {"short-m", Break::ShortM}, {"short-mask", Break::ShortMask},
      {"long-mask", Break::LongMask}, {"short-xs", Break::ShortXs}, {"short-xd", Break::ShortXd},
      {"short-si", Break::ShortSi}, {"si-out-of-range", Break::SiOutOfRange}, {"short-xs-target", Break::ShortXsTarget},
      {"no-pooled", Break::NoPooled}, {"no-m", Break::NoM}, {"no-mask", Break::NoMask},
      {"no-drive-track", Break::NoDriveTrack}, {"no-xs-target", Break::NoXsTarget}, {"no-manifest", Break::NoManifest},
      {"manifest-bad-format", Break::ManifestBadFormat}, {"manifest-no-agent", Break::ManifestNoAgent},
      {"manifest-zero-dims", Break::ManifestZeroDims}, {"manifest-duplicate-w", Break::ManifestDuplicateW},
      {"manifest-no-nt", Break::ManifestNoNT}, {"no-prior-movie", Break::NoPriorMovie},
      {"still-wrong-size", Break::StillWrongSize}, {"no-last-still", Break::NoLastStill},
      {"short-movie", Break::ShortMovie}, {"movie-wrong-size", Break::MovieWrongSize},
      {"movie-yuv422", Break::MovieYuv422}, {"prior-short-movie", Break::PriorShortMovie},
      {"prior-wrong-size", Break::PriorWrongSize}, {"prior-yuv420", Break::PriorYuv420},
      {"no-head-config", Break::NoHeadConfig}, {"head-deflated", Break::HeadDeflated},
      {"head-wrong-shape", Break::HeadWrongShape}, {"bank-one-frame-short", Break::BankOneFrameShort},
      {"bank-wrong-size", Break::BankWrongSize}, {"bank-yuv420", Break::BankYuv420},
      {"bank-geometry-disagrees", Break::BankGeometryDisagrees}, {"bank-order-repeats", Break::BankOrderRepeats},
      {"bank-over-cap", Break::BankOverCap},
  };
  return names;
}

bool Params::has(Break b) const { return std::find(breaks.begin(), breaks.end(), b) != breaks.end(); }

void writeBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  const fs::path fp(path);
  std::error_code ec;
  if (fp.has_parent_path()) fs::create_directories(fp.parent_path(), ec);
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  if (!f) throw std::runtime_error("forge: cannot write " + path);
  f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  f.close();
  if (!f) throw std::runtime_error("forge: short write " + path);
}

std::pair<int, int> stampCanvas(const Params& p) {
  if (p.stamp != Stamp::Other) return {p.width, p.height};
  return {p.stampWidth > 0 ? p.stampWidth : std::max(1, p.width / 2), p.stampHeight > 0 ? p.stampHeight : p.height};
}

std::string manifestText(const Params& p) {
  std::vector<std::pair<std::string, std::string>> kv;
  auto str = [](const std::string& s) { return "\"" + s + "\""; };
  kv.emplace_back("format", str(p.has(Break::ManifestBadFormat) ? "le-bundle-v1" : "le-bundle-v0"));
  if (!p.has(Break::ManifestNoAgent)) kv.emplace_back("agent", str(p.agent));
  if (!p.has(Break::ManifestNoNT)) kv.emplace_back(p.frameCountKey ? "frame_count" : "NT", std::to_string(p.nt));
  kv.emplace_back("W", std::to_string(p.has(Break::ManifestZeroDims) ? 0 : p.width));
  kv.emplace_back("H", std::to_string(p.height));
  kv.emplace_back(p.cropSizeKey ? "crop_size" : "crop", std::to_string(p.crop));
  if (p.stamp != Stamp::None) {
    const auto [sw, sh] = stampCanvas(p);
    kv.emplace_back(p.longStampKeys ? "paste_source_width" : "M_src_w", std::to_string(sw));
    kv.emplace_back(p.longStampKeys ? "paste_source_height" : "M_src_h", std::to_string(sh));
  }
  kv.emplace_back("amount", num(p.amount));
  kv.emplace_back("sigma", num(p.sigma));
  kv.emplace_back("ksize", std::to_string(p.ksize));
  kv.emplace_back("frames", std::to_string(p.frames));
  if (p.prior == Prior::Hevc) kv.emplace_back("P_hevc", str("P_hevc.mov"));
  for (const auto& e : lipManifestEntries(p)) kv.push_back(e);
  if (p.tessera) kv.emplace_back("tessera", tesseraManifestBlock(p));
  for (const auto& e : p.manifestExtra) kv.push_back(e);
  if (p.has(Break::ManifestDuplicateW)) kv.emplace_back("W", std::to_string(p.width));
  std::string t = "{\n";
  for (size_t i = 0; i < kv.size(); ++i)
    t += "  \"" + kv[i].first + "\": " + kv[i].second + (i + 1 < kv.size() ? ",\n" : "\n");
  return t + "}\n";
}

Result forgeBundle(const std::string& dir, const Params& p) {
  checkGeometry(p);
  if (p.ksize < 1) throw std::runtime_error("forge: ksize must be positive");
  prepareDir(dir, p.replace);
  Result r;
  r.dir = dir;
  Writer w(dir, r);
  const Names names{p.alternativeNames};

  if (!p.has(Break::NoManifest)) {
    const std::string m = manifestText(p);
    w.put("manifest.json", std::vector<uint8_t>(m.begin(), m.end()));
  }

  // identity
  if (!p.has(Break::NoPooled)) {
    const std::string name = names.of("pooled64.f16");
    RowFile f(w.path(name), p.has(Break::ShortPooled), p.has(Break::LongPooled));
    writeFeatureTable(p, f, kPooledRow, 1);
    w.noted(name);
  }
  writePrior(p, w, names);

  if (!p.has(Break::NoM)) {
    std::vector<float> M;
    const auto [sw, sh] = stampCanvas(p);
    const double sx = static_cast<double>(sw) / p.width, sy = static_cast<double>(sh) / p.height;
    for (int si = 0; si < p.nt; ++si) {
      const auto m = pasteTransform(p, si);
      M.push_back(static_cast<float>(m[0] * sx));
      M.push_back(static_cast<float>(m[1] * sx));
      M.push_back(static_cast<float>(m[2] * sx));
      M.push_back(static_cast<float>(m[3] * sy));
      M.push_back(static_cast<float>(m[4] * sy));
      M.push_back(static_cast<float>(m[5] * sy));
    }
    w.put(names.of("M.f32"), sized(bytesOf(M), p.has(Break::ShortM)));
  }
  if (!p.has(Break::NoMask)) w.put(names.of("mask_512.u8"), sized(pasteMask(p), p.has(Break::ShortMask), p.has(Break::LongMask)));
  if (!p.has(Break::NoXsTarget)) {
    std::vector<float> xs;
    for (int si = 0; si < p.nt; ++si) {
      const auto k = keypoints(p, si);
      xs.insert(xs.end(), k.begin(), k.end());
    }
    w.put(names.of("xs_target.bin"), sized(bytesOf(xs), p.has(Break::ShortXsTarget)));
  }

  // the idle drive track
  if (!p.has(Break::NoDriveTrack)) {
    std::vector<int32_t> si = driveIndices(p);
    std::vector<float> xs, xd;
    for (int i = 0; i < p.frames; ++i) {
      const auto s = keypoints(p, si[i]);
      const auto d = drivenKeypoints(p, i);
      xs.insert(xs.end(), s.begin(), s.end());
      xd.insert(xd.end(), d.begin(), d.end());
    }
    if (p.has(Break::SiOutOfRange) && !si.empty()) si.back() = p.nt;
    w.put(names.of("drive/xs.f32"), sized(bytesOf(xs), p.has(Break::ShortXs)));
    w.put(names.of("drive/xd.f32"), sized(bytesOf(xd), p.has(Break::ShortXd)));
    w.put(names.of("drive/si.i32"), sized(bytesOf(si), p.has(Break::ShortSi)));
  }

  writeDriveMedia(p, w);
  for (const Member& m : lipMembers(p)) w.put(m.name, m.bytes);
  for (const Member& m : p.extraMembers) w.put(m.name, m.bytes);
  if (p.directors)
    for (const Member& m : directorMembers(p)) w.put(m.name, m.bytes);
  if (p.motion)
    for (const Member& m : motionMembers(p)) w.put(m.name, m.bytes);
  if (p.tessera)
    for (const std::string& name : writeTessera(p, dir)) w.noted(name);
  if (p.audio)
    for (const Member& m : audioMembers(p)) w.put(m.name, m.bytes);
  return r;
}

}  // namespace le::forge
