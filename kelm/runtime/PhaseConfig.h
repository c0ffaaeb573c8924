#pragma once

#include <cstdint>
#include <vector>

#include "kelm/core/ModelTime.h"

namespace Lumenar::Core::Kelm {

/// A global clock whose phase is a closed form of model time.
struct Oscillator {
    std::uint32_t id = 0;    ///< unique, need not be dense
    double frequency = 0.0;  ///< cycles per second, finite, not negative
    double phase = 0.0;      ///< radians at time 0, finite
    double amplitude = 0.0;  ///< factor of every binding, finite, not negative
};

/// A coupling pulls the target's phase towards the source's phase.
struct OscillatorCoupling {
    std::uint32_t source = 0;
    std::uint32_t target = 0;
    double strength = 0.0;  ///< radians per second at a difference of a quarter cycle; finite
};

/// Binds a neuron to an oscillator.
struct PhaseBinding {
    std::uint32_t oscillator = 0;
    std::uint8_t polarity = 0;  ///< 0 excitatory, 1 inhibitory; any other value has no effect
    double strength = 0.0;      ///< finite
    double phase_offset = 0.0;  ///< radians added to the oscillator's phase, finite
};

/// The oscillators of a runtime and the bindings of its neurons.
struct PhaseConfig {
    std::vector<Oscillator> oscillators = {};
    std::vector<std::vector<PhaseBinding>> bindings = {};  ///< shape (neurons): a list per neuron
    std::vector<OscillatorCoupling> couplings = {};
    ModelTime coupling_period = 0;  ///< ns, positive if there are couplings
};

}  // namespace Lumenar::Core::Kelm
