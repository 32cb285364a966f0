// ctest-label: threaded
// le serve end to end: a WebSocket client speaks to the server as a page does (speech frames,
// ramps, refusals, malformed messages, pages that vanish, shutdown), and headless Chromium
// drives the real page with its fake microphone fed from synthesised speech.
#include <gtest/gtest.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "le/le_a2x.h"
#include "le/le_image.h"
#include "tests/bundle_fixture.h"
#include "tests/support/headless_page.h"
#include "tests/support/speech.h"
#include "tests/support/utt_soak.h"
#include "tools/forge/forge.h"
#include "tools/forge/forge_audio.h"
#include "tools/le/serve/server.h"

namespace {

using namespace le::testmedia::headless;  // Beast's names, the clock, Browser, httpGet

constexpr int kSlow = le::testmedia::kSanitized ? 4 : 1;  // sanitized engines run several times slower

constexpr int kNt = 5;

// A speaking bundle and a server on a free port, run on a thread of its own.
struct Served {
  le::testing::ScratchDir dir{"serve"};
  std::string bundle;
  std::unique_ptr<le::serve::Server> server;
  std::thread thread;

  explicit Served(int maxPages = 2) {
    le::forge::Params p = le::testmedia::uttBundleParams(96, 80, 64, kNt);
    p.extraMembers = le::forge::audioMembers(p, {});
    bundle = le::forge::forgeBundle(dir / "b", p).dir;
    le::serve::ServeOptions o;
    o.bundle = bundle;
    o.port = 0;
    o.maxPages = maxPages;
    o.threads = 1;
    o.chatty = false;
    server = std::make_unique<le::serve::Server>(o);
    thread = std::thread([this] { server->run(false); });
  }
  ~Served() { shutdown(); }
  void shutdown() {
    server->stop();
    if (thread.joinable()) thread.join();
  }
  uint16_t port() const { return server->port(); }
  // Waits until n pipelines are alive.
  bool pipelinesReach(int n, std::chrono::seconds limit) const {
    const auto end = Clock::now() + limit;
    while (server->pipelines() != n && Clock::now() < end) std::this_thread::sleep_for(10ms);
    return server->pipelines() == n;
  }
};

struct Frame {
  uint32_t kind = 0, sourceIndex = 0, speechIndex = 0;
  bool jpeg = false;
};

// The page's side of the socket, with timeouts on every read.
class Client {
 public:
  explicit Client(uint16_t port) {
    beast::get_lowest_layer(ws_).connect(tcp::endpoint(net::ip::make_address("127.0.0.1"), port));
    ws_.handshake("127.0.0.1", "/ws");
  }

  // The next message; nullopt when the socket closed (see reason()) or nothing came in time.
  std::optional<std::pair<bool, std::string>> next(std::chrono::milliseconds limit = 20s * kSlow) {
    beast::flat_buffer buf;
    beast::error_code ec;
    bool done = false;
    ws_.async_read(buf, [&](beast::error_code e, size_t) { ec = e, done = true; });
    ioc_.restart();
    ioc_.run_for(limit);
    if (!done) {
      beast::get_lowest_layer(ws_).cancel();
      ioc_.restart();
      ioc_.run();
      return std::nullopt;
    }
    if (ec) return std::nullopt;
    return std::make_pair(ws_.got_binary(), beast::buffers_to_string(buf.data()));
  }

  // The next frame (text messages are kept in texts()); nullopt when the socket ends.
  std::optional<Frame> frame() {
    for (;;) {
      auto m = next();
      if (!m) return std::nullopt;
      if (!m->first) {
        texts_.push_back(m->second);
        continue;
      }
      const std::string& b = m->second;
      if (b.size() < le::serve::kFrameHeaderBytes || b.compare(0, 4, "LEF1") != 0) return std::nullopt;
      Frame f;
      std::memcpy(&f.kind, &b[4], 4);
      std::memcpy(&f.sourceIndex, &b[16], 4);
      std::memcpy(&f.speechIndex, &b[20], 4);
      f.jpeg = static_cast<uint8_t>(b[48]) == 0xFF && static_cast<uint8_t>(b[49]) == 0xD8;
      return f;
    }
  }

