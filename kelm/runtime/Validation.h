#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kelm/core/ModelTime.h"
#include "kelm/kernel/NeuronModel.h"
#include "kelm/network/SynapseGraph.h"

namespace Lumenar::Core::Kelm {

/// Something in a model that is wrong, or that is right but rarely meant.
struct Finding {
    enum class Severity : std::uint8_t {
        warning = 0,  ///< has a meaning, but looks like a mistake
        error = 1,    ///< has no meaning as a model
    };
    Severity severity = Severity::warning;
    std::string field;  ///< as in the record: "tau_membrane"; "window", "horizon" or "delay"
    std::string text;   ///< a sentence with field, value, unit and rule
};

/// Checks parameters that the engine takes as they are, one finding per broken rule.
///
/// `window`: the window length in ns, which is the network's dMin(). `horizon`: ns, the end of the
/// run; none where it is open, and then nothing is said about the number of windows.
///
/// Errors: a number that is not finite; a time constant below 1 ns of a trace that decays, a
/// negative refractory period or trace_epsilon; a negative rate, scale or gain; a ceiling that is
/// not positive or lies below the base rate; a window or horizon below 1 ns. Warnings: a time
/// constant below 100 ns, a refractory period or window below 1 us, which may be a number of ms or
/// us; a base rate of 0; a ceiling at which a window holds more spikes than a result; a run of
/// 10^9 windows.
std::vector<Finding> validate(const Kernel::Neuron& neuron, const Kernel::Firing& firing,
                              ModelTime window, std::optional<ModelTime> horizon = std::nullopt);

/// Warns of delays below 1 us, which may be numbers of ms or us: one finding, with the number of
/// these synapses and the first of them. `ranks`: of which `network` is a share; all of them call
/// it.
std::vector<Finding> validate(const SynapseGraph& network, IRankGroup* ranks = nullptr);

}  // namespace Lumenar::Core::Kelm
