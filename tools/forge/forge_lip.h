// The forged face's mouth region: the manifest's "unified" block (the pi geometry of the first
// corpus row and the crop canvas) and the lip template "lip_template.v1.json", whose canonical
// outline is measured on the forged face's own pictures, with an optional learned map fitted on
// them.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tools/forge/forge.h"

namespace le::forge {

// Keypoint rows of the forged lips: the pi model's, the template's anchors and the map's.
extern const std::vector<int> kForgePiLips, kForgeTemplateAnchors, kForgeMapLips;

// The manifest entries Params::lips asks for ("unified"), as (key, raw JSON value).
std::vector<std::pair<std::string, std::string>> lipManifestEntries(const Params& p);
// The members Params::lips asks for ("lip_template.v1.json").
std::vector<Member> lipMembers(const Params& p);

struct LipOutline {
  std::vector<double> uCanon;  // nv (u, v) pairs in units of the anchors' half-extents
  // Samples the map is fitted on: per face, the anchors' offsets from their mean (2 per map row)
  // and the measured vertices' offsets from it (2 per vertex), in pixels.
  std::vector<std::vector<double>> features, targets;
};
// Measures the outer lip outline of `faces` forged faces along nv rays from the anchors' mean.
LipOutline measureLipOutline(const Params& p, int nv, int faces);

// The template text: "canvas" p.crop, feather featherPx, the measured outline, and with `learned`
// a "lip_map" fitted by ridge regression on the measured faces.
std::string lipTemplateText(const Params& p, bool learned, float featherPx = 6.f, int nv = 32);

}  // namespace le::forge
