#pragma once

#include <cstdint>
#include <limits>
#include <optional>

#include "kelm/cuda/DeviceRecords.h"
#include "kelm/kernel/WindowProcessing.h"

namespace Lumenar::Core::Kelm {

/// The network and the neurons of a resident run. Each pointer is an array of one element a neuron,
/// except for the fan-out table.
struct ResidentNeurons {
    std::uint64_t node_count;
    std::uint64_t fanout;
    std::uint64_t* csr_targets;  ///< fan-out table, shape (neurons, fan-out)
    double* csr_values;          ///< fan-out table, shape (neurons, fan-out)
    Kernel::State* states;
    std::uint64_t* random;          ///< raw stream states
    ModelTime* pending_times;       ///< ns, or no_time
    double* pending_rates;          ///< spikes/s
    Kernel::WindowResult* results;  ///< of the last window in which the neuron fired
    std::uint64_t* fanout_counts;   ///< arrivals that the neuron emits in this window
    std::uint64_t* fanout_offsets;  ///< running sums of fanout_counts
    std::uint64_t* target_counts;   ///< arrivals that the neuron receives in the next window
    std::uint64_t* target_offsets;  ///< running sums of target_counts
    std::uint64_t* target_cursors;  ///< arrivals written so far to the neuron's segment
};

/// The neurons with an arrival or a due candidate in a window, each once, in an order that depends
/// on scheduling.
struct ActiveNeurons {
    std::uint64_t* count;
    std::uint64_t* neurons;  ///< room for all neurons

    /// A list in a bucket that is not in use. The bucket has room for one arrival a neuron.
    static ActiveNeurons in(ShardArrival* bucket) {
        static_assert(sizeof(ShardArrival) >= 2 * sizeof(std::uint64_t));
        auto* const words = reinterpret_cast<std::uint64_t*>(bucket);
        return {words, words + 1};
    }
};

/// Added to window_spikes in a window with an active neuron.
inline constexpr std::uint64_t busy_window = std::uint64_t{1} << 63;

/// What the neurons of a resident run count and log together.
struct ResidentCounters {
    std::uint64_t fire_capacity;   ///< spikes that the log can hold
    std::uint64_t* total_spikes;   ///< of the run
    std::uint64_t* window_spikes;  ///< of the current window, see busy_window
    DeviceFire* fire_log;
    ResidentFlags* flags;
    ResidentMetrics* metrics;
};

/// The layout of the one device allocation of a resident run. Its sections lie one behind the
/// other, in the order in which the constructor names them.
class ResidentArena {
public:
    /// Lays the arena out at `address`, for `node_count` neurons with `fanout` synapses each, both
    /// at least 1. Returns no value when a size exceeds 64 bits. A caller that only needs the size
    /// gives the address 0.
    static std::optional<ResidentArena> at(std::uint64_t address, std::uint64_t node_count,
                                           std::uint64_t fanout) {
        Layout layout(address);
        const ResidentArena arena(layout, node_count, fanout);
        if (!layout.fits) return std::nullopt;
        return arena;
    }

    std::uint64_t arrival_capacity;  ///< arrivals that a bucket can hold
    ResidentNeurons neurons;
    ResidentCounters counters;
    Kernel::WindowEvent* window_events;  ///< the current bucket in kernel form
    ShardArrival* current_bucket;
    ShardArrival* next_bucket;
    std::uint64_t bytes;  ///< of all sections

private:
    /// Lays sections one behind the other.
    struct Layout {
        explicit Layout(std::uint64_t address) : begin(address), end(address) {}

        std::uint64_t product(std::uint64_t a, std::uint64_t b) {
            if (a != 0 && b > largest / a) fits = false;
            return a * b;
        }
        std::uint64_t sum(std::uint64_t a, std::uint64_t b) {
            if (b > largest - a) fits = false;
            return a + b;
        }

        static constexpr std::uint64_t largest = std::numeric_limits<std::uint64_t>::max();
        std::uint64_t begin;
        std::uint64_t end;
        bool fits = true;  ///< all sizes are within 64 bits
    };

    /// The next section: `count` elements of the type of the pointer that it initialises.
    struct Section {
        template <class T>
        operator T*() const {
            static_assert(sizeof(T) % 8 == 0 && alignof(T) <= 8, "sections need no padding");
            const std::uint64_t begin = layout.end;
            layout.end = layout.sum(begin, layout.product(count, sizeof(T)));
            return reinterpret_cast<T*>(begin);
        }

        Layout& layout;
        std::uint64_t count;
    };

    ResidentArena(Layout& layout, std::uint64_t node_count, std::uint64_t fanout) {
        const auto section = [&](std::uint64_t count) { return Section{layout, count}; };
        const std::uint64_t edge_count = layout.product(node_count, fanout);
        // Soft limits: a run that exceeds one goes window by window. They admit a window in which
        // half of all neurons fire once, and 8 spikes a neuron in the whole run.
        arrival_capacity = layout.sum(edge_count / 2, node_count);
        const std::uint64_t fire_capacity = layout.product(8, node_count);

        neurons = {.node_count = node_count,
                   .fanout = fanout,
                   .csr_targets = section(edge_count),
                   .csr_values = section(edge_count),
                   .states = section(node_count),
                   .random = section(node_count),
                   .pending_times = section(node_count),
                   .pending_rates = section(node_count),
                   .results = section(node_count),
                   .fanout_counts = section(node_count),
                   .fanout_offsets = section(node_count),
                   .target_counts = section(node_count),
                   .target_offsets = section(node_count),
                   .target_cursors = section(node_count)};
        counters = {.fire_capacity = fire_capacity,
                    .total_spikes = section(1),
                    .window_spikes = section(1),
                    .fire_log = section(fire_capacity),
                    .flags = section(1),
                    .metrics = section(1)};
        window_events = section(arrival_capacity);
        current_bucket = section(arrival_capacity);
        next_bucket = section(arrival_capacity);
        bytes = layout.end - layout.begin;
    }
};

}  // namespace Lumenar::Core::Kelm
