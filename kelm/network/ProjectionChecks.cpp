#include "kelm/network/ProjectionChecks.h"

#include <span>

#include "kelm/core/PortableMath.h"
#include "kelm/network/ConnectionRows.h"

namespace Lumenar::Core::Kelm {

namespace {

using Kind = ConnectionRule::Kind;

/// Far more than any memory holds, and small enough that sums do not overflow.
constexpr std::uint64_t max_synapses = std::uint64_t{1} << 48;

const char* nameOf(Kind kind) {
    switch (kind) {
        case Kind::one_to_one:
            return "one-to-one";
        case Kind::all_to_all:
            return "all-to-all";
        case Kind::fixed_in_degree:
            return "fixed in-degree";
        case Kind::fixed_out_degree:
            return "fixed out-degree";
        case Kind::fixed_total_number:
            return "fixed total number";
        case Kind::bernoulli:
            break;
    }
    return "Bernoulli";
}

void checkRange(const Projection& projection, const char* name, const NeuronRange& range,
                std::uint64_t node_count) {
    if (range.first > node_count || range.count > node_count - range.first) {
        refuseProjection(projection, range.count, " ", name, " from neuron ", range.first,
                         " on are not in a network of ", node_count, " neurons");
    }
}

void checkDegree(const Projection& projection) {
    const ConnectionRule& rule = projection.rule;
    const ConnectionRows shape(projection);
    if (rule.count == 0 || shape.rows.count == 0) return;
    const NodeId row = shape.narrowestRow();
    const std::uint64_t candidates = shape.candidatesOf(row);
    if (candidates == 0 || (!rule.multiple_connections && rule.count > candidates)) {
        refuseProjection(projection, nameOf(rule.kind), " ", rule.count, " exceeds the ",
                         candidates, " possible ", (hasRowsOfSources(rule) ? "targets" : "sources"),
                         " of neuron ", row);
    }
}

void checkTotalNumber(const Projection& projection) {
    const ConnectionRule& rule = projection.rule;
    const std::uint64_t pairs = ConnectionRows(projection).pairs();
    if (rule.count == 0) return;
    if (pairs == 0 || (!rule.multiple_connections && rule.count > pairs)) {
        refuseProjection(projection, nameOf(rule.kind), " ", rule.count, " exceeds the ", pairs,
                         " possible pairs");
    }
}

void checkOneToOne(const Projection& projection) {
    const NeuronRange& sources = projection.sources;
    const NeuronRange& targets = projection.targets;
    if (sources.count != targets.count) {
        refuseProjection(projection, "one-to-one cannot connect ", sources.count, " sources to ",
                         targets.count, " targets");
    }
    if (!projection.rule.self_connections && sources.count > 0 && sources.first == targets.first) {
        refuseProjection(projection,
                         "one-to-one of neurons to themselves has only self-connections");
    }
}

void checkRule(const Projection& projection) {
    const ConnectionRule& rule = projection.rule;
    const ConnectionRows shape(projection);
    switch (rule.kind) {
        case Kind::one_to_one:
            checkOneToOne(projection);
            break;
        case Kind::all_to_all:
            break;
        case Kind::fixed_in_degree:
        case Kind::fixed_out_degree:
            checkDegree(projection);
            break;
        case Kind::fixed_total_number:
            checkTotalNumber(projection);
            break;
        case Kind::bernoulli:
            if (!(rule.probability >= 0.0 && rule.probability <= 1.0)) {
                refuseProjection(projection, "Bernoulli probability ", rule.probability,
                                 " is not in [0, 1]");
            }
            break;
    }
    const bool has_degree =
        rule.kind == Kind::fixed_in_degree || rule.kind == Kind::fixed_out_degree;
    const bool fits = has_degree && shape.rows.count > 0
                          ? rule.count <= max_synapses / shape.rows.count
                          : synapseCount(projection).value_or(0) <= max_synapses;
    if (!fits) {
        refuseProjection(projection, nameOf(rule.kind), " makes more than ", max_synapses,
                         " synapses");
    }
}

void checkDistribution(const Projection& projection, const std::string& name,
                       const SynapseValues& values, const ValueBounds& field) {
    using Of = SynapseValues::Kind;
    constexpr double infinity = std::numeric_limits<double>::infinity();
    const double first = values.first();
    const double second = values.second();
    const auto require = [&](bool met, const char* rule) {
        if (!met) {
            refuseProjection(projection, name, " distribution (", first, ", ", second,
                             ") must have ", rule);
        }
    };
    require(!Kernel::isNotFinite(first) && !Kernel::isNotFinite(second), "finite parameters");
    ValueBounds support = {0.0, infinity};
    if (values.kind() == Of::uniform) {
        require(first <= second && !Kernel::isNotFinite(second - first), "low <= high");
        support = {first, second};
    } else if (values.kind() == Of::exponential) {
        require(first > 0.0, "a positive mean");
    } else {
        require(second >= 0.0, "a standard deviation >= 0");
        if (values.kind() == Of::normal) support.low = -infinity;
    }
    if (!(std::max(support.low, values.low()) >= field.low)) {
        refuseProjection(projection, name, " may be drawn below ", field.low,
                         "; limit it with within()");
    }
    const ValueBounds bounds = boundsOf(values, field);
    if (!(std::max(support.low, bounds.low) <= std::min(support.high, bounds.high))) {
        refuseProjection(projection, name, " is never drawn within ", bounds.text());
    }
}

void checkValues(const Projection& projection, const std::string& name, const SynapseValues& values,
                 const ValueBounds& field) {
    // Also refuses a NaN.
    if (!(values.low() <= values.high())) {
        refuseProjection(projection, name, " cannot be within ",
                         ValueBounds{values.low(), values.high()}.text());
    }
    const ValueBounds bounds = boundsOf(values, field);
    switch (values.kind()) {
        case SynapseValues::Kind::missing:
            refuseProjection(projection, "the ", name, " is missing");
        case SynapseValues::Kind::constant:
            if (!bounds.contain(values.first())) {
                refuseProjection(projection, name, " ", values.first(), " is not in ",
                                 bounds.text());
            }
            return;
        case SynapseValues::Kind::array: {
            const std::span<const double> array = values.array();
            const std::optional<std::uint64_t> count = synapseCount(projection);
            if (!count) {
                refuseProjection(projection, name, " of a Bernoulli rule cannot be an array");
            }
            if (array.size() != *count) {
                refuseProjection(projection, name, " array has ", array.size(), " values for ",
                                 *count, " synapses");
            }
            for (std::size_t i = 0; i < array.size(); ++i) {
                if (!bounds.contain(array[i])) {
                    refuseProjection(projection, name, " ", array[i], " at index ", i,
                                     " is not in ", bounds.text());
                }
            }
            return;
        }
        case SynapseValues::Kind::function:
            if (!values.function()) refuseProjection(projection, name, " function is empty");
            return;
        default:
            checkDistribution(projection, name, values, field);
    }
}

}  // namespace

void checkProjection(const Projection& projection, std::uint64_t node_count,
                     std::optional<ModelTime> min_delay) {
    checkRange(projection, "sources", projection.sources, node_count);
    checkRange(projection, "targets", projection.targets, node_count);
    checkRule(projection);
    checkValues(projection, "weight", projection.weight, weight_bounds);
    checkValues(projection, "delay", projection.delay, delayBounds(min_delay));
}

}  // namespace Lumenar::Core::Kelm
