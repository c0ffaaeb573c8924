// A calendar that keeps candidates in slots and deliveries in runs goes beside one that posts all
// of them into a store, through random histories. The two must show the same after every step.

#include "kelm/engine/WindowCalendar.h"

#include <gtest/gtest.h>

#include <bit>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/events/BucketEventStore.h"
#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/PlainStore.h"
#include "tests/support/SameImages.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

constexpr ModelTime d_min = 10;
constexpr std::uint64_t buckets = 4096;
constexpr NodeId neurons = 16;

class Histories {
public:
    explicit Histories(std::uint64_t seed) : draws_(seed) {}

    std::string step() {
        // After a change of weights, deliveries are posted one by one for some windows.
        if (draws_.oneIn(200)) return reweight();
        const std::uint64_t die = draws_.below(100);
        if (die < 35) return schedule();
        if (die < 45) return post();
        if (die < 70) return deliver();
        if (die < 74) return turn();
        if (die < 98) return take();
        return restore();
    }

    /// Where the two differ, or an empty text.
    std::string difference() {
        if (!difference_.empty()) return difference_;
        if (!sameImages<CandidateSlot>(own_.candidates(), stored_.candidates())) return "slots";
        return own_.snapshot() == stored_.snapshot() ? "" : "snapshot";
    }

    std::uint64_t dense_windows = 0;

private:
    template <class Action>
    void onBoth(const Action& action) {
        const auto outcomeOf = [&](WindowCalendar& calendar) -> std::string {
            try {
                action(calendar);
            } catch (const LookaheadViolation& failure) {
                return failure.what();
            }
            return "";
        };
        if (outcomeOf(own_) != outcomeOf(stored_)) difference_ = "outcome";
    }

    /// Mostly near the last window, sometimes far ahead or past.
    ModelTime anyTime() {
        const unsigned bits = draws_.oneIn(8) ? 40 : 9;
        const ModelTime time = end_ + draws_.timeBelow(std::uint64_t{1} << draws_.below(bits));
        return draws_.oneIn(40) ? time - 2 * d_min : time;
    }

    std::string schedule() {
        const NodeId neuron = draws_.below(neurons);
        const ModelTime time = draws_.oneIn(5) ? no_time : anyTime();
        const double rate = draws_.positive();
        onBoth([&](WindowCalendar& calendar) { calendar.schedule(neuron, time, rate); });
        return "schedule " + std::to_string(neuron) + " at " + std::to_string(time);
    }

    std::string post() {
        Event event;
        event.time = anyTime();
        event.kind = draws_.oneOf<EventKind>(
            {EventKind::candidate, EventKind::input, EventKind::perturbation});
        event.target = draws_.below(neurons);
        event.value = draws_.positive();
        event.cause = draws_.below(3);
        onBoth([&](WindowCalendar& calendar) { calendar.post(event); });
        return "post at " + std::to_string(event.time);
    }

    std::string deliver() {
        for (std::uint64_t spikes = 1 + draws_.below(3); spikes != 0; --spikes) {
            const NodeId source = draws_.below(neurons);
            const ModelTime time = end_ + draws_.timeBelow(d_min);
            onBoth([&](WindowCalendar& calendar) { calendar.deliver(source, time); });
        }
        return "deliver";
    }

    /// Pending deliveries do not see a switch that is turned.
    std::string turn() {
        if (draws_.oneIn(3)) {
            graph_.setTransmissionEnabled(draws_.oneIn(2), !draws_.oneIn(4));
        } else {
            graph_.setEnabled(draws_.below(graph_.edgeCount()), draws_.oneIn(2));
        }
        return "turn a switch";
    }

    /// Pending deliveries keep their values when weights change.
    std::string reweight() {
        const EdgeId edge = draws_.below(graph_.edgeCount());
        const auto weight = static_cast<float>(draws_.below(9));
        SynapseGraph other(graph_);
        other.setWeight(edge, weight);
        switch (draws_.below(5)) {
            case 0:
                graph_ = other;
                return "assign a graph";
            case 1:
                graph_ = std::move(other);
                return "move a graph in";
            case 2:
                std::swap(graph_, other);
                return "swap graphs";
            case 3:
                if (!graph_.restore(other.snapshot())) difference_ = "restore of a graph";
                return "restore a graph";
            default:
                graph_.setWeight(edge, weight);
                return "set a weight";
        }
    }

