// le serve BUNDLE: the talking head in a web page, live from the microphone.
#include <arpa/inet.h>

#include <cstdio>
#include <stdexcept>

#include "tools/le/le_cli.h"
#ifdef LE_HAVE_SERVE
#include "tools/le/serve/server.h"
#endif

namespace le::cli {
namespace {

const char kHelp[] =
    "usage: le serve BUNDLE [options]\n"
    "\n"
    "Serves a web page at http://ADDR:PORT/ that sends the microphone (push-to-talk) or a WAV\n"
    "file to the bundle's person and shows them speaking it back, live, at 25 frames per\n"
    "second, with idle frames while nothing is said. Each page gets a pipeline of its own,\n"
    "destroyed when the page leaves. Ctrl-C stops the server.\n"
    "\n"
    "options:\n"
    "  --port N          TCP port (default 8080; 0 picks a free one)\n"
    "  --bind ADDR       address to listen on (default 127.0.0.1; 0.0.0.0 for every interface:\n"
    "                    browsers give the microphone only to localhost or HTTPS pages)\n"
    "  --pages N         pages served at once, each with its own pipeline (default 2)\n"
    "  --quality Q       JPEG quantiser of the frames, 2 (best) .. 31 (default 4)\n"
    "  --motion DIR      keypoint source directory (default: the bundle's own)\n"
    "  --model KEY       director member model_KEY.onnx (default b1)\n"
    "  --threads N       engine thread budget per page (default: the engine's choice)\n"
    "  --web DIR         serve the page's files from DIR instead of the built-in copy\n"
    "  --quiet           no log lines on standard error\n"
    "\n"
    "W2V_ONNX, when unset, names the bundle's own speech encoder.\n";

}  // namespace

int cmdServe(const std::vector<std::string>& argv) {
  const Args args(argv, {"quiet"}, {"port", "bind", "pages", "quality", "motion", "model", "threads", "web"});
  if (args.help()) {
    std::fputs(kHelp, stdout);
    return kOk;
  }
#ifndef LE_HAVE_SERVE
  throw std::runtime_error("this le was built without Boost's headers (Beast); install libboost-dev and rebuild");
#else
  if (args.positional().size() != 1) throw UsageError("wants exactly one bundle");
  serve::ServeOptions o;
  o.bundle = args.positional()[0];
  o.port = args.integer("port", 8080, 0, 65535);
  o.bind = args.str("bind", "127.0.0.1");
  unsigned char addr[16];
  if (inet_pton(AF_INET, o.bind.c_str(), addr) != 1 && inet_pton(AF_INET6, o.bind.c_str(), addr) != 1)
    throw UsageError("--bind wants an IP address, got '" + o.bind + "'");
  o.maxPages = args.integer("pages", 2, 1, 64);
  o.quality = args.integer("quality", 4, 2, 31);
  o.motionDir = args.str("motion", "");
  o.model = args.str("model", "b1");
  o.threads = args.integer("threads", 0, 0, 256);
  o.webDir = args.str("web", "");
  o.chatty = !args.flag("quiet");
  serve::Server server(o);
  std::fprintf(stderr, "le serve: %dx%d at http://%s:%u/ (Ctrl-C stops)\n", server.width(), server.height(),
                 o.bind.find(':') != std::string::npos ? ("[" + o.bind + "]").c_str() : o.bind.c_str(),
                 static_cast<unsigned>(server.port()));
  server.run(true);
  if (o.chatty) std::fprintf(stderr, "le serve: stopped\n");
  return kOk;
#endif
}

}  // namespace le::cli
