// ctest-label: threaded
// The borrow stream on its own: the write-back arithmetic (the residual the float crop keeps, the
// RGBA crop made opaque), the delivery mask without a lip template, and the offline run's shift
// table and refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_bundle.h"
#include "le/tessera/le_bundle_tessera.h"
#include "le/tessera/le_tessera_stream.h"
#include "tests/bundle_fixture.h"
#include "tests/onnx_ort.h"
#include "tools/forge/forge.h"

namespace {

using le::tessera::FrameResult;
using le::tessera::GeometryStamp;
using le::tessera::StreamBorrow;

GeometryStamp smallStamp() {
  GeometryStamp s;
  s.canvas_w = s.canvas_h = 16;
  s.window_x0 = 4, s.window_y0 = 6, s.window_w = 6, s.window_h = 4;
  s.pad = 2, s.band_r0 = 1, s.band_r1 = 3, s.band_c0 = 1, s.band_c1 = 5, s.shift_margin = 1;
  return s;
}

// The worked values: 100.3/255 under window byte 200 becomes 200.3/255; 127.8/255 (8-bit 128)
// becomes 199.8/255. Pixels outside the window and skipped results are untouched; a window of
// the wrong size is refused.
TEST(TesseraStream, FloatWriteBackKeepsTheResidual) {
  const GeometryStamp s = smallStamp();
  const int n = 16 * 16;
  std::vector<float> crop(3 * n);
  for (int i = 0; i < 3 * n; ++i) crop[size_t(i)] = (i % 2 ? 100.3f : 127.8f) / 255.f;
  const std::vector<float> before = crop;
  FrameResult r;
  r.window.assign(size_t(s.window_w * s.window_h * 3), 200);
  r.skip = true;
  StreamBorrow::writeWindowDelta(crop.data(), 16, r, s);
  EXPECT_EQ(crop, before);
  r.skip = false;
  StreamBorrow::writeWindowDelta(crop.data(), 16, r, s);
  std::vector<float> want = before;
  for (int c = 0; c < 3; ++c)
    for (int y = 6; y < 10; ++y)
      for (int x = 4; x < 10; ++x) {
        const int i = c * n + y * 16 + x;
        want[size_t(i)] = (i % 2 ? 200.3f : 199.8f) / 255.f;
      }
  EXPECT_LT(le::test::maxAbsDiff(crop, want), 1e-6f);
  // clamped at both ends
  std::vector<float> edge(3 * n, 1.5f);
  r.window.assign(r.window.size(), 255);
  StreamBorrow::writeWindowDelta(edge.data(), 16, r, s);
  EXPECT_EQ(edge[size_t(6 * 16 + 4)], 1.f);
  std::fill(edge.begin(), edge.end(), -0.25f);
  r.window.assign(r.window.size(), 0);
  StreamBorrow::writeWindowDelta(edge.data(), 16, r, s);
  EXPECT_EQ(edge[size_t(6 * 16 + 4)], 0.f);

  r.window.resize(5);
  EXPECT_EQ(le::testing::thrown([&] { StreamBorrow::writeWindowDelta(crop.data(), 16, r, s); }),
            "teeth stream: window 5 bytes does not match the stamp window 4x6 — refusing to write back");
}

TEST(TesseraStream, RgbaWriteBackIsOpaqueAndTakesTheWindowBytes) {
  const GeometryStamp s = smallStamp();
  std::vector<uint8_t> crop(16 * 16 * 4);
  for (size_t i = 0; i < crop.size(); ++i) crop[i] = uint8_t(i * 7);
  std::vector<uint8_t> want = crop;
  for (size_t i = 3; i < want.size(); i += 4) want[i] = 255;
  FrameResult r;
  r.skip = true;  // no window at all: only the alpha changes
  StreamBorrow::writeWindowDeltaRgba(crop.data(), 16, r, s);
  EXPECT_EQ(crop, want);
  r.skip = false;
  for (int i = 0; i < s.window_w * s.window_h * 3; ++i) r.window.push_back(uint8_t(i * 13 + 1));
  StreamBorrow::writeWindowDeltaRgba(crop.data(), 16, r, s);
  for (int y = 0; y < s.window_h; ++y)
    for (int x = 0; x < s.window_w; ++x)
      for (int c = 0; c < 3; ++c)
        want[size_t(((6 + y) * 16 + 4 + x) * 4 + c)] = r.window[size_t((y * s.window_w + x) * 3 + c)];
  EXPECT_EQ(crop, want);
}

// A forged bank without a lip template: the ELLIPSE line at construction and the pi mask as the
// delivery mask; the offline run with and without its shift table.
struct Bank {
  le::testing::ScratchDir dir{"tessera_stream"};
  le::forge::Params p = le::forge::sized(4, 160, 128, 128, 2);
  le::TesseraAttachInputs in;
  le::tessera::BankData bank;
  Bank() {
    p.tessera = true;
    p.tesseraDonors = 16;
    p.lips = le::forge::Lips::Unified;
    le::forge::forgeBundle(dir / "b", p);
    in = le::loadTesseraMembers(dir / "b");
    bank = in.bankData();
  }
  const le::tessera::BankData& data() const { return bank; }
  int run(const std::vector<uint8_t>& crops, const std::vector<uint8_t>& masks, const int32_t* shifts, int frames,
          std::vector<uint8_t>& windows, std::vector<uint32_t>& flags, std::string& err) const {
    windows.assign(size_t(std::max(frames, 1)) * size_t(in.stamp.window_w * in.stamp.window_h * 3), 77);
    flags.assign(size_t(std::max(frames, 1)), 9);
    char buf[512];
    const int r = le_tessera_run_shift(bank.band.data(), in.n_donors, in.cent.data(), in.c_canon.data(),
                                       in.aperture.data(), in.stamp.values().data(), in.head_pt.data(),
                                       uint32_t(in.head_pt.size()), in.head_json.c_str(), crops.data(), masks.data(),
                                       shifts, frames, windows.data(), flags.data(), buf, sizeof buf);
    err = buf;
    return r;
  }
};

TEST(TesseraStream, EllipseDeliveryAndTheOfflineShiftTable) {
  Bank b;
  const int canvas = b.p.crop;
  const size_t plane = size_t(canvas) * size_t(canvas);
  const le::tessera::UnifiedPi pi = le::tessera::UnifiedPi::fromManifestJson(b.in.manifest_json, canvas);

  const auto borrow = [&](const le::tessera::UnifiedPi& model) {
    const le::tessera::ServeConfig cfg = le::tessera::ServeConfig::fromHeadMemberJson(b.in.head_json);
    return std::make_unique<StreamBorrow>(b.data(), le::tessera::loadHeadPt(b.in.head_pt), cfg, model, "");
  };
  std::unique_ptr<StreamBorrow> first;
  EXPECT_EQ(le::testing::stderrOf([&] { first = borrow(pi); }),
            "[borrow] !!! delivery mask: ELLIPSE — this bundle carries no lip_template.v1.json, so it serves the "
            "over-covering elliptical mask the contour replaces. BACKFILL IT: "
            "models/tamsine-2/tools/bake_lip_templates.py\n");
  StreamBorrow& sb = *first;
  EXPECT_FALSE(sb.hasLipContour());
  const le::tessera::UnifiedPi other(64, false, 1.f, {12, 14, 17, 18}, 0.f, 0.f, 0.f);
  EXPECT_EQ(le::testing::thrown([&] { borrow(other); }),
            "teeth stream: manifest pi canvas 64 != bank compose canvas 128 — refusing to compose a mouth on a "
            "canvas the stamp does not name");

  // Frames of the forged face: the float push and the RGBA push of its bytes agree, and the
  // delivery mask is the pi mask.
  const int frames = 4;
  std::vector<uint8_t> crops, masks(size_t(frames) * plane), pimask(plane);
  std::vector<int32_t> shifts(size_t(frames) * 2);
  std::vector<uint8_t> viaFloat, viaRgba;  // every frame's window, in order
  const auto keep = [](const FrameResult& r, std::vector<uint8_t>& to) {
    EXPECT_FALSE(r.skip) << r.reason;
    to.insert(to.end(), r.window.begin(), r.window.end());
  };
  const std::unique_ptr<StreamBorrow> second = borrow(pi);
  for (int f = 0; f < frames; ++f) {
    const std::vector<uint8_t> rgb = le::forge::cropImage(b.p, f);
    const std::vector<float> kp = le::forge::keypoints(b.p, f);
    crops.insert(crops.end(), rgb.begin(), rgb.end());
    std::vector<float> planar(3 * plane);
    std::vector<uint8_t> rgba(4 * plane);
    for (size_t i = 0; i < plane; ++i)
      for (size_t c = 0; c < 3; ++c) {
        planar[c * plane + i] = float(rgb[i * 3 + c]) / 255.f;
        rgba[i * 4 + c] = rgb[i * 3 + c];
      }
    FrameResult r1, r2;
    if (sb.push(planar.data(), kp.data(), r1)) keep(r1, viaFloat);
    if (second->pushRgba(rgba.data(), kp.data(), r2)) keep(r2, viaRgba);
    // the crop's bytes where the pass can read them (the window moved by up to pad), zero elsewhere
    const le::tessera::GeometryStamp& st = b.in.stamp;
    std::vector<uint8_t> readable(rgb.size(), 0);
    for (int y = st.window_y0 - st.pad; y < st.window_y0 + st.window_h + st.pad; ++y) {
      const long from = (long(y) * st.canvas_w + st.window_x0 - st.pad) * 3;
      const long n = (st.window_w + 2 * st.pad) * 3;
      std::copy(rgb.begin() + from, rgb.begin() + from + n, readable.begin() + from);
    }
    ASSERT_EQ(sb.rgb(), readable);
    ASSERT_TRUE(pi.piU8AndShift(kp.data(), b.in.c_canon.data(), pimask.data(), shifts[size_t(2 * f)],
                                shifts[size_t(2 * f + 1)]));
    EXPECT_EQ(sb.deliveryMask(), pimask) << "frame " << f;
    std::copy(pimask.begin(), pimask.end(), masks.begin() + long(size_t(f) * plane));
  }
  FrameResult r1, r2;
  ASSERT_TRUE(sb.flush(r1));
  ASSERT_TRUE(second->flush(r2));
  keep(r1, viaFloat);
  keep(r2, viaRgba);
  EXPECT_EQ(sb.frameCounter(), frames);
  EXPECT_EQ(viaRgba, viaFloat);

  // Offline: the given shifts reproduce the stream; dy -10000 derives the shift from the mask,
  // as no table does; an empty mask without a shift is skipped and its slot left untouched.
  std::vector<uint8_t> w1, w2, w3;
  std::vector<uint32_t> f1, f2, f3;
  std::string err;
  ASSERT_EQ(b.run(crops, masks, shifts.data(), frames, w1, f1, err), 0) << err;
  EXPECT_EQ(w1, viaFloat);
  EXPECT_EQ(f1, std::vector<uint32_t>(frames, 0));
  std::vector<int32_t> derived = shifts;
  derived[2] = -10000;
  derived[3] = 99;
  ASSERT_EQ(b.run(crops, masks, derived.data(), frames, w2, f2, err), 0) << err;
  ASSERT_EQ(b.run(crops, masks, nullptr, frames, w3, f3, err), 0) << err;
  std::vector<int32_t> moved = shifts;
  moved[2] += 1;
  std::vector<uint8_t> w4;
  std::vector<uint32_t> f4;
  ASSERT_EQ(b.run(crops, masks, moved.data(), frames, w4, f4, err), 0) << err;
  EXPECT_NE(w4, w1) << "the shift table was not used";
  EXPECT_EQ(w2, w3);

  std::fill(masks.begin() + long(plane), masks.begin() + long(2 * plane), 0);
  ASSERT_EQ(b.run(crops, masks, derived.data(), frames, w2, f2, err), 0) << err;
  EXPECT_EQ(f2, (std::vector<uint32_t>{0, 1, 0, 0}));
  const size_t wb = w2.size() / size_t(frames);
  EXPECT_TRUE(std::all_of(w2.begin() + long(wb), w2.begin() + long(2 * wb), [](uint8_t v) { return v == 77; }));

  EXPECT_EQ(b.run(crops, masks, nullptr, 0, w3, f3, err), 0) << err;
  EXPECT_EQ(b.run(crops, masks, nullptr, -1, w3, f3, err), 1);
  EXPECT_EQ(err, "teeth: n_frames < 0");
  char buf[64];
  EXPECT_EQ(le_tessera_run(nullptr, 1, nullptr, nullptr, nullptr, nullptr, nullptr, 0, nullptr, nullptr, nullptr, 1,
                           nullptr, nullptr, buf, sizeof buf),
            1);
  EXPECT_STREQ(buf, "teeth: a required argument is null");
}

}  // namespace
