// Scratch directories, small bundle files and the capture helpers the tests share.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "le/le_bundle.h"
#include "le/le_imx.h"
#include "tests/test_util.h"

namespace le::testing {

// A fresh directory under LE_TEST_TMP (or /tmp), removed with everything in it.
class ScratchDir {
 public:
  explicit ScratchDir(const std::string& tag) {
    static std::atomic<int> counter{0};
    const char* root = std::getenv("LE_TEST_TMP");
    path_ = std::string(root && *root ? root : "/tmp") + "/" + tag + "." +
            std::to_string(::getpid()) + "." + std::to_string(counter++);
    imx::rmTree(path_);
    if (!imx::mkdirs(path_)) throw std::runtime_error("cannot create " + path_);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  ~ScratchDir() { imx::rmTree(path_); }
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// A bundle directory's manifest and identity, loaded.
struct Loaded {
  Manifest manifest;
  std::unique_ptr<Identity> identity;
  explicit Loaded(const std::string& dir)
      : manifest(loadManifest(dir)), identity(std::make_unique<Identity>(manifest)) {}
};

// A whole file as an array of T (a trailing partial element is left out).
template <class T>
std::vector<T> readTable(const std::string& path) {
  const std::string b = readFile(path);
  std::vector<T> v(b.size() / sizeof(T));
  std::memcpy(v.data(), b.data(), v.size() * sizeof(T));
  return v;
}

// Writes bytes to path, creating its parent directories.
inline void writeFile(const std::string& path, std::string_view bytes) {
  imx::mkdirs(imx::dirName(path));
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) throw std::runtime_error("cannot write " + path);
  const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  if (std::fclose(f) != 0 || !ok) throw std::runtime_error("short write " + path);
}

// A complete manifest; extra is spliced in as further top-level members.
inline std::string manifestText(const std::string& extra = "") {
  return "{\n  \"format\": \"le-bundle-v0\",\n  \"agent\": \"agent-7\",\n  \"NT\": 40,\n"
         "  \"H\": 720,\n  \"W\": 1280,\n  \"crop\": 256,\n  \"amount\": 1.5,\n"
         "  \"sigma\": 2.5,\n  \"ksize\": 9,\n  \"frames\": 120,\n  \"M_src_w\": 640,\n"
         "  \"M_src_h\": 360" +
         extra + "\n}\n";
}

// The message of the runtime error fn throws, or "" when it does not throw.
template <class Fn>
std::string thrown(Fn&& fn) {
  return messageOf<std::runtime_error>(fn);
}

// What fn prints on stderr (the capture ends also when fn throws).
template <class Fn>
std::string stderrOf(Fn&& fn) {
  ::testing::internal::CaptureStderr();
  try {
    fn();
  } catch (...) {
    ::testing::internal::GetCapturedStderr();
    throw;
  }
  return ::testing::internal::GetCapturedStderr();
}

}  // namespace le::testing
