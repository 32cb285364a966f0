// The head-weights reader over files PyTorch itself wrote (../shared/data/torch), and over
// hand-edited programs for the refusals no real file shows.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "le/le_bundle.h"
#include "le/tessera/le_tessera_pt.h"
#include "tests/bundle_fixture.h"
#include "tests/support/media.h"

namespace {

using le::tessera::HeadWeights;
using le::tessera::loadHeadPt;
using le::testing::thrown;

const std::string kTorch = "/work/shared/data/torch/";

std::string loadError(const std::vector<uint8_t>& bytes) {
  return thrown([&] { loadHeadPt(bytes); });
}

std::string sha256(const std::vector<float>& v) {
  char tmpl[] = "/tmp/le_pt_sha.XXXXXX";
  const int fd = mkstemp(tmpl);
  if (fd < 0) return "";
  FILE* f = fdopen(fd, "wb");
  std::fwrite(v.data(), sizeof(float), v.size(), f);
  std::fclose(f);
  std::string out;
  if (FILE* p = popen((std::string("sha256sum ") + tmpl).c_str(), "r")) {
    char buf[128] = {};
    if (std::fgets(buf, sizeof buf, p)) out.assign(buf, 64);
    pclose(p);
  }
  std::remove(tmpl);
  return out;
}

TEST(TesseraPt, RealFilesMatchTheirValues) {
  std::ifstream tsv(kTorch + "expected.tsv");
  ASSERT_TRUE(tsv) << "no " << kTorch;
  std::map<std::string, HeadWeights> loaded;
  std::string line;
  std::getline(tsv, line);  // header
  int rows = 0;
  while (std::getline(tsv, line)) {
    std::istringstream row(line);
    std::string file, name, shape, sha, sum;
    std::getline(row, file, '\t');
    std::getline(row, name, '\t');
    std::getline(row, shape, '\t');
    std::getline(row, sha, '\t');
    std::getline(row, sum, '\t');
    if (!loaded.count(file)) loaded.emplace(file, loadHeadPt(le::testmedia::readBytes(kTorch + file)));
    const HeadWeights& w = loaded.at(file);
    size_t i = 0;
    while (i < 10 && name != le::tessera::headTensorSpecs()[i].name) ++i;
    ASSERT_LT(i, 10u) << name;
    double total = 0;
    for (float x : w.t[i]) total += x;
    EXPECT_NEAR(total, std::stod(sum), 1e-4) << file << " " << name;
    EXPECT_EQ(sha256(w.t[i]), sha) << file << " " << name;
    ++rows;
  }
  EXPECT_GE(rows, 30);
  EXPECT_EQ(loaded.at("blend16_state_dict.pt").params(), 4082u);
  EXPECT_TRUE(loaded.at("blend16_shared_storage.pt").hasSyn());
  EXPECT_EQ(loaded.at("blend8_state_dict.pt").params(), 3489u);
  EXPECT_EQ(loaded.at("blend8_plain_dict.pt").params(), 3489u);
  EXPECT_FLOAT_EQ(loaded.at("blend8_plain_dict.pt").envelope, 12.0f / 255.0f);
}

TEST(TesseraPt, RealRefusals) {
  const auto err = [](const char* f) { return loadError(le::testmedia::readBytes(kTorch + f)); };
  EXPECT_EQ(err("legacy_format.pt"), "teeth: head .pt is not a zip");
  EXPECT_EQ(err("pickle_protocol4.pt"), "teeth: unsupported pickle opcode 0x95 in head .pt");
  EXPECT_EQ(err("half_storage.pt"),
            "teeth: head .pt storage is torch HalfStorage, not torch FloatStorage — refusing to reinterpret it");
  EXPECT_EQ(err("wrong_shape.pt"), "teeth: head 'cand.0.weight' has shape [16,6,3,3,] — not the BlendHead(16) arch");
  EXPECT_EQ(err("missing_tensor.pt"), "teeth: head .pt lacks 'cand.4.bias'");
  EXPECT_EQ(err("deflated.pt"),
            "teeth: head .pt entry is DEFLATEd; torch writes ZIP_STORED — refusing to guess at a compressed member");
}

// Replaces the first (or last) occurrence of from with to (same length, so offsets stay valid).
std::vector<uint8_t> patched(std::vector<uint8_t> b, const std::string& from, const std::string& to,
                             bool last = false) {
  const std::string s(b.begin(), b.end());
  const size_t at = last ? s.rfind(from) : s.find(from);
  if (at == std::string::npos || from.size() != to.size()) throw std::logic_error("no " + from);
  std::copy(to.begin(), to.end(), b.begin() + static_cast<std::ptrdiff_t>(at));
  return b;
}

TEST(TesseraPt, EditedProgramsAndArchives) {
  const std::vector<uint8_t> good = le::testmedia::readBytes(kTorch + "blend8_plain_dict.pt");
  // A second tensor named like the first: ambiguous, wherever it is set.
  EXPECT_EQ(loadError(patched(good, "cand.2.bias", "cand.0.bias")), "teeth: head .pt names 'cand.0.bias' 2 times — ambiguous");
  // A renamed tensor is simply absent.
  EXPECT_EQ(loadError(patched(good, "cand.2.bias", "cand.2.bixs")), "teeth: head .pt lacks 'cand.2.bias'");
  // A global that is only read is harmless; calling it is refused.
  EXPECT_EQ(loadError(patched(good, "_rebuild_tensor_v2", "_rebuild_parameter")),
            "teeth: head .pt calls torch._utils _rebuild_parameter — this reader refuses code it does not model");
  EXPECT_EQ(loadError(patched(good, "data/2", "data/x", true)), "teeth: head storage 2 missing");
  EXPECT_EQ(loadError(patched(good, "storage", "storbge")), "teeth: unexpected persistent id in head .pt");
  EXPECT_EQ(loadError(patched(good, "data.pkl", "data.pkx", true)), "teeth: head .pt has no data.pkl");
  std::vector<uint8_t> cut = good;
  cut.resize(cut.size() - 22);  // the end record gone
  EXPECT_EQ(loadError(cut), "teeth: head .pt has no zip EOCD");
  EXPECT_EQ(loadError({}), "teeth: head .pt is not a zip");
}

}  // namespace
