// The ONNX backend test suite (Debian's libonnx-testdata) as an outside oracle for the
// wire-format toolkit: models we did not write, encoded by ONNX's own serializer.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "le/render/le_ort.h"
#include "le/render/onnx_bytes.h"
#include "tests/onnx_ort.h"
#include "tests/onnx_suite.h"
#include "tools/forge/onnx_builder.h"

TEST(OnnxConformance, EveryModelSurvivesANoOpRebuildByteForByte) {
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
  size_t loaded = 0, unloadable = 0;
  for (const std::string& path : models) {
    const std::vector<uint8_t> model = le::forge::readModelBytes(path);
    std::vector<uint8_t> out;
    le::gsRebuild(model, le::GsGraphEdit(), out);
    ASSERT_TRUE(out == model) << path;  // the rebuild keeps every byte of what it does not edit
    // The rebuilt model loads wherever the original does.
    const bool ok = loads(out);
    EXPECT_TRUE(ok || !loads(model)) << path << ": the rebuilt model fails to load";
    ++(ok ? loaded : unloadable);
  }
  std::printf("[onnx suite] %zu models rebuilt byte-identical; %zu load, %zu do not load in either form\n",
              models.size(), loaded, unloadable);
  EXPECT_GT(loaded, models.size() * 3 / 4);
}
