// Bundle storage: the manifest and its key scanner, the file readers shared by every bundle
// loader, and member-name resolution.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace le {

// ---------------------------------------------------------------------------------------------
// Manifest

struct Unsharp {
  float amount = 1.3f;
  float sigma = 2.0f;
  int ksize = 13;
};

struct Manifest {
  std::string dir;  // bundle directory after container resolution
  std::string text;  // "manifest.json" as read once at load: later loaders scan it, not the disk
  std::string agent;
  int NT = 0;  // identity (source) frames
  int H = 0;
  int W = 0;
  int M_src_w = 0;  // canvas the paste transforms were authored on
  int M_src_h = 0;
  int crop = 512;
  Unsharp unsharp;
  int frames = 0;            // drive frames
  std::string lip_template;  // "lip_template.v1.json" text, empty when the bundle has none

  // Path of the director model "model_" + key + ".onnx", alternative names included.
  std::string modelPath(const std::string& key) const;
};

// Reads "manifest.json" of a bundle directory or container (unwrapped first). Throws
// std::runtime_error on any missing, ambiguous or invalid value.
Manifest loadManifest(const std::string& path);

// ---------------------------------------------------------------------------------------------
// Key scanner: values are located by byte-level key scanning, never by a JSON tree.

namespace manifest_key {

struct KeyHit {
  size_t pos;   // offset of the first non-blank byte after the colon
  int depth;    // bracket/brace nesting at the key; top-level object keys have depth 1
  bool scalar;  // the value does not begin with "[" or "{"
};

constexpr size_t kNotFound = std::numeric_limits<size_t>::max();

// Every occurrence of key used as an object key, in text order. Strings are skipped whole, so
// key-like text inside a value never counts.
std::vector<KeyHit> keyHits(std::string_view text, std::string_view key);

// Offset of the one scalar value of key, or kNotFound. A unique top-level occurrence wins over
// nested ones; otherwise a unique occurrence anywhere. Throws std::runtime_error naming every
// colliding offset when the choice is ambiguous.
size_t scalarValuePos(std::string_view text, std::string_view key);

}  // namespace manifest_key

// ---------------------------------------------------------------------------------------------
// Field readers over a manifest (or small meta file) text. The text must be the whole file.

// Value of key as a pointer into text; throws "manifest: missing key <key>".
const char* findKey(const std::string& text, const char* key);
// Number of key a, else of key b; throws "manifest: missing key <a>/<b>".
double numFieldEither(const std::string& text, const char* a, const char* b);
// Bytes between the first two double quotes from the value of key (escapes kept raw);
// throws "manifest: bad string <key>".
std::string strField(const std::string& text, const char* key);
// When key's value is a quoted string, stores it in out and returns whether it is non-empty;
// otherwise leaves out untouched and returns false.
bool optStr(const std::string& text, const char* key, std::string& out);

// ---------------------------------------------------------------------------------------------
// File readers. Errors are std::runtime_error: "cannot open <path>", "short read <path>",
// "size mismatch <path>", "mmap failed <path>".

// An owned stdio stream, closed on destruction (check fclose(release()) where a write matters).
struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// Whole file as bytes.
std::string readFile(const std::string& path);
// Exactly n float32 values (host order); the file must hold exactly 4·n bytes.
std::vector<float> readRaw(const std::string& path, size_t n);
// Fills dst with exactly bytes bytes; the file must be exactly that long.
void readExact(const std::string& path, void* dst, size_t bytes);

// A read-only private mapping of a whole file; unmapped when its owner goes away.
class Mapping {
 public:
  Mapping() = default;
  Mapping(void* base, size_t length) noexcept : data_(base), base_(base), length_(length) {}
  Mapping(Mapping&& o) noexcept;
  Mapping& operator=(Mapping&& o) noexcept;
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping();

  const void* data() const { return data_; }
  template <class T>
  const T* as() const {
    return static_cast<const T*>(data_);
  }
  size_t size() const { return length_; }
  bool empty() const { return length_ == 0; }

