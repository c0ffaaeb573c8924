#include "kelm/kernel/WindowProcessing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "tests/support/Draws.h"
#include "tests/support/SameBits.h"
#include "tests/support/SameImages.h"

namespace Lumenar::Core::Kelm::Kernel {

using Testing::Draws;
using Testing::sameBits;

constexpr std::uint64_t increment = 0x9e3779b97f4a7c15;
constexpr std::uint64_t seed_one = 0x3c9c77c8b045dfa4;  // the first neuron's stream under seed 1
/// The raw state before 0, whose next value is 0: the output function maps 0 to 0.
constexpr std::uint64_t before_zero = 0 - increment;

std::uint64_t drawsBetween(std::uint64_t before, std::uint64_t after) {
    return (after - before) * splitmix_increment_inverse;
}

/// All arguments of one walk.
struct Walk {
    State state;
    Neuron neuron;
    Firing firing;
    std::uint64_t rng = seed_one;
    std::vector<WindowEvent> events;
    ModelTime window_end = 4000000;
    ModelTime horizon = 1000000000;
    PhaseDrive drive;
    ModelTime pending_time = -1;
    double pending_bound = 0.0;

    WindowResult result() const {
        return processWindow(state, rng, neuron, firing, events.data(),
                             static_cast<std::uint32_t>(events.size()), window_end, horizon, drive,
                             pending_time, pending_bound);
    }
};

/// Equality of all bytes, gaps included.
::testing::AssertionResult same(const WindowResult& actual, const WindowResult& expected) {
    return Testing::sameImages<WindowResult>({&actual, 1}, {&expected, 1});
}

/// A neuron at rest with a high rate and two inputs.
Walk twoInputs() {
    Walk walk;
    walk.firing.base_rate = 200.0;
    walk.firing.gain = 1.5;
    walk.events = {{.time = 1000000, .value = 2.0}, {.time = 1500000, .value = 1.0}};
    return walk;
}

// The numbers of these two tests come from the definition of the model, not from this code.
TEST(WindowProcessing, WalksTwoInputs) {
    const WindowResult result = twoInputs().result();
    EXPECT_TRUE(same(result, {.state = {.membrane = 0.0,
                                        .adaptation = fromBits(0x3fef3df97c1188b4),
                                        .last_update = 3904790,
                                        .refractory_until = 3507816,
                                        .hazard_bound = fromBits(0x4068ff8ebbe49a51)},
                              .rng = 0xf1e95221ac04c822,
                              .spike_count = 1,
                              .spike_times = {1507816},
                              .next_candidate = 12914736,
                              .next_bound = fromBits(0x4068ff8ebbe49a51),
                              .updates = 4,
                              .candidates = 2,
                              .accepted = 1}));
    // A bound for each input and each candidate, and an acceptance for each candidate.
    EXPECT_EQ(drawsBetween(seed_one, result.rng), 6U);
}

TEST(WindowProcessing, WalksTwoInputsUnderAPhaseTerm) {
    Walk walk = twoInputs();
    walk.drive.bound = 0.5;
    walk.drive.term_count = 1;
    walk.drive.terms[0] = {.amplitude = 0.5, .phase = 0.0, .omega = 2.5132741228718345e-07};
    EXPECT_TRUE(same(walk.result(), {.state = {.membrane = 1.0,
                                               .adaptation = 0.9981417586722748,
                                               .last_update = 1500000,
                                               .refractory_until = 3314003,
                                               .hazard_bound = -1.0},
                                     .rng = 0x2e584594aa99c04c,
                                     .spike_count = 1,
                                     .spike_times = {1314003},
                                     .next_candidate = 4000000,
                                     .next_bound = -1.0,
                                     .updates = 5,
                                     .candidates = 3,
                                     .accepted = 1}));
}

// A draw of zero counts as the smallest normal number. Its logarithm is -708.3964185322641.
TEST(NextCandidate, TakesTheLeastNormalNumberForADrawOfZeroAndDropsAWaitOf9e18) {
    const double longest = 708.3964185322641 / 9e9;
    for (const double rate : {2.0, 7.88e-8, longest, 7.87e-8}) {
        SCOPED_TRACE(rate);
        std::uint64_t rng = before_zero;
        const Firing firing{.base_rate = rate, .gain = 0.0};
        const Candidate candidate = nextCandidate({}, {}, firing, 7, last_model_time, 0.0, rng);
        EXPECT_EQ(candidate.found, rate > longest);
        EXPECT_EQ(candidate.time,
                  rate > longest ? 7 + std::llround(708.3964185322641 / rate * 1e9) : 0);
        EXPECT_EQ(candidate.bound, rate);
    }
}

TEST(NextCandidate, LiesBelowTheLimitAndWithinTime) {
    const auto draw = [](ModelTime from, ModelTime limit, double rate = 200.0) {
        std::uint64_t rng = seed_one;
        return nextCandidate({}, {}, {.base_rate = rate, .max_rate = rate}, from, limit, 0.0, rng);
    };
    const Candidate candidate = draw(0, last_model_time);
    EXPECT_FALSE(draw(0, candidate.time).found);
    EXPECT_TRUE(draw(0, candidate.time + 1).found);
    EXPECT_FALSE(draw(last_model_time - 5, last_model_time).found);
    // A negative rate gives a negative wait, which counts as the shortest one.
    EXPECT_EQ(draw(7, last_model_time, -200.0).time, 8);
}

TEST(WindowProcessing, AHazardAboveItsBoundStopsTheWalkBeforeAnythingMoves) {
    // The hazard is exactly 200. A bound of 200 less one part in 10^12 is within the tolerance.
    for (const double bound : {1e300, 200.0, 199.9999999998, 199.9999999997, 0.0}) {
        SCOPED_TRACE(bound);
        Walk walk;
        walk.state.membrane = 0.25;
        walk.firing = {.base_rate = 200.0, .gain = 0.0};
        walk.pending_time = 1000;
        walk.pending_bound = bound;
        walk.rng = before_zero;  // a draw of 0 accepts every ratio above 0
        const WindowResult result = walk.result();
        const bool holds = bound > 199.99999999975;
        EXPECT_EQ(result.accepted >= 1, holds);
        if (holds) continue;
        EXPECT_TRUE(same(result, {.state = walk.state,
                                  .rng = walk.rng,
                                  .updates = 1,
                                  .candidates = 1,
                                  .bound_violation = true}));
    }
}

/// A second implementation of the walk, as a list of steps with jumps.
class StepByStep {
public:
    explicit StepByStep(const Walk& walk) : in_(walk) {}

