/* le_core: flat C interface of the audio families (le_a2x, le_fca, le_motion, le_stream,
 * le_utt). Same conventions as le/le.h. The families arrive one at a time: a section below
 * without declarations has no implementation in this build yet. */
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

/* Offline audio-to-keypoint-delta model: a whole clip of float32 mono speech at 16 kHz becomes
 * one row of 63 keypoint deltas per video frame of 640 samples. One thread at a time per
 * handle. Errors: le_fca_last_error(), per thread, valid until the next le_fca call on it. */
typedef struct le_fca le_fca;

/* Opens the speech encoder (8 s windows, "input_values" -> "audio_emb") and the decoder
 * (fca_stream.onnx) as sessions of their own. threads < 1 takes the engine's default budget.
 * Returns a handle owned by the caller (free with le_fca_destroy), or null with
 * le_fca_last_error() set ("le_fca_create: ..."). */
LE_API le_fca* le_fca_create(const char* encoder_path, const char* decoder_path, int threads);
/* Releases the handle (null is ignored). */
LE_API void le_fca_destroy(le_fca* h);
/* The calling thread's last le_fca message; never null, "" means no error. */
LE_API const char* le_fca_last_error(void);
/* Deltas of audio[0, n): frames = ceil(n / 640) rows of 63 floats into out (caller-owned,
 * max_frames rows). Returns frames; 0 when n <= 0; -1 when frames > max_frames (nothing
 * written) or on failure ("le_fca_deltas: ...", out may be partly written). */
LE_API int le_fca_deltas(le_fca* h, const float* audio, int n, float* out, int max_frames);



/* ==== le_motion: motion generator ======================================================== */

/* Audio-driven keypoint source over a motion directory (tables and three networks): pushed
 * float32 mono audio at 16 kHz becomes one (source index, source keypoints, driven keypoints)
 * triple per video frame of 640 samples. Lips follow the speech; pose and scale are those of
 * the frame's source image. One thread at a time per handle; different handles may run on
 * different threads at once. */
typedef struct le_motion le_motion;

/* This thread's last message of the le_motion functions; "" when the last call succeeded.
 * Owned by the library, valid until the next le_motion call on this thread. Never null. */
LE_API const char* le_motion_last_error(void);

/* Opens the motion directory motion_dir (read during the call) and runs every network once.
 * threads < 1 takes the engine's default budget. ep: execution provider, null or "" for the
 * CPU; "coreml..." falls back as the renderer's does; anything else is refused. The handle
 * starts reset to source 0, direction +1, wrap. Returns a handle owned by the caller (free
 * with le_motion_destroy), or null with le_motion_last_error() set. */
LE_API le_motion* le_motion_create(const char* motion_dir, int threads, const char* ep);
/* Releases the handle (null is ignored). */
LE_API void le_motion_destroy(le_motion* m);

/* Source frames NT of the motion directory; 0 for null. */
LE_API int le_motion_nt(const le_motion* m);

/* Starts a new utterance: drops all audio and frames, the source walk restarts at start
 * (clamped to 0 .. NT-1) stepping by direction (< 0: -1, else +1); loop != 0 wraps (index mod
 * NT, as le_a2x_reset), loop == 0 walks ping-pong (0 .. NT-1 .. 1, 0 ..). Keeps the eager
 * setting. Null is ignored. */
LE_API void le_motion_reset(le_motion* m, int start, int direction, int loop);

/* Eager delivery: 0 off (frames appear once their 80-frame chunk is computed); > 0 computes
 * provisional frames every `value` frames of new audio; < 0 adapts that step to the measured
 * cost. Applies from the next advance. Null is ignored. */
LE_API void le_motion_set_eager(le_motion* m, int value);

/* Appends n samples (float32, read during the call) to the open utterance. n = 0 returns 1.
 * Returns 1, or 0 with "le_motion_push: bad args / already finished" for a null handle or
 * samples, n < 0, or after le_motion_finish. Does no network work itself. */
