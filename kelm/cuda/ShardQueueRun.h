#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/cuda/DeviceBlock.h"
#include "kelm/cuda/FanoutTable.h"
#include "kelm/cuda/LookaheadCudaTesting.h"
#include "kelm/cuda/ShardKernels.h"
#include "kelm/cuda/ShardQueue.h"
#include "kelm/cuda/TemporaryMemory.h"

// Part of the unit LookaheadCuda: the host's side of shard queues.

namespace Lumenar::Core::Kelm {

namespace {

/// One run of shard queues.
class ShardQueueRun {
public:
    ShardQueueRun(SynapseGraph& graph, std::uint64_t fanout, std::uint64_t source_events,
                  std::uint32_t shard_count, const Kernel::Neuron& neuron,
                  const Kernel::Firing& firing, ModelTime window_end, ModelTime horizon)
        : node_count_(graph.nodeCount()),
          fanout_(fanout),
          shard_count_(shard_count),
          arrivals_(requireSize(node_count_, fanout, source_events, shard_count)),
          model_(neuron, firing),
          window_end_(window_end),
          horizon_(horizon),
          counts_(shard_count, "alloc shard counts"),
          offsets_(shard_count, "alloc shard offsets"),
          local_cross_(2, "alloc local/cross counts"),
          csr_targets_(fanout * node_count_, "alloc CSR targets"),
          csr_values_(fanout * node_count_, "alloc CSR values"),
          events_(arrivals_, "alloc shard window events"),
          states_(node_count_, "alloc shard states"),
          random_(node_count_, "alloc shard RNG"),
          results_(node_count_, "alloc shard results"),
          processed_targets_(1, "alloc processed target count"),
          queue_(arrivals_, "alloc shard queues") {
        if (buildFanoutTable(graph, fanout, table_, [](const Synapse&) { return true; }) !=
            FanoutFault::none) {
            throw WindowEngineError(WindowEngineError::shard_fanout);
        }
        random_states_ = initialRandomStates(1, node_count_);
    }

    ShardQueueReport run() {
        uploadNetwork();
        const auto start = std::chrono::steady_clock::now();
        countArrivals();
        routeArrivals();
        processTargets();
        report_.seconds = secondsBetween(start, std::chrono::steady_clock::now());

        std::vector<ShardArrival> queue = queue_.download("download shard queues");
        std::vector<Kernel::WindowResult> results = results_.download("download shard results");
        report_.processed_targets =
            processed_targets_.download("download processed target count")[0];
#if defined(KELM_CUDA_TESTING)
        if (tamper_with_shard_queue) tamper_with_shard_queue(queue, results);
#endif
        requireCanonical(queue);
        requirePhysics(queue, results);
        requireRoutes(queue);
        release();

        report_.routed_events = arrivals_;
        report_.physics_identical = true;
        report_.shards = shard_count_;
        return report_;
    }

private:
    /// The number of arrivals. Throws WindowEngineError for dimensions that are refused.
    static std::uint64_t requireSize(std::uint64_t node_count, std::uint64_t fanout,
                                     std::uint64_t source_events, std::uint32_t shard_count) {
        if (node_count == 0 || fanout == 0 || source_events == 0 || shard_count == 0 ||
            shard_count > node_count) {
            throw WindowEngineError(WindowEngineError::shard_dimensions);
        }
        constexpr std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
        if (source_events > most / fanout) {
            throw WindowEngineError(WindowEngineError::shard_overflow);
        }
        // Blocks of a launch and events of a window are counted in 32 bits.
        const std::uint64_t arrivals = source_events * fanout;
        if (node_count > most / fanout || arrivals > std::numeric_limits<std::uint32_t>::max()) {
            throw WindowEngineError(WindowEngineError::shard_overflow);
        }
        return arrivals;
    }

    ShardNetwork network() const {
        return {node_count_, fanout_, shard_count_, csr_targets_.data(), csr_values_.data()};
    }

    const Kernel::NeuronTerms& terms() const { return model_; }

    std::uint32_t blocks() const { return Device::blocksFor(arrivals_, block_size); }

    void uploadNetwork() {
        csr_targets_.upload(table_.targets, "upload CSR targets");
        csr_values_.upload(table_.values, "upload CSR values");
        states_.clear("clear shard states");
        random_.upload(random_states_, "upload shard RNG");
        processed_targets_.clear("clear processed target count");
    }

    void countArrivals() {
        counts_.clear("clear shard counts");
        local_cross_.clear("clear local/cross counts");
        Device::launch<countShardFanout>(blocks(), block_size, network(), arrivals_, counts_.data(),
                                         local_cross_.data());
        checkCuda(Device::lastStatus(), "launch shard count");
        shard_sizes_ = counts_.download("download shard counts");
        const std::vector<std::uint64_t> local_cross =
            local_cross_.download("download local/cross counts");
        report_.local_events = local_cross[0];
        report_.cross_events = local_cross[1];
#if defined(KELM_CUDA_TESTING)
        if (tamper_with_shard_counts) tamper_with_shard_counts(shard_sizes_);
#endif
        std::uint64_t sum = 0;
        for (const std::uint64_t size : shard_sizes_) {
            shard_offsets_.push_back(sum);
            sum += size;
        }
        if (sum != arrivals_) throw WindowEngineError(WindowEngineError::shard_lost);
    }

