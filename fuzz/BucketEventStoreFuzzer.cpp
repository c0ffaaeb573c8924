#include <algorithm>
#include <cstring>
#include <memory>
#include <span>
#include <utility>

#include "compare/Grammar.h"
#include "fuzz/Fuzzing.h"
#include "fuzz/Mutation.h"
#include "fuzz/Subjects.h"
#include "kelm/core/PortableMath.h"
#include "kelm/engine/WindowCalendar.h"
#include "kelm/events/BucketEventStore.h"

using namespace Lumenar::Core::Kelm;
using namespace Lumenar::Core::Kelm::Fuzzing;

namespace {

/// The events of a store's snapshot.
std::vector<Event> eventsOf(const Blob& snapshot) {
    BlobReader in(BlobView(snapshot).subspan(41));
    std::vector<Event> events;
    require(in.readSequence(events) && in.atEnd(), "a snapshot ends behind its events");
    return events;
}

/// The same events in two calendars: all of them in a store in one, and with the candidates in
/// slots in the other, unless its ring must be short.
struct Pair {
    SynapseGraph graph = model().network.graph();
    WindowCalendar stored;
    WindowCalendar own;

    explicit Pair(bool short_ring)
        : stored(graph, std::make_unique<BucketEventStore>(makeStore(short_ring))),
          own(short_ring
                  ? WindowCalendar(graph, std::make_unique<BucketEventStore>(makeStore(true)))
                  : WindowCalendar(graph, model().network.d_min)) {}

    static std::uint64_t neurons() { return model().network.node_count; }

    template <class Action>
    void onBoth(const Action& action, const char* what) {
        const std::string outcome = outcomeOf([&] { action(stored); });
        require(outcome == outcomeOf([&] { action(own); }), what);
    }
    void schedule(NodeId neuron, ModelTime time) {
        onBoth([&](WindowCalendar& calendar) { calendar.schedule(neuron, time, 0.5); },
               "calendars fail alike at a candidate");
    }
    void post(ModelTime time) {
        Event event;
        event.time = time;
        onBoth([&](WindowCalendar& calendar) { calendar.post(event); },
               "calendars fail alike at a post");
    }
    void requireSame() {
        require(stored.snapshot() == own.snapshot(), "calendars hold the same");
        const auto slots = std::as_bytes(stored.candidates());
        require(std::ranges::equal(slots, std::as_bytes(own.candidates())), "slots are alike");
    }

    /// False where there is no window any more, none whose end is a time, or one with an event for
    /// a neuron that the network lacks.
    bool take(ModelTime& start, ModelTime& end) {
        WindowEvents events[2] = {WindowEvents(neurons()), WindowEvents(neurons())};
        ModelTime bounds[2][2] = {{-1, -1}, {-1, -1}};
        bool taken[2] = {};
        int turn = 0;
        onBoth(
            [&](WindowCalendar& calendar) {
                const int i = turn++;
                taken[i] = calendar.takeWindow(last_model_time, no_time, events[i], bounds[i][0],
                                               bounds[i][1]);
            },
            "calendars fail alike at a window");
        require(taken[0] == taken[1], "windows come alike");
        if (!taken[0]) return false;
        require(std::ranges::equal(bounds[0], bounds[1]), "windows have the same bounds");
        start = bounds[0][0];
        end = bounds[0][1];
        require(events[0].size() != 0 && events[0].size() == events[1].size() &&
                    events[0].reachesOutside() == events[1].reachesOutside(),
                "windows hold as much");
        if (events[0].reachesOutside()) return false;
        requireSameEvents(events, start, end);
        return true;
    }

    static void requireSameEvents(WindowEvents (&events)[2], ModelTime start, ModelTime end) {
        for (WindowEvents& each : events) each.sortByTarget();
        WindowEvents::Walk walks[2] = {events[0].walk(), events[1].walk()};
        for (std::size_t first = 0; first < walks[0].size();) {
            const std::size_t last = walks[0].orderTarget(first);
            require(last == walks[1].orderTarget(first), "targets have as many events");
            ModelTime before = start;
            for (; first < last; ++first) {
                const WindowEvents::Input a = walks[0].inputAt(first);
                const WindowEvents::Input b = walks[1].inputAt(first);
                require(walks[0].targetAt(first) == walks[1].targetAt(first) && a.time == b.time &&
                            a.id == b.id && a.wake_only == b.wake_only &&
                            Kernel::bitsOf(a.value) == Kernel::bitsOf(b.value),
                        "windows are alike");
                require(before <= a.time && a.time < end, "events lie in order in their window");
                before = a.time;
            }
        }
    }
};

/// Every candidate's slot, as an engine would have it; where there are several, of the last one.
LargeArray<CandidateSlot> slotsFor(const std::vector<Event>& events) {
    LargeArray<CandidateSlot> slots(model().network.node_count);
    for (const Event& event : events) {
        if (event.kind != EventKind::candidate || event.target >= slots.size()) continue;
        slots[event.target] = {event.time, event.value, event.id};
    }
    return slots;
}

void drain(Pair& calendars, std::size_t pending) {
    ModelTime start = 0;
    ModelTime end = 0;
    const ModelTime width = model().network.d_min;
    // A few windows in which something is posted, and then all that are left.
    for (std::size_t window = 0; calendars.take(start, end); ++window) {
        require(end == start + width, "a window is as long as the smallest delay");
        require(window <= pending + 64, "windows come to an end");
        calendars.requireSame();
        if (window >= 8) continue;
        const NodeId neuron = window % Pair::neurons();
        const auto ahead = static_cast<ModelTime>(window % 4 == 3 ? 9 : window % 4);
        if (end <= last_model_time - 10 * width) {
            calendars.schedule(neuron, end + ahead * width);
            calendars.post(end + ahead * width);
        }
        calendars.post(start);  // refused
        calendars.requireSame();
    }
    calendars.requireSame();
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t max_size, unsigned int seed) {
    return mutateBy(Compare::store_grammar, data, size, max_size, seed);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::uint64_t buckets = 0;
    if (size >= 24) std::memcpy(&buckets, data + 16, 8);
    const bool short_ring = buckets == short_ring_buckets;
    BucketEventStore store = makeStore(short_ring);
    BucketEventStore twin = makeStore(short_ring);
    static const Blob pasts[] = {longestPast(makeStore(false), "BucketEventStore"),
                                 longestPast(makeStore(true), "BucketEventStore")};
    if (!acceptedByTwins(store, twin, pasts[short_ring], {data, size})) return 0;

    const Blob taken = store.snapshot();
    const std::vector<Event> pending = eventsOf(taken);
    require(store.isEmpty() == pending.empty(), "a store knows whether it is empty");
    Pair calendars(short_ring);
    LargeArray<CandidateSlot> slots = slotsFor(pending);
    LargeArray<CandidateSlot> same = slots;
    require(calendars.stored.restore(taken, std::move(slots)) &&
                calendars.own.restore(taken, std::move(same)),
            "calendars take a snapshot of a store");
    calendars.requireSame();
    drain(calendars, pending.size());
    if (runsOutOfIds(taken)) return 0;
    require(store.restore(calendars.own.snapshot()), "a store takes a snapshot of a calendar");
    requireRestorable(store, makeStore(short_ring));
    return 0;
}
