#include "tests/support/BackendParity.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <span>

#include "tests/support/Draws.h"

namespace Lumenar::Core::Kelm::Testing {

namespace {

/// A value outside the meaning of every parameter.
double strangeValue(Draws& draws) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    return draws.oneOf({nan, -nan, infinity, -infinity, -1.0, 1e308, -1e308, 5e-324, -0.0});
}

/// spikes/s; candidates come near the end of what the vectors compute.
constexpr double slow_rate = 1e-6;

/// Parameters near the defaults, and one of each case of the formulas. `strange`: some are outside
/// their meaning.
void drawParameters(Draws& draws, bool strange, DrawnCall& call) {
    Kernel::Neuron& neuron = call.neuron;
    Kernel::Firing& firing = call.firing;
    if (!draws.oneIn(3)) {
        neuron.tau_membrane = 1 + draws.timeBelow(std::uint64_t{1} << (1 + draws.below(34)));
        neuron.tau_adaptation =
            1 + static_cast<ModelTime>(static_cast<double>(neuron.tau_membrane) *
                                       draws.between(0.0, draws.oneIn(2) ? 1.3 : 1100.0));
    }
    if (draws.oneIn(8)) neuron.tau_adaptation = neuron.tau_membrane;
    neuron.refractory_period = draws.timeBelow(4'000'000);
    neuron.adaptation_increment = draws.between(-0.2, 1.0);
    if (draws.oneIn(3)) neuron.input_coupling = draws.between(-0.5, 0.5);
    if (draws.oneIn(3)) neuron.reset_value = draws.between(-0.5, 0.5);
    if (draws.oneIn(3)) neuron.trace_epsilon = draws.oneIn(2) ? 0.0 : 1e-3;
    neuron.hard_refractory = !draws.oneIn(4);
    neuron.non_leaky = draws.oneIn(8);
    firing.base_rate = draws.between(0.0, 400.0);
    firing.gain = draws.between(0.2, 4.0);
    // With threshold 0 the last bits of small traces matter.
    firing.threshold = draws.oneIn(4) ? 0.0 : draws.between(-0.5, 0.5);
    if (draws.oneIn(2)) firing.adaptation_weight = draws.between(-0.3, 2.0);
    if (draws.oneIn(8)) firing.max_rate = draws.between(1.0, 400.0);
    if (draws.oneIn(16)) firing.base_rate = 0.0;
    // The waits are so long that the last bits of a draw matter.
    if (draws.oneIn(16)) firing.base_rate = slow_rate;
    if (!strange) return;
    if (draws.oneIn(4)) {
        firing.base_rate *= 1e7;
        firing.max_rate = 1e12;
        neuron.hard_refractory = false;
    }
    if (draws.oneIn(4)) neuron.tau_membrane = -draws.timeBelow(3);
    if (draws.oneIn(4)) neuron.refractory_period = -draws.timeBelow(1'000'000);
    *draws.oneOf({&neuron.adaptation_increment, &neuron.input_coupling, &neuron.reset_value,
                  &neuron.trace_epsilon, &firing.base_rate, &firing.gain, &firing.threshold,
                  &firing.adaptation_weight, &firing.rate_scale, &firing.max_rate}) =
        strangeValue(draws);
}

double drawTrace(Draws& draws) {
    if (draws.oneIn(4)) return 0.0;
    const double size = draws.oneOf({1.0, 1.0, 1.0, 1e-7, 1e-16, 1e-300});
    return draws.between(draws.oneIn(3) ? -1.0 : 0.0, 1.0) * size;
}

WindowWork drawItem(Draws& draws, bool strange, DrawnCall& call) {
    const ModelTime window = call.window, begin = call.window_end - window;
    WindowWork item;
    item.parameters = call.neuron;
    item.firing = call.firing;
    item.state.membrane = drawTrace(draws);
    item.state.adaptation = drawTrace(draws);
    item.state.last_update = draws.oneIn(4) ? begin : draws.timeBetween(0, begin + 1);
    item.state.refractory_until =
        draws.oneIn(2) ? 0 : item.state.last_update + draws.timeBelow(3'000'000);
    item.rng = draws.next();
    item.pending_time = draws.oneIn(2)   ? no_time
                        : draws.oneIn(2) ? begin + draws.timeBetween(0, window - 1)
                                         : call.window_end + draws.timeBetween(0, window - 1);
    // Often below the candidate's hazard, which is a bound violation.
    item.pending_bound = draws.oneIn(40) ? 0.0 : draws.between(0.0, 2000.0);
    if (draws.oneIn(40)) item.pending_bound = -1.0;
    item.first_event = static_cast<std::uint32_t>(call.events.size());
    // Many inputs are small, as in dense networks, and some come at the same time.
    const bool dense = draws.oneIn(6);
    item.event_count = static_cast<std::uint32_t>(draws.below(dense            ? 100
                                                              : draws.oneIn(4) ? 12
                                                                               : 3));
    const ModelTime grid = dense && draws.oneIn(3) ? window / 20 : 1;
    std::vector<ModelTime> times(item.event_count);
    for (ModelTime& time : times) {
        time = begin + draws.timeBetween(0, (window + window / 16) / grid) * grid;
    }
    std::sort(times.begin(), times.end());
    // Some items redraw where both slopes of the drive are equal, or nearly. The samples at the
    // extremum then differ from those at the ends only in the last bits.
    const bool even = item.event_count > 0 && draws.oneIn(2);
    if (even) {
        const double lead =
            std::pow(10.0, -(draws.oneIn(2) ? draws.between(6.0, 9.0) : draws.between(-1.0, 15.0)));
        item.state.membrane = item.state.adaptation * call.firing.adaptation_weight *
                              static_cast<double>(call.neuron.tau_membrane) /
                              static_cast<double>(call.neuron.tau_adaptation) *
                              (draws.oneIn(4) ? 1.0 - lead : 1.0 + lead);
        // If the end is as near as the extremum, all samples lie that close together.
        if (draws.oneIn(2) && call.horizon <= call.window_end) {
            item.event_count = 1;
            times = {call.horizon - 1 - draws.timeBelow(64)};
        }
        item.state.last_update = times.front();
    }
    // A trace that has decayed to the very limit of clipping stays.
    if (item.event_count > 0 && draws.oneIn(16)) {
        const auto interval = static_cast<double>(times.front() - item.state.last_update);
        item.state.membrane =
            call.neuron.trace_epsilon /
            Kernel::kernelExp(-interval / static_cast<double>(call.neuron.tau_membrane));
    }
    for (const ModelTime time : times) {
        const double size = dense ? 0.03 : 1.0;
        double value = even ? 0.0 : draws.between(-0.3, 1.0) * size;
        if (dense && draws.oneIn(200)) value = draws.oneOf({0.0, -0.0, 3.0});
        call.events.push_back({time, value, draws.oneIn(dense ? 60 : 6), {}});
    }
    if (draws.oneIn(12)) {
        item.drive.term_count = static_cast<std::int32_t>(draws.below(4));
        item.drive.base = draws.between(-0.1, 0.1);
        item.drive.bound = 0.5;
        for (PhaseTerm& term : item.drive.terms) term = {0.1, draws.between(0.0, 6.0), 1e-6};
    }
    if (draws.oneIn(40)) item.firing.gain = draws.between(0.2, 4.0);
    if (draws.oneIn(40)) item.firing.max_rate = draws.between(1.0, 400.0);
    if (strange && draws.oneIn(4)) {
        *draws.oneOf({&item.state.membrane, &item.state.adaptation, &item.pending_bound,
                      &item.drive.base, &item.drive.bound}) = strangeValue(draws);
        if (item.event_count > 0) call.events.back().value = strangeValue(draws);
    }
    return item;
}

}  // namespace

