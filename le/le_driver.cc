#include "le/le_driver.h"

#include <sys/stat.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

#include "le/le_bundle.h"
#include "le/le_image.h"
#include "le/le_util.h"

namespace le {

namespace driver {

namespace {

class JpgDirSource final : public Source {
 public:
  JpgDirSource(std::string dir, int NT, int W, int H) : dir_(std::move(dir)), NT_(NT), W_(W), H_(H) {}

  int NT() const override { return NT_; }
  int W() const override { return W_; }
  int H() const override { return H_; }

  bool next(uint8_t* out) override { return nextInto(out, frameBytes()); }

  bool nextInto(uint8_t* out, size_t capacity) override {
    if (position_ >= NT_) return false;
    char path[1088];
    std::snprintf(path, sizeof path, "%s/frame_%06d.jpg", dir_.c_str(), position_);
    int w = 0, h = 0;
    if (!loadImageRGBInto(path, W_, H_, out, capacity, &w, &h))
      throw std::runtime_error("le_driver: " + std::string(path) + " is " + std::to_string(w) + "x" +
                               std::to_string(h) + ", the manifest says " + std::to_string(W_) + "x" +
                               std::to_string(H_) + " — refusing");
    ++position_;
    return true;
  }

  void rewind() override { position_ = 0; }

  void seek(int i) override {
    if (i < 0 || i >= NT_) throw std::runtime_error("le_driver: seek outside the member");
    position_ = i;
  }

  std::string name() const override { return "jpg/stb"; }
  size_t residentBytes() const override { return 0; }

 private:
  const std::string dir_;
  const int NT_, W_, H_;
  int position_ = 0;
};

}  // namespace

std::unique_ptr<Source> openJpgDir(const std::string& dir, int NT, int W, int H) {
  return std::make_unique<JpgDirSource>(dir, NT, W, H);
}

}  // namespace driver

namespace {

struct FreeDeleter {
  void operator()(uint8_t* p) const { std::free(p); }
};
using FrameBuffer = std::unique_ptr<uint8_t, FreeDeleter>;

// Cache-line aligned so that vector kernels reading a frame never straddle a line at its start.
FrameBuffer allocFrame(size_t bytes) {
  const size_t n = std::max<size_t>(64, (bytes + 63) & ~static_cast<size_t>(63));
  void* p = std::aligned_alloc(64, n);
  if (!p) throw std::bad_alloc();
  return FrameBuffer(static_cast<uint8_t*>(p));
}

}  // namespace

struct DriverCursor::Impl {
  // Bytes past each frame of the ring: room for a decoder that writes its frame in place.
  static constexpr size_t kSpare = 1;

  Impl(std::unique_ptr<driver::Source> src, int L, int Hs)
      : source(std::move(src)),
        NT(source->NT()),
        W(source->W()),
        H(source->H()),
        frameBytes(source->frameBytes()),
        lookahead(std::max(1, L)),
        history(std::max(0, Hs)),
        slots(lookahead + history + 1) {
    if (NT < 1) throw std::runtime_error("le_driver: a source of " + std::to_string(NT) + " frames cannot play");
    ring.reserve(static_cast<size_t>(slots));
    for (int s = 0; s < slots; ++s) ring.push_back(allocFrame(frameBytes + kSpare));
    slotFrame.assign(static_cast<size_t>(slots), -1);
  }

  std::unique_ptr<driver::Source> source;
  const int NT, W, H;
  const size_t frameBytes;
  const int lookahead;
  const int history;
  const int slots;
  std::vector<FrameBuffer> ring;
  std::vector<int> slotFrame;  // frame index held by each slot, -1 before its first fill
  // stateLock guards everything below; cursorLock makes the public reads run one at a time.
  mutable std::mutex stateLock;
  std::mutex cursorLock;
  std::condition_variable space, ready;  // the producer waits on space, readers on ready
  uint64_t tail = 0;   // sequence of the next slot to hand out
  uint64_t head = 0;   // slots produced; sequence s lives in ring[s % slots]
  uint64_t floor = 0;  // lowest sequence that may be served again (raised by mutable takes)
  bool decoding = false;  // the producer is filling ring[head % slots]
  int nextIndex = 0;      // frame index the next produced slot will hold
  int position = 0;       // frame index the reader expects next
  int sourcePos = 0;      // frame the source's next() decodes; touched by the producer only
  int pendingSeek = -1;
  uint64_t generation = 0;  // advanced by every seek that goes to the source
  bool stop = false;
  std::string error;
  uint64_t seeks = 0;
  std::thread producer;

  size_t slotOf(uint64_t seq) const { return static_cast<size_t>(seq % static_cast<uint64_t>(slots)); }

  void failLocked(const std::string& text) {
    if (error.empty()) error = text;
    ready.notify_all();
  }

