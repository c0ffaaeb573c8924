// The one source unit of the device side: kernels and the host functions that drive them. nvcc
// compiles it through LookaheadCuda.cu for the device; a host compiler compiles this same text
// over a device layer of functions.

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kelm/core/Digest.h"
#include "kelm/core/Failures.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/cuda/DeviceLayer.h"
#include "kelm/cuda/DeviceRecords.h"
#include "kelm/cuda/LookaheadCudaTesting.h"
#include "kelm/cuda/ResidentArena.h"
#include "kelm/cuda/ResidentKernels.h"
#include "kelm/cuda/ResidentRecurrence.h"
#include "kelm/cuda/ShardKernels.h"
#include "kelm/cuda/ShardLayout.h"
#include "kelm/cuda/ShardQueue.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/network/SynapseGraph.h"

namespace Lumenar::Core::Kelm {

void checkCuda(Device::Status status, const char* what) {
    if (status == 0) return;
    throw WindowEngineError(WindowEngineError::device(what, Device::statusText(status)));
}

namespace {

constexpr std::uint32_t window_block_size = 128;
constexpr std::uint64_t small_window_items = 32;
constexpr std::uint32_t block_size = 256;

/// Networks below this size stay on the ordinary loop.
constexpr std::uint64_t min_resident_neurons = 32768;

double secondsBetween(std::chrono::steady_clock::time_point start,
                      std::chrono::steady_clock::time_point end) {
    const std::int64_t elapsed_ns =
        std::chrono::duration_cast<std::chrono::nanoseconds>(end - start).count();
    return static_cast<double>(elapsed_ns) / 1e9;
}

/// One thread an item. The parameters that count are the item's own, as on the CPU.
KELM_KERNEL windowKernel(const WindowWork* work, std::int32_t count,
                         const Kernel::WindowEvent* events, Kernel::WindowResult* results,
                         ModelTime window_end, ModelTime horizon, Kernel::Neuron, Kernel::Firing) {
    const auto i = static_cast<std::int32_t>(Device::threadIndex());
    if (i >= count) return;
    results[i] = Kernel::processWindow(work[i], events, window_end, horizon);
}

/// Releases a block and forgets it first: a release that fails must not be tried again.
template <class T>
void releaseChecked(T*& block, const char* what) {
    if (block == nullptr) return;
    checkCuda(Device::releaseBlock(std::exchange(block, nullptr)), what);
}

template <class T>
void releaseQuietly(T* block) {
    if (block != nullptr) static_cast<void>(Device::releaseBlock(block));
}

}  // namespace

bool cudaDeviceUsable() {
    int count = 0;
    return Device::deviceCount(count) == 0 && count > 0;
}

std::string cudaDeviceName() {
    int device = 0;
    std::string name;
    if (Device::currentDevice(device) != 0 || Device::deviceName(device, name) != 0) {
        return "unknown";
    }
    return name;
}

/// Device memory that lives longer than one call. Capacities count elements.
struct CudaWindowBackend::DeviceBuffers {
    WindowWork* work = nullptr;
    Kernel::WindowEvent* events = nullptr;
    Kernel::WindowResult* results = nullptr;
    std::uint64_t work_capacity = 0;  ///< of work and of results
    std::uint64_t event_capacity = 0;
    std::uint64_t window_count = 0;
    std::uint64_t small_window_count = 0;
    void* resident_arena = nullptr;
    std::uint64_t resident_arena_bytes = 0;

    DeviceBuffers() = default;
    DeviceBuffers(const DeviceBuffers&) = delete;
    DeviceBuffers& operator=(const DeviceBuffers&) = delete;
    ~DeviceBuffers() {
        releaseQuietly(work);
        releaseQuietly(events);
        releaseQuietly(results);
        releaseQuietly(resident_arena);
    }

    void reserveItems(std::uint64_t count) {
        if (count <= work_capacity) return;
        // Until both stand anew there is room for nothing.
        work_capacity = 0;
        releaseChecked(work, "free work");
        releaseChecked(results, "free results");
        checkCuda(Device::allocate(work, count), "alloc work");
        checkCuda(Device::allocate(results, count), "alloc results");
        work_capacity = count;
    }

    void reserveEvents(std::uint64_t count) {
        if (count <= event_capacity) return;
        event_capacity = 0;
        releaseChecked(events, "free events");
        checkCuda(Device::allocate(events, count), "alloc events");
        event_capacity = count;
    }

