#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <unordered_map>
#include <utility>
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

/// One entry of the causal map.
struct CauseEntry {
    std::uint64_t event_id = 0;
    Cause cause;
};

struct RecordedSpike {
    NodeId neuron = 0;
    std::uint32_t spike_kind = 0;     ///< given by the caller, not interpreted
    ModelTime time = 0;               ///< ns
    std::vector<PhaseSample> phases;  ///< of the oscillators reported for the neuron
    Cause cause;
};

/// The network at one time. A kind that is not selected leaves its list empty, or active_synapses
/// 0.
struct RecordedSample {
    ModelTime time = 0;                     ///< ns
    std::vector<double> membrane;           ///< shape (neurons)
    std::vector<double> adaptation;         ///< shape (neurons)
    std::vector<double> refractory_left;    ///< shape (neurons), ns; 0 for a neuron that may fire
    std::vector<double> next_candidate;     ///< shape (neurons), ns; -1 for none
    std::vector<double> spike_counts;       ///< shape (neurons): spikes since the last sample
    std::vector<double> oscillator_phases;  ///< radians, in the bank's order
    std::uint64_t active_synapses = 0;
};

/// What a recorder may read during one call. Views of kinds that are not selected may be empty.
struct SampleContext {
    std::span<const double> membrane;         ///< shape (neuron_count)
    std::span<const double> adaptation;       ///< shape (neuron_count)
    std::span<const double> refractory_left;  ///< shape (neuron_count), ns
    std::span<const double> next_candidate;   ///< shape (neuron_count), ns
    const OscillatorBank* oscillators = nullptr;
    std::uint64_t active_synapses = 0;
    std::uint64_t neuron_count = 0;
};

/// The record of a run: spikes, samples of the network at declared times, and the cause of each
/// event. It takes no part in the dynamics.
///
/// Samples come in ascending time, each after the spikes of its window. The lists only grow. Views
/// are valid until something is recorded or restored. If samples hold spike counts, each spike
/// takes 16 bytes until the next sample counts it, also if no sample follows.
class Recorder {
public:
    /// Throws InvalidRecorder for a negative sample interval.
    explicit Recorder(RecorderConfig config);

    const RecorderConfig& config() const { return config_; }

    /// Whether samples hold `kind`.
    bool selects(SampleKind kind) const {
        return kind <= SampleKind::spike_counts &&
               (selected_ >> static_cast<unsigned>(kind) & 1) != 0;
    }

    /// Notes the cause of an event. Does nothing without a causal map. A later note of the same
    /// event replaces an earlier one. Throws BrokenCausalTrace, with nothing changed, for a cause
    /// that was never noted itself.
    void noteCause(std::uint64_t event_id, Cause cause);

    /// Records a spike at `time` ns. The spike does not enter the causal map.
    /// Throws, with nothing changed, BrokenCausalTrace for a cause that was never noted, and
    /// std::out_of_range for a neuron that no table could hold.
    void recordSpikeEvent(NodeId neuron, ModelTime time, Cause cause, std::uint32_t spike_kind,
                          const SampleContext& context);

    /// Notes the cause of an event, and takes a sample if its kind is observation.
    /// Throws as noteCause does, without taking a sample.
    void recordObservation(const Event& event, const SampleContext& context, Cause cause);

    /// In the order of recording.
    std::span<const RecordedSpike> spikes() const { return state_.spikes; }
    std::span<const RecordedSample> samples() const { return state_.samples; }
    /// The causal map, ascending by event id.
    std::vector<CauseEntry> causes() const;

    /// What a run changes, but for spikes that no sample has counted yet.
    struct State {
        std::vector<RecordedSpike> spikes;
        std::vector<RecordedSample> samples;
        std::unordered_map<std::uint64_t, Cause> causes;  ///< by event id
    };
    void adopt(State&& state) noexcept;
    /// The spikes that no sample has counted yet, if samples count spikes.
    std::span<const SpikeRecord> uncounted() const { return uncounted_; }
    /// Replaces them.
    void setUncounted(std::vector<SpikeRecord>&& spikes) noexcept {
        uncounted_ = std::move(spikes);
    }

private:
    void requireKnown(Cause cause) const;
    void growCounts(std::uint64_t neuron_count);
    /// The spike counts of a sample at `time` ns. Removes the uncounted spikes up to that time.
    std::vector<double> countSpikes(ModelTime time);

    RecorderConfig config_;
    std::uint32_t selected_ = 0;  ///< a bit per SampleKind
    State state_;
    // Used for spike counts only. One list for all neurons: a list per neuron would allocate more.
    std::vector<SpikeRecord> uncounted_;  ///< spikes that no sample has counted yet
    std::vector<double> counts_;          ///< shape (neurons seen), all 0: those of the next sample
};

}  // namespace Lumenar::Core::Kelm
