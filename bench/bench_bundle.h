// The benchmarks' forged bundles, kept between runs under $LE_BENCH_TMP (default /tmp).
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tools/forge/forge.h"

namespace le::bench {

inline std::string benchTmp() {
  const char* t = std::getenv("LE_BENCH_TMP");
  return std::string(t && *t ? t : "/tmp");
}

// The bundle `name` under benchTmp(), forged from p unless its member `witness` exists already.
inline std::string forgedOnce(const std::string& name, le::forge::Params p,
                              const std::string& witness = "manifest.json") {
  const std::string d = benchTmp() + "/" + name;
  if (!std::filesystem::exists(d + "/" + witness)) {
    p.replace = true;
    le::forge::forgeBundle(d, p);
  }
  return d;
}

}  // namespace le::bench
