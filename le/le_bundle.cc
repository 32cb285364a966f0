#include "le/le_bundle.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

#include "le/le_driver.h"
#include "le/le_expand.h"
#include "le/le_imx.h"
#include "le/le_util.h"

namespace le {

namespace {

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

// Marks a number as absent in the two-key readers and the paste-space stamp.
constexpr double kAbsent = -1e300;

double numAt(const std::string& text, size_t pos) {
  return std::strtod(text.c_str() + pos, nullptr);
}

double numOr(const std::string& text, const char* key, double dflt) {
  size_t pos = manifest_key::scalarValuePos(text, key);
  return pos == manifest_key::kNotFound ? dflt : numAt(text, pos);
}

// Truncation toward zero, saturating instead of overflowing on absurd values.
int toInt(double v) {
  if (std::isnan(v)) return 0;
  if (v >= static_cast<double>(INT_MAX)) return INT_MAX;
  if (v <= static_cast<double>(INT_MIN)) return INT_MIN;
  return static_cast<int>(v);
}

float toFloat(double v) { return static_cast<float>(v); }

}  // namespace

// ---------------------------------------------------------------------------------------------
// Key scanner

namespace manifest_key {

std::vector<KeyHit> keyHits(std::string_view text, std::string_view key) {
  std::vector<KeyHit> hits;
  const size_t n = text.size();
  int depth = 0;
  size_t i = 0;
  while (i < n) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    const unsigned char folded = c & ~0x20u;
    if (folded == 0x5B) {
      ++depth;
      ++i;
      continue;
    }
    if (folded == 0x5D) {
      --depth;
      ++i;
      continue;
    }
    if (c != '"') {
      ++i;
      continue;
    }
    size_t j = i + 1;
    while (j < n && text[j] != '"') j += text[j] == '\\' ? 2 : 1;
    if (j >= n) break;  // text ends inside a string
    const std::string_view raw = text.substr(i + 1, j - i - 1);
    size_t k = j + 1;
    while (k < n && std::isspace(static_cast<unsigned char>(text[k]))) ++k;
    if (k < n && text[k] == ':' && raw == key) {
      size_t v = k + 1;
      while (v < n && std::isspace(static_cast<unsigned char>(text[v]))) ++v;
      const bool scalar = !(v >= n || text[v] == '[' || text[v] == '{');
      hits.push_back(KeyHit{v, depth, scalar});
    }
    i = j + 1;
  }
  return hits;
}

size_t scalarValuePos(std::string_view text, std::string_view key) {
  std::vector<size_t> scalar, top;
  for (const KeyHit& h : keyHits(text, key)) {
    if (!h.scalar) continue;
    scalar.push_back(h.pos);
    if (h.depth == 1) top.push_back(h.pos);
  }
  const std::vector<size_t>* colliding = nullptr;
  if (top.size() == 1) return top[0];
  if (top.size() >= 2) {
    colliding = &top;
  } else if (scalar.size() == 1) {
    return scalar[0];
  } else if (scalar.size() >= 2) {
    colliding = &scalar;
  } else {
    return kNotFound;
  }
  std::string msg = "manifest: key \"";
  msg.append(key.data(), key.size());
  msg += "\" is AMBIGUOUS — " + std::to_string(colliding->size()) + " scalar occurrences (";
  for (size_t i = 0; i < colliding->size(); ++i) {
    if (i) msg += ", ";
    msg += "byte " + std::to_string((*colliding)[i]);
  }
  msg +=
      "). A loader that picks one silently installs a number nobody checks. Rename the colliding "
      "key (a nested block must not reuse a name the bundle loader reads: NT/frame_count, H, W, "
      "crop/crop_size, amount, sigma, ksize, frames, M_src_w/paste_source_width, "
      "M_src_h/paste_source_height), or produce the bundle with the legacy manifest layout.";
  throw std::runtime_error(msg);
}

}  // namespace manifest_key

// ---------------------------------------------------------------------------------------------
// Field readers

const char* findKey(const std::string& text, const char* key) {
  const size_t pos = manifest_key::scalarValuePos(text, key);
  if (pos == manifest_key::kNotFound) fail(std::string("manifest: missing key ") + key);
  return text.c_str() + pos;
}