 private:
  void release() noexcept;
  const void* data_ = nullptr;
  void* base_ = nullptr;
  size_t length_ = 0;
};

// Maps path read-only; its size must equal bytes exactly. A zero-byte file maps to an empty
// Mapping.
Mapping mapFile(const std::string& path, size_t bytes);

// ---------------------------------------------------------------------------------------------
// Member resolution

// Path of member name inside bundle directory dir: the canonical file when it can be opened,
// else its alternative (newer) name when that can, else the canonical path so later errors
// name the canonical member. Never throws for a missing file.
std::string resolveMember(const std::string& dir, const std::string& name);
// The alternative name of a canonical member, or "" when it has none.
std::string alternativeMemberName(const std::string& name);
// Whether path can be opened for reading.
bool canOpenForRead(const std::string& path);

// ---------------------------------------------------------------------------------------------
// Identity tables and drive track

class DriverCursor;

// The idle keypoint sequence played when there is no speech.
struct Drive {
  std::vector<float> xs;    // frames x 63: source keypoints of each drive frame
  std::vector<float> xd;    // frames x 63: driven keypoints
  std::vector<int32_t> si;  // frames: the source frame each drive frame is rendered from
  int frames = 0;
};

// Reads "drive/xs.f32", "drive/xd.f32" and "drive/si.i32" (or their newer names) for the
// manifest's frame count. Throws "cannot open ", "size mismatch " + path, or
// "drive: si out of range".
Drive loadDrive(const Manifest& m);

// The per-source-frame tables of the bundle's person: the warp prior, pooled and synthesised
// features (mapped read-only, not read) and the paste transforms rescaled to the frame size.
// Rows are addressed by source frame 0 <= si < NT, unchecked. The tables and M may be read
// from any thread; the video prior's cursor is created once, on first need, and orders its
// own reads. Pointers from the prior cursor stay valid only until that cursor moves on.
class Identity {
 public:
  // Throws on a missing warp prior (see ensureIdentityMembers) and on any missing or
  // mis-sized required member.
  explicit Identity(const Manifest& m);
  ~Identity();
  Identity(const Identity&) = delete;
  Identity& operator=(const Identity&) = delete;

  // Warp-prior row: three planes of crop*crop binary16. Mapped, or decoded by the prior cursor.
  const uint16_t* P(int si) const;
  // With a video prior, has the prior cursor decode frame si (decodes ahead); else nothing.
  void walkP(int si) const;
  const uint16_t* pooled64(int si) const { return pooled64_.as<uint16_t>() + size_t(si) * kPooledRow; }
  // Only meaningful when hasFsRed().
  const uint16_t* fsRed(int si) const { return fs_red_.as<uint16_t>() + size_t(si) * kFsRedRow; }
  // (a, b, tx, c, d, ty) of source frame si, in frame pixels.
  const float* M(int si) const { return M_.data() + size_t(si) * 6; }
  // The video prior's cursor (look-ahead 2, history 11), opened on first call.
  DriverCursor& prior() const;
  // "mmap P.f16", the prior cursor's backend name, or "none".
  std::string priorBackend() const;
  // The prior cursor's resident bytes and source seeks; 0 unless the prior is a video.
  size_t priorResidentBytes() const;
  uint64_t priorSeeks() const;
  // Rescales M from the manifest's paste-space stamp to W x H. Throws when the stamp is absent.
  void rescaleM(const Manifest& m);

  bool hasP() const { return !P_.empty(); }
  bool hasFsRed() const { return !fs_red_.empty(); }
  // Path of the video prior; empty when the prior is not a video.
  const std::string& priorPath() const { return prior_path_; }

  static constexpr size_t kPooledRow = 65536;  // binary16 values per row
  static constexpr size_t kFsRedRow = 262144;

  const int NT;
  const int crop;

 private:
  Mapping pooled64_;
  Mapping P_;
  Mapping fs_red_;
  std::vector<float> M_;
  std::string prior_path_;
  Manifest manifest_;
  mutable std::once_flag prior_once_;
  mutable std::unique_ptr<DriverCursor> prior_;
};

}  // namespace le
