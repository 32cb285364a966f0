#include "le/le_expand.h"

#include <stdexcept>
#include <string>

#include "le/le_bundle.h"
#include "le/le_util.h"

namespace le {

namespace {

bool exists(const std::string& dir, const std::string& member) {
  return pathExists(resolveMember(dir, member));
}

}  // namespace

void ensureIdentityMembers(const Manifest& m) {
  const std::string& text = m.text;
  std::string raw = "P.f16";
  optStr(text, "P_rgb", raw);  // a quoted value replaces the default, even an empty one

  const bool welded = exists(m.dir, "P.f16"), synth = exists(m.dir, "fs_red.f16");
  if (raw != "P.f16" && exists(m.dir, raw) && !welded && !synth)
    throw std::runtime_error(
        "this bundle's manifest names its raw warp prior '" + raw +
        "' (P_rgb) but le::Identity maps the welded name P.f16 and would find nothing — it maps "
        "NOTHING silently and Identity::P(si) is then an offset from a null pointer. REFUSING "
        "rather than rendering off a prior nothing will read.");
  if (welded || synth) return;

  std::string name;
  if (!optStr(text, "P_hevc", name))
    throw std::runtime_error(
        "this bundle carries neither " + raw +
        " nor fs_red.f16, and its manifest names no P_hevc member to play one from — the "
        "renderer has no warp prior and le::Identity would hand it a null pointer. REFUSING to "
        "create a session.");
  const std::string path = resolveMember(m.dir, name);
  if (!pathExists(path))
    throw std::runtime_error("this bundle's manifest names P_hevc '" + name +
                             "' and the file is not there (" + path +
                             ") — the renderer has no warp prior. REFUSING to create a session.");
}

}  // namespace le