double numFieldEither(const std::string& text, const char* a, const char* b) {
  double v = numOr(text, a, kAbsent);
  if (v == kAbsent) v = numOr(text, b, kAbsent);
  if (v == kAbsent) fail(std::string("manifest: missing key ") + a + "/" + b);
  return v;
}

std::string strField(const std::string& text, const char* key) {
  const size_t pos = static_cast<size_t>(findKey(text, key) - text.c_str());
  const size_t open = text.find('"', pos);
  const size_t close = open == std::string::npos ? open : text.find('"', open + 1);
  if (close == std::string::npos) fail(std::string("manifest: bad string ") + key);
  return text.substr(open + 1, close - open - 1);
}

bool optStr(const std::string& text, const char* key, std::string& out) {
  const size_t pos = manifest_key::scalarValuePos(text, key);
  if (pos == manifest_key::kNotFound || text[pos] != '"') return false;
  const size_t close = text.find('"', pos + 1);
  if (close == std::string::npos) return false;
  out.assign(text, pos + 1, close - pos - 1);
  return !out.empty();
}

// ---------------------------------------------------------------------------------------------
// File readers

std::string readFile(const std::string& path) {
  Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) fail("cannot open " + path);
  struct stat st;
  if (::fstat(fd.get(), &st) != 0) fail("cannot open " + path);
  std::string out(static_cast<size_t>(st.st_size), '\0');
  size_t got = 0;
  while (got < out.size()) {
    const ssize_t r = ::read(fd.get(), &out[got], out.size() - got);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) fail("short read " + path);
    got += static_cast<size_t>(r);
  }
  return out;
}

void readExact(const std::string& path, void* dst, size_t bytes) {
  FilePtr f(std::fopen(path.c_str(), "rb"));
  if (!f) fail("cannot open " + path);
  if (std::fread(dst, 1, bytes, f.get()) != bytes) fail("size mismatch " + path);
  char extra;
  if (std::fread(&extra, 1, 1, f.get()) != 0) fail("size mismatch " + path);
}

std::vector<float> readRaw(const std::string& path, size_t n) {
  if (n > SIZE_MAX / sizeof(float)) fail("size mismatch " + path);
  std::vector<float> out(n);
  readExact(path, out.data(), n * sizeof(float));
  return out;
}

Mapping::Mapping(Mapping&& o) noexcept
    : data_(std::exchange(o.data_, nullptr)),
      base_(std::exchange(o.base_, nullptr)),
      length_(std::exchange(o.length_, 0)) {}

Mapping& Mapping::operator=(Mapping&& o) noexcept {
  if (this != &o) {
    release();
    data_ = std::exchange(o.data_, nullptr);
    base_ = std::exchange(o.base_, nullptr);
    length_ = std::exchange(o.length_, 0);
  }
  return *this;
}

Mapping::~Mapping() { release(); }

void Mapping::release() noexcept {
  if (base_ && length_) ::munmap(base_, length_);
  data_ = nullptr;
  base_ = nullptr;
  length_ = 0;
}

Mapping mapFile(const std::string& path, size_t bytes) {
  Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) fail("cannot open " + path);
  struct stat st;
  if (::fstat(fd.get(), &st) != 0) fail("cannot open " + path);
  if (st.st_size < 0 || static_cast<uint64_t>(st.st_size) != bytes) fail("size mismatch " + path);
  if (bytes == 0) return Mapping();
  void* p = ::mmap(nullptr, bytes, PROT_READ, MAP_PRIVATE, fd.get(), 0);
  if (p == MAP_FAILED) fail("mmap failed " + path);
  return Mapping(p, bytes);
}

// ---------------------------------------------------------------------------------------------
// Member resolution

namespace {

struct NamePair {
  const char* canonical;
  const char* alternative;
};

constexpr NamePair kExactPairs[] = {
    {"P.f16", "source_frames.f16"},
    {"P_hevc.mov", "source_frames.hevc"},
    {"a2x_enc_stream.onnx", "audio_motion_encoder.onnx"},
    {"a2x_dec.onnx", "audio_motion_decoder.onnx"},
    {"M.f32", "paste_transform.f32"},
    {"mask_512.u8", "paste_mask.u8"},
    {"pooled64.f16", "pooled_features.f16"},
    {"fs_red.f16", "feature_synth.f16"},
    {"xs_target.bin", "target_keypoints.bin"},
};

constexpr NamePair kDriveStems[] = {
    {"xs", "source_keypoints"},
    {"xd", "driven_keypoints"},
    {"si", "source_index"},
};


}  // namespace

