// The benchmarks' forged bundles, kept between runs under $LE_BENCH_TMP (default /tmp).
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "tools/forge/forge.h"

namespace le::bench {

inline std::string benchTmp() {
  const char* t = std::getenv("LE_BENCH_TMP");
  return std::string(t && *t ? t : "/tmp");
}

// The bundle `name` under benchTmp(), forged from p unless its member `witness` exists already
// and this very benchmark binary forged it: a rebuilt binary may carry a changed forge, and a
// stale bundle would measure the old one.
inline std::string forgedOnce(const std::string& name, le::forge::Params p,
                              const std::string& witness = "manifest.json") {
  namespace fs = std::filesystem;
  const std::string d = benchTmp() + "/" + name;
  std::error_code ec;
  const std::string binary =
      std::to_string(fs::last_write_time("/proc/self/exe", ec).time_since_epoch().count());
  const std::string stampPath = d + "/.bench_stamp";
  std::string stamp;
  if (std::ifstream in(stampPath); in) std::getline(in, stamp);
  if (!fs::exists(d + "/" + witness) || stamp != binary) {
    p.replace = true;
    le::forge::forgeBundle(d, p);
    std::ofstream(stampPath) << binary << "\n";
  }
  return d;
}

}  // namespace le::bench
