#pragma once

#include <span>

#include "kelm/core/ModelTime.h"
#include "kelm/engine/SpikeRecord.h"

namespace Lumenar::Core::Kelm {

/// A runtime calls it for each committed window, after all its parts have processed the window.
class ICommitListener {
public:
    virtual ~ICommitListener() = default;
    /// `window_start`, `window_end`: ns. `spikes`: the spikes of the window, by neuron, then time;
    /// valid during the call.
    virtual void committed(ModelTime window_start, ModelTime window_end,
                           std::span<const SpikeRecord> spikes) = 0;
};

}  // namespace Lumenar::Core::Kelm
