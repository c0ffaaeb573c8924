#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "kelm/core/ModelTime.h"
#include "kelm/engine/StateSample.h"

namespace Lumenar::Core::Kelm {

/// A field of a neuron that a probe samples.
enum class ProbeField : std::uint8_t {
    membrane = 0,
    adaptation = 1,
    refractory_left = 2,  ///< ns until the end of the refractory time; 0 after it
    hazard = 3,           ///< spikes/s, without oscillators and prediction errors
};

struct ProbeConfig {
    std::vector<NodeId> neurons;  ///< in the order of the samples; may repeat
    std::vector<ProbeField> fields;
    ModelTime interval = 0;  ///< ns; samples come at its multiples
};

/// Samples of fields of chosen neurons at an interval. The values are those of
/// KelmRuntime::statesAt. They do not depend on how a run is cut into calls, and they do not
/// disturb the run.
///
/// KelmRuntime::addProbe makes one. A view is valid until the next run, take or restore.
class Probe final : public IStateSampler {
public:
    /// What was sampled.
    struct Samples {
        std::vector<ModelTime> times;                 ///< ns, ascending
        std::array<std::vector<double>, 4> by_field;  ///< shape (times, neurons) or empty
    };

    /// `from`: ns; no sample comes before. Throws InvalidProbe for no neuron, for a neuron outside
    /// a network of `neuron_count`, for an interval below 1, for no field and for an unknown one,
    /// in this order.
    Probe(ProbeConfig config, std::uint64_t neuron_count, ModelTime from);

    const ProbeConfig& config() const { return config_; }
    std::span<const ModelTime> times() const { return samples_.times; }
    /// Shape (times(), neurons), one sample after the other. Empty for a field that is not sampled.
    std::span<const double> values(ProbeField field) const {
        return samples_.by_field[static_cast<std::size_t>(field)];
    }
    /// Moves all samples out.
    Samples take();
    /// Drops all samples. The next moment is the first multiple of the interval from `from` ns on.
    void restart(ModelTime from);

    ModelTime nextSample() const override { return next_; }
    std::span<const NodeId> neurons() const override { return config_.neurons; }
    void addSamples(std::span<const StateSample> samples) override;

private:
    ProbeConfig config_;
    Samples samples_;
    ModelTime next_ = 0;
};

}  // namespace Lumenar::Core::Kelm
