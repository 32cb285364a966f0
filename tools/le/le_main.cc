// le: the command-line host of the engine.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "tools/le/le_cli.h"

extern "C" {
#include <libavutil/log.h>
}

namespace {

struct Command {
  const char* name;
  int (*run)(const std::vector<std::string>&);
  const char* summary;
};

const Command kCommands[] = {
    {"forge", le::cli::cmdForge, "write a bundle of a drawn stylised face"},
    {"info", le::cli::cmdInfo, "what the engine sees in a bundle"},
    {"pack", le::cli::cmdPack, "pack a bundle directory into a container"},
    {"paste", le::cli::cmdPaste, "paste the prior crops into the drive frames, write an MP4"},
    {"frame", le::cli::cmdFrame, "render one frame with the director and write it as PNG"},
    {"speak", le::cli::cmdSpeak, "the person speaks an audio file: an MP4 with its sound"},
    {"live", le::cli::cmdLive, "speak live: PCM on standard input, YUV4MPEG2 on standard output"},
    {"serve", le::cli::cmdServe, "a web page that speaks back what its microphone hears"},
};

void usage(FILE* out) {
  std::fprintf(out,
               "usage: le COMMAND [ARGS]\n"
               "\n"
               "commands:\n");
  for (const Command& c : kCommands) std::fprintf(out, "  %-8s %s\n", c.name, c.summary);
  std::fprintf(out, "\n'le COMMAND --help' describes a command.\n");
}

// Errors are one line: the engine's messages stay whole, line breaks become blanks.
std::string oneLine(std::string s) {
  for (char& ch : s)
    if (ch == '\n' || ch == '\r') ch = ' ';
  while (!s.empty() && s.back() == ' ') s.pop_back();
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    usage(stderr);
    return le::cli::kUsage;
  }
  // FFmpeg's own chatter (encoder reports, hardware decoders this machine lacks) would bury
  // the tool's lines; every failure reaches the user through the engine's messages instead.
  av_log_set_level(AV_LOG_FATAL);
  const std::string cmd = argv[1];
  if (cmd == "--help" || cmd == "-h" || cmd == "help") {
    usage(stdout);
    return le::cli::kOk;
  }
  for (const Command& c : kCommands) {
    if (cmd != c.name) continue;
    const std::vector<std::string> args(argv + 2, argv + argc);
    try {
      return c.run(args);
    } catch (const le::cli::UsageError& e) {
      std::fprintf(stderr, "le %s: %s (see 'le %s --help')\n", c.name, oneLine(e.what()).c_str(), c.name);
      return le::cli::kUsage;
    } catch (const std::exception& e) {
      std::fprintf(stderr, "le %s: %s\n", c.name, oneLine(e.what()).c_str());
      return le::cli::kFailed;
    }
  }
  std::fprintf(stderr, "le: unknown command '%s' (see 'le --help')\n", cmd.c_str());
  return le::cli::kUsage;
}
