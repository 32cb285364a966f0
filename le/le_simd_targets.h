// Included first by every kernel-family source, before Highway: which targets are compiled
// and how floating point is contracted there.
#pragma once

// SSSE3 is the oldest target compiled; it also serves as the baseline slot of every table.
#ifndef HWY_BASELINE_TARGETS
#define HWY_BASELINE_TARGETS HWY_SSSE3
#endif
#ifndef HWY_WANT_AVX3_DL
#define HWY_WANT_AVX3_DL
#endif

// Products and sums stay separate roundings on every target (no fused multiply-add).
#include "le/le_fp_exact.h"
