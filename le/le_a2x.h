/* le_core: flat C interface of the audio families (le_a2x, le_fca, le_motion, le_stream,
 * le_utt). Same conventions as le/le.h. */
#ifndef LE_LE_A2X_H
#define LE_LE_A2X_H

#include "le/le.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ==== le_a2x: audio-to-expression stream and speech encoders ============================ */



/* ==== le_fca: stream delta model ========================================================= */



/* ==== le_motion: motion generator ======================================================== */



/* ==== le_utt: utterance pipeline ========================================================= */



/* ==== le_stream: offline stream renderer ================================================= */



#ifdef __cplusplus
}  /* extern "C" */
#endif

#endif /* LE_LE_A2X_H */
