// The bundle forge: writes complete, real bundles of a procedurally drawn stylised face for
// tests, benchmarks, the demo and the le tool. Same parameters, same bytes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace le::forge {

// Which warp prior the bundle carries.
enum class Prior {
  Raw,        // "P.f16", mapped by the identity
  Hevc,       // "P_hevc.mov", HEVC yuv444p, played through the prior cursor
  FsRedOnly,  // "fs_red.f16" alone, no picture prior
};

// How the full drive frames are stored.
enum class DriveMedia {
  Stills,  // "target_frames/frame_%06d.jpg"
  Movie,   // "target_frames.mp4", H.264 yuv420p
  Both,    // both of the above
  None,    // neither (a refusal test)
};

// Where the paste transforms were authored.
enum class Stamp {
  Canvas,  // M_src = W×H
  None,    // no stamp in the manifest
  Other,   // another canvas (Params::stampWidth × stampHeight); M.f32 is written in its space
};

// Deliberate faults for refusal tests; any number may be combined.
enum class Break {
  // tables one element short / long, or gone
  ShortPooled, LongPooled, ShortPrior, ShortFsRed, ShortM, ShortMask, LongMask,
  ShortXs, ShortXd, ShortSi, SiOutOfRange, ShortXsTarget,
  NoPooled, NoM, NoMask, NoDriveTrack, NoXsTarget,
  // manifest
  NoManifest, ManifestBadFormat, ManifestNoAgent, ManifestZeroDims, ManifestDuplicateW,
  ManifestNoNT,
  NoPriorMovie,  // the manifest names the P_hevc member, the movie is not written
  // drive media
  StillWrongSize,  // frame_000003.jpg one pixel narrower (or the last frame when NT < 4)
  NoLastStill,     // the last still is missing
  ShortMovie,      // drive movie one frame short of NT
  MovieWrongSize,  // drive movie 2 pixels narrower
  MovieYuv422,     // drive movie in 4:2:2
  // video prior
  PriorShortMovie, PriorWrongSize, PriorYuv420,
  // borrow members (with Params::tessera)
  NoHeadConfig, HeadDeflated, HeadWrongShape, BankOneFrameShort, BankWrongSize, BankYuv420,
  BankGeometryDisagrees, BankOrderRepeats, BankOverCap,
};

// The mouth region (forge_lip.h): nothing; the manifest's "unified" block; that and the lip
// template "lip_template.v1.json"; that with the template's learned map.
enum class Lips { None, Unified, Template, Learned };

// A member written verbatim (later forge extensions: models, audio members, templates).
struct Member {
  std::string name;  // relative path inside the bundle, "/" creates subdirectories
  std::vector<uint8_t> bytes;
};

struct Params {
  // geometry
  int nt = 8;          // identity (source) frames
  int width = 256;     // full frame W
  int height = 192;    // full frame H
  int crop = 128;      // face crop side
  int frames = 16;     // drive frames (the idle track)
  // members
  Prior prior = Prior::Raw;
  bool fsRed = false;  // also write "fs_red.f16" beside a picture prior
  DriveMedia drive = DriveMedia::Stills;
  bool alternativeNames = false;  // "source_frames.f16", "idle_loop/...", ...
  // manifest spellings
  bool frameCountKey = false;   // "frame_count" instead of "NT"
  bool cropSizeKey = false;     // "crop_size" instead of "crop"
  bool longStampKeys = false;   // "paste_source_width/height" instead of "M_src_w/h"
  Stamp stamp = Stamp::Canvas;
  int stampWidth = 0, stampHeight = 0;  // Stamp::Other; 0 means half of W (and H unchanged)
  float amount = 1.3f, sigma = 2.0f;
  int ksize = 13;
  std::string agent = "forge-face";
  // extra top-level manifest entries, appended as "key": value (value is raw JSON text)
  std::vector<std::pair<std::string, std::string>> manifestExtra;
  std::vector<Member> extraMembers;
  Lips lips = Lips::None;
  // also write the director models (director_members.h): b1, b4, FeatSynth and heavy
  bool directors = false;
  // also write the motion directory "motion/" (forge_motion.h)
  bool motion = false;
  // also write the mouth-interior borrow members (forge_tessera.h) with this many donors
  bool tessera = false;
  int tesseraDonors = 48;
  // also write the audio members with their defaults (forge_audio.h): speech encoders, a2x
  bool audio = false;
  // pictures and encoders
  uint32_t seed = 1;
  int jpegQuality = 90;  // 4:2:0, as stills cut from a camera's video are
  int driveCrf = 16;   // H.264 drive movie
  int priorQp = 4;     // HEVC prior (near lossless)
  // faults
  std::vector<Break> breaks;
  // replace an existing non-empty directory instead of refusing
  bool replace = false;
  // called as members are made: what, done, total
  std::function<void(const std::string&, int, int)> progress;

