// nvcc's way to the unit: the text is the one that the host compiler builds.
#include "kelm/cuda/LookaheadCuda.cpp"
