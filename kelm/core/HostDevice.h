#pragma once

#include <cfloat>

// The host and the device compile the same code and must round every operation the same way. A
// build that may reassociate, approximate or use excess precision gives other bits.
#if defined(__FAST_MATH__) || defined(__ASSOCIATIVE_MATH__) || defined(__RECIPROCAL_MATH__) || \
    defined(__NO_SIGNED_ZEROS__) || (defined(__FINITE_MATH_ONLY__) && __FINITE_MATH_ONLY__)
#error "kelm needs exact IEEE arithmetic: build without -ffast-math and its parts"
#endif
#if defined(FLT_EVAL_METHOD) && FLT_EVAL_METHOD != 0
#error "kelm needs double arithmetic without excess precision (on x86, SSE2 instead of x87)"
#endif

/// Marks a function for the host that nvcc also compiles for the device.
#if defined(__CUDACC__)
#define KELM_HD __host__ __device__
#else
#define KELM_HD
#endif