    void* ensureResidentArena(std::uint64_t bytes) {
        if (bytes <= resident_arena_bytes) return resident_arena;
        resident_arena_bytes = 0;
        releaseChecked(resident_arena, "free resident arena");
        checkCuda(Device::allocateBytes(resident_arena, bytes), "alloc resident arena");
        resident_arena_bytes = bytes;
        return resident_arena;
    }
};

/// The resident path's way to the memory of a backend.
struct ResidentAccess {
    static std::byte* arena(CudaWindowBackend& backend, std::uint64_t bytes) {
        return static_cast<std::byte*>(backend.buffers_->ensureResidentArena(bytes));
    }
};

CudaWindowBackend::CudaWindowBackend() : buffers_(std::make_unique<DeviceBuffers>()) {
    if (!cudaDeviceUsable()) throw WindowEngineError(WindowEngineError::no_device);
}

CudaWindowBackend::~CudaWindowBackend() = default;

void CudaWindowBackend::processWindow(const std::span<const WindowWork>& work,
                                      const std::span<const Kernel::WindowEvent>& events,
                                      ModelTime window_end, ModelTime horizon,
                                      const Kernel::Neuron& neuron, const Kernel::Firing& firing,
                                      const std::span<Kernel::WindowResult>& results) {
    if (work.empty()) return;
    if (work.size() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
        throw WindowEngineError(WindowEngineError::window_too_large);
    }
    DeviceBuffers& buffers = *buffers_;
    ++buffers.window_count;
    if (work.size() < small_window_items) ++buffers.small_window_count;

    buffers.reserveItems(work.size());
    // The kernel gets a valid pointer also in a window without events.
    buffers.reserveEvents(events.empty() ? 1 : events.size());
    checkCuda(Device::upload(buffers.work, work.data(), work.size_bytes()), "upload work");
    if (!events.empty()) {
        checkCuda(Device::upload(buffers.events, events.data(), events.size_bytes()),
                  "upload events");
    }
    Device::launch<windowKernel>(Device::blocksFor(work.size(), window_block_size),
                                 window_block_size, buffers.work,
                                 static_cast<std::int32_t>(work.size()), buffers.events,
                                 buffers.results, window_end, horizon, neuron, firing);
    checkCuda(Device::lastStatus(), "launch");
    checkCuda(Device::synchronise(), "synchronise");
    checkCuda(Device::download(results.data(), buffers.results,
                               work.size() * sizeof(Kernel::WindowResult)),
              "download results");
}

bool CudaWindowBackend::tryResidentRun(WindowEngine& engine) {
    return tryResidentRunFrom(*this, engine, min_resident_neurons);
}

void CudaWindowBackend::prepareResident(const SynapseGraph& graph, std::uint64_t fanout) {
    const std::uint64_t node_count = graph.nodeCount();
    if (node_count == 0 || fanout == 0) {
        throw WindowEngineError(WindowEngineError::resident_dimensions);
    }
    const std::optional<ResidentArena> arena = ResidentArena::of(node_count, fanout);
    if (!arena) throw WindowEngineError(WindowEngineError::resident_dimensions);
    buffers_->ensureResidentArena(arena->bytes);
}

std::uint64_t CudaWindowBackend::windowCount() const { return buffers_->window_count; }

std::uint64_t CudaWindowBackend::smallWindowCount() const { return buffers_->small_window_count; }

namespace {

void requireShards(std::uint64_t node_count, std::uint32_t shard_count) {
    if (node_count == 0 || shard_count == 0 || shard_count > node_count) {
        throw InvalidShardLayout(InvalidShardLayout::shard_count);
    }
}

}  // namespace

NodeId shardBegin(std::uint64_t node_count, std::uint32_t shard_count, std::uint32_t shard) {
    requireShards(node_count, shard_count);
    return Kernel::shardBegin(node_count, shard_count, shard);
}

NodeId shardEnd(std::uint64_t node_count, std::uint32_t shard_count, std::uint32_t shard) {
    requireShards(node_count, shard_count);
    return Kernel::shardEnd(node_count, shard_count, shard);
}

std::uint32_t shardOf(std::uint64_t node_count, std::uint32_t shard_count, NodeId node) {
    requireShards(node_count, shard_count);
    if (node >= node_count) throw InvalidShardLayout(InvalidShardLayout::node);
    return Kernel::shardOf(node_count, shard_count, node);
}

namespace {

void checkShardLayout(std::uint64_t node_count, std::uint32_t shard_count) {
    NodeId expected = 0;
    for (std::uint32_t shard = 0; shard < shard_count; ++shard) {
        const NodeId begin = shardBegin(node_count, shard_count, shard);
        const NodeId end = shardEnd(node_count, shard_count, shard);
        if (begin != expected || end <= begin) {
            throw std::runtime_error("CUDA shard ranges are not contiguous");
        }
        for (NodeId node = begin; node < end; ++node) {
            if (shardOf(node_count, shard_count, node) != shard) {
                throw std::runtime_error("CUDA shard routing disagrees with range");
            }
        }
        expected = end;
    }
    if (expected != node_count) {
        throw std::runtime_error("CUDA shard layout does not cover the network");
    }
}

}  // namespace

void checkShardLayouts() {
    for (const std::uint64_t node_count : {1U, 7U, 100U, 100003U}) {
        for (const std::uint32_t shard_count : {1U, 2U, 7U, 32U}) {
            if (shard_count <= node_count) checkShardLayout(node_count, shard_count);
        }
    }
}

namespace {

/// The outgoing synapses of a network in a form of fixed width: entry source * fanout + k describes
/// the k-th of a source, in EdgeId order.
struct FanoutTable {
    std::vector<std::uint64_t> targets;
    std::vector<double> values;  ///< as the graph delivers them
};

/// What keeps a network from having a fan-out table.
enum class FanoutFault { none, fanout, edge };

/// Fills `table`, up to the first neuron of another fan-out or the first synapse that `accepts`
/// refuses.
template <class Accepts>
FanoutFault buildFanoutTable(SynapseGraph& graph, std::uint64_t fanout, FanoutTable& table,
                             Accepts accepts) {
    for (NodeId node = 0; node < graph.nodeCount(); ++node) {
        const std::span<const EdgeId> edges = graph.outgoing(node);
        if (edges.size() != fanout) return FanoutFault::fanout;
        if (node == 0) {
            // The network holds as many synapses, if the rest is as this one.
            const std::uint64_t entries = std::min(graph.nodeCount() * fanout, graph.edgeCount());
            table.targets.reserve(entries);
            table.values.reserve(entries);
        }
        for (const EdgeId id : edges) {
            const Synapse& synapse = graph.edge(id);
            if (!accepts(synapse)) return FanoutFault::edge;
            table.targets.push_back(synapse.target);
            table.values.push_back(deliveredValue(synapse));
        }
    }
    return FanoutFault::none;
}

/// Builds the table of a network that runs whole on the device in windows of `window` ns.
FanoutFault buildResidentTable(SynapseGraph& graph, std::uint64_t fanout, ModelTime window,
                               FanoutTable& table) {
    return buildFanoutTable(graph, fanout, table, [&](const Synapse& synapse) {
        return synapse.enabled && graph.transmissionEnabled(synapse.inhibitory) &&
               synapse.delay == window;
    });
}

std::vector<std::uint64_t> initialRandomStates(std::uint64_t seed, std::uint64_t node_count) {
    std::vector<std::uint64_t> states(node_count);
    for (NodeId n = 0; n < node_count; ++n) states[n] = initialSpontaneousState(seed, n);
    return states;
}

/// A device block that lives for one call. Releasing it by hand reports a failure; a step that
/// throws releases it all the same.
template <class T>
class DeviceBlock {
public:
    DeviceBlock(std::uint64_t count, const char* what) : count_(count) {
        checkCuda(Device::allocate(block_, count), what);
    }
    DeviceBlock(const DeviceBlock&) = delete;
    DeviceBlock& operator=(const DeviceBlock&) = delete;
    ~DeviceBlock() { releaseQuietly(block_); }

