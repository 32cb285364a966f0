// The teeth retrieval pass: for every rendered face crop, find the bank donors whose mouth
// interior best matches (a pooled half-precision pass over the whole bank, then an exact re-rank
// of the best), pick candidates with one frame of look-ahead and a short memory, blend them with
// the head's per-pixel weights and compose the borrow window.
//
// Pixels are those of the square compose canvas (the crop) and of the window and band
// rectangles of the GeometryStamp. Crops are canvas_w x canvas_h RGB bytes (rows packed),
// delivery masks canvas_w x canvas_h bytes. Windows are window_h x window_w RGB bytes.
//
// Odd window sizes: the head works on the floor(window/2) half-resolution grid (2x2 block means
// of the first 2*floor(window/2) rows and columns); its bilinear x2 upsampling is evaluated over
// the whole window, so an odd last row or column takes the logits of the last half-resolution
// row or column (its neighbours clamp there). Weights, blend and compose cover the whole window.
//
// Thread rules: one TeethPass is driven by one thread at a time; inside a call the per-donor and
// per-candidate loops run on that thread's worker pool (le::pool). The difference table is
// process-wide, built once.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "le/tessera/le_bundle_tessera.h"
#include "le/tessera/le_tessera_pt.h"

namespace le::tessera {

// The head-config member's serving parameters.
struct ServeConfig {
  int32_t kshort = 0;         // donors re-ranked exactly
  double aperture_tol = 0.0;  // relative aperture tolerance against the best donor
  int32_t cut = 0;            // re-ranked donors examined for selection
  int32_t K = 0;              // candidates per frame
  int32_t hysteresis = 0;     // candidates remembered for the next frame
  int32_t lookahead = 0;      // donors taken from the next frame
  double luma_min = 100.0;
  double redness_max = 25.0;
  int32_t teeth_min_px = 32;
  double weight_decay = 0.6;
  bool use_lookahead = true;

  // Parses the head-config JSON ("retrieval" and "temporal" objects, optional
  // "decode"."envelope_clamp_255" == 12). Throws std::runtime_error with the member's refusals,
  // and refuses kshort, cut or K below 1 (validate()).
  static ServeConfig fromHeadMemberJson(const std::string& text);
  // Throws "teeth: head config retrieval.<key>=<v> is below 1 — ..." for kshort, cut or K < 1.
  void validate() const;
};

// What a pass is built from. band holds n_donors stored patches of stamp.bandH() x
// stamp.bandW() RGB bytes in donor order; cent is (x, y) per donor.
struct BankData {
  std::vector<uint8_t> band;
  std::vector<double> cent;
  std::array<double, 2> c_canon{};
  std::vector<double> aperture;
  GeometryStamp stamp;
  int32_t n_donors = 0;
};

// One emitted frame.
struct FrameResult {
  std::vector<uint8_t> window;  // window_h x window_w x 3; empty when skipped
  bool skip = false;            // nothing to write back
  std::string reason;           // "empty-pi", "shift-out-of-range" when skipped
  int32_t candidates = 0;       // candidates blended
  float synth_mean = 0.0f;      // synthesis weight over the blend region (always 0: the
  float synth_max = 0.0f;       //   synthesis branch is loaded but not evaluated)
};

// The mouth's move from the bank's canonical position, in canvas pixels.
struct Shift {
  int32_t dy = 0, dx = 0;
};

class TeethPass {
 public:
  // A frame waiting for its look-ahead.
  struct Pending {
    int32_t frame_index = 0;
    std::vector<uint8_t> crop;  // canvas RGB
    std::vector<uint8_t> mask;  // canvas delivery mask
    std::vector<int32_t> donors;
    int32_t dy = 0, dx = 0;
    bool ok = false;
    std::string reason;
  };

  // Per-query scratch of retrievePrepare and the two passes.
  struct RetrieveWork {
    std::vector<float> weights;         // teeth weights over the shifted window, window_h x window_w
    std::vector<uint16_t> pooled_query;  // 3 planes of pooled_h x pooled_w halves
    std::vector<uint16_t> pooled_w;      // pooled_h x pooled_w halves
    float S = 1.0f;                      // weight sum, at least 1
    float S_p = 0.0001f;                 // pooled weight sum, at least 0.0001
    int32_t row_lo = 0, row_hi = 0;      // window rows holding a non-zero weight
    int32_t wy0 = 0, wx0 = 0;            // window origin used (shifted), canvas row and column
  };

  // Running statistics of the synthesis weight over emitted frames with a blend region.
  struct Stats {
    int64_t frames = 0;
    int64_t pixels = 0;
    double sum_mean = 0.0;
    double max = 0.0;
  };

  // Wall-clock seconds of the stages of the last push/flush (0 for a stage that did not run).
  struct StageTimes {
    double prepare = 0, pooled = 0, exact = 0, select = 0;  // retrieval of the pushed frame
    double head = 0, compose = 0;                            // emit of the held frame
  };

