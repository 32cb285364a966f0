// The borrow members through the flat interface: the armed/refused switch, manifest overrides,
// every sidecar validation with its exact message, and the track-to-donor reorder; and their JSON
// reader: structure, the escapes and permissive endings the bank tools rely on, its messages.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "le/le.h"
#include "le/tessera/le_bundle_tessera.h"
#include "tests/bundle_fixture.h"

namespace {

using le::tessera::json::JParser;
using le::tessera::json::JVal;
using le::testing::ScratchDir;
using le::testing::thrown;
using le::testing::writeFile;

const char* kStamp =
    R"({"canvas_w": 128, "canvas_h": 128, "window_x0": 44, "window_y0": 73, "window_w": 40, "window_h": 30,
        "pad": 4, "band_r0": 5, "band_r1": 25, "band_c0": 4, "band_c1": 36, "shift_margin": 2})";

struct Sidecar {
  std::string format = "\"tessera_bank.v1\"";
  std::string geometry = kStamp;
  std::string n = "3";
  std::string order = "[2, 0, 1]";
  std::string cent = "[[60.5, 90], [61, 89.25], [59, 90.5]]";
  std::string aperture = "[4, 6.5, 9]";
  std::string canon = "[60, 90]";
  std::string codec = R"({"codec": "h264", "pix_fmt": "gbrp"})";
  std::string text() const {
    return "{\"format\": " + format + ", \"geometry\": " + geometry + ", \"n_donors\": " + n +
           ", \"track_order\": " + order + ", \"cent\": " + cent + ", \"aperture\": " + aperture +
           ", \"c_canon\": " + canon + ", \"codec\": " + codec + "}";
  }
};

// A bundle with the four members under their default names; tessera is the manifest's
// "tessera" block ("" for none).
void stage(const ScratchDir& d, const Sidecar& s, const std::string& tessera = "") {
  writeFile(d / "manifest.json", le::testing::manifestText(tessera.empty() ? "" : ",\n  \"tessera\": " + tessera));
  writeFile(d / "tessera_bank.v1.json", s.text());
  writeFile(d / "tessera_bank.v1.mp4", "track");
  writeFile(d / "tessera_head.v1.pt", std::string("PK\x03\x04weights", 11));
  writeFile(d / "tessera_head.v1.json", "{\"retrieval\": {}}");
}

struct Members {
  le_tessera_members* h = nullptr;
  std::string err;
  explicit Members(const std::string& dir) {
    char buf[2048];
    h = le_tessera_members_open(dir.c_str(), buf, sizeof buf);
    err = buf;
  }
  ~Members() { le_tessera_members_close(h); }
};

std::string openError(const ScratchDir& d, const Sidecar& s, const std::string& tessera = "") {
  stage(d, s, tessera);
  Members m(d.path());
  EXPECT_EQ(m.h == nullptr, !m.err.empty());
  return m.err;
}

