// Flat interface of the borrow in service: attaching it to an utterance pipeline, its status,
// and the offline run over a batch of crops. Messages go to the caller's buffer.
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "le/le.h"
#include "le/le_a2x.h"
#include "le/le_capi.h"
#include "le/le_error.h"
#include "le/pipeline/le_utt_borrow.h"
#include "le/tessera/le_tessera.h"
#include "le/tessera/le_tessera_stream.h"

namespace {

using le::err::copyOut;
using le::tessera::BankData;
using le::tessera::GeometryStamp;

GeometryStamp stampOf(const int32_t* v) {
  GeometryStamp s;
  for (int i = 0; i < GeometryStamp::kCount; ++i) s.at(i) = v[i];
  s.validate();
  return s;
}

// The bank arrays copied out of the caller's memory; the stamp must be valid.
BankData bankOf(const uint8_t* band, int n, const double* cent, const double* c_canon, const double* aperture,
                const GeometryStamp& stamp) {
  BankData b;
  b.band.assign(band, band + size_t(n) * size_t(stamp.bandH()) * size_t(stamp.bandW()) * 3);
  b.cent.assign(cent, cent + 2 * size_t(n));
  b.c_canon = {c_canon[0], c_canon[1]};
  b.aperture.assign(aperture, aperture + size_t(n));
  b.stamp = stamp;
  b.n_donors = n;
  return b;
}

std::unique_ptr<le::tessera::StreamBorrow> buildAttachment(le_utt& utt, const uint8_t* band, int n,
                                                           const double* cent, const double* c_canon,
                                                           const double* aperture, const int32_t* stampValues,
                                                           const uint8_t* head_pt, uint32_t head_len,
                                                           const char* head_json, const char* manifest_json,
                                                           std::string& which) {
  const GeometryStamp stamp = stampOf(stampValues);
  const le_ctx& ctx = le::utt::context(utt);
  const int crop = ctx.manifest.crop;
  if (stamp.canvas_w != crop || stamp.canvas_h != crop)
    throw std::runtime_error("bank canvas " + std::to_string(stamp.canvas_w) + "x" + std::to_string(stamp.canvas_h) +
                             " != this bundle's render crop " + std::to_string(crop));
  BankData bank = bankOf(band, n, cent, c_canon, aperture, stamp);
  le::tessera::ServeConfig config = le::tessera::ServeConfig::fromHeadMemberJson(head_json);
  le::tessera::HeadWeights head = le::tessera::loadHeadPt(head_pt, head_len);
  const std::vector<float>& xs = le::utt::targets(utt);
  const int nt = ctx.manifest.NT;
  if (xs.size() != size_t(nt) * 63)
    throw std::runtime_error(
        "xs_target.bin is absent or the wrong length, so this bundle's corpus pi frame cannot be identified — "
        "refusing to arm the borrow against the manifest's compose-field geometry");
  const le::tessera::UnifiedPi pi =
      le::tessera::UnifiedPi::corpusFromManifestJson(manifest_json, crop, xs.data(), nt, c_canon, &which);
  return std::make_unique<le::tessera::StreamBorrow>(std::move(bank), std::move(head), std::move(config), pi,
                                                     ctx.manifest.lip_template);
}

// One result into the next output slot of the offline run.
void record(const le::tessera::FrameResult& r, size_t slot, size_t windowBytes, uint8_t* windows, uint32_t* flags) {
  if (!r.skip) std::memcpy(windows + slot * windowBytes, r.window.data(), windowBytes);
  flags[slot] = r.skip ? 1u : 0u;
}

}  // namespace

