#define KELM_LANE_COUNT 4
#define KELM_LANE_SET "avx2"
#define KELM_LANE_KERNELS avx2_kernels
#include "kelm/lanes/LaneText.h"