TEST(TesseraMembers, SlotsAndCarriage) {
  ASSERT_EQ(le_tessera_slot_count(), 4);
  EXPECT_STREQ(le_tessera_slot_key(0), "bank_track");
  EXPECT_STREQ(le_tessera_slot_key(3), "head_config");
  EXPECT_EQ(le_tessera_slot_key(4), nullptr);
  EXPECT_EQ(le_tessera_slot_key(-1), nullptr);
  EXPECT_EQ(le_tessera_carriage_open(nullptr), nullptr);
  EXPECT_EQ(le_tessera_carriage_complete(nullptr), 0);
  EXPECT_STREQ(le_tessera_carriage_path(nullptr, "bank_track"), "");

  ScratchDir d("tessera_carriage");
  stage(d, Sidecar{});
  std::remove((d / "tessera_head.v1.json").c_str());
  // an empty override keeps the default; a string of another kind is ignored
  writeFile(d / "manifest.json",
            le::testing::manifestText(
                ",\n  \"tessera\": {\"members\": {\"bank_track\": \"\", \"head_weights\": \"w/head.pt\", "
                "\"head_config\": 7}}"));
  writeFile(d / "w/head.pt", "x");
  le_tessera_carriage* c = le_tessera_carriage_open(d.path().c_str());
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(le_tessera_carriage_complete(c), 0);
  EXPECT_EQ(le_tessera_carriage_declared(c), 1);
  ASSERT_EQ(le_tessera_carriage_missing_count(c), 1);
  EXPECT_STREQ(le_tessera_carriage_missing(c, 0), "head_config");
  EXPECT_EQ(le_tessera_carriage_missing(c, 1), nullptr);
  EXPECT_EQ(std::string(le_tessera_carriage_path(c, "bank_track")), d / "tessera_bank.v1.mp4");
  EXPECT_EQ(std::string(le_tessera_carriage_path(c, "head_weights")), d / "w/head.pt");
  EXPECT_STREQ(le_tessera_carriage_path(c, "nope"), "");
  le_tessera_carriage_close(c);
  EXPECT_EQ(thrown([&] { le::tesseraCarriage(d.path()).path("nope"); }),
            "teeth: no such member slot 'nope'");

  // the one-predicate refusal names the missing member and the declared block
  Members m(d.path());
  EXPECT_EQ(m.h, nullptr);
  EXPECT_EQ(m.err.rfind("missing teeth member(s): head_config (tessera_head.v1.json) — carries 3 of 4 and declares a "
                        "manifest.tessera block the members do not keep. ONE predicate (owner ruling 2026-09-06): ",
                        0),
            0u)
      << m.err;
  try {
    le::loadTesseraMembers(d.path());
    FAIL();
  } catch (const le::MissingTesseraMember& e) {
    EXPECT_EQ(e.missing(), std::vector<std::string>{"head_config"});
  }

  // an unreadable manifest: undeclared, members still resolved; the loader names the JSON fault
  writeFile(d / "manifest.json", "{\"tessera\": {\"members\": [1, 2");
  writeFile(d / "tessera_head.v1.json", "{}");
  c = le_tessera_carriage_open(d.path().c_str());
  EXPECT_EQ(le_tessera_carriage_complete(c), 1);
  EXPECT_EQ(le_tessera_carriage_declared(c), 0);
  le_tessera_carriage_close(c);
  Members bad(d.path());
  EXPECT_EQ(bad.err, "teeth: " + d / "manifest.json" + " is not readable JSON: teeth: JSON truncated");
}

TEST(TesseraMembers, OverridesNeverLeaveTheBundle) {
  ScratchDir d("tessera_escape");
  for (const std::string name : {"../outside.mp4", "/etc/passwd", "a/../../b.mp4"}) {
    stage(d, Sidecar{}, "{\"members\": {\"bank_track\": \"" + name + "\"}}");
    Members m(d.path());
    EXPECT_EQ(m.err, "teeth: manifest.tessera.members.bank_track names '" + name +
                         "', which is not a member inside the bundle (an absolute path, '..' or a zero byte) — "
                         "refusing to read outside " + d.path());
    le_tessera_carriage* c = le_tessera_carriage_open(d.path().c_str());
    EXPECT_EQ(le_tessera_carriage_missing_count(c), 4);  // a carriage that cannot be built carries nothing
    le_tessera_carriage_close(c);
  }
  static const char kNul[] = "{\"members\": {\"bank_track\": \"a\0b\"}}";
  stage(d, Sidecar{}, std::string(kNul, sizeof kNul - 1));
  EXPECT_NE(Members(d.path()).err.find("names 'a', which is not a member"), std::string::npos);
}

