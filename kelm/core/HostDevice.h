#pragma once

#include <cfloat>

// What runs on the host and on a device is one text, and both must round every operation alone.
// A build that may reassociate, approximate or carry excess precision cannot give the same bits.
#if defined(__FAST_MATH__) || defined(__ASSOCIATIVE_MATH__) || defined(__RECIPROCAL_MATH__) || \
    defined(__NO_SIGNED_ZEROS__) || (defined(__FINITE_MATH_ONLY__) && __FINITE_MATH_ONLY__)
#error "kelm needs exact IEEE arithmetic: build without -ffast-math and its parts"
#endif
#if defined(FLT_EVAL_METHOD) && FLT_EVAL_METHOD != 0
#error "kelm needs double arithmetic without excess precision (on x86, SSE2 instead of x87)"
#endif

/// Marks a function that is compiled for the host and, under nvcc, for the device as well.
#if defined(__CUDACC__)
#define KELM_HD __host__ __device__
#else
#define KELM_HD
#endif
