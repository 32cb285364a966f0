// The le command-line tool: shared argument handling of the subcommands.
#pragma once

#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace le::cli {

// Exit codes.
constexpr int kOk = 0, kFailed = 1, kUsage = 2;

// A malformed command line: reported with a hint to --help, exit code 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// "--name value", "--name=value", boolean "--flag"s and positionals. Options may repeat.
class Args {
 public:
  // flags take no value; valued options take one.
  Args(const std::vector<std::string>& argv, const std::set<std::string>& flags, const std::set<std::string>& valued);

  bool help() const { return help_; }
  bool flag(const std::string& name) const { return flags_.count(name) != 0; }
  bool has(const std::string& name) const { return values_.count(name) != 0; }
  // The last value given for name, or def.
  std::string str(const std::string& name, const std::string& def) const;
  std::vector<std::string> all(const std::string& name) const;
  // An integer in [lo, hi]; anything else is a usage error naming the option.
  int integer(const std::string& name, int def, int lo, int hi) const;
  // A finite number in [lo, hi]; anything else is a usage error naming the option.
  double number(const std::string& name, double def, double lo, double hi) const;
  const std::vector<std::string>& positional() const { return positional_; }

 private:
  bool help_ = false;
  std::set<std::string> flags_;
  std::map<std::string, std::vector<std::string>> values_;
  std::vector<std::string> positional_;
};

// Parses "640x360"; a usage error naming the option otherwise.
void parseSize(const std::string& option, const std::string& text, int& w, int& h);

// Progress bar on standard error: "label [#####.....] done/total".
class Progress {
 public:
  Progress(std::string label, int total, bool enabled);
  void update(int done);
  void finish();

 private:
  std::string label_;
  int total_;
  bool enabled_;
  int shown_ = -1;
};

// Points W2V_ONNX at the bundle's own speech encoder ("w2v/audio_encoder_fp16.onnx") when the
// user has not set it and the bundle has one. Returns the value in effect ("" when none).
std::string defaultW2v(const std::string& bundleDir);

// Subcommands: argv holds the arguments after the subcommand's name.
int cmdForge(const std::vector<std::string>& argv);
int cmdPack(const std::vector<std::string>& argv);
int cmdInfo(const std::vector<std::string>& argv);
int cmdPaste(const std::vector<std::string>& argv);
int cmdFrame(const std::vector<std::string>& argv);
int cmdSpeak(const std::vector<std::string>& argv);
int cmdLive(const std::vector<std::string>& argv);
int cmdServe(const std::vector<std::string>& argv);

}  // namespace le::cli