DrawnCall drawCall(std::uint64_t seed, std::uint64_t item_count, bool strange) {
    Draws draws(seed);
    DrawnCall call;
    drawParameters(draws, strange, call);
    // An infinite rate gives a candidate every nanosecond.
    call.window = strange ? 1'000 : 1'000'000;
    call.window_end = 1'000'000 + draws.timeBelow(draws.oneIn(2) ? 1 : 1'000'000'000);
    call.horizon = call.window_end + draws.timeBelow(draws.oneIn(4) ? 1 : 400'000'000);
    if (draws.oneIn(8)) call.horizon = call.window_end - draws.timeBelow(1'000'000);
    // Times at which doubles no longer hold halves, or no longer all integers.
    if (draws.oneIn(16)) {
        call.horizon = (ModelTime{1} << (50 + draws.below(12))) + 1;
        // The drive is then largest that late as well.
        if (draws.oneIn(2)) {
            call.neuron.tau_membrane *= ModelTime{1} << 18;
            call.neuron.tau_adaptation *= ModelTime{1} << 18;
        }
    }
    if (call.firing.base_rate == slow_rate) call.horizon = ModelTime{1} << 51;
    for (std::uint64_t i = 0; i < item_count; ++i) {
        call.work.push_back(drawItem(draws, strange, call));
    }
    return call;
}

DrawnCall uniformCall(std::size_t item_count) {
    DrawnCall call;
    call.window_end = 1'000'000;
    call.horizon = 10'000'000;
    call.events = {{500'000, 1.0, false, {}}};
    call.work.resize(item_count);
    for (WindowWork& item : call.work) {
        item.event_count = 1;
        item.pending_time = no_time;
    }
    return call;
}

std::vector<Kernel::WindowResult> compute(IWindowBackend& backend, const DrawnCall& call) {
    std::vector<Kernel::WindowResult> results(call.work.size());
    const std::span<std::byte> bytes = std::as_writable_bytes(std::span(results));
    std::fill(bytes.begin(), bytes.end(), std::byte{0x5a});
    backend.processWindow(call.work, call.events, call.window_end, call.horizon, call.neuron,
                          call.firing, results);
    return results;
}

std::vector<Kernel::WindowResult> computePlainly(const DrawnCall& call) {
    std::vector<Kernel::WindowResult> results;
    for (const WindowWork& item : call.work) {
        Kernel::NeuronModel model(item.parameters, item.firing);
        model.reach = 0.0;
        model.minimum_adaptation = Kernel::infinity();
        results.push_back(
            Kernel::processWindow(item, model, call.events.data(), call.window_end, call.horizon));
    }
    return results;
}

std::vector<Kernel::WindowResult> withOneNan(std::vector<Kernel::WindowResult> results) {
    for (Kernel::WindowResult& result : results) {
        for (double* value : {&result.state.membrane, &result.state.adaptation,
                              &result.state.hazard_bound, &result.next_bound}) {
            if (Kernel::isNan(*value)) *value = Kernel::quietNan();
        }
    }
    return results;
}

}  // namespace Lumenar::Core::Kelm::Testing
