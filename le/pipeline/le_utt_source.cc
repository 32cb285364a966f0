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

// One family's flat functions (le_motion_total takes a const handle: TotalH).
template <class H, class TotalH = H>
struct FlatApi {
  void (*destroy)(H*);
  const char* (*lastError)();
  void (*reset)(H*, int, int, int);
  void (*setEager)(H*, int);
  int (*push)(H*, const float*, int);
  void (*finish)(H*);
  int (*avail)(H*);
  int (*pull)(H*, int*, float*, float*, int);
  int (*total)(TotalH*);
  const char* name;
};

const FlatApi<le_a2x> kA2x = {le_a2x_destroy, le_a2x_last_error, le_a2x_reset, le_a2x_set_eager, le_a2x_push,
                              le_a2x_finish,  le_a2x_avail,      le_a2x_pull,  le_a2x_total,     "a2x"};
const FlatApi<le_motion, const le_motion> kMotion = {
    le_motion_destroy, le_motion_last_error, le_motion_reset, le_motion_set_eager, le_motion_push,
    le_motion_finish,  le_motion_avail,      le_motion_pull,  le_motion_total,     "motion"};

// A source over a created handle of one family (null throws that family's error).
template <class H, class TotalH>
class FlatSource final : public KeypointSource {
 public:
  FlatSource(const FlatApi<H, TotalH>& api, H* h) : api_(api), h_(h) {
    if (!h_) throw std::runtime_error(api_.lastError());
  }
  ~FlatSource() override { api_.destroy(h_); }
  void reset(int start, int direction, int loop) override { api_.reset(h_, start, direction, loop); }
  void setEager(int value) override { api_.setEager(h_, value); }
  void push(const float* s, int n) override {
    if (!api_.push(h_, s, n)) check(api_.lastError);
  }
  void finish() override { api_.finish(h_); }
  int avail() override { return checked(api_.avail(h_)); }
  int pull(int32_t* si, float* xs, float* xd, int max) override { return checked(api_.pull(h_, si, xs, xd, max)); }
  int total() override { return api_.total(h_); }
  const char* name() const override { return api_.name; }

 private:
  int checked(int n) {
    check(api_.lastError);
    return n;
  }
  const FlatApi<H, TotalH>& api_;
  H* h_;
};

}  // namespace

bool hasA2xStream(const std::string& dir) {
  return canOpenForRead(resolveMember(dir, "a2x_enc_stream.onnx"));
}

std::unique_ptr<KeypointSource> openSource(const std::string& dir, bool a2x, int threads,
                                           const std::string& motionEp) {
  if (a2x) return std::make_unique<FlatSource<le_a2x, le_a2x>>(kA2x, le_a2x_create(dir.c_str(), threads));
  return std::make_unique<FlatSource<le_motion, const le_motion>>(
      kMotion, le_motion_create(dir.c_str(), threads, motionEp.c_str()));
}

}  // namespace le::utt
