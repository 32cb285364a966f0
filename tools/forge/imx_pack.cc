#include "tools/forge/imx_pack.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "le/le_util.h"


namespace le::forge {

namespace {

void putLe(std::string& s, uint64_t v, int bytes) {
  for (int i = 0; i < bytes; ++i) s.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
}

size_t tocBytes(const std::vector<std::string>& names) {
  size_t n = 8;
  for (const std::string& name : names) n += 2 + name.size() + 16;
  return n;
}

void listFiles(const std::string& dir, const std::string& prefix, std::vector<ImxSource>& out) {
  DIR* d = ::opendir(dir.c_str());
  if (!d) fail("cannot read directory " + dir);
  std::unique_ptr<DIR, int (*)(DIR*)> guard(d, ::closedir);
  while (const dirent* ent = ::readdir(d)) {
    const std::string name = ent->d_name;
    if (name == "." || name == "..") continue;
    const std::string path = dir + "/" + name;
    struct stat st;
    if (::lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
      listFiles(path, prefix + name + "/", out);
    } else if (::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
      out.push_back({prefix + name, path});
    }
  }
}

}  // namespace

std::string imxToc(const std::vector<imx::TocEntry>& entries) {
  if (entries.size() > 0xffff) fail("imx: too many members (" + std::to_string(entries.size()) + ")");
  std::string s;
  putLe(s, imx::kMagic, 4);
  putLe(s, imx::kVersion, 2);
  putLe(s, entries.size(), 2);
  for (const imx::TocEntry& e : entries) {
    if (e.name.size() > 0xffff) fail("imx: member name too long: " + e.name.substr(0, 64));
    putLe(s, e.name.size(), 2);
    s += e.name;
    putLe(s, e.offset, 8);
    putLe(s, e.size, 8);
  }
  return s;
}

std::string imxImage(const std::vector<std::pair<std::string, std::string>>& members) {
  std::vector<std::string> names;
  for (const auto& m : members) names.push_back(m.first);
  std::vector<imx::TocEntry> toc;
  uint64_t at = tocBytes(names);
  for (const auto& [name, bytes] : members) {
    toc.push_back({name, at, bytes.size()});
    at += bytes.size();
  }
  std::string image = imxToc(toc);
  for (const auto& m : members) image += m.second;
  return image;
}

void writeImx(const std::string& out, const std::vector<ImxSource>& members) {
  std::vector<std::string> names;
  std::vector<imx::TocEntry> toc;
  for (const ImxSource& m : members) {
    if (!imx::isSafeMemberName(m.name)) fail("imx: refusing unsafe member name '" + m.name + "'");
    names.push_back(m.name);
  }
  uint64_t at = tocBytes(names);
  for (const ImxSource& m : members) {
    struct stat st;
    if (::stat(m.path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) fail("cannot open " + m.path);
    toc.push_back({m.name, at, static_cast<uint64_t>(st.st_size)});
    at += static_cast<uint64_t>(st.st_size);
  }
  const std::string head = imxToc(toc);

  const std::string part = out + ".part";
  const int fd = ::open(part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) fail("cannot write " + part);
  std::string error;
  if (::write(fd, head.data(), head.size()) != static_cast<ssize_t>(head.size()))
    error = "short write " + part;
  imx::StreamCopier copier;
  for (size_t i = 0; i < members.size() && error.empty(); ++i) {
    const int in = ::open(members[i].path.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) {
      error = "cannot open " + members[i].path;
      break;
    }
    switch (copier.copy(in, 0, fd, toc[i].size)) {
      case imx::CopyStatus::Ok: break;
      case imx::CopyStatus::ShortRead: error = "short read " + members[i].path; break;
      case imx::CopyStatus::ShortWrite: error = "short write " + part; break;
    }
    ::close(in);
  }
  if (::close(fd) != 0 && error.empty()) error = "short write " + part;
  if (error.empty() && std::rename(part.c_str(), out.c_str()) != 0) error = "cannot place " + out;
  if (!error.empty()) {
    std::remove(part.c_str());
    fail(error);
  }
}

std::vector<ImxSource> bundleMembers(const std::string& dir) {
  std::vector<ImxSource> out;
  listFiles(imx::rstripSlash(dir), "", out);
  std::sort(out.begin(), out.end(),
            [](const ImxSource& a, const ImxSource& b) { return a.name < b.name; });
  return out;
}

size_t packImx(const std::string& dir, const std::string& out) {
  const std::vector<ImxSource> members = bundleMembers(dir);
  writeImx(out, members);
  return members.size();
}

}  // namespace le::forge
