// Adapters from the two keypoint sources' flat functions to the pipeline's interface.
#include "le/pipeline/le_utt_source.h"

#include <stdexcept>

#include "le/le_a2x.h"
#include "le/le_bundle.h"

namespace le::utt {

namespace {

// The flat functions report failures through their family's per-thread string; the calls made
// here clear it at entry, so a non-empty string after a call is that call's failure.
void check(const char* (*lastError)()) {
  const char* e = lastError();
  if (e && *e) throw std::runtime_error(e);
}

class A2xSource final : public KeypointSource {
 public:
  A2xSource(const std::string& dir, int threads)
      : h_(le_a2x_create(dir.c_str(), threads)) {
    if (!h_) throw std::runtime_error(le_a2x_last_error());
  }
  ~A2xSource() override { le_a2x_destroy(h_); }
  void reset(int start, int direction, int loop) override { le_a2x_reset(h_, start, direction, loop); }
  void setEager(int value) override { le_a2x_set_eager(h_, value); }
  void push(const float* s, int n) override {
    if (!le_a2x_push(h_, s, n)) check(le_a2x_last_error);
  }
  void finish() override { le_a2x_finish(h_); }
  int avail() override {
    const int n = le_a2x_avail(h_);
    check(le_a2x_last_error);
    return n;
  }
  int pull(int32_t* si, float* xs, float* xd, int max) override {
    const int n = le_a2x_pull(h_, si, xs, xd, max);
    check(le_a2x_last_error);
    return n;
  }
  int total() override { return le_a2x_total(h_); }
  const char* name() const override { return "a2x"; }

 private:
  le_a2x* h_;
};

class MotionSource final : public KeypointSource {
 public:
  MotionSource(const std::string& dir, int threads, const std::string& ep)
      : h_(le_motion_create(dir.c_str(), threads, ep.c_str())) {
    if (!h_) throw std::runtime_error(le_motion_last_error());
  }
  ~MotionSource() override { le_motion_destroy(h_); }
  void reset(int start, int direction, int loop) override {
    le_motion_reset(h_, start, direction, loop);
  }
  void setEager(int value) override { le_motion_set_eager(h_, value); }
  void push(const float* s, int n) override {
    if (!le_motion_push(h_, s, n)) check(le_motion_last_error);
  }
  void finish() override { le_motion_finish(h_); }
  int avail() override {
    const int n = le_motion_avail(h_);
    check(le_motion_last_error);
    return n;
  }
  int pull(int32_t* si, float* xs, float* xd, int max) override {
    const int n = le_motion_pull(h_, si, xs, xd, max);
    check(le_motion_last_error);
    return n;
  }
  int total() override { return le_motion_total(h_); }
  const char* name() const override { return "motion"; }

 private:
  le_motion* h_;
};

}  // namespace

bool hasA2xStream(const std::string& dir) {
  return canOpenForRead(resolveMember(dir, "a2x_enc_stream.onnx"));
}

std::unique_ptr<KeypointSource> openSource(const std::string& dir, bool a2x, int threads,
                                           const std::string& motionEp) {
  if (a2x) return std::make_unique<A2xSource>(dir, threads);
  return std::make_unique<MotionSource>(dir, threads, motionEp);
}

}  // namespace le::utt