  // Validates the stamp, the sizes and the config; builds the pooled index in parallel.
  TeethPass(BankData bank, HeadWeights head, ServeConfig config);
  ~TeethPass();
  TeethPass(TeethPass&&) noexcept;
  TeethPass& operator=(TeethPass&&) noexcept;
  TeethPass(const TeethPass&) = delete;
  TeethPass& operator=(const TeethPass&) = delete;

  // Pushes frame frame_index (crop and delivery mask of the canvas; shift null to derive it from
  // the mask). Returns true when result was filled, for the frame pushed before this one.
  bool push(int32_t frame_index, const uint8_t* crop_rgb, const uint8_t* delivery_mask, const Shift* shift,
            FrameResult& result);
  // Emits the held frame, if any, with no look-ahead. Returns whether result was filled.
  bool flush(FrameResult& result);
  // Whether a frame is held back waiting for the next push.
  bool holding() const;

  // The K donors selected for a crop with the given shift.
  std::vector<int32_t> retrieve(const uint8_t* crop_rgb, const uint8_t* mask, int32_t dy, int32_t dx);
  // Teeth weights (updating the decayed previous weights), pooled query and sums.
  void retrievePrepare(const uint8_t* crop_rgb, const uint8_t* mask, int32_t dy, int32_t dx,
                       RetrieveWork& work);
  // coarse[d] for every donor (resized to n_donors).
  void coarsePass(const RetrieveWork& work, std::vector<float>& coarse) const;
  // exact[d] for the first min(kshort, n) donors in stable ascending coarse order; the others are
  // left at +infinity (exact is resized to n_donors).
  void exactPass(const uint8_t* crop_rgb, const RetrieveWork& work, const std::vector<float>& coarse,
                 std::vector<float>& exact) const;
  // K donors from the two passes' distances (both indexed by donor).
  std::vector<int32_t> retrieveSelect(const std::vector<float>& coarse, const std::vector<float>& exact) const;

  // The given shift, or the one of the centroid of mask bytes >= 128; false with reason
  // "empty-pi" or "shift-out-of-range".
  bool deriveShift(const uint8_t* mask, const Shift* shift, int32_t& dy, int32_t& dx, std::string& reason) const;

  // Donor d's window in the canonical frame: 3 planes of window_h x window_w halves (value/255).
  void canonicalWindowF16(int32_t d, uint16_t* out) const;
  // Rows r0..r1-1 of it, written at their place in out.
  void canonicalWindowF16Rows(int32_t d, uint16_t* out, int32_t r0, int32_t r1) const;
  // The donors' windows aligned to a frame of shift (dy, dx): window_h x window_w x 3 bytes each.
  std::vector<uint8_t> gatherWindowsU8(const std::vector<int32_t>& donors, int32_t dy, int32_t dx) const;
  // E_d straight from the stored bytes: sum over the shifted window's weighted pixels of
  // h(dist) * w, dist from the difference table.
  float exactTermFromBand(int32_t d, const uint8_t* crop_rgb, const RetrieveWork& work) const;
  // T[a * 256 + b] = |h(h(b/255) - h(a/255))|.
  static const float* dTable();

  // The head on n candidates: donor_planes n x 3 x window_h x window_w floats, query_planes
  // 3 x window_h x window_w, blend_region window_h x window_w bytes. blend_out receives the
  // weighted donors (3 planes) inside the region and the query outside; weights_out the per-pixel
  // softmax weights, n planes of window_h x window_w. n = 0 leaves the query everywhere.
  void headForward(const float* donor_planes, int n, const float* query_planes, const uint8_t* blend_region,
                   float* blend_out, float* weights_out);

  // Emits one held frame with the look-ahead donors (null for none).
  void emit(const Pending& pending, const std::vector<int32_t>* next_donors, FrameResult& result);

  // Geometry and state.
  const GeometryStamp& stamp() const;
  const ServeConfig& config() const;
  const HeadWeights& head() const;
  int32_t nDonors() const;
  int32_t canvasW() const;
  int32_t canvasH() const;
  int32_t windowH() const;
  int32_t windowW() const;
  int32_t pooledH() const;
  int32_t pooledW() const;
  const std::array<double, 2>& cCanon() const;
  const std::vector<int32_t>& offsetsY() const;
  const std::vector<int32_t>& offsetsX() const;
  const std::vector<double>& aperture() const;
  // n_donors x 3 x pooledH() x pooledW() halves.
  const std::vector<uint16_t>& pooledIndex() const;
  // window_h x window_w, 1 inside the band.
  const std::vector<uint8_t>& bandMask() const;
  // The last emitted frame's kept candidates and its index (-2 before any).
  const std::vector<int32_t>& keptDonors() const;
  int32_t keptFrameIndex() const;
  const Stats& stats() const;
  const StageTimes& lastTimes() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace le::tessera