std::string alternativeMemberName(const std::string& name) {
  for (const NamePair& p : kExactPairs)
    if (name == p.canonical) return p.alternative;

  constexpr std::string_view kModel = "model_b", kOnnx = ".onnx";
  if (name.size() > kModel.size() + kOnnx.size() && startsWith(name, kModel) &&
      endsWith(name, kOnnx)) {
    const std::string mid = name.substr(kModel.size(), name.size() - kModel.size() - kOnnx.size());
    const size_t us = mid.find('_');
    std::string alt = "render_model.batch" + mid.substr(0, us);
    if (us != std::string::npos && us + 1 < mid.size()) alt += "." + mid.substr(us + 1);
    return alt + ".onnx";
  }

  constexpr std::string_view kDrive = "drive/";
  if (startsWith(name, kDrive)) {
    const std::string rest = name.substr(kDrive.size());
    const size_t dot = rest.find('.');
    std::string stem = rest.substr(0, dot);
    const std::string ext = dot == std::string::npos ? "" : rest.substr(dot);
    for (const NamePair& p : kDriveStems)
      if (stem == p.canonical) stem = p.alternative;
    return "idle_loop/" + stem + ext;
  }
  return "";
}

bool canOpenForRead(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  ::close(fd);
  return true;
}

std::string resolveMember(const std::string& dir, const std::string& name) {
  const std::string canonical = dir + "/" + name;
  const std::string alt = alternativeMemberName(name);
  if (alt.empty() || canOpenForRead(canonical)) return canonical;
  std::string alt_path = dir + "/" + alt;
  if (canOpenForRead(alt_path)) return alt_path;
  return canonical;
}

// ---------------------------------------------------------------------------------------------
// Manifest

std::string Manifest::modelPath(const std::string& key) const {
  return resolveMember(dir, "model_" + key + ".onnx");
}

Manifest loadManifest(const std::string& path) {
  Manifest m;
  m.dir = resolveBundlePath(path);
  const std::string mpath = m.dir + "/manifest.json";
  m.text = readFile(mpath);
  const std::string& text = m.text;

  if (strField(text, "format") != "le-bundle-v0") fail("not an le-bundle-v0: " + m.dir);
  m.agent = strField(text, "agent");

  const auto num = [&](const char* key) { return std::strtod(findKey(text, key), nullptr); };
  m.NT = toInt(numFieldEither(text, "NT", "frame_count"));
  m.H = toInt(num("H"));
  m.W = toInt(num("W"));
  m.crop = toInt(numFieldEither(text, "crop", "crop_size"));
  m.unsharp.amount = toFloat(num("amount"));
  m.unsharp.sigma = toFloat(num("sigma"));
  m.unsharp.ksize = toInt(num("ksize"));
  m.frames = toInt(num("frames"));
  if (m.NT < 1 || m.H < 1 || m.W < 1 || m.crop < 1) fail("manifest: bad dims");

  double w = numOr(text, "M_src_w", kAbsent);
  if (w == kAbsent) w = numOr(text, "paste_source_width", kAbsent);
  double h = numOr(text, "M_src_h", kAbsent);
  if (h == kAbsent) h = numOr(text, "paste_source_height", kAbsent);
  if (w != kAbsent && h != kAbsent) {
    m.M_src_w = toInt(w);
    m.M_src_h = toInt(h);
  } else {
    const char* ok = std::getenv("TAMSINE2_MSRC_MISSING_OK");
    if (!ok || std::strcmp(ok, "1") != 0) {
      fail(mpath +
           " declares no paste-space stamp (M_src_w/M_src_h, aka paste_source_width/height) — "
           "the canvas is " +
           std::to_string(m.W) + "x" + std::to_string(m.H) +
           ", so M cannot be placed: absence is not evidence that M was authored at that size. "
           "Re-stamp the bundle (models/tamsine-2/inference/backfill_msrc.py), or set "
           "TAMSINE2_MSRC_MISSING_OK=1 to restore the legacy assumption.");
    }
    m.M_src_w = m.W;
    m.M_src_h = m.H;
    std::fprintf(stderr,
                 "[le] WARNING TAMSINE2_MSRC_MISSING_OK=1: %s declares no paste-space stamp; "
                 "assuming M was authored on the %dx%d canvas. If that is wrong the face is "
                 "pasted off-target without any further sign.\n",
                 mpath.c_str(), m.W, m.H);
  }
  if (m.M_src_w < 1 || m.M_src_h < 1)
    fail("manifest: bad paste-space stamp (M_src_w/M_src_h must be > 0)");

  const std::string lip = resolveMember(m.dir, "lip_template.v1.json");
  if (canOpenForRead(lip)) m.lip_template = readFile(lip);
  return m;
}

}  // namespace le

