#include "compare/RunImage.h"

#include <algorithm>
#include <exception>
#include <span>

#include "kelm/runtime/KelmRuntime.h"

namespace Lumenar::Core::Kelm::Compare {

namespace {

template <class Run>
RunImage imageOf(Run& run, std::span<const Kernel::State> states,
                 std::span<const CandidateSlot> candidates) {
    RunImage image{{states.begin(), states.end()}, {}, {}, {}, run.profile()};
    const NodeId first = run.graph().share() ? run.graph().share()->begin : 0;
    for (NodeId n = 0; n < states.size(); ++n) {
        image.random_states.push_back(run.spontaneousState(first + n));
    }
    image.candidates.assign(candidates.begin(), candidates.end());
    image.log.assign(run.spikeLog().begin(), run.spikeLog().end());
    return image;
}

}  // namespace

RunImage imageOf(WindowEngine& engine) {
    return imageOf(engine, engine.states(), engine.candidates());
}

RunImage imageOf(KelmRuntime& runtime) { return imageOf(runtime, runtime.neuronStates(), {}); }

std::optional<Difference> differenceOf(const RunImage& a, const RunImage& b) {
    const auto between = [](const char* list, const auto& x, const auto& y) {
        return neuronDifference(list, std::span(x), std::span(y));
    };
    if (auto found = between("state", a.states, b.states)) return found;
    if (auto found = between("random state", a.random_states, b.random_states)) return found;
    if (!a.candidates.empty() && !b.candidates.empty()) {
        if (auto found = between("candidate", a.candidates, b.candidates)) return found;
    }
    if (auto found = placedDifference("spike", std::span(a.log), std::span(b.log))) {
        const std::vector<SpikeRecord>& longer = a.log.size() > b.log.size() ? a.log : b.log;
        found->difference.neuron = longer[found->place].neuron;
        return found->difference;
    }
    auto found = placedDifference("profile", std::span(&a.profile, 1), std::span(&b.profile, 1));
    return found ? std::optional(found->difference) : std::nullopt;
}

std::string firstDifference(const RunImage& a, const RunImage& b) {
    const std::optional<Difference> found = differenceOf(a, b);
    return found ? found->text() : std::string();
}

std::string failureOf(WindowEngine& engine, IWindowBackend& backend, ModelTime until) {
    try {
        engine.run(backend, until);
    } catch (const std::exception& failure) {
        return failure.what();
    }
    return {};
}

}  // namespace Lumenar::Core::Kelm::Compare
