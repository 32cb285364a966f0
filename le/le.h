/* le_core: real-time talking-head rendering engine, flat C interface.
 *
 * Conventions
 * - Every function is callable from C and C++ and never throws.
 * - Failures return null, 0 or -1 and store a message in a per-thread string of the
 *   function's family, read with that family's last-error function (le_last_error for the
 *   context and prior functions). Those strings are never null; "" means no error.
 * - Handles are opaque. Destroy/close functions accept null.
 * - Threads: calls on one handle must not overlap unless a function says otherwise.
 *   Different handles may be used from different threads at once.
 * - Ownership: pointers returned by the library are borrowed; each declaration states
 *   how long they stay valid. Pointers passed in are read during the call only.
 */
#ifndef LE_LE_H
#define LE_LE_H

#include <stddef.h>
#include <stdint.h>

#if defined(LE_BUILDING_CORE)
#define LE_API __attribute__((visibility("default")))
#else
#define LE_API
#endif

#ifdef __cplusplus
namespace le {
/* Keypoint rows per set: 21 keypoints of (x, y, z) float32, 63 values, row-major. */
constexpr int kHostKpRows = 21;
}  // namespace le
extern "C" {
#endif

/* Engine context over one bundle: manifest, identity tables, drive track, paste compositor and
 * a cursor over the drive video. Calls on one context must not overlap. */
typedef struct le_ctx le_ctx;
/* Reader of a bundle's video warp prior, without a context. May be read from several threads. */
typedef struct le_prior le_prior;

/* Context family error: the calling thread's last message of the context and prior
 * functions. Owned by the library, valid until the next call of that family on this thread. */
LE_API const char* le_last_error(void);

/* Always 21: keypoint rows per keypoint set. */
LE_API int le_host_kp_rows(void);

/* Opens a context on bundle_dir (a bundle directory or ".imx" container). model_key picks the
 * director model "model_<key>.onnx" for the first render. n_threads < 1 takes the engine's
 * default budget. ep: execution-provider request for the renderer; null means "". Returns a
 * context owned by the caller (free with le_destroy), or null with le_last_error() set; a
 * failure leaves nothing allocated. The strings are read during the call only. */
LE_API le_ctx* le_create(const char* bundle_dir, const char* model_key, int n_threads,
                         const char* ep);
/* Releases the context and everything it owns (null is ignored). Every pointer the context
 * returned becomes invalid. */
LE_API void le_destroy(le_ctx* ctx);

/* Bundle geometry; 0 for a null context. Do not touch the error string. */
LE_API int le_nt(const le_ctx* ctx);           /* identity (source) frames NT */
LE_API int le_width(const le_ctx* ctx);        /* full frame W */
LE_API int le_height(const le_ctx* ctx);       /* full frame H */
LE_API int le_crop(const le_ctx* ctx);         /* face crop side */
LE_API int le_drive_frames(const le_ctx* ctx); /* frames of the idle drive track */

/* Copies full frame si (0 <= si < NT, W*H*3 RGB bytes) into out (caller-owned, out_bytes >=
 * W*H*3) and pastes crop into it: crop is three planes (R, G, B) of crop*crop floats in [0, 1]
 * (read during the call). Returns 1, or 0 with le_last_error() set (out may then hold the
 * unpasted frame). */
LE_API int le_paste_crop(le_ctx* ctx, int si, const float* crop, uint8_t* out, size_t out_bytes);

/* Full frame si of the drive video (W*H*3 RGB), never pasted into. Owned by the context's
 * cursor: it survives the next 11 frame reads of this context in play order; a jump elsewhere
 * or le_destroy may invalidate it sooner. Null on failure, with le_last_error() set. */
LE_API const uint8_t* le_target_frame(le_ctx* ctx, int si);

/* Resolves bundle (a bundle directory or an ".imx" container, unwrapped once beside it or
 * under LE_IMX_UNWRAP_ROOT) to the bundle directory, written with its terminating zero into
 * out (cap bytes, caller-owned). Returns 1, or -1 on failure with out[0] = 0 (null arguments
 * and cap = 0 store no message). Safe to call from several threads at once. */
LE_API int le_bundle_resolve_handle(const char* bundle, char* out, size_t cap);

/* Writes the path of member (a canonical member name such as "P.f16"; a newer alternative
 * file name is used when only that exists) inside the resolved bundle into out (cap bytes,
 * caller-owned). Returns 1 when that file can be opened, 0 when it cannot (the path is still
 * written), -1 on failure with out[0] = 0. */
LE_API int le_bundle_resolve_member(const char* bundle, const char* member, char* out, size_t cap);

/* Opens the video warp prior of bundle_dir (read during the call) with a cursor that decodes
 * lookahead frames ahead (< 1: 2) and keeps history frames behind (< 0: 0). Returns a handle
 * owned by the caller (free with le_prior_close), or null with le_last_error() set. */
LE_API le_prior* le_prior_open(const char* bundle_dir, int lookahead, int history);
/* Bytes of one row: three planes of crop*crop binary16 (6*crop*crop); 0 for null. */
LE_API size_t le_prior_row_bytes(const le_prior* prior);
/* Name of the decoding backend, owned by the handle and valid until le_prior_close; "" for
 * null. */
LE_API const char* le_prior_backend(const le_prior* prior);
/* Copies prior row `row` (0 <= row < NT) into out (caller-owned, cap bytes >= the row bytes).
 * Returns 1, or 0 with le_last_error() set. After a decode failure every later read fails. */
LE_API int le_prior_row(le_prior* prior, int row, uint16_t* out, size_t cap);
/* Stops the handle's decoder and releases it (null is ignored). */
LE_API void le_prior_close(le_prior* prior);

/* Renders the face crop of source frame si (0 <= si < NT) from the source keypoints xs and
 * the driven keypoints xd (63 floats each, read during the call). The director is loaded on the
 * first render. Returns three planes (R, G, B) of crop*crop floats, owned by the context and
 * valid until its next render; null on failure, with le_last_error() set. */
LE_API const float* le_render_kp_crop(le_ctx* ctx, int si, const float* xs, const float* xd);
/* As le_render_kp_crop with drive frame i (0 <= i < drive frames): its source index and its
 * rows of the drive track's keypoints. Same ownership. */
LE_API const float* le_render_drive_crop(le_ctx* ctx, int i);
/* Pastes the last rendered crop into full frame si. Returns W*H*3 RGB bytes owned by the
 * context, valid until its next le_paste_last; null on failure (also before any render). */
LE_API const uint8_t* le_paste_last(le_ctx* ctx, int si);
/* le_render_kp_crop, then le_paste_last(si) written to out as RGBA with alpha 255: out is
 * caller-owned, out_bytes >= W*H*4. Returns 1, or 0 (a null ctx stores no message). */
LE_API int le_render_kp_rgba(le_ctx* ctx, int si, const float* xs, const float* xd, uint8_t* out,
                             size_t out_bytes);
/* le_render_drive_crop(i), pasted into the full frame of frame i's source index, as RGBA. */
LE_API int le_render_drive_rgba(le_ctx* ctx, int i, uint8_t* out, size_t out_bytes);

/* --- Mouth-interior borrow members ----------------------------------------------------------
 * A bundle carries the borrow only with all four members: the donor bank track, its JSON
 * sidecar, the blend head's weights and its config. These functions report failures through
 * an error buffer the caller supplies (err, err_cap): when err is non-null and err_cap > 0, at
 * most err_cap - 1 bytes of the message and a terminating zero are written. */
typedef struct le_tessera_carriage le_tessera_carriage;
typedef struct le_tessera_members le_tessera_members;

/* 4: the member slots. */
LE_API int le_tessera_slot_count(void);
/* "bank_track", "bank_sidecar", "head_weights", "head_config" for index 0..3; null otherwise.
 * Static text. */
LE_API const char* le_tessera_slot_key(int index);

/* What bundle_dir (a directory or container) carries. Never fails on a missing or unreadable
 * manifest; a bundle that cannot be inspected reads as carrying nothing. Null for a null
 * directory or when memory runs out. Close with le_tessera_carriage_close (null is ignored). */
LE_API le_tessera_carriage* le_tessera_carriage_open(const char* bundle_dir);
LE_API void le_tessera_carriage_close(le_tessera_carriage* c);
/* 1 when all four members are present / when the manifest declares a "tessera" object. */
LE_API int le_tessera_carriage_complete(const le_tessera_carriage* c);
LE_API int le_tessera_carriage_declared(const le_tessera_carriage* c);
/* Resolved path of a slot; "" for a null argument or an unknown key. Kept in the handle, valid
 * until the next call on it. */
LE_API const char* le_tessera_carriage_path(le_tessera_carriage* c, const char* slot_key);
/* The missing slot keys in slot order; null when index is out of range. Valid until close. */
LE_API int le_tessera_carriage_missing_count(const le_tessera_carriage* c);
LE_API const char* le_tessera_carriage_missing(const le_tessera_carriage* c, int index);

/* Reads and validates the four members of bundle_dir. Null with the refusal in err. Every
 * pointer below lives in the handle until le_tessera_members_close (null is ignored). */
LE_API le_tessera_members* le_tessera_members_open(const char* bundle_dir, char* err, size_t err_cap);
LE_API void le_tessera_members_close(le_tessera_members* m);
/* Donor count (1..1024), 0 for null. */
LE_API int le_tessera_members_n_donors(const le_tessera_members* m);
/* 2*n (x, y) donor centres; the canonical (x, y); n apertures. Null when empty or for null. */
LE_API const double* le_tessera_members_cent(const le_tessera_members* m);
LE_API const double* le_tessera_members_c_canon(const le_tessera_members* m);
LE_API const double* le_tessera_members_aperture(const le_tessera_members* m);
/* The twelve geometry-stamp values: canvas_w, canvas_h, window_x0, window_y0, window_w,
 * window_h, pad, band_r0, band_r1, band_c0, band_c1, shift_margin. */
LE_API const int32_t* le_tessera_members_stamp(const le_tessera_members* m);
/* The head-weights file's bytes (null when empty) and their count. */
LE_API const uint8_t* le_tessera_members_head_pt(const le_tessera_members* m);
LE_API uint32_t le_tessera_members_head_pt_len(const le_tessera_members* m);
/* Texts; "" for null. */
LE_API const char* le_tessera_members_head_json(const le_tessera_members* m);
LE_API const char* le_tessera_members_manifest_json(const le_tessera_members* m);
LE_API const char* le_tessera_members_bank_track_path(const le_tessera_members* m);
LE_API const char* le_tessera_members_bank_container(const le_tessera_members* m);
LE_API const char* le_tessera_members_bank_codec(const le_tessera_members* m);
LE_API const char* le_tessera_members_bank_pix_fmt(const le_tessera_members* m);
LE_API const char* le_tessera_members_bank_packing(const le_tessera_members* m);
/* Stored donor patch size in pixels, and n * band_h * band_w * 3; 0 for null. */
LE_API int le_tessera_members_band_w(const le_tessera_members* m);
LE_API int le_tessera_members_band_h(const le_tessera_members* m);
LE_API uint64_t le_tessera_members_band_bytes(const le_tessera_members* m);
/* Copies patch i of track_bytes (patches in track order, band_bytes long) to patch
 * track_order[i] of donor_bytes (same size). 0 on success, 1 with the message in err. */
LE_API int le_tessera_members_reorder(const le_tessera_members* m, const uint8_t* track_bytes,
                                      uint8_t* donor_bytes, char* err, size_t err_cap);

/* Runs the borrow offline over n_frames rendered crops. The bank arguments are those of
 * le_utt_tessera_attach (without the manifest). crops: n_frames RGB crops of canvas_w x canvas_h
 * x 3 bytes (the stamp's canvas); masks: n_frames delivery masks of canvas_w x canvas_h bytes;
 * shifts: n_frames (dy, dx) pairs of int32, or null; a pair whose dy is -10000 (and every pair
 * without a table) lets the pass derive that frame's mouth shift from its mask. Frame i's window
 * (window_h x window_w x 3 bytes) goes to out_windows + i * window_h * window_w * 3 and its flag
 * to out_flags[i]: 0 written, 1 skipped (the window is then left untouched). Inputs are read
 * during the call, outputs caller-owned. Returns 0, or 1 with the message in err. Reentrant. */
LE_API int le_tessera_run_shift(const uint8_t* band, int n_donors, const double* cent, const double* c_canon,
                                const double* aperture, const int32_t* stamp, const uint8_t* head_pt,
                                uint32_t head_len, const char* head_json, const uint8_t* crops,
                                const uint8_t* masks, const int32_t* shifts, int n_frames,
                                uint8_t* out_windows, uint32_t* out_flags, char* err, size_t err_cap);
/* le_tessera_run_shift without a shift table. */
LE_API int le_tessera_run(const uint8_t* band, int n_donors, const double* cent, const double* c_canon,
                          const double* aperture, const int32_t* stamp, const uint8_t* head_pt,
                          uint32_t head_len, const char* head_json, const uint8_t* crops,
                          const uint8_t* masks, int n_frames, uint8_t* out_windows, uint32_t* out_flags,
                          char* err, size_t err_cap);

#ifdef __cplusplus
}  /* extern "C" */

#include <string>
#include <vector>

namespace le::tessera {
/* Decodes a whole bank track held in memory (data, len) into n donor patches of
 * band_w x band_h RGB, frame k written to donor track_order[k]: n * band_h * band_w * 3 bytes.
 * Strict: any disagreement of size, frame count or order table throws std::runtime_error. */
LE_API std::vector<uint8_t> decodeBankTrack(const uint8_t* data, uint64_t len, int32_t n, int32_t band_h,
                                            int32_t band_w, const std::vector<int32_t>& track_order);
/* "libavcodec <build version> / <configuration of the loaded libavcodec>". */
LE_API std::string bankDecoderBuild();
}  // namespace le::tessera
#endif

#endif /* LE_LE_H */
