#include "tools/forge/forge_tessera.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include "le/tessera/le_tessera_pt.h"
#include "tools/forge/forge_movie.h"

namespace le::forge {

namespace {

constexpr const char* kTrack = "tessera_bank.v1.mp4";
constexpr const char* kSidecar = "tessera_bank.v1.json";
constexpr const char* kWeights = "tessera_head.v1.pt";
constexpr const char* kConfig = "tessera_head.v1.json";

inline uint64_t mix64(uint64_t z) {
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}
// A value in [-1, 1) fixed by (seed, salt, i).
float noise(uint32_t seed, uint64_t salt, uint64_t i) {
  return static_cast<float>((mix64((uint64_t(seed) << 40) ^ (salt << 32) ^ i) >> 11) * 0x1.0p-52 - 1.0);
}

std::string num(double v) {
  char buf[32];
  const auto r = std::to_chars(buf, buf + sizeof buf, v);
  return std::string(buf, r.ptr);
}

int evenRound(double v) { return 2 * static_cast<int>(std::lround(v / 2)); }

// Donor d: source frame and mouth opening (spread over closed to wide by the golden ratio).
int donorFrame(const Params& p, int d) { return d % p.nt; }
float donorOpen(int d) {
  const double g = std::fmod(0.5 + d * 0.6180339887498949, 1.0);
  return static_cast<float>(0.08 + 0.92 * g);
}

// Mouth interior: the dark opening and the teeth, told apart from lips and skin by colour.
bool interior(const uint8_t* px) {
  const int r = px[0], g = px[1], b = px[2];
  const int hi = std::max({r, g, b}), lo = std::min({r, g, b});
  return hi < 120 || (lo > 190 && hi - lo < 50);
}

std::string stampJson(const le::tessera::GeometryStamp& s) {
  std::string t = "{";
  for (int i = 0; i < s.kCount; ++i) t += std::string(i ? ", " : "") + "\"" + s.keys()[i] + "\": " + std::to_string(s.at(i));
  return t + "}";
}

uint32_t crc32(const uint8_t* d, size_t n) {
  static const auto table = [] {
    std::array<uint32_t, 256> t{};
    for (uint32_t i = 0; i < 256; ++i) {
      uint32_t c = i;
      for (int k = 0; k < 8; ++k) c = c & 1 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      t[i] = c;
    }
    return t;
  }();
  uint32_t c = 0xFFFFFFFFu;
  for (size_t i = 0; i < n; ++i) c = table[(c ^ d[i]) & 0xFF] ^ (c >> 8);
  return c ^ 0xFFFFFFFFu;
}

// Little-endian appenders.
void put16(std::vector<uint8_t>& o, uint32_t v) {
  o.push_back(uint8_t(v)), o.push_back(uint8_t(v >> 8));
}
void put32(std::vector<uint8_t>& o, uint32_t v) {
  put16(o, v & 0xFFFF), put16(o, v >> 16);
}
void put64(std::vector<uint8_t>& o, uint64_t v) {
  put32(o, uint32_t(v)), put32(o, uint32_t(v >> 32));
}

// The stored ZIP torch.save writes: data descriptors, every payload 64-byte aligned through
// an "FB" padding field, then a ZIP64 end record ahead of the classic one.
class TorchZip {
 public:
  void add(const std::string& name, const std::vector<uint8_t>& data) {
    const uint64_t local = out_.size();
    put32(out_, 0x04034b50);
    put16(out_, 0), put16(out_, 0x0808), put16(out_, 0), put16(out_, 0), put16(out_, 0);
    put32(out_, 0), put32(out_, 0), put32(out_, 0);
    size_t pad = 64 - (out_.size() + 4 + name.size()) % 64;
    if (pad < 4) pad += 64;
    put16(out_, uint32_t(name.size())), put16(out_, uint32_t(pad));
    out_.insert(out_.end(), name.begin(), name.end());
    out_.push_back('F'), out_.push_back('B');
    put16(out_, uint32_t(pad - 4));
    out_.insert(out_.end(), pad - 4, 'Z');
    out_.insert(out_.end(), data.begin(), data.end());
    const uint32_t crc = crc32(data.data(), data.size());
    put32(out_, 0x08074b50), put32(out_, crc), put32(out_, uint32_t(data.size())), put32(out_, uint32_t(data.size()));
    entries_.push_back({name, crc, data.size(), local});
  }

