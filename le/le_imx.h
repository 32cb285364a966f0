// ".imx" containers: a bundle shipped as one file is unwrapped once into a directory beside it
// (or under LE_IMX_UNWRAP_ROOT) and reused while the container is unchanged.
//
// Container, version 2, little-endian: "IMX\0", u16 version, u16 member count N, then N entries
// of (u16 name length, name bytes, u64 offset, u64 size); member bytes anywhere in the file.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace le {

// The directory to open for a bundle path: a plain bundle directory as it is, or the unwrap
// directory of a container (given directly, or as the unwrapped directory whose container lies
// beside it). Throws std::runtime_error only when an unwrap fails. Thread-safe: unwraps in one
// process take turns, so a container is unwrapped once however many threads ask.
std::string resolveBundlePath(const std::string& path);

// path is a regular file starting with the magic and version 2.
bool isImxV2File(const std::string& path);

namespace imx {

constexpr uint32_t kMagic = 0x00584D49;  // "IMX\0"
constexpr uint16_t kVersion = 2;
constexpr size_t kCopyBuffer = 0x800000;        // one 8 MiB buffer per copy
constexpr uint64_t kPageBytes = 4096;           // the page-cache granule of in-kernel copies
constexpr size_t kPipeBytes = 0x100000;         // the in-kernel copy's pipe, when it needs one
constexpr uint64_t kSyntheticManifestMax = 0x400000;
constexpr const char* kMarkerSuffix = ".imx_unwrapped";
constexpr const char* kMarkerTag = "imx-unwrapped.v2";

struct TocEntry {
  std::string name;
  uint64_t offset = 0;
  uint64_t size = 0;
};

// Reads header and table of contents from the start of in; path only names the container in
// the messages. Throws std::runtime_error with the container's refusal texts.
std::vector<TocEntry> readToc(std::FILE* in, const std::string& path);

// A member name that may be joined below the unwrap directory: non-empty, not starting with
// "/" or "\", without ".." and without a zero byte.
bool isSafeMemberName(std::string_view name);

// Streams byte ranges between files in steps of at most cap bytes, never holding more than
// one step: inside the kernel where the platform can (no pass of the bytes through user space;
// file to file where the range and the destination's position lie alike within a page, else
// through a pipe of kPipeBytes), else through one buffer of cap bytes.
enum class CopyStatus { Ok, ShortRead, ShortWrite };
class StreamCopier {
 public:
  explicit StreamCopier(size_t cap = kCopyBuffer, bool in_kernel = true)
      : cap_(cap ? cap : 1), in_kernel_(in_kernel) {}
  ~StreamCopier();
  StreamCopier(const StreamCopier&) = delete;
  StreamCopier& operator=(const StreamCopier&) = delete;
  // Copies n bytes of in_fd from offset (its file position is left alone) to out_fd's
  // current position. ShortRead: in_fd ended early or failed; ShortWrite: out_fd failed.
  CopyStatus copy(int in_fd, uint64_t offset, int out_fd, uint64_t n);

 private:
  CopyStatus copyRange(int in_fd, uint64_t& offset, int out_fd, uint64_t& n);
  CopyStatus copySpliced(int in_fd, uint64_t& offset, int out_fd, uint64_t& n);
  CopyStatus copyBuffered(int in_fd, uint64_t& offset, int out_fd, uint64_t& n);
  void closePipe();
  size_t cap_;
  bool in_kernel_;
  int pipe_[2] = {-1, -1};
  std::vector<char> buf_;  // allocated when the buffered path is first taken
};

// Path helpers.
std::string rstripSlash(const std::string& p);
std::string baseName(const std::string& p);
std::string dirName(const std::string& p);
bool mkdirs(const std::string& dir);
void rmTree(const std::string& path);

// Where container is unwrapped, honouring LE_IMX_UNWRAP_ROOT.
std::string unwrapDirFor(const std::string& container);

// Unwraps container unless its marker says the directory is current; returns the directory.
std::string unwrapOnce(const std::string& container);

}  // namespace imx
}  // namespace le