    void routeArrivals() {
        offsets_.upload(shard_offsets_, "upload shard offsets");
        // From here on, counts_ holds the cursors of the segments.
        counts_.clear("clear shard cursors");
        // Unsigned: window_end_ may be the smallest time.
        const auto arrival_time =
            static_cast<ModelTime>(static_cast<std::uint64_t>(window_end_) - 1);
        Device::launch<emitShardFanout>(blocks(), block_size, network(), arrivals_, arrival_time,
                                        offsets_.data(), counts_.data(), queue_.data());
        checkCuda(Device::lastStatus(), "launch shard fan-out");
        // Shards are ascending ranges of targets, so one sort orders every segment.
        Device::sort(queue_.data(), arrivals_, ShardArrivalLess(), temporary_memory_);
    }

    void processTargets() {
        Device::launch<convertShardEvents>(blocks(), block_size, queue_.data(), arrivals_,
                                           events_.data());
        checkCuda(Device::lastStatus(), "launch shard event conversion");
        const ShardTargets targets{queue_.data(),
                                   events_.data(),
                                   arrivals_,
                                   states_.data(),
                                   random_.data(),
                                   results_.data(),
                                   processed_targets_.data(),
                                   window_end_,
                                   horizon_};
        Device::launch<processShardTargets>(blocks(), block_size, targets, model_.neuron,
                                            model_.firing, terms());
        checkCuda(Device::lastStatus(), "launch shard target processing");
        checkCuda(Device::synchronise(), "synchronise shard fan-out");
    }

    void requireCanonical(const std::vector<ShardArrival>& queue) const {
        if (!std::is_sorted(queue.begin(), queue.end(), ShardArrivalLess())) {
            throw WindowEngineError(WindowEngineError::shard_order);
        }
    }

    static bool samePhysics(const Kernel::WindowResult& a, const Kernel::WindowResult& b) {
        return a.state.membrane == b.state.membrane && a.state.adaptation == b.state.adaptation &&
               a.state.last_update == b.state.last_update &&
               a.state.refractory_until == b.state.refractory_until &&
               a.state.hazard_bound == b.state.hazard_bound && a.rng == b.rng &&
               a.spike_count == b.spike_count && a.next_candidate == b.next_candidate &&
               a.next_bound == b.next_bound && a.spike_overflow == b.spike_overflow &&
               a.bound_violation == b.bound_violation &&
               std::equal(a.spike_times, a.spike_times + a.spike_count, b.spike_times);
    }

    void requirePhysics(const std::vector<ShardArrival>& queue,
                        const std::vector<Kernel::WindowResult>& results) const {
        std::vector<Kernel::WindowEvent> events(queue.size());
        std::transform(queue.begin(), queue.end(), events.begin(), windowEventOf);
        for (std::size_t first = 0; first < queue.size();) {
            const NodeId target = queue[first].target;
            std::size_t end = first;
            while (end < queue.size() && queue[end].target == target) ++end;
            // The target is an index below.
            if (target >= node_count_) throw WindowEngineError(WindowEngineError::shard_routing);
            const Kernel::WindowResult expected = Kernel::processWindow(
                Kernel::State(), random_states_[target], model_, events.data() + first,
                static_cast<std::uint32_t>(end - first), window_end_, horizon_, PhaseDrive(),
                no_time, 0.0);
            if (!samePhysics(expected, results[target])) {
                throw WindowEngineError(WindowEngineError::shard_physics);
            }
            first = end;
        }
    }

    void requireRoutes(const std::vector<ShardArrival>& queue) const {
        for (std::uint32_t shard = 0; shard < shard_count_; ++shard) {
            const std::uint64_t first = shard_offsets_[shard];
            for (std::uint64_t k = first; k < first + shard_sizes_[shard]; ++k) {
                const ShardArrival& arrival = queue[k];
                const ShardRoute route = shardRoute(arrival.sequence, node_count_, fanout_);
                if (arrival.source != route.source || arrival.edge != route.edge ||
                    arrival.target != table_.targets[route.edge] ||
                    shardOf(node_count_, shard_count_, arrival.target) != shard) {
                    throw WindowEngineError(WindowEngineError::shard_routing);
                }
            }
        }
    }

    /// Releases all memory, in the reverse order of allocation.
    void release() {
        temporary_memory_.release();
        queue_.release("free shard queues");
        processed_targets_.release("free processed target count");
        results_.release("free shard results");
        random_.release("free shard RNG");
        states_.release("free shard states");
        events_.release("free shard window events");
        csr_values_.release("free CSR values");
        csr_targets_.release("free CSR targets");
        local_cross_.release("free local/cross counts");
        offsets_.release("free shard offsets");
        counts_.release("free shard counts");
    }

    std::uint64_t node_count_;
    std::uint64_t fanout_;
    std::uint32_t shard_count_;
    std::uint64_t arrivals_;
    Kernel::NeuronModel model_;
    ModelTime window_end_;
    ModelTime horizon_;
    FanoutTable table_;
    std::vector<std::uint64_t> random_states_;  ///< shape (neurons)
    std::vector<std::uint64_t> shard_sizes_;    ///< shape (shards)
    std::vector<std::uint64_t> shard_offsets_;  ///< shape (shards)
    ShardQueueReport report_;

    DeviceBlock<std::uint64_t> counts_;  ///< arrivals of each shard, later its cursor
    DeviceBlock<std::uint64_t> offsets_;
    DeviceBlock<std::uint64_t> local_cross_;
    DeviceBlock<std::uint64_t> csr_targets_;
    DeviceBlock<double> csr_values_;
    DeviceBlock<Kernel::WindowEvent> events_;
    DeviceBlock<Kernel::State> states_;
    DeviceBlock<std::uint64_t> random_;
    DeviceBlock<Kernel::WindowResult> results_;
    DeviceBlock<std::uint64_t> processed_targets_;
    DeviceBlock<ShardArrival> queue_;
    TemporaryMemory temporary_memory_;
};

}  // namespace

}  // namespace Lumenar::Core::Kelm
