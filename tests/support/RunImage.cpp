#include "tests/support/RunImage.h"

#include <algorithm>
#include <bit>
#include <exception>
#include <iomanip>
#include <sstream>
#include <string_view>

#include "kelm/runtime/KelmRuntime.h"

namespace Lumenar::Core::Kelm::Testing {

namespace {

/// Collects the first difference that it is shown.
class FirstDifference {
public:
    void compare(std::string_view what, std::uint64_t index, std::string_view field,
                 std::uint64_t a, std::uint64_t b) {
        if (a == b || !text_.empty()) return;
        std::ostringstream text;
        text << what << ' ' << index << ", " << field << ": 0x" << std::hex << std::setfill('0')
             << std::setw(16) << a << " vs 0x" << std::setw(16) << b;
        text_ = text.str();
    }
    void compare(std::string_view what, std::uint64_t index, std::string_view field, std::int64_t a,
                 std::int64_t b) {
        compare(what, index, field, std::bit_cast<std::uint64_t>(a),
                std::bit_cast<std::uint64_t>(b));
    }
    void compare(std::string_view what, std::uint64_t index, std::string_view field, double a,
                 double b) {
        compare(what, index, field, std::bit_cast<std::uint64_t>(a),
                std::bit_cast<std::uint64_t>(b));
    }

    const std::string& text() const { return text_; }

private:
    std::string text_;
};

template <class Run>
void fillRandomStates(Run& run, RunImage& image) {
    for (NodeId n = 0; n < image.states.size(); ++n) {
        image.random_states.push_back(run.spontaneousState(n));
    }
}

/// The text of what a run threw, or none.
std::string failureOf(WindowEngine& engine, IWindowBackend& backend, ModelTime until) {
    try {
        engine.run(backend, until);
    } catch (const std::exception& failure) {
        return failure.what();
    }
    return {};
}

}  // namespace

RunImage imageOf(WindowEngine& engine) {
    RunImage image;
    image.states.assign(engine.states().begin(), engine.states().end());
    fillRandomStates(engine, image);
    image.candidates.assign(engine.candidates().begin(), engine.candidates().end());
    image.log.assign(engine.spikeLog().begin(), engine.spikeLog().end());
    image.profile = engine.profile();
    return image;
}

RunImage imageOf(KelmRuntime& runtime) {
    RunImage image;
    image.states.assign(runtime.neuronStates().begin(), runtime.neuronStates().end());
    fillRandomStates(runtime, image);
    image.log.assign(runtime.spikeLog().begin(), runtime.spikeLog().end());
    image.profile = runtime.profile();
    return image;
}

std::string firstDifference(const RunImage& a, const RunImage& b) {
    FirstDifference first;
    first.compare("run", 0, "neuron count", a.states.size(), b.states.size());
    for (std::size_t n = 0; n < std::min(a.states.size(), b.states.size()); ++n) {
        const Kernel::State& left = a.states[n];
        const Kernel::State& right = b.states[n];
        first.compare("neuron", n, "membrane", left.membrane, right.membrane);
        first.compare("neuron", n, "adaptation", left.adaptation, right.adaptation);
        first.compare("neuron", n, "last_update", left.last_update, right.last_update);
        first.compare("neuron", n, "refractory_until", left.refractory_until,
                      right.refractory_until);
        first.compare("neuron", n, "hazard_bound", left.hazard_bound, right.hazard_bound);
        first.compare("neuron", n, "random state", a.random_states[n], b.random_states[n]);
    }
    for (std::size_t n = 0; n < std::min(a.candidates.size(), b.candidates.size()); ++n) {
        const CandidateSlot& left = a.candidates[n];
        const CandidateSlot& right = b.candidates[n];
        first.compare("neuron", n, "candidate time", left.time, right.time);
        first.compare("neuron", n, "candidate rate", left.rate, right.rate);
        first.compare("neuron", n, "candidate event", left.event_id, right.event_id);
    }
    for (std::size_t i = 0; i < std::min(a.log.size(), b.log.size()); ++i) {
        first.compare("spike", i, "time", a.log[i].time, b.log[i].time);
        first.compare("spike", i, "neuron", a.log[i].neuron, b.log[i].neuron);
    }
    first.compare("run", 0, "spike count", a.log.size(), b.log.size());
    first.compare("run", 0, "windows", a.profile.windows, b.profile.windows);
    first.compare("run", 0, "deliveries", a.profile.deliveries, b.profile.deliveries);
    first.compare("run", 0, "updates", a.profile.updates, b.profile.updates);
    first.compare("run", 0, "candidates", a.profile.candidates, b.profile.candidates);
    first.compare("run", 0, "accepted", a.profile.accepted, b.profile.accepted);
    return first.text();
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
        const std::string difference = firstDifference(imageOf(a), imageOf(b));
        if (!difference.empty()) return place + difference;
        if (!failure_a.empty()) break;
    }
    return {};
}

}  // namespace Lumenar::Core::Kelm::Testing
