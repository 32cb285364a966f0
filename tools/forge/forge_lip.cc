#include "tools/forge/forge_lip.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>

namespace le::forge {

const std::vector<int> kForgePiLips = {6, 12, 14, 17, 18, 19, 20};
const std::vector<int> kForgeTemplateAnchors = {6, 12, 17, 18};  // outer lips and corners
const std::vector<int> kForgeMapLips = {6, 12, 17, 18, 19, 20};  // the inner lips carry the opening

namespace {

constexpr double kPi = 3.14159265358979323846;
// The outline is measured at this canvas and scaled: in anchor units it does not depend on it.
constexpr int kMeasureCanvas = 256;

std::string num(double v) {
  char buf[40];
  std::snprintf(buf, sizeof buf, "%.9g", v);
  return buf;
}

std::string intList(const std::vector<int>& v) {
  std::string s = "[";
  for (size_t i = 0; i < v.size(); ++i) s += (i ? ", " : "") + std::to_string(v[i]);
  return s + "]";
}

// Lip red on the face's pictures: far redder than skin, hair, teeth or the background.
bool lipRed(const std::vector<uint8_t>& rgb, int n, double u, double v) {
  if (u < 0 || v < 0 || u > n - 1 || v > n - 1) return false;
  const int x = std::min(int(u), n - 2), y = std::min(int(v), n - 2);
  const double fx = u - x, fy = v - y;
  auto at = [&](int xx, int yy, int c) { return double(rgb[(size_t(yy) * n + xx) * 3 + c]); };
  double c[2];
  for (int k = 0; k < 2; ++k)
    c[k] = (1 - fy) * ((1 - fx) * at(x, y, k) + fx * at(x + 1, y, k)) + fy * ((1 - fx) * at(x, y + 1, k) + fx * at(x + 1, y + 1, k));
  return c[0] - c[1] > 64 && c[0] > 90;
}

// Polygon coordinate (pixels, canvas / 2 per normalised unit) of a keypoint coordinate.
double polyCoord(float k, int canvas) { return (double(k) + 1.0) * canvas / 2.0; }

void meanOf(const std::vector<float>& kp, const std::vector<int>& rows, int canvas, double& mx, double& my) {
  mx = my = 0;
  for (int r : rows) mx += polyCoord(kp[3 * r], canvas), my += polyCoord(kp[3 * r + 1], canvas);
  mx /= double(rows.size());
  my /= double(rows.size());
}

// Solves A x = B for a symmetric positive definite k x k system with m right-hand sides
// (row-major, B is k x m), by elimination with partial pivoting.
void solve(std::vector<double> A, std::vector<double>& B, int k, int m) {
  for (int c = 0; c < k; ++c) {
    int piv = c;
    for (int r = c + 1; r < k; ++r)
      if (std::fabs(A[size_t(r) * k + c]) > std::fabs(A[size_t(piv) * k + c])) piv = r;
    if (std::fabs(A[size_t(piv) * k + c]) < 1e-300) throw std::runtime_error("forge: lip map fit is singular");
    for (int j = 0; j < k; ++j) std::swap(A[size_t(c) * k + j], A[size_t(piv) * k + j]);
    for (int j = 0; j < m; ++j) std::swap(B[size_t(c) * m + j], B[size_t(piv) * m + j]);
    for (int r = 0; r < k; ++r) {
      if (r == c) continue;
      const double f = A[size_t(r) * k + c] / A[size_t(c) * k + c];
      if (f == 0) continue;
      for (int j = c; j < k; ++j) A[size_t(r) * k + j] -= f * A[size_t(c) * k + j];
      for (int j = 0; j < m; ++j) B[size_t(r) * m + j] -= f * B[size_t(c) * m + j];
    }
  }
  for (int r = 0; r < k; ++r)
    for (int j = 0; j < m; ++j) B[size_t(r) * m + j] /= A[size_t(r) * k + r];
}

}  // namespace

LipOutline measureLipOutline(const Params& p, int nv, int faces) {
  Params q = p;
  q.crop = kMeasureCanvas;
  q.nt = faces;
  q.breaks.clear();
  const int n = kMeasureCanvas;
  LipOutline out;
  out.uCanon.assign(2 * size_t(nv), 0.0);
  const double toPixel = double(n - 1) / n;  // polygon coordinate -> pixel index
  for (int si = 0; si < faces; ++si) {
    const std::vector<uint8_t> img = cropImage(q, si);
    const std::vector<float> kp = keypoints(q, si);
    double mx, my;
    meanOf(kp, kForgeTemplateAnchors, n, mx, my);
    double sx = 1e-6, sy = 1e-6;
    for (int r : kForgeTemplateAnchors) {
      sx = std::max(sx, std::fabs(polyCoord(kp[3 * r], n) - mx));
      sy = std::max(sy, std::fabs(polyCoord(kp[3 * r + 1], n) - my));
    }
    double fx, fy;
    meanOf(kp, kForgeMapLips, n, fx, fy);
    std::vector<double> feature, target;
    for (int r : kForgeMapLips) {
      feature.push_back(polyCoord(kp[3 * r], n) - fx);
      feature.push_back(polyCoord(kp[3 * r + 1], n) - fy);
    }
    // Along each ray from the anchors' mean, the last lip-red point is the outer lip edge.
    const double reach = 0.45 * n;
    for (int v = 0; v < nv; ++v) {
      const double a = 2 * kPi * v / nv, dx = std::cos(a), dy = std::sin(a);
      double last = 0;
      for (double t = 0; t < reach; t += 0.25)
        if (lipRed(img, n, (mx + t * dx) * toPixel, (my + t * dy) * toPixel)) last = t;
      const double X = mx + (last + 0.125) * dx, Y = my + (last + 0.125) * dy;
      out.uCanon[2 * v] += (X - mx) / sx / faces;
      out.uCanon[2 * v + 1] += (Y - my) / sy / faces;
      target.push_back(X - fx);
      target.push_back(Y - fy);
    }
    out.features.push_back(std::move(feature));
    out.targets.push_back(std::move(target));
  }
  return out;
}

std::string lipTemplateText(const Params& p, bool learned, float featherPx, int nv) {
  const int faces = learned ? 40 : 12;
  const LipOutline o = measureLipOutline(p, nv, faces);
  std::string t = "{\n  \"format\": \"lip-template-v1\",\n  \"edge\": \"outward\",\n  \"canvas\": " +
                  std::to_string(p.crop) + ",\n  \"feather_px\": " + num(featherPx) +
                  ",\n  \"lip_idx\": " + intList(kForgeTemplateAnchors) + ",\n  \"u_canon\": [";
  for (int v = 0; v < nv; ++v)
    t += std::string(v ? ", " : "") + "[" + num(o.uCanon[2 * v]) + ", " + num(o.uCanon[2 * v + 1]) + "]";
  t += "]";
  if (learned) {
    // Ridge regression of the vertex offsets on the anchor offsets, on centred samples; pixels
    // scale with the canvas, so the weights hold at any canvas and the bias is scaled to it.
    const int K = int(2 * kForgeMapLips.size()), J = 2 * nv, S = int(o.features.size());
    std::vector<double> fMean(K, 0.0), yMean(J, 0.0);
    for (int s = 0; s < S; ++s) {
      for (int k = 0; k < K; ++k) fMean[k] += o.features[s][k] / S;
      for (int j = 0; j < J; ++j) yMean[j] += o.targets[s][j] / S;
    }
    std::vector<double> A(size_t(K) * K, 0.0), B(size_t(K) * J, 0.0);
    for (int s = 0; s < S; ++s)
      for (int k = 0; k < K; ++k) {
        const double fk = o.features[s][k] - fMean[k];
        for (int l = 0; l < K; ++l) A[size_t(k) * K + l] += fk * (o.features[s][l] - fMean[l]);
        for (int j = 0; j < J; ++j) B[size_t(k) * J + j] += fk * (o.targets[s][j] - yMean[j]);
      }
    double trace = 0;
    for (int k = 0; k < K; ++k) trace += A[size_t(k) * K + k];
    for (int k = 0; k < K; ++k) A[size_t(k) * K + k] += 1e-3 * trace / K + 1e-9;
    solve(A, B, K, J);  // B is now W transposed: K x J
    const double scale = double(p.crop) / kMeasureCanvas;
    t += ",\n  \"lip_map\": {\n    \"schema\": \"lip-map-v1\",\n    \"kind\": \"anchor-linear\",\n    \"lip_idx\": " +
         intList(kForgeMapLips) + ",\n    \"canvas\": " + std::to_string(p.crop) + ",\n    \"W\": [";
    std::string bias;
    for (int j = 0; j < J; ++j) {
      t += std::string(j ? ",\n      [" : "\n      [");
      double b = yMean[j];
      for (int k = 0; k < K; ++k) {
        t += std::string(k ? ", " : "") + num(B[size_t(k) * J + j]);
        b -= B[size_t(k) * J + j] * fMean[k];
      }
      t += "]";
      bias += std::string(j ? ", " : "") + num(b * scale);
    }
    t += "],\n    \"b\": [" + bias + "]\n  }";
  }
  return t + "\n}\n";
}

std::vector<std::pair<std::string, std::string>> lipManifestEntries(const Params& p) {
  if (p.lips == Lips::None) return {};
  // The first corpus row's geometry: its downward shift sets it clearly apart from the others.
  return {{"unified", "{\"pi\": {\"mode\": \"prop\", \"corner_recovery\": \"lip_landmark_half\", \"prop_gate_scale\": 1.0, "
                      "\"lip_idx\": " + intList(kForgePiLips) + ", \"lip_geom_params\": [0.05, 0.08, 0.015]}, "
                      "\"crop\": {\"canvas\": " + std::to_string(p.crop) + "}}"}};
}

std::vector<Member> lipMembers(const Params& p) {
  if (p.lips != Lips::Template && p.lips != Lips::Learned) return {};
  const std::string t = lipTemplateText(p, p.lips == Lips::Learned, std::max(1.5f, float(p.crop) / 64.f));
  return {{"lip_template.v1.json", std::vector<uint8_t>(t.begin(), t.end())}};
}

}  // namespace le::forge
