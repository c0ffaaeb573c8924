#pragma once

#include <cstdint>
#include <vector>

#include "kelm/engine/IWindowBackend.h"

namespace Lumenar::Core::Kelm::Testing {

/// The arguments of a backend's processWindow.
struct DrawnCall {
    Kernel::Neuron neuron;
    Kernel::Firing firing;
    ModelTime window = 0;  ///< ns; its length
    ModelTime window_end = 0;
    ModelTime horizon = 0;
    std::vector<WindowWork> work;
    std::vector<Kernel::WindowEvent> events;
};

/// Random items of many kinds, a function of the arguments alone. `strange`: parameters and some
/// values are outside their meaning.
DrawnCall drawCall(std::uint64_t seed, std::uint64_t item_count, bool strange);

/// Items of default neurons at rest, with one input each.
DrawnCall uniformCall(std::size_t item_count);

/// Runs the call. Bytes of results that the backend does not write hold a pattern.
std::vector<Kernel::WindowResult> compute(IWindowBackend& backend, const DrawnCall& call);

/// The results of the kernel with each step in its turn: no draw and no sample is skipped.
std::vector<Kernel::WindowResult> computePlainly(const DrawnCall& call);

/// Replaces every NaN by the same one. Which of two NaN operands a sum returns is the compiler's
/// choice, and it may choose differently in two copies of one text.
std::vector<Kernel::WindowResult> withOneNan(std::vector<Kernel::WindowResult> results);

}  // namespace Lumenar::Core::Kelm::Testing
