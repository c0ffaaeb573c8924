#pragma once

#include <cstdint>
#include <vector>

#include "kelm/engine/IWindowBackend.h"

namespace Lumenar::Core::Kelm::Testing {

/// What a backend's processWindow is given.
struct DrawnCall {
    Kernel::Neuron neuron;
    Kernel::Firing firing;
    ModelTime window = 0;  ///< ns; its length
    ModelTime window_end = 0;
    ModelTime horizon = 0;
    std::vector<WindowWork> work;
    std::vector<Kernel::WindowEvent> events;
};

/// Items of every temper, a function of the arguments alone. `strange`: parameters and some values
/// are such as no model should hold.
DrawnCall drawCall(std::uint64_t seed, std::uint64_t item_count, bool strange);

/// Items of default neurons at rest that take one input each.
DrawnCall uniformCall(std::size_t item_count);

/// Results that are not written, or only in part, show.
std::vector<Kernel::WindowResult> compute(IWindowBackend& backend, const DrawnCall& call);

}  // namespace Lumenar::Core::Kelm::Testing