    WindowResult result() {
        const std::vector<WindowEvent>& events = in_.events;
        std::size_t i = 0;
        ModelTime e_time = 0;
        bool event = false;
        double h = 0.0, u = 0.0, ratio = 0.0;
        Traces traces = {};

        out_.state = in_.state;
        out_.rng = in_.rng;
        c_ = in_.pending_time;
        b_ = in_.pending_bound;
    head:
        e_time = in_.window_end;
        event = false;
        if (i < events.size() && events[i].time < in_.window_end) {
            e_time = events[i].time;
            event = true;
        }
        if (c_ >= 0 && c_ < e_time) goto candidate;
        if (!event) goto end;
        i = i + 1;
        if (events[i - 1].wake_only) goto head;
        out_.updates += 1;
        advanceTraces(out_.state, in_.neuron, events[i - 1].time);
        applyInput(out_.state, in_.neuron, events[i - 1].value);
        draw(events[i - 1].time);
        goto head;
    candidate:
        if (b_ < 0) {
            draw(c_);
            goto head;
        }
        out_.updates += 1;
        out_.candidates += 1;
        traces = tracesAfter(out_.state, in_.neuron, decayInterval(out_.state.last_update, c_));
        h = hazardAt(out_.state, traces, NeuronModel(in_.neuron, in_.firing), c_, driveAt(c_));
        if (h > b_ * fromBits(0x3ff0000000001198)) {
            out_.bound_violation = true;
            return out_;
        }
        advanceTraces(out_.state, in_.neuron, c_);
        u = uniform();
        ratio = 0.0;
        if (b_ != 0) ratio = h / b_;
        if (!(ratio > u)) goto redraw;
        out_.accepted += 1;
        if (out_.spike_count >= 8) {
            out_.spike_overflow = true;
            return out_;
        }
        out_.spike_times[out_.spike_count] = c_;
        out_.spike_count += 1;
        applySpike(out_.state, in_.neuron, c_);
    redraw:
        draw(c_);
        goto head;
    end:
        out_.next_candidate = c_;
        out_.next_bound = b_;
        out_.state.hazard_bound = b_;
        return out_;
    }

