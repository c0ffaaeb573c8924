#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "compare/Difference.h"
#include "kelm/engine/WindowEngine.h"

namespace Lumenar::Core::Kelm {
class KelmRuntime;
}

namespace Lumenar::Core::Kelm::Compare {

/// All that a run has left behind so far.
struct RunImage {
    std::vector<Kernel::State> states;
    std::vector<std::uint64_t> random_states;  ///< raw, of each neuron's stream
    std::vector<CandidateSlot> candidates;     ///< empty where a run does not show them
    std::vector<SpikeRecord> log;              ///< in canonical order
    WindowProfile profile;
};

RunImage imageOf(WindowEngine& engine);
RunImage imageOf(KelmRuntime& runtime);

/// The first difference of two runs: in states, random states, candidates, spikes, profiles. None
/// where they are equal to the bit.
std::optional<Difference> differenceOf(const RunImage& a, const RunImage& b);
/// The same as a text; empty where they are equal.
std::string firstDifference(const RunImage& a, const RunImage& b);

/// The text of what a run until `until` ns throws, or none.
std::string failureOf(WindowEngine& engine, IWindowBackend& backend, ModelTime until);

}  // namespace Lumenar::Core::Kelm::Compare
