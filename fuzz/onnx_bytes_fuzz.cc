// The wire-format toolkit on arbitrary bytes: readers and the rebuilder must either succeed or
// throw one of the three wire-format errors, never read outside the buffer.
#include <cstdlib>
#include <cstring>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "le/render/onnx_bytes.h"

namespace {

void check(bool ok) {
  if (!ok) std::abort();
}

void walkGraph(le::GsSlice graph) {
  std::vector<le::GsNodeInfo> nodes;
  std::set<std::string> inits, inputs;
  le::gsReadGraph(graph, nodes, inits, inputs);
  for (const le::GsNodeInfo& n : nodes) {
    le::hcReadAttrs(n.bytes);
    le::GsSlice t = le::hcConstValue(n.bytes);
    std::vector<int64_t> dims;
    std::vector<float> values;
    le::hcTensorDims(t, dims);
    le::hcTensorFloats(t, values);
  }
  std::vector<le::WdNode> wd;
  le::wdReadNodes(graph, wd);
  check(wd.size() == nodes.size());
  for (const le::WdNode& n : wd) {
    const le::GsSlice p = le::hcPayload(n.raw);
    check(p.p == n.payload.p && p.n == n.payload.n);
  }
  le::GsReader r(graph);
  le::GsField f;
  while (r.next(f)) {
    if (f.number == le::onnxf::kGraphInitializer && f.wireType == 2) {
      std::vector<int64_t> dims;
      std::vector<float> values;
      le::hcTensorDims(f.payload, dims);
      le::hcTensorFloats(f.payload, values);
    }
  }
  int64_t first, last;
  int rank;
  le::ldInputDims(graph, "P_rgb", first, last, rank);
  for (const std::string& in : inputs) le::ldInputDims(graph, in, first, last, rank);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  // The first byte picks the edit; the rest is the model.
  const uint8_t mode = data[0];
  const std::vector<uint8_t> model(data + 1, data + size);
  try {
    le::PbReader pr(model);
    le::PbField pf;
    size_t fields = 0;
    while (pr.next(pf)) ++fields;

    walkGraph(le::gsGraphOf(model));
    walkGraph(model);  // the same bytes read as a GraphProto

    std::vector<uint8_t> drop(8);
    for (size_t i = 0; i < drop.size(); ++i) drop[i] = uint8_t((mode >> i) & 1);
    const std::string name = "P_rgb";
    const int64_t dims[4] = {1, -1, 64, 0};
    le::GsGraphEdit e;
    e.dropNodes = (mode & 1) ? &drop : nullptr;
    e.dropPrgbInput = (mode & 2) != 0;
    e.keepOnlyPrgbInput = (mode & 4) != 0;
    e.dropOutputs = (mode & 8) != 0;
    if (mode & 16) {
      e.addName = &name;
      e.addDims = (mode & 32) ? dims : nullptr;
      e.addRank = 4;
      e.addField = (mode & 64) ? 12 : 11;
    }
    std::vector<uint8_t> out;
    le::gsRebuild(model, e, out);
    // A rebuild reads back, and a no-op rebuild of it changes nothing.
    std::vector<uint8_t> again;
    le::gsRebuild(out, le::GsGraphEdit(), again);
    check(again == out);
    if (mode == 0) {
      size_t n = 0;
      le::PbReader r2(out);
      while (r2.next(pf)) ++n;
      check(n == fields);
    }
  } catch (const std::runtime_error& err) {
    const char* m = err.what();
    check(std::strcmp(m, "onnx: bad varint") == 0 || std::strcmp(m, "onnx: truncated") == 0 ||
          std::strcmp(m, "onnx: bad wire type") == 0);
  }
  return 0;
}
