#pragma once

#include <cstdint>
#include <cstring>
#include <exception>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kelm/core/IRankGroup.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/engine/WindowEvents.h"

// What a run of WindowEngine keeps from window to window. For the engine's own units.

namespace Lumenar::Core::Kelm {

/// The family of the neurons' random streams.
inline constexpr const char* spontaneous_name = "spontaneous";
/// How many items ahead the synapses of a neuron that has fired are prefetched.
inline constexpr std::size_t commit_distance = 8;

inline std::logic_error notOverRanks(const char* what) {
    return std::logic_error(std::string(what) + " cannot be spread over several ranks yet");
}

/// Working storage of a shard in one run, cleared but not released from window to window.
struct WindowEngine::Shard {
    Shard(std::size_t place, NodeId first_neuron, NodeId end_neuron)
        : index(place),
          events(end_neuron - first_neuron, first_neuron),
          begin(first_neuron),
          end(end_neuron) {}

    /// A spike whose deliveries are not posted yet.
    struct Spike {
        ModelTime time;
        NodeId neuron;
        std::uint64_t id;     ///< of its first delivery, counted from the shard's first id
        ModelTime run_delay;  ///< as WindowCalendar::deliverTo takes it
    };
    /// A committed neuron as it was before the window. The first shard of the network has none.
    struct Committed {
        NodeId neuron;
        std::uint64_t id;  ///< of its new candidate, counted from the shard's first id
        Kernel::State state;
        std::uint64_t rng;
        CandidateSlot slot;
    };

    std::size_t index;
    WindowEvents events;
    NodeId begin;            ///< its first neuron
    NodeId end;              ///< behind its last neuron
    std::size_t built = 0;   ///< events whose items have been built
    NodeId next_target = 0;  ///< of placed events: no neuron from here on has an item yet

    // The items of the window, or of the current part. The vectors only grow: of `work` and
    // `results`, the first item_count entries are in use.
    std::vector<WindowWork> work;  ///< ascending by neuron
    std::vector<Kernel::WindowResult> results;
    std::size_t item_count = 0;
    std::span<const Kernel::WindowEvent> item_events;  ///< item by item
    std::vector<Kernel::WindowEvent> copied_events;    ///< item_events that are not placed
    bool hook_had_items = false;  ///< a prepare hook may have changed items of this run

    // Of several shards: what the window has committed, and what is still to be posted.
    std::vector<Spike> spikes;
    std::vector<Committed> committed;
    std::uint64_t id_count = 0;
    std::uint64_t first_id = 0;
    WindowProfile counts;
    std::size_t next_given = 0;  ///< of Window::given, the first one not committed
    std::exception_ptr failure;
};

/// Spikes whose deliveries are to be posted.
struct WindowEngine::SpikePosts {
    std::span<const Shard::Spike> spikes;
    std::uint64_t first_id;  ///< to which the ids of the spikes are added
};

/// Working storage of one run, cleared but not released from window to window.
struct WindowEngine::Window {
    ModelTime start = 0;
    ModelTime end = 0;
    std::vector<Shard> shards;
    std::size_t event_count = 0;  ///< without candidates until the events are taken
    bool taken = false;           ///< the events lie in the shards

    // The items of the window, or of the current part. Empty for parts of several shards.
    std::span<WindowWork> work;  ///< ascending by neuron
    std::span<Kernel::WindowResult> results;
    std::span<const Kernel::WindowEvent> item_events;
    // Where they lie for several shards.
    std::vector<WindowWork> gathered_work;
    std::vector<Kernel::WindowResult> gathered_results;
    std::vector<Kernel::WindowEvent> gathered_events;

    std::vector<SpikePosts> posts;  ///< of the window, in the order of ids
    // Of several ranks.
    Blob message;
    std::vector<std::vector<Shard::Spike>> received;  ///< by rank
    std::exception_ptr remote_failure;                ///< of the first rank that has failed

    std::vector<SpikeRecord> given;   ///< of the window, by neuron, then time
    std::size_t committed_given = 0;  ///< of them

    std::size_t log_mark = 0;  ///< length of the log before this window
    std::vector<SpikeRecord> new_spikes;
    std::vector<Kernel::State> shadow_states;  ///< of an observation, shape (neurons)
    std::vector<ModelTime> candidate_times;    ///< of an observation, shape (neurons)
};

/// Runs task(s) for each shard, side by side if the window is large. Throws what the first shard
/// in the order of neurons throws.
template <class Task>
void WindowEngine::forShards(Window& window, Task task, bool side_by_side) {
    if (window.shards.size() == 1 && ranks_ == nullptr) return task(0);
    const auto guarded = [&](std::size_t s) {
        try {
            task(s);
        } catch (...) {
            window.shards[s].failure = std::current_exception();
        }
    };
    for (Shard& shard : window.shards) shard.failure = nullptr;
    if (side_by_side && team_ != nullptr && window.event_count >= team_->threshold()) {
        team_->run(window.shards.size(), guarded);
    } else {
        for (std::size_t s = 0; s < window.shards.size(); ++s) guarded(s);
    }
    for (const Shard& shard : window.shards) {
        if (shard.failure) std::rethrow_exception(shard.failure);
    }
}

/// The values that the parts hold, one part a rank.
template <class Values>
Values joined(std::span<const BlobView> parts) {
    constexpr std::size_t bytes = sizeof(typename Values::value_type);
    Values all;
    for (std::uint32_t rank = 0; rank < parts.size(); ++rank) {
        const BlobView part = parts[rank];
        if (part.size() % bytes != 0) IRankGroup::refuseCalls(rank);
        const std::size_t place = all.size();
        all.resize(place + part.size() / bytes);
        if (!part.empty()) std::memcpy(all.data() + place, part.data(), part.size());
    }
    return all;
}

/// Replaces the values of this rank by those of all, by rank.
template <class Values>
void WindowEngine::gatherEverywhere(Values& values) {
    Blob own;
    appendBytes(own, values.data(), values.size() * sizeof values[0]);
    values = joined<Values>(ranks_->share(own));
}

}  // namespace Lumenar::Core::Kelm
