// Per-frame mouth-region work at canvas 512 on the forged face's driven keypoints: the pi mask
// with its shift, the contour-bounded delivery, and the contour plane the director's compose
// alpha is cut to; beside OpenCV's fillPoly + distanceTransform on the same polygon, and as a
// share of a forged director frame measured in the same run.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_bundle.h"
#include "le/le_bundle.h"
#include "le/render/le_renderer.h"
#include "le/tessera/le_lip_contour.h"
#include "le/tessera/le_tessera_pi.h"
#include "tools/forge/forge.h"
#include "tools/forge/forge_lip.h"

#ifdef LE_HAVE_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace {

namespace fs = std::filesystem;
using le::tessera::LipContour;
using le::tessera::UnifiedPi;
constexpr int kCanvas = 512;

le::forge::Params params() {
  le::forge::Params p = le::forge::sized(4, 640, 360, kCanvas, 16);
  p.lips = le::forge::Lips::Learned;
  return p;
}

struct Model {
  UnifiedPi pi;
  LipContour lc;
  std::vector<std::vector<float>> frames;
  Model()
      : pi(UnifiedPi::fromManifestJson("{\"unified\": " + le::forge::lipManifestEntries(params())[0].second + "}", kCanvas)),
        lc(LipContour::fromTemplateJson(le::forge::lipTemplateText(params(), true, 8.f), kCanvas)) {
    for (int i = 0; i < params().frames; ++i) frames.push_back(le::forge::drivenKeypoints(params(), i));
  }
};

Model& model() {
  static Model m;
  return m;
}

const double kCanon[2] = {256, 380};

double piShift(Model& m, std::vector<uint8_t>& mask, size_t i) {
  int32_t sy = 0, sx = 0;
  return m.pi.piU8AndShift(m.frames[i % m.frames.size()].data(), kCanon, mask.data(), sy, sx) ? sy : 0;
}
double delivered(Model& m, std::vector<uint8_t>& mask, size_t i) {
  int32_t sy = 0, sx = 0;
  return m.lc.deliveredU8AndShift(m.frames[i % m.frames.size()].data(), m.pi, kCanon, mask.data(), sy, sx) ? sx : 0;
}
double contour(Model& m, std::vector<float>& plane, size_t i) {
  m.lc.contourF32Canvas(m.frames[i % m.frames.size()].data(), plane.data());
  return plane[size_t(kCanvas) * kCanvas / 2];
}

// One byte mask and its shift per frame, through f.
void maskPerFrame(benchmark::State& state, double (*f)(Model&, std::vector<uint8_t>&, size_t)) {
  Model& m = model();
  std::vector<uint8_t> mask(size_t(kCanvas) * kCanvas);
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(f(m, mask, i++));
}
void BM_PiU8AndShift(benchmark::State& state) { maskPerFrame(state, piShift); }
BENCHMARK(BM_PiU8AndShift)->Unit(benchmark::kMicrosecond);
void BM_DeliveredU8AndShift(benchmark::State& state) { maskPerFrame(state, delivered); }
BENCHMARK(BM_DeliveredU8AndShift)->Unit(benchmark::kMicrosecond);

// The contour plane, and what a user would reach for instead: OpenCV filling the same polygon on
// the canvas and taking its 3x3 distance transform, feathered the same way.
void BM_ContourF32Canvas(benchmark::State& state) {
  Model& m = model();
  std::vector<float> plane(size_t(kCanvas) * kCanvas);
  size_t i = 0;
  double ours = 0, theirs = 0;
  for (auto _ : state) {
    const auto t0 = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize(contour(m, plane, i));
    const auto t1 = std::chrono::steady_clock::now();
    const double us = std::chrono::duration<double, std::micro>(t1 - t0).count();
    ours += us;
    state.SetIterationTime(us / 1e6);
#ifdef LE_HAVE_OPENCV
    std::vector<double> poly(2 * size_t(m.lc.nv()));
    m.lc.polygon(m.frames[i % m.frames.size()].data(), poly.data());
    std::vector<cv::Point> pts;
    for (int v = 0; v < m.lc.nv(); ++v) pts.emplace_back(int(poly[2 * v] + 0.5), int(poly[2 * v + 1] + 0.5));
    cv::Mat outside(kCanvas, kCanvas, CV_8U, cv::Scalar(255)), dist;
    cv::fillPoly(outside, std::vector<std::vector<cv::Point>>{pts}, cv::Scalar(0));
    cv::distanceTransform(outside, dist, cv::DIST_L2, 3);
    const float f = m.lc.featherPx();
    for (int y = 0; y < kCanvas; ++y) {
      float* row = dist.ptr<float>(y);
      for (int x = 0; x < kCanvas; ++x) {
        const float t = std::min(1.f, std::max(0.f, 1.f - row[x] / f));
        row[x] = (3 - 2 * t) * t * t;
      }
    }
    benchmark::DoNotOptimize(dist.ptr<float>(0));
    theirs += std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t1).count();
#endif
    ++i;
  }
  if (theirs > 0) state.counters["opencv_over_ours"] = theirs / ours;
}
BENCHMARK(BM_ContourF32Canvas)->Unit(benchmark::kMicrosecond)->UseManualTime();

const std::string& bundle() {
  static const std::string dir = [] {
    le::forge::Params p = params();
    p.directors = true;
    return le::bench::forgedOnce("le_lip_bench_bundle", p);
  }();
  return dir;
}

// All three per frame, against a director frame of the same bundle rendered in the same loop
// (the template bound, one intra-op thread).
void BM_LipShareOfDirectorFrame(benchmark::State& state, const char* member) {
  Model& m = model();
  const le::Manifest man = le::loadManifest(bundle());
  const le::Identity id(man);
  const le::Drive drive = le::loadDrive(man);
  le::Renderer r(man, id, member, 1, "");
  std::vector<uint8_t> mask(size_t(kCanvas) * kCanvas);
  std::vector<float> plane(mask.size());
  double lip = 0, dir = 0;
  size_t i = 0;
  for (auto _ : state) {
    const auto t0 = std::chrono::steady_clock::now();
    piShift(m, mask, i);
    delivered(m, mask, i);
    contour(m, plane, i);
    const auto t1 = std::chrono::steady_clock::now();
    const size_t f = i % size_t(drive.frames);
    r.render(&drive.si[f], &drive.xs[f * 63], &drive.xd[f * 63], 1);
    dir += std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t1).count();
    lip += std::chrono::duration<double, std::milli>(t1 - t0).count();
    ++i;
  }
  const double n = double(state.iterations());
  state.counters["lip_us"] = 1000 * lip / n;
  state.counters["director_ms"] = dir / n;
  state.counters["lip_share_pct"] = 100 * lip / dir;
}
BENCHMARK_CAPTURE(BM_LipShareOfDirectorFrame, standard_b1, "b1")->Unit(benchmark::kMillisecond)->Iterations(12);
BENCHMARK_CAPTURE(BM_LipShareOfDirectorFrame, heavy_b1, "b1_heavy")->Unit(benchmark::kMillisecond)->Iterations(6);

}  // namespace
