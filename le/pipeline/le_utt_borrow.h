// What the borrow's flat functions need of a running utterance pipeline: the context it renders
// with, its target keypoints, and the attachment held under its main lock.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "le/le_a2x.h"
#include "le/le_capi.h"

namespace le::tessera {
class StreamBorrow;
}

namespace le::utt {

// The attachment as the status functions report it.
struct BorrowReport {
  bool attached = false, failed = false;
  uint64_t written = 0, skipped = 0;
  std::string reason, geometry;
  int64_t synthFrames = 0;
  double synthSum = 0, synthMax = 0;
};

const le_ctx& context(const le_utt& u);
// NT x 63 floats of the keypoint source directory's xs_target.bin, or empty.
const std::vector<float>& targets(const le_utt& u);
// Replaces the borrow under the main lock, clears its counters and failure, and starts the borrow
// stage's thread when the paste runs on its own thread and none runs yet.
void attachBorrow(le_utt& u, std::unique_ptr<le::tessera::StreamBorrow> pass, const std::string& geometry);
BorrowReport borrowReport(le_utt& u);

}  // namespace le::utt
