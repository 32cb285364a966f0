// Small helpers shared by the engine's sources: the runtime-error shorthand, string affixes,
// file-system queries and the byte clamp.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace le {

[[noreturn]] inline void fail(const std::string& msg) { throw std::runtime_error(msg); }

inline bool startsWith(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}
inline bool endsWith(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

// Whether stat() finds path (any kind of file), and whether it is a directory.
inline bool pathExists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}
inline bool isDir(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

inline uint8_t clampByte(int v) { return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v)); }

}  // namespace le
