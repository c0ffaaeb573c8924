#include <algorithm>
#include <cstring>
#include <utility>

#include "compare/Grammar.h"
#include "fuzz/Fuzzing.h"
#include "fuzz/Mutation.h"
#include "fuzz/Subjects.h"

using namespace Lumenar::Core::Kelm;
using namespace Lumenar::Core::Kelm::Fuzzing;

namespace {

/// The events of a snapshot, which the store has just written.
std::vector<Event> eventsOf(const Blob& snapshot) {
    BlobReader in(BlobView(snapshot).subspan(41));
    std::vector<Event> events;
    require(in.readSequence(events) && in.atEnd(), "a snapshot ends behind its events");
    return events;
}

/// The same events in two stores: as events in one, and with its candidates in slots in the other.
struct Pair {
    BucketEventStore plain;
    BucketEventStore held;
    std::vector<CandidateSlot> plain_slots;
    std::vector<CandidateSlot> held_slots;

    void schedule(NodeId neuron, ModelTime time) {
        const std::string outcome = outcomeOf([&] { held.scheduleCandidate(neuron, time, 0.5); });
        require(outcome == outcomeOf([&] { scheduleAsEvent(neuron, time); }),
                "stores fail alike at a candidate");
    }
    void scheduleAsEvent(NodeId neuron, ModelTime time) {
        CandidateSlot& slot = plain_slots[neuron];
        if (slot.event_id != no_event) plain.cancel(slot.event_id);
        slot = {time, 0.5, no_event};
        Event event;
        event.time = time;
        event.kind = EventKind::candidate;
        event.source = event.target = neuron;
        event.value = 0.5;
        slot.event_id = plain.post(event);
    }
    void post(ModelTime time) {
        Event event;
        event.time = time;
        const std::string outcome = outcomeOf([&] { plain.post(event); });
        require(outcome == outcomeOf([&] { held.post(event); }), "stores fail alike at a post");
    }
    void requireSame() {
        require(plain.snapshot() == held.snapshot(), "stores hold the same");
        require(plain.overflowPosts() == held.overflowPosts(), "stores count far events alike");
    }

    /// False where there is no window any more, or none whose end is a time.
    bool take(std::vector<Event>& events, ModelTime& start, ModelTime& end) {
        std::vector<Event> others;
        bool taken = false;
        bool also_taken = false;
        const std::string outcome =
            outcomeOf([&] { taken = plain.take(last_model_time, events, start, end); });
        require(outcome ==
                    outcomeOf([&] { also_taken = held.take(last_model_time, others, start, end); }),
                "stores fail alike at a window");
        require(taken == also_taken && events.size() == others.size(), "windows are alike");
        for (std::size_t i = 0; i < events.size(); ++i) {
            require(std::memcmp(&events[i], &others[i], sizeof(Event)) == 0, "windows are alike");
        }
        return taken;
    }
};

/// Every candidate's slot, as an engine would have it; where there are several, of the last one.
std::vector<CandidateSlot> slotsFor(const std::vector<Event>& events) {
    std::vector<CandidateSlot> slots(model().network.node_count);
    for (const Event& event : events) {
        if (event.kind != EventKind::candidate || event.target >= slots.size()) continue;
        slots[event.target] = {event.time, event.value, event.id};
    }
    return slots;
}

void drain(Pair& stores, const std::vector<Event>& pending) {
    std::vector<Event> events;
    ModelTime start = 0;
    ModelTime end = 0;
    const ModelTime width = stores.plain.bucketWidth();
    // A few windows in which something is posted, and then all that are left.
    for (std::size_t window = 0; stores.take(events, start, end); ++window) {
        require(!events.empty() && end == start + width, "a window is not empty");
        require(std::is_sorted(events.begin(), events.end(), EventLess()), "a window is in order");
        require(events.front().time >= start && events.back().time < end,
                "events lie in their window");
        require(window <= pending.size() + 64, "windows come to an end");
        stores.requireSame();
        if (window >= 8) continue;
        // Shared by candidates that come to stand before, in and behind the ring.
        const NodeId neuron = window % stores.held_slots.size();
        const auto ahead = static_cast<ModelTime>(window % 4 == 3 ? 9 : window % 4);
        if (end <= last_model_time - 10 * width) {
            stores.schedule(neuron, end + ahead * width);
            stores.post(end + ahead * width);
        }
        stores.post(start);  // refused
        stores.requireSame();
    }
    stores.requireSame();
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
    Pair stores{makeStore(short_ring), makeStore(short_ring), {}, {}};
    static const Blob pasts[] = {longestPast(makeStore(false), "BucketEventStore"),
                                 longestPast(makeStore(true), "BucketEventStore")};
    if (!acceptedByTwins(stores.plain, stores.held, pasts[short_ring], {data, size})) return 0;

    const Blob taken = stores.plain.snapshot();
    const std::vector<Event> pending = eventsOf(taken);
    stores.plain_slots = stores.held_slots = slotsFor(pending);
    require(stores.held.restore(taken, stores.held_slots), "candidates can be kept in slots");
    stores.requireSame();
    require(stores.plain.isEmpty() == pending.empty(), "a store knows whether it is empty");
    drain(stores, pending);
    if (!runsOutOfIds(taken)) requireRestorable(stores.held, makeStore(short_ring));
    return 0;
}
