#pragma once

#include <cstdint>

#include "kelm/core/ModelTime.h"
#include "kelm/kernel/NeuronModel.h"
#include "kelm/network/SynapseGraph.h"

namespace Lumenar::Core::Kelm {

/// A small model whose neurons are all alike.
struct GateModel {
    SynapseGraph graph;
    Kernel::Neuron neuron;
    Kernel::Firing firing;
    ModelTime horizon;  ///< ns
};

/// Models that the parity matrix covers: indices from 0.
inline constexpr std::uint64_t catalogue_size = 20;

/// The catalogue's model `index`, by arithmetic on the index alone: a ring of 6 to 12 neurons, each
/// with one to four synapses to its successors, at one or two times the smallest delay.
GateModel buildModel(std::uint64_t index);

}  // namespace Lumenar::Core::Kelm
