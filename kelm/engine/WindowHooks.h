#pragma once

#include <span>

#include "kelm/core/ModelTime.h"
#include "kelm/engine/SpikeRecord.h"
#include "kelm/events/Event.h"
#include "kelm/kernel/WindowProcessing.h"
#include "kelm/network/SynapseGraph.h"

// The three doors through which a composed runtime takes part in a run. All calls come on the
// thread of the run, at fixed places in a window; times are in ns.

namespace Lumenar::Core::Kelm {

/// Called when a window's work list is complete, before the backend: sees states and streams as of
/// the last commit, and may change the items, in particular their drives.
class IWindowPrepare {
public:
    virtual ~IWindowPrepare() = default;
    virtual void prepare(ModelTime window_start, ModelTime window_end, std::span<WindowWork> work,
                         SynapseGraph& graph) = 0;
};

/// Called when all of a window's results are in force, its spikes in the log and their deliveries
/// in the store. `spikes` holds what this window added, in the order of commit: by neuron, then
/// time. The graph may be changed: plasticity acts here.
class IWindowCommit {
public:
    virtual ~IWindowCommit() = default;
    virtual void commit(ModelTime window_start, ModelTime window_end,
                        std::span<const SpikeRecord> spikes, SynapseGraph& graph) = 0;
};

/// Called with the state of every neuron as of a declared moment, after the commit of the window
/// that holds it. The views are valid during the call.
class IWindowObserver {
public:
    virtual ~IWindowObserver() = default;
    virtual void observe(const Event& event, std::span<const Kernel::State> states,
                         SynapseGraph& graph) = 0;
    /// `candidate_times`: shape (neurons), ns, each neuron's next candidate or no_time.
    virtual void observe(const Event& event, std::span<const Kernel::State> states,
                         std::span<const ModelTime> candidate_times, SynapseGraph& graph) = 0;
};

}  // namespace Lumenar::Core::Kelm
