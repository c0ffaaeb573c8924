#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "kelm/core/ModelTime.h"
#include "kelm/network/ConnectionRows.h"
#include "kelm/network/Projection.h"

namespace Lumenar::Core::Kelm {

/// Draws the pairs of a projection, row by row, as Wiring describes it.
class PairDraws {
public:
    PairDraws(const Projection& projection, std::uint64_t seed);

    const NeuronRange& rows() const { return shape_.rows; }
    /// The index of a row's first synapse in the projection; 0 where only a draw would tell.
    std::uint64_t firstIndex(NodeId row) const;
    /// The other neurons of a row's synapses, in order. Valid until the next call.
    std::span<const NodeId> draw(NodeId row);

private:
    /// Adds candidate `i` of a row.
    void add(NodeId row, std::uint64_t i) {
        const NodeId node = shape_.columns.first + i;
        nodes_.push_back(node + (shape_.excludesOneOf(row) && node >= row ? 1 : 0));
    }
    void choose(NodeId row, std::uint64_t count);
    void skip(NodeId row);
    void countRows(const std::string& stream_name);
    bool isExcluded(std::uint64_t place, std::uint64_t candidate) const {
        return candidate >= shape_.candidatesOf(shape_.rows.first + place) ||
               (!rule_.multiple_connections && candidate < row_counts_[place]);
    }

    ConnectionRule rule_;
    ConnectionRows shape_;
    std::uint64_t seed_;
    std::string stream_name_;
    double log_failure_ = 0.0;               ///< of a Bernoulli rule, log(1 - p)
    std::vector<std::uint64_t> row_counts_;  ///< by row, of a fixed total number
    /// By candidate, the mark of the last row that drew it. So no set is cleared between rows.
    std::vector<std::uint32_t> drawn_in_;
    std::uint32_t row_mark_ = 0;
    std::vector<NodeId> nodes_;
};

}  // namespace Lumenar::Core::Kelm
