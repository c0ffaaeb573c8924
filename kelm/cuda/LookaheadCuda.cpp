// The one source unit of the device side: the kernels and the host functions that launch them. nvcc
// compiles it for a device, through LookaheadCuda.cu. A host compiler compiles the same text over a
// device layer of functions.

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/cuda/DeviceBlock.h"
#include "kelm/cuda/DeviceLayer.h"
#include "kelm/cuda/FanoutTable.h"
#include "kelm/cuda/LookaheadCudaTesting.h"
#include "kelm/cuda/ResidentRecurrence.h"
#include "kelm/cuda/ResidentRecurrenceRun.h"
#include "kelm/cuda/ShardLayout.h"
#include "kelm/cuda/ShardQueue.h"
#include "kelm/cuda/ShardQueueRun.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/network/SynapseGraph.h"

namespace Lumenar::Core::Kelm {

void checkCuda(Device::Status status, std::string_view what) {
    if (status == 0) return;
    throw WindowEngineError(
        WindowEngineError::device(std::string(what), Device::statusText(status)));
}

namespace {

constexpr std::uint32_t window_block_size = 128;
constexpr std::uint64_t small_window_items = 32;

/// Smaller networks stay on the ordinary loop.
constexpr std::uint64_t min_resident_neurons = 32768;

/// One thread serves one item, with the item's own parameters.
KELM_KERNEL windowKernel(const WindowWork* work, std::int32_t count,
                         const Kernel::WindowEvent* events, Kernel::WindowResult* results,
                         ModelTime window_end, ModelTime horizon, Kernel::Neuron, Kernel::Firing) {
    const auto i = static_cast<std::int32_t>(Device::threadIndex());
    if (i < count) results[i] = Kernel::processWindow(work[i], events, window_end, horizon);
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
        // A call that fails leaves no room until both blocks are allocated again.
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

/// Gives resident runs access to the arena of a backend.
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
    // A window without events needs a valid pointer, too.
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
    const std::optional<ResidentArena> arena = ResidentArena::at(0, node_count, fanout);
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

/// Why a network cannot run whole on the device, or null.
const char* residentObstacle(SynapseGraph& graph) {
    if (graph.nodeCount() == 0) return "the graph has no neurons";
    const std::optional<ModelTime> d_min = graph.dMin();
    if (!d_min || *d_min < 1) return "the graph has no positive d_min";
    const std::span<const std::uint64_t> offsets = graph.outOffsets();
    const std::uint64_t fanout = offsets[1] - offsets[0];
    if (fanout == 0) return "resident CUDA requires non-zero fan-out";
    const char* obstacle = nullptr;
    const auto check = [&](const Synapse& synapse) {
        if (!synapse.enabled || !graph.transmissionEnabled(synapse.inhibitory)) {
            obstacle = "resident CUDA does not yet support disabled edges";
        } else if (synapse.delay != *d_min) {
            obstacle = "resident CUDA requires every delay to equal d_min";
        }
        return obstacle == nullptr;
    };
    for (NodeId node = 0; node < graph.nodeCount(); ++node) {
        if (offsets[node + 1] - offsets[node] != fanout) {
            return "resident CUDA requires uniform fan-out";
        }
        if (!graph.visitOutgoing(node, check)) return obstacle;
    }
    return nullptr;
}

/// Whether a run is valid and left no candidate before the horizon.
bool isComplete(const ResidentRun& run, const WindowEngine& engine) {
    if (!run.capacity_ok || run.model_fault || run.states.size() != engine.states().size() ||
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
    // Sequences ascend in the order in which the ordinary loop posts.
    std::sort(run.pending_events.begin(), run.pending_events.end(),
              [](const Event& a, const Event& b) { return a.id < b.id; });
    if (run.profile.windows != 0) {
        // The ordinary loop looks for the next window up to the horizon if its store holds events.
        // With an empty store it stays behind the last window.
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
    ResidentRecurrence run({graph.nodeCount(), fanout, neuron, firing, window, horizon, seed},
                           shards);
    FanoutTable table;
    switch (buildResidentTable(graph, fanout, window, table)) {
        case FanoutFault::fanout:
            throw WindowEngineError(WindowEngineError::recurrence_fanout);
        case FanoutFault::edge:
            throw WindowEngineError(WindowEngineError::recurrence_edges);
        case FanoutFault::none:
            break;
    }
    run.initialize(ResidentAccess::arena(backend, run.bytes()), table);
    while (run.step()) {
    }
    run.downloadResult();
    run.computeDigests();
    return run.take();
}

bool residentEligible(SynapseGraph& graph, std::string* reason) {
    const char* obstacle = residentObstacle(graph);
    if (reason != nullptr) *reason = obstacle == nullptr ? "" : obstacle;
    return obstacle == nullptr;
}

bool tryResidentRunFrom(CudaWindowBackend& backend, WindowEngine& engine,
                        std::uint64_t min_neurons) {
    SynapseGraph& graph = engine.graph();
    const std::uint64_t node_count = graph.nodeCount();
    if (!engine.isPristine() || engine.isHeterogeneous() || node_count == 0 ||
        node_count < min_neurons) {
        return false;
    }
    const ModelTime window = *graph.dMin();
    const ModelTime horizon = engine.horizon();
    // The device stops after the last whole window, and adds times without a check.
    if (horizon % window != 0 || horizon > last_model_time - window) return false;
    // outgoing(0) would build a list of all synapses.
    const std::uint64_t fanout = graph.outOffsets()[1] - graph.outOffsets()[0];
    if (fanout == 0) return false;

    const auto shards = static_cast<std::uint32_t>(std::min(node_count, max_resident_shards));
    ResidentRecurrence recurrence({node_count, fanout, engine.uniformNeuron(),
                                   engine.uniformFiring(), window, horizon, engine.seed()},
                                  shards);
    // One walk over the synapses builds the table and applies the rules of residentEligible.
    FanoutTable table;
    if (buildResidentTable(graph, fanout, window, table) != FanoutFault::none ||
        !sortTimeIsBounded(table, node_count)) {
        return false;
    }
    recurrence.initialize(ResidentAccess::arena(backend, recurrence.bytes()), table);
    while (recurrence.step()) {
        if (recurrence.isMostlyQuiet()) return false;
    }
    recurrence.downloadResult();
    ResidentRun run = recurrence.take();
    if (!isComplete(run, engine)) return false;
    engine.adoptWholeRun(wholeRunOf(std::move(run), window, horizon));
    return true;
}

}  // namespace Lumenar::Core::Kelm