  bool has(Break b) const;
};

// Params of the given geometry, everything else at its default.
inline Params sized(int nt, int width, int height, int crop, int frames) {
  Params p;
  p.nt = nt, p.width = width, p.height = height, p.crop = crop, p.frames = frames;
  return p;
}

struct Result {
  std::string dir;
  std::vector<std::string> members;  // relative names written, in writing order
};

// Writes the bundle directory dir. Throws std::runtime_error with a one-line reason.
Result forgeBundle(const std::string& dir, const Params& p);

// Names of the breaks in kebab case ("short-pooled", "no-last-still", ...), for the le tool.
const std::vector<std::pair<const char*, Break>>& breakNames();

// Throws "forge: bad geometry ..." unless NT >= 1, W, H, crop >= 2 and frames >= 0.
void checkGeometry(const Params& p);

// The canvas the paste transforms are authored on (W×H unless Stamp::Other).
std::pair<int, int> stampCanvas(const Params& p);

// The manifest text forgeBundle writes (breaks included).
std::string manifestText(const Params& p);

// --- the pictures and geometry behind every member ---------------------------------------

// Paste transform of source frame si on the W×H canvas: (a, b, tx, c, d, ty).
std::array<float, 6> pasteTransform(const Params& p, int si);
// Keypoints of source frame si: 21 × (x, y, z), x and y in normalised crop coordinates
// (-1 at the first pixel centre, +1 at the last). Lips: rows 6, 12, 14, 17, 18, 19, 20.
std::vector<float> keypoints(const Params& p, int si);
// Driven keypoints of drive frame i (the idle expression played over its source frame).
std::vector<float> drivenKeypoints(const Params& p, int i);
// Source index of every drive frame: a ping-pong walk over the NT source frames.
std::vector<int32_t> driveIndices(const Params& p);
// Crop of source frame si: crop×crop packed RGB.
std::vector<uint8_t> cropImage(const Params& p, int si);
// Rectangle (x0, y0, w, h) of that crop with the mouth opened to `open` (0 closed, 1 wide,
// both rows of teeth showing).
std::vector<uint8_t> mouthPatch(const Params& p, int si, float open, int x0, int y0, int w, int h);
// Full drive frame si: W×H packed RGB, the person over the background, placed through M.
std::vector<uint8_t> driveFrame(const Params& p, int si);
// The paste mask: a soft face ellipse, crop×crop bytes.
std::vector<uint8_t> pasteMask(const Params& p);

// Bytes of a vector of trivially copyable values, little-endian host order.
template <class T>
std::vector<uint8_t> bytesOf(const std::vector<T>& v) {
  const auto* b = reinterpret_cast<const uint8_t*>(v.data());
  return std::vector<uint8_t>(b, b + v.size() * sizeof(T));
}

// Writes bytes to path, creating parent directories. Throws on failure.
void writeBytes(const std::string& path, const std::vector<uint8_t>& bytes);

// Encodes packed RGB to a JPEG file (deterministic for equal input).
void writeJpeg(const std::string& path, const uint8_t* rgb, int w, int h, int quality);

}  // namespace le::forge