  std::vector<uint8_t> finish() {
    const uint64_t cd = out_.size();
    for (const Entry& e : entries_) {
      put32(out_, 0x02014b50);
      put16(out_, 0), put16(out_, 0), put16(out_, 0x0808), put16(out_, 0), put16(out_, 0), put16(out_, 0);
      put32(out_, e.crc), put32(out_, uint32_t(e.size)), put32(out_, uint32_t(e.size));
      put16(out_, uint32_t(e.name.size())), put16(out_, 0), put16(out_, 0), put16(out_, 0), put16(out_, 0);
      put32(out_, 0), put32(out_, uint32_t(e.local));
      out_.insert(out_.end(), e.name.begin(), e.name.end());
    }
    const uint64_t cd_size = out_.size() - cd, z64 = out_.size(), n = entries_.size();
    put32(out_, 0x06064b50), put64(out_, 44), put16(out_, 0x031e), put16(out_, 0x2d);
    put32(out_, 0), put32(out_, 0), put64(out_, n), put64(out_, n), put64(out_, cd_size), put64(out_, cd);
    put32(out_, 0x07064b50), put32(out_, 0), put64(out_, z64), put32(out_, 1);
    put32(out_, 0x06054b50), put16(out_, 0), put16(out_, 0), put16(out_, uint32_t(n)), put16(out_, uint32_t(n));
    put32(out_, uint32_t(cd_size)), put32(out_, uint32_t(cd)), put16(out_, 0);
    return std::move(out_);
  }

 private:
  struct Entry {
    std::string name;
    uint32_t crc;
    uint64_t size;
    uint64_t local;
  };
  std::vector<uint8_t> out_;
  std::vector<Entry> entries_;
};

// The pickle program Python's protocol-2 pickler writes for a state dict: every object
// memoised once, repeated strings and globals fetched back from the memo.
class Pickler {
 public:
  Pickler() { out_ = {0x80, 2}; }

  void str(const std::string& s, bool shared = true) {
    if (shared && get("s" + s)) return;
    out_.push_back('X');
    put32(out_, uint32_t(s.size()));
    out_.insert(out_.end(), s.begin(), s.end());
    put(shared ? "s" + s : "");
  }
  void global(const std::string& module, const std::string& name) {
    if (get("g" + module + " " + name)) return;
    out_.push_back('c');
    out_.insert(out_.end(), module.begin(), module.end());
    out_.push_back('\n');
    out_.insert(out_.end(), name.begin(), name.end());
    out_.push_back('\n');
    put("g" + module + " " + name);
  }
  void integer(int64_t v) {
    if (v >= 0 && v < 0x100) {
      out_.push_back('K'), out_.push_back(uint8_t(v));
    } else if (v >= 0 && v < 0x10000) {
      out_.push_back('M'), put16(out_, uint32_t(v));
    } else {
      out_.push_back('J'), put32(out_, uint32_t(int32_t(v)));
    }
  }
  void tuple(const std::vector<int64_t>& items) {
    if (items.empty()) return op(')');
    if (items.size() > 3) op('(');
    for (int64_t v : items) integer(v);
    op(items.size() == 1 ? 0x85 : items.size() == 2 ? 0x86 : items.size() == 3 ? 0x87 : 't');
    put("");
  }
  // An empty OrderedDict (collections.OrderedDict()).
  void orderedDict() {
    global("collections", "OrderedDict");
    op(')'), op('R');
    put("");
  }
  void emptyDict() {
    op('}');
    put("");
  }
  void op(uint8_t o) { out_.push_back(o); }
  void put(const std::string& key) {
    const uint32_t idx = next_++;
    if (idx < 0x100) {
      out_.push_back('q'), out_.push_back(uint8_t(idx));
    } else {
      out_.push_back('r'), put32(out_, idx);
    }
    if (!key.empty()) memo_.emplace_back(key, idx);
  }
  std::vector<uint8_t> take() { return std::move(out_); }

