// ctest-label: threaded
// The forged int8 director ("b1_int8") beside the float director it was made from
// ("b1_heavy"): same crops up to quantisation noise, through the renderer and its rewrites.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "le/le_bundle.h"
#include "le/render/le_renderer.h"
#include "tests/bundle_fixture.h"
#include "tools/forge/director_graph.h"
#include "tools/forge/forge.h"

namespace {

TEST(Int8Director, CropsMatchTheFloatDirector) {
  le::testing::ScratchDir dir("int8_director");
  le::forge::Params p = le::forge::sized(3, 192, 160, 128, 3);
  p.directors = true;
  const le::testing::Loaded b(le::forge::forgeBundle(dir / "b", p).dir);

  // One intra-op thread: ONNX Runtime's own workers are not instrumented for the race checker;
  // the operator's rows still spread over the engine's pool.
  ::testing::internal::CaptureStderr();
  le::Renderer ref(b.manifest, *b.identity, "b1_heavy", 1, "");
  le::Renderer q(b.manifest, *b.identity, "b1_int8", 1, "");
  const std::string log = ::testing::internal::GetCapturedStderr();
  // The int8 graph keeps the Conv the cubic rewrite keys on: both sessions get the rewrite.
  size_t cubic = 0;
  for (size_t at = 0; (at = log.find("[le] head cubic x2", at)) != std::string::npos; ++at) ++cubic;
  EXPECT_EQ(cubic, 2u) << log;

  double se = 0;
  size_t count = 0;
  for (int f = 0; f < 4; ++f) {
    const int32_t si = f % p.nt;
    const std::vector<float> ks = le::forge::keypoints(p, si);
    const std::vector<float> kd = le::forge::forgeFaceKeypointsMouthOpen(0.05f * float(f));
    const size_t n = size_t(3 * p.crop * p.crop);
    const float* ra = ref.render(&si, ks.data(), kd.data(), 1);
    const std::vector<float> a(ra, ra + n);
    const float* b = q.render(&si, ks.data(), kd.data(), 1);
    for (size_t i = 0; i < n; ++i) {
      const double d = double(a[i]) - double(b[i]);
      se += d * d;
    }
    count += n;
  }
  const double psnr = 10.0 * std::log10(1.0 / (se / double(count)));
  std::printf("int8 director vs float director: PSNR %.1f dB over %zu values\n", psnr, count);
  RecordProperty("psnr_db", std::to_string(psnr));
  EXPECT_GE(psnr, 40.0);
  EXPECT_LT(psnr, 140.0);  // the int8 path really ran
}

}  // namespace
