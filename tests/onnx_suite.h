// Access to the ONNX backend test suite installed by Debian's libonnx-testdata: its model paths.
#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

namespace le::test {

inline const char* onnxSuiteRoot() { return "/usr/share/libonnx-testdata/data"; }

inline std::vector<std::string> listDir(const std::string& dir) {
  std::vector<std::string> out;
  DIR* d = opendir(dir.c_str());
  if (!d) return out;
  while (dirent* e = readdir(d)) {
    std::string n = e->d_name;
    if (n != "." && n != "..") out.push_back(n);
  }
  closedir(d);
  std::sort(out.begin(), out.end());
  return out;
}

inline bool isFile(const std::string& p) {
  struct stat st;
  return stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// Every model.onnx of the suite, sorted; empty when the suite is not installed.
inline std::vector<std::string> onnxSuiteModels() {
  std::vector<std::string> out;
  const std::string root = onnxSuiteRoot();
  for (const std::string& group : listDir(root))
    for (const std::string& test : listDir(root + "/" + group)) {
      const std::string p = root + "/" + group + "/" + test + "/model.onnx";
      if (isFile(p)) out.push_back(p);
    }
  return out;
}

}  // namespace le::test