    T* data() const { return block_; }
    void release(const char* what) { releaseChecked(block_, what); }
    void clear(const char* what) { checkCuda(Device::clear(block_, count_ * sizeof(T)), what); }
    void upload(const std::vector<T>& values, const char* what) {
        checkCuda(Device::upload(block_, values.data(), values.size() * sizeof(T)), what);
    }
    std::vector<T> download(const char* what) const {
        std::vector<T> values(count_);
        checkCuda(Device::download(values.data(), block_, count_ * sizeof(T)), what);
        return values;
    }

private:
    T* block_ = nullptr;
    std::uint64_t count_;
};

/// One run of shard queues.
class ShardQueueRun {
public:
    ShardQueueRun(SynapseGraph& graph, std::uint64_t fanout, std::uint64_t source_events,
                  std::uint32_t shard_count, const Kernel::Neuron& neuron,
                  const Kernel::Firing& firing, ModelTime window_end, ModelTime horizon)
        : node_count_(graph.nodeCount()),
          fanout_(fanout),
          source_events_(source_events),
          shard_count_(shard_count),
          arrivals_(requireSize(node_count_, fanout, source_events, shard_count)),
          neuron_(neuron),
          firing_(firing),
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
    /// The number of arrivals. Stands before the first allocation.
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
        // A launch covers them in blocks that 32 bits count, and one target's window holds them.
        const std::uint64_t arrivals = source_events * fanout;
        if (node_count > most / fanout || arrivals > std::numeric_limits<std::uint32_t>::max()) {
            throw WindowEngineError(WindowEngineError::shard_overflow);
        }
        return arrivals;
    }

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
        Device::launch<countShardFanout>(blocks(), block_size, node_count_, fanout_, source_events_,
                                         shard_count_, csr_targets_.data(), counts_.data(),
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
        // From here on the counts serve as the cursors of the segments.
        counts_.clear("clear shard cursors");
        Device::launch<emitShardFanout>(blocks(), block_size, node_count_, fanout_, source_events_,
                                        shard_count_, csr_targets_.data(), csr_values_.data(),
                                        window_end_ - 1, offsets_.data(), counts_.data(),
                                        queue_.data());
        checkCuda(Device::lastStatus(), "launch shard fan-out");
        // Shards are ascending ranges of targets, so one sort puts every segment in order.
        Device::sort(queue_.data(), arrivals_, ShardArrivalLess());
    }

