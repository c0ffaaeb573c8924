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

/// The results of a run so far.
struct RunImage {
    std::vector<Kernel::State> states;
    std::vector<std::uint64_t> random_states;  ///< the raw state of each neuron's stream
    std::vector<CandidateSlot> candidates;     ///< empty if the run does not show them
    std::vector<SpikeRecord> log;              ///< in canonical order
    WindowProfile profile;
};

/// Of a network on several ranks: what this rank has, and the profile of all.
RunImage imageOf(WindowEngine& engine);
RunImage imageOf(KelmRuntime& runtime);

/// The first difference of two runs in states, random states, candidates, spikes or profiles. None
/// if all bits are equal.
std::optional<Difference> differenceOf(const RunImage& a, const RunImage& b);
/// The same as a text; empty if all bits are equal.
std::string firstDifference(const RunImage& a, const RunImage& b);

/// The text of the exception that a run to `until` ns throws; empty if there is none.
std::string failureOf(WindowEngine& engine, IWindowBackend& backend, ModelTime until);

}  // namespace Lumenar::Core::Kelm::Compare
