#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "kelm/core/LargePages.h"
#include "kelm/core/ModelTime.h"
#include "kelm/core/Prefetch.h"
#include "kelm/network/Synapse.h"

namespace Lumenar::Core::Kelm {

/// Synapses in columns. A delivery reads 16 bytes of a synapse, so the fan-out of a spike touches
/// few cache lines. The source takes 4 more bytes. Fields that few networks use take no memory
/// until one synapse uses them. The table returns every synapse unchanged, to the bit.
///
/// Checks nothing: ids must lie below size().
class SynapseTable {
    static constexpr std::uint64_t enabled_bit = 1;
    static constexpr std::uint64_t inhibitory_bit = 2;
    static constexpr std::uint64_t routed_bit = 4;
    static constexpr int delay_shift = 3;

public:
    /// What a delivery reads of a synapse in a compact table.
    struct Transmission {
        std::uint32_t target = 0;
        float weight = 0.0F;
        std::uint64_t bits = 0;  ///< the delay above the switches

        ModelTime delay() const { return static_cast<ModelTime>(bits >> delay_shift); }
        bool enabled() const { return (bits & enabled_bit) != 0; }
        bool inhibitory() const { return (bits & inhibitory_bit) != 0; }
        bool routed() const { return (bits & routed_bit) != 0; }
        /// The value that it delivers; exact in double precision.
        float value() const { return deliveredWeight(weight, inhibitory()); }
    };
    static_assert(sizeof(Transmission) == 16);

    /// Whether a synapse's transmission and source hold all that a delivery needs, and all ids fit
    /// into 32 bits.
    bool isCompact() const {
        return extra_fields_.empty() && transmissions_.size() <= std::uint64_t{1} << 32;
    }
    const Transmission& transmission(EdgeId id) const { return transmissions_[id]; }

    /// May throw std::bad_alloc, with nothing changed.
    void reserve(std::size_t count) {
        transmissions_.reserve(count);
        sources_.reserve(count);
    }

    /// Adds a synapse. May throw std::bad_alloc; the table may then only be destroyed.
    void append(const Synapse& synapse, bool routed) {
        Transmission& entry = transmissions_.emplace_back();
        entry.target = static_cast<std::uint32_t>(synapse.target);
        entry.weight = synapse.weight;
        entry.bits = static_cast<std::uint64_t>(synapse.delay) << delay_shift |
                     (synapse.enabled ? enabled_bit : 0) |
                     (synapse.inhibitory ? inhibitory_bit : 0) | (routed ? routed_bit : 0);
        sources_.push_back(static_cast<std::uint32_t>(synapse.source));
        if (!changes_.empty() || synapse.last_change != 0) {
            changes_.resize(sources_.size());
            changes_.back() = synapse.last_change;
        }
        if (!extra_fields_.empty() || needsExtraFields(synapse)) appendExtraFields(synapse);
    }

    /// Makes `count` synapses of an empty table, whose sources all fit 32 bits. place() and
    /// placeSources() then fill it in any order. May throw std::bad_alloc, with nothing changed.
    void resize(std::size_t count) {
        reserve(count);
        transmissions_.resize(count);
        sources_.resize(count);
    }
    /// Fills all of synapse `id` but its source: enabled, routed, never changed. `target` must fit
    /// 32 bits and `delay` 61.
    void place(EdgeId id, NodeId target, float weight, ModelTime delay, bool inhibitory) {
        Transmission& entry = transmissions_[id];
        entry.target = static_cast<std::uint32_t>(target);
        entry.weight = weight;
        entry.bits = static_cast<std::uint64_t>(delay) << delay_shift | enabled_bit |
                     (inhibitory ? inhibitory_bit : 0) | routed_bit;
    }
    /// Sets the sources of a table sorted by source. `ends`: by source, the EdgeId after its last
    /// synapse.
    void placeSources(std::span<const std::uint64_t> ends) {
        std::uint64_t begin = 0;
        for (std::size_t source = 0; source < ends.size(); ++source) {
            std::fill(sources_.data() + begin, sources_.data() + ends[source],
                      static_cast<std::uint32_t>(source));
            begin = ends[source];
        }
    }

    std::size_t size() const { return transmissions_.size(); }

    Synapse operator[](EdgeId id) const {
        const Transmission& entry = transmissions_[id];
        Synapse synapse;
        synapse.source = sources_[id];
        synapse.target = entry.target;
        synapse.weight = entry.weight;
        synapse.delay = entry.delay();
        synapse.inhibitory = entry.inhibitory();
        synapse.enabled = entry.enabled();
        synapse.last_change = lastChange(id);
        if (!extra_fields_.empty()) extra_fields_[id].copyTo(synapse);
        return synapse;
    }