    void processTargets() {
        Device::launch<convertShardEvents>(blocks(), block_size, queue_.data(), arrivals_,
                                           events_.data());
        checkCuda(Device::lastStatus(), "launch shard event conversion");
        Device::launch<processShardTargets>(blocks(), block_size, queue_.data(), events_.data(),
                                            arrivals_, states_.data(), random_.data(),
                                            results_.data(), processed_targets_.data(), window_end_,
                                            horizon_, neuron_, firing_);
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
            // A target that the network does not have is a fault of the route.
            if (target >= node_count_) throw WindowEngineError(WindowEngineError::shard_routing);
            const Kernel::WindowResult expected = Kernel::processWindow(
                Kernel::State(), random_states_[target], neuron_, firing_, events.data() + first,
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

    /// In the reverse order of allocation.
    void release() {
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
    std::uint64_t source_events_;
    std::uint32_t shard_count_;
    std::uint64_t arrivals_;
    Kernel::Neuron neuron_;
    Kernel::Firing firing_;
    ModelTime window_end_;
    ModelTime horizon_;
    FanoutTable table_;
    std::vector<std::uint64_t> random_states_;  ///< shape (neurons)
    std::vector<std::uint64_t> shard_sizes_;    ///< shape (shards)
    std::vector<std::uint64_t> shard_offsets_;  ///< shape (shards)
    ShardQueueReport report_;

    DeviceBlock<std::uint64_t> counts_;  ///< of the shards' arrivals, later their cursors
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
};

}  // namespace

ShardQueueReport runShardQueue(SynapseGraph& graph, std::uint64_t fanout,
                               std::uint64_t source_events, std::uint32_t shard_count,
                               const Kernel::Neuron& neuron, const Kernel::Firing& firing,
                               ModelTime window_end, ModelTime horizon) {
    return ShardQueueRun(graph, fanout, source_events, shard_count, neuron, firing, window_end,
                         horizon)
        .run();
}

namespace {

constexpr std::uint64_t max_resident_shards = 32;

/// A run that goes on so much longer without anything happening belongs to the ordinary loop, which
/// skips empty windows at no cost.
constexpr std::uint64_t quiet_steps = 65536;
constexpr std::uint64_t quiet_steps_per_busy = 16;

/// The sections of a resident arena as pointers.
struct ResidentSections {
    ResidentSections(const ResidentArena& arena, std::byte* base)
        : csr_targets(at<std::uint64_t>(base, arena.csr_targets)),
          csr_values(at<double>(base, arena.csr_values)),
          neurons{at<Kernel::State>(base, arena.device_states),
                  at<std::uint64_t>(base, arena.device_random),
                  at<ModelTime>(base, arena.pending_times), at<double>(base, arena.pending_rates)},
          results(at<Kernel::WindowResult>(base, arena.device_results)),
          fanout_counts(at<std::uint64_t>(base, arena.fanout_counts)),
          fanout_offsets(at<std::uint64_t>(base, arena.fanout_offsets)),
          target_counts(at<std::uint64_t>(base, arena.target_counts)),
          target_offsets(at<std::uint64_t>(base, arena.target_offsets)),
          target_cursors(at<std::uint64_t>(base, arena.target_cursors)),
          counters{at<std::uint64_t>(base, arena.total_spikes),
                   at<std::uint64_t>(base, arena.window_spikes),
                   at<std::uint64_t>(base, arena.metrics),
                   at<std::uint32_t>(base, arena.fire_overflow),
                   at<std::uint32_t>(base, arena.fire_overflow) + 1},
          fire_log(at<DeviceFire>(base, arena.fire_log)),
          window_events(at<Kernel::WindowEvent>(base, arena.window_events)),
          current_bucket(at<ShardArrival>(base, arena.first_bucket)),
          next_bucket(at<ShardArrival>(base, arena.second_bucket)) {}

    std::uint64_t* csr_targets;
    double* csr_values;
    ResidentNeurons neurons;
    Kernel::WindowResult* results;
    std::uint64_t* fanout_counts;
    std::uint64_t* fanout_offsets;
    std::uint64_t* target_counts;
    std::uint64_t* target_offsets;
    std::uint64_t* target_cursors;
    ResidentCounters counters;
    DeviceFire* fire_log;
    Kernel::WindowEvent* window_events;
    ShardArrival* current_bucket;
    ShardArrival* next_bucket;

private:
    template <class T>
    static T* at(std::byte* base, std::uint64_t offset) {
        return reinterpret_cast<T*>(base + offset);
    }
};

/// One whole run on the device.
class ResidentRecurrence {
public:
    /// The size of what a run needs. Throws WindowEngineError for dimensions that are refused.
    static ResidentArena requireArena(std::uint64_t node_count, std::uint64_t fanout,
                                      std::uint32_t shards, ModelTime window, ModelTime horizon) {
        if (node_count == 0 || fanout == 0 || shards == 0 || shards > node_count || window < 1 ||
            horizon < 1 || horizon > last_model_time - window) {
            throw WindowEngineError(WindowEngineError::recurrence_dimensions);
        }
        const std::optional<ResidentArena> arena = ResidentArena::of(node_count, fanout);
        if (!arena) throw WindowEngineError(WindowEngineError::recurrence_dimensions);
        return *arena;
    }

    /// Takes the arena and uploads the network. `start`: when the run was asked for.
    ResidentRecurrence(std::chrono::steady_clock::time_point start, const ResidentArena& arena,
                       CudaWindowBackend& backend, const FanoutTable& table,
                       std::uint64_t node_count, std::uint64_t fanout, const Kernel::Neuron& neuron,
                       const Kernel::Firing& firing, ModelTime window, ModelTime horizon,
                       std::uint64_t seed)
        : start_(start),
          node_count_(node_count),
          fanout_(fanout),
          neuron_(neuron),
          firing_(firing),
          window_(window),
          horizon_(horizon),
          arena_(arena),
          sections_(prepare(backend, table, seed)) {}

    /// `limit_quiet`: whether a run that is mostly quiet ends early, as if it did not fit.
    ResidentRun run(bool limit_quiet) {
        const auto loop_start = std::chrono::steady_clock::now();
        run_.setup_seconds = secondsBetween(start_, loop_start);
        runWindows(limit_quiet);
        checkCuda(Device::synchronise(), "synchronise resident recurrence");
        const auto loop_end = std::chrono::steady_clock::now();
        run_.core_seconds = secondsBetween(loop_start, loop_end);
        downloadLog();
        downloadNeurons();
        downloadProfile();
        downloadPending();
        run_.finalize_seconds = secondsBetween(loop_end, std::chrono::steady_clock::now());
        return std::move(run_);
    }

private:
    ResidentSections prepare(CudaWindowBackend& backend, const FanoutTable& table,
                             std::uint64_t seed) const {
        const std::vector<std::uint64_t> random = initialRandomStates(seed, node_count_);
        const ResidentSections sections(arena_, ResidentAccess::arena(backend, arena_.bytes));
        checkCuda(Device::upload(sections.csr_targets, table.targets.data(),
                                 table.targets.size() * sizeof(std::uint64_t)),
                  "upload resident targets");
        checkCuda(Device::upload(sections.csr_values, table.values.data(),
                                 table.values.size() * sizeof(double)),
                  "upload resident values");
        checkCuda(Device::upload(sections.neurons.random, random.data(),
                                 random.size() * sizeof(std::uint64_t)),
                  "upload resident RNG");
        checkCuda(Device::clear(sections.counters.total_spikes, 8), "clear resident spikes");
        checkCuda(Device::clear(sections.counters.fire_overflow, 8),
                  "clear resident fire overflow");
        checkCuda(Device::clear(sections.counters.metrics, 32), "clear resident metrics");
        Device::launch<initializeResidentNeurons>(neuronBlocks(), block_size, node_count_,
                                                  sections.neurons, neuron_, firing_, horizon_);
        checkCuda(Device::lastStatus(), "launch resident initialization");
        checkCuda(Device::synchronise(), "synchronise resident initialization");
        return sections;
    }

    std::uint32_t neuronBlocks() const { return Device::blocksFor(node_count_, block_size); }

    void runWindows(bool limit_quiet) {
        run_.capacity_ok = true;
        for (ModelTime window_end = window_; window_end <= horizon_; window_end += window_) {
            taken_ += arrivals_;
            processWindow(window_end);
            countArrivals();
            const std::uint64_t word = downloadWindowWord();
            scanCounts();
            const std::uint64_t next = fanout_ * (word & window_spike_mask);
            if (next > arena_.arrival_capacity) {
                run_.capacity_ok = false;
                return;
            }
            if (next != 0) emitArrivals();
            if (arrivals_ != 0 || word != 0) {
                ++run_.profile.windows;
                run_.last_window = run_.windows;
            }
            sequence_base_ += next;
            ++run_.windows;
            std::swap(sections_.current_bucket, sections_.next_bucket);
            arrivals_ = next;
            if (limit_quiet && run_.windows - run_.profile.windows >
                                   quiet_steps + quiet_steps_per_busy * run_.profile.windows) {
                run_.capacity_ok = false;
                return;
            }
        }
    }

    void processWindow(ModelTime window_end) {
        checkCuda(Device::clear(sections_.counters.window_spikes, 8),
                  "clear resident window spikes");
        if (arrivals_ != 0) {
            Device::launch<convertShardEvents>(Device::blocksFor(arrivals_, block_size), block_size,
                                               sections_.current_bucket, arrivals_,
                                               sections_.window_events);
            checkCuda(Device::lastStatus(), "convert resident bucket");
        }
        Device::launch<processResidentWindow>(
            neuronBlocks(), block_size, node_count_, sections_.window_events, arrivals_,
            sections_.target_offsets, sections_.target_counts, sections_.neurons, sections_.results,
            sections_.fanout_counts, sections_.counters, sections_.fire_log, arena_.fire_capacity,
            window_end, horizon_, neuron_, firing_);
        checkCuda(Device::lastStatus(), "process resident window");
    }

    void countArrivals() {
        Device::launch<countResidentFanout>(neuronBlocks(), block_size, node_count_, fanout_,
                                            sections_.fanout_counts);
        checkCuda(Device::lastStatus(), "count resident fan-out");
        checkCuda(Device::clear(sections_.target_counts, node_count_ * sizeof(std::uint64_t)),
                  "clear resident target counts");
        Device::launch<countResidentTargets>(neuronBlocks(), block_size, node_count_, fanout_,
                                             sections_.csr_targets, sections_.fanout_counts,
                                             sections_.target_counts);
        checkCuda(Device::lastStatus(), "count resident targets");
    }

    /// The one transfer of a step; it waits for the step's kernels.
    std::uint64_t downloadWindowWord() {
        std::uint64_t word = 0;
        checkCuda(Device::download(&word, sections_.counters.window_spikes, sizeof(word)),
                  "download window spike count");
        return word;
    }

    void scanCounts() {
        Device::exclusiveScan(sections_.fanout_counts, node_count_, sections_.fanout_offsets);
        Device::exclusiveScan(sections_.target_counts, node_count_, sections_.target_offsets);
    }

    void emitArrivals() {
        checkCuda(Device::clear(sections_.target_cursors, node_count_ * sizeof(std::uint64_t)),
                  "clear resident target cursors");
        Device::launch<emitResidentFanout>(
            neuronBlocks(), block_size, node_count_, fanout_, sections_.csr_targets,
            sections_.csr_values, sections_.results, sections_.fanout_counts,
            sections_.fanout_offsets, sections_.target_offsets, sections_.target_cursors,
            sequence_base_, window_, sections_.next_bucket);
        checkCuda(Device::lastStatus(), "emit resident fan-out");
        Device::launch<sortResidentTargetSegments>(neuronBlocks(), block_size, node_count_,
                                                   sections_.target_offsets,
                                                   sections_.target_counts, sections_.next_bucket);
        checkCuda(Device::lastStatus(), "sort resident target segments");
    }

    template <class T>
    void download(std::vector<T>& values, const T* block, std::uint64_t count, const char* what) {
        values.resize(count);
        checkCuda(Device::download(values.data(), block, count * sizeof(T)), what);
    }

    void downloadLog() {
        checkCuda(Device::download(&run_.spikes, sections_.counters.total_spikes, 8),
                  "download resident spikes");
        std::uint32_t flags[2] = {};  // fire overflow, model fault
        checkCuda(Device::download(flags, sections_.counters.fire_overflow, sizeof(flags)),
                  "download fire overflow");
        if (run_.spikes > arena_.fire_capacity || flags[0] != 0 || flags[1] != 0) {
            run_.capacity_ok = false;
        }
        run_.log.resize(std::min(run_.spikes, arena_.fire_capacity));
        if (run_.capacity_ok && run_.spikes != 0) {
            static_assert(sizeof(DeviceFire) == sizeof(SpikeRecord));
            Device::sort(sections_.fire_log, run_.spikes, DeviceFireLess());
            checkCuda(Device::download(run_.log.data(), sections_.fire_log,
                                       run_.spikes * sizeof(SpikeRecord)),
                      "download resident fire log");
        }
        run_.log_hash = digestImages<SpikeRecord>(run_.log);
    }

    void downloadNeurons() {
        download(run_.states, sections_.neurons.states, node_count_, "download resident states");
        download(run_.random_states, sections_.neurons.random, node_count_,
                 "download resident final RNG");
        download(run_.candidate_times, sections_.neurons.pending_times, node_count_,
                 "download resident pending times");
        download(run_.candidate_rates, sections_.neurons.pending_rates, node_count_,
                 "download resident pending bounds");
        run_.state_hash = digestImages<Kernel::State>(run_.states);
        run_.random_hash = digestImages<std::uint64_t>(run_.random_states);
    }

    void downloadProfile() {
        std::uint64_t metrics[4] = {};
        checkCuda(Device::download(metrics, sections_.counters.metrics, sizeof(metrics)),
                  "download resident metrics");
        run_.deliveries = sequence_base_;
        run_.profile.deliveries = taken_ + metrics[3];
        run_.profile.updates = metrics[0];
        run_.profile.candidates = metrics[1];
        run_.profile.accepted = metrics[2];
    }

    void downloadPending() {
        if (arrivals_ == 0) return;
        std::vector<ShardArrival> arrivals;
        download(arrivals, sections_.current_bucket, arrivals_, "download resident future bucket");
        for (const ShardArrival& arrival : arrivals) {
            Event event;
            event.time = arrival.time;
            event.id = arrival.sequence;
            event.kind = EventKind::delivery;
            event.source = arrival.source;
            event.target = arrival.target;
            event.edge = arrival.edge;
            event.value = arrival.value;
            run_.pending_events.push_back(event);
        }
    }

    std::chrono::steady_clock::time_point start_;
    std::uint64_t node_count_;
    std::uint64_t fanout_;
    Kernel::Neuron neuron_;
    Kernel::Firing firing_;
    ModelTime window_;
    ModelTime horizon_;
    ResidentArena arena_;
    ResidentSections sections_;
    std::uint64_t arrivals_ = 0;       ///< in the current bucket
    std::uint64_t taken_ = 0;          ///< arrivals that windows have taken
    std::uint64_t sequence_base_ = 0;  ///< arrivals emitted so far
    ResidentRun run_;
};

/// Why a network does not run whole on the device, or null.
const char* residentObstacle(SynapseGraph& graph) {
    if (graph.nodeCount() == 0) return "the graph has no neurons";
    const std::optional<ModelTime> d_min = graph.dMin();
    if (!d_min || *d_min < 1) return "the graph has no positive d_min";
    const std::size_t fanout = graph.outgoing(0).size();
    if (fanout == 0) return "resident CUDA requires non-zero fan-out";
    for (NodeId node = 0; node < graph.nodeCount(); ++node) {
        const std::span<const EdgeId> edges = graph.outgoing(node);
        if (edges.size() != fanout) return "resident CUDA requires uniform fan-out";
        for (const EdgeId id : edges) {
            const Synapse& synapse = graph.edge(id);
            if (!synapse.enabled || !graph.transmissionEnabled(synapse.inhibitory)) {
                return "resident CUDA does not yet support disabled edges";
            }
            if (synapse.delay != *d_min) return "resident CUDA requires every delay to equal d_min";
        }
    }
    return nullptr;
}

/// Whether a run on the device left the engine as a run to the horizon leaves it.
bool isComplete(const ResidentRun& run, const WindowEngine& engine) {
    if (!run.capacity_ok || run.states.size() != engine.states().size() ||
        run.random_states.size() != engine.states().size() ||
        run.candidate_times.size() != engine.candidates().size() ||
        run.candidate_rates.size() != engine.candidates().size()) {
        return false;
    }
    return std::none_of(run.candidate_times.begin(), run.candidate_times.end(),
                        [&](ModelTime time) { return time >= 0 && time < engine.horizon(); });
}

WholeRun wholeRunOf(ResidentRun&& run, ModelTime window, ModelTime horizon) {
    WholeRun whole;
    whole.candidates.resize(run.candidate_times.size());
    for (std::size_t i = 0; i < whole.candidates.size(); ++i) {
        whole.candidates[i].time = run.candidate_times[i];
        whole.candidates[i].rate = run.candidate_rates[i];
    }
    // Sequences ascend in the order in which the serial commit would have posted.
    std::sort(run.pending_events.begin(), run.pending_events.end(),
              [](const Event& a, const Event& b) { return a.id < b.id; });
    if (run.profile.windows != 0) {
        // A store with events walks on to the horizon in search of the next window; an empty one
        // stays behind the last.
        whole.next_window = run.pending_events.empty()
                                ? static_cast<std::int64_t>(run.last_window) + 1
                                : horizon / window;
    }
    whole.states = std::move(run.states);
    whole.random_states = std::move(run.random_states);
    whole.log = std::move(run.log);
    whole.profile = run.profile;
    whole.pending_events = std::move(run.pending_events);
    return whole;
}

}  // namespace

ResidentRun runResidentRecurrence(CudaWindowBackend& backend, SynapseGraph& graph,
                                  std::uint64_t fanout, std::uint32_t shards,
                                  const Kernel::Neuron& neuron, const Kernel::Firing& firing,
                                  ModelTime window, ModelTime horizon, std::uint64_t seed) {
    const auto start = std::chrono::steady_clock::now();
    const ResidentArena arena =
        ResidentRecurrence::requireArena(graph.nodeCount(), fanout, shards, window, horizon);
    FanoutTable table;
    switch (buildResidentTable(graph, fanout, window, table)) {
        case FanoutFault::fanout:
            throw WindowEngineError(WindowEngineError::recurrence_fanout);
        case FanoutFault::edge:
            throw WindowEngineError(WindowEngineError::recurrence_edges);
        case FanoutFault::none:
            break;
    }
    return ResidentRecurrence(start, arena, backend, table, graph.nodeCount(), fanout, neuron,
                              firing, window, horizon, seed)
        .run(false);
}

bool residentEligible(SynapseGraph& graph, std::string* reason) {
    const char* obstacle = residentObstacle(graph);
    if (reason != nullptr) *reason = obstacle == nullptr ? "" : obstacle;
    return obstacle == nullptr;
}

bool tryResidentRunFrom(CudaWindowBackend& backend, WindowEngine& engine,
                        std::uint64_t min_neurons) {
    const auto start = std::chrono::steady_clock::now();
    SynapseGraph& graph = engine.graph();
    const std::uint64_t node_count = graph.nodeCount();
    if (!engine.isPristine() || engine.isHeterogeneous() || node_count == 0 ||
        node_count < min_neurons) {
        return false;
    }
    const ModelTime window = *graph.dMin();
    const ModelTime horizon = engine.horizon();
    // The device stops at the last whole window, and its times are sums without a check.
    if (horizon % window != 0 || horizon > last_model_time - window) return false;

    // The table is built where residentEligible would say yes, in one walk over the synapses.
    const std::uint64_t fanout = graph.outgoing(0).size();
    FanoutTable table;
    if (fanout == 0 || buildResidentTable(graph, fanout, window, table) != FanoutFault::none) {
        return false;
    }
    const auto shards = static_cast<std::uint32_t>(std::min(node_count, max_resident_shards));
    const ResidentArena arena =
        ResidentRecurrence::requireArena(node_count, fanout, shards, window, horizon);
    ResidentRun run =
        ResidentRecurrence(start, arena, backend, table, node_count, fanout, engine.uniformNeuron(),
                           engine.uniformFiring(), window, horizon, engine.seed())
            .run(true);
    if (!isComplete(run, engine)) return false;
    engine.adoptWholeRun(wholeRunOf(std::move(run), window, horizon));
    return true;
}

}  // namespace Lumenar::Core::Kelm