    /// What a window holds, target by target.
    struct Taken {
        bool given = false;
        ModelTime start = no_time;
        ModelTime end = no_time;
        std::vector<std::uint64_t> values;

        bool operator==(const Taken&) const = default;
    };
    Taken takeFrom(WindowCalendar& calendar, ModelTime until) {
        Taken taken;
        WindowEvents events(neurons);
        taken.given = calendar.takeWindow(until, no_time, events, taken.start, taken.end);
        if (!taken.given) return taken;
        events.sortByTarget();
        const auto note = [&](NodeId target, ModelTime time, double value, bool wake_only) {
            for (const std::uint64_t bits :
                 {target, static_cast<std::uint64_t>(time), std::bit_cast<std::uint64_t>(value),
                  std::uint64_t{wake_only}}) {
                taken.values.push_back(bits);
            }
        };
        if (const PlacedEvents* placed = events.placedEvents()) {
            ++dense_windows;
            std::size_t i = 0;
            for (NodeId target = 0; target < neurons; ++target) {
                for (; i < placed->endOf(target); ++i) {
                    const Kernel::WindowEvent& event = placed->data()[i];
                    note(target, event.time, event.value, event.wake_only);
                }
            }
            return taken;
        }
        if (draws_.oneIn(100)) {
            graph_.setWeight(0, static_cast<float>(draws_.below(9)));
        }
        WindowEvents::Walk walk = events.walk();
        for (std::size_t first = 0; first < walk.size();) {
            const std::size_t end = walk.orderTarget(first);
            for (; first < end; ++first) {
                const WindowEvents::Input input = walk.inputAt(first);
                note(walk.targetAt(first), input.time, input.value, input.wake_only);
            }
        }
        return taken;
    }
    std::string take() {
        const ModelTime until = draws_.oneIn(3) ? end_ + draws_.timeBelow(50) : last_model_time;
        const Taken own = takeFrom(own_, until);
        if (own != takeFrom(stored_, until)) difference_ = "window";
        if (own.given) end_ = own.end;
        return "take until " + std::to_string(until);
    }

    /// Back to the current state, with slots that may have been forged: they then name events that
    /// are gone, that belong to another neuron, or that are no candidates.
    std::string restore() {
        const auto slots = [&] {
            return LargeArray<CandidateSlot>(own_.candidates().begin(), own_.candidates().end());
        };
        LargeArray<CandidateSlot> forged = slots();
        for (std::uint64_t i = draws_.below(3) * draws_.below(3); i > 0; --i) {
            CandidateSlot& slot = forged[draws_.below(neurons)];
            switch (draws_.below(4)) {
                case 0:
                    slot.event_id = draws_.below(400);
                    break;
                case 1:
                    slot.event_id = forged[draws_.below(neurons)].event_id;
                    break;
                case 2:
                    slot.rate = -slot.rate;
                    break;
                default:
                    slot.time = end_ + draws_.timeBelow(100);
            }
        }
        const Blob blob = own_.snapshot();
        LargeArray<CandidateSlot> same = forged;
        if (!own_.restore(blob, std::move(forged)) || !stored_.restore(blob, std::move(same))) {
            difference_ = "result of restore";
        }
        return "restore";
    }

    /// Two thirds of the neurons have one delay.
    SynapseGraph makeGraph() {
        std::vector<Synapse> synapses;
        const std::uint64_t fanout = 3 + draws_.below(60);
        const bool by_source = draws_.oneIn(2);
        for (std::uint64_t i = 0; i < fanout * neurons; ++i) {
            const NodeId source = by_source ? i / fanout : i % neurons;
            ModelTime delay = d_min * (1 + static_cast<ModelTime>(source % 2));
            if (source % 3 == 0) delay += static_cast<ModelTime>(i % 3) * 37;
            if (source % 7 == 0) delay += ModelTime{1} << (source + 3);
            synapses.push_back({.source = source,
                                .target = draws_.below(neurons),
                                .weight = static_cast<float>(i % 64),
                                .delay = delay,
                                .inhibitory = source % 4 == 0 || i % 100 == 0});
        }
        return SynapseGraph(neurons, d_min, std::move(synapses));
    }

