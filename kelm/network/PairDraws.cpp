#include "kelm/network/PairDraws.h"

#include <algorithm>
#include <cstddef>
#include <numeric>

#include "kelm/core/PortableMath.h"
#include "kelm/network/WiringStream.h"

namespace Lumenar::Core::Kelm {

namespace {

using Kind = ConnectionRule::Kind;

/// log1p(-p). Source of the correction: D. Goldberg, "What every computer scientist should know
/// about floating-point arithmetic", ACM Computing Surveys 23 (1991), theorem 4.
double logOfFailure(double p) {
    const double w = 1.0 - p;
    return w == 1.0 ? -p : Kernel::kernelLog(w) * (p / (1.0 - w));
}

}  // namespace

PairDraws::PairDraws(const Projection& projection, std::uint64_t seed)
    : rule_(projection.rule),
      shape_(projection),
      seed_(seed),
      stream_name_(streamName(projection, "pairs")) {
    if (rule_.kind == Kind::bernoulli) log_failure_ = logOfFailure(rule_.probability);
    if (rule_.kind == Kind::fixed_total_number) countRows(streamName(projection, "counts"));
    const bool has_degree = rule_.kind == Kind::fixed_in_degree ||
                            rule_.kind == Kind::fixed_out_degree ||
                            rule_.kind == Kind::fixed_total_number;
    if (has_degree && !rule_.multiple_connections) drawn_in_.resize(shape_.columns.count);
}

std::uint64_t PairDraws::firstIndex(NodeId row) const {
    const std::uint64_t place = row - shape_.rows.first;
    switch (rule_.kind) {
        case Kind::one_to_one:
            return place;
        case Kind::all_to_all:
            return shape_.pairsBelow(row);
        case Kind::fixed_in_degree:
        case Kind::fixed_out_degree:
            return place * rule_.count;
        case Kind::fixed_total_number:
            return std::accumulate(row_counts_.begin(),
                                   row_counts_.begin() + static_cast<std::ptrdiff_t>(place),
                                   std::uint64_t{0});
        case Kind::bernoulli:
            break;
    }
    return 0;
}

std::span<const NodeId> PairDraws::draw(NodeId row) {
    nodes_.clear();
    switch (rule_.kind) {
        case Kind::one_to_one:
            nodes_.push_back(shape_.columns.first + (row - shape_.rows.first));
            break;
        case Kind::all_to_all:
            for (std::uint64_t i = 0; i < shape_.candidatesOf(row); ++i) add(row, i);
            break;
        case Kind::fixed_in_degree:
            choose(row, rule_.count);
            break;
        case Kind::fixed_out_degree:
            choose(row, rule_.count);
            std::sort(nodes_.begin(), nodes_.end());
            break;
        case Kind::fixed_total_number:
            choose(row, row_counts_[row - shape_.rows.first]);
            break;
        case Kind::bernoulli:
            skip(row);
            break;
    }
    return nodes_;
}

void PairDraws::choose(NodeId row, std::uint64_t count) {
    const std::uint64_t candidates = shape_.candidatesOf(row);
    WiringStream stream(seed_, stream_name_, row);
    if (rule_.multiple_connections) {
        for (std::uint64_t i = 0; i < count; ++i) add(row, stream.below(candidates));
        return;
    }
    ++row_mark_;
    for (std::uint64_t j = candidates - count; j < candidates; ++j) {
        std::uint64_t chosen = stream.below(j + 1);
        if (drawn_in_[chosen] == row_mark_) chosen = j;
        drawn_in_[chosen] = row_mark_;
        add(row, chosen);
    }
}

void PairDraws::skip(NodeId row) {
    const std::uint64_t candidates = shape_.candidatesOf(row);
    if (rule_.probability == 0.0) return;
    WiringStream stream(seed_, stream_name_, row);
    for (std::uint64_t next = 0; next < candidates; ++next) {
        const double skipped = Kernel::kernelLog(stream.unit()) / log_failure_;
        // Compared before the conversion, which has no result for a large number.
        if (!(skipped < static_cast<double>(candidates - next))) return;
        next += static_cast<std::uint64_t>(skipped);
        add(row, next);
    }
}

void PairDraws::countRows(const std::string& stream_name) {
    row_counts_.resize(shape_.rows.count);
    std::uint64_t number = rule_.count;
    if (number == 0) return;
    const bool counts_rest = !rule_.multiple_connections && number > shape_.pairs() - number;
    if (counts_rest) number = shape_.pairs() - number;
    const bool excludes = !rule_.self_connections || !rule_.multiple_connections;
    WiringStream stream(seed_, stream_name, 0);
    for (std::uint64_t i = 0; i < number; ++i) {
        std::uint64_t place = stream.below(shape_.rows.count);
        if (excludes) {
            while (isExcluded(place, stream.below(shape_.columns.count))) {
                place = stream.below(shape_.rows.count);
            }
        }
        ++row_counts_[place];
    }
    if (!counts_rest) return;
    for (std::uint64_t place = 0; place < shape_.rows.count; ++place) {
        row_counts_[place] = shape_.candidatesOf(shape_.rows.first + place) - row_counts_[place];
    }
}

}  // namespace Lumenar::Core::Kelm