  void run() {
    std::unique_lock<std::mutex> lk(stateLock);
    for (;;) {
      if (stop) return;
      if (pendingSeek >= 0) {
        const int target = pendingSeek;
        nextIndex = target;
        pendingSeek = -1;
        lk.unlock();
        std::string failure;
        try {
          source->seek(target);
        } catch (const std::exception& e) {
          failure = std::string("le_driver: seek failed: ") + e.what();
        }
        lk.lock();
        if (!failure.empty()) return failLocked(failure);
        sourcePos = target;
        continue;
      }
      if (head - tail < static_cast<uint64_t>(lookahead)) {
        const uint64_t gen = generation;
        decoding = true;
        const size_t k = slotOf(head);
        const int index = nextIndex;
        lk.unlock();
        std::string failure;
        try {
          if (sourcePos == NT) {
            source->rewind();
            sourcePos = 0;
          }
          if (!source->nextInto(ring[k].get(), frameBytes + kSpare))
            failure = "le_driver: " + source->name() + " ended after " + std::to_string(sourcePos) +
                      " frames, the manifest says NT=" + std::to_string(NT) +
                      " — a short driver is a session that stops part way through the loop, refusing";
        } catch (const std::exception& e) {
          failure = std::string("le_driver: ") + e.what();
        }
        lk.lock();
        decoding = false;
        if (!failure.empty()) return failLocked(failure);
        ++sourcePos;
        if (gen == generation) {
          slotFrame[k] = index;
          ++head;
          nextIndex = (index + 1) % NT;
          ready.notify_all();
        }
        continue;
      }
      space.wait(lk);
    }
  }

  // Moves the read point so that frame i is delivered next.
  void seekTo(int i) {
    if (i < 0 || i >= NT)
      throw std::runtime_error("le_driver: seek(" + std::to_string(i) + ") outside [0," + std::to_string(NT) + ")");
    std::lock_guard<std::mutex> lk(stateLock);
    if (!error.empty()) throw std::runtime_error(error);
    position = i;
    const int upcoming = tail < head ? slotFrame[slotOf(tail)] : (pendingSeek >= 0 ? pendingSeek : nextIndex);
    if (upcoming == i) return;
    if (pendingSeek < 0) {
      const uint64_t S = static_cast<uint64_t>(slots);
      const uint64_t Hs1 = static_cast<uint64_t>(history) + 1;
      uint64_t lo = head >= S ? head + (decoding ? 1 : 0) - S : 0;
      lo = std::max(lo, floor);
      if (tail > Hs1) lo = std::max(lo, tail - Hs1);
      for (uint64_t s = lo; s < head; ++s)
        if (slotFrame[slotOf(s)] == i) {
          tail = s;
          space.notify_one();
          return;
        }
      if (nextIndex == i) {
        tail = head;
        space.notify_one();
        return;
      }
    }
    ++generation;
    ++seeks;
    tail = head;
    pendingSeek = i;
    space.notify_one();
  }

  uint8_t* take(bool mut, int* got) {
    std::unique_lock<std::mutex> lk(stateLock);
    ready.wait(lk, [&] { return !error.empty() || tail < head; });
    if (!error.empty()) throw std::runtime_error(error);
    const size_t k = slotOf(tail);
    ++tail;
    if (mut) floor = tail;
    space.notify_one();
    const int index = slotFrame[k];
    if (got) *got = index;
    position = (index + 1) % NT;
    return ring[k].get();
  }

  int currentPosition() const {
    std::lock_guard<std::mutex> lk(stateLock);
    return position;
  }