extern "C" {

int le_utt_tessera_attach(le_utt* utt, const uint8_t* band, int n_donors, const double* cent, const double* c_canon,
                          const double* aperture, const int32_t* stamp, const uint8_t* head_pt, uint32_t head_len,
                          const char* head_json, const char* manifest_json, char* err, size_t err_cap) {
  copyOut(err, err_cap, "");
  if (!utt) {
    copyOut(err, err_cap, "le_utt_tessera_attach: null session");
    return 1;
  }
  if (!band || !cent || !c_canon || !aperture || !stamp || !head_pt || !head_json || !manifest_json) {
    copyOut(err, err_cap, "le_utt_tessera_attach: a required member is null — this ABI has no partial-attach state");
    return 1;
  }
  if (n_donors < 1) {
    copyOut(err, err_cap, "le_utt_tessera_attach: n_donors <= 0");
    return 1;
  }
  return le::err::guardCopy(
      err, err_cap, "le_utt_tessera_attach: unknown failure", 1,
      [&] {
        std::string which;
        auto pass = buildAttachment(*utt, band, n_donors, cent, c_canon, aperture, stamp, head_pt, head_len,
                                    head_json, manifest_json, which);
        le::utt::attachBorrow(*utt, std::move(pass), which);
        return 0;
      },
      "le_utt_tessera_attach: ");
}

int le_utt_tessera_stats(le_utt* utt, uint64_t* written, uint64_t* skipped, char* reason, size_t reason_cap) {
  if (!utt) return 0;
  try {
    const le::utt::BorrowReport r = le::utt::borrowReport(*utt);
    if (written) *written = r.written;
    if (skipped) *skipped = r.skipped;
    copyOut(reason, reason_cap, r.reason);
    return !r.attached ? 0 : r.failed ? -1 : 1;
  } catch (...) {
    return 0;
  }
}

int le_utt_tessera_synth_w(le_utt* utt, double* mean, double* max, uint64_t* frames) {
  if (!utt) return 0;
  try {
    const le::utt::BorrowReport r = le::utt::borrowReport(*utt);
    if (!r.attached || r.synthFrames < 1) return 0;
    if (mean) *mean = r.synthSum / double(r.synthFrames);
    if (max) *max = r.synthMax;
    if (frames) *frames = uint64_t(r.synthFrames);
    return 1;
  } catch (...) {
    return 0;
  }
}

int le_utt_tessera_geometry(le_utt* utt, char* out, size_t cap) {
  if (!utt || !out) return 0;
  try {
    const le::utt::BorrowReport r = le::utt::borrowReport(*utt);
    copyOut(out, cap, r.attached ? r.geometry : std::string());
    return r.attached ? 1 : 0;
  } catch (...) {
    copyOut(out, cap, "");
    return 0;
  }
}

int le_tessera_run_shift(const uint8_t* band, int n_donors, const double* cent, const double* c_canon,
                         const double* aperture, const int32_t* stamp, const uint8_t* head_pt, uint32_t head_len,
                         const char* head_json, const uint8_t* crops, const uint8_t* masks, const int32_t* shifts,
                         int n_frames, uint8_t* out_windows, uint32_t* out_flags, char* err, size_t err_cap) {
  copyOut(err, err_cap, "");
  return le::err::guardCopy(err, err_cap, "teeth: unknown failure", 1, [&] {
    if (!band || !cent || !c_canon || !aperture || !stamp || !head_pt || !head_json ||
        (n_frames > 0 && (!crops || !masks || !out_windows || !out_flags)))
      throw std::runtime_error("teeth: a required argument is null");
    if (n_donors < 1) throw std::runtime_error("teeth: n_donors <= 0");
    if (n_frames < 0) throw std::runtime_error("teeth: n_frames < 0");
    const GeometryStamp st = stampOf(stamp);
    le::tessera::TeethPass pass(bankOf(band, n_donors, cent, c_canon, aperture, st),
                                le::tessera::loadHeadPt(head_pt, head_len),
                                le::tessera::ServeConfig::fromHeadMemberJson(head_json));
    const size_t canvas = size_t(st.canvas_w) * size_t(st.canvas_h);
    const size_t windowBytes = size_t(st.window_w) * size_t(st.window_h) * 3;
    size_t results = 0;
    le::tessera::FrameResult r;
    for (int i = 0; i < n_frames; ++i) {
      le::tessera::Shift s;
      const bool given = shifts && shifts[2 * i] != -10000;
      if (given) s = {shifts[2 * i], shifts[2 * i + 1]};
      if (pass.push(i, crops + size_t(i) * canvas * 3, masks + size_t(i) * canvas, given ? &s : nullptr, r))
        record(r, results++, windowBytes, out_windows, out_flags);
    }
    if (pass.flush(r)) {
      if (results < size_t(n_frames)) record(r, results, windowBytes, out_windows, out_flags);
      ++results;
    }
    if (results != size_t(n_frames))
      throw std::runtime_error("teeth: emitted " + std::to_string(results) + " of " + std::to_string(n_frames) +
                               " frames");
    return 0;
  });
}

int le_tessera_run(const uint8_t* band, int n_donors, const double* cent, const double* c_canon,
                   const double* aperture, const int32_t* stamp, const uint8_t* head_pt, uint32_t head_len,
                   const char* head_json, const uint8_t* crops, const uint8_t* masks, int n_frames,
                   uint8_t* out_windows, uint32_t* out_flags, char* err, size_t err_cap) {
  return le_tessera_run_shift(band, n_donors, cent, c_canon, aperture, stamp, head_pt, head_len, head_json, crops,
                              masks, nullptr, n_frames, out_windows, out_flags, err, err_cap);
}

}  // extern "C"
