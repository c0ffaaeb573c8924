#pragma once

#include <span>

#include "kelm/core/ModelTime.h"
#include "kelm/engine/SpikeRecord.h"

namespace Lumenar::Core::Kelm {

/// Told of each window that a runtime has committed, when all its parts have done their work.
class ICommitListener {
public:
    virtual ~ICommitListener() = default;
    /// `window_start`, `window_end`: ns. `spikes`: what the window added, by neuron, then time;
    /// valid during the call.
    virtual void committed(ModelTime window_start, ModelTime window_end,
                           std::span<const SpikeRecord> spikes) = 0;
};

}  // namespace Lumenar::Core::Kelm
