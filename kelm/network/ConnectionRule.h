#pragma once

#include <cstdint>

#include "kelm/core/ModelTime.h"

namespace Lumenar::Core::Kelm {

/// The neurons first, first + 1, ..., first + count - 1.
struct NeuronRange {
    NodeId first = 0;
    std::uint64_t count = 0;

    NodeId end() const { return first + count; }
    bool contains(NodeId node) const { return node >= first && node - first < count; }
};

/// Which pairs of a source and a target a projection connects. Self-connections and multiple
/// connections (several synapses from one source to one target) are allowed unless a rule excludes
/// them.
struct ConnectionRule {
    enum class Kind : std::uint8_t {
        one_to_one,
        all_to_all,
        fixed_in_degree,
        fixed_out_degree,
        fixed_total_number,
        bernoulli,
    };

    Kind kind = Kind::all_to_all;
    std::uint64_t count = 0;   ///< the degree or the total number; not used by the other rules
    double probability = 0.0;  ///< used by bernoulli only
    bool self_connections = true;
    bool multiple_connections = true;  ///< used by the two degrees and the total number only

    /// Source i to target i. Both ranges must have the same count.
    static constexpr ConnectionRule oneToOne() { return {.kind = Kind::one_to_one}; }
    /// Every source to every target, once.
    static constexpr ConnectionRule allToAll() { return {.kind = Kind::all_to_all}; }
    /// `degree` synapses to every target, their sources drawn uniformly.
    static constexpr ConnectionRule fixedInDegree(std::uint64_t degree) {
        return {.kind = Kind::fixed_in_degree, .count = degree};
    }
    /// `degree` synapses from every source, their targets drawn uniformly.
    static constexpr ConnectionRule fixedOutDegree(std::uint64_t degree) {
        return {.kind = Kind::fixed_out_degree, .count = degree};
    }
    /// `number` synapses in all, their pairs drawn uniformly.
    static constexpr ConnectionRule fixedTotalNumber(std::uint64_t number) {
        return {.kind = Kind::fixed_total_number, .count = number};
    }
    /// Each pair with this probability, once, independently of the other pairs.
    static constexpr ConnectionRule bernoulli(double probability) {
        return {.kind = Kind::bernoulli, .probability = probability};
    }

    constexpr ConnectionRule withoutSelfConnections() const {
        ConnectionRule rule = *this;
        rule.self_connections = false;
        return rule;
    }
    constexpr ConnectionRule withoutMultipleConnections() const {
        ConnectionRule rule = *this;
        rule.multiple_connections = false;
        return rule;
    }
};

}  // namespace Lumenar::Core::Kelm
