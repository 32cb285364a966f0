#include "le/le_imx.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <stdexcept>

#include "le/le_bundle.h"
#include "le/le_util.h"

namespace le {

namespace {

uint16_t u16le(const unsigned char* b) { return static_cast<uint16_t>(b[0] | (b[1] << 8)); }
uint32_t u32le(const unsigned char* b) {
  return static_cast<uint32_t>(b[0]) | static_cast<uint32_t>(b[1]) << 8 |
         static_cast<uint32_t>(b[2]) << 16 | static_cast<uint32_t>(b[3]) << 24;
}
uint64_t u64le(const unsigned char* b) {
  return static_cast<uint64_t>(u32le(b)) | static_cast<uint64_t>(u32le(b + 4)) << 32;
}

std::string markerText(const std::string& container, const struct stat& st) {
  const int64_t mtime_ns =
      static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + static_cast<int64_t>(st.st_mtim.tv_nsec);
  return std::string(imx::kMarkerTag) + " " + imx::baseName(container) + " " +
         std::to_string(static_cast<int64_t>(st.st_size)) + " " + std::to_string(mtime_ns) + " " +
         std::to_string(static_cast<uint64_t>(st.st_ino));
}

// Trimmed marker text, or false when it cannot be read.
bool readMarker(const std::string& path, std::string& out) {
  FilePtr f(std::fopen(path.c_str(), "rb"));
  if (!f) return false;
  char buf[4096];
  size_t got;
  out.clear();
  while ((got = std::fread(buf, 1, sizeof buf, f.get())) > 0) out.append(buf, got);
  if (std::ferror(f.get())) return false;
  const char* blanks = " \t\r\n";
  const size_t b = out.find_first_not_of(blanks);
  if (b == std::string::npos) {
    out.clear();
  } else {
    out = out.substr(b, out.find_last_not_of(blanks) - b + 1);
  }
  return true;
}

void writeMarker(const std::string& path, const std::string& text) {
  FilePtr f(std::fopen(path.c_str(), "wb"));
  if (!f) fail("cannot write unwrap marker " + path);
  const bool wrote = std::fwrite(text.data(), 1, text.size(), f.get()) == text.size();
  if (!wrote || std::fclose(f.release()) != 0) fail("short write on unwrap marker " + path);
}

// A "manifest.json" entry that only stands in for a manifest the bundle does not carry: it
// is read whole (it is small) and not written out.
bool isSyntheticManifest(std::FILE* in, uint64_t fileSize, const imx::TocEntry& e) {
  if (e.name != "manifest.json" || e.size < 1 || e.size > imx::kSyntheticManifestMax) return false;
  if (e.offset > fileSize || e.size > fileSize - e.offset) return false;  // cannot be read whole
  if (e.offset > static_cast<uint64_t>(INT64_MAX) ||
      ::fseeko(in, static_cast<off_t>(e.offset), SEEK_SET) != 0)
    return false;
  std::string text(static_cast<size_t>(e.size), '\0');
  if (std::fread(&text[0], 1, text.size(), in) != text.size()) return false;
  return text.find("_imx_synthetic_manifest") != std::string::npos;
}

// A zero byte would end the message early wherever it is read as a C string: spelled "\0".
std::string printableName(const std::string& name) {
  std::string out;
  for (char ch : name) {
    if (ch == '\0') {
      out += "\\0";
    } else {
      out += ch;
    }
  }
  return out;
}

std::mutex& unwrapMutex() {
  static std::mutex m;
  return m;
}

}  // namespace

namespace imx {

std::string rstripSlash(const std::string& p) {
  size_t n = p.size();
  while (n > 1 && p[n - 1] == '/') --n;
  return p.substr(0, n);
}

std::string baseName(const std::string& p) {
  const std::string s = rstripSlash(p);
  const size_t slash = s.rfind('/');
  return slash == std::string::npos ? s : s.substr(slash + 1);
}

std::string dirName(const std::string& p) {
  const std::string s = rstripSlash(p);
  const size_t slash = s.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return s.substr(0, slash);
}

namespace {

// Creates the directories along dir whose names end after its first from characters (those are
// known to exist), stopping at the first that cannot be made.
bool mkdirsFrom(const std::string& dir, size_t from) {
  bool made = false;
  for (size_t i = std::max<size_t>(from + 1, 1); i <= dir.size(); ++i) {
    if (i < dir.size() && dir[i] != '/') continue;
    made = ::mkdir(dir.substr(0, i).c_str(), 0755) == 0;
    if (!made && errno != EEXIST) break;
  }
  return made || isDir(dir);
}

// The length of the longest leading part of path that names known or one of its ancestors:
// a directory that exists while known does.
size_t existingAncestor(const std::string& path, const std::string& known) {
  const size_t n = std::min(path.size(), known.size());
  size_t same = 0;
  while (same < n && path[same] == known[same]) ++same;
  const auto ends = [](const std::string& p, size_t i) { return i == p.size() || p[i] == '/'; };
  if (ends(path, same) && ends(known, same)) return same;
  const size_t slash = same == 0 ? std::string::npos : path.rfind('/', same - 1);
  return slash == std::string::npos ? 0 : slash;
}

}  // namespace

bool mkdirs(const std::string& dir) {
  if (dir.empty()) return false;
  // The parent is usually there already: one call then.
  if (::mkdir(dir.c_str(), 0755) == 0) return true;
  return errno == EEXIST ? isDir(dir) : mkdirsFrom(dir, 0);
}

namespace {

// Removes name inside the directory dirFd: a file or link as it is, a directory with everything
// in it, never following a link. Relative to open directories, so no entry costs a walk of its
// whole path; the entry's type from the listing spares a failed unlink per directory, and the
// listing goes through the caller's buffer (no allocation per directory).
void rmAt(int dirFd, const char* name, unsigned char type, char* buf, size_t cap) {
  if (type != DT_DIR && ::unlinkat(dirFd, name, 0) == 0) return;
  const int fd = ::openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return;
  // Files go as they are listed; directories after the listing, which reuses buf.
  std::string dirs;  // names, each ended by a zero byte
  for (ssize_t got; (got = ::getdents64(fd, buf, cap)) > 0;) {
    for (ssize_t at = 0; at < got;) {
      const auto* ent = reinterpret_cast<const struct dirent64*>(buf + at);
      at += ent->d_reclen;
      const char* n = ent->d_name;
      if (n[0] == '.' && (n[1] == '\0' || (n[1] == '.' && n[2] == '\0'))) continue;
      if (ent->d_type != DT_DIR && (::unlinkat(fd, n, 0) == 0 || errno != EISDIR)) continue;
      dirs.append(n).push_back('\0');
    }
  }
  for (size_t at = 0; at < dirs.size(); at = dirs.find('\0', at) + 1)
    rmAt(fd, &dirs[at], DT_DIR, buf, cap);
  ::close(fd);
  ::unlinkat(dirFd, name, AT_REMOVEDIR);
}

}  // namespace

void rmTree(const std::string& path) {
  alignas(struct dirent64) char buf[8192];
  rmAt(AT_FDCWD, path.c_str(), DT_UNKNOWN, buf, sizeof buf);
}

bool isSafeMemberName(std::string_view name) {
  return !name.empty() && name[0] != '/' && name[0] != '\\' &&
         name.find("..") == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

std::vector<TocEntry> readToc(std::FILE* in, const std::string& path) {
  unsigned char hdr[8];
  if (std::fread(hdr, 1, sizeof hdr, in) != sizeof hdr || u32le(hdr) != kMagic)
    fail(path + ": not an IMX\\0 container");
  const uint16_t version = u16le(hdr + 4);
  if (version != kVersion) fail(path + ": unsupported IMX container version " + std::to_string(version));
  const uint16_t count = u16le(hdr + 6);
  // Entries are appended as they are read: a short file claiming 65535 members must not cost
  // megabytes before its table runs out.
  std::vector<TocEntry> toc;
  toc.reserve(std::min<size_t>(count, 64));
  for (uint16_t i = 0; i < count; ++i) {
    const std::string idx = std::to_string(i);
    unsigned char b[16];
    TocEntry e;
    if (std::fread(b, 1, 2, in) != 2) fail(path + ": truncated TOC at member " + idx);
    e.name.resize(u16le(b));
    if (std::fread(&e.name[0], 1, e.name.size(), in) != e.name.size())
      fail(path + ": truncated member name at " + idx);
    if (std::fread(b, 1, 16, in) != 16) fail(path + ": truncated TOC offsets at member " + idx);
    e.offset = u64le(b);
    e.size = u64le(b + 8);
    toc.push_back(std::move(e));
  }
  return toc;
}

StreamCopier::~StreamCopier() { closePipe(); }

void StreamCopier::closePipe() {
  for (int& fd : pipe_) {
    if (fd >= 0) ::close(fd);
    fd = -1;
  }
}

CopyStatus StreamCopier::copy(int in_fd, uint64_t offset, int out_fd, uint64_t n) {
  if (in_kernel_ && n > 0) {
    // The kernel's file-to-file copy works page by page: where the range starts at another
    // place within a page than the destination's position, every page is pieced together
    // from two and that copy is slow; a pipe of our own with room for many pages is not.
    const off_t at = ::lseek(out_fd, 0, SEEK_CUR);
    const bool alike = at >= 0 && (offset - static_cast<uint64_t>(at)) % kPageBytes == 0;
    const CopyStatus st = alike ? copyRange(in_fd, offset, out_fd, n) : copySpliced(in_fd, offset, out_fd, n);
    if (st != CopyStatus::Ok) return st;
  }
  return copyBuffered(in_fd, offset, out_fd, n);
}

// Each refusal ends the kernel paths for this copier; what is left goes through the buffer,
// which tells a real failure from an unsupported pair of files.
CopyStatus StreamCopier::copyRange(int in_fd, uint64_t& offset, int out_fd, uint64_t& n) {
  while (n > 0) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(n, cap_));
    loff_t off = static_cast<loff_t>(offset);
    const ssize_t r = ::copy_file_range(in_fd, &off, out_fd, nullptr, want, 0);
    if (r > 0) {
      offset += static_cast<uint64_t>(r);
      n -= static_cast<uint64_t>(r);
    } else if (r == 0) {
      return CopyStatus::ShortRead;
    } else if (errno != EINTR) {
      in_kernel_ = false;
      break;
    }
  }
  return CopyStatus::Ok;
}

CopyStatus StreamCopier::copySpliced(int in_fd, uint64_t& offset, int out_fd, uint64_t& n) {
  if (pipe_[0] < 0) {
    if (::pipe2(pipe_, O_CLOEXEC) != 0) {
      in_kernel_ = false;
      return CopyStatus::Ok;
    }
    ::fcntl(pipe_[1], F_SETPIPE_SZ, static_cast<int>(kPipeBytes));  // the default size also works
  }
  while (n > 0) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(n, std::min(cap_, kPipeBytes)));
    loff_t off = static_cast<loff_t>(offset);
    const ssize_t r = ::splice(in_fd, &off, pipe_[1], nullptr, want, SPLICE_F_MOVE);
    if (r == 0) return CopyStatus::ShortRead;
    if (r < 0) {
      if (errno == EINTR) continue;
      in_kernel_ = false;
      break;
    }
    for (ssize_t left = r; left > 0;) {
      const ssize_t w = ::splice(pipe_[0], nullptr, out_fd, nullptr, static_cast<size_t>(left), SPLICE_F_MOVE);
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) {
        closePipe();  // the bytes still in it are read again from the source
        in_kernel_ = false;
        return CopyStatus::Ok;
      }
      left -= w;
      offset += static_cast<uint64_t>(w);
      n -= static_cast<uint64_t>(w);
    }
  }
  return CopyStatus::Ok;
}

