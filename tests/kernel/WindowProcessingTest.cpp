#include "kelm/kernel/WindowProcessing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "tests/support/Draws.h"
#include "tests/support/SameBits.h"

namespace Lumenar::Core::Kelm::Kernel {

using Testing::Draws;
using Testing::sameBits;

constexpr std::uint64_t increment = 0x9e3779b97f4a7c15;
constexpr std::uint64_t seed_one = 0x3c9c77c8b045dfa4;  // the first neuron's stream under seed 1
/// The raw state whose next value is 0: the output function maps 0 to 0.
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

/// What the walk would write for a neuron that was not touched.
WindowResult untouched(const Walk& walk) {
    WindowResult result;
    result.state = walk.state;
    result.rng = walk.rng;
    result.next_candidate = walk.pending_time;
    result.next_bound = walk.pending_bound;
    result.state.hazard_bound = walk.pending_bound;
    return result;
}

/// The first field in which two results differ, with both values; empty where every byte agrees.
std::string difference(const WindowResult& a, const WindowResult& b) {
    if (std::memcmp(&a, &b, sizeof a) == 0) return {};
    std::string text;
    const auto field = [&](const std::string& name, auto x, auto y) {
        if (text.empty() && std::memcmp(&x, &y, sizeof x) != 0) {
            text = name + ": " + std::to_string(x) + " and " + std::to_string(y);
            if constexpr (sizeof x == 8) {
                text += ", bits " + std::to_string(std::bit_cast<std::uint64_t>(x)) + " and " +
                        std::to_string(std::bit_cast<std::uint64_t>(y));
            }
        }
    };
    field("updates", a.updates, b.updates);
    field("candidates", a.candidates, b.candidates);
    field("accepted", a.accepted, b.accepted);
    field("spike_count", a.spike_count, b.spike_count);
    for (int i = 0; i < max_window_spikes; ++i) {
        field("spike " + std::to_string(i), a.spike_times[i], b.spike_times[i]);
    }
    field("spike_overflow", a.spike_overflow, b.spike_overflow);
    field("bound_violation", a.bound_violation, b.bound_violation);
    field("membrane", a.state.membrane, b.state.membrane);
    field("adaptation", a.state.adaptation, b.state.adaptation);
    field("last_update", a.state.last_update, b.state.last_update);
    field("refractory_until", a.state.refractory_until, b.state.refractory_until);
    field("hazard_bound", a.state.hazard_bound, b.state.hazard_bound);
    field("rng", a.rng, b.rng);
    field("next_candidate", a.next_candidate, b.next_candidate);
    field("next_bound", a.next_bound, b.next_bound);
    return text.empty() ? "a gap" : text;
}

/// A neuron at rest that fires readily and takes two inputs.
Walk twoInputs() {
    Walk walk;
    walk.firing.base_rate = 200.0;
    walk.firing.gain = 1.5;
    walk.events = {{.time = 1000000, .value = 2.0}, {.time = 1500000, .value = 1.0}};
    return walk;
}

// The numbers of the first three tests come with the model's definition, not from this code.
TEST(WindowProcessing, DrawsTheFirstCandidateOfARestingNeuron) {
    std::uint64_t rng = seed_one;
    const Candidate candidate = nextCandidate({}, {}, {}, 0, 10000000000000, 0.0, rng);
    EXPECT_TRUE(candidate.found);
    EXPECT_EQ(candidate.time, 4082757387);
    EXPECT_TRUE(sameBits(candidate.bound, 0.500000000000008));
    EXPECT_EQ(rng, 0xdad3f1822f905bb9U);
}

TEST(WindowProcessing, WalksTwoInputs) {
    const WindowResult result = twoInputs().result();
    WindowResult expected;
    expected.state = {.membrane = 0.0,
                      .adaptation = fromBits(0x3fef3df97c1188b4),
                      .last_update = 3904790,
                      .refractory_until = 3507816,
                      .hazard_bound = fromBits(0x4068ff8ebbe49a51)};
    expected.rng = 0xf1e95221ac04c822;
    expected.spike_count = 1;
    expected.spike_times[0] = 1507816;
    expected.next_candidate = 12914736;
    expected.next_bound = fromBits(0x4068ff8ebbe49a51);
    expected.updates = 4;
    expected.candidates = 2;
    expected.accepted = 1;
    EXPECT_EQ(difference(result, expected), "");
    // A bound for each input and each candidate, and an acceptance for each candidate.
    EXPECT_EQ(drawsBetween(seed_one, result.rng), 6U);
}

TEST(WindowProcessing, WalksTwoInputsUnderAPhaseTerm) {
    Walk walk = twoInputs();
    walk.drive.bound = 0.5;
    walk.drive.term_count = 1;
    walk.drive.terms[0] = {.amplitude = 0.5, .phase = 0.0, .omega = 2.5132741228718345e-07};
    const WindowResult result = walk.result();
    WindowResult expected;
    expected.state = {.membrane = 1.0,
                      .adaptation = 0.9981417586722748,
                      .last_update = 1500000,
                      .refractory_until = 3314003,
                      .hazard_bound = -1.0};
    expected.rng = 0x2e584594aa99c04c;
    expected.spike_count = 1;
    expected.spike_times[0] = 1314003;
    expected.next_candidate = 4000000;
    expected.next_bound = -1.0;
    expected.updates = 5;
    expected.candidates = 3;
    expected.accepted = 1;
    EXPECT_EQ(difference(result, expected), "");
}

TEST(WindowProcessing, AUniformHas53BitsAndStartsAtZero) {
    std::uint64_t rng = before_zero;
    EXPECT_TRUE(sameBits(drawUniform(rng), 0.0));
    EXPECT_EQ(rng, 0U);
    // 6457827717110365317, the first value from 1234567 as published with the generator, less its
    // eleven low bits, over 2^64.
    rng = 1234567;
    EXPECT_TRUE(sameBits(drawUniform(rng), 6457827717110364160.0 / 18446744073709551616.0));
}

TEST(WindowProcessing, AWaitIsRoundedHalfUpAndIsAtLeastOne) {
    struct Case {
        double wait;
        ModelTime rounded;
    };
    for (const Case& c :
         {Case{0.0, 1}, Case{0.3, 1}, Case{1.49, 1}, Case{1.5, 2}, Case{2.5, 3}, Case{-0.3, 1},
          Case{-7.0, 1}, Case{-1e300, 1}, Case{8999999999999998976.0, 8999999999999998976}}) {
        EXPECT_EQ(waitingTime(c.wait), c.rounded) << c.wait;
    }
}

TEST(WindowProcessing, ADriveSumsItsTermsFromTheOriginOn) {
    PhaseDrive drive{.origin = 1000, .base = 0.25};
    EXPECT_EQ(phaseDriveAt(drive, 5000), 0.25);
    drive.term_count = 2;
    drive.terms[0] = {.amplitude = 2.0, .phase = 0.0, .omega = 1.5707963267948966e-3};
    drive.terms[1] = {.amplitude = -4.0, .phase = 1.5707963267948966, .omega = 0.0};
    drive.terms[2] = {.amplitude = 100.0, .phase = 1.5707963267948966, .omega = 0.0};
    EXPECT_EQ(phaseDriveAt(drive, 1000), 0.25 - 4.0);
    EXPECT_EQ(phaseDriveAt(drive, 2000), 0.25 + 2.0 - 4.0);
    // Past 2^53 an instant and an origin are subtracted before either is rounded.
    drive.origin = (ModelTime{1} << 60) + 1;
    EXPECT_EQ(phaseDriveAt(drive, drive.origin + 1000), 0.25 + 2.0 - 4.0);
}

TEST(NextCandidate, StartsBehindTheRefractoryTimeAndOnlyAHardOneCounts) {
    const State state{.refractory_until = 5000};
    const Firing hot{.base_rate = 1e6};
    for (const bool hard : {false, true}) {
        std::uint64_t rng = seed_one;
        const Candidate candidate =
            nextCandidate(state, {.hard_refractory = hard}, hot, 0, 1000000, 0.0, rng);
        ASSERT_TRUE(candidate.found);
        EXPECT_EQ(candidate.time > 5000, hard);
        EXPECT_EQ(drawsBetween(seed_one, rng), 1U);
    }
    std::uint64_t rng = seed_one;
    EXPECT_FALSE(nextCandidate(state, {}, hot, 0, 5000, 0.0, rng).found);
    EXPECT_EQ(rng, seed_one) << "a limit inside the refractory time draws nothing";
}

TEST(NextCandidate, MovesTheGeneratorExactlyWhereTheBoundIsNotZero) {
    struct Case {
        const char* fact;
        double base_rate;
        ModelTime limit;
        bool found;
        std::uint64_t draws;
    };
    for (const Case& c : {
             Case{"no hazard", 0.0, last_model_time, false, 0},
             Case{"nowhere to go", 1e6, 0, false, 0},
             Case{"a bound that is no number", -1.0, 1000000, false, 1},
             Case{"a candidate behind the limit", 1e-3, 10, false, 1},
             Case{"a candidate before the limit", 1e6, 1000000, true, 1},
         }) {
        SCOPED_TRACE(c.fact);
        std::uint64_t rng = seed_one;
        const Candidate candidate =
            nextCandidate({}, {}, {.base_rate = c.base_rate}, 0, c.limit, 0.0, rng);
        EXPECT_EQ(candidate.found, c.found);
        EXPECT_EQ(drawsBetween(seed_one, rng), c.draws);
        EXPECT_EQ(candidate.bound != 0, c.draws == 1) << "the bound is told without a time, too";
        if (!c.found) {
            EXPECT_EQ(candidate.time, 0);
        }
    }
}

TEST(NextCandidate, TakesTheLeastNormalNumberForADrawOfZero) {
    // 708.3964185322641 is -ln of the least normal number; a bound of 2 needs a gain of 0.
    std::uint64_t rng = before_zero;
    const Firing firing{.base_rate = 2.0, .gain = 0.0};
    const Candidate candidate = nextCandidate({}, {}, firing, 7, last_model_time, 0.0, rng);
    ASSERT_TRUE(candidate.found);
    EXPECT_EQ(candidate.time, 7 + std::llround(708.3964185322641 / 2.0 * 1e9));
}

// With a draw of zero the wait is 708.3964185322641 s over the bound.
TEST(NextCandidate, DropsAWaitOf9e18AndMore) {
    const double rate = 708.3964185322641 / 9e9;
    ASSERT_EQ(708.3964185322641 / rate * 1e9, 9e18);
    struct Case {
        double base_rate;
        bool found;
    };
    for (const Case& c : {Case{7.88e-8, true}, Case{rate, false}, Case{7.87e-8, false}}) {
        std::uint64_t rng = before_zero;
        const Firing firing{.base_rate = c.base_rate, .gain = 0.0};
        const Candidate candidate = nextCandidate({}, {}, firing, 0, last_model_time, 0.0, rng);
        EXPECT_EQ(candidate.found, c.found) << c.base_rate;
        EXPECT_EQ(candidate.bound, c.base_rate);
        EXPECT_EQ(rng, 0U);
    }
}

TEST(NextCandidate, AWaitThatEndsAtTheLimitOrBeyondTheRangeIsNoCandidate) {
    const Firing firing{.base_rate = 200.0};
    std::uint64_t rng = seed_one;
    const Candidate candidate = nextCandidate({}, {}, firing, 0, last_model_time, 0.0, rng);
    ASSERT_TRUE(candidate.found);
    rng = seed_one;
    EXPECT_FALSE(nextCandidate({}, {}, firing, 0, candidate.time, 0.0, rng).found);
    rng = seed_one;
    EXPECT_TRUE(nextCandidate({}, {}, firing, 0, candidate.time + 1, 0.0, rng).found);
    rng = seed_one;
    EXPECT_FALSE(
        nextCandidate({}, {}, firing, last_model_time - 5, last_model_time, 0.0, rng).found);
}

TEST(WindowProcessing, WithoutEventOrCandidateOnlyTheBoundIsPassedOn) {
    Walk walk;
    walk.state = {1.0, 2.0, 3, 4, 5.0};
    walk.pending_bound = 7.0;
    EXPECT_EQ(difference(walk.result(), untouched(walk)), "");
    walk.pending_time = walk.window_end;
    EXPECT_EQ(difference(walk.result(), untouched(walk)), "") << "a candidate at the end waits";
    walk.events = {{.time = 3, .wake_only = true}, {.time = walk.window_end, .value = 1.0}};
    EXPECT_EQ(difference(walk.result(), untouched(walk)), "") << "neither event is an input";
}

TEST(WindowProcessing, AnInputComesBeforeACandidateOfItsInstantAndReplacesIt) {
    Walk walk;
    walk.events = {{.time = 1000, .value = 0.5}};
    walk.pending_time = 1000;
    walk.pending_bound = 1e6;
    const WindowResult result = walk.result();
    EXPECT_EQ(result.updates, 1U);
    EXPECT_EQ(result.candidates, 0U);
    EXPECT_EQ(result.state.membrane, 0.5);
    EXPECT_GT(result.next_candidate, 1000);
    EXPECT_EQ(drawsBetween(walk.rng, result.rng), 1U);

    walk.pending_time = 999;
    EXPECT_GE(walk.result().candidates, 1U) << "one nanosecond earlier it comes first";
}

TEST(WindowProcessing, AWakeEventLeavesItsCandidateToBeEvaluated) {
    Walk walk;
    walk.events = {{.time = 1000, .wake_only = true}};
    walk.pending_time = 1000;
    walk.pending_bound = 1.0;
    const WindowResult result = walk.result();
    EXPECT_EQ(result.updates, 1U);
    EXPECT_EQ(result.candidates, 1U);
    EXPECT_EQ(result.state.last_update, 1000);
}

TEST(WindowProcessing, ANeuronThatCannotFireDrawsNothing) {
    Walk walk = twoInputs();
    walk.firing.base_rate = 0.0;
    const WindowResult result = walk.result();
    EXPECT_EQ(result.updates, 2U);
    EXPECT_EQ(result.rng, walk.rng);
    EXPECT_EQ(result.next_candidate, -1);
    EXPECT_EQ(result.next_bound, 0.0);
}

TEST(WindowProcessing, PhaseTermsLeaveAMarkerUntilTheHorizon) {
    Walk walk;
    walk.firing.base_rate = 0.0;
    walk.drive.term_count = 1;
    walk.pending_time = 0;
    walk.pending_bound = -1.0;
    WindowResult expected = untouched(walk);
    expected.next_candidate = walk.window_end;
    expected.next_bound = expected.state.hazard_bound = -1.0;
    EXPECT_EQ(difference(walk.result(), expected), "") << "a marker counts nothing, draws nothing";

    walk.horizon = walk.window_end;
    expected.next_candidate = -1;
    expected.next_bound = expected.state.hazard_bound = 0.0;
    EXPECT_EQ(difference(walk.result(), expected), "");
}

TEST(WindowProcessing, ADrawnBoundOutlivesTheTimeThatItDidNotGive) {
    Walk walk;
    walk.horizon = walk.window_end + 1;
    walk.firing = {.base_rate = 1e-3, .gain = 0.0};
    walk.events = {{.time = 10, .value = 1.0}};
    const WindowResult result = walk.result();
    EXPECT_EQ(result.next_candidate, -1);
    EXPECT_EQ(result.next_bound, 1e-3);
    EXPECT_EQ(result.state.hazard_bound, 1e-3);
}

TEST(WindowProcessing, ACandidateInsideARefractoryTimeIsRejectedButTouchesTheTraces) {
    Walk walk;
    walk.state = {.membrane = 1.0, .refractory_until = 3000000};
    walk.firing.base_rate = 1e6;
    walk.pending_time = 2000000;
    walk.pending_bound = 1e6;
    walk.rng = before_zero;  // a draw of 0 accepts every ratio above 0
    walk.window_end = 3000000;
    const WindowResult result = walk.result();
    EXPECT_EQ(result.candidates, 1U);
    EXPECT_EQ(result.accepted, 0U);
    EXPECT_EQ(result.state.last_update, 2000000);
    EXPECT_GT(result.next_candidate, 3000000);
}

TEST(WindowProcessing, ADrawOfZeroAcceptsAnyRatioAboveZero) {
    Walk walk;
    walk.firing.gain = 0.0;
    walk.pending_time = 2000000;
    walk.pending_bound = 1e300;
    walk.rng = before_zero;
    EXPECT_EQ(walk.result().accepted, 1U);
}

TEST(WindowProcessing, AHazardAboveItsBoundStopsTheWalkBeforeAnythingMoves) {
    Walk walk;
    walk.state.membrane = 0.25;
    walk.firing = {.base_rate = 200.0, .gain = 0.0};
    walk.pending_time = 1000;
    struct Case {
        double bound;
        bool violated;
    };
    // The hazard is exactly 200; 200 less one part in 10^12 is within the margin.
    for (const Case& c : {Case{200.0, false}, Case{199.9999999998, false},
                          Case{199.9999999997, true}, Case{0.0, true}}) {
        SCOPED_TRACE(c.bound);
        walk.pending_bound = c.bound;
        const WindowResult result = walk.result();
        EXPECT_EQ(result.bound_violation, c.violated);
        if (!c.violated) continue;
        WindowResult expected = untouched(walk);
        expected.next_candidate = -1;
        expected.next_bound = expected.state.hazard_bound = 0.0;
        expected.updates = expected.candidates = 1;
        expected.bound_violation = true;
        EXPECT_EQ(difference(result, expected), "");
    }
    walk.firing.base_rate = 0.0;
    walk.pending_bound = 0.0;
    const WindowResult result = walk.result();
    EXPECT_FALSE(result.bound_violation);
    EXPECT_EQ(result.accepted, 0U) << "no hazard under no bound has a ratio of 0";
    EXPECT_EQ(drawsBetween(walk.rng, result.rng), 1U);
}

TEST(WindowProcessing, ANinthSpikeStopsTheWalk) {
    Walk walk;
    walk.neuron = {.adaptation_increment = 0.0, .hard_refractory = false};
    walk.firing = {.base_rate = 1e6, .gain = 0.0};
    walk.events = {{.time = 0, .value = 0.0}};
    const WindowResult result = walk.result();
    EXPECT_TRUE(result.spike_overflow);
    EXPECT_EQ(result.spike_count, 8);
    EXPECT_EQ(result.accepted, 9U);
    EXPECT_EQ(result.updates, result.candidates + 1);
    EXPECT_EQ(result.next_candidate, -1) << "the result is partial";
    EXPECT_TRUE(std::is_sorted(result.spike_times, result.spike_times + 8));
    EXPECT_GT(result.spike_times[0], 0);
}

TEST(WindowProcessing, AnItemTakesItsOwnSliceOfTheWindowsEvents) {
    const Walk walk = twoInputs();
    std::vector<WindowEvent> events{{.time = 1, .value = 9.0}, {.time = 2, .value = 9.0}};
    events.insert(events.end(), walk.events.begin(), walk.events.end());
    events.push_back({.time = 1500001, .value = 9.0});
    WindowWork item;
    item.state = walk.state;
    item.firing = walk.firing;
    item.rng = walk.rng;
    item.first_event = 2;
    item.event_count = 2;
    item.pending_time = walk.pending_time;
    EXPECT_EQ(difference(processWindow(item, events.data(), walk.window_end, walk.horizon),
                         walk.result()),
              "");
}

/// The walk a second time, as a list of numbered steps with jumps between them.
class StepByStep {
public:
    explicit StepByStep(const Walk& walk) : in_(walk) {}

