// Container table-of-contents reader and the whole unwrap over arbitrary bytes: every input is
// either refused with a runtime error or unwrapped, and nothing is ever written outside the
// unwrap directory.
#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz/fuzz_scratch.h"
#include "le/le_imx.h"

namespace {

struct Scratch {
  std::string base, in, root, container, dir, marker, markerName;
  Scratch() {
    base = le::fuzz::scratchDir("imx_toc_fuzz");
    in = base + "/in";
    root = base + "/root";
    container = in + "/c.imx";
    dir = root + "/c.lebundle";
    marker = dir + le::imx::kMarkerSuffix;
    markerName = le::imx::baseName(marker);
    if (!le::imx::mkdirs(in)) std::abort();
    setenv("LE_IMX_UNWRAP_ROOT", root.c_str(), 1);
  }
};

struct Allowed {
  const char* name;
  unsigned char type;
};

// Aborts when the directory path holds anything but the allowed names, each of its type (a link
// in place of a directory counts as an escape too). Whatever lies below the unwrap directory is
// allowed, so only the three directories around it are listed, through a buffer on the stack.
void expectOnly(const std::string& path, std::initializer_list<Allowed> allowed) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return;  // checked as an entry of its parent
  alignas(struct dirent64) char buf[4096];
  for (ssize_t got; (got = ::getdents64(fd, buf, sizeof buf)) > 0;) {
    for (ssize_t at = 0; at < got;) {
      const auto* e = reinterpret_cast<const struct dirent64*>(buf + at);
      at += e->d_reclen;
      const char* name = e->d_name;
      if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
      unsigned char type = e->d_type;
      struct stat st;
      if (type == DT_UNKNOWN && ::fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) == 0)
        type = IFTODT(st.st_mode);
      bool ok = false;
      for (const Allowed& a : allowed)
        ok = ok || (std::strcmp(name, a.name) == 0 && type == a.type);
      if (!ok) {
        std::fprintf(stderr, "written outside the unwrap directory: %s/%s (type %d)\n",
                     path.c_str(), name, type);
        std::abort();
      }
    }
  }
  ::close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Scratch s;

  // The reader alone, over memory.
  bool tocRead = false;
  if (std::FILE* f = ::fmemopen(const_cast<uint8_t*>(data), size, "rb")) {
    try {
      for (const le::imx::TocEntry& e : le::imx::readToc(f, "mem")) {
        if (le::imx::isSafeMemberName(e.name) &&
            (e.name.find("..") != std::string::npos || e.name[0] == '/'))
          std::abort();
      }
      tocRead = true;
    } catch (const std::runtime_error&) {
    }
    std::fclose(f);
  }
  // What the reader refuses the unwrap refuses before writing a member: only containers with a
  // table of contents go through the file system, each from a fresh state.
  if (!tocRead) return 0;

  // Without its marker the previous unwrap is redone from nothing (its tree removed first).
  ::unlink(s.marker.c_str());
  le::fuzz::putFile(s.container, data, size);
  try {
    const std::string got = le::resolveBundlePath(s.container);
    if (got != s.container && got != s.dir) std::abort();
  } catch (const std::runtime_error&) {
  }
  expectOnly(s.base, {{"in", DT_DIR}, {"root", DT_DIR}});
  expectOnly(s.in, {{"c.imx", DT_REG}});
  expectOnly(s.root, {{"c.lebundle", DT_DIR}, {s.markerName.c_str(), DT_REG}});
  return 0;
}
