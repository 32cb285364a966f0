#include "tools/le/serve/server.h"

#include <malloc.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tools/le/le_host.h"
#include "tools/le/serve/assets.h"
#include "tools/le/serve/jpeg.h"

namespace le::serve {

namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace net = boost::asio;
using tcp = net::ip::tcp;
using cli::Clock;
using cli::CtxPtr;
using cli::kFrameTime;
using cli::UttPtr;

namespace {

// Frames a page may have in flight before idle frames are skipped for it, and before it is
// dropped as unable to keep up.
constexpr size_t kSkipIdleAt = 3, kGiveUpAt = 100;

// A page's engine: the pipeline is destroyed before the context it borrows.
struct Engine {
  CtxPtr ctx;
  UttPtr utt;
  int width = 0, height = 0;
};

std::unique_ptr<Engine> openEngine(const ServeOptions& o) {
  auto e = std::make_unique<Engine>();
  e->ctx = cli::openContext(o.bundle, o.model, o.threads);
  e->width = le_width(e->ctx.get());
  e->height = le_height(e->ctx.get());
  e->utt = cli::openSpeech(e->ctx.get(), o.bundle, o.motionDir, false);
  return e;
}

std::string jsonString(const std::string& s) {
  std::string out = "\"";
  for (const char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

// A WebSocket close reason is at most 123 bytes.
std::string closeText(std::string s) {
  if (s.size() > 123) s.resize(123);
  return s;
}

// What a peer sent, fit to quote in a reason: printable, short.
std::string quoted(const std::string& s) {
  std::string q;
  for (const char c : s.substr(0, 24)) q += (c >= 0x20 && c < 0x7f) ? c : '?';
  return "'" + q + (s.size() > 24 ? "...'" : "'");
}

template <class T>
void put(std::string& m, size_t at, T v) {
  std::memcpy(&m[at], &v, sizeof v);  // the header is little-endian, as this host
}

}  // namespace

class Page;

// The engine side of one page: a thread that opens the pipeline, paces its frames at 25 per
// second, encodes them and hands them to the page; it destroys the pipeline when it stops.
class Speaker {
 public:
  Speaker(Server::Impl& server, std::weak_ptr<Page> page) : server_(server), page_(std::move(page)) {}
  ~Speaker() { join(); }

  void start() { thread_ = std::thread([this] { run(); }); }
  void stop() { stop_ = true; }
  void join() {
    if (thread_.joinable()) thread_.join();
  }
  bool done() const { return done_; }

  // From the page's thread; concurrent with the pulls, never with the destruction.
  void push(const int16_t* pcm, int n) {
    std::lock_guard<std::mutex> lock(mu_);
    if (engine_) le_utt_push_audio(engine_->utt.get(), pcm, n);
  }
  void end() {
    std::lock_guard<std::mutex> lock(mu_);
    if (engine_) le_utt_end_utterance(engine_->utt.get());
  }
  void interrupt() {
    std::lock_guard<std::mutex> lock(mu_);
    if (engine_) le_utt_interrupt(engine_->utt.get());
  }

 private:
  void run();
  void pace(Engine& e);

  Server::Impl& server_;
  std::weak_ptr<Page> page_;
  std::mutex mu_;
  std::unique_ptr<Engine> engine_;
  std::atomic<bool> stop_{false}, done_{false};
  std::thread thread_;
};

struct Server::Impl {
  explicit Impl(ServeOptions o) : opts(std::move(o)), acceptor(ioc) {}

  ServeOptions opts;
  net::io_context ioc;  // declared first: destroyed after everything that posts to it
  tcp::acceptor acceptor;
  std::optional<net::signal_set> signals;
  std::optional<net::steady_timer> deadline;
  int width = 0, height = 0;
  uint16_t port = 0;

  std::mutex spareMu;
  std::unique_ptr<Engine> spare;  // the pipeline opened at start, handed to the first page

  // On the I/O thread only.
  std::vector<std::weak_ptr<Page>> pages;
  std::set<std::shared_ptr<Speaker>> speakers;
  std::atomic<int> alive{0};
  bool stopping = false;
  int pageCount = 0;

  std::unique_ptr<Engine> takeEngine() {
    {
      std::lock_guard<std::mutex> lock(spareMu);
      if (spare) return std::move(spare);
    }
    return openEngine(opts);
  }

  void log(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

  Clock::time_point stopAt;

  void accept();
  void beginStop();
  void waitForQuiet();
  void reap();
};

void Server::Impl::log(const char* fmt, ...) {
  if (!opts.chatty) return;
  va_list ap;
  va_start(ap, fmt);
  std::fputs("le serve: ", stderr);
  std::vfprintf(stderr, fmt, ap);
  std::fputc('\n', stderr);
  va_end(ap);
}

// One page's WebSocket, on the I/O thread.
class Page : public std::enable_shared_from_this<Page> {
 public:
  Page(Server::Impl& server, beast::tcp_stream&& stream) : server_(server), ws_(std::move(stream)) {}

  void start(http::request<http::string_body> req) {
    beast::get_lowest_layer(ws_).expires_never();
    ws_.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
    ws_.read_message_max(kMaxMessageBytes);
    id_ = ++server_.pageCount;
    try {
      peer_ = beast::get_lowest_layer(ws_).socket().remote_endpoint().address().to_string();
    } catch (const std::exception&) {
      peer_ = "?";
    }
    ws_.async_accept(req, [self = shared_from_this()](beast::error_code ec) { self->accepted(ec); });
  }

  // A frame from the speaker; idle frames are skipped while the page is behind.
  void sendFrame(std::shared_ptr<const std::string> msg, bool idle) {
    if (closing_) return;
    if (idle && out_.size() >= kSkipIdleAt) return;
    if (out_.size() >= kGiveUpAt) return closeWith(websocket::close_code::policy_error, "the page does not take the frames fast enough");
    send(std::move(msg), true);
  }
  void sendText(const std::string& text) { send(std::make_shared<const std::string>(text), false); }

  // Closes with a reason after telling the page in a message too (browsers hide close reasons
  // from users).
  void closeWith(websocket::close_code code, const std::string& reason) {
    if (closing_) return;
    sendText("{\"type\":\"error\",\"text\":" + jsonString(reason) + "}");
    closing_ = true;
    closeCode_ = code;
    closeReason_ = closeText(reason);
    if (!writing_) writeNext();
  }

 private:
  struct Out {
    std::shared_ptr<const std::string> bytes;
    bool binary;
  };

  void accepted(beast::error_code ec) {
    if (ec) return;
    Server::Impl& s = server_;
    if (s.stopping) return closeWith(websocket::close_code::going_away, "le serve is shutting down");
    if (s.alive >= s.opts.maxPages)
      return closeWith(websocket::close_code::try_again_later,
                       "le serve: " + std::to_string(s.opts.maxPages) +
                           " page(s) already have a pipeline (--pages); close one and reload");
    s.log("page %d connected from %s", id_, peer_.c_str());
    s.pages.push_back(weak_from_this());
    speaker_ = std::make_shared<Speaker>(s, weak_from_this());
    s.speakers.insert(speaker_);
    ++s.alive;
    sendText("{\"type\":\"status\",\"text\":\"warming up the pipeline\"}");
    speaker_->start();
    read();
  }

  void read() {
    ws_.async_read(in_, [self = shared_from_this()](beast::error_code ec, size_t) { self->got(ec); });
  }

  void got(beast::error_code ec) {
    if (ec) return gone(ec);
    if (closing_) {  // still reading only to see the page's close frame
      in_.consume(in_.size());
      return read();
    }
    const auto data = in_.cdata();
    const char* p = static_cast<const char*>(data.data());
    const size_t n = data.size();
    if (ws_.got_binary()) {
      if (n % 2) {
        in_.consume(n);
        closeWith(websocket::close_code::bad_payload,
                  "malformed message: PCM needs whole 16-bit samples, got " + std::to_string(n) + " bytes");
        return read();
      }
      pcm_.resize(n / 2);
      std::memcpy(pcm_.data(), p, n);  // little-endian on the wire, as this host
      samples_ += static_cast<long long>(n / 2);
      if (speaker_ && !pcm_.empty()) speaker_->push(pcm_.data(), static_cast<int>(pcm_.size()));
    } else {
      const std::string cmd(p, n);
      if (cmd == "end") {
        if (speaker_) speaker_->end();
      } else if (cmd == "interrupt") {
        if (speaker_) speaker_->interrupt();
      } else {
        in_.consume(n);
        closeWith(websocket::close_code::policy_error, "malformed message: unknown command " + quoted(cmd));
        return read();
      }
    }
    in_.consume(n);
    read();
  }

  void gone(beast::error_code ec) {
    if (speaker_) {
      speaker_->stop();
      server_.log("page %d gone (%s), %lld samples heard", id_,
                  ec == websocket::error::closed ? "closed" : ec.message().c_str(), samples_);
      speaker_.reset();
    }
    closing_ = true;
    out_.clear();
  }

  void send(std::shared_ptr<const std::string> bytes, bool binary) {
    out_.push_back({std::move(bytes), binary});
    if (!writing_) writeNext();
  }

  void writeNext() {
    if (out_.empty()) {
      writing_ = false;
      if (closing_ && !closeSent_) {
        closeSent_ = true;
        writing_ = true;
        ws_.async_close(websocket::close_reason(closeCode_, closeReason_),
                        [self = shared_from_this()](beast::error_code) { self->writing_ = false; });
      }
      return;
    }
    writing_ = true;
    Out o = std::move(out_.front());
    out_.pop_front();
    ws_.binary(o.binary);
    ws_.async_write(net::buffer(*o.bytes), [self = shared_from_this(), keep = o.bytes](beast::error_code ec, size_t) {
      if (ec) {
        self->writing_ = false;
        self->out_.clear();
        return;
      }
      self->writeNext();
    });
  }

  Server::Impl& server_;
  websocket::stream<beast::tcp_stream> ws_;
  beast::flat_buffer in_;
  std::vector<int16_t> pcm_;
  std::deque<Out> out_;
  bool writing_ = false, closing_ = false, closeSent_ = false;
  websocket::close_code closeCode_ = websocket::close_code::normal;
  std::string closeReason_;
  std::shared_ptr<Speaker> speaker_;
  int id_ = 0;
  std::string peer_;
  long long samples_ = 0;
};

void Speaker::run() {
  std::unique_ptr<Engine> e;
  try {
    e = server_.takeEngine();
  } catch (const std::exception& ex) {
    const std::string why = std::string("cannot open the pipeline: ") + ex.what();
    net::post(server_.ioc, [p = page_, why] {
      if (auto page = p.lock()) page->closeWith(websocket::close_code::internal_error, why);
    });
  }
  if (e) {
    Engine& ref = *e;
    {
      std::lock_guard<std::mutex> lock(mu_);
      engine_ = std::move(e);
    }
    try {
      pace(ref);
    } catch (const std::exception& ex) {
      const std::string why = ex.what();
      net::post(server_.ioc, [p = page_, why] {
        if (auto page = p.lock()) page->closeWith(websocket::close_code::internal_error, why);
      });
    }
    {
      std::lock_guard<std::mutex> lock(mu_);
      engine_.reset();
    }
    // A pipeline frees hundreds of megabytes spread over its threads' malloc arenas; glibc
    // keeps them unless asked, and a server that lives for days would grow with every page.
    malloc_trim(0);
  }
  done_ = true;
  net::post(server_.ioc, [&s = server_] { s.reap(); });
}

void Speaker::pace(Engine& e) {
  le_utt* utt = e.utt.get();
  const std::string hello = "{\"type\":\"hello\",\"width\":" + std::to_string(e.width) +
                            ",\"height\":" + std::to_string(e.height) + ",\"fps\":25,\"rate\":16000}";
  net::post(server_.ioc, [p = page_, hello] {
    if (auto page = p.lock()) page->sendText(hello);
  });
  JpegEncoder jpeg(e.width, e.height, server_.opts.quality);
  std::vector<uint8_t> rgb(static_cast<size_t>(e.width) * e.height * 3);
  uint32_t late = 0;
  bool lastIdle = true, lateCounted = false;
  auto next = Clock::now();
  const auto pull = [&](le_utt_frame_info& info) {
    return le_utt_pull_frame(utt, rgb.data(), rgb.size(), &info) == 1;
  };
  while (!stop_) {
    const auto now = Clock::now();
    const bool due = now >= next;
    // The idle frame the pipeline made while the page was silent stands before the first
    // speech frame; that one goes out at once instead of a tick later.
    const bool jump = !due && lastIdle && le_utt_frames_available(utt) >= 2;
    if (!due && !jump) {
      std::this_thread::sleep_for(std::min<Clock::duration>(next - now, std::chrono::milliseconds(4)));
      continue;
    }
    le_utt_frame_info info{};
    bool got = pull(info);
    for (int skip = 0; got && info.kind == LE_UTT_KIND_IDLE && skip < 2 && le_utt_frames_available(utt) >= 1; ++skip)
      got = pull(info);
    if (!got) {
      if (!lateCounted) ++late;
      lateCounted = true;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
      continue;
    }
    lateCounted = false;
    lastIdle = info.kind == LE_UTT_KIND_IDLE;
    le_utt_stats st{};
    le_utt_get_stats(utt, &st);
    auto msg = std::make_shared<std::string>(kFrameHeaderBytes, '\0');
    std::memcpy(&(*msg)[0], "LEF1", 4);
    put(*msg, 4, info.kind);
    put(*msg, 8, info.seq);
    put(*msg, 16, info.sourceIndex);
    put(*msg, 20, info.speechIndex);
    put(*msg, 24, st.firstFrameLatencyMs);
    put(*msg, 32, st.renderMsAverage);
    put(*msg, 40, late);
    put(*msg, 44, static_cast<uint32_t>(st.state));
    jpeg.encode(rgb.data(), *msg);
    net::post(server_.ioc, [p = page_, m = std::shared_ptr<const std::string>(std::move(msg)), idle = lastIdle]() mutable {
      if (auto page = p.lock()) page->sendFrame(std::move(m), idle);
    });
    next = jump ? now + kFrameTime : next + kFrameTime;
    if (Clock::now() > next + 2 * kFrameTime) next = Clock::now() + kFrameTime;  // stalled: no burst
  }
}

void Server::Impl::reap() {
  for (auto it = speakers.begin(); it != speakers.end();) {
    if ((*it)->done()) {
      (*it)->join();
      it = speakers.erase(it);
      --alive;
    } else {
      ++it;
    }
  }
  pages.erase(std::remove_if(pages.begin(), pages.end(), [](const std::weak_ptr<Page>& p) { return p.expired(); }),
              pages.end());
}

namespace {

// One HTTP connection: the page's files, or the upgrade of /ws to a page's WebSocket.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
 public:
  HttpSession(Server::Impl& server, tcp::socket&& socket) : server_(server), stream_(std::move(socket)) {}

  void read() {
    parser_.emplace();
    parser_->header_limit(16 * 1024);
    parser_->body_limit(16 * 1024);
    stream_.expires_after(std::chrono::seconds(30));
    http::async_read(stream_, buf_, *parser_, [self = shared_from_this()](beast::error_code ec, size_t) { self->got(ec); });
  }

 private:
  void got(beast::error_code ec) {
    if (ec) return close();
    http::request<http::string_body> req = parser_->release();
    std::string target(req.target());
    target = target.substr(0, target.find('?'));
    if (websocket::is_upgrade(req)) {
      if (target != "/ws") return respond(req, http::status::not_found, "text/plain", "no WebSocket at " + target + "\n");
      std::make_shared<Page>(server_, std::move(stream_))->start(std::move(req));
      return;
    }
    if (req.method() != http::verb::get && req.method() != http::verb::head)
      return respond(req, http::status::method_not_allowed, "text/plain", "le serve answers GET only\n");
    std::string name = target == "/" ? "index.html" : target.substr(1);
    const Asset* a = findAsset(name);
    if (!a) return respond(req, http::status::not_found, "text/plain", "no " + target + " here\n");
    std::string body(reinterpret_cast<const char*>(a->bytes), a->size);
    if (!server_.opts.webDir.empty()) {  // the page under development, by the same names only
      std::ifstream f(server_.opts.webDir + "/" + name, std::ios::binary);
      if (f) body.assign(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
    }
    respond(req, http::status::ok, mimeType(name), std::move(body));
  }

  void respond(const http::request<http::string_body>& req, http::status status, const char* type, std::string body) {
    auto res = std::make_shared<http::response<http::string_body>>(status, req.version());
    res->set(http::field::server, "le serve");
    res->set(http::field::content_type, type);
    res->set(http::field::cache_control, "no-store");
    res->keep_alive(req.keep_alive());
    const bool head = req.method() == http::verb::head;
    res->body() = std::move(body);
    res->prepare_payload();
    if (head) res->body().clear();
    http::async_write(stream_, *res, [self = shared_from_this(), res](beast::error_code ec, size_t) {
      if (ec || !res->keep_alive()) return self->close();
      self->read();
    });
  }

  void close() {
    beast::error_code ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
  }

  Server::Impl& server_;
  beast::tcp_stream stream_;
  beast::flat_buffer buf_;
  std::optional<http::request_parser<http::string_body>> parser_;
};

}  // namespace

void Server::Impl::accept() {
  acceptor.async_accept(ioc, [this](beast::error_code ec, tcp::socket socket) {
    if (stopping) return;
    if (!ec) std::make_shared<HttpSession>(*this, std::move(socket))->read();
    accept();
  });
}

void Server::Impl::beginStop() {
  if (stopping) {  // asked twice: leave at once
    ioc.stop();
    return;
  }
  stopping = true;
  beast::error_code ignored;
  acceptor.close(ignored);
  if (signals) signals->cancel();
  for (auto& w : pages)
    if (auto p = w.lock()) p->closeWith(websocket::close_code::going_away, "le serve is shutting down");
  for (auto& s : speakers) s->stop();
  stopAt = Clock::now() + std::chrono::seconds(2);
  deadline.emplace(ioc);
  waitForQuiet();
}

// Returns from run once every pipeline is gone and every page has closed, or after the grace
// period for pages that do not answer the close handshake; idle HTTP keep-alives are not waited for.
void Server::Impl::waitForQuiet() {
  reap();
  if ((speakers.empty() && pages.empty()) || Clock::now() > stopAt) {
    ioc.stop();
    return;
  }
  deadline->expires_after(std::chrono::milliseconds(20));
  deadline->async_wait([this](beast::error_code) { waitForQuiet(); });
}

Server::Server(ServeOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {
  Impl& s = *impl_;
  if (s.opts.maxPages < 1) throw std::runtime_error("--pages wants at least 1");
  beast::error_code ec;
  const auto address = net::ip::make_address(s.opts.bind, ec);
  if (ec) throw std::runtime_error("--bind wants an IP address, got '" + s.opts.bind + "'");
  s.spare = openEngine(s.opts);
  s.width = s.spare->width;
  s.height = s.spare->height;
  const tcp::endpoint ep(address, static_cast<unsigned short>(s.opts.port));
  const std::string where = s.opts.bind + ":" + std::to_string(s.opts.port);
  s.acceptor.open(ep.protocol(), ec);
  if (!ec) s.acceptor.set_option(net::socket_base::reuse_address(true), ec);
  if (!ec) s.acceptor.bind(ep, ec);
  if (!ec) s.acceptor.listen(net::socket_base::max_listen_connections, ec);
  if (ec) throw std::runtime_error("cannot listen on " + where + ": " + ec.message());
  s.port = s.acceptor.local_endpoint().port();
}

Server::~Server() {
  Impl& s = *impl_;
  for (auto& sp : s.speakers) sp->stop();
  for (auto& sp : s.speakers) sp->join();
}

uint16_t Server::port() const { return impl_->port; }
int Server::width() const { return impl_->width; }
int Server::height() const { return impl_->height; }
int Server::pipelines() const { return impl_->alive; }

void Server::run(bool stopOnSignals) {
  Impl& s = *impl_;
  if (stopOnSignals) {
    s.signals.emplace(s.ioc, SIGINT, SIGTERM);
    s.signals->async_wait([&s](beast::error_code ec, int) {
      if (!ec) s.beginStop();
    });
  }
  s.accept();
  s.ioc.run();
  // Every pipeline goes before run returns, also those of pages that never said goodbye.
  for (auto& sp : s.speakers) sp->stop();
  for (auto& sp : s.speakers) sp->join();
  s.speakers.clear();
  s.alive = 0;
  {
    std::lock_guard<std::mutex> lock(s.spareMu);
    s.spare.reset();
  }
}

void Server::stop() {
  net::post(impl_->ioc, [&s = *impl_] { s.beginStop(); });
}

const Asset* findAsset(const std::string& name) {
  for (const Asset* a = kAssets; a->name; ++a)
    if (name == a->name) return a;
  return nullptr;
}

const char* mimeType(const std::string& name) {
  const auto ends = [&](const char* ext) {
    const size_t n = std::strlen(ext);
    return name.size() >= n && name.compare(name.size() - n, n, ext) == 0;
  };
  if (ends(".html")) return "text/html; charset=utf-8";
  if (ends(".js")) return "text/javascript; charset=utf-8";
  if (ends(".css")) return "text/css; charset=utf-8";
  if (ends(".png")) return "image/png";
  return "application/octet-stream";
}

}  // namespace le::serve
