// ctest-label: threaded
// The split director's prefetched source cone: crops against the whole (batch-4, never split)
// director, the ring's hits and misses on bounce, wrap, random and one-frame walks, the refusal
// after a failed prep run, and destruction while the prefetch thread works.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_bundle.h"
#include "le/render/le_renderer.h"
#include "tests/bundle_fixture.h"
#include "tests/support/media.h"
#include "tools/forge/director_members.h"
#include "tools/forge/forge.h"

namespace {

struct Bundle {
  le::testing::ScratchDir tmp{"cone_prefetch"};
  le::forge::Params params;
  std::string dir = tmp / "b";
  le::Manifest manifest;
  std::unique_ptr<le::Identity> identity;

  explicit Bundle(int nt) : params(le::forge::sized(nt, 160, 120, 64, 4)) {
    le::forge::DirectorMemberOptions o;
    o.heavyLayers = 1;
    o.steadyBatch = 0;
    for (auto& m : le::forge::directorMembers(params, o)) params.extraMembers.push_back(std::move(m));
    le::forge::forgeBundle(dir, params);
    manifest = le::loadManifest(dir);
    identity = std::make_unique<le::Identity>(manifest);
  }

  // Driving keypoints: the source's own, moved a little per frame so every frame differs.
  void kps(int si, int frame, std::vector<float>& ks, std::vector<float>& kd) const {
    ks = le::forge::keypoints(params, si);
    kd = ks;
    for (int j = 0; j < 21; ++j) kd[3 * j + 1] += 0.01f * float(frame % 5);
  }
};

struct Walk {
  const char* name;
  std::vector<int32_t> seq;
  int64_t misses;  // -1: not predicted
};

// Renders the walk on the split b1 and the whole b4 director; returns the largest difference.
double renderBoth(const Bundle& b, le::Renderer& split, le::Renderer& whole, const std::vector<int32_t>& seq) {
  const size_t plane = size_t(3) * b.params.crop * b.params.crop;
  std::vector<float> ks, kd;
  double worst = 0;
  for (size_t f = 0; f < seq.size(); ++f) {
    b.kps(seq[f], int(f), ks, kd);
    const float* w = whole.render(&seq[f], ks.data(), kd.data(), 1);
    const std::vector<float> ref(w, w + plane);
    const float* s = split.render(&seq[f], ks.data(), kd.data(), 1);
    for (size_t i = 0; i < plane; ++i) worst = std::max(worst, double(std::fabs(s[i] - ref[i])));
  }
  return worst;
}

TEST(ConePrefetch, SplitCropsPredictionsTeardownAndFailedPrep) {
  const Bundle five(5);
  std::mt19937 rng(7);
  std::vector<int32_t> random(40);
  for (int32_t& v : random) v = int32_t(rng() % 5);
  const std::vector<Walk> walks = {
      {"bounce", {0, 1, 2, 3, 4, 3, 2, 1, 0, 1, 2, 3, 4, 3}, 1},
      // Bounce-predicted until the 4 -> 0 jump, wrapped from then on.
      {"wrap", {0, 1, 2, 3, 4, 0, 1, 2, 3, 4, 0, 1, 2}, 2},
      // Starting at the top: the bounce predicts the way down.
      {"down", {4, 3, 2, 1, 0, 1, 2}, 1},
      {"random", random, -1},
  };
  testing::internal::CaptureStderr();
  le::Renderer whole(five.manifest, *five.identity, "b4", 1, "");
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("[le] source-cone hoist NOT applied (b4): batch-1 lever; this graph declares batch 4\n"),
            std::string::npos)
      << log;
  EXPECT_FALSE(whole.coneSplit());
  for (const Walk& w : walks) {
    le::Renderer split(five.manifest, *five.identity, "b1", 1, "");
    ASSERT_TRUE(split.coneSplit());
    EXPECT_LT(renderBoth(five, split, whole, w.seq), 1e-4) << w.name;
    // A miss computes the boundary and then finds it: every frame ends in a hit.
    EXPECT_EQ(split.coneHits(), int64_t(w.seq.size())) << w.name;
    if (w.misses >= 0) {
      EXPECT_EQ(split.coneMisses(), w.misses) << w.name;
    }
  }

  // The heavy director's cone carries an encoder of the source frame: split, it agrees with
  // itself kept whole by the switch.
  {
    le::Renderer heavy(five.manifest, *five.identity, "b1_heavy", 1, "");
    ASSERT_TRUE(heavy.coneSplit());
    le::testmedia::ScopedEnv off("LE_CONE_SPLIT", "0");
    le::Renderer heavyWhole(five.manifest, *five.identity, "b1_heavy", 1, "");
    EXPECT_FALSE(heavyWhole.coneSplit());
    EXPECT_LT(renderBoth(five, heavy, heavyWhole, walks[0].seq), 1e-4);
    EXPECT_EQ(heavy.coneMisses(), 1);
  }

  // Destroyed while its prefetch thread works: each render queues the next frame; the last
  // one's prefetch is still running (or just queued) when the renderer goes.
  std::vector<float> ks, kd;
  for (int round = 0; round < 12; ++round) {
    le::Renderer r(five.manifest, *five.identity, "b1", 1, "");
    for (int32_t si = 0; si <= round % 3; ++si) {
      five.kps(si, si, ks, kd);
      r.render(&si, ks.data(), kd.data(), 1);
    }
  }

  // One source frame: it stays in its slot and nothing is ever queued.
  const Bundle one(1);
  le::Renderer whole1(one.manifest, *one.identity, "b4", 1, "");
  le::Renderer split1(one.manifest, *one.identity, "b1", 1, "");
  ASSERT_TRUE(split1.coneSplit());
  EXPECT_LT(renderBoth(one, split1, whole1, std::vector<int32_t>(6, 0)), 1e-4);
  EXPECT_EQ(split1.coneMisses(), 1);
  EXPECT_EQ(split1.coneHits(), 6);

  // A failed prep run refuses that render and every later one with the same text.
  le::Renderer r(five.manifest, *five.identity, "b1", 1, "");
  ASSERT_TRUE(r.coneSplit());
  int32_t si = 0;
  five.kps(si, 0, ks, kd);
  r.render(&si, ks.data(), kd.data(), 1);
  le::testing::terminateConeRuns(r);
  // The boundary of frame 1 may already be in its slot; the run after it cannot be.
  const std::string prefix = "Renderer: the hoisted source cone failed in ORT — ";
  std::string first;
  for (si = 1; si < 5 && first.empty(); ++si)
    first = le::testing::thrown([&] { r.render(&si, ks.data(), kd.data(), 1); });
  ASSERT_EQ(first.rfind(prefix, 0), 0u) << first;
  EXPECT_GT(first.size(), prefix.size());
  EXPECT_LE(si, 3);
  for (int32_t again : {0, 1, 4})
    EXPECT_EQ(le::testing::thrown([&] { r.render(&again, ks.data(), kd.data(), 1); }), first) << again;
}

}  // namespace