LE_API int le_motion_push(le_motion* m, const float* samples, int n);
/* Ends the utterance: total = ceil(samples / 640) frames. A second call does nothing; null is
 * ignored. The remaining work runs on the next avail/pull (at once with LE_MOTION_DUMP set). */
LE_API void le_motion_finish(le_motion* m);
/* Total frames of the finished utterance; -1 when null or not finished. */
LE_API int le_motion_total(const le_motion* m);

/* Runs the work the pushed audio allows, then returns the frames pullable now; 0 with
 * le_motion_last_error() set on failure (work completed so far is kept). After finish it
 * reaches 0 once all total frames were pulled. */
LE_API int le_motion_avail(le_motion* m);
/* As le_motion_avail, then emits up to max (>= 1) pullable frames. Per frame: its source
 * index into source_idx[i] (source_idx may be null), 63 source keypoint floats into
 * source + 63*i and 63 driven floats into driven + 63*i (all caller-owned, room for max
 * frames). Returns the frames written (0 when none are pullable), or 0 with
 * "le_motion_pull: bad args" (null handle/source/driven, max < 1) or another message set. */
LE_API int le_motion_pull(le_motion* m, int* source_idx, float* source, float* driven, int max);


/* ==== le_utt: utterance pipeline ========================================================= */

/* Real-time pipeline on one context: the host pushes 16-bit PCM (mono, 16 kHz) whenever it has
 * some and pulls finished full frames (W*H*3 RGB) at its own pace. Between utterances it delivers
 * the drive video's own frames (idle), after speech it eases back to the idle pose (ramp).
 *
 * Threads: the pipeline owns its threads. Its functions may be called from any host thread, also
 * concurrently with each other on the same handle (typically one thread pushes, another pulls),
 * except le_utt_destroy, which must not overlap any other call on the handle. While a pipeline
 * lives, the host must not call other functions on its context (the pipeline renders and pastes
 * with it); destroy the pipeline before the context. */
typedef struct le_utt le_utt;

typedef struct le_utt_opts {
  const char* motion_dir;  /* keypoint source directory; required. Read during le_utt_create. */
  int32_t threads;         /* keypoint source threads; < 1: the context's thread count */
  const char* motionEp;    /* execution provider of the motion generator; null = "" */
  const char* steadyModel; /* steady chunk renderer key; null/"": "b24_fp32"; "-": none.
                              LE_STEADY_MODEL replaces it. */
  int32_t batch;           /* -2: hybrid cadence; other < 1: hybrid from LE_UTT_HYBRID, batch -1;
                              >= 1: hybrid off, this eager batch */
  double endSilence;       /* seconds without a push that end the utterance; 0: 0.6; < 0: never */
  int32_t rampFrames;          /* ramp after a natural end; < 1: 6 */
  int32_t interruptRampFrames; /* ramp after an interrupt; < 1: 4 */
} le_utt_opts;

/* Frame kinds of le_utt_frame_info.kind. */
#define LE_UTT_KIND_IDLE 0u
#define LE_UTT_KIND_SPEECH 1u
#define LE_UTT_KIND_RAMP 2u

typedef struct le_utt_frame_info {
  uint64_t seq;         /* delivery number, from 0 over the pipeline's life */
  uint32_t kind;        /* 0 idle, 1 speech, 2 ramp */
  uint32_t sourceIndex; /* the source frame the picture shows */
  uint32_t speechIndex; /* number within its utterance from 0; 0xFFFFFFFF for idle and ramp */
} le_utt_frame_info;

typedef struct le_utt_stats {
  uint64_t framesPulled;
  uint64_t speechFramesPulled;
  uint64_t firstFrames;       /* utterances whose first speech frame reached the output */
  double firstFrameLatencyMs; /* last utterance: first push -> first speech frame in the ring */
  double renderMsAverage;     /* moving average of render + hand-over time per speech frame */
  int32_t state;              /* 0 idle, 1 speech begun, 2 speaking, 3 ramp */
} le_utt_stats;

