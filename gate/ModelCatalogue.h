#pragma once

#include <cstdint>

#include "kelm/core/ModelTime.h"
#include "kelm/kernel/NeuronModel.h"
#include "kelm/network/SynapseGraph.h"

namespace Lumenar::Core::Kelm {

/// A small model. All neurons are equal.
struct GateModel {
    SynapseGraph graph;
    Kernel::Neuron neuron;
    Kernel::Firing firing;
    ModelTime horizon;  ///< ns
};

/// The parity matrix covers the models with indices below this.
inline constexpr std::uint64_t catalogue_size = 20;

/// Model `index` of the catalogue, computed from the index alone: a ring of 6 to 12 neurons, each
/// with one to four synapses to its successors, with one or two times the smallest delay.
GateModel buildModel(std::uint64_t index);

}  // namespace Lumenar::Core::Kelm
