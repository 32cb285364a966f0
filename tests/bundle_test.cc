#include "le/le_bundle.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mman.h>

#include <array>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_error.h"
#include "tests/bundle_fixture.h"
#include "tests/support/media.h"

namespace {

using le::testing::manifestText;
using le::testing::ScratchDir;
using le::testing::thrown;
using le::testing::writeFile;
namespace mk = le::manifest_key;

std::string edited(std::string text, const std::string& from, const std::string& to) {
  const size_t at = text.find(from);
  if (at == std::string::npos) throw std::logic_error("no " + from + " in manifest");
  return text.replace(at, from.size(), to);
}

std::string loadError(const ScratchDir& dir, const std::string& manifest) {
  writeFile(dir / "manifest.json", manifest);
  return thrown([&] { le::loadManifest(dir.path()); });
}

// Where a key's scalar value is found: the top level wins over nested blocks, a lone nested
// scalar counts, object and array values never do, and strings hide what they contain.
TEST(KeyScanner, ScalarValuePositions) {
  const std::string t =
      R"({"a": 1, "n": {"a": 2, "b": [3, {"b": 4}]}, "s": "\"a\": 9", "o": {"x": 1}, "o2": [1]})";
  EXPECT_EQ(mk::scalarValuePos(t, "a"), t.find("1,"));
  EXPECT_EQ(mk::scalarValuePos(t, "b"), t.find("4}"));
  for (const char* none : {"o", "o2", "zz"}) EXPECT_EQ(mk::scalarValuePos(t, none), mk::kNotFound) << none;
  const std::string braces = R"({"s": "{{[[", "k": 5})";
  EXPECT_EQ(mk::scalarValuePos(braces, "k"), braces.find('5'));
  ASSERT_EQ(mk::keyHits(braces, "k").size(), 1u);
  EXPECT_EQ(mk::keyHits(braces, "k")[0].depth, 1);
  // An escaped quote inside a key is compared raw, backslash included.
  const std::string esc = R"({"a\"b": 7})";
  EXPECT_EQ(mk::scalarValuePos(esc, "a\\\"b"), esc.find('7'));
  EXPECT_EQ(mk::scalarValuePos(esc, "a\"b"), mk::kNotFound);
  // Blanks around the colon; a value at the very end is not scalar; unterminated strings end it.
  const std::string blanks = "{\"k\"\n\t :  \r\n 12}";
  EXPECT_EQ(mk::scalarValuePos(blanks, "k"), blanks.find("12"));
  EXPECT_EQ(mk::scalarValuePos("{\"k\": ", "k"), mk::kNotFound);
  EXPECT_TRUE(mk::keyHits("{\"x\": \"open, \"k\": 1", "k").empty());
}

TEST(KeyScanner, AmbiguityNamesEveryCollidingOffset) {
  const std::string t = R"({"W": 1, "W": 2, "n": {"W": 3}})";
  const std::string msg = thrown([&] { mk::scalarValuePos(t, "W"); });
  EXPECT_EQ(msg,
            "manifest: key \"W\" is AMBIGUOUS — 2 scalar occurrences (byte 6, byte 14). A loader "
            "that picks one silently installs a number nobody checks. Rename the colliding key (a "
            "nested block must not reuse a name the bundle loader reads: NT/frame_count, H, W, "
            "crop/crop_size, amount, sigma, ksize, frames, M_src_w/paste_source_width, "
            "M_src_h/paste_source_height), or produce the bundle with the legacy manifest layout.");
  // Without a top-level occurrence, every scalar occurrence collides.
  const std::string nested = R"({"a": {"k": 1}, "b": {"k": 2}, "c": [{"k": 3}]})";
  EXPECT_NE(thrown([&] { mk::scalarValuePos(nested, "k"); })
                .find("3 scalar occurrences (byte 12, byte 27, byte 43)"),
            std::string::npos);
}

// The edges the manifest's own loads do not reach (its missing keys are the refusal test's).
TEST(FieldReaders, StringsNumbersAndOptionalStrings) {
  const std::string t =
      R"({"s": "abc", "e": "", "n": 12.5, "q": "a\"b", "P_hevc": "x.mov"})";
  EXPECT_EQ(le::strField(t, "s"), "abc");
  EXPECT_EQ(le::strField(t, "q"), "a\\");  // escapes are not interpreted
  EXPECT_EQ(thrown([&] { le::strField(R"({"s": 1})", "s"); }), "manifest: bad string s");
  EXPECT_EQ(thrown([&] { le::strField(R"({"s": "abc)", "s"); }), "manifest: bad string s");
  // -1e300 stands for "absent" in the two-key reader.
  EXPECT_EQ(le::numFieldEither(R"({"a": -1e300, "b": 4})", "a", "b"), 4.0);
  std::string out = "keep";
  EXPECT_TRUE(le::optStr(t, "P_hevc", out));
  EXPECT_EQ(out, "x.mov");
  out = "keep";
  EXPECT_FALSE(le::optStr(t, "n", out));
  EXPECT_EQ(out, "keep");
  EXPECT_FALSE(le::optStr(t, "zz", out));
  EXPECT_FALSE(le::optStr(t, "e", out));  // an empty string is taken but reports false
  EXPECT_EQ(out, "");
}

TEST(Manifest, LoadsEveryMember) {
  ScratchDir dir("manifest");
  writeFile(dir / "manifest.json",
            manifestText(R"(, "tessera": {"crop": 512, "W": 3, "NT": 2}, "note": "\"H\": 5")"));
  const le::Manifest m = le::loadManifest(dir.path());
  EXPECT_EQ(m.dir + " " + m.agent + " " + m.lip_template, dir.path() + " agent-7 ");
  // crop: the top level wins silently over the nested block
  EXPECT_EQ(std::vector<int>({m.NT, m.H, m.W, m.crop, m.M_src_w, m.M_src_h, m.unsharp.ksize, m.frames}),
            std::vector<int>({40, 720, 1280, 256, 640, 360, 9, 120}));
  EXPECT_EQ(std::make_pair(m.unsharp.amount, m.unsharp.sigma), std::make_pair(1.5f, 2.5f));
  EXPECT_EQ(m.modelPath("b4"), dir / "model_b4.onnx");
  writeFile(dir / "render_model.batch4.onnx", "x");
  EXPECT_EQ(m.modelPath("b4"), dir / "render_model.batch4.onnx");

  writeFile(dir / "lip_template.v1.json", "{\"lip\": [1, 2]}");
  EXPECT_EQ(le::loadManifest(dir.path() + "/").lip_template, "{\"lip\": [1, 2]}");
}

TEST(Manifest, AlternativeKeysTruncationAndStampSpellings) {
  ScratchDir dir("manifest");
  std::string t = edited(manifestText(), "\"NT\": 40", "\"frame_count\": 33");
  t = edited(t, "\"crop\": 256", "\"crop_size\": 128");
  t = edited(t, "\"H\": 720", "\"H\": 719.9");
  t = edited(t, "\"M_src_h\": 360", "\"paste_source_height\": 361");
  writeFile(dir / "manifest.json", t);
  const le::Manifest m = le::loadManifest(dir.path());
  EXPECT_EQ(std::vector<int>({m.NT, m.crop, m.H, m.M_src_w, m.M_src_h}),
            std::vector<int>({33, 128, 719, 640, 361}));

  // A key found only inside a nested block is accepted.
  writeFile(dir / "manifest.json",
            edited(manifestText(R"(, "extra": {"frames": 77})"), "\"frames\": 120,", ""));
  EXPECT_EQ(le::loadManifest(dir.path()).frames, 77);
}

TEST(Manifest, RefusalTexts) {
  ScratchDir dir("manifest");
  const std::string base = manifestText();
  EXPECT_EQ(thrown([&] { le::loadManifest(dir.path()); }),
            "cannot open " + dir.path() + "/manifest.json");
  // Each edit of the complete manifest (from, to) and its refusal: an object value is not a
  // value; dimensions non-numeric or zero.
  const std::vector<std::array<std::string, 3>> edits = {
      {"le-bundle-v0", "le-bundle-v1", "not an le-bundle-v0: " + dir.path()},
      {"\"agent\": \"agent-7\",", "", "manifest: missing key agent"},
      {"\"NT\": 40,", "", "manifest: missing key NT/frame_count"},
      {"\"ksize\": 9,", "", "manifest: missing key ksize"},
      {"\"sigma\": 2.5", "\"sigma\": {\"v\": 2.5}", "manifest: missing key sigma"},
      {"\"W\": 1280", "\"W\": \"wide\"", "manifest: bad dims"},
      {"\"NT\": 40", "\"NT\": 0", "manifest: bad dims"},
      {"\"M_src_w\": 640", "\"M_src_w\": 0", "manifest: bad paste-space stamp (M_src_w/M_src_h must be > 0)"},
  };
  for (const auto& [from, to, want] : edits) EXPECT_EQ(loadError(dir, edited(base, from, to)), want) << from;
  const std::string amb = loadError(dir, edited(base, "\"W\": 1280,", "\"W\": 1280, \"W\": 1281,"));
  EXPECT_EQ(amb.rfind("manifest: key \"W\" is AMBIGUOUS — 2 scalar occurrences (byte ", 0), 0u) << amb;
}

TEST(Manifest, MissingPasteSpaceStamp) {
  ScratchDir dir("manifest");
  const std::string t = edited(manifestText(), ",\n  \"M_src_h\": 360", "");
  const std::string refusal =
      dir.path() +
      "/manifest.json declares no paste-space stamp (M_src_w/M_src_h, aka "
      "paste_source_width/height) — the canvas is 1280x720, so M cannot be placed: absence is not "
      "evidence that M was authored at that size. Re-stamp the bundle "
      "(models/tamsine-2/inference/backfill_msrc.py), or set TAMSINE2_MSRC_MISSING_OK=1 to "
      "restore the legacy assumption.";
  for (const char* v : {static_cast<const char*>(nullptr), "true", "11", ""}) {
    le::testmedia::ScopedEnv env("TAMSINE2_MSRC_MISSING_OK", v);
    EXPECT_EQ(loadError(dir, t), refusal) << (v ? v : "unset");
  }
  le::testmedia::ScopedEnv env("TAMSINE2_MSRC_MISSING_OK", "1");
  le::Manifest m;
  EXPECT_EQ(le::testing::stderrOf([&] { m = le::loadManifest(dir.path()); }),
            "[le] WARNING TAMSINE2_MSRC_MISSING_OK=1: " + dir.path() +
                "/manifest.json declares no paste-space stamp; assuming M was authored on the 1280x720 "
                "canvas. If that is wrong the face is pasted off-target without any further sign.\n");
  EXPECT_EQ(std::make_pair(m.M_src_w, m.M_src_h), std::make_pair(1280, 720));
}

TEST(FileReaders, ExactSizesAndMessages) {
  ScratchDir dir("readers");
  const std::string f = dir / "v.f32";
  const float vals[3] = {1.5f, -2.0f, 3.25f};
  writeFile(f, std::string(reinterpret_cast<const char*>(vals), sizeof vals));
  EXPECT_EQ(le::readRaw(f, 3), std::vector<float>(vals, vals + 3));
  EXPECT_EQ(thrown([&] { le::readRaw(f, 2); }), "size mismatch " + f);
  EXPECT_EQ(thrown([&] { le::readRaw(f, 4); }), "size mismatch " + f);
  EXPECT_EQ(thrown([&] { le::readRaw(dir / "none", 1); }), "cannot open " + dir / "none");
  EXPECT_EQ(le::readFile(f), std::string(reinterpret_cast<const char*>(vals), sizeof vals));
  EXPECT_EQ(thrown([&] { le::readFile(dir / "none"); }), "cannot open " + dir / "none");
  EXPECT_EQ(thrown([&] { le::readFile(dir.path()); }), "short read " + dir.path());
  writeFile(dir / "empty", "");
  EXPECT_EQ(le::readFile(dir / "empty"), "");
}

bool mapped(const void* p) {
  unsigned char vec;
  const uintptr_t page = reinterpret_cast<uintptr_t>(p) & ~uintptr_t(4095);
  return ::mincore(reinterpret_cast<void*>(page), 1, &vec) == 0;
}

TEST(FileReaders, MappingIsExactMovableAndUnmapsWithItsOwner) {
  ScratchDir dir("readers");
  const std::string f = dir / "t.f16";
  writeFile(f, std::string(10000, 'x'));
  EXPECT_EQ(thrown([&] { le::mapFile(f, 9999); }), "size mismatch " + f);
  EXPECT_EQ(thrown([&] { le::mapFile(f, 10001); }), "size mismatch " + f);
  EXPECT_EQ(thrown([&] { le::mapFile(dir / "none", 1); }), "cannot open " + dir / "none");
  const void* where = nullptr;
  {
    le::Mapping a = le::mapFile(f, 10000);
    ASSERT_EQ(a.size(), 10000u);
    where = a.data();
    EXPECT_EQ(a.as<char>()[9999], 'x');
    le::Mapping b(std::move(a));
    EXPECT_TRUE(a.empty());
    EXPECT_EQ(a.data(), nullptr);
    EXPECT_EQ(b.data(), where);
    le::Mapping c;
    c = std::move(b);
    EXPECT_EQ(c.as<char>()[0], 'x');
    EXPECT_TRUE(mapped(where));
  }
  EXPECT_FALSE(mapped(where));
  writeFile(dir / "empty", "");
  EXPECT_TRUE(le::mapFile(dir / "empty", 0).empty());
}

TEST(MemberResolution, PairsFamiliesAndFallbacks) {
  ScratchDir dir("members");
  const std::string d = dir.path();
  // canonical name, then the alternative the bundle may carry instead.
  std::istringstream pairs(
      "P.f16 source_frames.f16\n"
      "P_hevc.mov source_frames.hevc\n"
      "a2x_enc_stream.onnx audio_motion_encoder.onnx\n"
      "a2x_dec.onnx audio_motion_decoder.onnx\n"
      "M.f32 paste_transform.f32\n"
      "mask_512.u8 paste_mask.u8\n"
      "pooled64.f16 pooled_features.f16\n"
      "fs_red.f16 feature_synth.f16\n"
      "xs_target.bin target_keypoints.bin\n"
      "model_b4.onnx render_model.batch4.onnx\n"
      "model_b4_int8.onnx render_model.batch4.int8.onnx\n"
      "model_b2_a_b.onnx render_model.batch2.a_b.onnx\n"
      "drive/xs.f32 idle_loop/source_keypoints.f32\n"
      "drive/xd.f32 idle_loop/driven_keypoints.f32\n"
      "drive/si.i32 idle_loop/source_index.i32\n"
      "drive/other.bin idle_loop/other.bin\n"
      "drive/xs idle_loop/source_keypoints\n"
      "drive/xs.f32.bak idle_loop/source_keypoints.f32.bak\n");
  std::string canonical, alt;
  while (pairs >> canonical >> alt) {
    EXPECT_EQ(le::alternativeMemberName(canonical), alt);
    // Neither exists: the canonical path, so errors name the canonical member.
    EXPECT_EQ(le::resolveMember(d, canonical), d + "/" + canonical);
    writeFile(d + "/" + alt, "new");
    EXPECT_EQ(le::resolveMember(d, canonical), d + "/" + alt);
    writeFile(d + "/" + canonical, "old");
    EXPECT_EQ(le::resolveMember(d, canonical), d + "/" + canonical);
  }
  for (const char* none : {"manifest.json", "lip_template.v1.json", "model_b.onnx", "model_b",
                           "P.f16.bak", "xdrive/xs.f32", "source_frames.f16"}) {
    EXPECT_EQ(le::alternativeMemberName(none), "") << none;
    EXPECT_EQ(le::resolveMember(d, none), d + "/" + none);
  }
  EXPECT_EQ(le::alternativeMemberName("model_b4_.onnx"), "render_model.batch4.onnx");
}

// (A member found under its other name, through a container, is the container test's.)
TEST(FlatBundleQueries, ResolveHandleAndMember) {
  ScratchDir dir("flat");
  writeFile(dir / "manifest.json", manifestText());
  const std::string d = dir.path();
  char out[4096];
  ASSERT_EQ(le_bundle_resolve_handle(d.c_str(), out, sizeof out), 1);
  EXPECT_EQ(std::string(out), d);
  EXPECT_STREQ(le_last_error(), "");
  std::memset(out, 'z', sizeof out);
  EXPECT_EQ(le_bundle_resolve_handle(d.c_str(), out, d.size()), -1);
  EXPECT_EQ(out[0], 0);
  EXPECT_STREQ(le_last_error(), "le_bundle_resolve_handle: buffer too small");
  EXPECT_EQ(le_bundle_resolve_handle(d.c_str(), out, d.size() + 1), 1);
  EXPECT_STREQ(le_last_error(), "");  // cleared on entry

  le::err::set(le::err::Family::Ctx, "stale");
  EXPECT_EQ(le_bundle_resolve_handle(nullptr, out, sizeof out), -1);
  EXPECT_EQ(le_bundle_resolve_handle(d.c_str(), nullptr, sizeof out), -1);
  EXPECT_EQ(le_bundle_resolve_handle(d.c_str(), out, 0), -1);
  EXPECT_EQ(le_bundle_resolve_member(d.c_str(), nullptr, out, sizeof out), -1);
  EXPECT_STREQ(le_last_error(), "");

  EXPECT_EQ(le_bundle_resolve_member(d.c_str(), "P.f16", out, sizeof out), 0);
  EXPECT_EQ(std::string(out), d + "/P.f16");
  const std::string p = d + "/P.f16";
  std::memset(out, 'z', sizeof out);
  EXPECT_EQ(le_bundle_resolve_member(d.c_str(), "P.f16", out, p.size()), -1);
  EXPECT_EQ(out[0], 0);
  EXPECT_STREQ(le_last_error(), "");
  EXPECT_EQ(le_bundle_resolve_member(d.c_str(), "P.f16", out, p.size() + 1), 0);
}

}  // namespace