    NodeId source(EdgeId id) const {
        return extra_fields_.empty() ? sources_[id] : extra_fields_[id].source;
    }
    NodeId target(EdgeId id) const {
        return extra_fields_.empty() ? transmissions_[id].target : extra_fields_[id].target;
    }
    float weight(EdgeId id) const { return transmissions_[id].weight; }
    void setWeight(EdgeId id, float weight) { transmissions_[id].weight = weight; }
    bool isRouted(EdgeId id) const { return transmissions_[id].routed(); }
    bool isEnabled(EdgeId id) const { return transmissions_[id].enabled(); }
    bool isInhibitory(EdgeId id) const { return transmissions_[id].inhibitory(); }
    void setEnabled(EdgeId id, bool on) {
        std::uint64_t& bits = transmissions_[id].bits;
        bits = on ? bits | enabled_bit : bits & ~enabled_bit;
    }
    ModelTime lastChange(EdgeId id) const { return changes_.empty() ? 0 : changes_[id]; }
    /// Several threads may then call setLastChange, each for other synapses. The first call may
    /// throw std::bad_alloc, with nothing changed.
    void allocateChanges() {
        if (changes_.empty()) changes_.resize(size());
    }
    /// The first call may throw std::bad_alloc, with nothing changed.
    void setLastChange(EdgeId id, ModelTime time) {
        allocateChanges();
        changes_[id] = time;
    }

    void prefetch(EdgeId id) const { prefetchLine(&transmissions_[id]); }
    /// Prefetches synapses [first, end). A long range is cut.
    void prefetchRange(EdgeId first, EdgeId end) const {
        constexpr EdgeId line = 64 / sizeof(Transmission);
        if (end - first > max_prefetched) end = first + max_prefetched;
        // The range may start in the middle of a line, so the last synapse may lie one line
        // further.
        for (EdgeId id = first; id < end; id += line) prefetch(id);
        if (first < end) prefetch(end - 1);
    }

private:
    /// Most synapses of one call. A processor drops prefetches beyond its capacity.
    static constexpr EdgeId max_prefetched = 48;

    /// The fields that do not fit the compact columns, or that have no column there.
    struct ExtraFields {
        NodeId source = 0;
        NodeId target = 0;
        ModelTime delay = 0;
        std::uint32_t reserved_a = 0;
        std::uint32_t reserved_c = 0;
        std::int64_t reserved_b = 0;
        std::uint64_t reserved_d = 0;

        explicit ExtraFields(const Synapse& synapse)
            : source(synapse.source),
              target(synapse.target),
              delay(synapse.delay),
              reserved_a(synapse.reserved_a),
              reserved_c(synapse.reserved_c),
              reserved_b(synapse.reserved_b),
              reserved_d(synapse.reserved_d) {}
        void copyTo(Synapse& synapse) const {
            synapse.source = source;
            synapse.target = target;
            synapse.delay = delay;
            synapse.reserved_a = reserved_a;
            synapse.reserved_c = reserved_c;
            synapse.reserved_b = reserved_b;
            synapse.reserved_d = reserved_d;
        }
    };

    static bool needsExtraFields(const Synapse& synapse) {
        constexpr Synapse defaults;
        constexpr std::uint64_t wide_node = std::uint64_t{1} << 32;
        constexpr ModelTime long_delay = ModelTime{1} << (64 - delay_shift);
        return synapse.source >= wide_node || synapse.target >= wide_node ||
               synapse.delay >= long_delay || synapse.reserved_a != defaults.reserved_a ||
               synapse.reserved_b != defaults.reserved_b ||
               synapse.reserved_c != defaults.reserved_c ||
               synapse.reserved_d != defaults.reserved_d;
    }
    /// Adds the extra fields of the newest synapse. The first call also adds those of all synapses
    /// before it.
    void appendExtraFields(const Synapse& synapse) {
        if (extra_fields_.empty()) {
            std::vector<ExtraFields> fields;
            fields.reserve(transmissions_.capacity());
            for (EdgeId id = 0; id + 1 < size(); ++id) fields.emplace_back((*this)[id]);
            extra_fields_ = std::move(fields);
        }
        extra_fields_.emplace_back(synapse);
    }

    LargeArray<Transmission> transmissions_;
    std::vector<std::uint32_t> sources_;
    std::vector<ModelTime> changes_;         ///< times of last change; empty while all are 0
    std::vector<ExtraFields> extra_fields_;  ///< empty while no synapse needs them
};

}  // namespace Lumenar::Core::Kelm
