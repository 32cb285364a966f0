/* le_core: flat C interface of the audio families (le_a2x, le_fca, le_motion, le_stream,
 * le_utt). Same conventions as le/le.h. */
#ifndef LE_LE_A2X_H
#define LE_LE_A2X_H

#include "le/le.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ==== le_a2x: audio-to-expression stream and speech encoders ============================ */

/* Speech to keypoints for one bundle's person. Push 16 kHz mono float audio as it arrives and
 * pull, per 40 ms video frame (640 samples), a source-frame index into the identity, that
 * frame's target keypoints and the driven keypoints (target + delta): exactly what
 * le_render_kp_crop takes. Frames become pullable in blocks of 8 (5120 samples) while the
 * utterance is open, minus the frames the encoder still needs future audio for; after
 * le_a2x_finish every frame of the audio is pullable.
 * The speech encoder ($W2V_ONNX, or the windowed pair beside it) is loaded once per process and
 * shared by every handle; the first successful load wins, whatever path later handles name.
 * A handle is used by one thread at a time; different handles may run on different threads at
 * once. Errors: le_a2x_last_error(), per thread, valid until the next le_a2x call on it. */
typedef struct le_a2x le_a2x;

/* The calling thread's last le_a2x message; never null, "" means no error. Owned by the
 * library, valid until the next le_a2x call on this thread. */
LE_API const char* le_a2x_last_error(void);

/* Opens a stream over bundle_dir (a bundle directory or ".imx" container, read during the
 * call): "a2x_meta.json", "a2x_pos.f32", "a2x_norm.f32", the targets, "a2x_enc_stream.onnx" and
 * "a2x_dec.onnx". $W2V_ONNX must name the speech encoder. threads < 1 or beyond the engine's
 * budget takes the budget. Returns a handle owned by the caller (free with le_a2x_destroy), or
 * null with le_a2x_last_error() set; a failure leaves nothing allocated. The stream starts as
 * after le_a2x_reset(h, 0, 1, 1). */
LE_API le_a2x* le_a2x_create(const char* bundle_dir, int threads);
/* Releases the handle (null is ignored). The shared speech encoder stays loaded. */
LE_API void le_a2x_destroy(le_a2x* h);

/* Appends n samples (float32, 16 kHz mono, read during the call) to the utterance. n < 1 is a
 * no-op. Returns 1; 0 for a null handle or null samples with n > 0. */
LE_API int le_a2x_push(le_a2x* h, const float* samples, int n);
/* Closes the utterance: its frame count becomes ceil(samples / 640) and no frame is held back
 * for look-ahead. */
LE_API void le_a2x_finish(le_a2x* h);
/* Frames of the utterance: -1 until le_a2x_finish, then ceil(samples / 640). */
LE_API int le_a2x_total(le_a2x* h);
/* Runs at most one step of work (8 frames on the windowed frontend, 64 on the 8 s window) and
 * returns the frames ready to pull (>= 0). A failed step leaves le_a2x_last_error() set
 * ("le_a2x extend: ...") and the count at what is complete. */
LE_API int le_a2x_avail(le_a2x* h);
/* Pulls up to max frames into caller-owned arrays: source_idx one int per frame, target and
 * driven 63 floats per frame (all three required). Computes what is missing first. Returns the
 * count written (0 when none is ready). */
LE_API int le_a2x_pull(le_a2x* h, int* source_idx, float* target, float* driven, int max);
/* As le_a2x_pull; when wn is not null it also receives one width value per frame (0 when the
 * encoder has no width output). */
LE_API int le_a2x_pull_wn(le_a2x* h, int* source_idx, float* target, float* driven, float* wn,
                          int max);
/* Starts a new utterance: drops the audio and every computed frame. start >= 0 is the source
 * index of the first frame; start < 0 continues the walk where the last utterance left it.
 * direction < 0 walks the source frames backwards. loop != 0 wraps (index mod NT), loop == 0
 * walks ping-pong (0 .. NT-1 .. 1, 0 ..). The decoder restarts from its silence-primed state
 * when the bundle asks for priming, else from zeros. */
LE_API void le_a2x_reset(le_a2x* h, int start, int direction, int loop);
/* Stores a scheduling hint; output and timing do not depend on it. */
LE_API void le_a2x_set_eager(le_a2x* h, int value);
/* NT, the identity's source frames; 0 for null. */
LE_API int le_a2x_nt(const le_a2x* h);
/* 1 when the bundle's encoder has a width output, else 0 (also for null). */
LE_API int le_a2x_width(const le_a2x* h);

/* Offline: the deltas of a whole clip of n samples, independent of the streaming state (it
 * neither reads nor changes it). Writes ceil(n / 640) rows of 63 floats to out (caller-owned)
 * and returns that count; 0 when n <= 0; -2 when the count exceeds max_frames (nothing
 * written); -1 on failure with le_a2x_last_error() set. */
LE_API int le_a2x_deltas(le_a2x* h, const float* audio, int n, float* out, int max_frames);
/* As le_a2x_deltas, and the width value of every frame into wn (caller-owned, max_frames
 * floats). -3 when the encoder has no width output. */
LE_API int le_a2x_deltas_wn(le_a2x* h, const float* audio, int n, float* out, float* wn,
                            int max_frames);

/* Loads the shared speech encoder now instead of on first need: path null or "" means
 * $W2V_ONNX. Returns 1 when it is loaded (by this call or before), else 0 with
 * le_a2x_last_error() set. Safe from any thread. */
LE_API int le_a2x_preload_w2v(const char* path);
/* 1: the shared speech encoder is loaded on first need. */
LE_API int le_a2x_w2v8_lazy(void);


/* ==== le_fca: stream delta model ========================================================= */



/* ==== le_motion: motion generator ======================================================== */



/* ==== le_utt: utterance pipeline ========================================================= */



/* ==== le_stream: offline stream renderer ================================================= */



#ifdef __cplusplus
}  /* extern "C" */
#endif

#endif /* LE_LE_A2X_H */
