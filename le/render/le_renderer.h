// The director renderer: one ONNX Runtime session of the bundle's director network that turns a
// source-frame index and two keypoint sets into a planar float face crop.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace le {

struct Manifest;
class Identity;
class Renderer;

namespace testing {
// Makes every later prep run of r's split source cone fail inside ONNX Runtime, so tests can
// reach the refusal path. Not part of the engine's interface.
void terminateConeRuns(Renderer& r);
// Waits until r's prefetch thread has nothing requested.
void awaitConePrefetch(Renderer& r);
}  // namespace testing

// Threads: one caller drives render(); the renderer is not safe for concurrent render() calls.
// The manifest and the identity are borrowed and must outlive the renderer.
class Renderer {
 public:
  // Loads the bundle member "model_" + member + ".onnx". threads < 1 takes le::pool::threads().
  // ep: "" for the CPU provider, "coreml[:units]" for CoreML (falls back to the CPU provider when
  // the session cannot be made), "neon" for the fp16 backend. Throws std::runtime_error on refusal.
  Renderer(const Manifest& manifest, const Identity& identity, const std::string& member,
           int threads, const std::string& ep);
  ~Renderer();
  Renderer(const Renderer&) = delete;
  Renderer& operator=(const Renderer&) = delete;

  // Renders n frames (1 <= n <= batch()): frame k from source frame sourceIdx[k] with 63 floats of
  // kpSource and of kpDriving each. Returns batch() planar crops of 3 x crop x crop floats, owned
  // by the renderer and overwritten by the next call; frames at and after n are padding.
  const float* render(const int32_t* sourceIdx, const float* kpSource, const float* kpDriving,
                      int n);

  int batch() const;
  // "cpu" for the CPU provider, else the ep text the session was made with.
  const char* ep() const;
  // "neon", "coreml" (native director) or "ort".
  const char* backend() const;
  const char* directorNote() const;
  int crop() const;

  // Time spent inside the director's Session::Run, summed, and the number of runs counted.
  double runMsTotal() const;
  int64_t runCount() const;

  // The source-cone split: whether the director was split, boundaries found already computed
  // (hits) and computed on the calling thread (misses).
  bool coneSplit() const;
  // A hint from the caller that source frame si comes next: with the split, its boundary is
  // computed ahead on the prefetch thread (unless a computation is under way or a slot holds
  // it). Does nothing without the split. Any thread.
  void prefetchSource(int32_t si);
  int64_t coneHits() const;
  int64_t coneMisses() const;

  // Any thread: makes the director run in flight, and every later one until resumeRuns(), stop
  // early and throw, so a caller that no longer wants the frame gets the renderer back at once.
  // Source cones already computed stay valid.
  void cancelRuns();
  void resumeRuns();
  struct Impl;

 private:
  friend void testing::terminateConeRuns(Renderer& r);
  friend void testing::awaitConePrefetch(Renderer& r);
  std::unique_ptr<Impl> impl_;
};

}  // namespace le
