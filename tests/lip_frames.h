// Keypoint frames for the mouth-region tests: lips (rows 6, 12, 14, 17, 18, 19, 20, as the
// forged face places them) around a centre, other rows anywhere on the canvas.
#pragma once

#include <cmath>
#include <random>
#include <vector>

namespace le::testing {

// Corners at cx -+ halfW, outer lips at cy -+ halfH, inner lips at cy -+ halfH / 2.
inline std::vector<float> lipFrame(float cx, float cy, float halfW, float halfH) {
  std::vector<float> kp(63, 0.f);
  auto at = [&](int r, float x, float y) { kp[3 * r] = x, kp[3 * r + 1] = y, kp[3 * r + 2] = 0.05f; };
  for (int r = 0; r < 21; ++r) at(r, 0.9f * std::sin(float(r)), 0.9f * std::cos(float(3 * r)));
  at(6, cx, cy - halfH);
  at(12, cx, cy + halfH);
  at(14, cx, cy);
  at(17, cx - halfW, cy);
  at(18, cx + halfW, cy);
  at(19, cx, cy - halfH / 2);
  at(20, cx, cy + halfH / 2);
  return kp;
}

// A random mouth, tilted and jittered; offCanvas puts it across an edge of the canvas.
inline std::vector<float> lipFrame(std::mt19937& rng, bool offCanvas) {
  std::uniform_real_distribution<float> u(0.f, 1.f);
  const float side = u(rng) < 0.5f ? -1.f : 1.f;
  const float cx = offCanvas ? side * (0.85f + 0.4f * u(rng)) : -0.4f + 0.8f * u(rng);
  const float cy = offCanvas && u(rng) < 0.5f ? side * (0.9f + 0.3f * u(rng)) : -0.1f + 0.7f * u(rng);
  std::vector<float> kp = lipFrame(cx, cy, 0.05f + 0.25f * u(rng), 0.005f + 0.115f * u(rng));
  const float tilt = 0.3f * (u(rng) - 0.5f);
  for (int r : {6, 12, 14, 17, 18, 19, 20}) {
    const float dx = kp[3 * r] - cx, dy = kp[3 * r + 1] - cy;
    kp[3 * r] = cx + std::cos(tilt) * dx - std::sin(tilt) * dy + 0.02f * (u(rng) - 0.5f);
    kp[3 * r + 1] = cy + std::sin(tilt) * dx + std::cos(tilt) * dy + 0.02f * (u(rng) - 0.5f);
  }
  return kp;
}

}  // namespace le::testing
