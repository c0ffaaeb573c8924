#include "tests/support/RunImage.h"

#include <algorithm>
#include <array>
#include <bit>
#include <exception>
#include <sstream>

#include "kelm/runtime/KelmRuntime.h"

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

/// Compares records word by word. `fields` names the words of one.
template <class Record>
std::string difference(const char* what, const std::vector<Record>& a, const std::vector<Record>& b,
                       const std::array<const char*, sizeof(Record) / 8>& fields) {
    using Words = std::array<std::uint64_t, sizeof(Record) / 8>;
    std::ostringstream text;
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
        const auto [x, y] = std::pair(std::bit_cast<Words>(a[i]), std::bit_cast<Words>(b[i]));
        if (x == y) continue;
        const auto at = static_cast<std::size_t>(
            std::mismatch(x.begin(), x.end(), y.begin()).first - x.begin());
        text << what << ' ' << i << ", " << fields[at] << ": 0x" << std::hex << x[at] << " vs 0x"
             << y[at];
        return text.str();
    }
    if (a.size() != b.size()) text << what << " count: " << a.size() << " vs " << b.size();
    return text.str();
}

}  // namespace

RunImage imageOf(WindowEngine& engine) {
    return imageOf(engine, engine.states(), engine.candidates());
}

RunImage imageOf(KelmRuntime& runtime) { return imageOf(runtime, runtime.neuronStates(), {}); }

std::string firstDifference(const RunImage& a, const RunImage& b) {
    const bool hidden = a.candidates.empty() || b.candidates.empty();
    const std::vector<CandidateSlot> none;
    for (const std::string& found : {
             difference(
                 "neuron", a.states, b.states,
                 {"membrane", "adaptation", "last_update", "refractory_until", "hazard_bound"}),
             difference("neuron", a.random_states, b.random_states, {"random state"}),
             difference("neuron", hidden ? none : a.candidates, hidden ? none : b.candidates,
                        {"candidate time", "candidate rate", "candidate event"}),
             difference("spike", a.log, b.log, {"time", "neuron"}),
             difference("run", std::vector{a.profile}, std::vector{b.profile},
                        {"windows", "deliveries", "updates", "candidates", "accepted"}),
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
