#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "kelm/core/LargePages.h"
#include "kelm/core/ModelTime.h"
#include "kelm/core/Prefetch.h"
#include "kelm/network/Synapse.h"

namespace Lumenar::Core::Kelm {

/// Synapses in columns. What a delivery reads of a synapse lies in 16 bytes, so that the fan-out of
/// a spike touches few cache lines; its source takes 4 more, and what hardly any network uses takes
/// no memory until it is used. A synapse that comes out is the one that went in, to the bit.
///
/// Tests nothing: ids must lie below size().
class SynapseTable {
    static constexpr std::uint64_t enabled_bit = 1;
    static constexpr std::uint64_t inhibitory_bit = 2;
    static constexpr std::uint64_t routed_bit = 4;
    static constexpr int delay_shift = 3;

public:
    /// What a delivery reads of a synapse that is as usual.
    struct Transmission {
        std::uint32_t target = 0;
        float weight = 0.0F;
        std::uint64_t bits = 0;  ///< the delay above the switches

        ModelTime delay() const { return static_cast<ModelTime>(bits >> delay_shift); }
        bool enabled() const { return (bits & enabled_bit) != 0; }
        bool inhibitory() const { return (bits & inhibitory_bit) != 0; }
        bool routed() const { return (bits & routed_bit) != 0; }
    };
    static_assert(sizeof(Transmission) == 16);

    /// Whether all that a delivery has to know of a synapse is its transmission and its source,
    /// and ids of both fit 32 bits.
    bool areUsual() const {
        return rarities_.empty() && transmissions_.size() <= std::uint64_t{1} << 32;
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
        if (!rarities_.empty() || isRare(synapse)) appendRarity(synapse);
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
        if (!rarities_.empty()) rarities_[id].complete(synapse);
        return synapse;
    }

    NodeId source(EdgeId id) const {
        return rarities_.empty() ? sources_[id] : rarities_[id].source;
    }
    NodeId target(EdgeId id) const {
        return rarities_.empty() ? transmissions_[id].target : rarities_[id].target;
    }
    float weight(EdgeId id) const { return transmissions_[id].weight; }
    void setWeight(EdgeId id, float weight) { transmissions_[id].weight = weight; }
    bool isRouted(EdgeId id) const { return transmissions_[id].routed(); }
    void setEnabled(EdgeId id, bool on) {
        std::uint64_t& bits = transmissions_[id].bits;
        bits = on ? bits | enabled_bit : bits & ~enabled_bit;
    }
    ModelTime lastChange(EdgeId id) const { return changes_.empty() ? 0 : changes_[id]; }
    /// May throw std::bad_alloc the first time, with nothing changed.
    ModelTime& lastChange(EdgeId id) {
        if (changes_.empty()) changes_.resize(size());
        return changes_[id];
    }

    void prefetch(EdgeId id) const { prefetchLine(&transmissions_[id]); }
    /// Hints that synapses [first, end) are read soon, the first of them in any case.
    void prefetchRange(EdgeId first, EdgeId end) const {
        constexpr EdgeId line = 64 / sizeof(Transmission);
        if (end - first > max_prefetched) end = first + max_prefetched;
        // The last one too: a range begins anywhere in its first line.
        for (EdgeId id = first; id < end; id += line) prefetch(id);
        if (first < end) prefetch(end - 1);
    }

private:
    /// As much as a processor fetches at once without losing some.
    static constexpr EdgeId max_prefetched = 48;

    /// What does not fit the narrow columns, or is not as in a synapse by default.
    struct Rarity {
        NodeId source = 0;
        NodeId target = 0;
        ModelTime delay = 0;
        std::uint32_t reserved_a = 0;
        std::uint32_t reserved_c = 0;
        std::int64_t reserved_b = 0;
        std::uint64_t reserved_d = 0;

        explicit Rarity(const Synapse& synapse)
            : source(synapse.source),
              target(synapse.target),
              delay(synapse.delay),
              reserved_a(synapse.reserved_a),
              reserved_c(synapse.reserved_c),
              reserved_b(synapse.reserved_b),
              reserved_d(synapse.reserved_d) {}
        void complete(Synapse& synapse) const {
            synapse.source = source;
            synapse.target = target;
            synapse.delay = delay;
            synapse.reserved_a = reserved_a;
            synapse.reserved_c = reserved_c;
            synapse.reserved_b = reserved_b;
            synapse.reserved_d = reserved_d;
        }
    };

    static bool isRare(const Synapse& synapse) {
        constexpr Synapse usual;
        constexpr std::uint64_t wide_node = std::uint64_t{1} << 32;
        constexpr ModelTime long_delay = ModelTime{1} << (64 - delay_shift);
        return synapse.source >= wide_node || synapse.target >= wide_node ||
               synapse.delay >= long_delay || synapse.reserved_a != usual.reserved_a ||
               synapse.reserved_b != usual.reserved_b || synapse.reserved_c != usual.reserved_c ||
               synapse.reserved_d != usual.reserved_d;
    }
    /// Of the synapse just added. The first one brings those of all before it.
    void appendRarity(const Synapse& synapse) {
        if (rarities_.empty()) {
            std::vector<Rarity> rarities;
            rarities.reserve(transmissions_.capacity());
            for (EdgeId id = 0; id + 1 < size(); ++id) rarities.emplace_back((*this)[id]);
            rarities_ = std::move(rarities);
        }
        rarities_.emplace_back(synapse);
    }

    LargeArray<Transmission> transmissions_;
    std::vector<std::uint32_t> sources_;
    std::vector<ModelTime> changes_;  ///< empty while no synapse was ever changed
    std::vector<Rarity> rarities_;    ///< empty while no synapse needs one
};

}  // namespace Lumenar::Core::Kelm
