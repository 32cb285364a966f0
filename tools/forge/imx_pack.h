// Writes ".imx" version-2 containers: the inverse of the engine's unwrapping. Used by the forge,
// the `le pack` command and the tests.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "le/le_imx.h"

namespace le::forge {

// One member: its name inside the bundle ("drive/xs.f32") and the file holding its bytes.
struct ImxSource {
  std::string name;
  std::string path;
};

// Header and table of contents, entries in order, exactly as the unwrapper reads them. Names
// are stored as given (tests use this to build hostile containers); throws when a count or a
// name length does not fit its field.
std::string imxToc(const std::vector<imx::TocEntry>& entries);

// A whole container in memory, member bytes after the table in order.
std::string imxImage(const std::vector<std::pair<std::string, std::string>>& members);

// Streams the members into a container at out (written as out + ".part", then renamed).
// Refuses names the unwrapper would refuse. Throws std::runtime_error.
void writeImx(const std::string& out, const std::vector<ImxSource>& members);

// Every regular file below dir, named relative to it, sorted by name.
std::vector<ImxSource> bundleMembers(const std::string& dir);

// Packs the bundle directory dir into the container out; returns the member count.
size_t packImx(const std::string& dir, const std::string& out);

}  // namespace le::forge
