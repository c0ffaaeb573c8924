#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "kelm/core/ModelTime.h"
#include "kelm/network/Projection.h"
#include "kelm/network/Synapse.h"
#include "kelm/network/SynapseGraph.h"

namespace Lumenar::Core::Kelm {

/// A network described by projections. Builds its graph, or visits the synapses of some targets.
///
/// All draws come from random streams of RandomContext under `seed`. So the network depends only on
/// the projections and the seed. The streams of the projection NAME are
///
/// - ("wiring/NAME/pairs", row): the synapses of a row, which are those of one target, or of one
///   source for fixed out-degree; `row` is its NodeId;
/// - ("wiring/NAME/weight", row) and ("wiring/NAME/delay", row): their values, see SynapseValues;
/// - ("wiring/NAME/counts", 0): the synapse counts of all targets for a fixed total number.
///
/// So no projection changes with another one, no pair with the values, and no row with another row
/// except through the counts.
///
/// below(n) is a uniform integer in [0, n): the upper word of the product of n and the stream's
/// next number. The number is drawn again if the lower word is below 2^64 modulo n. Source:
/// D. Lemire, "Fast random integer generation in an interval", ACM Transactions on Modeling and
/// Computer Simulation 29 (2019). The candidates of a row are the sources in ascending order (the
/// targets for fixed out-degree), without the neuron itself if the rule excludes self-connections;
/// n is their count. The rules draw as follows:
///
/// - Degree k with multiple connections: k times candidate below(n).
/// - Degree k without: for j = n - k to n - 1, candidate below(j + 1), or candidate j if that one
///   is taken. Source: R. W. Floyd in J. Bentley, "A sample of brilliance", Communications of the
///   ACM 30 (1987).
/// - Fixed out-degree: as above; then the targets are sorted.
/// - Fixed total number: each synapse is first given to a target. For T targets and S sources, it
///   draws target below(T), then candidate below(S). It draws both again if the candidate is not
///   below the target's n, or, without multiple connections, if it is below the target's count so
///   far. If the rule excludes nothing, no candidate is drawn. If multiple connections are excluded
///   and the number is more than half of all possible pairs, the pairs that are left out are given
///   to targets in this way instead. Then each target draws its sources with its count as degree.
///   So all pairs are equally likely, and without multiple connections all sets of pairs.
/// - Bernoulli with probability p: before each synapse, floor(log(unit()) / log1p(-p)) candidates
///   are skipped; nothing is drawn for p = 0. Source: V. Batagelj, U. Brandes, "Efficient
///   generation of large random networks", Physical Review E 71 (2005). With w = 1 - p, log1p(-p)
///   is -p if w is 1, and log(w) * (p / (1 - w)) otherwise.
///
/// Time is proportional to the synapses and neurons that are made. Two rules make more than a part:
/// a fixed total number counts the synapses of all targets, and a fixed out-degree draws those of
/// all sources.
class Wiring {
public:
    /// `min_delay`: declared smallest delay in ns, or none.
    ///
    /// Throws InvalidSynapse for a min_delay below 1, and std::invalid_argument for more than
    /// 2^32 - 1 neurons, or, with the name of the projection, for one that
    /// - has an empty name, or that of an earlier one;
    /// - has neurons outside the network;
    /// - has a rule that cannot be: one-to-one between ranges of different counts, or from a range
    ///   to itself without self-connections; a degree or number above what the ranges allow, or of
    ///   more than 2^48 synapses; a probability outside [0, 1];
    /// - has values that are not finite, or that may lie below 0 (weights) or below min_delay
    ///   (delays), so a drawn delay needs within(min_delay, ...); or an array of another length
    ///   than its synapses.
    Wiring(std::uint64_t node_count, std::optional<ModelTime> min_delay,
           std::vector<Projection> projections, std::uint64_t seed);

    /// The graph of all projections. EdgeIds ascend by source, then by projection, then by target,
    /// so that deliveries need no outgoing lists. Synapses from one source to one target in one
    /// projection keep the order of visit().
    ///
    /// Draws the pairs twice, first to count them, and keeps no list: the peak of memory is the
    /// graph's table (20 bytes a synapse) and at most 20 bytes a neuron. Throws
    /// std::invalid_argument if no draw of a value is within its bounds, or if a function returns a
    /// value outside; and what a function throws.
    SynapseGraph build() const;

    /// The share of a rank: the synapses that enter its neurons, which are those of the layout
    /// formula. To be called by all ranks. No rank makes the pairs of another one, but for a fixed
    /// out-degree, whose pairs all ranks draw. Throws as build(), on all ranks.
    SynapseGraph buildShare(IRankGroup& ranks) const;

    /// Calls visit(synapse) for all synapses with targets in [first, end): projection by
    /// projection, and in each by ascending target, then in the order of the draws. A fixed
    /// out-degree comes by ascending source, then target. The synapses are those of the whole
    /// network, in the same order. Throws std::out_of_range for a range outside the network, and
    /// what build() throws.
    void visit(NodeId first, NodeId end, const std::function<void(const Synapse&)>& visit) const;

private:
    /// The synapses with targets in [first, end), sorted by source, then projection. Makes
    /// `projections`, if it is given, the index of the projection of each.
    SynapseTable table(NodeId first, NodeId end, LargeArray<std::uint64_t>* projections) const;

    std::uint64_t node_count_;
    std::optional<ModelTime> min_delay_;
    std::vector<Projection> projections_;
    std::uint64_t seed_;
};

}  // namespace Lumenar::Core::Kelm
