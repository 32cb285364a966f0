// Container table-of-contents reader and the whole unwrap over arbitrary bytes: every input is
// either refused with a runtime error or unwrapped, and nothing is ever written outside the
// unwrap directory.
#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz/fuzz_scratch.h"
#include "le/le_imx.h"

namespace {

struct Scratch {
  std::string base, in, root, container, dir;
  Scratch() {
    base = le::fuzz::scratchDir("imx_toc_fuzz");
    in = base + "/in";
    root = base + "/root";
    container = in + "/c.imx";
    dir = root + "/c.lebundle";
    if (!le::imx::mkdirs(in)) std::abort();
    setenv("LE_IMX_UNWRAP_ROOT", root.c_str(), 1);
  }
};

// Every path below p (name inside the open directory dirFd); anything outside the allowed
// places is an escape. Relative to open directories: no lookup walks a whole path.
void walk(int dirFd, const char* name, const std::string& p, const Scratch& s) {
  struct stat st;
  if (::fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return;
  const bool allowed = p == s.base || p == s.in || p == s.container || p == s.root ||
                       p == s.dir + le::imx::kMarkerSuffix || p.rfind(s.dir, 0) == 0;
  if (!allowed) {
    std::fprintf(stderr, "written outside the unwrap directory: %s\n", p.c_str());
    std::abort();
  }
  if (S_ISLNK(st.st_mode)) {
    std::fprintf(stderr, "symbolic link created: %s\n", p.c_str());
    std::abort();
  }
  if (!S_ISDIR(st.st_mode)) return;
  const int fd = ::openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return;
  DIR* d = ::fdopendir(fd);
  if (!d) {
    ::close(fd);
    return;
  }
  while (const dirent* e = ::readdir(d)) {
    const std::string n = e->d_name;
    if (n != "." && n != "..") walk(::dirfd(d), e->d_name, p + "/" + n, s);
  }
  ::closedir(d);
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

  le::imx::rmTree(s.root);
  le::fuzz::putFile(s.container, data, size);
  try {
    const std::string got = le::resolveBundlePath(s.container);
    if (got != s.container && got != s.dir) std::abort();
  } catch (const std::runtime_error&) {
  }
  walk(AT_FDCWD, s.base.c_str(), s.base, s);
  return 0;
}