 private:
  bool get(const std::string& key) {
    for (const auto& [k, idx] : memo_)
      if (k == key) {
        if (idx < 0x100) {
          out_.push_back('h'), out_.push_back(uint8_t(idx));
        } else {
          out_.push_back('j'), put32(out_, idx);
        }
        return true;
      }
    return false;
  }
  std::vector<uint8_t> out_;
  std::vector<std::pair<std::string, uint32_t>> memo_;
  uint32_t next_ = 0;
};

std::vector<int64_t> contiguousStrides(const std::vector<int64_t>& shape) {
  std::vector<int64_t> s(shape.size(), 1);
  for (size_t i = shape.size(); i-- > 1;) s[i - 1] = s[i] * shape[i];
  return s;
}

std::vector<uint8_t> bytesOfText(const std::string& s) { return std::vector<uint8_t>(s.begin(), s.end()); }

}  // namespace

le::tessera::GeometryStamp tesseraStamp(const Params& p) {
  checkGeometry(p);
  if (p.crop < 32)
    throw std::runtime_error("forge: the borrow members need a crop of at least 32, got " + std::to_string(p.crop) +
                             " (leave them out for smaller crops)");
  const double c = p.crop;
  le::tessera::GeometryStamp s;
  s.canvas_w = s.canvas_h = p.crop;
  s.window_x0 = static_cast<int>(std::lround(0.33 * c));
  s.window_y0 = static_cast<int>(std::lround(0.58 * c));
  s.window_w = std::max(8, evenRound(0.34 * c));
  s.window_h = std::max(8, evenRound(0.22 * c));
  s.pad = std::max(2, p.crop / 32);
  s.shift_margin = 2;
  s.band_r0 = s.window_h / 5;
  s.band_r1 = s.window_h - s.window_h / 5;
  s.band_c0 = evenRound(0.18 * s.window_w);
  s.band_c1 = s.window_w - s.band_c0;
  s.validate();
  return s;
}

std::string tesseraManifestBlock(const Params& p) {
  le::tessera::GeometryStamp s = tesseraStamp(p);
  if (p.has(Break::BankGeometryDisagrees)) s.pad += 1;
  return "{\"geometry\": " + stampJson(s) + ", \"bank_container\": \"mp4\", \"bank_packing\": \"rgb24_frames\"}";
}

std::vector<uint8_t> tesseraDonors(const Params& p) {
  const le::tessera::GeometryStamp s = tesseraStamp(p);
  const int bw = s.bandW(), bh = s.bandH();
  const int x0 = s.window_x0 + s.band_c0 - s.shift_margin, y0 = s.window_y0 + s.band_r0 - s.shift_margin;
  std::vector<uint8_t> out;
  out.reserve(static_cast<size_t>(p.tesseraDonors) * bw * bh * 3);
  for (int d = 0; d < p.tesseraDonors; ++d) {
    if (p.progress) p.progress("borrow donors", d, p.tesseraDonors);
    const auto patch = mouthPatch(p, donorFrame(p, d), donorOpen(d), x0, y0, bw, bh);
    out.insert(out.end(), patch.begin(), patch.end());
  }
  return out;
}

std::vector<TorchTensor> headTensors(bool syn) {
  std::vector<TorchTensor> ts;
  const auto& specs = le::tessera::headTensorSpecs();
  for (size_t i = 0; i < (syn ? 10u : 6u); ++i) {
    TorchTensor t{specs[i].name, specs[i].shape, std::vector<float>(specs[i].elements())};
    // Small fixed texture everywhere: the unused channels look like a trained net's.
    for (size_t j = 0; j < t.values.size(); ++j) t.values[j] = 0.02f * noise(7, i, j);
    ts.push_back(std::move(t));
  }
  auto at = [](TorchTensor& t, int o, int c, int y, int x) -> float& {
    return t.values[((size_t(o) * t.shape[1] + c) * 3 + y) * 3 + x];
  };
  // Channel 0 of the first layer is the donor/query difference (input 6) ...
  for (int c = 0; c < 7; ++c)
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < 3; ++x) at(ts[0], 0, c, y, x) = c == 6 && y == 1 && x == 1 ? 1.0f : 0.0f;
  ts[1].values[0] = 0;
  // ... smoothed over 3x3 by the second layer ...
  for (int c = 0; c < 16; ++c)
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < 3; ++x) at(ts[2], 0, c, y, x) = c == 0 ? 1.0f / 9 : 0.0f;
  ts[3].values[0] = 0;
  // ... and the logit falls with it: the softmax over candidates favours the closest donor.
  for (int c = 0; c < 16; ++c)
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < 3; ++x) at(ts[4], 0, c, y, x) = c == 0 && y == 1 && x == 1 ? -24.0f : 0.0f;
  ts[5].values[0] = 0;
  if (syn) ts[9].values[0] = -8.0f;  // the synthesis branch stays off
  return ts;
}

