#include "tools/le/le_cli.h"

#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace le::cli {

std::string defaultW2v(const std::string& bundleDir) {
  if (const char* v = std::getenv("W2V_ONNX"); v && *v) return v;
  const std::string own = bundleDir + "/w2v/audio_encoder_fp16.onnx";
  if (::access(own.c_str(), R_OK) != 0) return "";
  ::setenv("W2V_ONNX", own.c_str(), 1);
  return own;
}

Args::Args(const std::vector<std::string>& argv, const std::set<std::string>& flags,
           const std::set<std::string>& valued) {
  bool optionsDone = false;
  for (size_t i = 0; i < argv.size(); ++i) {
    const std::string& a = argv[i];
    if (optionsDone || a.size() < 2 || a[0] != '-') {
      positional_.push_back(a);
      continue;
    }
    if (a == "--") {
      optionsDone = true;
      continue;
    }
    if (a == "--help" || a == "-h") {
      help_ = true;
      continue;
    }
    if (a.rfind("--", 0) != 0) throw UsageError("unknown option " + a);
    std::string name = a.substr(2), value;
    const size_t eq = name.find('=');
    const bool inlineValue = eq != std::string::npos;
    if (inlineValue) {
      value = name.substr(eq + 1);
      name = name.substr(0, eq);
    }
    if (flags.count(name)) {
      if (inlineValue) throw UsageError("--" + name + " takes no value");
      flags_.insert(name);
    } else if (valued.count(name)) {
      if (!inlineValue) {
        if (i + 1 >= argv.size()) throw UsageError("--" + name + " needs a value");
        value = argv[++i];
      }
      values_[name].push_back(value);
    } else {
      throw UsageError("unknown option --" + name);
    }
  }
}

std::string Args::str(const std::string& name, const std::string& def) const {
  auto it = values_.find(name);
  return it == values_.end() ? def : it->second.back();
}

std::vector<std::string> Args::all(const std::string& name) const {
  auto it = values_.find(name);
  return it == values_.end() ? std::vector<std::string>{} : it->second;
}

int Args::integer(const std::string& name, int def, int lo, int hi) const {
  if (!has(name)) return def;
  const std::string s = str(name, "");
  char* end = nullptr;
  errno = 0;
  const long v = std::strtol(s.c_str(), &end, 10);
  if (s.empty() || *end != '\0' || errno == ERANGE || v < lo || v > hi)
    throw UsageError("--" + name + " wants an integer in [" + std::to_string(lo) + ", " + std::to_string(hi) +
                     "], got '" + s + "'");
  return static_cast<int>(v);
}

double Args::number(const std::string& name, double def, double lo, double hi) const {
  if (!has(name)) return def;
  const std::string s = str(name, "");
  char* end = nullptr;
  const double v = std::strtod(s.c_str(), &end);
  if (s.empty() || *end != '\0' || !std::isfinite(v) || v < lo || v > hi) {
    char range[64];
    std::snprintf(range, sizeof range, "[%g, %g]", lo, hi);
    throw UsageError("--" + name + " wants a number in " + range + ", got '" + s + "'");
  }
  return v;
}

void parseSize(const std::string& option, const std::string& text, int& w, int& h) {
  const size_t x = text.find('x');
  char* e1 = nullptr;
  char* e2 = nullptr;
  if (x != std::string::npos) {
    const std::string a = text.substr(0, x), b = text.substr(x + 1);
    const long lw = std::strtol(a.c_str(), &e1, 10), lh = std::strtol(b.c_str(), &e2, 10);
    if (!a.empty() && !b.empty() && *e1 == '\0' && *e2 == '\0' && lw >= 2 && lh >= 2 && lw <= 8192 && lh <= 8192) {
      w = static_cast<int>(lw);
      h = static_cast<int>(lh);
      return;
    }
  }
  throw UsageError("--" + option + " wants WIDTHxHEIGHT (2..8192 each), got '" + text + "'");
}

Progress::Progress(std::string label, int total, bool enabled)
    : label_(std::move(label)), total_(total < 1 ? 1 : total), enabled_(enabled) {}

void Progress::update(int done) {
  if (!enabled_) return;
  constexpr int kWidth = 30;
  const int filled = static_cast<int>(static_cast<long long>(done) * kWidth / total_);
  const int pct = static_cast<int>(static_cast<long long>(done) * 100 / total_);
  if (pct == shown_) return;
  shown_ = pct;
  std::string bar(kWidth, '.');
  for (int i = 0; i < filled && i < kWidth; ++i) bar[i] = '#';
  // A terminal gets one redrawn line; a log gets a line per ten percent.
  if (isatty(STDERR_FILENO)) {
    std::fprintf(stderr, "\r%-14s [%s] %d/%d %3d%%", label_.c_str(), bar.c_str(), done, total_, pct);
  } else if (pct % 10 == 0) {
    std::fprintf(stderr, "%-14s [%s] %d/%d %3d%%\n", label_.c_str(), bar.c_str(), done, total_, pct);
  }
  std::fflush(stderr);
}

void Progress::finish() {
  if (!enabled_) return;
  update(total_);
  if (isatty(STDERR_FILENO)) std::fprintf(stderr, "\n");
}

}  // namespace le::cli