    std::uint64_t drawCount() const { return draw_count_; }
    bool sawMarker() const { return saw_marker_; }

private:
    double uniform() {
        ++draw_count_;
        out_.rng += increment;
        std::uint64_t z = out_.rng;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
        z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
        z = z ^ (z >> 31);
        return std::ldexp(static_cast<double>(z >> 11), -53);
    }

    double driveAt(ModelTime time) const {
        const double t = static_cast<double>(time - in_.drive.origin);
        double d = in_.drive.base;
        for (int k = 0; k < in_.drive.term_count; ++k) {
            const double x = t * in_.drive.terms[k].omega + in_.drive.terms[k].phase;
            d = d + kernelSin(x) * in_.drive.terms[k].amplitude;
        }
        return d;
    }

    /// Draws from `from` on. Without a time it sets the marker or no candidate.
    void draw(ModelTime from) {
        const bool terms = in_.drive.term_count > 0;
        const ModelTime limit = terms ? in_.window_end : in_.horizon;
        bool found = false;
        ModelTime time = 0;
        double bound = 0.0;

        const bool refractory = in_.neuron.hard_refractory && out_.state.refractory_until > from;
        const ModelTime start = refractory ? out_.state.refractory_until : from;
        if (start < limit) {
            bound =
                hazardUpperBound(out_.state, in_.neuron, in_.firing, start, limit, in_.drive.bound);
        }
        if (bound != 0) {  // also for a NaN
            double u = uniform();
            if (u == 0) u = fromBits(0x0010000000000000);
            const double w = -kernelLog(u) / bound * 1e9;
            if (std::isfinite(w) && w < 9e18) {
                const double rounded = std::trunc(w + (w < 0 ? -0.5 : 0.5));
                time = start + (rounded < 1 ? 1 : static_cast<ModelTime>(rounded));
                found = time < limit;
            }
        }

        c_ = found ? time : -1;
        b_ = bound;
        if (!found && terms && in_.window_end < in_.horizon) {
            saw_marker_ = true;
            c_ = in_.window_end;
            b_ = -1.0;
        }
    }