std::vector<uint8_t> torchStateDict(const std::string& stem, const std::vector<TorchTensor>& tensors, bool metadata) {
  Pickler pk;
  if (metadata)
    pk.orderedDict();
  else
    pk.emptyDict();
  pk.op('(');
  for (size_t i = 0; i < tensors.size(); ++i) {
    const TorchTensor& t = tensors[i];
    pk.str(t.name, false);
    pk.global("torch._utils", "_rebuild_tensor_v2");
    pk.op('(');
    pk.op('(');
    pk.str("storage");
    pk.global("torch", "FloatStorage");
    pk.str(std::to_string(i), false);
    pk.str("cpu");
    pk.integer(static_cast<int64_t>(t.values.size()));
    pk.op('t');
    pk.put("");
    pk.op('Q');
    pk.integer(0);
    pk.tuple(t.shape);
    pk.tuple(contiguousStrides(t.shape));
    pk.op(0x89);
    pk.orderedDict();
    pk.op('t');
    pk.put("");
    pk.op('R');
    pk.put("");
  }
  pk.op('u');
  if (metadata) {
    // module.state_dict(): the OrderedDict's __dict__ holds "_metadata", one version per module
    std::vector<std::string> modules = {"", "cand"};
    for (int k = 0; k < 5; ++k) modules.push_back("cand." + std::to_string(k));
    bool syn = false;
    for (const TorchTensor& t : tensors) syn |= t.name.rfind("syn.", 0) == 0;
    if (syn) {
      modules.push_back("syn");
      for (int k = 0; k < 3; ++k) modules.push_back("syn." + std::to_string(k));
    }
    pk.emptyDict();
    pk.str("_metadata", false);
    pk.orderedDict();
    pk.op('(');
    for (const std::string& m : modules) {
      pk.str(m, false);
      pk.emptyDict();
      pk.str("version");
      pk.integer(1);
      pk.op('s');
    }
    pk.op('u');
    pk.op('s');
    pk.op('b');
  }
  pk.op('.');

  TorchZip zip;
  zip.add(stem + "/data.pkl", pk.take());
  for (size_t i = 0; i < tensors.size(); ++i) {
    const auto* b = reinterpret_cast<const uint8_t*>(tensors[i].values.data());
    zip.add(stem + "/data/" + std::to_string(i), std::vector<uint8_t>(b, b + tensors[i].values.size() * 4));
  }
  zip.add(stem + "/version", bytesOfText("3\n"));
  return zip.finish();
}

