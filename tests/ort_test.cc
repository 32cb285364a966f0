#include "le/render/le_ort.h"

#include <gtest/gtest.h>

#include <string>

// The runtime we ship must serve the API version the engine is written against.
TEST(Ort, ApiTableAndCpuSession) {
  const OrtApi& api = le::ortApi();
  EXPECT_EQ(&api, &le::ortApi());
  std::string version = OrtGetApiBase()->GetVersionString();
  EXPECT_FALSE(version.empty());
  Ort::Env env(ORT_LOGGING_LEVEL_WARNING, "le_test");
  Ort::MemoryInfo mi = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  float v[4] = {1, 2, 3, 4};
  int64_t shape[2] = {2, 2};
  Ort::Value t = Ort::Value::CreateTensor<float>(mi, v, 4, shape, 2);
  EXPECT_EQ(t.GetTensorTypeAndShapeInfo().GetElementCount(), 4u);
}
