// Small helpers shared by the audio, motion and borrow tests.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <hwy/targets.h>

#include "le/le_a2x.h"
#include "le/le_simd.h"
#include "tests/bundle_fixture.h"
#include "tools/forge/forge_motion.h"

namespace le::testing {

// Runs fn(name) once on every vector target compiled in and supported here, then restores dispatch.
template <class Fn>
void onEveryTarget(Fn&& fn) {
  for (int64_t t = le::simd::compiledTargets() & hwy::SupportedTargets(); t; t &= t - 1) {
    hwy::SetSupportedTargetsForTest(t & -t);
    fn(hwy::TargetName(t & -t));
  }
  hwy::SetSupportedTargetsForTest(0);
}

// A forged motion directory for p (its nt source frames) under dir; returns its path.
inline std::string forgeMotionDir(const std::string& dir, const le::forge::Params& p) {
  for (const le::forge::Member& m : le::forge::motionMembers(p))
    writeFile(dir + "/" + m.name, std::string(m.bytes.begin(), m.bytes.end()));
  return dir + "/motion";
}

// Motion frames pulled from a handle: source index, source and driving keypoints.
struct MotionFrames {
  std::vector<int> si;
  std::vector<float> xs, xd;
  int n() const { return static_cast<int>(si.size()); }
};

// Appends every frame ready on m to f, pulling at most max at a time.
inline void pullMotion(le_motion* m, MotionFrames& f, int max = 7) {
  std::vector<int> si(max);
  std::vector<float> xs(63 * size_t(max)), xd(63 * size_t(max));
  for (int got; (got = le_motion_pull(m, si.data(), xs.data(), xd.data(), max)) > 0;) {
    f.si.insert(f.si.end(), si.begin(), si.begin() + got);
    f.xs.insert(f.xs.end(), xs.begin(), xs.begin() + 63 * got);
    f.xd.insert(f.xd.end(), xd.begin(), xd.begin() + 63 * got);
  }
}

}  // namespace le::testing
