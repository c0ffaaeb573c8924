#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

#include "kelm/core/ModelTime.h"
#include "kelm/engine/SpikeRecord.h"
#include "kelm/events/Event.h"
#include "kelm/runtime/PhaseSample.h"
#include "kelm/runtime/RecorderConfig.h"

namespace Lumenar::Core::Kelm {

class OscillatorBank;

/// The id of the event that caused something, or none.
struct Cause {
    std::uint64_t id = 0;
    bool present = false;
};

/// What the causal map knows of one event.
struct CauseEntry {
    std::uint64_t event_id = 0;
    Cause cause;
};

struct RecordedSpike {
    NodeId neuron = 0;
    std::uint32_t spike_kind = 0;     ///< given by the caller, not interpreted
    ModelTime time = 0;               ///< ns
    std::vector<PhaseSample> phases;  ///< of the neuron's oscillators at that time
    Cause cause;
};

/// The network at one moment. Each list is empty, and active_synapses 0, unless its kind is
/// selected.
struct RecordedSample {
    ModelTime time = 0;                     ///< ns
    std::vector<double> membrane;           ///< shape (neurons)
    std::vector<double> adaptation;         ///< shape (neurons)
    std::vector<double> refractory_left;    ///< shape (neurons), ns; 0 for a neuron that may fire
    std::vector<double> next_candidate;     ///< shape (neurons), ns; -1 for none
    std::vector<double> spike_counts;       ///< shape (neurons): spikes that no earlier sample has
    std::vector<double> oscillator_phases;  ///< radians, in the bank's order
    std::uint64_t active_synapses = 0;
};

/// What a recorder may look at during one call. Views of kinds that are not selected may be empty.
struct SampleContext {
    std::span<const double> membrane;         ///< shape (neuron_count)
    std::span<const double> adaptation;       ///< shape (neuron_count)
    std::span<const double> refractory_left;  ///< shape (neuron_count), ns
    std::span<const double> next_candidate;   ///< shape (neuron_count), ns
    const OscillatorBank* oscillators = nullptr;
    std::uint64_t active_synapses = 0;
    std::uint64_t neuron_count = 0;
};

/// The memory of a run: spikes, samples of the network at declared moments, and which event caused
/// which. It takes no part in the dynamics.
///
/// Samples come in ascending time, each behind the spikes of the window that holds it. The lists
/// only grow; views are valid until something is recorded or restored. Where samples hold spike
/// counts, spikes wait for the next sample to count them, 16 bytes each: without a sample to come
/// they wait for good.
class Recorder {
public:
    /// Throws std::invalid_argument for a negative sample interval.
    explicit Recorder(RecorderConfig config);

    const RecorderConfig& config() const { return config_; }

    /// Whether samples hold `kind`.
    bool selects(SampleKind kind) const {
        return kind <= SampleKind::spike_counts &&
               (selected_ >> static_cast<unsigned>(kind) & 1) != 0;
    }

    /// Takes note of what caused an event. Without a causal map this does nothing; with one the
    /// cause must have been noted before, and a later note of one event replaces the earlier.
    /// Throws BrokenCausalTrace, with nothing changed, for a cause that was never noted.
    void noteCause(std::uint64_t event_id, Cause cause);

    /// Records a spike at `time` ns. The spike does not itself enter the causal map.
    /// Throws, with nothing changed, BrokenCausalTrace for a cause that was never noted, and
    /// std::out_of_range for a neuron that no table could hold.
    void recordSpikeEvent(NodeId neuron, ModelTime time, Cause cause, std::uint32_t spike_kind,
                          const SampleContext& context);

    /// Notes the cause of any event, and takes a sample for one of kind observation.
    /// Throws as noteCause does; no sample is taken then.
    void recordObservation(const Event& event, const SampleContext& context, Cause cause);

    /// In the order of recording.
    std::span<const RecordedSpike> spikes() const { return spikes_; }
    std::span<const RecordedSample> samples() const { return samples_; }
    /// The causal map, ascending by event id.
    std::vector<CauseEntry> causes() const;

    /// The causal map: the cause of each event by its id.
    using CauseMap = std::unordered_map<std::uint64_t, Cause>;
    /// Of two entries of one event the first stands.
    static CauseMap causeMapOf(std::span<const CauseEntry> causes);

    /// Replaces spikes, samples and causal map. Spikes that wait for their sample are left as they
    /// are.
    void restoreState(std::vector<RecordedSpike> spikes, std::vector<RecordedSample> samples,
                      CauseMap causes) noexcept;

private:
    void requireKnown(Cause cause) const;
    void growCounts(std::uint64_t neuron_count);
    /// The spike counts of a sample at `time` ns: takes out the uncounted spikes up to then.
    std::vector<double> countSpikes(ModelTime time);

    RecorderConfig config_;
    std::uint32_t selected_ = 0;  ///< a bit per SampleKind
    std::vector<RecordedSpike> spikes_;
    std::vector<RecordedSample> samples_;
    // For spike counts alone. One list, and not one a neuron, each of which would ask for memory: a
    // sample leaves no more behind than the spikes of its own window.
    std::vector<SpikeRecord> uncounted_;  ///< spikes that no sample has counted yet
    std::vector<double> counts_;          ///< shape (neurons seen), all 0: those of the next sample
    CauseMap causes_;
};

}  // namespace Lumenar::Core::Kelm
