#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/network/Wiring.h"
#include "kelm/runtime/CheckpointSummary.h"
#include "kelm/runtime/KelmRuntime.h"
#include "kelm/runtime/MakeRuntime.h"
#include "tests/ranks/ThreadRanks.h"
#include "tests/support/ExpectThrows.h"

// A runtime with all parts that can be spread, on several ranks and in one piece.

namespace Lumenar::Core::Kelm::Testing {

namespace {

constexpr NodeId neurons = 60;
constexpr ModelTime window = 1'000'000;  // ns
constexpr ModelTime horizon = 200 * window;
constexpr ModelTime half = 100 * window;

Wiring wiring() {
    const NeuronRange all{0, neurons};
    return {neurons,
            window,
            {{.name = "all",
              .sources = all,
              .targets = all,
              .rule = ConnectionRule::fixedInDegree(8),
              .weight = SynapseValues::uniform(0.0, 0.4),
              .delay = SynapseValues::uniform(1e6, 4e6)},
             {.name = "inhibitory",
              .sources = {0, 20},
              .targets = all,
              .rule = ConnectionRule::bernoulli(0.2),
              .weight = 0.1,
              .delay = 1e6,
              .inhibitory = true}},
            5};
}

RuntimeOptions options() {
    RuntimeOptions options;
    options.seed = 11;
    options.horizon = horizon;
    options.populations = {
        {"low", 30, Kernel::Neuron(), {.base_rate = 15.0, .gain = 0.4}},
        {"high", 25, {.tau_membrane = 15'000'000}, {.base_rate = 40.0, .gain = 0.4}},
        spikeSources("given", 5)};
    for (int i = 0; i < 40; ++i) {
        options.given_spikes.push_back({i * 3 * window + 17, 55 + static_cast<NodeId>(i) % 5});
    }
    PhaseConfig phase;
    phase.oscillators = {{.id = 1, .frequency = 8.0, .amplitude = 1.0},
                         {.id = 2, .frequency = 40.0, .phase = 0.3, .amplitude = 0.5}};
    phase.couplings = {{.source = 1, .target = 2, .strength = 3.0}};
    phase.coupling_period = 5 * window;
    phase.bindings.resize(neurons);
    for (NodeId n = 0; n < 40; ++n) {
        phase.bindings[n] = {{.oscillator = 1 + static_cast<std::uint32_t>(n % 2),
                              .polarity = static_cast<std::uint8_t>(n % 3 == 0 ? 1 : 0),
                              .strength = 0.3}};
    }
    options.phase = phase;
    options.recorder =
        RecorderConfig{.sample_interval = 7 * window + 3,
                       .sample_kinds = {SampleKind::membrane, SampleKind::oscillator_phases,
                                        SampleKind::active_synapses, SampleKind::next_candidate,
                                        SampleKind::spike_counts}};
    options.input_channels = {
        {.name = "left", .targets = {1, 31, 50}, .delay = 500'000, .gain = 2.0},
        {.name = "right", .targets = {59, 0}}};
    options.prediction = PredictionConfig{
        .channels = {{.name = "error", .targets = {2, 3, 33, 44}, .strength = -0.5}}};
    options.label = "ranks";
    return options;
}

Blob everywhere(IRankGroup* ranks, Blob blob) {
    if (ranks == nullptr) return blob;
    const BlobView first = ranks->share(blob).front();
    return {first.begin(), first.end()};
}

struct Seen {
    Blob middle;
    Blob end;
    std::uint64_t hash = 0;
    std::vector<double> hazards;
    std::size_t samples = 0;
};

std::unique_ptr<KelmRuntime> make(IRankGroup* ranks) {
    RuntimeOptions settings = options();
    settings.ranks = ranks;
    return makeRuntime(ranks == nullptr ? wiring().build() : wiring().buildShare(*ranks),
                       std::move(settings), std::make_unique<CpuWindowBackend>());
}

/// Runs to the end, from the middle if there is a checkpoint of it.
Seen runOn(IRankGroup* ranks, const Blob* middle = nullptr) {
    const std::unique_ptr<KelmRuntime> runtime = make(ranks);
    Seen seen;
    if (middle == nullptr) {
        runtime->inject("left", 3 * window, 1.5);
        runtime->run(40 * window);
        runtime->perturb({.cause = 9, .time = 50 * window, .strength = 2.0, .targets = {5, 57}});
        runtime->prediction()->observeValue(0, 1.0, 0.25, runtime->position());
        runtime->interventions().setGain(InterventionState::oscillators, 0.5);
        runtime->run(half);
        seen.middle = everywhere(ranks, runtime->checkpoint());
    } else {
        EXPECT_TRUE(runtime->restore(*middle));
    }
    Probe& probe = runtime->addProbe(
        {.neurons = {58, 1, 30}, .fields = {ProbeField::hazard}, .interval = 2 * window});
    runtime->graph().setTransmissionEnabled(true, false);
    runtime->run(130 * window);
    runtime->graph().setTransmissionEnabled(true, true);
    runtime->inject("right", 140 * window, -0.5);
    runtime->run();
    seen.end = everywhere(ranks, runtime->checkpoint());
    seen.hash = runtime->logHash();
    const auto hazards = probe.values(ProbeField::hazard);
    seen.hazards.assign(hazards.begin(), hazards.end());
    seen.samples = runtime->recorder()->samples().size();
    return seen;
}

/// The text of InvalidSpikeTrain for these given spikes; empty if they are accepted.
std::string refusalOf(IRankGroup* ranks, const std::vector<SpikeRecord>& spikes) {
    RuntimeOptions fired = options();
    fired.ranks = ranks;
    fired.given_spikes = spikes;
    try {
        makeRuntime(ranks == nullptr ? wiring().build() : wiring().buildShare(*ranks),
                    std::move(fired), std::make_unique<CpuWindowBackend>());
    } catch (const InvalidSpikeTrain& failure) {
        return failure.what();
    }
    return {};
}

}  // namespace

TEST(RanksOfRuntime, WriteTheCheckpointsOfOneRuntimeAndContinueOnAnyNumber) {
    const Seen expected = runOn(nullptr);
    EXPECT_GT(expected.samples, 20U);
    for (const std::uint32_t size : {1U, 2U, 3U}) {
        SCOPED_TRACE("ranks " + std::to_string(size));
        ThreadRanks(size).run([&](IRankGroup& ranks) {
            const Seen seen = runOn(&ranks);
            EXPECT_TRUE(seen.middle == expected.middle);
            EXPECT_TRUE(seen.end == expected.end);
            EXPECT_EQ(seen.hash, expected.hash);
            EXPECT_EQ(seen.hazards, expected.hazards);
            EXPECT_EQ(seen.samples, expected.samples);
        });
        ThreadRanks(size + 1).run([&](IRankGroup& ranks) {
            const Seen seen = runOn(&ranks, &expected.middle);
            EXPECT_TRUE(seen.end == expected.end);
        });
    }
}

/// A report that throws ends the run between two windows, on every rank.
TEST(RanksOfRuntime, GoOnAfterAReportThatThrows) {
    const auto reference = make(nullptr);
    reference->run();
    const Blob expected = reference->checkpoint();
    ThreadRanks(3).run([&](IRankGroup& ranks) {
        const auto runtime = make(&ranks);
        int reports = 0;
        const auto report = [&](const RunProgress&) {
            if (++reports == 3 && ranks.rank() == 1) throw std::runtime_error("of the report");
        };
        // Rank 0 reports, and another rank may have nothing to call.
        if (ranks.rank() < 2) runtime->setProgress(report, std::chrono::nanoseconds(0));
        expectThrows<std::runtime_error>([&] { runtime->run(); }, "of the report");
        EXPECT_EQ(runtime->commitCount(), 3U);
        EXPECT_EQ(runtime->position(), 3 * window);
        runtime->runFor(2 * window);
        runtime->run();
        EXPECT_TRUE(everywhere(&ranks, runtime->checkpoint()) == expected);
    });
}

TEST(RanksOfRuntime, RestoreOnAllRanksOrOnNone) {
    const Blob middle = runOn(nullptr).middle;
    Blob cut = middle;
    cut.pop_back();
    const auto other = makeRuntime(wiring().build(), {.horizon = horizon, .label = "ranks"},
                                   std::make_unique<CpuWindowBackend>());
    const Blob foreign = other->checkpoint();
    const std::string refusal = checkpointRefusal(foreign, *make(nullptr));
    ThreadRanks(3).run([&](IRankGroup& ranks) {
        const auto runtime = make(&ranks);
        runtime->run(half);
        const Blob before = everywhere(&ranks, runtime->checkpoint());
        EXPECT_FALSE(runtime->restore(ranks.rank() == 2 ? cut : middle));
        EXPECT_TRUE(everywhere(&ranks, runtime->checkpoint()) == before);
        expectThrows<RefusedCheckpoint>([&] { restoreCheckpoint(*runtime, foreign); }, refusal);
    });
}

TEST(RanksOfRuntime, ThrowWhereARankCannotMakeItsBackend) {
    ThreadRanks(2).run([&](IRankGroup& ranks) {
        RuntimeOptions settings = options();
        settings.ranks = &ranks;
        const auto make_backend = [&]() -> std::unique_ptr<IWindowBackend> {
            if (ranks.rank() == 1) throw std::runtime_error("no device");
            return std::make_unique<CpuWindowBackend>();
        };
        expectThrows<std::runtime_error>(
            [&] { makeRuntime(wiring().buildShare(ranks), std::move(settings), make_backend); },
            "no device");
    });
}

TEST(RanksOfRuntime, RefuseModelsThatDiffer) {
    const auto expectRefused = [](const std::string& text, auto change) {
        ThreadRanks(2).run([&](IRankGroup& ranks) {
            RuntimeOptions settings = options();
            settings.ranks = &ranks;
            if (ranks.rank() == 1) change(settings);
            expectThrows<InvalidModel>(
                [&] {
                    makeRuntime(wiring().buildShare(ranks), std::move(settings),
                                std::make_unique<CpuWindowBackend>());
                },
                text);
        });
    };
    expectRefused("rank 1 has another label than rank 0",
                  [](RuntimeOptions& settings) { settings.label = "other"; });
    const std::string text = "rank 1 has another model than rank 0";
    expectRefused(text, [](RuntimeOptions& settings) { settings.horizon += 1; });
    expectRefused(text, [](RuntimeOptions& settings) { settings.populations[0].firing.gain = 1; });
    expectRefused(text, [](RuntimeOptions& settings) { settings.given_spikes.pop_back(); });
}

TEST(RanksOfRuntime, WarnOfTheWholeNetwork) {
    const Wiring fast(30, std::nullopt,
                      {{.name = "fast",
                        .sources = {0, 30},
                        .targets = {10, 20},
                        .rule = ConnectionRule::bernoulli(0.3),
                        .weight = 0.1,
                        .delay = SynapseValues::uniform(500, 2000)}},
                      5);
    const auto warningsOf = [&](IRankGroup* ranks) {
        RuntimeOptions settings;
        settings.ranks = ranks;
        settings.horizon = horizon;
        const auto runtime = makeRuntime(ranks == nullptr ? fast.build() : fast.buildShare(*ranks),
                                         settings, std::make_unique<CpuWindowBackend>());
        std::vector<std::string> texts;
        for (const Finding& finding : runtime->warnings()) texts.push_back(finding.text);
        return texts;
    };
    const std::vector<std::string> expected = warningsOf(nullptr);
    ASSERT_FALSE(expected.empty());
    ThreadRanks(3).run([&](IRankGroup& ranks) { EXPECT_EQ(warningsOf(&ranks), expected); });
}

TEST(RanksOfRuntime, RefuseEndsAndCheckpointsThatDiffer) {
    ThreadRanks(2).run([&](IRankGroup& ranks) {
        const bool first = ranks.rank() == 0;
        const auto runtime = make(&ranks);
        const auto blobOf = [&](const Blob& bytes) {
            const BlobView of_rank_0 = ranks.share(bytes)[0];
            return Blob(of_rank_0.begin(), of_rank_0.end());
        };
        runtime->run(10 * window);
        const Blob early = blobOf(runtime->checkpoint());
        runtime->run(20 * window);
        const Blob late = blobOf(runtime->checkpoint());
        EXPECT_FALSE(runtime->restore(first ? early : late));
        EXPECT_EQ(runtime->position(), 20 * window);
        // Rank 0 alone would go back.
        EXPECT_THROW(runtime->run((first ? 15 : 25) * window), RefusedCall);
        EXPECT_EQ(runtime->position(), 20 * window);
        EXPECT_TRUE(runtime->restore(early));
        EXPECT_EQ(runtime->position(), 10 * window);
    });
}

TEST(RanksOfRuntime, RefuseOnAllRanksWhatOneCannotDo) {
    ThreadRanks(3).run([&](IRankGroup& ranks) {
        RuntimeOptions learning = options();
        learning.ranks = &ranks;
        learning.plasticity.enabled = true;
        EXPECT_THROW(makeRuntime(wiring().buildShare(ranks), std::move(learning),
                                 std::make_unique<CpuWindowBackend>()),
                     InvalidModel);
        // Each rank knows the parameters of its own neurons, and the last one has the first fault.
        const std::vector<SpikeRecord> spikes = {{window, 50}, {2 * window, 3}};
        const std::string text = refusalOf(nullptr, spikes);
        EXPECT_NE(text, "");
        EXPECT_EQ(refusalOf(&ranks, spikes), text);
        EXPECT_THROW(make(&ranks)->fork(), RefusedCall);
    });
}

}  // namespace Lumenar::Core::Kelm::Testing