  void pcm(const int16_t* p, size_t n) {
    ws_.binary(true);
    ws_.write(net::buffer(p, n * 2));
  }
  void bytes(const std::string& b) {
    ws_.binary(true);
    ws_.write(net::buffer(b));
  }
  void text(const std::string& t) {
    ws_.text(true);
    ws_.write(net::buffer(t));
  }
  // Leaves without a close handshake, as a crashed tab does.
  void vanish() { beast::get_lowest_layer(ws_).close(); }

  // Reads until the server closes; its close code and reason.
  std::pair<int, std::string> closedWith() {
    while (auto m = next())
      if (!m->first) texts_.push_back(m->second);
    return {static_cast<int>(ws_.reason().code), std::string(ws_.reason().reason.c_str())};
  }
  const std::vector<std::string>& texts() const { return texts_; }

 private:
  net::io_context ioc_;
  websocket::stream<tcp::socket> ws_{ioc_};
  std::vector<std::string> texts_;
};

const std::vector<int16_t>& clip() { return le::testmedia::sayAhClip(); }

int framesOf(size_t samples) { return static_cast<int>((samples + 639) / 640); }

// Reads frames through a ramp of n frames to the idle frame after it. Speech frames keep their
// order from index `speech` on and end before the ramp, which walks on from the last frame before
// it (`last` when there was none); idle frames come only before this call's first speech frame.
// Returns the number of speech frames then.
int throughRamp(Client& c, size_t n, int speech = 0, uint32_t last = 0) {
  std::vector<uint32_t> ramp;
  bool spoke = false;
  for (;;) {
    const auto f = c.frame();
    if (!f) {
      ADD_FAILURE() << "the frames stopped after " << speech << " speech frames";
      return speech;
    }
    EXPECT_TRUE(f->jpeg);
    if (f->kind == LE_UTT_KIND_RAMP) {
      ramp.push_back(f->sourceIndex);
      continue;
    }
    if (!ramp.empty()) {
      EXPECT_EQ(f->kind, LE_UTT_KIND_IDLE) << "the ramp was cut short";
      break;
    }
    if (f->kind == LE_UTT_KIND_SPEECH) {
      EXPECT_EQ(f->speechIndex, static_cast<uint32_t>(speech++)) << "a speech frame was lost or repeated";
      spoke = true;
    } else {
      EXPECT_FALSE(spoke) << "idle frame inside the utterance";
    }
    last = f->sourceIndex;
  }
  EXPECT_EQ(ramp.size(), n);
  for (size_t i = 0; i < ramp.size(); ++i) EXPECT_EQ(ramp[i], (last + 1 + i) % kNt) << "ramp frame " << i;
  return speech;
}

// One utterance spoken into the socket and answered frame by frame: every speech frame in
// order, then the ramp back to idle, walking on from the last speech frame's source.
TEST(Serve, SpeechInterruptAndShutdown) {
  Served s;
  int status = 0;
  EXPECT_NE(httpGet(s.port(), "/", &status).find("<canvas id=\"face\""), std::string::npos);
  EXPECT_EQ(status, 200);
  EXPECT_NE(httpGet(s.port(), "/app.js?v=2", &status).find("'use strict';"), std::string::npos);
  EXPECT_EQ(status, 200);
  httpGet(s.port(), "/../server.cc", &status);
  EXPECT_EQ(status, 404);

  Client c(s.port());
  // Audio sent before the hello would find the pipeline still warming up.
  std::string hello;
  while (hello.find("hello") == std::string::npos) {
    const auto m = c.next();
    ASSERT_TRUE(m) << "no hello";
    if (!m->first) hello = m->second;
  }
  EXPECT_EQ(hello, "{\"type\":\"hello\",\"width\":96,\"height\":80,\"fps\":25,\"rate\":16000}");

  const auto& a = clip();
  for (size_t at = 0; at < a.size(); at += 1000) c.pcm(a.data() + at, std::min<size_t>(1000, a.size() - at));
  c.text("end");
  EXPECT_EQ(throughRamp(c, 6), framesOf(a.size()));

  // Interrupted after a few speech frames: the four-frame ramp walks on from the last frame
  // the server pulled, which is the last one the page got.
  c.pcm(a.data(), a.size());
  std::optional<Frame> f;
  for (int speech = 0; speech < 3;) {
    f = c.frame();
    ASSERT_TRUE(f);
    speech += f->kind == LE_UTT_KIND_SPEECH;
  }
  c.text("interrupt");
  EXPECT_LT(throughRamp(c, 4, 3, f->sourceIndex), framesOf(a.size()));

  // Ctrl-C: the page is told, every pipeline goes, run returns.
  const auto t0 = Clock::now();
  s.server->stop();
  const auto closed = c.closedWith();
  EXPECT_EQ(closed.first, 1001);
  EXPECT_EQ(closed.second, "le serve is shutting down");
  s.shutdown();
  EXPECT_LT(Clock::now() - t0, 3s * kSlow);
  EXPECT_EQ(s.server->pipelines(), 0);
}

// Pages at once, a page beyond the limit, pages that vanish mid-utterance and pages that send
// garbage: each is handled on its own and the others keep their frames.
TEST(Serve, PagesRefusalsAndMalformedMessages) {
  Served s(2);
  Client a(s.port()), b(s.port());
  ASSERT_TRUE(a.frame());
  ASSERT_TRUE(b.frame());
  ASSERT_TRUE(s.pipelinesReach(2, 5s));

  Client third(s.port());
  auto closed = third.closedWith();
  EXPECT_EQ(closed.first, 1013);
  EXPECT_EQ(closed.second, "le serve: 2 page(s) already have a pipeline (--pages); close one and reload");
  ASSERT_FALSE(third.texts().empty());
  EXPECT_NE(third.texts().back().find("\"type\":\"error\""), std::string::npos);

  // b vanishes while its utterance is being rendered; its pipeline goes, a's stays.
  b.pcm(clip().data(), clip().size());
  for (;;) {
    const auto f = b.frame();
    ASSERT_TRUE(f);
    if (f->kind == LE_UTT_KIND_SPEECH) break;
  }
  b.vanish();
  ASSERT_TRUE(s.pipelinesReach(1, 10s * kSlow));

  struct Bad {
    std::string payload;
    bool binary;
    int code;
    std::string reason;
  };
  const Bad bad[] = {
      {"abc", true, 1007, "malformed message: PCM needs whole 16-bit samples, got 3 bytes"},
      {"hello", false, 1008, "malformed message: unknown command 'hello'"},
      {std::string(40, '\x01'), false, 1008, "malformed message: unknown command '" + std::string(24, '?') + "...'"},
      {std::string(le::serve::kMaxMessageBytes + 2, '\0'), true, 1009, ""},
  };
  for (const Bad& m : bad) {
    Client g(s.port());
    ASSERT_TRUE(g.frame());
    m.binary ? g.bytes(m.payload) : g.text(m.payload);
    closed = g.closedWith();
    EXPECT_EQ(closed.first, m.code) << m.reason;
    if (m.code != 1009) {
      EXPECT_EQ(closed.second, m.reason);
    }
    ASSERT_TRUE(s.pipelinesReach(1, 10s * kSlow));
  }

  // Not HTTP at all.
  {
    net::io_context ioc;
    tcp::socket raw(ioc);
    raw.connect(tcp::endpoint(net::ip::make_address("127.0.0.1"), s.port()));
    net::write(raw, net::buffer(std::string("\x16\x03\x01\x02\x00 garbage\r\n\r\n")));
    char sink[256];
    beast::error_code ec;
    raw.read_some(net::buffer(sink), ec);
    while (!ec) raw.read_some(net::buffer(sink), ec);
    EXPECT_EQ(ec, net::error::eof);
  }

  // Through all of it a kept speaking.
  a.pcm(clip().data(), clip().size());
  a.text("end");
  int speech = 0;
  while (speech < framesOf(clip().size())) {
    const auto f = a.frame();
    ASSERT_TRUE(f) << "a lost its frames";
    speech += f->kind == LE_UTT_KIND_SPEECH;
  }
  EXPECT_EQ(s.server->pipelines(), 1);
}

TEST(Serve, PageInHeadlessChromium) {
  const std::string chromium = which("chromium");
  if (chromium.empty()) GTEST_SKIP() << "chromium is not installed (apt install chromium): the page is not driven in a browser";
  Served s;
  const std::string wav = s.dir / "speech.wav";
  writeWav(wav, clip());
  Browser br(chromium, "http://127.0.0.1:" + std::to_string(s.port()) + "/", wav, s.dir / "profile");
  ASSERT_TRUE(br.until([&] { return br.summary()["ready"] == "1"; }, 30s * kSlow)) << br.eval("lePage.summary()");
  ASSERT_TRUE(br.until([&] { return std::stoi(br.summary()["idle"]) >= 5; }, 10s * kSlow)) << "no idle frames drawn";

  const std::string talkDown = "document.getElementById('talk').dispatchEvent(new PointerEvent('pointerdown')),'ok'";
  const std::string talkUp = "document.getElementById('talk').dispatchEvent(new PointerEvent('pointerup')),'ok'";
  // Push-to-talk held for a second of the fake microphone's speech: every sample sent becomes a
  // speech frame, then the six-frame ramp.
  br.eval(talkDown);
  ASSERT_TRUE(br.until([&] { return std::stoll(br.summary()["sent"]) >= 16000; }, 20s * kSlow)) << "the microphone sends nothing";
  br.eval(talkUp);
  std::vector<std::vector<double>> u;
  ASSERT_TRUE(br.until([&] { u = br.utterances(); return u.size() == 1 && u[0][2] >= 6; }, 20s * kSlow))
      << br.eval("lePage.summary()");
  EXPECT_EQ(u[0][1], framesOf(static_cast<size_t>(u[0][0])));
  EXPECT_EQ(u[0][2], 6);

  // The interrupt button while speech frames are being drawn: the four-frame ramp.
  br.eval(talkDown);
  ASSERT_TRUE(br.until([&] { u = br.utterances(); return u.size() == 2 && u[1][1] >= 2; }, 20s * kSlow))
      << br.eval("lePage.summary()");
  br.eval("document.getElementById('interrupt').click(),'ok'");
  ASSERT_TRUE(br.until([&] { u = br.utterances(); return u[1][2] >= 4; }, 10s * kSlow)) << br.eval("lePage.summary()");
  std::this_thread::sleep_for(300ms);
  u = br.utterances();
  EXPECT_EQ(u[1][2], 4);
  br.eval(talkUp);

  // What a person sees: the face on the canvas.
  const std::string shot = br.call("Page.captureScreenshot", "{\"format\":\"png\"}");
  const size_t at = shot.find("\"data\":\"");
  ASSERT_NE(at, std::string::npos);
  const std::string png = s.dir / "page.png";
  {
    std::ofstream f(png, std::ios::binary);
    const std::string bytes = base64Decode(shot.substr(at + 8, shot.find('"', at + 8) - at - 8));
    f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  int w = 0, h = 0;
  const std::vector<uint8_t> rgb = le::loadImageRGB(png, &w, &h);
  std::stringstream rect(br.eval("(r => [r.x, r.y, r.width, r.height].map(Math.round).join(' '))("
                                 "document.getElementById('face').getBoundingClientRect())"));
  int x0 = 0, y0 = 0, cw = 0, ch = 0;
  rect >> x0 >> y0 >> cw >> ch;
  ASSERT_GT(cw, 100);
  ASSERT_LE(x0 + cw, w);
  ASSERT_LE(y0 + ch, h);
  // The forged face: skin in the middle of the canvas, a darker background at its edges.
  const auto at3 = [&](int x, int y) { return &rgb[(static_cast<size_t>(y) * w + x) * 3]; };
  int skin = 0, total = 0;
  for (int y = y0 + ch / 3; y < y0 + 2 * ch / 3; ++y)
    for (int x = x0 + cw / 3; x < x0 + 2 * cw / 3; ++x, ++total) {
      const uint8_t* p = at3(x, y);
      skin += p[0] > 150 && p[0] > p[1] + 15 && p[1] > p[2];
    }
  EXPECT_GT(skin, total / 3) << "no face in the middle of the canvas: " << png;
  const uint8_t* corner = at3(x0 + 2, y0 + ch - 3);
  EXPECT_LT(corner[0] + corner[1] + corner[2], 3 * 200) << "the canvas corner is page background: " << png;
}

}  // namespace
