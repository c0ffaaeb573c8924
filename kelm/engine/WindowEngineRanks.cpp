#include <algorithm>
#include <cstring>
#include <numeric>
#include <stdexcept>
#include <string>
#include <utility>

#include "kelm/core/Digest.h"
#include "kelm/core/FailureImage.h"
#include "kelm/core/IRankGroup.h"
#include "kelm/core/ShardRanges.h"
#include "kelm/engine/RunState.h"
#include "kelm/engine/WindowEngine.h"

// What WindowEngine does with the other ranks of its network.

namespace Lumenar::Core::Kelm {

/// What a rank tells the others about a window; then its spikes, then its failure.
struct WindowEngine::Message {
    ModelTime window_start = 0;
    std::uint64_t next_time = never;  ///< in the next window that holds an event
    std::uint64_t first_id = 0;       ///< of the window
    std::uint64_t id_count = 0;
    WindowProfile counts;
    std::uint64_t spike_count = 0;
    // 0 or 1. Not bool, because a message may turn out to be that of another call.
    std::uint8_t failed = 0;
    std::uint8_t is_wide = 0;  ///< spikes as WideSpike
    std::uint8_t stop = 0;     ///< a request to stop
    std::uint8_t report = 0;   ///< all ranks report after this window; of rank 0
    std::uint8_t gap[4] = {};

