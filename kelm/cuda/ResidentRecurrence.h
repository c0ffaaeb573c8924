#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kelm/core/ModelTime.h"
#include "kelm/engine/SpikeRecord.h"
#include "kelm/engine/WindowProfile.h"
#include "kelm/events/Event.h"
#include "kelm/kernel/NeuronModel.h"
#include "kelm/network/SynapseGraph.h"

namespace Lumenar::Core::Kelm {

class CudaWindowBackend;

/// A whole run on the device, as it ended.
struct ResidentRun {
    double core_seconds = 0.0;      ///< s, the loop over the windows
    double setup_seconds = 0.0;     ///< s, up to the first window
    double finalize_seconds = 0.0;  ///< s, from the last window to the last download
    std::uint64_t spikes = 0;
    std::uint64_t deliveries = 0;   ///< arrivals emitted, those that no window has taken included
    std::uint64_t windows = 0;      ///< steps of the loop, those in which nothing happened included
    std::uint64_t log_hash = 0;     ///< digest of log
    std::uint64_t state_hash = 0;   ///< digest of states
    std::uint64_t random_hash = 0;  ///< digest of random_states
    /// No bucket and not the log were too small, and no result carried a flag: all else is valid.
    bool capacity_ok = false;
    std::vector<Kernel::State> states;         ///< shape (neurons)
    std::vector<std::uint64_t> random_states;  ///< shape (neurons)
    std::vector<ModelTime> candidate_times;    ///< shape (neurons), ns, or no_time
    std::vector<double> candidate_rates;       ///< shape (neurons), spikes/s
    std::vector<SpikeRecord> log;              ///< by time, then neuron
    WindowProfile profile;                     ///< windows: those in which something happened
    std::vector<Event> pending_events;         ///< what no window has taken, by target
    std::uint64_t last_window = 0;             ///< index of the last counted window, if any
};

/// Runs a whole simulation on the device, for a network in which every neuron has `fanout`
/// synapses, all enabled and all with the delay `window`. Every arrival of a window then falls into
/// the next, so two buckets take the place of an event store, and the host reads 8 bytes per
/// window.
///
/// `backend`: whose device memory is used. `shards`: validated alone. `neuron`, `firing`: of every
/// neuron. `window`: ns. `horizon`: ns; the run ends with the last whole window. `seed`: of all
/// random streams.
/// Throws WindowEngineError for dimensions of 0, more shards than neurons or times out of range;
/// for a neuron of another fan-out; for a synapse that does not transmit or has another delay; and
/// for a failed device call. A bucket or log that is too small is no error but capacity_ok false.
ResidentRun runResidentRecurrence(CudaWindowBackend& backend, SynapseGraph& graph,
                                  std::uint64_t fanout, std::uint32_t shards,
                                  const Kernel::Neuron& neuron, const Kernel::Firing& firing,
                                  ModelTime window, ModelTime horizon, std::uint64_t seed);

/// Whether a network has the one shape that runs whole on the device: the same number of synapses
/// from every neuron, at least one, all transmitting and all with the smallest delay. Needs no
/// device. `reason`: null, or told why not; empty after true.
bool residentEligible(SynapseGraph& graph, std::string* reason);

}  // namespace Lumenar::Core::Kelm
