#pragma once

#include <span>

#include "kelm/core/ModelTime.h"
#include "kelm/engine/SpikeRecord.h"
#include "kelm/events/Event.h"
#include "kelm/kernel/WindowProcessing.h"
#include "kelm/network/SynapseGraph.h"

// The three hooks through which a composed runtime takes part in a run. The engine calls them on
// the thread of the run, at fixed places in a window. Times are in ns.

namespace Lumenar::Core::Kelm {

/// Called when a window's work list is complete, before the backend. States and streams are those
/// of the last commit. The hook may change the items, in particular their drives.
class IWindowPrepare {
public:
    virtual ~IWindowPrepare() = default;
    virtual void prepare(ModelTime window_start, ModelTime window_end, std::span<WindowWork> work,
                         SynapseGraph& graph) = 0;
};

/// Called when all results of a window are committed, its spikes in the log and their deliveries
/// posted. `spikes` holds the window's spikes in the order of commit: by neuron, then time. The
/// hook may change the graph, as plasticity does.
class IWindowCommit {
public:
    virtual ~IWindowCommit() = default;
    virtual void commit(ModelTime window_start, ModelTime window_end,
                        std::span<const SpikeRecord> spikes, SynapseGraph& graph) = 0;
};

/// Called with the state of every neuron at a declared moment, after the commit of the window that
/// holds the moment. The views are valid during the call.
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
