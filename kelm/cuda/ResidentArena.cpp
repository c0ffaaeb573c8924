#include "kelm/cuda/ResidentArena.h"

#include "kelm/cuda/DeviceRecords.h"
#include "kelm/kernel/WindowProcessing.h"

namespace Lumenar::Core::Kelm {

namespace {

/// Lays sections one behind the other, and remembers whether a size has left the range.
class SectionWriter {
public:
    std::uint64_t product(std::uint64_t a, std::uint64_t b) {
        if (a != 0 && b > last / a) fits_ = false;
        return a * b;
    }
    std::uint64_t sum(std::uint64_t a, std::uint64_t b) {
        if (b > last - a) fits_ = false;
        return a + b;
    }
    /// The offset of the next section, of `count` elements of `element_bytes`.
    std::uint64_t section(std::uint64_t count, std::uint64_t element_bytes) {
        const std::uint64_t offset = end_;
        end_ = sum(end_, product(count, element_bytes));
        return offset;
    }
    std::uint64_t end() const { return end_; }
    bool fits() const { return fits_; }

private:
    static constexpr std::uint64_t last = 0xffffffffffffffff;
    std::uint64_t end_ = 0;
    bool fits_ = true;
};

}  // namespace

std::optional<ResidentArena> ResidentArena::of(std::uint64_t node_count, std::uint64_t fanout) {
    static_assert(sizeof(Kernel::State) % 8 == 0 && sizeof(Kernel::WindowResult) % 8 == 0 &&
                      sizeof(DeviceFire) % 8 == 0 && sizeof(Kernel::WindowEvent) % 8 == 0 &&
                      sizeof(ShardArrival) % 8 == 0,
                  "sections follow one another without padding");
    SectionWriter writer;
    ResidentArena arena;
    const std::uint64_t edges = writer.product(node_count, fanout);
    // A window in which about half of all neurons fire once, and eight spikes a neuron over the
    // whole run: soft limits, beyond which a run goes window by window.
    arena.arrival_capacity = writer.sum(edges / 2, node_count);
    arena.fire_capacity = writer.product(8, node_count);

    arena.csr_targets = writer.section(edges, 8);
    arena.csr_values = writer.section(edges, 8);
    arena.device_states = writer.section(node_count, sizeof(Kernel::State));
    arena.device_random = writer.section(node_count, 8);
    arena.pending_times = writer.section(node_count, 8);
    arena.pending_rates = writer.section(node_count, 8);
    arena.device_results = writer.section(node_count, sizeof(Kernel::WindowResult));
    arena.fanout_counts = writer.section(node_count, 8);
    arena.fanout_offsets = writer.section(node_count, 8);
    arena.target_counts = writer.section(node_count, 8);
    arena.target_offsets = writer.section(node_count, 8);
    arena.target_cursors = writer.section(node_count, 8);
    arena.total_spikes = writer.section(1, 8);
    arena.window_spikes = writer.section(1, 8);
    arena.fire_log = writer.section(arena.fire_capacity, sizeof(DeviceFire));
    arena.fire_overflow = writer.section(1, 8);
    arena.metrics = writer.section(4, 8);
    arena.window_events = writer.section(arena.arrival_capacity, sizeof(Kernel::WindowEvent));
    arena.first_bucket = writer.section(arena.arrival_capacity, sizeof(ShardArrival));
    arena.second_bucket = writer.section(arena.arrival_capacity, sizeof(ShardArrival));
    arena.bytes = writer.end();
    if (!writer.fits()) return std::nullopt;
    return arena;
}

}  // namespace Lumenar::Core::Kelm
