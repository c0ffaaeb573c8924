#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <utility>

#include "kelm/core/ModelTime.h"
#include "kelm/network/Projection.h"

namespace Lumenar::Core::Kelm {

/// Whether the rows of a rule are its sources; they are the targets otherwise.
inline bool hasRowsOfSources(const ConnectionRule& rule) {
    return rule.kind == ConnectionRule::Kind::fixed_out_degree;
}

/// The rows of a projection's rule, and the candidates of each: see Wiring.
struct ConnectionRows {
    NeuronRange rows;
    NeuronRange columns;
    bool self_connections = true;

    explicit ConnectionRows(const Projection& projection)
        : rows(projection.targets),
          columns(projection.sources),
          self_connections(projection.rule.self_connections) {
        if (hasRowsOfSources(projection.rule)) std::swap(rows, columns);
    }

    bool excludesOneOf(NodeId row) const { return !self_connections && columns.contains(row); }
    std::uint64_t candidatesOf(NodeId row) const {
        return columns.count - (excludesOneOf(row) ? 1 : 0);
    }
    /// The number of rows in [rows.first, end) that exclude a candidate.
    std::uint64_t exclusionsBelow(NodeId end) const {
        if (self_connections) return 0;
        const NodeId first = std::max(rows.first, columns.first);
        const NodeId last = std::min(end, columns.end());
        return last > first ? last - first : 0;
    }
    /// The pairs of the rows in [rows.first, end).
    std::uint64_t pairsBelow(NodeId end) const {
        return (end - rows.first) * columns.count - exclusionsBelow(end);
    }
    std::uint64_t pairs() const { return pairsBelow(rows.end()); }
    /// The row with the fewest candidates. There must be a row.
    NodeId narrowestRow() const {
        const NodeId first = std::max(rows.first, columns.first);
        return rows.contains(first) && excludesOneOf(first) ? first : rows.first;
    }
};

/// The synapse count of a rule that was checked; none where it is not known in advance.
inline std::optional<std::uint64_t> synapseCount(const Projection& projection) {
    const ConnectionRows shape(projection);
    switch (projection.rule.kind) {
        case ConnectionRule::Kind::one_to_one:
            return shape.rows.count;
        case ConnectionRule::Kind::all_to_all:
            return shape.pairs();
        case ConnectionRule::Kind::fixed_in_degree:
        case ConnectionRule::Kind::fixed_out_degree:
            return shape.rows.count * projection.rule.count;
        case ConnectionRule::Kind::fixed_total_number:
            return projection.rule.count;
        case ConnectionRule::Kind::bernoulli:
            break;
    }
    return std::nullopt;
}

}  // namespace Lumenar::Core::Kelm
