// The mouth-interior borrow's bundle members: which of the four files a bundle carries, the
// small JSON reader they are written in, the bank sidecar's geometry stamp, and the loader that
// validates all of it against the manifest.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace le {

struct Manifest;

namespace tessera {

struct BankData;

namespace json {

// One JSON value. Objects keep their members in document order, duplicates included; lookups
// take the first member with the key.
struct JVal {
  enum Kind : int { Null = 0, Bool = 1, Number = 2, String = 3, Array = 4, Object = 5 };
  Kind kind = Null;
  bool b = false;
  double num = 0;
  std::string str;
  std::vector<JVal> arr;
  std::vector<std::pair<std::string, JVal>> obj;

  bool isObject() const { return kind == Object; }
  bool isArray() const { return kind == Array; }
  bool isNumber() const { return kind == Number; }
  bool isString() const { return kind == String; }
  // First member named key of an object; null for another kind or when absent.
  const JVal* get(std::string_view key) const;
};

// Recursive-descent reader of one JSON value. Permissive where the bundle tools are: a string
// running to the end of the text ends there, "true"/"false"/"null" are taken by prefix, "\u"
// yields '?', and nothing after the top-level value is looked at. Errors are runtime errors:
// "teeth: JSON truncated", "teeth: bad JSON number", "teeth: malformed JSON array",
// "teeth: malformed JSON object", and "teeth: JSON nested too deep" past kMaxDepth levels.
class JParser {
 public:
  static constexpr int kMaxDepth = 512;
  explicit JParser(std::string_view text) : text_(text) {}
  // Skips leading blanks and reads one value.
  JVal parse();

 private:
  void skipBlanks();
  JVal value(int depth);
  std::string string();
  std::string text_;  // owned copy: the number reader needs a terminating zero
  size_t pos_ = 0;
};

}  // namespace json

// Where the borrow window and the mouth band sit on the compose canvas, as the bank was built.
// Twelve int32 in a fixed order (keys()); the same order is read, compared and printed.
struct GeometryStamp {
  int32_t canvas_w = 0, canvas_h = 0;
  int32_t window_x0 = 0, window_y0 = 0, window_w = 0, window_h = 0;
  int32_t pad = 0;
  int32_t band_r0 = 0, band_r1 = 0, band_c0 = 0, band_c1 = 0;
  int32_t shift_margin = 0;

  static constexpr int kCount = 12;
  static const std::array<const char*, kCount>& keys();
  int32_t at(int i) const;
  int32_t& at(int i);
  std::array<int32_t, kCount> values() const;
  // Stored donor patch size: the band plus shift_margin on every side.
  int32_t bandW() const { return band_c1 - band_c0 + 2 * shift_margin; }
  int32_t bandH() const { return band_r1 - band_r0 + 2 * shift_margin; }
  // "{canvas_w=.., canvas_h=.., ...}"
  std::string text() const;
  // Throws "teeth: GeometryStamp incoherent: <problem>; ..." naming every violated rule.
  void validate() const;
  bool operator==(const GeometryStamp& o) const { return values() == o.values(); }
  bool operator!=(const GeometryStamp& o) const { return !(*this == o); }
};

}  // namespace tessera

// ---------------------------------------------------------------------------------------------
// Member slots and what a bundle carries

// "bank_track", "bank_sidecar", "head_weights", "head_config".
const std::array<const char*, 4>& tesseraSlotKeys();
constexpr int tesseraSlotCount() { return 4; }
// Index of a slot key, or -1.
int tesseraSlotIndex(std::string_view key);

struct TesseraSlots {
  std::array<std::string, 4> names = {"tessera_bank.v1.mp4", "tessera_bank.v1.json", "tessera_head.v1.pt",
                                      "tessera_head.v1.json"};
};

struct TesseraCarriage {
  TesseraSlots slots;
  std::array<std::string, 4> paths;  // resolved, slot order
  bool complete = false;
  std::vector<std::string> missing;  // slot keys, slot order
  bool declared = false;             // the manifest carries a "tessera" object

  // Resolved path of slot key; throws "teeth: no such member slot '<key>'".
  const std::string& path(std::string_view key) const;
};

class MissingTesseraMember : public std::runtime_error {
 public:
  MissingTesseraMember(const std::string& msg, std::vector<std::string> missing)
      : std::runtime_error(msg), missing_(std::move(missing)) {}
  const std::vector<std::string>& missing() const { return missing_; }

 private:
  std::vector<std::string> missing_;
};

// Everything the borrow needs from the bundle.
struct TesseraAttachInputs {
  int32_t n_donors = 0;
  std::vector<int32_t> track_order;  // track frame -> donor
  std::vector<double> cent;          // 2 per donor
  std::array<double, 2> c_canon{};
  std::vector<double> aperture;
  tessera::GeometryStamp stamp;
  std::vector<uint8_t> head_pt;
  std::string head_json;
  std::string manifest_json;
  std::string bank_track_path;
  std::string bank_container, bank_codec, bank_pix_fmt, bank_packing;
  int32_t band_w = 0, band_h = 0;

  // n_donors * band_h * band_w * 3
  size_t bandBytes() const;
  // The teeth pass's bank: the bank track read and decoded, its patches in donor order.
  tessera::BankData bankData() const;
};

// Never throws for a missing or unreadable manifest: the carriage is then undeclared.
TesseraCarriage tesseraCarriage(const std::string& dir);
TesseraCarriage tesseraCarriage(const Manifest& m);
// Returns when complete; else throws MissingTesseraMember.
void requireTesseraMembers(const TesseraCarriage& c);
// Reads and validates the four members; throws MissingTesseraMember or a runtime error.
TesseraAttachInputs loadTesseraMembers(const std::string& dir);
TesseraAttachInputs loadTesseraMembers(const Manifest& m);
// Copies patch i of a track-order buffer to slot track_order[i] of a donor-order buffer (each
// n_donors * band_h * band_w * 3 bytes).
void reorderTrackToDonor(const TesseraAttachInputs& in, const uint8_t* track_bytes, uint8_t* donor_bytes);

}  // namespace le
