#pragma once

#include <cmath>
#include <cstdint>

#include "kelm/core/ModelTime.h"

namespace Lumenar::Core::Kelm {

/// One directed connection.
struct Synapse {
    NodeId source = 0;
    NodeId target = 0;
    float weight = 0.0F;      ///< magnitude, finite and not negative
    ModelTime delay = 0;      ///< ns, at least 1
    bool inhibitory = false;  ///< delivers the negated weight; also selects the plasticity rule
    std::uint32_t reserved_a = 0;  ///< carried, not interpreted
    std::int64_t reserved_b = 0;   ///< carried, not interpreted
    ModelTime last_change = 0;     ///< ns; time of the last change by learning
    bool enabled = true;           ///< a disabled synapse stays routed and delivers nothing
    std::uint32_t reserved_c = 0xffffffff;          ///< carried, not interpreted
    std::uint64_t reserved_d = 0xffffffffffffffff;  ///< carried, not interpreted
};

/// Whether a synapse may have this weight.
inline bool isWeight(float weight) { return std::isfinite(weight) && !(weight < 0.0F); }

/// The value that a synapse delivers. An inhibitory weight is negated in single precision before it
/// is widened, so a weight of 0 arrives as -0.0.
inline float deliveredWeight(float weight, bool inhibitory) {
    return inhibitory ? -weight : weight;
}
inline double deliveredValue(const Synapse& synapse) {
    return static_cast<double>(deliveredWeight(synapse.weight, synapse.inhibitory));
}

}  // namespace Lumenar::Core::Kelm