    WindowResult result() {
        const std::vector<WindowEvent>& events = in_.events;
        std::size_t i = 0;
        ModelTime e_time = 0;
        bool event = false;
        double h = 0.0;
        double u = 0.0;
        double ratio = 0.0;

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
        h = hazardAt(out_.state, in_.neuron, in_.firing, c_, driveAt(c_));
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

    /// Draws from `from` on, then settles what a draw without a time leaves behind.
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
        if (bound != 0) {  // true of a NaN
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

double oneOf(Draws& draws, std::initializer_list<double> values) {
    return values.begin()[draws.below(values.size())];
}

Walk generateWalk(Draws& draws) {
    Walk walk;
    const ModelTime width = 1 + draws.timeBelow(std::uint64_t{1} << (10 + draws.below(14)));
    const std::array<ModelTime, 4> starts{0, 123456789, (ModelTime{1} << 53) - width / 2,
                                          ModelTime{1} << 60};
    const ModelTime start = starts[draws.below(starts.size())];
    walk.window_end = start + width;
    walk.horizon = walk.window_end +
                   (draws.oneIn(4) ? 0 : draws.timeBelow(std::uint64_t{1} << draws.below(40)));
    walk.rng = draws.next();

    const auto inWindow = [&] {
        return start + draws.timeBelow(static_cast<std::uint64_t>(width));
    };
    walk.state.membrane = oneOf(draws, {0.0, -0.0, draws.between(-2.0, 2.0)});
    walk.state.adaptation = oneOf(draws, {0.0, draws.between(0.0, 2.0)});
    walk.state.last_update = start - draws.timeBelow(static_cast<std::uint64_t>(width)) / 2;
    walk.state.refractory_until = draws.oneIn(3) ? inWindow() : start - 1;

    // Rates are chosen in candidates per window.
    const double windows_per_s = 1e9 / static_cast<double>(width);
    walk.neuron.tau_membrane = 1 + draws.timeBelow(static_cast<std::uint64_t>(8 * width));
    walk.neuron.tau_adaptation = 1 + draws.timeBelow(static_cast<std::uint64_t>(32 * width));
    walk.neuron.refractory_period = draws.timeBelow(static_cast<std::uint64_t>(width)) / 4;
    walk.neuron.adaptation_increment = draws.between(-0.1, 1.0);
    walk.neuron.input_coupling = oneOf(draws, {0.0, draws.between(-0.5, 0.5)});
    walk.neuron.reset_value = oneOf(draws, {0.0, -0.0, draws.between(-1.0, 1.0)});
    walk.neuron.trace_epsilon = oneOf(draws, {0.0, 1e-15, 0.01});
    walk.neuron.hard_refractory = !draws.oneIn(3);
    walk.neuron.non_leaky = draws.oneIn(6);
    walk.firing.base_rate =
        windows_per_s * oneOf(draws, {0.0, 0.01, 1.0, 5.0, 5.0, draws.between(0.0, 20.0)});
    if (draws.oneIn(200)) walk.firing.base_rate = -1.0;
    walk.firing.gain = draws.between(0.0, 2.0);
    walk.firing.threshold = draws.between(-0.5, 0.5);
    walk.firing.adaptation_weight = draws.between(0.0, 1.5);
    walk.firing.max_rate = windows_per_s * draws.between(1.0, 50.0);

    walk.drive.origin = start;
    walk.drive.base = oneOf(draws, {0.0, draws.between(-0.5, 0.5)});
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
    if (draws.oneIn(30)) walk.drive.bound -= 0.3;  // a bound that will not hold

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
    struct Tally {
        int spikes = 0, rejected = 0, overflows = 0, violations = 0, markers = 0, nan_bounds = 0;
        int full = 0;
    } tally;
    for (std::uint64_t seed = 0; seed < 30000; ++seed) {
        Draws draws(seed);
        const Walk walk = generateWalk(draws);
        const WindowResult result = walk.result();
        StepByStep reference(walk);
        ASSERT_EQ(difference(result, reference.result()), "") << "seed " << seed;
        ASSERT_EQ(drawsBetween(walk.rng, result.rng), reference.drawCount()) << "seed " << seed;
        tally.spikes += result.spike_count;
        tally.rejected += static_cast<int>(result.candidates - result.accepted);
        tally.overflows += result.spike_overflow;
        tally.violations += result.bound_violation;
        tally.markers += reference.sawMarker();
        tally.nan_bounds += isNan(result.next_bound);
        tally.full += result.spike_count == max_window_spikes && !result.spike_overflow;
    }
    // Every road through the walk has been taken often.
    EXPECT_GT(tally.spikes, 10000);
    EXPECT_GT(tally.rejected, 10000);
    EXPECT_GT(tally.overflows, 200);
    EXPECT_GT(tally.violations, 200);
    EXPECT_GT(tally.markers, 1000);
    EXPECT_GT(tally.nan_bounds, 20);
    EXPECT_GT(tally.full, 20);
}

}  // namespace Lumenar::Core::Kelm::Kernel
