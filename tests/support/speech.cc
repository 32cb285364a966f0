#include "tests/support/speech.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "le/le_bundle.h"
#include "le/le_imx.h"
#include "tests/support/media.h"

namespace le::testmedia {

namespace {

// FNV-1a: a cache key that stays the same across builds and compilers.
uint64_t fnv1a(const std::string& s) {
  uint64_t h = 1469598103934665603ull;
  for (unsigned char c : s) {
    h ^= c;
    h *= 1099511628211ull;
  }
  return h;
}

std::string cacheDir() {
  const char* root = std::getenv("LE_TEST_TMP");
  const std::string dir = std::string(root && *root ? root : "/tmp") + "/speech";
  imx::mkdirs(dir);
  return dir;
}

}  // namespace

std::vector<int16_t> speak16kPcm(const std::string& text) {
  char key[24];
  std::snprintf(key, sizeof key, "%016llx", static_cast<unsigned long long>(fnv1a(text)));
  const std::string base = cacheDir() + "/" + key;
  const std::string raw = base + ".s16";
  if (!canOpenForRead(raw)) {
    // Text goes through a file (no shell quoting); output through a private name, then an atomic
    // rename, so concurrent test processes never read a half-written cache entry.
    const std::string tag = "." + std::to_string(::getpid()) + "." +
                            std::to_string(reinterpret_cast<uintptr_t>(&text));
    const std::string txt = base + tag + ".txt", tmp = base + tag + ".tmp";
    {
      std::FILE* f = std::fopen(txt.c_str(), "wb");
      if (!f) throw std::runtime_error("speech: cannot write " + txt);
      std::fwrite(text.data(), 1, text.size(), f);
      std::fclose(f);
    }
    const int rc = run("espeak-ng -f '" + txt + "' --stdout 2>/dev/null | sox -D -t wav - -r 16000 -c 1 "
                       "-b 16 -e signed-integer -t raw '" + tmp + "' 2>/dev/null");
    std::remove(txt.c_str());
    if (rc != 0 || std::rename(tmp.c_str(), raw.c_str()) != 0) {
      std::remove(tmp.c_str());
      throw std::runtime_error("speech: espeak-ng | sox failed (exit " + std::to_string(rc) +
                               "); are espeak-ng and sox installed?");
    }
  }
  const std::vector<uint8_t> bytes = readBytes(raw);
  std::vector<int16_t> pcm(bytes.size() / 2);
  for (size_t i = 0; i < pcm.size(); ++i)
    pcm[i] = static_cast<int16_t>(uint16_t(bytes[2 * i]) | uint16_t(bytes[2 * i + 1]) << 8);
  if (pcm.empty()) throw std::runtime_error("speech: no samples for \"" + text + "\"");
  return pcm;
}

std::vector<float> speak16k(const std::string& text) {
  const std::vector<int16_t> pcm = speak16kPcm(text);
  std::vector<float> out(pcm.size());
  for (size_t i = 0; i < pcm.size(); ++i) out[i] = static_cast<float>(pcm[i]) * (1.0f / 32768.0f);
  return out;
}

}  // namespace le::testmedia