  uint8_t* takeAt(int i, bool mut) {
    seekTo(i);
    int got = -1;
    uint8_t* p = take(mut, &got);
    if (got != i)
      throw std::runtime_error("le_driver: cursor yielded frame " + std::to_string(got) + " for si=" +
                               std::to_string(i));
    return p;
  }
};

DriverCursor::DriverCursor(std::unique_ptr<driver::Source> source, int lookahead, int history)
    : impl_(std::make_unique<Impl>(std::move(source), lookahead, history)),
      NT(impl_->NT),
      W(impl_->W),
      H(impl_->H),
      frameBytes(impl_->frameBytes),
      name(impl_->source->name()) {
  impl_->producer = std::thread([impl = impl_.get()] { impl->run(); });
}

DriverCursor::~DriverCursor() {
  {
    std::lock_guard<std::mutex> lk(impl_->stateLock);
    impl_->stop = true;
  }
  impl_->space.notify_all();
  impl_->ready.notify_all();
  if (impl_->producer.joinable()) impl_->producer.join();
}

std::unique_ptr<DriverCursor> DriverCursor::over(std::unique_ptr<driver::Source> source, int lookahead,
                                                 int history) {
  if (!source) throw std::invalid_argument("le_driver: no source");
  return std::make_unique<DriverCursor>(std::move(source), lookahead, history);
}

int DriverCursor::pull(uint8_t* out) {
  std::lock_guard<std::mutex> lk(impl_->cursorLock);
  impl_->seekTo(impl_->currentPosition());
  int got = -1;
  const uint8_t* p = impl_->take(false, &got);
  std::memcpy(out, p, frameBytes);
  return got;
}

const uint8_t* DriverCursor::pull(int* got) {
  std::lock_guard<std::mutex> lk(impl_->cursorLock);
  impl_->seekTo(impl_->currentPosition());
  return impl_->take(false, got);
}

uint8_t* DriverCursor::pullMut(int* got) {
  std::lock_guard<std::mutex> lk(impl_->cursorLock);
  impl_->seekTo(impl_->currentPosition());
  return impl_->take(true, got);
}

int DriverCursor::pullAt(int i, uint8_t* out) {
  std::lock_guard<std::mutex> lk(impl_->cursorLock);
  std::memcpy(out, impl_->takeAt(i, false), frameBytes);
  return i;
}

const uint8_t* DriverCursor::pullAt(int i, int* got) {
  std::lock_guard<std::mutex> lk(impl_->cursorLock);
  const uint8_t* p = impl_->takeAt(i, false);
  if (got) *got = i;
  return p;
}

uint8_t* DriverCursor::pullMutAt(int i, int* got) {
  std::lock_guard<std::mutex> lk(impl_->cursorLock);
  uint8_t* p = impl_->takeAt(i, true);
  if (got) *got = i;
  return p;
}

void DriverCursor::seek(int i) {
  std::lock_guard<std::mutex> lk(impl_->cursorLock);
  impl_->seekTo(i);
}

int DriverCursor::position() const { return impl_->currentPosition(); }

size_t DriverCursor::residentBytes() const {
  return static_cast<size_t>(impl_->slots) * impl_->frameBytes + impl_->source->residentBytes();
}

uint64_t DriverCursor::seeks() const {
  std::lock_guard<std::mutex> lk(impl_->stateLock);
  return impl_->seeks;
}

// ---------------------------------------------------------------------------------------------
// Bundle members

std::unique_ptr<DriverCursor> DriverCursor::open(const Manifest& m, int lookahead, int history) {
  const std::string& text = m.text;
  std::string jpgName = "target_frames", mp4Name = "target_frames.mp4", v;
  if (optStr(text, "target_frames", v)) jpgName = v;
  if (optStr(text, "target_frames_mp4", v)) mp4Name = v;

  char last[32];
  std::snprintf(last, sizeof last, "/frame_%06d.jpg", m.NT - 1);
  const bool populated = pathExists(m.dir + "/" + jpgName + last);
  const std::string mp4Path = resolveMember(m.dir, mp4Name);
  const bool haveMp4 = pathExists(mp4Path);
  const char* prefer = std::getenv("LE_DRIVER_PREFER_MP4");

  if (prefer && std::strcmp(prefer, "1") == 0 && haveMp4) {
    if (populated)
      std::fprintf(stderr,
                   "[le-driver] LE_DRIVER_PREFER_MP4=1 — %s/ is populated and NOT used; %s is the member this "
                   "consumer reads\n",
                   jpgName.c_str(), mp4Name.c_str());
  } else if (populated) {
    std::fprintf(stderr, "[le-driver] %s/ (raw jpg, %d frames) — read one frame per pull\n", jpgName.c_str(),
                 m.NT);
    return over(driver::openJpgDir(m.dir + "/" + jpgName, m.NT, m.W, m.H), lookahead, history);
  } else if (!haveMp4) {
    throw std::runtime_error("this bundle carries neither a populated " + jpgName + "/ nor " + mp4Name + " (" +
                             mp4Path + ") — there is no driver video to play. REFUSING to create a session.");
  }
  auto source = driver::openMp4(mp4Path, m.NT, m.W, m.H);
  std::fprintf(stderr,
               "[le-driver] %s decoded IN PLACE (%s, %d frames %dx%d, look-ahead %d, history %d) — no frame of "
               "the driver is expanded ahead of the paste\n",
               mp4Name.c_str(), source->name().c_str(), m.NT, m.W, m.H, std::max(1, lookahead),
               std::max(0, history));
  return over(std::move(source), lookahead, history);
}

std::unique_ptr<DriverCursor> DriverCursor::openPrior(const Manifest& m, int lookahead, int history) {
  const std::string& text = m.text;
  std::string name = "P_hevc.mov", v;
  if (optStr(text, "P_hevc", v)) name = v;
  const std::string path = resolveMember(m.dir, name);
  if (!pathExists(path))
    throw std::runtime_error("this bundle carries neither a raw P.f16 nor " + name + " (" + path +
                             ") — there is no warp prior to play. REFUSING to create a session.");
  auto source = driver::openPriorHevc(path, m.NT, m.crop);
  std::fprintf(stderr,
               "Vantorix: identity source ready — %d frames %dx%d, played straight from %s (%s); nothing is "
               "unpacked to disk\n",
               m.NT, m.crop, m.crop, name.c_str(), source->name().c_str());
  return over(std::move(source), lookahead, history);
}

}  // namespace le
