#include "kelm/runtime/MakeRuntime.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/network/Wiring.h"
#include "kelm/runtime/CheckpointSummary.h"
#include "kelm/runtime/Fingerprint.h"
#include "tests/engine/ScriptedBackend.h"
#include "tests/support/ComposedModel.h"
#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

std::unique_ptr<IWindowBackend> cpu() { return std::make_unique<CpuWindowBackend>(); }

/// A composed model whose neurons run in every network without an error.
ComposedModel soundModel(std::uint64_t seed) {
    ComposedModel model = generateComposedModel(seed);
    model.network.neurons[0] = {};
    model.network.firings[0] = {.base_rate = 40.0, .gain = 0.5};
    model.recorder.sample_kinds.push_back(SampleKind::spike_counts);
    return model;
}

RuntimeOptions optionsOf(const ComposedModel& model) {
    return {.seed = model.network.run_seed,
            .horizon = model.network.horizon,
            .neuron = model.network.neurons[0],
            .firing = model.network.firings[0],
            .plasticity = model.plasticity,
            .phase = model.phase,
            .recorder = model.recorder,
            .input_channels = model.channels,
            .prediction = model.prediction,
            .label = "composed"};
}

/// Ten neurons without synapses in windows of 1 ms, with a channel that delays by 0.5 ms.
std::unique_ptr<KelmRuntime> smallRuntime(double base_rate, std::unique_ptr<IWindowBackend> backend,
                                          ModelTime horizon = open_horizon) {
    return makeRuntime(SynapseGraph(10, 1'000'000, {}),
                       {.seed = 3,
                        .horizon = horizon,
                        .firing = {.base_rate = base_rate},
                        .input_channels = {{.name = "in", .targets = {4}, .delay = 500'000}}},
                       std::move(backend));
}

TEST(MakeRuntime, RunsAsTheRuntimeOfTheSameArguments) {
    for (std::uint64_t seed = 0; seed < 12; ++seed) {
        SCOPED_TRACE(seed);
        const ComposedModel model = soundModel(seed);
        RuntimeOptions options = optionsOf(model);
        options.learning_journal = true;
        const auto runtime = makeRuntime(model.network.graph(), options, cpu());
        SynapseGraph network = model.network.graph();
        const std::uint64_t print = fingerprint(
            network, options.neuron, options.firing, options.horizon, options.plasticity,
            options.phase, options.recorder, options.input_channels, options.prediction);
        CpuWindowBackend backend;
        KelmRuntime expected = makeKelmRuntime(
            std::move(network), options.neuron, options.firing, options.seed, options.horizon,
            &backend, nullptr, options.plasticity, options.phase, options.recorder,
            options.input_channels, options.prediction, print, "composed");
        runtime->run();
        expected.run();
        // The engine's part lists all samples or the next one.
        const Blob bytes[] = {runtime->checkpoint(), expected.checkpoint()};
        const CheckpointSummary summaries[] = {examineCheckpoint(bytes[0]),
                                               examineCheckpoint(bytes[1])};
        ASSERT_EQ(summaries[0].parts.size(), summaries[1].parts.size());
        for (std::size_t i = 0; i < summaries[0].parts.size(); ++i) {
            const auto bytes_of = [&](int which) {
                const CheckpointSummary::Part& part = summaries[which].parts[i];
                return std::string(
                    bytes[which].begin() + static_cast<std::ptrdiff_t>(part.offset),
                    bytes[which].begin() + static_cast<std::ptrdiff_t>(part.offset + part.bytes));
            };
            if (summaries[0].parts[i].name == "engine") continue;
            EXPECT_TRUE(bytes_of(0) == bytes_of(1)) << summaries[0].parts[i].name;
        }
        EXPECT_EQ(runtime->logHash(), expected.logHash());
        EXPECT_EQ(runtime->recorder()->samples().size(), expected.recorder()->samples().size());
    }
}

TEST(MakeRuntime, GoesOnWithoutAnEndInAnySlicesRestoresAndForks) {
    std::size_t samples = 0;
    for (std::uint64_t seed = 0; seed < 12; ++seed) {
        SCOPED_TRACE(seed);
        const ComposedModel model = soundModel(seed);
        RuntimeOptions options = optionsOf(model);
        options.horizon = open_horizon;
        options.recorder->record_spikes = seed % 2 == 0;
        const auto make = [&] { return makeRuntime(model.network.graph(), options, cpu); };
        const ModelTime end = model.network.horizon;
        const auto straight = make();
        straight->run(end);
        samples += straight->recorder()->samples().size();
        Draws draws(seed);
        const bool takes_spikes = seed % 3 == 0;
        std::unique_ptr<KelmRuntime> sliced = make();
        while (sliced->position() < end) {
            const Blob before = sliced->checkpoint();
            sliced->runFor(draws.timeBetween(0, std::min(end - sliced->position(), end / 4 + 1)));
            if (takes_spikes && draws.oneIn(2)) sliced->takeSpikes();
            if (draws.oneIn(2)) {
                const auto fork = sliced->fork();
                // A runtime that was elsewhere before, or a new one.
                sliced = draws.oneIn(2) ? sliced->fork() : make();
                restoreCheckpoint(*sliced, before);
                restoreCheckpoint(*sliced, fork->checkpoint());
            } else if (draws.oneIn(2)) {
                sliced = sliced->fork();
            }
        }
        if (takes_spikes) {
            sliced->takeSpikes();
            straight->takeSpikes();
        }
        EXPECT_EQ(sliced->checkpoint(), straight->checkpoint());
        EXPECT_TRUE(straight->learningControl() == nullptr ||
                    straight->learningControl()->journal().empty());
    }
    EXPECT_GT(samples, 100U);
    // All samples up to an open horizon would not fit into any memory.
    const auto often = makeRuntime(SynapseGraph(1, 10, {}),
                                   {.recorder = RecorderConfig{.sample_interval = 1}}, cpu());
    often->run(100);
    EXPECT_EQ(often->recorder()->samples().size(), 99U);
}

TEST(PoissonSources, FireAtTheirRateWhateverTheirInputs) {
    const std::vector<NodeId> sources(200, 0);
    std::vector<NodeId> targets;
    for (NodeId n = 1; n <= 200; ++n) targets.push_back(n);
    const auto run = [&](float weight) {
        const SynapseGraph network(201, {}, SynapseColumns{sources, targets, weight, 1'000'000});
        RuntimeOptions options{.seed = 1};
        options.populations = {{"driver", 1, {}, {.base_rate = 50.0}},
                               poissonSources("sources", 200, 20.0)};
        const auto runtime = makeRuntime(network, options, cpu());
        EXPECT_TRUE(runtime->warnings().empty());
        runtime->run(10'000'000'000);
        return runtime->takeSpikes();
    };
    const std::vector<SpikeRecord> spikes = run(5.0F);
    EXPECT_EQ(spikes, run(0.0F));
    std::uint64_t count = 0, short_intervals = 0;
    std::vector<ModelTime> last(201, -1);
    for (const SpikeRecord& spike : spikes) {
        if (spike.neuron == 0) continue;
        ++count;
        const ModelTime before = std::exchange(last[spike.neuron], spike.time);
        short_intervals += before >= 0 && spike.time - before < 10'000'000;
    }
    // 40000 spikes. An interval is below 10 ms with probability 1 - exp(-0.2). Four standard
    // deviations each.
    EXPECT_NEAR(static_cast<double>(count), 40'000.0, 800.0);
    EXPECT_NEAR(static_cast<double>(short_intervals) / static_cast<double>(count), 0.1813, 0.008);
}

// Sources whose spikes are given drive a network as the neurons do from which the spikes come.
TEST(GivenSpikes, AreLoggedAndDeliveredAsThoseOfFiringNeurons) {
    for (std::uint64_t seed = 1; seed <= 6; ++seed) {
        SCOPED_TRACE(seed);
        Draws draws(seed);
        const std::uint64_t before = draws.below(30), sources = 40, after = 30;
        const std::uint64_t neurons = before + sources + after;
        const NeuronRange all{0, neurons}, source_range{before, sources};
        const SynapseGraph network =
            Wiring(neurons, 1'000'000,
                   {{"in", source_range, all, ConnectionRule::bernoulli(0.2), 0.5, 1'500'000},
                    {"back", all, all, ConnectionRule::fixedInDegree(4), 0.2, 2'000'000}},
                   seed)
                .build();
        RuntimeOptions options{.seed = seed};
        options.plasticity.enabled = seed % 2 == 0;
        options.recorder = RecorderConfig{.sample_interval = 7'300'000,
                                          .sample_kinds = {SampleKind::spike_counts}};
        const auto populations = [&](const Population& source) {
            return std::vector<Population>{{"before", before, {}, {}}, source, {"after", after}};
        };
        // Up to 4 spikes a window: some windows hold nothing else.
        options.populations = populations(poissonSources("sources", sources, 30.0));
        options.populations[0].firing.base_rate = options.populations[2].firing.base_rate = 2.0;
        const auto firing = makeRuntime(network, options, cpu());
        firing->run(400'000'000);
        RuntimeOptions given = options;
        given.populations[1] = spikeSources("sources", sources);
        for (const SpikeRecord& spike : firing->spikeLog()) {
            if (source_range.contains(spike.neuron)) given.given_spikes.push_back(spike);
        }
        ASSERT_GT(given.given_spikes.size(), 200U);
        const auto straight = makeRuntime(network, given, cpu());
        EXPECT_TRUE(straight->warnings().empty());
        straight->run(400'000'000);
        EXPECT_EQ(straight->logHash(), firing->logHash());

        std::unique_ptr<KelmRuntime> sliced = makeRuntime(network, given, cpu());
        while (sliced->position() < 400'000'000) {
            sliced->run(
                std::min<ModelTime>(sliced->position() + draws.timeBelow(50'000'000), 400'000'000));
            auto next = draws.oneIn(2) ? sliced->fork(cpu()) : makeRuntime(network, given, cpu());
            restoreCheckpoint(*next, sliced->checkpoint());
            sliced = std::move(next);
        }
        EXPECT_EQ(sliced->checkpoint(), straight->checkpoint());
        // Another source fires at the same moment.
        NodeId& last = given.given_spikes.back().neuron;
        last = last == before ? last + 1 : before;
        EXPECT_THROW(restoreCheckpoint(*makeRuntime(network, given, cpu()), straight->checkpoint()),
                     RefusedCheckpoint);
    }
}

TEST(GivenSpikes, AreCommittedByNeuronInTheWindowsInWhichTheyLie) {
    struct Commits final : IWindowCommit {
        void commit(ModelTime start, ModelTime, std::span<const SpikeRecord> spikes,
                    SynapseGraph&) override {
            for (const SpikeRecord& s : spikes)
                seen.push_back({start, s.time, ModelTime(s.neuron)});
        }
        std::vector<std::array<ModelTime, 3>> seen;
    } commits;
    CpuWindowBackend backend;
    WindowEngine engine(SynapseGraph(2, 10, {}), Kernel::Neuron(), Kernel::Firing{.base_rate = 0.0},
                        1, 1000);
    engine.setHooks(nullptr, &commits, nullptr);
    engine.giveSpikes({{0, 1}, {9, 0}, {10, 1}, {12, 0}, {12, 1}, {19, 0}, {20, 0}});
    engine.run(backend, 1000);
    const std::vector<std::array<ModelTime, 3>> expected = {
        {0, 9, 0}, {0, 0, 1}, {10, 12, 0}, {10, 19, 0}, {10, 10, 1}, {10, 12, 1}, {20, 20, 0}};
    EXPECT_EQ(commits.seen, expected);
}

TEST(GivenSpikes, LeaveTheWarningsOfOtherSilentPopulations) {
    RuntimeOptions options;
    options.populations = {spikeSources("sources", 2), spikeSources("silent", 2)};
    options.given_spikes = {{5, 1}};
    const auto runtime = makeRuntime(SynapseGraph(4, 1'000'000, {}), options, cpu());
    ASSERT_EQ(runtime->warnings().size(), 1U);
    EXPECT_NE(runtime->warnings()[0].text.find("silent"), std::string::npos);
    options.populations[0].firing.base_rate = -1.0;
    EXPECT_THROW(makeRuntime(SynapseGraph(4, 1'000'000, {}), options, cpu()), InvalidModel);
}

TEST(MakeRuntime, KeepsThePositionWhereARunIsStoppedBeforeItsFirstWindow) {
    RuntimeOptions options{.firing = {.base_rate = 0.0},
                           .input_channels = {{.name = "in", .targets = {0}}}};
    const auto live = makeRuntime(SynapseGraph(1, 10, {}), options, cpu());
    live->inject("in", 300, 1.0);
    live->run(221);
    const auto restored = makeRuntime(SynapseGraph(1, 10, {}), options, cpu());
    restoreCheckpoint(*restored, live->checkpoint());
    const auto forked = live->fork(cpu());
    for (KelmRuntime* const runtime : {live.get(), restored.get(), forked.get()}) {
        runtime->requestStop();
        runtime->run(226);
        EXPECT_EQ(runtime->position(), 221);
    }
}

TEST(GivenSpikes, AreRefusedWithTheFirstThatIsWrong) {
    const auto making = [](std::vector<SpikeRecord> spikes) {
        RuntimeOptions options;
        options.populations = {spikeSources("sources", 2), {"neuron", 1}};
        options.given_spikes = std::move(spikes);
        return [options] { makeRuntime(SynapseGraph(3, 10, {}), options, cpu()); };
    };
    expectRefusals<InvalidSpikeTrain>(
        {{"given spike 1 is of neuron 3, and the network has 3", making({{5, 0}, {6, 3}})},
         {"given spike 0 (-1 ns, neuron 0) must lie behind the one before, and not before 0",
          making({{-1, 0}})},
         {"given spike 1 (5 ns, neuron 0) must lie behind the one before, and not before 0",
          making({{5, 1}, {5, 0}})},
         {"given spike 1 (5 ns, neuron 0) must lie behind the one before, and not before 0",
          making({{5, 0}, {5, 0}})},
         {"given spike 0 is of neuron 2, which fires by itself: its base rate must be 0",
          making({{5, 2}})}});
}

TEST(MakeRuntime, RefusesCallsAtTheWrongTimeWithNothingChanged) {
    for (const bool active : {true, false}) {
        SCOPED_TRACE(active);
        const auto runtime = smallRuntime(active ? 5000.0 : 0.0, cpu(), 10'000'000);
        EXPECT_EQ(runtime->earliestInput(), 0);
        runtime->run(2'500'000);
        // With spikes in every window, the one from 2 to 3 ms has run to its end.
        const ModelTime earliest = active ? 3'000'000 : 2'500'000;
        EXPECT_EQ(runtime->earliestInput(), earliest);
        const Blob before = runtime->checkpoint();
        const std::string too_early = "an input that arrives at " + std::to_string(earliest - 1) +
                                      " ns comes too early: the earliest time is " +
                                      std::to_string(earliest) + " ns";
        InjectionTrace trace;
        runtime->setInjectionTrace(&trace);
        expectRefusals<RefusedCall>(
            {{"a run to 2499999 ns goes backwards: the runtime is at 2500000 ns",
              [&] { runtime->run(2'499'999); }},
             {"a run to 2499990 ns goes backwards: the runtime is at 2500000 ns",
              [&] { runtime->runFor(-10); }},
             {"a run to 10000001 ns goes past the horizon, which is 10000000 ns",
              [&] { runtime->runFor(7'500'001); }},
             {too_early, [&] { runtime->inject("in", earliest - 500'001, 1.0); }},
             {too_early, [&] { runtime->perturb({.time = earliest - 1, .targets = {0}}); }}},
            [&] { EXPECT_EQ(runtime->checkpoint(), before); });
        EXPECT_EQ(trace.records().size(), 0U);
        EXPECT_EQ(runtime->inject("in", earliest - 500'000, 1.0).size(), 1U);
        EXPECT_EQ(runtime->perturb({.time = earliest, .targets = {0}}).size(), 1U);
        runtime->run();
        runtime->run();
        EXPECT_EQ(runtime->position(), 10'000'000);
    }
    expectThrows<RefusedCall>([] { smallRuntime(1.0, cpu())->run(); },
                              "the horizon is open, so a run must be given its end");

    const auto reporting = smallRuntime(5000.0, cpu());
    const auto straight = smallRuntime(5000.0, cpu());
    const Blob start = reporting->checkpoint();
    std::uint64_t reports = 0;
    const auto report = [&](const RunProgress&) {
        ++reports;
        const std::string inside =
            "a callback of a run may not run, restore or reseed its runtime, nor set its callback";
        expectRefusals<RefusedCall>({{inside, [&] { reporting->runFor(1'000'000); }},
                                     {inside, [&] { restoreCheckpoint(*reporting, start); }},
                                     {inside, [&] { reporting->reseed(2); }},
                                     {inside, [&] { reporting->setProgress({}); }}});
        EXPECT_EQ(reporting->fork(cpu())->checkpoint(), reporting->checkpoint());
    };
    reporting->setProgress(report, std::chrono::nanoseconds(0));
    reporting->run(5'000'000);
    straight->run(5'000'000);
    EXPECT_GT(reports, 2U);
    EXPECT_EQ(reports, straight->profile().windows);
    EXPECT_EQ(reporting->checkpoint(), straight->checkpoint());

    // The last window ends behind the horizon.
    const auto ended = smallRuntime(5000.0, cpu(), 4'500'000);
    ended->run();
    const auto stopped = smallRuntime(5000.0, cpu(), 4'500'000);
    stopped->run(4'200'000);
    stopped->requestStop();
    stopped->run();
    EXPECT_TRUE(stopped->stopped());
    stopped->run();
    EXPECT_EQ(stopped->checkpoint(), ended->checkpoint());
    const auto thrown = smallRuntime(5000.0, cpu(), 4'500'000);
    const auto throwing = [&](const RunProgress& progress) {
        if (progress.position > 4'000'000) throw std::runtime_error("enough");
    };
    thrown->setProgress(throwing, std::chrono::nanoseconds(0));
    EXPECT_THROW(thrown->run(), std::runtime_error);
    EXPECT_EQ(thrown->position(), 4'500'000);
    thrown->run();
    EXPECT_EQ(thrown->checkpoint(), ended->checkpoint());

    // A listener is called inside a window.
    struct Listener final : ICommitListener {
        KelmRuntime* runtime = nullptr;
        void committed(ModelTime, ModelTime end, std::span<const SpikeRecord>) override {
            expectThrows<RefusedCall>(
                [&] { runtime->checkpoint(); },
                "a window is being committed, so the runtime may only be read and get inputs");
            EXPECT_EQ(runtime->perturb({.time = end, .targets = {0}}).size(), 1U);
        }
    } listener;
    const auto heard = smallRuntime(5000.0, cpu());
    listener.runtime = heard.get();
    heard->setCommitListener(&listener);
    heard->run(3'000'000);
    EXPECT_EQ(heard->position(), 3'000'000);
}

TEST(MakeRuntime, RefusesAllButReadingAfterARunThatThrew) {
    const auto runtime =
        smallRuntime(5000.0, std::make_unique<ScriptedBackend>(
                                 [](const WindowWork&, const Kernel::WindowEvent*, ModelTime) {
                                     Kernel::WindowResult result;
                                     result.spike_overflow = true;
                                     return result;
                                 }));
    const Blob start = runtime->checkpoint();
    EXPECT_THROW(runtime->run(1'000'000), WindowEngineError);
    for (const std::function<void()>& call : std::vector<std::function<void()>>{
             [&] { runtime->run(2'000'000); }, [&] { runtime->runFor(0); },
             [&] { runtime->inject("in", 9'000'000, 1.0); },
             [&] { runtime->perturb({.time = 9'000'000, .targets = {0}}); },
             [&] { runtime->checkpoint(); }, [&] { restoreCheckpoint(*runtime, start); },
             [&] { runtime->fork(cpu()); }, [&] { runtime->reseed(4); }}) {
        expectThrows<RefusedCall>(
            call, "a call of this runtime has failed, so it may only be read or destroyed");
    }
    EXPECT_EQ(runtime->logHash(), 0x14650fb0739d0383);
}

TEST(MakeRuntime, RefusesAModelForItsFirstFaultAndKeepsWarnings) {
    const auto making = [](RuntimeOptions options, std::unique_ptr<IWindowBackend> (*backend)()) {
        return [=] { makeRuntime(SynapseGraph(6, 10, {}), options, backend()); };
    };
    const Kernel::Neuron bad{.tau_membrane = -5, .reset_value = not_a_number};
    const std::vector<Population> four_and_two{{"E", 4, {}, {}},
                                               {"none", 0, bad, {}},
                                               {"", 1, {.refractory_period = -1}, {}},
                                               {"I", 1, bad, {.base_rate = 2e6}}};
    expectRefusals<InvalidModel>({
        {"a runtime needs a backend",
         making({.neuron = bad}, [] { return std::unique_ptr<IWindowBackend>(); })},
        {"the options give populations and also a neuron or firing of their own",
         making({.firing = {.gain = 1.0}, .populations = {{"", 5, bad, {}}}}, cpu)},
        {"the populations have 5 neurons, and the network has 6",
         making({.populations = {{"", 2, bad, {}}, {"", 3, {}, {}}}}, cpu)},
        {"the populations have 2^64 or more neurons, and the network has 6",
         making({.populations = {{"", 7, {}, {}}, {"", ~std::uint64_t{0}, {}, {}}}}, cpu)},
        {"the model has 1 error: neurons 0 to 5: gain is -1, but must not be negative",
         making({.firing = {.gain = -1.0}}, cpu)},
        {"the model has 1 error: horizon is 0 ns, but must be at least 1 ns",
         making({.horizon = 0}, cpu)},
        {"the model has 4 errors: neuron 4: refractory_period is -1 ns, but must be at least 0 ns; "
         "population 'I' (neuron 5): tau_membrane is -5 ns, but must be at least 1 ns; "
         "population 'I' (neuron 5): reset_value is nan, but must be finite; "
         "population 'I' (neuron 5): max_rate is 1e+06 Hz, but must not lie below "
         "base_rate * rate_scale, 2e+06 Hz",
         making({.populations = four_and_two}, cpu)},
    });
    expectThrows<WindowEngineError>(
        [] { makeRuntime(SynapseGraph(1, std::nullopt, {}), {}, cpu()); },
        "the graph has no d_min, so no window can be formed");

    const auto runtime = makeRuntime(
        SynapseGraph(6, 10'000, {}),
        {.populations = {{"E", 4, {.tau_membrane = 20}, {}}, {"I", 2, {}, {.base_rate = 0.0}}}},
        cpu());
    std::vector<std::string> warnings;
    for (const Finding& warning : runtime->warnings()) warnings.push_back(warning.text);
    ASSERT_EQ(warnings.size(), 2U);
    EXPECT_EQ(warnings[0].substr(0, 54), "population 'E' (neurons 0 to 3): tau_membrane is 20 ns");
    EXPECT_EQ(warnings[1].substr(0, 43), "population 'I' (neurons 4 to 5): base_rate ");
    EXPECT_EQ(runtime->fork(cpu())->warnings().size(), 2U);
}

TEST(MakeRuntime, RefusesTheCheckpointOfOtherParameters) {
    const auto make = [](ModelTime tau) {
        return makeRuntime(SynapseGraph(6, 10'000, {}),
                           {.populations = {{"", 5, {}, {}}, {"", 1, {.tau_membrane = tau}, {}}}},
                           cpu());
    };
    const Blob checkpoint = make(10'000'000)->checkpoint();
    restoreCheckpoint(*make(10'000'000), checkpoint);
    try {
        restoreCheckpoint(*make(12'000'000), checkpoint);
        ADD_FAILURE() << "the checkpoint is accepted";
    } catch (const RefusedCheckpoint& refusal) {
        EXPECT_EQ(std::string(refusal.what()).substr(0, 58),
                  "the checkpoint is of another network or of other settings:");
    }
}

TEST(Fork, GoesOnAsItsOriginAtEveryStep) {
    std::size_t finished = 0;
    for (std::uint64_t seed = 0; seed < 20; ++seed) {
        SCOPED_TRACE(seed);
        const ComposedModel model = generateComposedModel(seed, {.counts_spikes = true});
        CpuWindowBackend backend;
        const auto origin = model.build(backend);
        std::vector<std::string> outcomes;
        std::vector<std::unique_ptr<KelmRuntime>> forks;
        bool runs = true;
        for (std::size_t i = 0; i < model.steps.size() && runs; ++i) {
            forks.push_back(origin->fork(cpu()));
            runs = model.perform(i, i + 1, *origin, outcomes);
        }
        const std::size_t performed = forks.size();
        for (std::size_t i = 0; i < performed; ++i) {
            std::vector<std::string> fork_outcomes;
            EXPECT_EQ(model.perform(i, performed, *forks[i], fork_outcomes), runs);
            EXPECT_TRUE(std::equal(fork_outcomes.rbegin(), fork_outcomes.rend(), outcomes.rbegin()))
                << "from step " << i;
            if (!runs) continue;
            EXPECT_EQ(forks[i]->checkpoint(), origin->checkpoint()) << "from step " << i;
        }
        finished += runs ? 1 : 0;
    }
    EXPECT_GT(finished, 5U);
    expectThrows<RefusedCall>(
        [] { smallRuntime(1.0, cpu())->fork(); },
        "this runtime was given its backend, so its fork must be given one, too");
    expectThrows<InvalidModel>([] { smallRuntime(1.0, cpu())->fork(nullptr); },
                               "a runtime needs a backend");
}

TEST(Reseed, DrawsFromThereOnWhatANewRunOfTheSeedDraws) {
    // Without inputs, adaptation and refractory time the hazard is constant, so what a neuron does
    // depends on its draws alone.
    const auto make = [](std::uint64_t seed) {
        return makeRuntime(SynapseGraph(20, 1'000'000, {}),
                           {.seed = seed,
                            .neuron = {.adaptation_increment = 0.0, .hard_refractory = false},
                            .firing = {.base_rate = 300.0}},
                           cpu);
    };
    const auto runtime = make(1);
    runtime->run(30'500'000);
    const ModelTime start = runtime->earliestInput();
    EXPECT_EQ(start, 31'000'000);
    const std::size_t before = runtime->spikeLog().size();
    const auto other = runtime->fork();
    other->reseed(3);
    runtime->reseed(2);
    EXPECT_EQ(runtime->seed(), 2U);
    EXPECT_EQ(runtime->spontaneousState(7),
              make(2)->randomStreams().deriveStreamState(2, "spontaneous", 7));
    runtime->run(start + 40'000'000);
    other->run(start + 40'000'000);
    EXPECT_NE(other->logHash(), runtime->logHash());
    const auto fresh = make(2);
    fresh->run(40'000'000);
    const auto spikes = runtime->spikeLog().subspan(before);
    ASSERT_EQ(spikes.size(), fresh->spikeLog().size());
    EXPECT_GT(spikes.size(), 100U);
    for (std::size_t i = 0; i < spikes.size(); ++i) {
        EXPECT_EQ(spikes[i].time, fresh->spikeLog()[i].time + start);
        EXPECT_EQ(spikes[i].neuron, fresh->spikeLog()[i].neuron);
    }
    // The checkpoint is one of the new seed.
    const auto restored = make(2);
    restoreCheckpoint(*restored, runtime->checkpoint());
    restored->runFor(10'000'000);
    runtime->runFor(10'000'000);
    EXPECT_EQ(restored->checkpoint(), runtime->checkpoint());
    EXPECT_FALSE(make(1)->restore(runtime->checkpoint()));
}

TEST(Reseed, OfAComposedRunDependsOnItsStateAndSeedAlone) {
    for (std::uint64_t seed = 0; seed < 12; ++seed) {
        SCOPED_TRACE(seed);
        const ComposedModel model = soundModel(seed);
        const auto make = [&](std::uint64_t run_seed) {
            RuntimeOptions options = optionsOf(model);
            options.seed = run_seed;
            return makeRuntime(model.network.graph(), options, cpu);
        };
        const auto runtime = make(model.network.run_seed);
        runtime->run(model.network.horizon / 2);
        const auto fork = runtime->fork();
        fork->reseed(98);
        for (KelmRuntime* each : {runtime.get(), fork.get()}) {
            each->reseed(99);
            each->reseed(99);
        }
        const auto restored = make(99);
        restoreCheckpoint(*restored, runtime->checkpoint());
        for (KelmRuntime* each : {runtime.get(), fork.get(), restored.get()}) each->run();
        EXPECT_EQ(fork->logHash(), runtime->logHash());
        EXPECT_EQ(restored->checkpoint(), runtime->checkpoint());
    }
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
