#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "kelm/core/Gap.h"

namespace Lumenar::Core::Kelm {

/// The phase of one oscillator at one time. Goes into checkpoints byte for byte.
struct PhaseSample {
    std::uint32_t oscillator = 0;  ///< id
    Gap<4> gap = {};               ///< always zero: equal samples have equal bytes
    double phase = 0.0;            ///< radians
};
static_assert(std::is_trivially_copyable_v<PhaseSample> && std::is_standard_layout_v<PhaseSample>);
static_assert(sizeof(PhaseSample) == 16);
static_assert(offsetof(PhaseSample, gap) == 4);
static_assert(offsetof(PhaseSample, phase) == 8);

}  // namespace Lumenar::Core::Kelm