    struct Spike {
        std::uint32_t time;    ///< ns, from the window's start
        std::uint32_t neuron;  ///< from the rank's first neuron
        std::uint32_t id;
    };
    struct WideSpike {
        std::uint64_t time;
        std::uint64_t neuron;
        std::uint64_t id;
    };
};

bool WindowEngine::mayBeUndone(std::size_t shard) const { return shard != 0 || ranks_ != nullptr; }

void WindowEngine::requireCountedShare() {
    if (!graph_.isShareOf(*ranks_)) throw notOverRanks("a graph that is not the share of its rank");
    if (!graph_.share()->counted) graph_.countShare(*ranks_);
}

/// Sends the window's counts and spikes to all ranks, and prepares the posts of what they send.
/// Makes `counts` those of all ranks.
WindowEngine::Exchanged WindowEngine::exchange(Window& window, std::size_t shard_end,
                                               std::uint64_t id_count, WindowProfile& counts) {
    Message own;
    own.window_start = window.start;
    own.next_time = firstTime();
    own.stop = control_ != nullptr && control_->takeStopRequest();
    own.report = control_ != nullptr && ranks_->rank() == 0 &&
                 control_->isReportDue(window.event_count, window.end);
    own.first_id = calendar_.nextId();
    own.id_count = id_count;
    own.counts = counts;
    constexpr std::uint64_t narrow = 0xffffffff;
    own.is_wide = static_cast<std::uint64_t>(window.end - window.start) > narrow ||
                  states_.size() > narrow || id_count > narrow;
    for (std::size_t s = 0; s < shard_end; ++s) own.spike_count += window.shards[s].spikes.size();
    const std::exception_ptr failure =
        shard_end == 0 ? nullptr : window.shards[shard_end - 1].failure;
    own.failed = failure != nullptr;
    Blob& message = window.message;
    message.resize(sizeof own);
    std::uint64_t id = 0;
    for (std::size_t s = 0; s < shard_end; ++s) {
        for (const Shard::Spike& spike : window.shards[s].spikes) {
            const NodeId place = spike.neuron - first_neuron_;
            const ModelTime delay = graph_.share()->shortest_delay[place];
            if (delay != 0) {
                own.next_time =
                    std::min(own.next_time, static_cast<std::uint64_t>(spike.time + delay));
            }
            const Message::WideSpike wide = {static_cast<std::uint64_t>(spike.time - window.start),
                                             place, id + spike.id};
            if (own.is_wide) {
                appendImage(message, wide);
            } else {
                appendImage(message, Message::Spike{static_cast<std::uint32_t>(wide.time),
                                                    static_cast<std::uint32_t>(wide.neuron),
                                                    static_cast<std::uint32_t>(wide.id)});
            }
        }
        id += window.shards[s].id_count;
    }
    std::memcpy(message.data(), &own, sizeof own);
    if (failure) {
        const Blob image = failureImage(failure);
        appendBytes(message, image.data(), image.size());
    }
    const Exchanged exchanged = receive(window, ranks_->share(message), counts);
    readRunDelays(window);
    return exchanged;
}

/// Each shard reads the delays of a range of sources, because it may write their entries.
void WindowEngine::readRunDelays(Window& window) {
    const auto count = static_cast<std::uint32_t>(window.shards.size());
    forShards(window, [&](std::size_t s) {
        const auto shard = static_cast<std::uint32_t>(s);
        const NodeId begin = Kernel::shardBegin(graph_.nodeCount(), count, shard);
        const NodeId end = Kernel::shardEnd(graph_.nodeCount(), count, shard);
        for (std::vector<Shard::Spike>& spikes : window.received) {
            auto spike = std::ranges::lower_bound(spikes, begin, {}, &Shard::Spike::neuron);
            for (; spike != spikes.end() && spike->neuron < end; ++spike) {
                spike->run_delay = calendar_.runDelayOf(spike->neuron);
            }
        }
    });
}

WindowEngine::Exchanged WindowEngine::receive(Window& window, std::span<const BlobView> messages,
                                              WindowProfile& counts) {
    Exchanged exchanged{calendar_.nextId(), calendar_.nextId(), false};
    counts = {};
    counts.windows = 1;
    agreed_time_ = never;
    window.received.resize(messages.size());
    window.new_spikes.clear();
    window.remote_failure = nullptr;
    bool failed = false;
    const auto size = static_cast<std::uint32_t>(messages.size());
    const auto headOf = [&](std::uint32_t r) {
        Message message;
        if (messages[r].size() < sizeof message) IRankGroup::refuseCalls(r);
        std::memcpy(&message, messages[r].data(), sizeof message);
        return message;
    };
    bool any_failed = false;
    for (std::uint32_t r = 0; r < size; ++r) {
        const Message message = headOf(r);
        if (message.window_start != window.start || message.first_id != calendar_.nextId()) {
            IRankGroup::refuseCalls(r);
        }
        any_failed = any_failed || message.failed != 0;
    }
    ranks_end_ = any_failed;
    for (std::uint32_t r = 0; r < size; ++r) {
        const Message message = headOf(r);
        BlobView in = messages[r].subspan(sizeof message);
        if (r == ranks_->rank()) {
            exchanged.first_id = exchanged.next_id;
            exchanged.lower_rank_failed = failed;
        }
        counts.deliveries += message.counts.deliveries;
        if (failed) continue;
        const std::size_t spike_bytes =
            message.is_wide != 0 ? sizeof(Message::WideSpike) : sizeof(Message::Spike);
        if (message.spike_count > in.size() / spike_bytes) IRankGroup::refuseCalls(r);
        log_count_ += message.spike_count;
        counts.updates += message.counts.updates;
        counts.candidates += message.counts.candidates;
        counts.accepted += message.counts.accepted;
        agreed_time_ = std::min(agreed_time_, message.next_time);
        agreed_stop_ = agreed_stop_ || message.stop != 0;
        agreed_report_ = agreed_report_ || message.report != 0;
        const NodeId first = Kernel::shardBegin(graph_.nodeCount(), size, r);
        std::vector<Shard::Spike>& spikes = window.received[r];
        spikes.clear();
        for (std::uint64_t i = 0; i < message.spike_count; ++i) {
            Message::WideSpike spike{};
            if (message.is_wide != 0) {
                std::memcpy(&spike, in.data(), sizeof spike);
                in = in.subspan(sizeof spike);
            } else {
                Message::Spike packed;
                std::memcpy(&packed, in.data(), sizeof packed);
                in = in.subspan(sizeof packed);
                spike = {packed.time, packed.neuron, packed.id};
            }
            const NodeId neuron = first + spike.neuron;
            const ModelTime time = window.start + static_cast<ModelTime>(spike.time);
            spikes.push_back({time, neuron, spike.id, 0});
            window.new_spikes.push_back({time, neuron});
        }
        window.posts.push_back({spikes, exchanged.next_id});
        exchanged.next_id += message.id_count;
        if (message.failed == 0) continue;
        failed = true;
        if (r == ranks_->rank()) continue;
        try {
            throwFailure(in);
        } catch (...) {
            window.remote_failure = std::current_exception();
        }
    }
    return exchanged;
}

/// A time in the first window that has an event or a given spike here.
std::uint64_t WindowEngine::firstTime() {
    return std::min(static_cast<std::uint64_t>(calendar_.firstTime()),
                    static_cast<std::uint64_t>(nextGivenTime()));
}

/// The ranks agree on the next window that holds an event anywhere.
void WindowEngine::agreeOnNextWindow(Window& window) {
    if (ranks_ == nullptr) return;
    Message own;
    own.window_start = window.start;
    own.next_time = firstTime();
    own.first_id = calendar_.nextId();
    own.stop = control_ != nullptr && control_->takeStopRequest();
    Blob message;
    appendImage(message, own);
    WindowProfile counts;
    window.posts.clear();
    receive(window, ranks_->share(message), counts);
}

/// Adds to the ids of candidates from `first_id` on those that lower ranks have given.
void WindowEngine::numberCandidates(std::uint64_t first_id) {
    if (ranks_ == nullptr) return;
    const auto counts = ranks_->shareRecord(calendar_.nextId() - first_id);
    const auto own = counts.begin() + ranks_->rank();
    const std::uint64_t before = std::accumulate(counts.begin(), own, std::uint64_t{0});
    const std::uint64_t all = std::accumulate(own, counts.end(), before);
    for (NodeId n = firstNeuron(); n < endNeuron(); ++n) {
        const CandidateSlot& slot = calendar_.candidate(n);
        if (slot.time >= 0 && slot.event_id >= first_id) {
            calendar_.setCandidateId(n, slot.event_id + before);
        }
    }
    calendar_.setNextId(first_id + all);
}

/// The least of one time of each rank.
ModelTime WindowEngine::leastOfRanks(ModelTime time) {
    return std::ranges::min(ranks_->shareRecord(time));
}

/// Replaces the samples of own neurons at `time` ns by those of all `neurons`, in their order.
void WindowEngine::orderSamples(std::vector<StateSample>& samples, std::span<const NodeId> neurons,
                                ModelTime time) {
    const std::uint64_t call =
        digestImages(neurons, digest_start ^ static_cast<std::uint64_t>(time));
    Blob own;
    appendImages<StateSample>(own, samples);
    appendU64(own, call);
    std::vector<BlobView> parts;
    for (const BlobView from : ranks_->share(own)) {
        const auto rank = static_cast<std::uint32_t>(parts.size());
        if (from.size() < sizeof call) IRankGroup::refuseCalls(rank);
        BlobReader tail(from.last(sizeof call));
        std::uint64_t other = 0;
        if (!tail.readU64(other) || other != call) IRankGroup::refuseCalls(rank);
        parts.push_back(from.first(from.size() - sizeof call));
    }
    samples = joined<std::vector<StateSample>>(parts);
    if (samples.size() != neurons.size()) IRankGroup::refuseCalls(ranks_->rank());
    const auto size = ranks_->size();
    std::vector<std::size_t> counts(size + 1);
    for (const NodeId n : neurons) ++counts[Kernel::shardOf(graph_.nodeCount(), size, n) + 1];
    std::partial_sum(counts.begin(), counts.end(), counts.begin());
    std::vector<StateSample> ordered;
    ordered.reserve(samples.size());
    for (const NodeId n : neurons) {
        ordered.push_back(samples[counts[Kernel::shardOf(graph_.nodeCount(), size, n)]++]);
    }
    samples = std::move(ordered);
}

/// Rank 0 digests the logs of all ranks as one.
TakenSpikes WindowEngine::digestOfRanks() {
    return ranks_->together([&] {
        Blob own;
        appendImages<SpikeRecord>(own, spikeLog());
        auto log = joined<std::vector<SpikeRecord>>(ranks_->collect(own));
        std::sort(log.begin(), log.end(), SpikeRecordLess());
        const TakenSpikes all = {taken_.count + log.size(),
                                 digestImages(std::span<const SpikeRecord>(log), taken_.digest)};
        return ranks_->shareRecord(all).front();
    });
}

/// Rank 0 puts the parts of all ranks together. It holds the network's snapshot for that time.
Blob WindowEngine::snapshotOfRanks() {
    Blob own;
    appendSequence(own, states_);
    std::vector<std::uint64_t> streams;
    for (NodeId n = firstNeuron(); n < endNeuron(); ++n) {
        streams.push_back(random_.rawState(spontaneous_, n));
    }
    appendSequence(own, streams);
    appendImages<CandidateSlot>(own, calendar_.candidates());
    appendSequence(own, spikeLog());
    appendSequence(own, calendar_.pendingEvents());
    const Blob graph = graph_.collectSnapshot(*ranks_);
    const std::span<const BlobView> parts = ranks_->collect(own);
    if (ranks_->rank() != 0) return {};

    std::vector<Kernel::State> states;
    Runtime::RandomContext random(random_);
    std::vector<CandidateSlot> candidates;
    std::vector<SpikeRecord> log;
    std::vector<Event> events;
    const auto append = [](auto& all, const auto& part) {
        all.insert(all.end(), part.begin(), part.end());
    };
    NodeId neuron = 0;
    for (const BlobView part : parts) {
        BlobReader in(part);
        std::vector<Kernel::State> part_states;
        std::vector<CandidateSlot> part_candidates;
        std::vector<SpikeRecord> part_log;
        std::vector<Event> part_events;
        if (!in.readSequence(part_states) || !in.readSequence(streams) ||
            !in.readImages(part_states.size(), part_candidates) || !in.readSequence(part_log) ||
            !in.readSequence(part_events)) {
            throw std::logic_error("a part of a snapshot is incomplete");
        }
        append(states, part_states);
        append(candidates, part_candidates);
        append(log, part_log);
        append(events, part_events);
        for (const std::uint64_t state : streams) {
            random.rawState(spontaneous_name, neuron);
            random.setState(random.family(spontaneous_name), neuron++, state);
        }
    }
    std::sort(log.begin(), log.end(), SpikeRecordLess());
    return assembleSnapshot(states, random, candidates, log, graph,
                            calendar_.snapshotOf(std::move(events)));
}

}  // namespace Lumenar::Core::Kelm