std::vector<std::string> writeTessera(const Params& p, const std::string& dir) {
  const le::tessera::GeometryStamp s = tesseraStamp(p);
  const int n = p.tesseraDonors;
  if (n < 1) throw std::runtime_error("forge: the borrow bank needs at least one donor");
  const int bw = s.bandW(), bh = s.bandH();
  const size_t patch = static_cast<size_t>(bw) * bh * 3;
  const std::vector<uint8_t> donors = tesseraDonors(p);

  // Measured from the donors: the interior's centroid on the canvas and its mean height.
  const int px0 = s.window_x0 + s.band_c0 - s.shift_margin, py0 = s.window_y0 + s.band_r0 - s.shift_margin;
  std::vector<double> cent(2 * size_t(n)), aperture(n);
  double cx_sum = 0, cy_sum = 0;
  for (int d = 0; d < n; ++d) {
    const uint8_t* img = donors.data() + size_t(d) * patch;
    double sx = 0, sy = 0, count = 0;
    int cols = 0;
    for (int x = 0; x < bw; ++x) {
      bool any = false;
      for (int y = 0; y < bh; ++y)
        if (interior(img + (size_t(y) * bw + x) * 3)) {
          sx += x, sy += y, count += 1, any = true;
        }
      cols += any;
    }
    cent[2 * d] = count > 0 ? px0 + sx / count : px0 + (bw - 1) / 2.0;
    cent[2 * d + 1] = count > 0 ? py0 + sy / count : py0 + (bh - 1) / 2.0;
    aperture[d] = cols ? count / cols : 0.0;
    cx_sum += cent[2 * d], cy_sum += cent[2 * d + 1];
  }

  // Track order: a seeded shuffle, so track position and donor index differ.
  std::vector<int32_t> order(n);
  for (int i = 0; i < n; ++i) order[i] = i;
  for (int i = n - 1; i > 0; --i) std::swap(order[i], order[mix64(uint64_t(p.seed) * 977 + i) % uint64_t(i + 1)]);

  const bool yuv = p.has(Break::BankYuv420);
  MovieSpec spec;
  spec.encoder = yuv ? "libx264" : "libx264rgb";
  spec.chroma = yuv ? Chroma::Yuv420 : Chroma::Rgb;
  spec.width = p.has(Break::BankWrongSize) ? bw + 2 : bw;
  spec.height = bh;
  spec.qp = 0;
  spec.preset = "veryfast";
  {
    MovieWriter mw(dir + "/" + kTrack, spec);
    const int frames = p.has(Break::BankOneFrameShort) ? n - 1 : n;
    std::vector<uint8_t> wide(static_cast<size_t>(spec.width) * bh * 3, 0);
    for (int k = 0; k < frames; ++k) {
      const uint8_t* img = donors.data() + size_t(order[k]) * patch;
      if (spec.width == bw) {
        mw.write(img);
      } else {
        for (int y = 0; y < bh; ++y) std::memcpy(&wide[size_t(y) * spec.width * 3], img + size_t(y) * bw * 3, size_t(bw) * 3);
        mw.write(wide.data());
      }
    }
    mw.finish();
  }

  std::vector<int32_t> sideOrder = order;
  if (p.has(Break::BankOrderRepeats) && n > 1) sideOrder[1] = sideOrder[0];
  const int sideN = p.has(Break::BankOverCap) ? 1025 : n;
  std::string j = "{\n  \"format\": \"tessera_bank.v1\",\n  \"geometry\": " + stampJson(s) +
                  ",\n  \"n_donors\": " + std::to_string(sideN) + ",\n  \"track_order\": [";
  for (int i = 0; i < n; ++i) j += (i ? ", " : "") + std::to_string(sideOrder[i]);
  j += "],\n  \"cent\": [";
  for (int i = 0; i < n; ++i) j += std::string(i ? ", " : "") + "[" + num(cent[2 * i]) + ", " + num(cent[2 * i + 1]) + "]";
  j += "],\n  \"aperture\": [";
  for (int i = 0; i < n; ++i) j += (i ? ", " : "") + num(aperture[i]);
  j += "],\n  \"c_canon\": [" + num(cx_sum / n) + ", " + num(cy_sum / n) + "],\n";
  j += std::string("  \"codec\": {\"codec\": \"h264\", \"pix_fmt\": \"") + (yuv ? "yuv420p" : "gbrp") + "\"}\n}\n";
  writeBytes(dir + "/" + kSidecar, bytesOfText(j));

  std::vector<TorchTensor> head = headTensors(true);
  if (p.has(Break::HeadWrongShape)) {
    head[0].shape[1] = 6;
    head[0].values.resize(16 * 6 * 9);
  }
  std::vector<uint8_t> pt = torchStateDict("tessera_head.v1", head, true);
  if (p.has(Break::HeadDeflated)) {
    // a compressed member where torch writes stored ones: method 8 in the central directory
    const std::string name = "tessera_head.v1/data.pkl";
    const std::string all(pt.begin(), pt.end());
    const size_t at = all.rfind(name);
    if (at != std::string::npos && at >= 36) pt[at - 36] = 8;
  }
  std::vector<std::string> names = {kTrack, kSidecar, kWeights};
  writeBytes(dir + "/" + kWeights, pt);
  if (!p.has(Break::NoHeadConfig)) {
    writeBytes(dir + "/" + kConfig,
               bytesOfText("{\n  \"retrieval\": {\"kshort\": 32, \"aperture_tol\": 0.35, \"cut\": 16, \"K\": 4},\n"
                           "  \"temporal\": {\"hysteresis\": 3, \"lookahead\": 2},\n"
                           "  \"decode\": {\"envelope_clamp_255\": 12}\n}\n"));
    names.push_back(kConfig);
  }
  if (p.progress) p.progress("borrow donors", n, n);
  return names;
}

}  // namespace le::forge
