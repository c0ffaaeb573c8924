#pragma once

#include <span>

#include "kelm/core/ModelTime.h"

namespace Lumenar::Core::Kelm {

/// A neuron at one moment, before the events of that moment.
struct StateSample {
    double membrane = 0.0;
    double adaptation = 0.0;
    ModelTime refractory_left = 0;  ///< ns until the end of the refractory time; 0 after it
    double hazard = 0.0;            ///< spikes/s, without the external drive
};

/// Takes samples of chosen neurons at moments that it gives one by one. A run calls it on its own
/// thread. It takes no part in the dynamics.
class IStateSampler {
public:
    virtual ~IStateSampler() = default;
    /// The next moment in ns, later than the one before; last_model_time for none.
    virtual ModelTime nextSample() const = 0;
    virtual std::span<const NodeId> neurons() const = 0;
    /// `samples`: shape (neurons()), at nextSample(), which then moves on.
    virtual void addSamples(std::span<const StateSample> samples) = 0;
};

}  // namespace Lumenar::Core::Kelm
