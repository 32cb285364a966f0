// The forge's person: a stylised face drawn analytically (anti-aliased shapes evaluated per
// pixel), so the same drawing serves the crop-sized prior rows and the full drive frames.
#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tools/forge/forge.h"

namespace le::forge {
namespace {

constexpr double kPi = 3.14159265358979323846;

struct Rgb {
  float r, g, b;
};
inline Rgb operator*(Rgb c, float k) { return {c.r * k, c.g * k, c.b * k}; }
inline Rgb operator+(Rgb a, Rgb b) { return {a.r + b.r, a.g + b.g, a.b + b.b}; }
inline Rgb mix(Rgb a, Rgb b, float t) { return a * (1.0f - t) + b * t; }

// Premultiplied paint accumulator: layers go on in painter's order.
struct Paint {
  Rgb col{0, 0, 0};
  float alpha = 0;
  void over(Rgb c, float cov) {
    if (cov <= 0) return;
    col = col * (1.0f - cov) + c * cov;
    alpha = alpha * (1.0f - cov) + cov;
  }
};

inline float clamp01(float v) { return v < 0 ? 0 : (v > 1 ? 1 : v); }
inline float smooth(float e0, float e1, float x) {
  const float t = clamp01((x - e0) / (e1 - e0));
  return t * t * (3 - 2 * t);
}
// Coverage of the inside (d < 0) of a shape with signed distance d, pixel size aa.
inline float cover(float d, float aa) { return clamp01(0.5f - d / aa); }

// Approximate signed distance to an ellipse (exact on the axes, good near the outline).
inline float ellipseDist(float x, float y, float cx, float cy, float rx, float ry) {
  const float dx = x - cx, dy = y - cy;
  const float k = std::sqrt((dx * dx) / (rx * rx) + (dy * dy) / (ry * ry));
  const float gx = dx / (rx * rx), gy = dy / (ry * ry);
  const float g = std::sqrt(gx * gx + gy * gy);
  if (k < 1e-6f) return -std::min(rx, ry);
  return (k - 1.0f) * k / std::max(g, 1e-6f);
}

inline uint32_t hash32(uint32_t a, uint32_t b, uint32_t c) {
  uint64_t z = (static_cast<uint64_t>(a) << 32 | b) ^ (static_cast<uint64_t>(c) * 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return static_cast<uint32_t>((z ^ (z >> 31)) >> 16);
}
inline float unit(uint32_t h) { return static_cast<float>(h & 0xFFFFFF) / 16777216.0f; }

// Pose and expression of one source frame.
struct Face {
  float tilt, shiftX, shiftY;  // in-crop head pose (radians, normalised units)
  float cosT, sinT;
  float open;                  // mouth opening 0..1
  float eyes;                  // eye openness 0..1
  float gaze;                  // iris offset (normalised units)
  uint32_t seed;
};

constexpr float kMouthY = 0.38f, kMouthHalfW = 0.19f;

Face faceOf(const Params& p, int si, float mouthPhase) {
  const double t = 2 * kPi * si / std::max(1, p.nt);
  Face f;
  f.tilt = static_cast<float>(0.045 * std::sin(t));
  f.shiftX = static_cast<float>(0.025 * std::sin(t));
  f.shiftY = static_cast<float>(0.015 * std::sin(2 * t));
  f.open = static_cast<float>(0.45 + 0.25 * std::sin(2 * t + 0.7 + mouthPhase));
  f.eyes = (p.nt >= 4 && si == p.nt / 2) ? 0.3f : 1.0f;
  f.gaze = static_cast<float>(0.012 * std::sin(t + 1.3));
  f.cosT = std::cos(f.tilt);
  f.sinT = std::sin(f.tilt);
  f.seed = p.seed;
  return f;
}

// Crop-normalised point -> face-local point (undo the head pose).
inline void toLocal(const Face& f, float x, float y, float& fx, float& fy) {
  const float c = f.cosT, s = f.sinT;
  const float dx = x - f.shiftX, dy = y - f.shiftY;
  fx = c * dx + s * dy;
  fy = -s * dx + c * dy;
}
inline void toCrop(const Face& f, float fx, float fy, float& x, float& y) {
  const float c = f.cosT, s = f.sinT;
  x = c * fx - s * fy + f.shiftX;
  y = s * fx + c * fy + f.shiftY;
}

const Rgb kSkin{0.93f, 0.74f, 0.60f}, kHair{0.30f, 0.18f, 0.10f}, kLip{0.80f, 0.36f, 0.40f},
    kMouth{0.30f, 0.07f, 0.09f}, kTeeth{0.96f, 0.95f, 0.90f}, kIris{0.22f, 0.48f, 0.55f},
    kSclera{0.97f, 0.97f, 0.95f}, kBrow{0.26f, 0.16f, 0.09f}, kShirt{0.20f, 0.34f, 0.60f};

// Lambert term on the head ellipsoid, light from the upper left and front.
inline float headLight(float fx, float fy) {
  const float nx = fx / 0.56f, ny = (fy - 0.02f) / 0.70f;
  const float nz = std::sqrt(std::max(0.0f, 1 - nx * nx - ny * ny));
  const float lam = std::max(0.0f, -0.45f * nx - 0.50f * ny + 0.74f * nz);
  return 0.58f + 0.48f * lam;
}

inline float hairStrands(float fx, float fy) {
  return 0.82f + 0.18f * std::sin(38.0f * fx + 6.0f * std::sin(5.0f * fy));
}

void paintEye(Paint& pt, const Face& f, float fx, float fy, float side, float aa) {
  const float ex = side * 0.22f, ey = -0.12f;
  const float rx = 0.115f, ry = std::max(0.004f, 0.062f * f.eyes);
  if (std::fabs(fx - ex) > 0.3f || std::fabs(fy - ey) > 0.2f) return;
  const float dEye = ellipseDist(fx, fy, ex, ey, rx, ry);
  // socket shadow above the eye
  const float sock = std::exp(-((fx - ex) * (fx - ex) / 0.012f + (fy - ey + 0.05f) * (fy - ey + 0.05f) / 0.003f));
  pt.over(kSkin * 0.55f, 0.25f * sock);
  const float eyeCov = cover(dEye, aa);
  if (eyeCov > 0) {
    pt.over(kSclera, eyeCov);
    const float ix = ex + f.gaze, iy = ey;
    const float r = std::sqrt((fx - ix) * (fx - ix) + (fy - iy) * (fy - iy));
    const Rgb iris = kIris * (1.1f - 0.6f * clamp01(r / 0.052f));
    pt.over(iris, std::min(eyeCov, cover(r - 0.052f, aa)));
    pt.over(Rgb{0.04f, 0.04f, 0.05f}, std::min(eyeCov, cover(r - 0.022f, aa)));
    const float hr = std::sqrt((fx - ix + 0.018f) * (fx - ix + 0.018f) + (fy - iy + 0.018f) * (fy - iy + 0.018f));
    pt.over(Rgb{1, 1, 1}, std::min(eyeCov, cover(hr - 0.011f, aa)));
  }
  // lashes: a dark rim on the upper half of the outline
  if (fy < ey + 0.01f) pt.over(Rgb{0.12f, 0.07f, 0.05f}, cover(std::fabs(dEye) - 0.007f, aa));
}

void paintBrow(Paint& pt, float fx, float fy, float side, float aa) {
  const float u = (fx - side * 0.22f) / 0.15f;
  if (std::fabs(u) >= 1.2f) return;
  const float yc = -0.29f - 0.035f * (1 - u * u) + 0.01f * side * u;
  const float half = 0.024f * std::max(0.2f, 1 - 0.55f * u * u);
  const float d = std::max(std::fabs(fy - yc) - half, (std::fabs(u) - 1.0f) * 0.15f);
  pt.over(kBrow, cover(d, aa));
}

void paintNose(Paint& pt, float fx, float fy, float aa) {
  if (std::fabs(fx) > 0.2f || fy < -0.12f || fy > 0.3f) return;
  // shadow on the side away from the light, and under the tip
  const float side = std::exp(-((fx - 0.065f) * (fx - 0.065f) / 0.0009f)) * smooth(-0.08f, 0.02f, fy) *
                     (1 - smooth(0.14f, 0.2f, fy));
  pt.over(kSkin * 0.6f, 0.35f * side);
  const float under = std::exp(-(fx * fx / 0.004f + (fy - 0.2f) * (fy - 0.2f) / 0.0006f));
  pt.over(kSkin * 0.55f, 0.45f * under);
  const float tip = std::exp(-((fx + 0.012f) * (fx + 0.012f) / 0.0012f + (fy - 0.12f) * (fy - 0.12f) / 0.0012f));
  pt.over(Rgb{1, 0.9f, 0.82f}, 0.35f * tip);
  for (float s : {-1.0f, 1.0f})
    pt.over(kSkin * 0.35f, cover(ellipseDist(fx, fy, s * 0.045f, 0.175f, 0.022f, 0.011f), aa));
}

void paintMouth(Paint& pt, const Face& f, float fx, float fy, float aa) {
  const float u = fx / kMouthHalfW;
  if (std::fabs(u) >= 1.05f || fy < kMouthY - 0.2f || fy > kMouthY + 0.25f) return;
  const float w = std::max(0.0f, 1 - u * u);
  const float rin = 0.055f * f.open;
  const float top = kMouthY - rin * std::sqrt(w) - 0.045f * std::pow(w, 0.7f) + 0.012f * w * std::cos(3 * kPi * u) * 0.6f;
  const float bot = kMouthY + rin * std::sqrt(w) + 0.062f * std::pow(w, 0.8f);
  const float side = (std::fabs(u) - 1) * kMouthHalfW;
  const float lipCov = std::min({cover(top - fy, aa), cover(fy - bot, aa), cover(side, aa)});
  if (lipCov <= 0) return;
  const float shade = fy < kMouthY ? 0.82f : 1.0f + 0.15f * std::exp(-((fy - (bot - 0.025f)) * (fy - (bot - 0.025f)) / 0.0003f));
  pt.over(kLip * shade, lipCov);
  // the opening between the lips
  const float ui = fx / (0.86f * kMouthHalfW);
  const float wi = std::max(0.0f, 1 - ui * ui);
  const float itop = kMouthY - rin * std::sqrt(wi), ibot = kMouthY + rin * std::sqrt(wi);
  const float inCov = std::min({cover(itop - fy, aa), cover(fy - ibot, aa), cover((std::fabs(ui) - 1) * 0.86f * kMouthHalfW, aa)});
  if (inCov <= 0) return;
  const float tongue = std::exp(-(fx * fx / 0.006f + (fy - ibot) * (fy - ibot) / 0.0008f));
  pt.over(mix(kMouth, Rgb{0.62f, 0.24f, 0.28f}, tongue), inCov);
  // upper teeth hang from the top of the opening, lower teeth peek from the bottom
  const float gap = std::fabs(std::fmod(fx + 1.016f, 0.032f) - 0.016f);
  const Rgb tooth = kTeeth * (gap < 0.0022f ? 0.72f : 1.0f);
  const float upper = std::min({inCov, cover(fy - (itop + 0.032f), aa), cover(std::fabs(fx) - 0.135f, aa)});
  pt.over(tooth, upper);
  const float lower = std::min({inCov, cover((ibot - 0.016f) - fy, aa), cover(std::fabs(fx) - 0.11f, aa)});
  pt.over(tooth * 0.9f, lower);
}

// The person at crop-normalised (x, y); aa is one output pixel in normalised units.
Paint person(const Face& f, float x, float y, float aa) {
  Paint pt;
  float fx, fy;
  toLocal(f, x, y, fx, fy);
  if (fx < -1.3f || fx > 1.3f || fy < -1.0f) return pt;
  // shoulders and neck
  if (fy > 0.8f) {
    const float c = cover(ellipseDist(fx, fy, 0, 1.62f, 1.15f, 0.78f), aa);
    if (c > 0) pt.over(kShirt * (1.05f - 0.25f * clamp01((fy - 0.9f) / 1.2f)), c);
  }
  if (std::fabs(fx) < 0.3f && fy > 0.3f && fy < 1.3f) {
    const float c = cover(ellipseDist(fx, fy, 0, 0.8f, 0.23f, 0.45f), aa);
    if (c > 0) pt.over(kSkin * (0.72f + 0.1f * smooth(0.6f, 1.0f, fy)), c);
  }
  if (std::fabs(fx) > 0.72f || fy < -0.95f || fy > 0.8f) return pt;
  // hair behind the head, ears
  const float hairD = ellipseDist(fx, fy, 0, -0.13f, 0.66f, 0.76f);
  const float hairCov = cover(hairD, aa);
  if (hairCov > 0) pt.over(kHair * hairStrands(fx, fy), hairCov);
  if (std::fabs(fx) > 0.45f && fy > -0.15f && fy < 0.2f)
    for (float s : {-1.0f, 1.0f}) pt.over(kSkin * 0.82f, cover(ellipseDist(fx, fy, s * 0.57f, 0.03f, 0.075f, 0.13f), aa));
  // head
  const float headD = ellipseDist(fx, fy, 0, 0.02f, 0.56f, 0.70f);
  const float headCov = cover(headD, aa);
  if (headCov > 0) {
    pt.over(kSkin * headLight(fx, fy), headCov);
    if (fy > -0.1f && fy < 0.5f && std::fabs(fx) > 0.05f) {
      const float s = fx < 0 ? -1.0f : 1.0f;
      const float blush = std::exp(-((fx - s * 0.3f) * (fx - s * 0.3f) + (fy - 0.2f) * (fy - 0.2f)) / 0.012f);
      pt.over(Rgb{0.92f, 0.45f, 0.45f}, 0.22f * blush * headCov);
    }
    // freckles across the cheeks and nose: texture that makes a warp visible
    if (fy > -0.02f && fy < 0.3f && std::fabs(fx) < 0.44f) {
      const float cell = 0.05f;
      const int cx = static_cast<int>(std::floor(fx / cell)), cy = static_cast<int>(std::floor(fy / cell));
      const uint32_t h = hash32(static_cast<uint32_t>(cx + 1000), static_cast<uint32_t>(cy + 1000), f.seed);
      if ((h & 3) == 0) {
        const float px = (cx + 0.3f + 0.4f * unit(h * 2654435761u)) * cell;
        const float py = (cy + 0.3f + 0.4f * unit(h * 40503u + 7)) * cell;
        const float r = 0.006f + 0.006f * unit(h >> 3);
        const float d = std::sqrt((fx - px) * (fx - px) + (fy - py) * (fy - py)) - r;
        pt.over(Rgb{0.74f, 0.50f, 0.38f}, 0.6f * cover(d, aa) * headCov);
      }
    }
    for (float s : {-1.0f, 1.0f}) {
      paintEye(pt, f, fx, fy, s, aa);
      paintBrow(pt, fx, fy, s, aa);
    }
    paintNose(pt, fx, fy, aa);
    paintMouth(pt, f, fx, fy, aa);
  }
  // fringe over the forehead
  const float fringe = -0.42f + 0.05f * std::sin(9.0f * fx + 1.0f) - 0.12f * fx * fx;
  const float fringeCov = std::min(hairCov, cover(fy - fringe, aa));
  if (fringeCov > 0) pt.over(kHair * 1.1f * hairStrands(fx, fy), fringeCov);
  return pt;
}

// A plain room: graded wall, soft window light, stripes, a desk edge.
class Backdrop {
 public:
  explicit Backdrop(const Params& p)
      : iw_(1.0f / std::max(1, p.width)), ih_(1.0f / std::max(1, p.height)), hue_(0.06f * (unit(hash32(p.seed, 11, 3)) - 0.5f)) {}
  Rgb at(float X, float Y) const {
    const float gx = X * iw_, gy = Y * ih_;
    Rgb wall = mix(Rgb{0.58f + hue_, 0.64f, 0.70f - hue_}, Rgb{0.40f, 0.45f + hue_, 0.52f}, gy);
    // a triangle wave of 24 stripes across the frame
    const float ph = gx * 24.0f - std::floor(gx * 24.0f);
    wall = wall * (1.0f + 0.03f * (4.0f * std::fabs(ph - 0.5f) - 1.0f));
    const float window = smooth(0.30f, 0.05f, std::fabs(gx - 0.14f)) * smooth(0.45f, 0.2f, std::fabs(gy - 0.35f));
    if (window > 0) wall = mix(wall, Rgb{0.92f, 0.93f, 0.88f}, 0.7f * window);
    if (gy < 0.86f) return wall;
    const float desk = smooth(0.86f, 0.87f, gy);
    return mix(wall, Rgb{0.42f, 0.30f, 0.20f} * (1.0f - 0.3f * (gy - 0.86f)), desk);
  }

 private:
  float iw_, ih_, hue_;
};

// Runs rows(y0, y1) over [0, n) on a few threads; every pixel is a pure function of its
// position, so the split never changes a byte.
template <class Rows>
void parallelRows(int n, Rows rows) {
  const int threads = std::max(1, std::min({4, static_cast<int>(std::thread::hardware_concurrency()), n / 16}));
  if (threads == 1) return rows(0, n);
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t) pool.emplace_back(rows, n * t / threads, n * (t + 1) / threads);
  for (auto& th : pool) th.join();
}

inline uint8_t toByte(float v) {
  const float s = clamp01(v) * 255.0f + 0.5f;
  return static_cast<uint8_t>(s);
}

void checkIndex(const Params& p, int si) {
  checkGeometry(p);
  if (si < 0 || si >= p.nt) throw std::runtime_error("forge: source frame " + std::to_string(si) + " outside [0," + std::to_string(p.nt) + ")");
}

}  // namespace

void checkGeometry(const Params& p) {
  if (p.nt < 1 || p.width < 2 || p.height < 2 || p.crop < 2 || p.frames < 0)
    throw std::runtime_error("forge: bad geometry (NT " + std::to_string(p.nt) + ", " + std::to_string(p.width) +
                             "x" + std::to_string(p.height) + ", crop " + std::to_string(p.crop) + ", frames " +
                             std::to_string(p.frames) + ")");
}

std::array<float, 6> pasteTransform(const Params& p, int si) {
  checkIndex(p, si);
  const double t = 2 * kPi * si / p.nt;
  const double s = std::min(0.72 * p.height, 0.9 * p.width) / p.crop;
  const double th = 0.03 * std::sin(t + 0.5);
  const double cx = 0.5 * p.width + 0.04 * p.width * std::sin(t), cy = 0.47 * p.height + 0.01 * p.height * std::sin(2 * t);
  const double cu = 0.5 * (p.crop - 1);
  const double a = s * std::cos(th), b = -s * std::sin(th), c = s * std::sin(th), d = s * std::cos(th);
  return {static_cast<float>(a), static_cast<float>(b), static_cast<float>(cx - a * cu - b * cu),
          static_cast<float>(c), static_cast<float>(d), static_cast<float>(cy - c * cu - d * cu)};
}

namespace {
std::vector<float> keypointsOf(const Face& f) {
  const float rin = 0.055f * f.open;
  // face-local positions; z is a rough depth on the head (towards the viewer positive)
  const float local[21][3] = {
      {0.0f, 0.70f, 0.02f},                            // 0 chin
      {-0.50f, 0.25f, -0.08f},                         // 1 left jaw
      {0.50f, 0.25f, -0.08f},                          // 2 right jaw
      {-0.335f, -0.12f, 0.03f},                        // 3 left eye outer
      {-0.105f, -0.12f, 0.06f},                        // 4 left eye inner
      {0.105f, -0.12f, 0.06f},                         // 5 right eye inner
      {0.0f, kMouthY - rin - 0.045f, 0.10f},           // 6 upper lip top
      {0.335f, -0.12f, 0.03f},                         // 7 right eye outer
      {-0.22f, -0.325f, 0.06f},                        // 8 left brow
      {0.22f, -0.325f, 0.06f},                         // 9 right brow
      {0.0f, 0.13f, 0.16f},                            // 10 nose tip
      {0.0f, -0.08f, 0.10f},                           // 11 nose bridge
      {0.0f, kMouthY + rin + 0.062f, 0.09f},           // 12 lower lip bottom
      {0.0f, -0.52f, 0.05f},                           // 13 forehead
      {0.0f, kMouthY, 0.08f},                          // 14 mouth centre
      {-0.57f, 0.03f, -0.15f},                         // 15 left ear
      {0.57f, 0.03f, -0.15f},                          // 16 right ear
      {-kMouthHalfW, kMouthY, 0.07f},                  // 17 left mouth corner
      {kMouthHalfW, kMouthY, 0.07f},                   // 18 right mouth corner
      {0.0f, kMouthY - rin, 0.09f},                    // 19 upper inner lip
      {0.0f, kMouthY + rin, 0.09f},                    // 20 lower inner lip
  };
  std::vector<float> kp(63);
  for (int k = 0; k < 21; ++k) {
    toCrop(f, local[k][0], local[k][1], kp[3 * k], kp[3 * k + 1]);
    kp[3 * k + 2] = local[k][2];
  }
  return kp;
}
}  // namespace

std::vector<float> keypoints(const Params& p, int si) {
  checkIndex(p, si);
  return keypointsOf(faceOf(p, si, 0.0f));
}

std::vector<int32_t> driveIndices(const Params& p) {
  checkGeometry(p);
  std::vector<int32_t> si(p.frames);
  const int period = p.nt > 1 ? 2 * (p.nt - 1) : 1;
  for (int i = 0; i < p.frames; ++i) {
    const int k = i % period;
    si[i] = k < p.nt ? k : period - k;
  }
  return si;
}

std::vector<float> drivenKeypoints(const Params& p, int i) {
  checkGeometry(p);
  if (i < 0 || i >= p.frames) throw std::runtime_error("forge: drive frame " + std::to_string(i) + " outside [0," + std::to_string(p.frames) + ")");
  const int si = driveIndices(p)[i];
  // the idle expression runs on its own clock, so driven and source keypoints differ at the lips
  return keypointsOf(faceOf(p, si, static_cast<float>(0.9 * std::sin(2 * kPi * i / 17.0))));
}

namespace {
// Rows y0 .. y0+h-1, columns x0 .. x0+w-1 of the crop of face f over source frame si's backdrop.
std::vector<uint8_t> cropRect(const Params& p, int si, const Face& f, int x0, int y0, int w, int h) {
  const auto M = pasteTransform(p, si);
  const int n = p.crop;
  const float k = 2.0f / (n - 1), aa = k;
  const Backdrop bg(p);
  std::vector<uint8_t> out(static_cast<size_t>(w) * h * 3);
  parallelRows(h, [&](int r0, int r1) {
    for (int r = r0; r < r1; ++r) {
      const int v = y0 + r;
      for (int c = 0; c < w; ++c) {
        const int u = x0 + c;
        const float X = M[0] * u + M[1] * v + M[2], Y = M[3] * u + M[4] * v + M[5];
        const Paint pt = person(f, u * k - 1, v * k - 1, aa);
        const Rgb col = pt.col + bg.at(X, Y) * (1 - pt.alpha);
        uint8_t* o = &out[(static_cast<size_t>(r) * w + c) * 3];
        o[0] = toByte(col.r), o[1] = toByte(col.g), o[2] = toByte(col.b);
      }
    }
  });
  return out;
}
}  // namespace

std::vector<uint8_t> cropImage(const Params& p, int si) {
  return cropRect(p, si, faceOf(p, si, 0.0f), 0, 0, p.crop, p.crop);
}

std::vector<uint8_t> mouthPatch(const Params& p, int si, float open, int x0, int y0, int w, int h) {
  checkIndex(p, si);
  Face f = faceOf(p, si, 0.0f);
  f.open = open;
  return cropRect(p, si, f, x0, y0, w, h);
}

std::vector<uint8_t> driveFrame(const Params& p, int si) {
  const auto M = pasteTransform(p, si);
  const Face f = faceOf(p, si, 0.0f);
  const double det = static_cast<double>(M[0]) * M[4] - static_cast<double>(M[1]) * M[3];
  const double ia = M[4] / det, ib = -M[1] / det, ic = -M[3] / det, id = M[0] / det;
  const float k = 2.0f / (p.crop - 1);
  const float aa = static_cast<float>(k / std::sqrt(std::fabs(det)));
  const Backdrop bg(p);
  std::vector<uint8_t> out(static_cast<size_t>(p.width) * p.height * 3);
  parallelRows(p.height, [&](int y0, int y1) {
    for (int Y = y0; Y < y1; ++Y) {
      for (int X = 0; X < p.width; ++X) {
        const double dx = X - M[2], dy = Y - M[5];
        const float u = static_cast<float>(ia * dx + ib * dy), v = static_cast<float>(ic * dx + id * dy);
        const Paint pt = person(f, u * k - 1, v * k - 1, aa);
        const Rgb c = pt.col + bg.at(static_cast<float>(X), static_cast<float>(Y)) * (1 - pt.alpha);
        uint8_t* o = &out[(static_cast<size_t>(Y) * p.width + X) * 3];
        o[0] = toByte(c.r), o[1] = toByte(c.g), o[2] = toByte(c.b);
      }
    }
  });
  return out;
}

std::vector<uint8_t> pasteMask(const Params& p) {
  checkGeometry(p);
  const int n = p.crop;
  const float k = 2.0f / (n - 1);
  std::vector<uint8_t> m(static_cast<size_t>(n) * n);
  for (int v = 0; v < n; ++v)
    for (int u = 0; u < n; ++u) {
      const float x = u * k - 1, y = v * k - 1;
      const float r = std::sqrt((x / 0.60f) * (x / 0.60f) + ((y - 0.04f) / 0.78f) * ((y - 0.04f) / 0.78f));
      m[static_cast<size_t>(v) * n + u] = toByte(1.0f - smooth(0.80f, 1.0f, r));
    }
  return m;
}

}  // namespace le::forge