TEST(TesseraMembers, LoadsEveryField) {
  ScratchDir d("tessera_load");
  stage(d, Sidecar{}, std::string("{\"geometry\": ") + kStamp + ", \"bank_codec\": \"ffv1\"}");
  Members m(d.path());
  ASSERT_NE(m.h, nullptr) << m.err;
  EXPECT_EQ(m.err, "");
  EXPECT_EQ(le_tessera_members_n_donors(m.h), 3);
  const double* cent = le_tessera_members_cent(m.h);
  EXPECT_EQ(std::vector<double>(cent, cent + 6), (std::vector<double>{60.5, 90, 61, 89.25, 59, 90.5}));
  EXPECT_EQ(le_tessera_members_c_canon(m.h)[1], 90.0);
  EXPECT_EQ(le_tessera_members_aperture(m.h)[1], 6.5);
  const int32_t* st = le_tessera_members_stamp(m.h);
  EXPECT_EQ(std::vector<int32_t>(st, st + 12), (std::vector<int32_t>{128, 128, 44, 73, 40, 30, 4, 5, 25, 4, 36, 2}));
  EXPECT_EQ(le_tessera_members_band_w(m.h), 36);
  EXPECT_EQ(le_tessera_members_band_h(m.h), 24);
  EXPECT_EQ(le_tessera_members_band_bytes(m.h), 3u * 24 * 36 * 3);
  EXPECT_EQ(le_tessera_members_head_pt_len(m.h), 11u);
  EXPECT_EQ(std::memcmp(le_tessera_members_head_pt(m.h), "PK\x03\x04weights", 11), 0);
  EXPECT_STREQ(le_tessera_members_head_json(m.h), "{\"retrieval\": {}}");
  EXPECT_NE(std::string(le_tessera_members_manifest_json(m.h)).find("\"tessera\""), std::string::npos);
  EXPECT_EQ(std::string(le_tessera_members_bank_track_path(m.h)), d / "tessera_bank.v1.mp4");
  EXPECT_STREQ(le_tessera_members_bank_container(m.h), "mp4");
  EXPECT_STREQ(le_tessera_members_bank_codec(m.h), "ffv1");  // the manifest wins
  EXPECT_STREQ(le_tessera_members_bank_pix_fmt(m.h), "gbrp");  // else the sidecar
  EXPECT_STREQ(le_tessera_members_bank_packing(m.h), "rgb24_frames");
  EXPECT_STREQ(le_tessera_members_bank_codec(nullptr), "");
  EXPECT_EQ(le_tessera_members_band_bytes(nullptr), 0u);

  // track_order [2, 0, 1]: track patch i lands in donor slot order[i]
  const size_t patch = 24 * 36 * 3;
  std::vector<uint8_t> track(3 * patch), donor(3 * patch, 0);
  for (size_t i = 0; i < 3; ++i) std::fill(track.begin() + i * patch, track.begin() + (i + 1) * patch, uint8_t(10 + i));
  char err[8] = "x";
  ASSERT_EQ(le_tessera_members_reorder(m.h, track.data(), donor.data(), err, sizeof err), 0);
  EXPECT_EQ(donor[2 * patch], 10);
  EXPECT_EQ(donor[0], 11);
  EXPECT_EQ(donor[patch + patch - 1], 12);
  EXPECT_EQ(le_tessera_members_reorder(m.h, nullptr, donor.data(), err, sizeof err), 1);
  EXPECT_STREQ(err, "teeth: ");  // truncated to the buffer, terminated
  char big[64];
  le_tessera_members_reorder(nullptr, track.data(), donor.data(), big, sizeof big);
  EXPECT_STREQ(big, "le_tessera_members_reorder: null argument");
  le_tessera_members_reorder(m.h, track.data(), nullptr, big, 1);
  EXPECT_STREQ(big, "");
}

