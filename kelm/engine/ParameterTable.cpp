#include "kelm/engine/ParameterTable.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <type_traits>
#include <unordered_map>

#include "kelm/core/Failures.h"
#include "kelm/core/SplitMix64.h"

namespace Lumenar::Core::Kelm {

namespace {

/// Neighbours with the same parameters, as a constructor gets them.
struct Group {
    std::uint64_t size;
    const Kernel::Neuron* neuron;
    const Kernel::Firing* firing;

    bool hasBitsOf(const Group& other) const {
        return std::memcmp(neuron, other.neuron, sizeof *neuron) == 0 &&
               std::memcmp(firing, other.firing, sizeof *firing) == 0;
    }
};

template <class Record>
std::uint64_t mixWords(std::uint64_t hash, const Record& record) {
    static_assert(sizeof(Record) % sizeof hash == 0 && std::is_trivially_copyable_v<Record>);
    std::uint64_t words[sizeof(Record) / sizeof hash];
    std::memcpy(words, &record, sizeof record);
    for (const std::uint64_t word : words) hash = splitmixOutput(hash ^ word);
    return hash;
}

}  // namespace

ParameterTable::ParameterTable(std::uint64_t neuron_count, const Kernel::Neuron& neuron,
                               const Kernel::Firing& firing) {
    build(1, [&](std::size_t) { return Group{neuron_count, &neuron, &firing}; });
}

ParameterTable::ParameterTable(std::span<const Kernel::Neuron> neurons,
                               std::span<const Kernel::Firing> firings) {
    build(neurons.size(), [&](std::size_t i) { return Group{1, &neurons[i], &firings[i]}; });
}

ParameterTable::ParameterTable(std::span<const Population> populations) {
    build(populations.size(), [&](std::size_t i) {
        const Population& population = populations[i];
        return Group{population.size, &population.neuron, &population.firing};
    });
}

ParameterTable ParameterTable::part(NodeId first, NodeId end) const {
    ParameterTable part(*this);
    part.neuron_count_ = end - first;
    if (!index_.empty()) {
        const auto begin = index_.begin() + static_cast<std::ptrdiff_t>(first);
        part.index_ =
            LargeArray<std::uint32_t>(begin, begin + static_cast<std::ptrdiff_t>(end - first));
    }
    return part;
}

/// `group_at(i)`: the group at index i. The first pass finds the first group of each entry, so that
/// the entries take their exact memory.
template <class GroupAt>
void ParameterTable::build(std::size_t group_count, GroupAt group_at) {
    for (std::size_t i = 0; i < group_count; ++i) {
        if (group_at(i).size > std::numeric_limits<std::uint64_t>::max() - neuron_count_) {
            throw WindowEngineError(WindowEngineError::parameter_count);
        }
        neuron_count_ += group_at(i).size;
    }

    std::vector<std::size_t> firsts;  ///< by entry: its first group
    const auto hash = [&](std::size_t i) {
        const Group group = group_at(i);
        return static_cast<std::size_t>(mixWords(mixWords(0, *group.neuron), *group.firing));
    };
    const auto equal = [&](std::size_t a, std::size_t b) {
        return group_at(a).hasBitsOf(group_at(b));
    };
    std::unordered_map<std::size_t, std::uint32_t, decltype(hash), decltype(equal)> entry_of(
        0, hash, equal);
    std::uint32_t entry = 0;
    NodeId end = 0;
    for (std::size_t i = 0; i < group_count; ++i) {
        const Group group = group_at(i);
        if (group.size == 0) continue;
        if (firsts.empty() || !group.hasBitsOf(group_at(firsts[entry]))) {
            entry =
                entry_of.try_emplace(i, static_cast<std::uint32_t>(firsts.size())).first->second;
            if (entry == firsts.size()) firsts.push_back(i);
            if (firsts.size() == 2 && index_.empty()) index_.resize(neuron_count_);
        }
        if (!index_.empty())
            std::fill_n(index_.begin() + static_cast<std::ptrdiff_t>(end), group.size, entry);
        end += group.size;
    }
    entries_.reserve(std::max<std::size_t>(firsts.size(), 1));
    for (const std::size_t i : firsts) {
        entries_.push_back({*group_at(i).neuron, *group_at(i).firing});
    }
    if (entries_.empty()) entries_.emplace_back();
}

bool ParameterTable::isHeterogeneous() const {
    const auto differs = [&](const Entry& entry) {
        return !(entry.neuron == entries_[0].neuron) || !(entry.firing == entries_[0].firing);
    };
    return neuron_count_ > 1 && std::any_of(entries_.begin(), entries_.end(), differs);
}

}  // namespace Lumenar::Core::Kelm
