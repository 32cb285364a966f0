#include "le/tessera/le_bundle_tessera.h"

#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "le/le.h"
#include "le/le_bundle.h"
#include "le/le_imx.h"
#include "le/le_util.h"
#include "le/tessera/le_tessera.h"

namespace le {

namespace {

}  // namespace

// ---------------------------------------------------------------------------------------------
// JSON reader

namespace tessera::json {

const JVal* JVal::get(std::string_view key) const {
  if (kind != Object) return nullptr;
  for (const auto& m : obj)
    if (m.first == key) return &m.second;
  return nullptr;
}

JVal JParser::parse() {
  pos_ = 0;
  return value(0);
}

void JParser::skipBlanks() {
  while (pos_ < text_.size()) {
    const char c = text_[pos_];
    if (c != ' ' && c != '\t' && c != '\n' && c != '\r') break;
    ++pos_;
  }
}

std::string JParser::string() {
  // pos_ is just past the opening quote; a string running to the end of the text ends there.
  std::string out;
  const size_t n = text_.size();
  while (pos_ < n) {
    const char c = text_[pos_++];
    if (c == '"') return out;
    if (c != '\\') {
      out.push_back(c);
      continue;
    }
    if (pos_ >= n) break;
    const char e = text_[pos_];
    switch (e) {
      case 'b': out.push_back('\b'); break;
      case 'f': out.push_back('\f'); break;
      case 'n': out.push_back('\n'); break;
      case 'r': out.push_back('\r'); break;
      case 't': out.push_back('\t'); break;
      case 'u':
        out.push_back('?');
        if (n - pos_ >= 5) pos_ += 4;  // the four digits are not looked at
        break;
      default: out.push_back(e); break;
    }
    ++pos_;
  }
  return out;
}

JVal JParser::value(int depth) {
  if (depth > kMaxDepth) fail("teeth: JSON nested too deep");
  skipBlanks();
  const size_t n = text_.size();
  if (pos_ >= n) fail("teeth: JSON truncated");
  JVal v;
  const char c = text_[pos_];
  // The elements after an opening '{' or '[' up to `close`, each read by elem.
  auto sequence = [&](char close, const char* malformed, auto&& elem) {
    ++pos_;
    skipBlanks();
    if (pos_ < n && text_[pos_] == close) {
      ++pos_;
      return;
    }
    for (;;) {
      elem();
      skipBlanks();
      if (pos_ >= n) fail("teeth: JSON truncated");
      const char s = text_[pos_++];
      if (s == close) return;
      if (s != ',') fail(malformed);
    }
  };
  if (c == '{') {
    v.kind = JVal::Object;
    sequence('}', "teeth: malformed JSON object", [&] {
      skipBlanks();
      if (pos_ >= n) fail("teeth: JSON truncated");
      if (text_[pos_] != '"') fail("teeth: malformed JSON object");
      ++pos_;
      std::string key = string();
      skipBlanks();
      if (pos_ >= n) fail("teeth: JSON truncated");
      if (text_[pos_] != ':') fail("teeth: malformed JSON object");
      ++pos_;
      JVal member = value(depth + 1);
      v.obj.emplace_back(std::move(key), std::move(member));
    });
    return v;
  }
  if (c == '[') {
    v.kind = JVal::Array;
    sequence(']', "teeth: malformed JSON array", [&] { v.arr.push_back(value(depth + 1)); });
    return v;
  }
  if (c == '"') {
    ++pos_;
    v.kind = JVal::String;
    v.str = string();
    return v;
  }
  const std::string_view rest(text_.data() + pos_, n - pos_);
  if (rest.substr(0, 4) == "true") {
    v.kind = JVal::Bool;
    v.b = true;
    pos_ += 4;
    return v;
  }
  if (rest.substr(0, 5) == "false") {
    v.kind = JVal::Bool;
    pos_ += 5;
    return v;
  }
  if (rest.substr(0, 4) == "null") {
    pos_ += 4;
    return v;
  }
  const char* begin = text_.c_str() + pos_;
  char* end = nullptr;
  v.num = std::strtod(begin, &end);
  if (end == begin) fail("teeth: bad JSON number");
  v.kind = JVal::Number;
  pos_ += static_cast<size_t>(end - begin);
  return v;
}

}  // namespace tessera::json

// ---------------------------------------------------------------------------------------------
// Geometry stamp

namespace tessera {

namespace {
using StampField = int32_t GeometryStamp::*;
constexpr std::array<StampField, GeometryStamp::kCount> kStampFields = {
    &GeometryStamp::canvas_w, &GeometryStamp::canvas_h, &GeometryStamp::window_x0, &GeometryStamp::window_y0,
    &GeometryStamp::window_w, &GeometryStamp::window_h, &GeometryStamp::pad,       &GeometryStamp::band_r0,
    &GeometryStamp::band_r1,  &GeometryStamp::band_c0,  &GeometryStamp::band_c1,   &GeometryStamp::shift_margin};
}  // namespace

const std::array<const char*, GeometryStamp::kCount>& GeometryStamp::keys() {
  static const std::array<const char*, kCount> k = {"canvas_w", "canvas_h", "window_x0", "window_y0",
                                                    "window_w", "window_h", "pad",       "band_r0",
                                                    "band_r1",  "band_c0",  "band_c1",   "shift_margin"};
  return k;
}

int32_t GeometryStamp::at(int i) const { return this->*kStampFields.at(static_cast<size_t>(i)); }
int32_t& GeometryStamp::at(int i) { return this->*kStampFields.at(static_cast<size_t>(i)); }

std::array<int32_t, GeometryStamp::kCount> GeometryStamp::values() const {
  std::array<int32_t, kCount> v;
  for (int i = 0; i < kCount; ++i) v[i] = at(i);
  return v;
}

std::string GeometryStamp::text() const {
  std::string t = "{";
  for (int i = 0; i < kCount; ++i) {
    if (i) t += ", ";
    t += keys()[i];
    t += "=" + std::to_string(at(i));
  }
  return t + "}";
}

void GeometryStamp::validate() const {
  // 64-bit sums: a stamp near the int32 limits must be reported, not wrapped.
  using I = int64_t;
  std::string problems;
  const auto rule = [&](bool ok, const char* problem) {
    if (!ok) problems += std::string(" ") + problem + ";";
  };
  rule(window_w > 0 && window_h > 0, "window dims must be positive");
  rule(window_x0 >= 0 && I(window_x0) + window_w <= canvas_w, "window x-range escapes canvas");
  rule(window_y0 >= 0 && I(window_y0) + window_h <= canvas_h, "window y-range escapes canvas");
  rule(0 <= band_r0 && band_r0 < band_r1 && band_r1 <= window_h, "band rows escape window");
  rule(0 <= band_c0 && band_c0 < band_c1 && band_c1 <= window_w, "band cols escape window");
  rule(shift_margin >= 0 && pad > 0, "pad/shift_margin must be positive");
  rule(I(band_r0) + pad >= shift_margin && I(band_r1) + pad + shift_margin <= I(window_h) + 2 * I(pad),
       "stored band rows escape patch");
  rule(I(band_c0) + pad >= shift_margin && I(band_c1) + pad + shift_margin <= I(window_w) + 2 * I(pad),
       "stored band cols escape patch");
  if (!problems.empty()) fail("teeth: GeometryStamp incoherent:" + problems);
}

}  // namespace tessera

// ---------------------------------------------------------------------------------------------
// Slots and carriage

namespace {

using tessera::GeometryStamp;
using tessera::json::JParser;
using tessera::json::JVal;

constexpr const char* kManifestNames[] = {"manifest.json", "meta.json"};

// Truncation toward zero, saturating on values an int32 cannot hold.
int32_t truncI32(double v) {
  if (std::isnan(v)) return 0;
  if (v >= static_cast<double>(INT32_MAX)) return INT32_MAX;
  if (v <= static_cast<double>(INT32_MIN)) return INT32_MIN;
  return static_cast<int32_t>(v);
}

// The first manifest name that opens for reading, or "".
std::string manifestPath(const std::string& root) {
  for (const char* name : kManifestNames) {
    const std::string p = root + "/" + name;
    if (canOpenForRead(p)) return p;
  }
  return "";
}

// The top-level object's first "tessera" member when it is an object.
const JVal* tesseraBlock(const JVal& manifest) {
  const JVal* t = manifest.get("tessera");
  return t && t->isObject() ? t : nullptr;
}

std::string readMember(const std::string& path) {
  try {
    return readFile(path);
  } catch (const std::runtime_error& e) {
    fail(std::string("teeth: ") + e.what());  // "cannot open <path>" / "short read <path>"
  }
}

JVal parseNamed(const std::string& text, const std::string& name) {
  try {
    return JParser(text).parse();
  } catch (const std::runtime_error& e) {
    fail("teeth: " + name + " is not readable JSON: " + e.what());
  }
}

double numberOf(const JVal* v, const std::string& name, const std::string& key) {
  if (!v || !v->isNumber()) fail("teeth: " + name + " lacks numeric '" + key + "'");
  return v->num;
}

GeometryStamp readStamp(const JVal& obj, const std::string& name) {
  GeometryStamp s;
  for (int i = 0; i < GeometryStamp::kCount; ++i) {
    const char* key = GeometryStamp::keys()[i];
    s.at(i) = truncI32(numberOf(obj.get(key), name, key));
  }
  return s;
}

std::string strOr(const JVal* obj, const char* key, const std::string& dflt) {
  const JVal* v = obj ? obj->get(key) : nullptr;
  return v && v->isString() ? v->str : dflt;
}

}  // namespace

const std::array<const char*, 4>& tesseraSlotKeys() {
  static const std::array<const char*, 4> k = {"bank_track", "bank_sidecar", "head_weights", "head_config"};
  return k;
}

int tesseraSlotIndex(std::string_view key) {
  for (int i = 0; i < tesseraSlotCount(); ++i)
    if (key == tesseraSlotKeys()[i]) return i;
  return -1;
}

const std::string& TesseraCarriage::path(std::string_view key) const {
  const int i = tesseraSlotIndex(key);
  if (i < 0) fail("teeth: no such member slot '" + std::string(key) + "'");
  return paths[static_cast<size_t>(i)];
}

tessera::BankData TesseraAttachInputs::bankData() const {
  const std::string track = readFile(bank_track_path);
  tessera::BankData b;
  b.band = tessera::decodeBankTrack(reinterpret_cast<const uint8_t*>(track.data()), track.size(), n_donors, band_h,
                                    band_w, track_order);
  b.cent = cent, b.c_canon = c_canon, b.aperture = aperture, b.stamp = stamp, b.n_donors = n_donors;
  return b;
}

size_t TesseraAttachInputs::bandBytes() const {
  if (n_donors <= 0 || band_w <= 0 || band_h <= 0) return 0;
  return static_cast<size_t>(n_donors) * static_cast<size_t>(band_h) * static_cast<size_t>(band_w) * 3;
}

TesseraCarriage tesseraCarriage(const std::string& dir) {
  TesseraCarriage c;
  const std::string root = resolveBundlePath(dir);
  const std::string mpath = manifestPath(root);
  std::string text;
  if (!mpath.empty()) {
    try {
      text = readFile(mpath);
    } catch (const std::runtime_error&) {
      text.clear();  // an unreadable manifest counts as none
    }
  }
  if (!text.empty()) {
    JVal top;
    bool parsed = true;
    try {
      top = JParser(text).parse();
    } catch (const std::runtime_error&) {
      parsed = false;
    }
    if (const JVal* t = parsed ? tesseraBlock(top) : nullptr) {
      c.declared = true;
      const JVal* members = t->get("members");
      if (members && members->isObject()) {
        for (int i = 0; i < tesseraSlotCount(); ++i) {
          const JVal* v = members->get(tesseraSlotKeys()[i]);
          if (!v || !v->isString() || v->str.empty()) continue;
          // Overrides name files inside the bundle, never beside or above it.
          if (!imx::isSafeMemberName(v->str))
            fail(std::string("teeth: manifest.tessera.members.") + tesseraSlotKeys()[i] + " names '" +
                 std::string(v->str.c_str()) + "', which is not a member inside the bundle (an absolute path, "
                 "'..' or a zero byte) — refusing to read outside " + root);
          c.slots.names[static_cast<size_t>(i)] = v->str;
        }
      }
    }
  }
  for (int i = 0; i < tesseraSlotCount(); ++i) {
    const size_t s = static_cast<size_t>(i);
    c.paths[s] = resolveMember(root, c.slots.names[s]);
    if (!canOpenForRead(c.paths[s])) c.missing.emplace_back(tesseraSlotKeys()[s]);
  }
  c.complete = c.missing.empty();
  return c;
}

TesseraCarriage tesseraCarriage(const Manifest& m) { return tesseraCarriage(m.dir); }

void requireTesseraMembers(const TesseraCarriage& c) {
  if (c.complete) return;
  std::string msg = "missing teeth member(s): ";
  for (size_t i = 0; i < c.missing.size(); ++i) {
    if (i) msg += ", ";
    const int s = tesseraSlotIndex(c.missing[i]);
    msg += c.missing[i] + " (" + (s >= 0 ? c.slots.names[static_cast<size_t>(s)] : std::string()) + ")";
  }
  msg += " — carries " + std::to_string(tesseraSlotCount() - static_cast<int>(c.missing.size())) + " of 4";
  if (c.declared) msg += " and declares a manifest.tessera block the members do not keep";
  msg +=
      ". ONE predicate (owner ruling 2026-09-06): all four members present = ARMED on every plane; any missing = "
      "REFUSED on every plane. The borrow is a SWITCH, not a gradient — there is no rendering mode that proceeds "
      "without them (tamsine-2 IS borrowed teeth). Re-stage the bundle with the bank builder.";
  throw MissingTesseraMember(msg, c.missing);
}

// ---------------------------------------------------------------------------------------------
// Member loading

TesseraAttachInputs loadTesseraMembers(const std::string& dir) {
  const std::string root = resolveBundlePath(dir);
  const TesseraCarriage carriage = tesseraCarriage(root);
  requireTesseraMembers(carriage);

  const std::string mpath = manifestPath(root);
  if (mpath.empty())
    fail(root +
         " carries no manifest.json or meta.json — the compose descriptor (unified.pi) the pass places its window "
         "by lives there, and placing a borrow window without it is guessing.");

  TesseraAttachInputs in;
  in.manifest_json = readMember(mpath);
  in.head_json = readMember(carriage.path("head_config"));
  const std::string pt = readMember(carriage.path("head_weights"));
  in.head_pt.assign(pt.begin(), pt.end());
  in.bank_track_path = carriage.path("bank_track");
  const std::string sidecar_text = readMember(carriage.path("bank_sidecar"));

  const std::string& sc = carriage.slots.names[1];
  const JVal side = parseNamed(sidecar_text, sc);
  const JVal manifest = parseNamed(in.manifest_json, mpath);
  const JVal* tess = tesseraBlock(manifest);

  const std::string format = strOr(&side, "format", "");
  if (format != "tessera_bank.v1")
    fail(sc + " declares format '" + format +
         "', not 'tessera_bank.v1' — this reader does not know that generation and will not guess at its keys.");

  const JVal* geo = side.get("geometry");
  if (!geo || !geo->isObject()) fail(sc + " carries no `geometry` stamp");
  in.stamp = readStamp(*geo, sc + ".geometry");

  if (const JVal* mgeo = tess ? tess->get("geometry") : nullptr; mgeo && mgeo->isObject()) {
    const GeometryStamp ms = readStamp(*mgeo, "manifest.tessera.geometry");
    if (ms != in.stamp)
      fail("teeth geometry DISAGREES between the manifest and the bank sidecar — manifest " + ms.text() + " vs " +
           sc + " " + in.stamp.text() +
           "; refusing to place a window on a rectangle the two halves of the bundle do not agree on.");
  }

  const int64_t bw = int64_t(in.stamp.band_c1) + 2 * int64_t(in.stamp.shift_margin) - in.stamp.band_c0;
  const int64_t bh = int64_t(in.stamp.band_r1) + 2 * int64_t(in.stamp.shift_margin) - in.stamp.band_r0;
  if (bw < 1 || bh < 1)
    fail("teeth stamp yields a non-positive stored patch (" + std::to_string(bw) + "x" + std::to_string(bh) + ")");
  if (bw > INT32_MAX || bh > INT32_MAX)
    fail("teeth stamp yields an oversized stored patch (" + std::to_string(bw) + "x" + std::to_string(bh) + ")");
  in.band_w = static_cast<int32_t>(bw);
  in.band_h = static_cast<int32_t>(bh);

  const int32_t n = truncI32(numberOf(side.get("n_donors"), sc, "n_donors"));
  if (n < 1) fail(sc + " says n_donors=" + std::to_string(n));
  if (n > 1024)
    fail(sc + " carries n_donors=" + std::to_string(n) +
         ", over the owner's cap of 1024 (ruling 2026-08-28). This reader REFUSES rather than capping: the selector "
         "is the bank's BUILD-time cap selector, and a second one here would change which donors reach the mouth "
         "while every count-based check stayed green. Rebuild the bank.");
  in.n_donors = n;

  const JVal* order = side.get("track_order");
  const JVal* cent = side.get("cent");
  const JVal* aperture = side.get("aperture");
  const JVal* canon = side.get("c_canon");
  if (!order || !order->isArray() || !cent || !cent->isArray() || !aperture || !aperture->isArray() || !canon ||
      !canon->isArray())
    fail(sc + " lacks one of track_order/cent/aperture/c_canon as an array");
  const size_t un = static_cast<size_t>(n);
  if (order->arr.size() != un || cent->arr.size() != un || aperture->arr.size() != un)
    fail(sc + " says n_donors=" + std::to_string(n) + " but carries track_order=" +
         std::to_string(order->arr.size()) + ", cent=" + std::to_string(cent->arr.size()) +
         ", aperture=" + std::to_string(aperture->arr.size()) +
         " — a count mismatch silently mis-orders the donors.");
  if (canon->arr.size() != 2) fail(sc + " c_canon is not a pair");

  const auto element = [&](const JVal& v, const std::string& what) {
    return numberOf(&v, sc, what);
  };
  std::vector<char> seen(un, 0);
  in.track_order.resize(un);
  for (size_t i = 0; i < un; ++i) {
    const int32_t v = truncI32(element(order->arr[i], "track_order[" + std::to_string(i) + "]"));
    if (v < 0 || v >= n)
      fail(sc + " track_order[" + std::to_string(i) + "]=" + std::to_string(v) + " is outside [0," +
           std::to_string(n) + ")");
    if (seen[static_cast<size_t>(v)])
      fail(sc + " track_order is not a permutation (reference " + std::to_string(v) +
           " appears twice) — the inverse permutation would leave a reference slot never written and the pass "
           "would blend uninitialised memory into a real mouth.");
    seen[static_cast<size_t>(v)] = 1;
    in.track_order[i] = v;
  }
  in.cent.resize(2 * un);
  for (size_t i = 0; i < un; ++i) {
    const JVal& e = cent->arr[i];
    if (!e.isArray() || e.arr.size() != 2 || !e.arr[0].isNumber() || !e.arr[1].isNumber())
      fail(sc + " cent[" + std::to_string(i) + "] is not an (x,y) pair");
    in.cent[2 * i] = e.arr[0].num;
    in.cent[2 * i + 1] = e.arr[1].num;
  }
  in.aperture.resize(un);
  for (size_t i = 0; i < un; ++i) in.aperture[i] = element(aperture->arr[i], "aperture[" + std::to_string(i) + "]");
  for (size_t i = 0; i < 2; ++i) in.c_canon[i] = element(canon->arr[i], "c_canon[" + std::to_string(i) + "]");

  in.bank_container = strOr(tess, "bank_container", "mp4");
  in.bank_packing = strOr(tess, "bank_packing", "rgb24_frames");
  const JVal* codec = side.get("codec");
  if (codec && !codec->isObject()) codec = nullptr;
  in.bank_codec = strOr(tess, "bank_codec", strOr(codec, "codec", ""));
  in.bank_pix_fmt = strOr(tess, "bank_pix_fmt", strOr(codec, "pix_fmt", ""));
  if (in.bank_pix_fmt.empty())
    fail(root + ": neither manifest.tessera.bank_pix_fmt nor " + sc +
         ".codec.pix_fmt states the reference track's pixel format. A decoder handed no format negotiates one, and "
         "the one it settles on is 4:2:0 — lossy chroma on reference pixels IS the borrow degrading. Refusing "
         "rather than letting it guess.");
  return in;
}

TesseraAttachInputs loadTesseraMembers(const Manifest& m) { return loadTesseraMembers(m.dir); }

void reorderTrackToDonor(const TesseraAttachInputs& in, const uint8_t* track_bytes, uint8_t* donor_bytes) {
  if (!track_bytes || !donor_bytes) fail("teeth: null band buffer");
  if (in.n_donors < 0 || in.track_order.size() != static_cast<size_t>(in.n_donors))
    fail("teeth: track_order does not match n_donors");
  if (in.band_w <= 0 || in.band_h <= 0) fail("teeth: zero reference stride");
  const size_t stride = static_cast<size_t>(in.band_w) * static_cast<size_t>(in.band_h) * 3;
  for (size_t i = 0; i < in.track_order.size(); ++i) {
    const int32_t d = in.track_order[i];
    if (d < 0 || d >= in.n_donors) fail("teeth: track_order is out of range");
    std::memcpy(donor_bytes + static_cast<size_t>(d) * stride, track_bytes + i * stride, stride);
  }
}

}  // namespace le