CopyStatus StreamCopier::copyBuffered(int in_fd, uint64_t& offset, int out_fd, uint64_t& n) {
  uint64_t room = std::min<uint64_t>(n, cap_);
  // A range claimed past the end of a file needs no buffer for the bytes that are not there.
  struct stat st;
  if (room > 0 && ::fstat(in_fd, &st) == 0 && S_ISREG(st.st_mode)) {
    const uint64_t size = static_cast<uint64_t>(st.st_size);
    room = std::min<uint64_t>(room, offset < size ? size - offset : 1);
  }
  if (buf_.size() < room) buf_.resize(static_cast<size_t>(room));
  while (n > 0) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(n, buf_.size()));
    const ssize_t got = ::pread(in_fd, buf_.data(), want, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return CopyStatus::ShortRead;
    for (size_t done = 0; done < static_cast<size_t>(got);) {
      const ssize_t w = ::write(out_fd, buf_.data() + done, static_cast<size_t>(got) - done);
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) return CopyStatus::ShortWrite;
      done += static_cast<size_t>(w);
    }
    offset += static_cast<uint64_t>(got);
    n -= static_cast<uint64_t>(got);
  }
  return CopyStatus::Ok;
}

std::string unwrapDirFor(const std::string& container) {
  std::string stem = baseName(container);
  if (endsWith(stem, ".imx")) stem.resize(stem.size() - 4);
  if (!endsWith(stem, ".lebundle")) stem += ".lebundle";
  const char* env = std::getenv("LE_IMX_UNWRAP_ROOT");
  const std::string root = rstripSlash(env && *env ? std::string(env) : dirName(container));
  return (root == "/" ? std::string() : root) + "/" + stem;
}

