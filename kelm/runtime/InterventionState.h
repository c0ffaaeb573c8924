#pragma once

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "kelm/core/Failures.h"

namespace Lumenar::Core::Kelm {

/// Gains and switches of the mechanisms of a runtime, neutral at the start. A change acts from the
/// next window on.
struct InterventionState {
    static constexpr std::size_t mechanism_count = 9;

    // The mechanisms that read their entries. The other entries are only stored.
    static constexpr std::size_t oscillators = 1;  ///< gain of all phase modulation; no switch
    static constexpr std::size_t plasticity = 3;   ///< gain of each weight change; off: no learning
    static constexpr std::size_t prediction = 4;   ///< gain of error drive and bound; no switch

    std::array<double, mechanism_count> mechanism_gain{1.0, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0};
    std::array<bool, mechanism_count> mechanism_off{};
    std::vector<std::uint64_t> intervention_log;

    /// Throws InvalidIntervention for an index that is not below mechanism_count, for a gain that
    /// is not finite, and for a negative gain of oscillators or prediction, in this order. A
    /// negative gain would make a negative bound.
    void setGain(std::size_t mechanism, double gain) {
        requireMechanism(mechanism);
        if (!std::isfinite(gain)) throw InvalidIntervention(InvalidIntervention::gain);
        if (gain < 0.0 && (mechanism == oscillators || mechanism == prediction)) {
            throw InvalidIntervention(InvalidIntervention::negative_gain);
        }
        mechanism_gain[mechanism] = gain;
    }

    /// Throws InvalidIntervention for an index that is not below mechanism_count.
    void setOff(std::size_t mechanism, bool off) {
        requireMechanism(mechanism);
        mechanism_off[mechanism] = off;
    }

    /// Appends the caller's identifier of an intervention to the log.
    void note(std::uint64_t intervention) { intervention_log.push_back(intervention); }

private:
    static void requireMechanism(std::size_t mechanism) {
        if (mechanism >= mechanism_count) throw InvalidIntervention(InvalidIntervention::mechanism);
    }
};

}  // namespace Lumenar::Core::Kelm