    const Walk& in_;
    WindowResult out_;
    ModelTime c_ = 0;
    double b_ = 0.0;
    std::uint64_t draw_count_ = 0;
    bool saw_marker_ = false;
};

Walk generateWalk(Draws& draws) {
    Walk walk;
    const ModelTime width = 1 + draws.timeBelow(std::uint64_t{1} << (10 + draws.below(14)));
    const ModelTime start = draws.oneOf<ModelTime>(
        {0, 123456789, (ModelTime{1} << 53) - width / 2, ModelTime{1} << 60});
    walk.window_end = start + width;
    walk.horizon = walk.window_end +
                   (draws.oneIn(4) ? 0 : draws.timeBelow(std::uint64_t{1} << draws.below(40)));
    walk.rng = draws.oneIn(20) ? before_zero : draws.next();

    const auto inWindow = [&] {
        return start + draws.timeBelow(static_cast<std::uint64_t>(width));
    };
    walk.state.membrane = draws.oneOf({0.0, -0.0, draws.between(-2.0, 2.0)});
    walk.state.adaptation = draws.oneOf({0.0, draws.between(0.0, 2.0)});
    walk.state.last_update = start - draws.timeBelow(static_cast<std::uint64_t>(width)) / 2;
    walk.state.refractory_until = draws.oneIn(3) ? inWindow() : start - 1;

    // Rates are drawn as candidates per window.
    const double windows_per_s = 1e9 / static_cast<double>(width);
    walk.neuron.tau_membrane = 1 + draws.timeBelow(static_cast<std::uint64_t>(8 * width));
    walk.neuron.tau_adaptation = 1 + draws.timeBelow(static_cast<std::uint64_t>(32 * width));
    walk.neuron.refractory_period = draws.timeBelow(static_cast<std::uint64_t>(width)) / 4;
    walk.neuron.adaptation_increment = draws.between(-0.1, 1.0);
    walk.neuron.input_coupling = draws.oneOf({0.0, draws.between(-0.5, 0.5)});
    walk.neuron.reset_value = draws.oneOf({0.0, -0.0, draws.between(-1.0, 1.0)});
    walk.neuron.trace_epsilon = draws.oneOf({0.0, 1e-15, 0.01});
    walk.neuron.hard_refractory = !draws.oneIn(3);
    walk.neuron.non_leaky = draws.oneIn(6);
    walk.firing.base_rate =
        windows_per_s * draws.oneOf({0.0, 0.01, 1.0, 5.0, 5.0, draws.between(0.0, 20.0)});
    if (draws.oneIn(200)) walk.firing.base_rate = -1.0;
    walk.firing.gain = draws.between(0.0, 2.0);
    walk.firing.threshold = draws.between(-0.5, 0.5);
    walk.firing.adaptation_weight = draws.between(0.0, 1.5);
    walk.firing.max_rate = windows_per_s * draws.between(1.0, 50.0);

    walk.drive.origin = start;
    walk.drive.base = draws.oneOf({0.0, draws.between(-0.5, 0.5)});
    walk.drive.bound = walk.drive.base;
    if (draws.oneIn(2)) {
        walk.drive.term_count = static_cast<std::int32_t>(draws.below(9));
        for (int i = 0; i < walk.drive.term_count; ++i) {
            const double amplitude = draws.between(-0.5, 0.5);
            walk.drive.terms[i] = {amplitude, draws.between(-4.0, 4.0),
                                   draws.between(0.0, 20.0) / static_cast<double>(width)};
            walk.drive.bound += std::fabs(amplitude);
        }
    }
    if (draws.oneIn(30)) walk.drive.bound -= 0.3;  // a bound that is too low

    for (std::uint64_t left = draws.below(10); left > 0; --left) {
        WindowEvent event{.time = inWindow(), .value = draws.between(-1.5, 1.5)};
        event.wake_only = draws.oneIn(5);
        if (draws.oneIn(10)) event.time = walk.window_end + draws.timeBelow(2);
        walk.events.push_back(event);
        if (draws.oneIn(5)) walk.events.push_back(event);
    }
    std::ranges::stable_sort(walk.events, {}, &WindowEvent::time);

    if (!draws.oneIn(3)) {
        walk.pending_time = draws.oneIn(4) ? start : inWindow();
        if (!walk.events.empty() && draws.oneIn(3)) walk.pending_time = walk.events[0].time;
        walk.pending_bound = hazardUpperBound(walk.state, walk.neuron, walk.firing, start,
                                              walk.horizon, walk.drive.bound);
        if (walk.drive.term_count > 0 && draws.oneIn(3)) walk.pending_bound = -1.0;
        if (draws.oneIn(30)) walk.pending_bound = 0.0;
    }
    return walk;
}

TEST(WindowProcessing, AgreesWithTheWalkWrittenStepByStep) {
    int spikes = 0, overflows = 0, violations = 0, markers = 0, nan_bounds = 0;
    for (std::uint64_t seed = 0; seed < 30000; ++seed) {
        Draws draws(seed);
        const Walk walk = generateWalk(draws);
        const WindowResult result = walk.result();
        StepByStep reference(walk);
        ASSERT_TRUE(same(result, reference.result())) << "seed " << seed;
        ASSERT_EQ(drawsBetween(walk.rng, result.rng), reference.drawCount()) << "seed " << seed;
        spikes += result.spike_count;
        overflows += result.spike_overflow;
        violations += result.bound_violation;
        markers += reference.sawMarker();
        nan_bounds += isNan(result.next_bound);
    }
    // Every path of the walk was taken often.
    EXPECT_GT(spikes, 10000);
    EXPECT_GT(std::min({overflows, violations, markers}), 200);
    EXPECT_GT(nan_bounds, 20);
}

}  // namespace Lumenar::Core::Kelm::Kernel