    Draws draws_;
    SynapseGraph graph_ = makeGraph();
    WindowCalendar own_{graph_, d_min};
    WindowCalendar stored_{graph_, std::make_unique<PlainStore>(d_min, buckets)};
    ModelTime end_ = 0;  ///< of the last window
    std::string difference_;
};

TEST(WindowCalendar, ShowsWhatAStoreOfEventsShowsThroughRandomHistories) {
    std::uint64_t dense_windows = 0;
    for (std::uint64_t seed = 0; seed < 100; ++seed) {
        Histories histories(seed);
        for (int step = 0; step < 150; ++step) {
            const std::string done = histories.step();
            ASSERT_EQ(histories.difference(), "")
                << "seed " << seed << ", step " << step << ": " << done;
        }
        dense_windows += histories.dense_windows;
    }
    EXPECT_GT(dense_windows, 80);
}

TEST(WindowCalendar, PostsNothingOfASpikeWhoseFirstDeliveryIsBeyondTime) {
    struct OtherHolder : IRunHolder {
        void expandRuns() override {}
    } other;
    for (const bool run : {true, false}) {
        SCOPED_TRACE(run ? "one run" : "single deliveries");
        std::vector<Synapse> synapses(5, {.delay = 2 * d_min});
        if (!run) synapses.back().delay = d_min;
        SynapseGraph graph(1, d_min, synapses);
        EXPECT_EQ(graph.deferRun(0, 0, other).has_value(), run);
        WindowCalendar calendar(graph, d_min);
        calendar.deliver(0, last_model_time - 2 * d_min);
        const Blob before = calendar.snapshot();
        expectThrows<TimeOverflow>([&] { calendar.deliver(0, last_model_time - 2 * d_min + 1); },
                                   "KELM model time overflow");
        EXPECT_EQ(calendar.snapshot(), before);
    }
}

// The graph would else call a calendar that no longer exists.
TEST(WindowCalendar, LeavesItsGraphFreeToChange) {
    SynapseGraph graph(1, d_min, std::vector<Synapse>(5, {.delay = d_min}));
    std::optional<WindowCalendar> calendar(std::in_place, graph, d_min);
    calendar->deliver(0, 0);
    calendar.reset();
    graph.setWeight(0, 0.5F);
    EXPECT_EQ(graph.edge(0).weight, 0.5F);
}

TEST(WindowCalendar, KeepsAWindowWhoseEndIsBeyondTime) {
    // The last whole window of 10 ns ends at 9223372036854775800.
    for (const bool stored : {false, true}) {
        SCOPED_TRACE(stored);
        SynapseGraph graph(2, d_min, {});
        WindowCalendar calendar =
            stored ? WindowCalendar(graph, std::make_unique<BucketEventStore>(d_min, buckets))
                   : WindowCalendar(graph, d_min);
        calendar.schedule(0, 9223372036854775799, 1.0);
        calendar.schedule(1, last_model_time, 1.0);
        WindowEvents events(2);
        ModelTime start = 0;
        ModelTime end = 0;
        ASSERT_TRUE(calendar.takeWindow(last_model_time, no_time, events, start, end));
        EXPECT_EQ(end, 9223372036854775800);
        const Blob before = calendar.snapshot();
        EXPECT_THROW(calendar.takeWindow(last_model_time, no_time, events, start, end),
                     TimeOverflow);
        EXPECT_EQ(calendar.snapshot(), before);
        calendar.schedule(1, no_time, 1.0);
        EXPECT_FALSE(calendar.takeWindow(last_model_time, no_time, events, start, end));
    }
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
