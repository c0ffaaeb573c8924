#define KELM_LANE_COUNT 8
#define KELM_LANE_SET "avx512"
#define KELM_LANE_KERNELS avx512_kernels
#include "kelm/lanes/LaneText.h"
