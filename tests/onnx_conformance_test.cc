// The ONNX backend test suite (Debian's libonnx-testdata) as an outside oracle for the
// wire-format toolkit: models we did not write, encoded by ONNX's own serializer.
#include <gtest/gtest.h>

#include <cstdio>

#include <algorithm>
#include <string>
#include <vector>

#include "le/render/le_ort.h"
#include "le/render/onnx_bytes.h"
#include "tests/onnx_ort.h"
#include "tests/onnx_suite.h"
#include "tools/forge/onnx_builder.h"

using le::GsField;
using le::GsReader;
using le::GsSlice;

namespace {

// Field-by-field equality: identical bytes, or both decode as messages whose fields are equal
// in order (length-delimited payloads compared recursively the same way).
bool sameMessage(GsSlice a, GsSlice b, int depth = 0) {
  if (a.n == b.n && (a.n == 0 || std::equal(a.begin(), a.end(), b.begin()))) return true;
  if (depth > 64) return false;
  std::vector<GsField> fa, fb;
  try {
    GsReader ra(a), rb(b);
    GsField f;
    while (ra.next(f)) fa.push_back(f);
    while (rb.next(f)) fb.push_back(f);
  } catch (const std::runtime_error&) {
    return false;
  }
  if (fa.size() != fb.size()) return false;
  for (size_t i = 0; i < fa.size(); ++i) {
    if (fa[i].number != fb[i].number || fa[i].wireType != fb[i].wireType || fa[i].value != fb[i].value)
      return false;
    if (fa[i].wireType == 2 && !sameMessage(fa[i].payload, fb[i].payload, depth + 1)) return false;
  }
  return true;
}

}  // namespace

TEST(OnnxConformance, EveryModelSurvivesANoOpRebuild) {
  const std::vector<std::string> models = le::test::onnxSuiteModels();
  if (models.empty()) GTEST_SKIP() << "libonnx-testdata is not installed";
  ASSERT_GT(models.size(), 1000u);

  le::ortApi();
  Ort::Env env(ORT_LOGGING_LEVEL_FATAL, "onnx_conformance");
  Ort::SessionOptions so;
  so.SetIntraOpNumThreads(1);
  so.SetGraphOptimizationLevel(ORT_DISABLE_ALL);

  auto loads = [&](const std::vector<uint8_t>& m) {
    return le::test::ortFailure([&] { Ort::Session(env, m.data(), m.size(), so); }).empty();
  };
  size_t identical = 0, equivalent = 0, loaded = 0, unloadable = 0;
  for (const std::string& path : models) {
    const std::vector<uint8_t> model = le::forge::readModelBytes(path);
    std::vector<uint8_t> out;
    le::gsRebuild(model, le::GsGraphEdit(), out);
    if (out == model) {
      ++identical;
    } else {
      ASSERT_TRUE(sameMessage(out, model)) << path;
      ++equivalent;
    }
    // The rebuilt model loads wherever the original does.
    const bool ok = loads(out);
    EXPECT_TRUE(ok || !loads(model)) << path << ": the rebuilt model fails to load";
    ++(ok ? loaded : unloadable);
  }
  std::printf("[onnx suite] %zu models: %zu byte-identical, %zu equivalent; %zu load, %zu do not load in either form\n",
              models.size(), identical, equivalent, loaded, unloadable);
  EXPECT_GT(loaded, models.size() * 3 / 4);
}
