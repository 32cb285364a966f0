// le serve: the engine behind a web page. HTTP serves the page, a WebSocket per page carries
// 16 kHz mono s16le PCM up and JPEG frames with their frame info down; every page speaks
// through a pipeline (context + utterance pipeline) of its own, destroyed when it leaves.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace le::serve {

struct ServeOptions {
  std::string bundle;
  std::string bind = "127.0.0.1";
  int port = 8080;            // 0: any free port (see Server::port)
  int maxPages = 2;           // pages served at once; more are refused with a reason
  std::string model = "b1";   // director member model_KEY.onnx
  std::string motionDir;      // keypoint source; "" = the bundle's own
  int threads = 0;            // engine thread budget per page; 0 = the engine's choice
  int quality = 4;            // JPEG quantiser, 2 (best) .. 31
  std::string webDir;         // serve the page's files from here instead of the built-in copy
  bool chatty = true;         // a line on standard error per page
};

// Frame messages (binary, little-endian) start with this header; the JPEG follows.
constexpr size_t kFrameHeaderBytes = 48;
//   0 "LEF1"  4 u32 kind  8 u64 seq  16 u32 sourceIndex  20 u32 speechIndex
//  24 f64 first-frame latency ms  32 f64 render ms average  40 u32 frames late  44 u32 state
// Up: binary messages are PCM (an even number of bytes, at most kMaxMessageBytes); text
// messages are the commands "end" (the utterance is complete) and "interrupt".
constexpr size_t kMaxMessageBytes = 1 << 16;

class Server {
 public:
  // Opens the bundle's first pipeline (so a bad bundle fails here, not at the first page) and
  // listens. Throws std::runtime_error with a one-line reason.
  explicit Server(ServeOptions options);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  uint16_t port() const;
  int width() const;
  int height() const;
  // Serves until stop() (or SIGINT/SIGTERM when stopOnSignals); closes every page, destroys
  // every pipeline and returns.
  void run(bool stopOnSignals);
  // Safe from any thread and from a signal-free context; run() returns soon after.
  void stop();
  // Pipelines alive now (pages connected, or leaving and not yet torn down).
  int pipelines() const;

  struct Impl;  // opaque: the pages and pipelines reach the server through it

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace le::serve
