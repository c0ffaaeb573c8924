#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kelm/core/LargePages.h"
#include "kelm/core/ModelTime.h"
#include "kelm/engine/SpikeRecord.h"
#include "kelm/engine/WindowProfile.h"
#include "kelm/events/Event.h"
#include "kelm/kernel/NeuronModel.h"
#include "kelm/network/SynapseGraph.h"

namespace Lumenar::Core::Kelm {

class CudaWindowBackend;

/// The result of a whole run on the device.
struct ResidentRun {
    double core_seconds = 0.0;      ///< s, the loop over the windows
    double setup_seconds = 0.0;     ///< s, up to the first window
    double finalize_seconds = 0.0;  ///< s, all after the last window
    std::uint64_t spikes = 0;
    std::uint64_t deliveries = 0;  ///< arrivals emitted, including those of pending_events
    std::uint64_t windows = 0;     ///< steps of the loop, including steps in which nothing happened
    std::uint64_t log_hash = 0;    ///< digest of log
    std::uint64_t state_hash = 0;  ///< digest of states
    std::uint64_t random_hash = 0;     ///< digest of random_states
    bool capacity_ok = false;          ///< no bucket and no log was too small, so the rest is valid
    LargeArray<Kernel::State> states;  ///< shape (neurons)
    std::vector<std::uint64_t> random_states;  ///< shape (neurons)
    std::vector<ModelTime> candidate_times;    ///< shape (neurons), ns, or no_time
    std::vector<double> candidate_rates;       ///< shape (neurons), spikes/s
    std::vector<SpikeRecord> log;              ///< by time, then neuron
    WindowProfile profile;                     ///< counts windows in which something happened
    std::vector<Event> pending_events;         ///< arrivals after the last window, by target
    std::uint64_t last_window = 0;             ///< index of the last window that profile counts
    /// A neuron exceeded its rate bound or its spikes a window. The ordinary loop ends such a run
    /// with an error, and the rest of this result means nothing.
    bool model_fault = false;
};

/// Computes a whole run on the device, for a network in which every neuron has `fanout` synapses,
/// all enabled and all with the delay `window`. Every arrival of a window then falls into the next
/// one, so two buckets take the place of an event store, and the host reads 8 bytes a window. One
/// thread sorts all arrivals of a neuron, so a neuron with very many incoming synapses can take
/// very long.
///
/// `backend`: its device memory is used. `shards`: checked, without other effect. `neuron`,
/// `firing`: the parameters of every neuron. `window`: ns. `horizon`: ns; the run ends with the
/// last whole window. `seed`: of all random streams.
///
/// Throws WindowEngineError for dimensions of 0, more shards than neurons, or times out of range;
/// for a neuron with another fan-out; for a synapse that does not transmit or has another delay;
/// and for a failed device call. Throws the exception of the device's library for a failed sort or
/// scan. A bucket or log that is too small makes capacity_ok false.
ResidentRun runResidentRecurrence(CudaWindowBackend& backend, SynapseGraph& graph,
                                  std::uint64_t fanout, std::uint32_t shards,
                                  const Kernel::Neuron& neuron, const Kernel::Firing& firing,
                                  ModelTime window, ModelTime horizon, std::uint64_t seed);

/// Whether a network has the shape that can run whole on the device: every neuron has the same
/// number of synapses, at least one, and every synapse transmits and has the smallest delay. Needs
/// no device. `reason`: receives why not, or an empty text after true; may be null.
bool residentEligible(SynapseGraph& graph, std::string* reason);

}  // namespace Lumenar::Core::Kelm
