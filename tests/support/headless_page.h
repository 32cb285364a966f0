// Headless Chromium on a page, driven through its DevTools protocol over a Boost.Beast
// WebSocket: le serve's test and its soak run the real page with the fake microphone playing a
// WAV file.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/core/detail/base64.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace le::testmedia::headless {

namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace net = boost::asio;
using tcp = net::ip::tcp;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// GET target from 127.0.0.1:port; the body, and the status into *status.
inline std::string httpGet(uint16_t port, const std::string& target, int* status) {
  net::io_context ioc;
  beast::tcp_stream s(ioc);
  s.connect(tcp::endpoint(net::ip::make_address("127.0.0.1"), port));
  http::request<http::empty_body> req(http::verb::get, target, 11);
  req.set(http::field::host, "127.0.0.1");
  http::write(s, req);
  beast::flat_buffer buf;
  http::response<http::string_body> res;
  http::read(s, buf, res);
  *status = static_cast<int>(res.result_int());
  return res.body();
}

// The executable name on PATH, or "".
inline std::string which(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::stringstream dirs(path ? path : "");
  for (std::string d; std::getline(dirs, d, ':');)
    if (!d.empty() && access((d + "/" + name).c_str(), X_OK) == 0) return d + "/" + name;
  return "";
}

// 16 kHz mono 16-bit PCM as a WAV file.
inline void writeWav(const std::string& path, const std::vector<int16_t>& pcm) {
  const uint32_t data = static_cast<uint32_t>(pcm.size() * 2), rate = 16000, byteRate = 32000;
  const uint16_t fmt = 1, ch = 1, align = 2, bits = 16;
  const uint32_t riff = 36 + data, fmtLen = 16;
  std::ofstream f(path, std::ios::binary);
  f.write("RIFF", 4).write(reinterpret_cast<const char*>(&riff), 4).write("WAVEfmt ", 8);
  f.write(reinterpret_cast<const char*>(&fmtLen), 4).write(reinterpret_cast<const char*>(&fmt), 2);
  f.write(reinterpret_cast<const char*>(&ch), 2).write(reinterpret_cast<const char*>(&rate), 4);
  f.write(reinterpret_cast<const char*>(&byteRate), 4).write(reinterpret_cast<const char*>(&align), 2);
  f.write(reinterpret_cast<const char*>(&bits), 2).write("data", 4).write(reinterpret_cast<const char*>(&data), 4);
  f.write(reinterpret_cast<const char*>(pcm.data()), data);
}

inline std::string base64Decode(const std::string& in) {
  std::string out(beast::detail::base64::decoded_size(in.size()), '\0');
  out.resize(beast::detail::base64::decode(&out[0], in.data(), in.size()).first);
  return out;
}

// Headless Chromium on the page, driven through its DevTools protocol.
class Browser {
 public:
  Browser(const std::string& chromium, const std::string& url, const std::string& wav, const std::string& profile) {
    std::remove((profile + "/DevToolsActivePort").c_str());  // a profile used before
    pid_ = fork();
    if (pid_ == 0) {
      const std::string audio = "--use-file-for-fake-audio-capture=" + wav, dir = "--user-data-dir=" + profile;
      std::freopen("/dev/null", "w", stdout);
      std::freopen((profile + ".log").c_str(), "w", stderr);
      execl(chromium.c_str(), "chromium", "--headless=new", "--no-sandbox", "--disable-gpu", "--no-first-run",
            "--use-fake-ui-for-media-stream", "--use-fake-device-for-media-stream", audio.c_str(),
            "--autoplay-policy=no-user-gesture-required", "--remote-debugging-port=0", dir.c_str(),
            "--window-size=1280,760", url.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    // Chromium writes its DevTools port into the profile; the page's target is then listed.
    const auto end = Clock::now() + 60s;
    int port = 0;
    while (!port && Clock::now() < end) {
      std::ifstream f(profile + "/DevToolsActivePort");
      if (!(f >> port)) port = 0;
      if (!port) std::this_thread::sleep_for(50ms);
    }
    if (!port) throw std::runtime_error("chromium did not open its DevTools port; see " + profile + ".log");
    std::string page;
    while (page.empty() && Clock::now() < end) {
      int status = 0;
      const std::string list = httpGet(static_cast<uint16_t>(port), "/json/list", &status);
      const size_t at = list.find("\"webSocketDebuggerUrl\": \"ws://");
      const size_t type = list.find("\"type\": \"page\"");
      if (at != std::string::npos && type != std::string::npos) {
        const size_t path = list.find("/devtools/page/", at);
        page = list.substr(path, list.find('"', path) - path);
      } else {
        std::this_thread::sleep_for(50ms);
      }
    }
    if (page.empty()) throw std::runtime_error("chromium lists no page");
    beast::get_lowest_layer(ws_).connect(tcp::endpoint(net::ip::make_address("127.0.0.1"), static_cast<uint16_t>(port)));
    ws_.handshake("127.0.0.1:" + std::to_string(port), page);
    ws_.read_message_max(64 << 20);
  }
  ~Browser() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
  }

  // A DevTools command; its whole answer.
  std::string call(const std::string& method, const std::string& params) {
    const int id = ++id_;
    ws_.text(true);
    ws_.write(net::buffer("{\"id\":" + std::to_string(id) + ",\"method\":\"" + method + "\",\"params\":" + params + "}"));
    const std::string tag = "{\"id\":" + std::to_string(id) + ",";
    for (;;) {
      beast::flat_buffer buf;
      ws_.read(buf);
      std::string m = beast::buffers_to_string(buf.data());
      if (m.compare(0, tag.size(), tag) == 0) return m;
    }
  }
  // A JavaScript expression whose value is a string without quotes or backslashes.
  std::string eval(const std::string& js) {
    const std::string r = call("Runtime.evaluate", "{\"expression\":\"" + js + "\",\"returnByValue\":true,\"awaitPromise\":true}");
    const std::string key = "\"value\":\"";
    const size_t at = r.find(key);
    return at == std::string::npos ? "" : r.substr(at + key.size(), r.find('"', at + key.size()) - at - key.size());
  }
  // Reloads the page: its socket closes, a new one opens.
  void reload() { call("Page.reload", "{}"); }
  std::map<std::string, std::string> summary() {
    std::map<std::string, std::string> m;
    std::stringstream ss(eval("lePage.summary()"));
    for (std::string kv; ss >> kv;) m[kv.substr(0, kv.find('='))] = kv.substr(kv.find('=') + 1);
    return m;
  }
  // The page's utterances: samples, speech frames, ramp frames, end-to-end ms, pipeline ms.
  std::vector<std::vector<double>> utterances() {
    std::vector<std::vector<double>> out;
    std::stringstream ss(summary()["utts"]);
    for (std::string u; std::getline(ss, u, ',');) {
      std::vector<double> v;
      std::stringstream us(u);
      for (std::string x; std::getline(us, x, ':');) v.push_back(std::stod(x));
      out.push_back(v);
    }
    return out;
  }
  template <class Pred>
  bool until(Pred pred, std::chrono::seconds limit) {
    const auto end = Clock::now() + limit;
    while (Clock::now() < end) {
      if (pred()) return true;
      std::this_thread::sleep_for(50ms);
    }
    return pred();
  }

 private:
  pid_t pid_ = -1;
  int id_ = 0;
  net::io_context ioc_;
  websocket::stream<tcp::socket> ws_{ioc_};
};

}  // namespace le::testmedia::headless