TEST(TesseraMembers, SidecarRefusals) {
  ScratchDir d("tessera_refuse");
  const std::string sc = "tessera_bank.v1.json";
  std::string noBand = kStamp;
  noBand.replace(noBand.find("\"band_c1\": 36"), 13, "\"band_c1\": 0 ");
  // One field of the sidecar changed at a time.
  const struct {
    std::string Sidecar::*field;
    std::string value, refusal;
  } cases[] = {
      {&Sidecar::format, "\"tessera_bank.v2\"",
       sc + " declares format 'tessera_bank.v2', not 'tessera_bank.v1' — this reader does not know that "
            "generation and will not guess at its keys."},
      {&Sidecar::geometry, "[]", sc + " carries no `geometry` stamp"},
      {&Sidecar::geometry, R"({"canvas_w": 128, "canvas_h": "128"})",
       "teeth: " + sc + ".geometry lacks numeric 'canvas_h'"},
      {&Sidecar::geometry, noBand, "teeth stamp yields a non-positive stored patch (0x24)"},
      {&Sidecar::n, "\"3\"", "teeth: " + sc + " lacks numeric 'n_donors'"},
      {&Sidecar::n, "0.9", sc + " says n_donors=0"},
      {&Sidecar::n, "1025",
       sc + " carries n_donors=1025, over the owner's cap of 1024 (ruling 2026-08-28). This reader REFUSES "
            "rather than capping: the selector is the bank's BUILD-time cap selector, and a second one here "
            "would change which donors reach the mouth while every count-based check stayed green. Rebuild "
            "the bank."},
      {&Sidecar::aperture, "{}", sc + " lacks one of track_order/cent/aperture/c_canon as an array"},
      {&Sidecar::cent, "[[1, 2], [3, 4]]",
       sc + " says n_donors=3 but carries track_order=3, cent=2, aperture=3 — a count mismatch silently "
            "mis-orders the donors."},
      {&Sidecar::cent, "[[1, 2], [3], [5, 6]]", sc + " cent[1] is not an (x,y) pair"},
      {&Sidecar::canon, "[1, 2, 3]", sc + " c_canon is not a pair"},
      {&Sidecar::order, "[2, 3, 1]", sc + " track_order[1]=3 is outside [0,3)"},
      {&Sidecar::order, "[-1, 0, 1]", sc + " track_order[0]=-1 is outside [0,3)"},
      {&Sidecar::order, "[2, 0, 2]",
       sc + " track_order is not a permutation (reference 2 appears twice) — the inverse permutation would "
            "leave a reference slot never written and the pass would blend uninitialised memory into a real "
            "mouth."},
      {&Sidecar::order, "[2, 0, 1", "teeth: " + sc + " is not readable JSON: teeth: malformed JSON array"},
  };
  for (const auto& c : cases) {
    Sidecar s;
    s.*c.field = c.value;
    EXPECT_EQ(openError(d, s), c.refusal) << c.value;
  }

  // pixel format: an empty manifest value overrides the sidecar's and leaves none
  EXPECT_EQ(openError(d, Sidecar{}, "{\"bank_pix_fmt\": \"\"}"),
            d.path() + ": neither manifest.tessera.bank_pix_fmt nor " + sc +
                ".codec.pix_fmt states the reference track's pixel format. A decoder handed no format negotiates "
                "one, and the one it settles on is 4:2:0 — lossy chroma on reference pixels IS the borrow "
                "degrading. Refusing rather than letting it guess.");

  // the manifest's stamp must agree on all twelve keys
  std::string other = kStamp;
  other.replace(other.find("\"pad\": 4"), 8, "\"pad\": 5");
  EXPECT_EQ(openError(d, Sidecar{}, "{\"geometry\": " + other + "}"),
            "teeth geometry DISAGREES between the manifest and the bank sidecar — manifest {canvas_w=128, "
            "canvas_h=128, window_x0=44, window_y0=73, window_w=40, window_h=30, pad=5, band_r0=5, band_r1=25, "
            "band_c0=4, band_c1=36, shift_margin=2} vs " + sc +
                " {canvas_w=128, canvas_h=128, window_x0=44, window_y0=73, window_w=40, window_h=30, pad=4, "
                "band_r0=5, band_r1=25, band_c0=4, band_c1=36, shift_margin=2}; refusing to place a window on a "
                "rectangle the two halves of the bundle do not agree on.");
  EXPECT_EQ(openError(d, Sidecar{}, R"({"geometry": {"canvas_w": 128}})"),
            "teeth: manifest.tessera.geometry lacks numeric 'canvas_h'");

  // 1024 donors is the cap, accepted
  Sidecar full;
  full.n = "1024";
  full.order = full.cent = full.aperture = "[";
  for (int i = 0; i < 1024; ++i) {
    const std::string sep = i ? ", " : "";
    full.order += sep + std::to_string(1023 - i);
    full.cent += sep + "[1, 2]";
    full.aperture += sep + "3";
  }
  full.order += "]", full.cent += "]", full.aperture += "]";
  EXPECT_EQ(openError(d, full), "");

  std::remove((d / "manifest.json").c_str());
  EXPECT_EQ(Members(d.path()).err,
            d.path() + " carries no manifest.json or meta.json — the compose descriptor (unified.pi) the pass "
                       "places its window by lives there, and placing a borrow window without it is guessing.");
  writeFile(d / "meta.json", "{}");
  EXPECT_EQ(Members(d.path()).err, "");
  char err[4] = "abc";
  EXPECT_EQ(le_tessera_members_open(nullptr, err, sizeof err), nullptr);
  EXPECT_STREQ(err, "le_");
}

TEST(TesseraMembers, StampValidation) {
  le::tessera::GeometryStamp s;
  const int32_t good[12] = {128, 128, 44, 73, 40, 30, 4, 5, 25, 4, 36, 2};
  for (int i = 0; i < 12; ++i) s.at(i) = good[i];
  EXPECT_NO_THROW(s.validate());
  le::tessera::GeometryStamp bad = s;
  bad.window_x0 = 100;  // 100 + 40 > 128
  bad.band_r1 = 31;     // past window_h, and its stored rows past the patch
  bad.pad = 0;
  EXPECT_EQ(thrown([&] { bad.validate(); }),
            "teeth: GeometryStamp incoherent: window x-range escapes canvas; band rows escape window; "
            "pad/shift_margin must be positive; stored band rows escape patch;");
  bad = s;
  bad.window_w = 0;
  bad.window_y0 = -1;
  EXPECT_EQ(thrown([&] { bad.validate(); }),
            "teeth: GeometryStamp incoherent: window dims must be positive; window y-range escapes canvas; band "
            "cols escape window; stored band cols escape patch;");
}

