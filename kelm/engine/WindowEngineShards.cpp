#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

#include "kelm/core/IRankGroup.h"
#include "kelm/engine/RunState.h"
#include "kelm/engine/WindowEngine.h"

// What WindowEngine does where a window has several shards, or the network several ranks.

namespace Lumenar::Core::Kelm {

namespace {

/// How many windows choose the number of shards.
constexpr std::size_t load_windows = 64;

}  // namespace

/// The number of shards for the first window of a run.
std::size_t WindowEngine::firstShardCount() const {
    if (team_ == nullptr) return 1;
    const std::size_t most = team_->shardsFor(states_.size());
    return team_->threshold() <= 1 ? most : std::min(most, calendar_.shardCount());
}

/// The number of shards after a window. In small windows several shards cost time and gain none. A
/// change takes a pass over neurons and synapses, so the events since the last one must outweigh
/// it; the first division comes at once.
std::size_t WindowEngine::nextShardCount(std::size_t events) {
    ShardLoad& load = shard_load_;
    const std::size_t present = calendar_.shardCount();
    load.events_since_change += events;
    load.events += events;
    if (++load.windows < (load.was_divided ? load_windows : 1)) return present;
    const std::size_t mean = load.events / load.windows;
    load.events = load.windows = 0;
    const std::uint64_t change = (graph_.edgeCount() + states_.size()) / 4;
    if (load.was_divided && load.events_since_change < change) return present;
    std::size_t wanted = present;
    if (mean >= team_->threshold()) wanted = team_->shardsFor(states_.size());
    if (mean < team_->threshold() / 2) wanted = 1;
    if (wanted != present) load = {.was_divided = true};
    return wanted;
}

void WindowEngine::setShards(Window& window, std::size_t count) {
    calendar_.setShards(count);
    if (window.shards.size() == calendar_.shardCount()) return;
    window.shards.clear();
    for (std::size_t s = 0; s < calendar_.shardCount(); ++s) {
        window.shards.emplace_back(s, calendar_.shardBegin(s), calendar_.shardEnd(s));
    }
}

/// Whether the shards may commit side by side. Prepares the graph for it.
bool WindowEngine::canCommitApart(Window& window) {
    if (ranks_ != nullptr) requireCountedShare();
    if ((team_ == nullptr && ranks_ == nullptr) || !calendar_.canPostApart(window.end) ||
        !random_.canAdvanceApart(spontaneous_, states_.size())) {
        return false;
    }
    calendar_.divideGraph();
    return true;
}

/// The same for several shards. Parts need no hook and no observer, so each shard computes and
/// commits its own. A whole window is put together first, because the hook sees all of its items at
/// once; the hook may also change the graph.
void WindowEngine::computeShards(Window& window, IWindowBackend& backend, bool whole) {
    for (Shard& shard : window.shards) {
        shard.spikes.clear();
        shard.committed.clear();
        shard.id_count = 0;
        shard.counts = {};
        const auto given = std::partition_point(
            window.given.begin(), window.given.end(),
            [&](const SpikeRecord& spike) { return spike.neuron < shard.begin; });
        shard.next_given = static_cast<std::size_t>(given - window.given.begin());
    }
    if (!whole && canCommitApart(window)) {
        IWindowBackend& parts = team_ == nullptr ? backend : team_->backend();
        const std::size_t part_items = std::max<std::size_t>(parts.partItems(), 1);
        return commitShards(window, [&](std::size_t s) {
            Shard& shard = window.shards[s];
            if (!window.taken) takeEvents(shard, s);
            while (shard.built < shard.events.size()) {
                buildWork(shard, window.start, part_items);
                const std::span<WindowWork> work(shard.work.data(), shard.item_count);
                const std::span<Kernel::WindowResult> results(shard.results.data(),
                                                              shard.item_count);
                parts.processWindow(work, shard.item_events, window.end, horizon_, uniformNeuron(),
                                    uniformFiring(), results);
                commitApart(window, s, work, results);
            }
        });
    }

    if (!window.taken) {
        forShards(window, [&](std::size_t s) { takeEvents(window.shards[s], s); });
        countEvents(window);
    }
    // The first read of a stream that does not lie in the array makes it.
    forShards(
        window,
        [&](std::size_t s) {
            buildWork(window.shards[s], window.start, IWindowBackend::whole_window);
        },
        random_.canAdvanceApart(spontaneous_, states_.size()));
    gatherItems(window);
    if (prepare_hook_ != nullptr) {
        prepare_hook_->prepare(window.start, window.end, window.work, graph_);
    }
    backend.processWindow(window.work, window.item_events, window.end, horizon_, uniformNeuron(),
                          uniformFiring(), window.results);
    if (!canCommitApart(window)) {
        if (ranks_ != nullptr)
            throw notOverRanks(
                "a window with recorded streams, a replaced graph or deliveries near the end of "
                "time");
        ++profile_.windows;
        profile_.deliveries += window.event_count;
        commitItems(window);
        return commitGivenSpikes(window, graph_.nodeCount());
    }
    commitShards(window, [&](std::size_t s) {
        std::size_t first = 0;
        for (std::size_t other = 0; other < s; ++other) first += window.shards[other].item_count;
        const std::size_t count = window.shards[s].item_count;
        commitApart(window, s, window.work.subspan(first, count),
                    window.results.subspan(first, count));
    });
}

/// Calls commit(s) for each shard, then finishes the window. If a shard fails, what lies before the
/// failure in the order of neurons is committed, as by one shard.
template <class Commit>
void WindowEngine::commitShards(Window& window, Commit commit) {
    try {
        forShards(window, [&](std::size_t s) {
            commit(s);
            commitGivenApart(window, s, window.shards[s].end);
        });
    } catch (...) {
        finishShards(window);
        throw;
    }
    finishShards(window);
}

/// Puts the items of all shards and their events one behind the other.
void WindowEngine::gatherItems(Window& window) {
    std::size_t items = 0;
    std::size_t events = 0;
    for (const Shard& shard : window.shards) {
        items += shard.item_count;
        events += shard.item_events.size();
    }
    if (window.gathered_work.size() < items) {
        window.gathered_work.resize(2 * items);
        window.gathered_results.resize(2 * items);
    }
    if (window.gathered_events.size() < events) window.gathered_events.resize(2 * events);
    forShards(window, [&](std::size_t s) {
        std::size_t item = 0;
        std::size_t event = 0;
        for (std::size_t before = 0; before < s; ++before) {
            item += window.shards[before].item_count;
            event += window.shards[before].item_events.size();
        }
        const Shard& shard = window.shards[s];
        std::copy(shard.item_events.begin(), shard.item_events.end(),
                  window.gathered_events.begin() + static_cast<std::ptrdiff_t>(event));
        for (std::size_t i = 0; i < shard.item_count; ++i) {
            WindowWork& work = window.gathered_work[item + i] = shard.work[i];
            work.first_event += static_cast<std::uint32_t>(event);
        }
    });
    window.work = {window.gathered_work.data(), items};
    window.results = {window.gathered_results.data(), items};
    window.item_events = {window.gathered_events.data(), events};
}

/// Commits the results of a shard, but for its deliveries and the ids of its candidates.
void WindowEngine::commitApart(Window& window, std::size_t s, std::span<const WindowWork> work,
                               std::span<const Kernel::WindowResult> results) {
    Shard& shard = window.shards[s];
    const auto prefetch_fired = [&](std::size_t i) {
        if (i < work.size() && results[i].spike_count != 0) {
            calendar_.prefetchTransmission(work[i].neuron);
        }
    };
    for (std::size_t i = 0; i < commit_distance; ++i) prefetch_fired(i);
    Shard::Committed before{};
    for (std::size_t i = 0; i < work.size(); ++i) {
        prefetch_fired(i + commit_distance);
        const NodeId n = work[i].neuron;
        const Kernel::WindowResult& result = results[i];
        if (shard.next_given < window.given.size()) commitGivenApart(window, s, n);
        if (mayBeUndone(s)) {
            before = {n, 0, stateOf(n), random_.rawState(spontaneous_, n), calendar_.candidate(n)};
        }
        applyResult(n, result, shard.counts);
        for (std::int32_t k = 0; k < result.spike_count; ++k) {
            addSpike(shard, {result.spike_times[k], n});
        }
        calendar_.scheduleIn(s, n, result.next_candidate, result.next_bound);
        if (mayBeUndone(s)) {
            before.id = shard.id_count;
            shard.committed.push_back(before);
        } else if (result.next_candidate >= 0) {
            // The ids of the first shard are known, and nothing before it can fail.
            calendar_.setCandidateId(n, calendar_.nextId() + shard.id_count);
        }
        shard.id_count += result.next_candidate < 0 ? 0 : 1;
    }
}

void WindowEngine::addSpike(Shard& shard, const SpikeRecord& spike) {
    const SynapseGraph::Transmission transmission = calendar_.transmissionOf(spike.neuron);
    shard.spikes.push_back({spike.time, spike.neuron, shard.id_count, transmission.delay});
    shard.id_count += transmission.count;
}

/// Commits the given spikes of a shard whose neurons lie before `end`.
void WindowEngine::commitGivenApart(Window& window, std::size_t s, NodeId end) {
    Shard& shard = window.shards[s];
    while (shard.next_given < window.given.size()) {
        const SpikeRecord& spike = window.given[shard.next_given];
        if (spike.neuron >= end) return;
        addSpike(shard, spike);
        ++shard.next_given;
    }
}

/// Posts what commitApart has left, up to the first shard that has failed, and undoes the commits
/// of the shards behind it.
void WindowEngine::finishShards(Window& window) {
    countEvents(window);
    std::vector<Shard>& shards = window.shards;
    std::size_t end = 0;  // behind the last shard that is committed
    std::uint64_t id_count = 0;
    WindowProfile counts;
    counts.windows = 1;
    counts.deliveries = window.event_count;
    bool failed = false;
    for (; end < shards.size() && !failed; ++end) {
        failed = shards[end].failure != nullptr;
        id_count += shards[end].id_count;
        counts.updates += shards[end].counts.updates;
        counts.candidates += shards[end].counts.candidates;
        counts.accepted += shards[end].counts.accepted;
    }
    std::uint64_t id = calendar_.nextId();
    std::uint64_t next_id = id + id_count;
    window.posts.clear();
    const auto undo = [&](std::size_t first) {
        for (std::size_t s = first; s < shards.size(); ++s) {
            for (const Shard::Committed& before : shards[s].committed) {
                stateOf(before.neuron) = before.state;
                random_.setState(spontaneous_, before.neuron, before.rng);
                calendar_.unschedule(s, before.neuron, before.slot);
            }
        }
    };
    if (ranks_ != nullptr) {
        try {
            const Exchanged all = exchange(window, end, id_count, counts);
            if (all.lower_rank_failed) end = 0;
            id = all.first_id;
            next_id = all.next_id;
        } catch (...) {
            // Another rank has failed before its items, and no rank commits the window.
            undo(0);
            throw;
        }
    }
    undo(end);
    profile_.windows += counts.windows;
    profile_.deliveries += counts.deliveries;
    profile_.updates += counts.updates;
    profile_.candidates += counts.candidates;
    profile_.accepted += counts.accepted;
    for (std::size_t s = 0; s < end; ++s) {
        Shard& shard = shards[s];
        shard.first_id = id;
        id += shard.id_count;
        for (const Shard::Spike& spike : shard.spikes) log_.push_back({spike.time, spike.neuron});
        if (!shard.spikes.empty()) log_sorted_ = false;
        if (ranks_ == nullptr) window.posts.push_back({shard.spikes, shard.first_id});
    }
    forShards(window, [&](std::size_t s) {
        if (s < end) {
            for (const Shard::Committed& entry : shards[s].committed) {
                if (calendar_.candidate(entry.neuron).time < 0) continue;
                calendar_.setCandidateId(entry.neuron, shards[s].first_id + entry.id);
            }
        }
        for (const SpikePosts& posts : window.posts) {
            const std::size_t count = posts.spikes.size();
            for (std::size_t i = 0; i < count; ++i) {
                if (i + 2 * commit_distance < count) {
                    calendar_.prefetchDeliveryPlace(posts.spikes[i + 2 * commit_distance].neuron);
                }
                if (i + commit_distance < count) {
                    calendar_.prefetchDelivery(posts.spikes[i + commit_distance].neuron);
                }
                const Shard::Spike& spike = posts.spikes[i];
                calendar_.deliverTo(s, spike.neuron, spike.time, posts.first_id + spike.id,
                                    spike.run_delay);
            }
        }
    });
    calendar_.setNextId(next_id);
    if (window.remote_failure != nullptr) std::rethrow_exception(window.remote_failure);
}

}  // namespace Lumenar::Core::Kelm
