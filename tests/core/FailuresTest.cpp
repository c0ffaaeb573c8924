#include "kelm/core/Failures.h"

#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "kelm/runtime/KelmRuntime.h"

namespace Lumenar::Core::Kelm {

template <class Base, class... Failures>
constexpr bool are_all = (std::is_base_of_v<Base, Failures> && ...);
template <class Base, class... Failures>
constexpr bool are_none = !(std::is_base_of_v<Base, Failures> || ...);

// std::invalid_argument is a std::logic_error too, so a broken invariant must not be one: a handler
// of refused values would catch it.
TEST(Failures, AreCaughtByTheirKind) {
    using Argument = std::invalid_argument;
    EXPECT_TRUE(
        (are_all<Argument, InvalidSynapse, InvalidLookahead, InvalidShardLayout, InvalidThreadCount,
                 InvalidLearningControl, InvalidRecorder, InvalidPrediction, InvalidIntervention,
                 InvalidModality, InvalidPhaseModulation, InvalidOscillator, InvalidPlasticity,
                 InvalidModel, UnknownBackend>));
    EXPECT_TRUE((are_all<std::logic_error, WindowEngineError, LookaheadViolation, BrokenCausalTrace,
                         RefusedCall>));
    EXPECT_TRUE((
        are_none<Argument, WindowEngineError, LookaheadViolation, BrokenCausalTrace, RefusedCall>));
    EXPECT_TRUE((are_all<std::runtime_error, TimeOverflow, IncompatibleCheckpoint,
                         RefusedCheckpoint, Runtime::ReplayExhausted>));
    EXPECT_TRUE((are_all<std::out_of_range, SynapseRoutingViolation>));
}

/// The text and the detail of what `call` throws.
template <class Call>
std::string detailOfThrown(Call&& call) {
    try {
        call();
    } catch (const std::exception& failure) {
        const FailureDetail* const detail = detailOf(failure);
        return failure.what() + (detail ? " | " + detail->text() : "");
    }
    return "nothing was thrown";
}

TEST(Failures, OfConstructionNameItemValueAndBound) {
    using Kernel::Firing, Kernel::Neuron;
    const auto graph = [](const Synapse& last) {
        return detailOfThrown([&] {
            SynapseGraph(3, 1'000, {{.source = 0, .target = 1, .delay = 1'000}, last});
        });
    };
    const std::string endpoint = "synapse endpoint is outside the network | synapse 1: ";
    EXPECT_EQ(graph({.source = 3, .target = 4, .delay = 1'000}),
              endpoint + "source is 3, must be below the neuron count 3");
    EXPECT_EQ(graph({.source = 2, .target = 4, .delay = 1'000}),
              endpoint + "target is 4, must be below the neuron count 3");
    EXPECT_EQ(graph({.weight = -0.5F, .delay = 1'000}),
              "synapse weight magnitude must be finite and >= 0 | synapse 1: weight is -0.5, must "
              "be finite and at least 0");
    EXPECT_EQ(graph({.delay = 999}),
              "synapse delay must be >= network min_delay and > 0 | synapse 1: delay is 999 ns, "
              "must be at least 1000 ns");
    EXPECT_EQ(detailOfThrown([] { SynapseGraph(3, 0, {}); }),
              "network min_delay must be positive | min_delay is 0 ns, must be at least 1 ns");

    const auto engine = [](std::size_t neurons, std::vector<Firing> firings, ModelTime horizon) {
        return detailOfThrown([&] {
            WindowEngine(SynapseGraph(2, 1'000, {}), std::vector<Neuron>(neurons),
                         std::move(firings), 1, horizon);
        });
    };
    EXPECT_EQ(engine(2, std::vector<Firing>(2), -7),
              "the window engine needs a positive horizon | horizon is -7 ns, must be at least 1 "
              "ns");
    const std::string count = "per-neuron parameter count does not match graph | number of ";
    EXPECT_EQ(engine(1, std::vector<Firing>(2), 5),
              count + "neurons is 1, must be the graph's neuron count 2");
    EXPECT_EQ(engine(2, std::vector<Firing>(3), 5),
              count + "firings is 3, must be the graph's neuron count 2");
    EXPECT_EQ(engine(2, {Firing(), {.base_rate = -1.0, .max_rate = -2.0}}, 5),
              "a neuron with a negative rate and a negative ceiling has a negative hazard | neuron "
              "1: max_rate is -2 Hz, must be positive");

    struct Parts {
        PlasticityConfig plasticity = {};
        std::optional<PhaseConfig> phase = std::nullopt;
        std::optional<RecorderConfig> recorder = std::nullopt;
        std::vector<InputChannelSpec> channels = {};
        std::optional<PredictionConfig> prediction = std::nullopt;
    };
    const auto runtime = [](const Parts& parts) {
        return detailOfThrown([&] {
            makeKelmRuntime(SynapseGraph(2, 1'000, {}), Neuron(), Firing(), 1, 5, nullptr, nullptr,
                            parts.plasticity, parts.phase, parts.recorder, parts.channels,
                            parts.prediction);
        });
    };
    EXPECT_EQ(runtime({.plasticity = {.trace = {.tau_post = 0}, .enabled = true}}),
              "plasticity trace windows must be positive | tau_post is 0 ns, must be at least 1 "
              "ns");
    EXPECT_EQ(runtime({.plasticity = {.inhibitory = {.a_depression = -2.0}, .enabled = true}}),
              "plasticity amplitudes must be non-negative | inhibitory.a_depression is -2, must be "
              "at least 0");
    EXPECT_EQ(runtime({.recorder = RecorderConfig{true, false, -4, {}}}),
              "recorder sample interval must not be negative | sample_interval is -4 ns, must be "
              "at least 0 ns");
    const InputChannelSpec good{"good", 0, {0}, 0, 1.0};
    EXPECT_EQ(runtime({.channels = {good, {"far", 0, {0, 2}, 0, 1.0}}}),
              "runtime input channel target is outside the graph | input channel 1: target is 2, "
              "must be below the neuron count 2");
    EXPECT_EQ(runtime({.channels = {good, {"past", 0, {0}, -3, 1.0}}}),
              "input channel past has a negative delay | input channel 1: delay is -3 ns, must be "
              "at least 0 ns");
    EXPECT_EQ(runtime({.channels = {{"twice", 0, {1, 0, 1}, 0, 1.0}}}),
              "input channel twice repeats a target | input channel 0: target is 1, must be named "
              "once");
    EXPECT_EQ(runtime({.prediction = PredictionConfig{{{.name = "far", .targets = {5}}}, {}}}),
              "runtime prediction target is outside the graph | error channel 0: target is 5, must "
              "be below the neuron count 2");
    EXPECT_EQ(
        runtime(
            {.prediction = PredictionConfig{{{.name = "near", .targets = {1}, .clamp = 0.0}}, {}}}),
        "error clamp must be finite and > 0 | error channel 0: clamp is 0, must be finite and "
        "above 0");
    EXPECT_EQ(runtime({.prediction = PredictionConfig{{{.name = "near", .targets = {1}}},
                                                      {Predictor{{}, {0}, {0.5, 1.0}, 0.0}}}}),
              "predictor readout shape mismatch | error channel 0: number of weights is 2, must be "
              "the number of sources");
    const std::vector<Oscillator> clocks{{4, 1.0, 0.0, 1.0}};
    EXPECT_EQ(runtime({.phase = PhaseConfig{{{4, 1.0, 0.0, -1.0}}, {{}, {}}, {}, 0}}),
              "invalid KELM oscillator parameters | oscillator 0: amplitude is -1, must be finite "
              "and at least 0");
    EXPECT_EQ(runtime({.phase = PhaseConfig{clocks, {{}}, {}, 0}}),
              "runtime phase bindings do not match the neuron count | number of binding lists is "
              "1, must be the graph's neuron count 2");
    EXPECT_EQ(runtime({.phase = PhaseConfig{clocks, {{}, {{4}, {5}}}, {}, 0}}),
              "unknown KELM oscillator id | neuron 1: oscillator of binding 1 is 5, must be the id "
              "of an oscillator");
    EXPECT_EQ(runtime({.phase = PhaseConfig{clocks, {{{4, 0, 1.0 / 0.0}}, {}}, {}, 0}}),
              "phase modulation must be finite | neuron 0: strength of binding 0 is inf, must be "
              "finite");
    EXPECT_EQ(runtime({.phase = PhaseConfig{clocks, {{}, {}}, {{4, 4, 1.0}, {4, 6, 1.0}}, 7}}),
              "unknown KELM oscillator id | coupling 1: target is 6, must be the id of an "
              "oscillator");
    EXPECT_EQ(runtime({.phase = PhaseConfig{clocks, {{}, {}}, {{4, 4, 1.0}}, 0}}),
              "oscillator coupling period must be positive | coupling_period is 0 ns, must be at "
              "least 1 ns");
    // A failure that is not of a construction has none.
    EXPECT_EQ(detailOfThrown([] { addTime(last_model_time, 1); }), "KELM model time overflow");
}

}  // namespace Lumenar::Core::Kelm
