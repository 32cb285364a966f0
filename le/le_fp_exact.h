// Included by kernels whose results must be bit-identical across targets and against plain
// reference loops: products and sums stay separate roundings (no fused multiply-add) for the
// rest of the including file.
#pragma once

#if defined(__clang__)
#pragma STDC FP_CONTRACT OFF
#elif defined(__GNUC__)
#pragma GCC optimize("fp-contract=off")
#endif
