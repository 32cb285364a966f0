// Manifest key scanner, field readers and the manifest loader over arbitrary text: hits are
// consistent, a chosen value is one of the hits, and every failure is a runtime error.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>

#include "fuzz/fuzz_scratch.h"
#include "le/le_bundle.h"

namespace {

const char* const kKeys[] = {"NT", "W", "H", "crop", "format", "agent", "P_hevc", "k", "a\\\"b"};

void checkKey(const std::string& text, std::string_view key) {
  namespace mk = le::manifest_key;
  const auto hits = mk::keyHits(text, key);
  size_t last = 0;
  for (size_t i = 0; i < hits.size(); ++i) {
    const auto& h = hits[i];
    if (h.pos > text.size() || (i && h.pos <= last)) std::abort();
    if (h.scalar && (h.pos == text.size() || text[h.pos] == '[' || text[h.pos] == '{')) std::abort();
    last = h.pos;
  }
  try {
    const size_t pos = mk::scalarValuePos(text, key);
    if (pos != mk::kNotFound) {
      bool found = false;
      for (const auto& h : hits) found |= h.scalar && h.pos == pos;
      if (!found) std::abort();
    }
  } catch (const std::runtime_error&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  // The first byte picks a key: one of the loader's or a prefix of the text itself.
  const std::string all(reinterpret_cast<const char*>(data) + 1, size - 1);
  const unsigned pick = data[0];
  std::string key;
  std::string text = all;
  if (pick < 0x80) {
    key = kKeys[pick % (sizeof kKeys / sizeof kKeys[0])];
  } else {
    const size_t n = std::min<size_t>(pick - 0x80, all.size());
    key = all.substr(0, n);
    text = all.substr(n);
  }
  checkKey(text, key);

  try {
    std::string out;
    le::optStr(text, key.c_str(), out);
    le::strField(text, key.c_str());
  } catch (const std::runtime_error&) {
  }
  try {
    le::numFieldEither(text, key.c_str(), "frame_count");
  } catch (const std::runtime_error&) {
  }

  // The whole loader over the text as a bundle's manifest.
  static const std::string& dir = le::fuzz::scratchDir("manifest_key_fuzz");
  le::fuzz::putFile(dir + "/manifest.json", text.data(), text.size());
  try {
    const le::Manifest m = le::loadManifest(dir);
    if (m.NT < 1 || m.W < 1 || m.H < 1 || m.crop < 1 || m.M_src_w < 1 || m.M_src_h < 1) std::abort();
  } catch (const std::runtime_error&) {
  }
  return 0;
}
