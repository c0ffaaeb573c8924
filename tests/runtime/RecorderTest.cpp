#include "kelm/runtime/Recorder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/runtime/OscillatorBank.h"
#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/SameBits.h"

namespace Lumenar::Core::Kelm {
namespace {

using Testing::Draws;
using Testing::expectThrows;
using Testing::sameBits;

using Values = std::vector<double>;

const char* const unknown_cause = "recorder cause was never recorded";

RecorderConfig configOf(std::vector<SampleKind> kinds) {
    RecorderConfig config;
    config.sample_kinds = std::move(kinds);
    return config;
}

RecorderConfig causalConfig() {
    RecorderConfig config = configOf({SampleKind::spike_counts});
    config.causal = true;
    return config;
}

Event observation(ModelTime time, std::uint64_t id = 0) {
    Event event;
    event.time = time;
    event.id = id;
    event.kind = EventKind::observation;
    return event;
}

SampleContext contextOf(std::uint64_t neuron_count) {
    SampleContext context;
    context.neuron_count = neuron_count;
    return context;
}

TEST(Recorder, RefusesANegativeSampleInterval) {
    RecorderConfig config;
    config.sample_interval = -1;
    expectThrows<std::invalid_argument>([&] { Recorder recorder(config); },
                                        "recorder sample interval must not be negative");
}

TEST(Recorder, FillsASampleWithTheSelectedKindsAndNoOthers) {
    const Values membrane{1.0, -0.0};
    const Values adaptation{2.0, 2.5};
    const Values refractory{3.0, 3.5};
    const Values candidate{4.0, -1.0};
    const OscillatorBank bank({{9, 1.0, 0.25, 1.0}, {4, 0.0, 0.5, 1.0}});
    SampleContext context{membrane, adaptation, refractory, candidate, &bank, 77, 2};
    for (unsigned mask = 0; mask < 128; ++mask) {
        SCOPED_TRACE("kinds " + std::to_string(mask));
        // Backwards and twice, with a kind that does not exist: neither order nor repeats count.
        RecorderConfig config = configOf({static_cast<SampleKind>(7), static_cast<SampleKind>(32)});
        for (unsigned kind = 7; kind-- > 0;) {
            if ((mask >> kind & 1) == 0) continue;
            config.sample_kinds.insert(config.sample_kinds.end(), 2, static_cast<SampleKind>(kind));
        }
        const auto selected = [mask](SampleKind kind) {
            return (mask >> static_cast<unsigned>(kind) & 1) != 0;
        };
        Recorder recorder(config);
        recorder.recordSpikeEvent(1, 10, {}, 0, context);
        recorder.recordObservation(observation(10), context, {});
        ASSERT_EQ(recorder.samples().size(), 1U);
        const RecordedSample& sample = recorder.samples()[0];
        EXPECT_EQ(sample.time, 10);
        EXPECT_EQ(sample.membrane, selected(SampleKind::membrane) ? membrane : Values{});
        EXPECT_EQ(sample.adaptation, selected(SampleKind::adaptation) ? adaptation : Values{});
        EXPECT_EQ(sample.refractory_left,
                  selected(SampleKind::refractory_left) ? refractory : Values{});
        EXPECT_EQ(sample.next_candidate,
                  selected(SampleKind::next_candidate) ? candidate : Values{});
        EXPECT_EQ(sample.spike_counts,
                  selected(SampleKind::spike_counts) ? (Values{0.0, 1.0}) : Values{});
        EXPECT_EQ(sample.active_synapses, selected(SampleKind::active_synapses) ? 77U : 0U);
        const bool has_phases = selected(SampleKind::oscillator_phases);
        ASSERT_EQ(sample.oscillator_phases.size(), has_phases ? 2U : 0U);
        if (has_phases) {
            EXPECT_TRUE(sameBits(sample.oscillator_phases[0], bank.phaseOf(9, 10)));
            EXPECT_TRUE(sameBits(sample.oscillator_phases[1], bank.phaseOf(4, 10)));
        }
        for (unsigned kind = 0; kind < 256; ++kind) {
            EXPECT_EQ(recorder.selects(static_cast<SampleKind>(kind)),
                      kind < 7 && (mask >> kind & 1));
        }
    }
    context.oscillators = nullptr;
    Recorder recorder(configOf({SampleKind::oscillator_phases}));
    recorder.recordObservation(observation(10), context, {});
    EXPECT_TRUE(recorder.samples()[0].oscillator_phases.empty());
}

TEST(Recorder, RecordsASpikeWithThePhasesOfItsNeuronAtItsTime) {
    OscillatorBank bank({{9, 3.0, 0.25, 1.0}, {4, 5.0, 0.5, 1.0}});
    bank.setMemberships({{}, {4, 9}});
    SampleContext context;
    context.oscillators = &bank;
    Recorder recorder{RecorderConfig{}};
    recorder.recordSpikeEvent(1, 123'456'789, {}, 6, context);
    recorder.recordSpikeEvent(0, 5, {41, true}, 0, context);
    context.oscillators = nullptr;
    recorder.recordSpikeEvent(1, 7, {}, 0, context);

    ASSERT_EQ(recorder.spikes().size(), 3U);
    const RecordedSpike& first = recorder.spikes()[0];
    EXPECT_EQ(first.neuron, 1U);
    EXPECT_EQ(first.spike_kind, 6U);
    EXPECT_EQ(first.time, 123'456'789);
    EXPECT_FALSE(first.cause.present);
    ASSERT_EQ(first.phases.size(), 2U);
    EXPECT_EQ(first.phases[0].oscillator, 4U);
    EXPECT_TRUE(sameBits(first.phases[0].phase, bank.phaseOf(4, 123'456'789)));
    EXPECT_EQ(first.phases[1].oscillator, 9U);
    EXPECT_TRUE(sameBits(first.phases[1].phase, bank.phaseOf(9, 123'456'789)));
    EXPECT_TRUE(recorder.spikes()[1].phases.empty());
    EXPECT_EQ(recorder.spikes()[1].cause.id, 41U) << "without a causal map a cause is only kept";
    EXPECT_TRUE(recorder.spikes()[2].phases.empty());
}

TEST(Recorder, CountsEachSpikeInTheFirstSampleThatIsNotBeforeIt) {
    for (std::uint64_t seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Draws draws(seed);
        RecorderConfig config = configOf({SampleKind::spike_counts});
        config.record_spikes = draws.oneIn(2);
        Recorder recorder(config);
        const std::uint64_t neurons = draws.below(5) + 1;
        // Some sequences hold many more spikes than a sample takes, others hardly any.
        const std::uint64_t spikes_per_window = draws.below(30) + 1;
        const std::uint64_t reach = draws.oneIn(3) ? 2000 : 120;
        std::vector<std::pair<NodeId, ModelTime>> uncounted;
        std::uint64_t known_neurons = 0;
        std::size_t spike_count = 0;
        ModelTime now = 0;
        for (std::size_t window = 0; window < 50; ++window) {
            SCOPED_TRACE("window " + std::to_string(window));
            // In no order, some behind the sample to come, some before samples long taken.
            for (std::uint64_t i = draws.below(spikes_per_window); i > 0; --i) {
                const NodeId neuron = draws.below(neurons);
                const ModelTime time =
                    draws.oneIn(20) ? draws.timeBelow(100) : now + draws.timeBelow(reach);
                recorder.recordSpikeEvent(neuron, time, {}, 0, {});
                uncounted.emplace_back(neuron, time);
                known_neurons = std::max(known_neurons, neuron + 1);
                ++spike_count;
            }
            if (draws.oneIn(3)) continue;
            now += draws.timeBelow(100);
            const std::uint64_t network = draws.below(neurons + 1);
            known_neurons = std::max(known_neurons, network);
            Values expected(known_neurons, 0.0);
            std::erase_if(uncounted, [&](const auto& spike) {
                if (spike.second > now) return false;
                expected[spike.first] += 1.0;
                return true;
            });
            recorder.recordObservation(observation(now), contextOf(network), {});
            ASSERT_EQ(recorder.samples().back().spike_counts, expected);
        }
        EXPECT_EQ(recorder.spikes().size(), config.record_spikes ? spike_count : 0U);
    }
}

TEST(Recorder, RefusesASpikeOfANeuronThatNoTableCouldHold) {
    Recorder recorder(configOf({SampleKind::spike_counts}));
    expectThrows<std::out_of_range>(
        [&] {
            recorder.recordSpikeEvent(std::numeric_limits<NodeId>::max(), 0, {}, 0, contextOf(1));
        },
        "recorder spike neuron is out of range");
    EXPECT_TRUE(recorder.spikes().empty());
    recorder.recordObservation(observation(0), contextOf(1), {});
    EXPECT_EQ(recorder.samples()[0].spike_counts, Values{0.0});
}

TEST(Recorder, RefusesWhatHasAnUnknownCauseAndAddsNothingOfIt) {
    Recorder recorder(causalConfig());
    recorder.noteCause(5, {});
    recorder.noteCause(6, {5, true});
    expectThrows<BrokenCausalTrace>([&] { recorder.noteCause(7, {7, true}); }, unknown_cause);
    expectThrows<BrokenCausalTrace>(
        [&] {
            recorder.recordObservation(observation(1, 7), contextOf(1), {8, true});
        },
        unknown_cause);
    expectThrows<BrokenCausalTrace>(
        [&] {
            recorder.recordSpikeEvent(0, 1, {7, true}, 0, contextOf(1));
        },
        unknown_cause);
    EXPECT_TRUE(recorder.samples().empty());
    EXPECT_TRUE(recorder.spikes().empty());

    recorder.recordSpikeEvent(0, 1, {6, true}, 0, contextOf(1));
    recorder.recordObservation(observation(1, 9), contextOf(1), {6, true});
    EXPECT_EQ(recorder.samples()[0].spike_counts, Values{1.0})
        << "the refused spike is not waiting";
    const std::vector<CauseEntry> causes = recorder.causes();
    ASSERT_EQ(causes.size(), 3U) << "neither 7 nor a spike is in the map";
    EXPECT_EQ(causes[2].event_id, 9U);
    EXPECT_EQ(causes[2].cause.id, 6U);
}

TEST(Recorder, NotesTheCauseOfAnyEventButSamplesAtObservationsAlone) {
    Recorder recorder(causalConfig());
    Event event;
    event.id = 3;
    for (const EventKind kind :
         {EventKind::delivery, EventKind::candidate, EventKind::input, EventKind::perturbation}) {
        event.kind = kind;
        ++event.id;
        recorder.recordObservation(event, contextOf(1), {});
    }
    EXPECT_TRUE(recorder.samples().empty());
    EXPECT_EQ(recorder.causes().size(), 4U);

    Recorder acausal{RecorderConfig{}};
    acausal.noteCause(1, {99, true});
    acausal.recordObservation(observation(2, 2), contextOf(1), {99, true});
    EXPECT_EQ(acausal.samples().size(), 1U);
    EXPECT_TRUE(acausal.causes().empty());
}

TEST(Recorder, GivesTheCausalMapInOneOrderWhateverItsHistory) {
    const std::vector<std::uint64_t> ids{0x8000000000000000, 3, 0xffffffffffffffff, 0, 1000, 7};
    Recorder forwards(causalConfig());
    Recorder backwards(causalConfig());
    for (const std::uint64_t id : ids) forwards.noteCause(id, {});
    for (std::size_t i = ids.size(); i-- > 0;) backwards.noteCause(ids[i], {7, ids[i] == 3});
    backwards.noteCause(3, {});
    forwards.noteCause(7, {3, true});
    backwards.noteCause(7, {3, true});
    const std::vector<CauseEntry> a = forwards.causes();
    const std::vector<CauseEntry> b = backwards.causes();
    const std::vector<std::uint64_t> sorted{0, 3, 7, 1000, 0x8000000000000000, 0xffffffffffffffff};
    ASSERT_EQ(a.size(), sorted.size());
    ASSERT_EQ(b.size(), sorted.size());
    for (std::size_t i = 0; i < sorted.size(); ++i) {
        EXPECT_EQ(a[i].event_id, sorted[i]);
        EXPECT_EQ(b[i].event_id, sorted[i]);
        EXPECT_EQ(a[i].cause.present, sorted[i] == 7);
        EXPECT_EQ(b[i].cause.present, sorted[i] == 7);
    }
}

TEST(Recorder, RestoresItsListsAndLeavesWaitingSpikesAlone) {
    Recorder recorder(causalConfig());
    recorder.noteCause(1, {});
    recorder.recordSpikeEvent(0, 50, {}, 0, contextOf(1));
    RecordedSpike spike;
    spike.neuron = 4;
    RecordedSample sample;
    sample.spike_counts = {9.0};
    const std::vector<CauseEntry> causes{{8, {}}, {2, {8, true}}, {2, {7, true}}};
    recorder.restoreState({spike, spike}, {sample}, causes);

    EXPECT_EQ(recorder.spikes().size(), 2U);
    EXPECT_EQ(recorder.spikes()[1].neuron, 4U);
    ASSERT_EQ(recorder.causes().size(), 2U);
    EXPECT_EQ(recorder.causes()[0].event_id, 2U);
    EXPECT_EQ(recorder.causes()[0].cause.id, 8U) << "the first of two entries stands";
    expectThrows<BrokenCausalTrace>([&] { recorder.noteCause(3, {1, true}); }, unknown_cause);
    recorder.noteCause(3, {2, true});
    recorder.recordObservation(observation(60, 4), contextOf(2), {});
    ASSERT_EQ(recorder.samples().size(), 2U);
    EXPECT_EQ(recorder.samples()[0].spike_counts, Values{9.0});
    EXPECT_EQ(recorder.samples()[1].spike_counts, (Values{1.0, 0.0}));
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