JVal parse(const std::string& t) { return JParser(t).parse(); }

TEST(TesseraJson, TreeKindsOrderAndDuplicates) {
  const JVal v =
      parse(" \r\n\t{\"a\": [1, -2.5e1, true, false, null, \"x\"], \"o\": {}, \"a\": 7, \"e\": []}");
  ASSERT_EQ(v.kind, JVal::Object);
  ASSERT_EQ(v.obj.size(), 4u);
  EXPECT_EQ(v.obj[2].first, "a");  // duplicates are kept in document order
  const JVal* a = v.get("a");      // ... and the first wins a lookup
  ASSERT_TRUE(a && a->isArray());
  ASSERT_EQ(a->arr.size(), 6u);
  EXPECT_EQ(a->arr[0].num, 1.0);
  EXPECT_EQ(a->arr[1].num, -25.0);
  EXPECT_EQ(a->arr[2].kind, JVal::Bool);
  EXPECT_TRUE(a->arr[2].b);
  EXPECT_FALSE(a->arr[3].b);
  EXPECT_EQ(a->arr[4].kind, JVal::Null);
  EXPECT_EQ(a->arr[5].str, "x");
  EXPECT_TRUE(v.get("o")->isObject());
  EXPECT_TRUE(v.get("e")->arr.empty());
  EXPECT_EQ(v.get("missing"), nullptr);
  EXPECT_EQ(a->get("a"), nullptr);  // not an object
}

TEST(TesseraJson, EscapesAndPermissiveEndings) {
  EXPECT_EQ(parse(R"("a\b\f\n\r\t\/\"\\z")").str, "a\b\f\n\r\t/\"\\z");
  // \u: one '?' and the next four characters skipped unseen (not checked as hex digits)
  EXPECT_EQ(parse(R"("x\u00e9y")").str, "x?y");
  EXPECT_EQ(parse(R"("x\uZZZZy")").str, "x?y");
  EXPECT_EQ(parse("\"x\\u12").str, "x?12");  // fewer than five left: only the u goes
  EXPECT_EQ(parse("\"caf\xc3\xa9\"").str, "caf\xc3\xa9");
  EXPECT_EQ(parse("\"runs to the end").str, "runs to the end");
  EXPECT_EQ(parse("\"ends in a backslash\\").str, "ends in a backslash");
  EXPECT_TRUE(parse("trueish").b);   // by prefix
  EXPECT_EQ(parse("nullx").kind, JVal::Null);
  EXPECT_EQ(parse("12 garbage {").num, 12.0);  // nothing after the value is examined
  EXPECT_EQ(parse("[1]]]").arr.size(), 1u);
}

TEST(TesseraJson, ReaderMessages) {
  const auto err = [](const std::string& t) { return thrown([&] { JParser(t).parse(); }); };
  const std::pair<const char*, const char*> cases[] = {
      {"", "teeth: JSON truncated"},
      {"  \n", "teeth: JSON truncated"},
      {"[1, 2", "teeth: JSON truncated"},
      {"{\"a\": 1", "teeth: JSON truncated"},
      {"{\"a\"", "teeth: JSON truncated"},
      {"[1,", "teeth: JSON truncated"},
      {"-", "teeth: bad JSON number"},
      {"[tru]", "teeth: bad JSON number"},
      {"[1 2]", "teeth: malformed JSON array"},
      {"{\"a\" 1}", "teeth: malformed JSON object"},
      {"{a: 1}", "teeth: malformed JSON object"},
      {"{\"a\": 1 \"b\": 2}", "teeth: malformed JSON object"},
      {"{\"a\": 1,}", "teeth: malformed JSON object"},
  };
  for (const auto& [text, message] : cases) EXPECT_EQ(err(text), message) << text;
  EXPECT_EQ(err(std::string(100000, '[')), "teeth: JSON nested too deep");
  EXPECT_EQ(parse(std::string(JParser::kMaxDepth, '[') + "1" + std::string(JParser::kMaxDepth, ']')).kind,
            JVal::Array);
}

}  // namespace
