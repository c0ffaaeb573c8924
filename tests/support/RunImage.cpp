#include "tests/support/RunImage.h"

#include <algorithm>
#include <exception>
#include <span>

#include "kelm/runtime/KelmRuntime.h"
#include "tests/support/SameImages.h"

namespace Lumenar::Core::Kelm::Testing {

namespace {

template <class Run>
RunImage imageOf(Run& run, std::span<const Kernel::State> states,
                 std::span<const CandidateSlot> candidates) {
    RunImage image{{states.begin(), states.end()}, {}, {}, {}, run.profile()};
    for (NodeId n = 0; n < states.size(); ++n) {
        image.random_states.push_back(run.spontaneousState(n));
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

std::string firstDifference(const RunImage& a, const RunImage& b) {
    const bool hidden = a.candidates.empty() || b.candidates.empty();
    const std::vector<CandidateSlot> none;
    const auto differenceIn = [](const char* what, const auto& x, const auto& y) {
        const std::string found = differenceOf(std::span(x), std::span(y));
        return found.empty() ? found : what + found;
    };
    for (const std::string& found : {
             differenceIn("state ", a.states, b.states),
             differenceIn("random state ", a.random_states, b.random_states),
             differenceIn("candidate ", hidden ? none : a.candidates, hidden ? none : b.candidates),
             differenceIn("spike ", a.log, b.log),
             differenceIn("profile ", std::vector{a.profile}, std::vector{b.profile}),
         }) {
        if (!found.empty()) return found;
    }
    return {};
}

std::string failureOf(WindowEngine& engine, IWindowBackend& backend, ModelTime until) {
    try {
        engine.run(backend, until);
    } catch (const std::exception& failure) {
        return failure.what();
    }
    return {};
}

std::string runSideBySide(WindowEngine& a, IWindowBackend& backend_a, WindowEngine& b,
                          IWindowBackend& backend_b, ModelTime d_min) {
    for (std::int64_t window = 0; window * d_min < a.horizon(); ++window) {
        const std::string place = "window " + std::to_string(window) + ": ";
        const ModelTime until = std::min((window + 1) * d_min, a.horizon());
        const std::string failure_a = failureOf(a, backend_a, until);
        const std::string failure_b = failureOf(b, backend_b, until);
        if (failure_a != failure_b) {
            return place + "thrown: '" + failure_a + "' vs '" + failure_b + "'";
        }
        const std::string found = firstDifference(imageOf(a), imageOf(b));
        if (!found.empty()) return place + found;
        if (!failure_a.empty()) break;
    }
    return {};
}

}  // namespace Lumenar::Core::Kelm::Testing
