// A per-process scratch directory for targets that must go through the file system: in RAM
// (/dev/shm) where the machine has it, so the file system costs microseconds per input, and
// removed when the fuzzer exits.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "le/le_imx.h"

namespace le::fuzz {

inline const std::string& scratchDir(const char* name) {
  static const std::string dir = [name] {
    struct stat st;
    const char* ram = "/dev/shm";
    const std::string base = ::stat(ram, &st) == 0 && S_ISDIR(st.st_mode) && ::access(ram, W_OK) == 0
                                 ? ram
                                 : "/tmp";
    std::string d = base + "/le_" + name + "." + std::to_string(::getpid());
    le::imx::rmTree(d);
    if (!le::imx::mkdirs(d)) {
      std::fprintf(stderr, "cannot create scratch directory %s\n", d.c_str());
      std::abort();
    }
    return d;
  }();
  static const bool cleanup = [] { return std::atexit([] { le::imx::rmTree(dir); }) == 0; }();
  (void)cleanup;
  return dir;
}

// Writes n bytes to path, replacing it.
inline void putFile(const std::string& path, const void* p, size_t n) {
  if (std::FILE* f = std::fopen(path.c_str(), "wb")) {
    std::fwrite(p, 1, n, f);
    std::fclose(f);
  }
}

}  // namespace le::fuzz
