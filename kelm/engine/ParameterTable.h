#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "kelm/core/LargePages.h"
#include "kelm/core/ModelTime.h"
#include "kelm/kernel/NeuronModel.h"

namespace Lumenar::Core::Kelm {

/// Consecutive neurons with the same parameters.
struct Population {
    std::string name = {};   ///< for messages; may be empty
    std::uint64_t size = 0;  ///< neurons
    Kernel::Neuron neuron = {};
    Kernel::Firing firing = {};
};

/// `size` independent Poisson processes of `rate_hz` spikes/s each: neurons of constant hazard that
/// no input changes. A window must hold far fewer than 8 spikes of one process.
inline Population poissonSources(std::string name, std::uint64_t size, double rate_hz) {
    return {std::move(name), size,
            Kernel::Neuron{.refractory_period = 0, .adaptation_increment = 0.0},
            Kernel::Firing{.base_rate = rate_hz, .gain = 0.0, .max_rate = rate_hz}};
}

/// `size` neurons that never fire by themselves. Their spikes can be given to the run.
inline Population spikeSources(std::string name, std::uint64_t size) {
    return {std::move(name), size, Kernel::Neuron{}, Kernel::Firing{.base_rate = 0.0}};
}

/// The parameters of every neuron: each distinct pair of records once, and 4 bytes a neuron that
/// select the pair. Where all neurons are alike, these 4 bytes are not stored either.
///
/// Two pairs are the same if they have the same bits. Fixed once built.
class ParameterTable {
public:
    struct Entry {
        Kernel::Neuron neuron;
        Kernel::Firing firing;
    };

    /// `neuron_count` neurons that are all alike.
    ParameterTable(std::uint64_t neuron_count, const Kernel::Neuron& neuron,
                   const Kernel::Firing& firing);
    /// `neurons`, `firings`: shape (neurons), both.
    ParameterTable(std::span<const Kernel::Neuron> neurons,
                   std::span<const Kernel::Firing> firings);
    /// The populations follow each other: the first one begins with neuron 0.
    /// Throws WindowEngineError for sizes whose sum exceeds 64 bits.
    explicit ParameterTable(std::span<const Population> populations);

    /// The parameters of the neurons in [first, end).
    ParameterTable part(NodeId first, NodeId end) const;

    std::uint64_t neuronCount() const { return neuron_count_; }
    /// Of a neuron below neuronCount().
    const Entry& operator[](NodeId neuron) const { return entries_[indexOf(neuron)]; }
    /// The place in entries() of a neuron's parameters.
    std::uint32_t indexOf(NodeId neuron) const { return index_.empty() ? 0 : index_[neuron]; }
    /// Each distinct pair, in the order of its first neuron. A table without neurons has one pair
    /// of default parameters.
    std::span<const Entry> entries() const { return entries_; }
    /// Whether the parameters of all neurons have the same bits.
    bool isUniform() const { return entries_.size() == 1; }
    /// Whether the parameters of a neuron differ from those of neuron 0 as numbers. A NaN differs
    /// from every number, also from itself.
    bool isHeterogeneous() const;

private:
    template <class GroupAt>
    void build(std::size_t group_count, GroupAt group_at);

    std::uint64_t neuron_count_ = 0;
    std::vector<Entry> entries_;
    LargeArray<std::uint32_t> index_;  ///< shape (neurons); empty where all neurons are alike
};

}  // namespace Lumenar::Core::Kelm