/* The le_utt family's last error on this thread; never null, owned by the library, valid until
 * the next le_utt call on this thread. */
LE_API const char* le_utt_last_error(void);

/* Builds the pipeline on ctx (borrowed: it must outlive the pipeline) and starts its threads.
 * Ensures the context's director renderer; the keypoint source is created on a warm-up thread
 * (see le_utt_ready). Returns a handle owned by the caller (free with le_utt_destroy), or null
 * with le_utt_last_error() set ("le_utt_create: NULL ctx/opts" for null arguments). */
LE_API le_utt* le_utt_create(le_ctx* ctx, const le_utt_opts* opts);
/* le_utt_create with motion_dir and every other option zero. */
LE_API le_utt* le_utt_open(le_ctx* ctx, const char* motion_dir);
/* Stops and joins the threads, releases the keypoint source (null is ignored). Frames not yet
 * pulled are dropped. */
LE_API void le_utt_destroy(le_utt* utt);

/* 1 once the keypoint source is ready, 0 while it warms up, -1 for null or when its creation
 * failed (the source's message is then copied into le_utt_last_error()). Audio pushed before
 * ready is discarded; idle frames flow regardless. */
LE_API int le_utt_ready(le_utt* utt);
/* Appends n samples of pcm (read during the call) to the current utterance. Returns 1, or 0 with
 * "le_utt_push_audio: bad args" for a null handle or pcm or n < 0. */
LE_API int le_utt_push_audio(le_utt* utt, const int16_t* pcm, int n);
/* Marks the current utterance's audio complete: its last frames are rendered, then the ramp. */
LE_API void le_utt_end_utterance(le_utt* utt);
/* Cuts the utterance: drops its unrendered audio and every frame not yet pulled (a director run
 * in flight for it is stopped), then ramps from the last pulled frame back to idle. */
LE_API void le_utt_interrupt(le_utt* utt);
/* Finished frames waiting (at most 8); 0 for null. */
LE_API int le_utt_frames_available(le_utt* utt);
/* Copies the oldest waiting frame (W*H*3 RGB) into out (caller-owned, capacity bytes) and fills
 * info when not null. Returns 1; 0 without a message when no frame waits; 0 with
 * "le_utt_pull_frame: bad args" (null handle or out) or "le_utt_pull_frame: buffer too small"
 * (the frame stays queued). */
LE_API int le_utt_pull_frame(le_utt* utt, uint8_t* out, size_t capacity, le_utt_frame_info* info);
/* Copies the statistics into stats. Null handle or stats is ignored. */
LE_API void le_utt_get_stats(le_utt* utt, le_utt_stats* stats);
/* Render failures: count (when not null) = failures recorded; text (when not null and
 * capacity >= 1) = the last failure's description, truncated to capacity - 1 and terminated
 * ("" when none). Returns -1 once a fatal failure was recorded, else 0 (also 0 for null). */
LE_API int le_utt_render_status(le_utt* utt, char* text, int capacity, uint64_t* count);

/* --- Mouth-interior borrow on the pipeline ---------------------------------------------------
 * A borrow fills the mouth of every rendered frame with teeth from the bundle's donor bank. The
 * host loads the members (le_tessera_members_open), decodes the bank track into donor order
 * (le::tessera::decodeBankTrack, le_tessera_members_reorder) and attaches them here. With the
 * paste on its own thread the borrow runs on a stage thread of its own, else on the render
 * thread. A borrow whose pass fails stops delivery: no further frame reaches the output until a
 * borrow is attached again. These functions take the pipeline's lock; they may be called from
 * any host thread while the pipeline runs. Messages go to the caller's buffer (err, err_cap):
 * at most err_cap - 1 bytes and a terminating zero. */

