#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/core/ModelTime.h"
#include "kelm/network/Synapse.h"

namespace Lumenar::Core::Kelm {

/// One field of many synapses: a borrowed column, or one value for all.
template <class T>
class SynapseColumn {
public:
    SynapseColumn() = default;
    /// The same value for all synapses.
    template <class Value>
    requires std::is_arithmetic_v<Value> SynapseColumn(Value value)
        : value_(static_cast<T>(value)) {}
    /// One value for each synapse. The values must exist while the column is in use.
    SynapseColumn(std::span<const T> values)
        : values_(values.data()), size_(values.size()), is_column_(true) {}
    SynapseColumn(const std::vector<T>& values) : SynapseColumn(std::span<const T>(values)) {}

    T operator[](std::size_t i) const { return is_column_ ? values_[i] : value_; }
    /// True for a column of `count` values, and for one value for all.
    bool covers(std::size_t count) const { return !is_column_ || size_ == count; }
    /// The length of the column; 0 for one value for all.
    std::size_t size() const { return size_; }

private:
    const T* values_ = nullptr;
    std::size_t size_ = 0;
    T value_ = T();
    bool is_column_ = false;
};

/// A list of synapses in columns, shape (synapse_count) each. Borrows the columns. The fields of a
/// synapse that have no column have their default values.
struct SynapseColumns {
    std::span<const NodeId> sources = {};
    std::span<const NodeId> targets = {};
    SynapseColumn<float> weights = {};            ///< magnitudes, finite and not negative
    SynapseColumn<ModelTime> delays = {};         ///< ns
    SynapseColumn<std::uint8_t> inhibitory = {};  ///< 0 for excitatory, 1 for inhibitory

    /// The synapse count. Throws InvalidSynapse for a column of another length than `sources`.
    std::size_t size() const {
        requireLength("targets", targets.size() == sources.size(), targets.size());
        requireLength("weights", weights.covers(sources.size()), weights.size());
        requireLength("delays", delays.covers(sources.size()), delays.size());
        requireLength("inhibitory", inhibitory.covers(sources.size()), inhibitory.size());
        return sources.size();
    }
    /// Synapse `i`, which must lie below size(). Throws InvalidSynapse for a sign above 1.
    Synapse operator[](std::size_t i) const {
        const std::uint8_t sign = inhibitory[i];
        if (sign > 1) throw InvalidSynapse(InvalidSynapse::sign);
        return {.source = sources[i],
                .target = targets[i],
                .weight = weights[i],
                .delay = delays[i],
                .inhibitory = sign == 1};
    }

private:
    void requireLength(const char* name, bool fits, std::size_t length) const {
        if (!fits) throw InvalidSynapse(InvalidSynapse::length(name, length, sources.size()));
    }
};

}  // namespace Lumenar::Core::Kelm
