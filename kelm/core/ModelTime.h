#pragma once

#include <cstdint>
#include <limits>

#include "kelm/core/Failures.h"

namespace Lumenar::Core::Kelm {

/// Simulated time or a duration, in integer nanoseconds. A run starts at 0.
using ModelTime = std::int64_t;

/// Dense index of a neuron, from 0 to the network's neuron count less 1.
using NodeId = std::uint64_t;

/// Dense index of a synapse, in the order in which the synapses were given.
using EdgeId = std::uint64_t;

/// The time of a candidate that does not exist.
inline constexpr ModelTime no_time = -1;

inline constexpr ModelTime last_model_time = std::numeric_limits<ModelTime>::max();
inline constexpr ModelTime first_model_time = std::numeric_limits<ModelTime>::min();

/// The sum of a time and a duration, both in ns.
/// Throws TimeOverflow if the sum is outside the range of ModelTime, at either end.
inline ModelTime addTime(ModelTime time, ModelTime duration) {
    if (duration > 0 && time > last_model_time - duration) {
        throw TimeOverflow(TimeOverflow::out_of_range);
    }
    if (duration < 0 && time < first_model_time - duration) {
        throw TimeOverflow(TimeOverflow::out_of_range);
    }
    return time + duration;
}

}  // namespace Lumenar::Core::Kelm