/* Attaches (or replaces) the pipeline's borrow. band: n_donors stored patches in donor order
 * (n_donors * band_h * band_w * 3 bytes, the stamp's band plus its margin); cent: 2 * n_donors
 * donor mouth centres (x, y); c_canon: the canonical centre (x, y); aperture: n_donors values;
 * stamp: the twelve geometry values (le_tessera_members_stamp order); head_pt/head_len: the
 * head-weights file; head_json: the head config; manifest_json: the bundle manifest's text. All
 * are read during the call only. Returns 0 when attached, 1 with the message in err; a refused
 * attachment leaves the previous borrow (or none) in place. */
LE_API int le_utt_tessera_attach(le_utt* utt, const uint8_t* band, int n_donors, const double* cent,
                                 const double* c_canon, const double* aperture, const int32_t* stamp,
                                 const uint8_t* head_pt, uint32_t head_len, const char* head_json,
                                 const char* manifest_json, char* err, size_t err_cap);
/* Frames written back and frames skipped since the attachment, and the reason of the last skip
 * ("" when none) in reason (reason_cap bytes, terminated; any out pointer may be null). Returns
 * 1 when a borrow is attached, -1 when it is attached but has failed, 0 when none (or null). */
LE_API int le_utt_tessera_stats(le_utt* utt, uint64_t* written, uint64_t* skipped, char* reason,
                                size_t reason_cap);
/* The synthesis weight measured over the blend regions: mean (running sum / frames), maximum and
 * frame count (out pointers may be null). Returns 1 when a borrow is attached and has measured
 * at least one frame, else 0. */
LE_API int le_utt_tessera_synth_w(le_utt* utt, double* mean, double* max, uint64_t* frames);
/* The corpus geometry the attached borrow was identified as ("v1", "v2" or "v3") written into
 * out (cap bytes, terminated; cap 1 writes only the zero). Returns 1 when attached; 0 with ""
 * otherwise, and 0 for a null handle or out. */
LE_API int le_utt_tessera_geometry(le_utt* utt, char* out, size_t cap);

/* ==== le_stream: offline stream renderer ================================================= */

/* Renders a whole clip in one call: the clip's keypoint deltas (le_fca with the bundle's
 * fca_stream.onnx), every frame rendered by the context's director and pasted into its drive
 * frame, each full frame handed to the callback in order. Rendering runs on a thread of its
 * own, overlapping pasting and delivery on the calling thread. One run at a time per handle.
 * Errors: le_stream_last_error(), per thread. */
typedef struct le_stream le_stream;

/* Receives output frame frame_index: height x width x 3 RGB bytes, valid only during the call.
 * Runs on the thread that called le_stream_run. The return value is ignored. */
typedef int (*le_stream_frame_fn)(void* user, int frame_index, const uint8_t* rgb, int width,
                                  int height);

/* Opens the context (model key "render"), the delta model (encoder_path, bundle_dir +
 * "/fca_stream.onnx") and the targets (xs_target.bin, NT x 63 float32). skip: leading clip
 * frames not rendered; gain: scale of the deltas. threads < 1 takes the engine's default
 * budget. Returns a handle owned by the caller (free with le_stream_destroy), or null with
 * le_stream_last_error() set. */
LE_API le_stream* le_stream_create(const char* bundle_dir, const char* encoder_path, int threads,
                                   int skip, float gain);
/* Releases the delta model and the context (null is ignored). */
LE_API void le_stream_destroy(le_stream* s);
/* The calling thread's last le_stream message; never null, "" means no error. */
LE_API const char* le_stream_last_error(void);
/* Full frame size; 0 for null. */
LE_API int le_stream_width(const le_stream* s);
LE_API int le_stream_height(const le_stream* s);
/* Renders audio[0, n) (float32 mono, 16 kHz): ceil(n / 640) clip frames less skip, clip frame f
 * showing source f mod NT driven by targets + gain x deltas. Returns the frames delivered, or
 * -1 with le_stream_last_error() set (frames already delivered stay delivered). */
LE_API int le_stream_run(le_stream* s, const float* audio, int n, le_stream_frame_fn callback,
                         void* user);



#ifdef __cplusplus
}  /* extern "C" */
#endif

#endif /* LE_LE_A2X_H */