std::string unwrapOnce(const std::string& container) {
  std::lock_guard<std::mutex> lock(unwrapMutex());
  const std::string dir = unwrapDirFor(container);
  const std::string marker = dir + kMarkerSuffix;
  struct stat st;
  if (::stat(container.c_str(), &st) != 0) fail("cannot stat container " + container);
  const std::string text = markerText(container, st);

  std::string seen;
  if (isDir(dir) && readMarker(marker, seen) && seen == text) return dir;

  // Start from nothing: a marker is only ever written after every member is in place.
  ::unlink(marker.c_str());
  rmTree(dir);
  if (!mkdirs(dir)) fail("cannot create unwrap dir " + dir);

  FilePtr in(std::fopen(container.c_str(), "rb"));
  if (!in) fail("cannot open container " + container);
  const std::vector<TocEntry> toc = readToc(in.get(), container);
  const uint64_t size = static_cast<uint64_t>(st.st_size);

  StreamCopier copier;
  std::string made = dir;  // the last directory known to exist
  for (const TocEntry& e : toc) {
    if (!isSafeMemberName(e.name))
      fail(container + ": refusing unsafe member name '" + printableName(e.name) + "'");
    if (isSyntheticManifest(in.get(), size, e)) continue;

    const std::string dest = dir + "/" + e.name;
    const std::string parent = dirName(dest);
    if (parent != made && !mkdirsFrom(parent, existingAncestor(parent, made)))
      fail("cannot create " + parent);
    made = parent;
    // Only an offset past the end can be one the file system refuses to seek to.
    if (e.offset > size && (e.offset > static_cast<uint64_t>(INT64_MAX) ||
                            ::fseeko(in.get(), static_cast<off_t>(e.offset), SEEK_SET) != 0))
      fail(container + ": cannot seek to member " + e.name);

    // Written under ".part" and renamed, so a final name always holds a complete member.
    const std::string part = dest + ".part";
    const int out = ::open(part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (out < 0) fail("cannot write " + part);
    std::string error;
    switch (copier.copy(::fileno(in.get()), e.offset, out, e.size)) {
      case CopyStatus::ShortRead: error = container + ": truncated payload for member " + e.name; break;
      case CopyStatus::ShortWrite: error = "short write materialising " + dest; break;
      case CopyStatus::Ok: break;
    }
    if (::close(out) != 0 && error.empty()) error = "flush failed materialising " + dest;
    if (error.empty() && std::rename(part.c_str(), dest.c_str()) != 0)
      error = "cannot place member " + dest;
    if (!error.empty()) {
      std::remove(part.c_str());
      fail(error);
    }
  }

  writeMarker(marker, text);
  std::fprintf(stderr, "[le] unwrapped %s -> %s\n", container.c_str(), dir.c_str());
  return dir;
}

}  // namespace imx

bool isImxV2File(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  FilePtr f(std::fopen(path.c_str(), "rb"));
  unsigned char hdr[8];
  return f && std::fread(hdr, 1, sizeof hdr, f.get()) == sizeof hdr && u32le(hdr) == imx::kMagic &&
         u16le(hdr + 4) == imx::kVersion;
}

std::string resolveBundlePath(const std::string& path) {
  if (path.empty()) return path;
  const std::string stripped = imx::rstripSlash(path);
  if (isDir(path) && !pathExists(stripped + imx::kMarkerSuffix)) return path;
  if (endsWith(path, ".imx") && isImxV2File(path)) return imx::unwrapOnce(path);
  if (isImxV2File(stripped + ".imx")) return imx::unwrapOnce(stripped + ".imx");
  if (isImxV2File(path)) return imx::unwrapOnce(path);
  return path;
}

}  // namespace le
