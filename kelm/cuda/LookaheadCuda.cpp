// The one source unit of the device side: kernels and the host functions that drive them. nvcc
// compiles it through LookaheadCuda.cu for the device; a host compiler compiles this same text
// over a device layer of functions.

#include <cstddef>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

#include "kelm/core/Failures.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/cuda/DeviceLayer.h"
#include "kelm/cuda/DeviceRecords.h"
#include "kelm/cuda/LookaheadCudaTesting.h"
#include "kelm/cuda/ResidentArena.h"
#include "kelm/cuda/ShardLayout.h"
#include "kelm/network/SynapseGraph.h"

namespace Lumenar::Core::Kelm {

void checkCuda(Device::Status status, const char* what) {
    if (status == 0) return;
    throw WindowEngineError(WindowEngineError::device(what, Device::statusText(status)));
}

namespace {

constexpr std::uint32_t window_block_size = 128;
constexpr std::uint64_t small_window_items = 32;

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

// The device image holds these library operations for the records that runs sort and scan.
template void Device::sort(ShardArrival*, std::uint64_t, ShardArrivalLess);
template void Device::sort(DeviceFire*, std::uint64_t, DeviceFireLess);

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
    Device::launch(windowKernel, Device::blocksFor(work.size(), window_block_size),
                   window_block_size, buffers.work, static_cast<std::int32_t>(work.size()),
                   buffers.events, buffers.results, window_end, horizon, neuron, firing);
    checkCuda(Device::lastStatus(), "launch");
    checkCuda(Device::synchronise(), "synchronise");
    checkCuda(Device::download(results.data(), buffers.results,
                               work.size() * sizeof(Kernel::WindowResult)),
              "download results");
}

bool CudaWindowBackend::tryResidentRun(WindowEngine&) { return false; }

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
    for (const std::uint64_t node_count : {1, 7, 100, 100003}) {
        for (const std::uint32_t shard_count : {1U, 2U, 7U, 32U}) {
            if (shard_count <= node_count) checkShardLayout(node_count, shard_count);
        }
    }
}

}  // namespace Lumenar::Core::Kelm
