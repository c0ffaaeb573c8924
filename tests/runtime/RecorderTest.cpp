#include "kelm/runtime/Recorder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <utility>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/runtime/Checkpoint.h"
#include "kelm/runtime/OscillatorBank.h"
#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {
namespace {

using namespace Testing;

using Values = std::vector<double>;

const RecorderConfig causal_counts{true, true, 0, {SampleKind::spike_counts}};

SampleContext contextOf(std::uint64_t neurons) { return {{}, {}, {}, {}, nullptr, 0, neurons}; }

Event observation(ModelTime time, std::uint64_t id = 0) {
    return {.time = time, .id = id, .kind = EventKind::observation};
}

TEST(Recorder, FillsASampleWithTheSelectedKindsAndNoOthers) {
    const Values values[4] = {{1.0, -0.0}, {2.0, 2.5}, {3.0, 3.5}, {4.0, -1.0}};
    const OscillatorBank bank({{9, 1.0, 0.25, 1.0}, {4, 0.0, 0.5, 1.0}});
    const Values phases{bank.phaseOf(9, 10), bank.phaseOf(4, 10)};
    for (unsigned mask = 0; mask < 256; ++mask) {
        SCOPED_TRACE(mask);
        const bool has_bank = mask < 128;
        const SampleContext context{
            values[0], values[1], values[2], values[3], has_bank ? &bank : nullptr, 77, 2};
        // In reverse order, twice, and with unknown kinds: none of that makes a difference.
        RecorderConfig config{true, false, 0, {SampleKind(7), SampleKind(32)}};
        for (unsigned kind = 7; kind-- > 0;) {
            config.sample_kinds.insert(config.sample_kinds.end(), 2 * (mask >> kind & 1),
                                       SampleKind(kind));
        }
        Recorder recorder(config);
        recorder.recordSpikeEvent(1, 10, {}, 0, context);
        recorder.recordObservation(observation(10), context, {});
        const RecordedSample& sample = recorder.samples()[0];
        const auto selected = [mask](SampleKind kind, const Values& list) {
            return (mask >> static_cast<unsigned>(kind) & 1) != 0 ? list : Values();
        };
        EXPECT_EQ(sample.time, 10);
        EXPECT_EQ(sample.membrane, selected(SampleKind::membrane, values[0]));
        EXPECT_EQ(sample.adaptation, selected(SampleKind::adaptation, values[1]));
        EXPECT_EQ(sample.refractory_left, selected(SampleKind::refractory_left, values[2]));
        EXPECT_EQ(sample.next_candidate, selected(SampleKind::next_candidate, values[3]));
        EXPECT_EQ(sample.spike_counts, selected(SampleKind::spike_counts, {0.0, 1.0}));
        EXPECT_EQ(sample.oscillator_phases,
                  selected(SampleKind::oscillator_phases, has_bank ? phases : Values()));
        EXPECT_EQ(sample.active_synapses, 77 * (mask >> 2 & 1));
    }
}

TEST(Recorder, CountsEachSpikeInTheFirstSampleAtOrAfterIt) {
    for (std::uint64_t seed = 1; seed <= 60; ++seed) {
        Draws draws(seed);
        Recorder recorder(causal_counts);
        std::vector<SpikeRecord> uncounted;
        std::size_t known_neurons = 0;
        for (ModelTime now = 0; now < 2'000; now += draws.timeBelow(100)) {
            // Unordered; some after the next sample, some before samples already taken.
            for (std::uint64_t i = draws.below(20); i > 0; --i) {
                const NodeId neuron = draws.below(6);
                const ModelTime time = now - 100 + draws.timeBelow(300);
                recorder.recordSpikeEvent(neuron, time, {}, 0, {});
                uncounted.push_back({time, neuron});
                known_neurons = std::max(known_neurons, neuron + 1);
            }
            const std::uint64_t network = draws.below(6);
            known_neurons = std::max(known_neurons, network);
            Values expected(known_neurons, 0.0);
            std::erase_if(uncounted, [&](const SpikeRecord& spike) {
                if (spike.time <= now) expected[spike.neuron] += 1.0;
                return spike.time <= now;
            });
            recorder.recordObservation(observation(now), contextOf(network), {});
            ASSERT_EQ(recorder.samples().back().spike_counts, expected) << seed << " at " << now;
        }
    }
}

TEST(Recorder, RefusesUnknownCausesAndNeuronsWithoutAChange) {
    expectThrows<InvalidRecorder>(
        [] {
            Recorder recorder({true, false, -1, {}});
        },
        "recorder sample interval must not be negative");
    Recorder recorder(causal_counts);
    recorder.noteCause(5, {});
    recorder.noteCause(6, {5, true});
    const Cause unknown{7, true};
    const char* const text = "recorder cause was never recorded";
    expectRefusals<BrokenCausalTrace>(
        {{text, [&] { recorder.noteCause(7, unknown); }},
         {text, [&] { recorder.recordObservation(observation(1, 7), contextOf(1), unknown); }},
         {text, [&] { recorder.recordSpikeEvent(0, 1, unknown, 0, {}); }}});
    const auto last = std::numeric_limits<NodeId>::max();
    expectThrows<std::out_of_range>([&] { recorder.recordSpikeEvent(last, 0, {}, 0, {}); },
                                    "recorder spike neuron is out of range");
    EXPECT_TRUE(recorder.samples().empty() && recorder.spikes().empty());
    recorder.recordSpikeEvent(0, 1, {6, true}, 0, {});
    recorder.recordObservation(observation(1, 9), contextOf(1), {6, true});
    EXPECT_EQ(recorder.samples()[0].spike_counts, Values{1.0}) << "a refused spike is not counted";
    EXPECT_EQ(recorder.causes().size(), 3U) << "neither event 7 nor a spike is in the map";
}

TEST(Recorder, StoresTheLastCauseOfEachEventAndSortsThemById) {
    Recorder recorder(causal_counts);
    Recorder acausal{RecorderConfig{}};
    for (const std::uint64_t id : {~0UL, 3UL, 1UL << 63, 0UL, 1000UL, 7UL, 3UL}) {
        Event event{.id = id, .kind = static_cast<EventKind>(id % 5)};  // never an observation
        const bool again = recorder.causes().size() == 6;
        recorder.recordObservation(event, contextOf(1), {7, again});
        acausal.recordObservation(event, contextOf(1), {99, true});
    }
    EXPECT_TRUE(recorder.samples().empty());
    EXPECT_TRUE(acausal.causes().empty());
    acausal.recordSpikeEvent(1, 7, {41, true}, 6, {});
    const RecordedSpike& spike = acausal.spikes()[0];
    EXPECT_TRUE(spike.neuron == 1 && spike.spike_kind == 6 && spike.time == 7);
    EXPECT_EQ(spike.cause.id, 41U) << "without a causal map a cause is stored unchecked";
    Recorder silent({false, false, 0, {}});
    silent.recordSpikeEvent(1, 7, {}, 0, {});
    EXPECT_TRUE(silent.spikes().empty());
    std::vector<std::uint64_t> ids;
    for (const CauseEntry& entry : recorder.causes()) {
        ids.push_back(entry.event_id);
        EXPECT_EQ(entry.cause.present, entry.event_id == 3);
    }
    EXPECT_EQ(ids, (std::vector<std::uint64_t>{0, 3, 7, 1000, 1UL << 63, ~0UL}));
}

TEST(Recorder, AdoptsCausesAndKeepsUncountedSpikes) {
    Recorder recorder(causal_counts);
    recorder.noteCause(1, {});
    recorder.recordSpikeEvent(0, 50, {}, 0, {});
    // Two entries of one event, in the form of a checkpoint.
    Blob blob;
    Checkpoint::appendCauses(blob, std::vector<CauseEntry>{{2, {8, true}}, {2, {7, true}}});
    Recorder::State state;
    BlobReader in(blob);
    ASSERT_TRUE(Checkpoint::readCauses(in, state.causes));
    recorder.adopt(std::move(state));
    ASSERT_EQ(recorder.causes().size(), 1U) << "the earlier note is gone";
    EXPECT_EQ(recorder.causes()[0].cause.id, 8U) << "the first of two entries is taken";
    recorder.recordObservation(observation(60, 4), contextOf(1), {});
    EXPECT_EQ(recorder.samples()[0].spike_counts, Values{1.0});
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