// ---------------------------------------------------------------------------------------------
// Identity tables and drive track

namespace le {

namespace {

constexpr size_t kKpValues = 63;

}  // namespace

Drive loadDrive(const Manifest& m) {
  if (m.frames < 0) fail("drive: negative frame count");
  Drive d;
  d.frames = m.frames;
  const size_t n = size_t(m.frames);
  d.xs = readRaw(resolveMember(m.dir, "drive/xs.f32"), n * kKpValues);
  d.xd = readRaw(resolveMember(m.dir, "drive/xd.f32"), n * kKpValues);
  d.si.resize(n);
  readExact(resolveMember(m.dir, "drive/si.i32"), d.si.data(), n * sizeof(int32_t));
  for (int32_t s : d.si)
    if (s < 0 || s >= m.NT) fail("drive: si out of range");
  return d;
}

Identity::Identity(const Manifest& m) : NT(m.NT), crop(m.crop), manifest_(m) {
  ensureIdentityMembers(m);
  const size_t nt = size_t(m.NT), side = size_t(m.crop);
  pooled64_ = mapFile(resolveMember(m.dir, "pooled64.f16"), nt * kPooledRow * 2);
  const std::string p_path = resolveMember(m.dir, "P.f16");
  const std::string fs_path = resolveMember(m.dir, "fs_red.f16");
  const bool fs_red = canOpenForRead(fs_path);
  if (canOpenForRead(p_path)) {
    P_ = mapFile(p_path, nt * side * side * 6);
  } else if (!fs_red) {
    std::string name = "P_hevc.mov";
    optStr(m.text, "P_hevc", name);
    const std::string path = resolveMember(m.dir, name);
    if (canOpenForRead(path)) prior_path_ = path;
  }
  if (fs_red) fs_red_ = mapFile(fs_path, nt * kFsRedRow * 2);
  M_ = readRaw(resolveMember(m.dir, "M.f32"), nt * 6);
  rescaleM(m);
}

Identity::~Identity() = default;

void Identity::rescaleM(const Manifest& m) {
  if (m.M_src_w <= 0 || m.M_src_h <= 0)
    fail("le::Identity: manifest carries no paste-space stamp (M_src_w/M_src_h) — refusing to "
         "paste M without knowing the space it was authored in");
  if (m.M_src_w == m.W && m.M_src_h == m.H) return;
  const double sx = double(m.W) / m.M_src_w, sy = double(m.H) / m.M_src_h;
  for (size_t r = 0; r + 6 <= M_.size(); r += 6) {
    for (int i = 0; i < 3; ++i) M_[r + i] = float(double(M_[r + i]) * sx);
    for (int i = 3; i < 6; ++i) M_[r + i] = float(double(M_[r + i]) * sy);
  }
}

DriverCursor& Identity::prior() const {
  std::call_once(prior_once_, [this] { prior_ = DriverCursor::openPrior(manifest_, 2, 11); });
  return *prior_;
}

const uint16_t* Identity::P(int si) const {
  if (hasP()) return P_.as<uint16_t>() + size_t(si) * size_t(crop) * size_t(crop) * 3;
  int got = -1;
  return reinterpret_cast<const uint16_t*>(prior().pullAt(si, &got));
}

void Identity::walkP(int si) const {
  if (prior_path_.empty()) return;
  int got = -1;
  prior().pullAt(si, &got);
}

std::string Identity::priorBackend() const {
  if (hasP()) return "mmap P.f16";
  if (!prior_path_.empty()) return prior().name;
  return "none";
}

size_t Identity::priorResidentBytes() const {
  return hasP() || prior_path_.empty() ? 0 : prior().residentBytes();
}

uint64_t Identity::priorSeeks() const {
  return hasP() || prior_path_.empty() ? 0 : prior().seeks();
}

}  // namespace le
