#include "kelm/runtime/Recorder.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "kelm/core/Failures.h"
#include "kelm/runtime/OscillatorBank.h"

namespace Lumenar::Core::Kelm {

namespace {

void copyInto(std::vector<double>& list, std::span<const double> values) {
    list.assign(values.begin(), values.end());
}

}  // namespace

Recorder::Recorder(RecorderConfig config) : config_(std::move(config)) {
    if (config_.sample_interval < 0) {
        throw withDetail(InvalidRecorder(InvalidRecorder::negative_interval),
                         {.field = "sample_interval",
                          .value = decimal(config_.sample_interval) + " ns",
                          .bound = "at least 0 ns"});
    }
    for (const SampleKind kind : config_.sample_kinds) {
        if (kind <= SampleKind::spike_counts) selected_ |= 1U << static_cast<unsigned>(kind);
    }
}

void Recorder::noteCause(std::uint64_t event_id, Cause cause) {
    if (!config_.causal) return;
    requireKnown(cause);
    state_.causes.insert_or_assign(event_id, cause);
}

void Recorder::recordSpikeEvent(NodeId neuron, ModelTime time, Cause cause,
                                std::uint32_t spike_kind, const SampleContext& context) {
    if (config_.causal) requireKnown(cause);
    RecordedSpike spike{neuron, spike_kind, time, {}, cause};
    if (config_.record_spikes && context.oscillators != nullptr) {
        spike.phases = context.oscillators->neuronPhases(neuron, time);
    }
    if (selects(SampleKind::spike_counts)) {
        if (neuron >= counts_.max_size()) {
            throw std::out_of_range("recorder spike neuron is out of range");
        }
        growCounts(neuron + 1);
        uncounted_.push_back({time, neuron});
    }
    if (config_.record_spikes) state_.spikes.push_back(std::move(spike));
}

void Recorder::recordObservation(const Event& event, const SampleContext& context, Cause cause) {
    noteCause(event.id, cause);
    if (event.kind != EventKind::observation) return;
    RecordedSample sample;
    sample.time = event.time;
    if (selects(SampleKind::membrane)) copyInto(sample.membrane, context.membrane);
    if (selects(SampleKind::adaptation)) copyInto(sample.adaptation, context.adaptation);
    if (selects(SampleKind::refractory_left)) {
        copyInto(sample.refractory_left, context.refractory_left);
    }
    if (selects(SampleKind::next_candidate)) {
        copyInto(sample.next_candidate, context.next_candidate);
    }
    if (selects(SampleKind::oscillator_phases) && context.oscillators != nullptr) {
        for (const PhaseSample& phase : context.oscillators->allPhases(event.time)) {
            sample.oscillator_phases.push_back(phase.phase);
        }
    }
    if (selects(SampleKind::active_synapses)) sample.active_synapses = context.active_synapses;
    // Last, because it removes the spikes that it counts.
    if (selects(SampleKind::spike_counts)) {
        growCounts(context.neuron_count);
        sample.spike_counts = countSpikes(event.time);
    }
    state_.samples.push_back(std::move(sample));
}

std::vector<CauseEntry> Recorder::causes() const {
    std::vector<CauseEntry> entries;
    entries.reserve(state_.causes.size());
    for (const auto& [event_id, cause] : state_.causes) entries.push_back({event_id, cause});
    // The map's own order depends on its history. Keys are unique, so this order is total.
    std::sort(entries.begin(), entries.end(),
              [](const CauseEntry& a, const CauseEntry& b) { return a.event_id < b.event_id; });
    return entries;
}

void Recorder::adopt(State&& state) noexcept { state_ = std::move(state); }

void Recorder::requireKnown(Cause cause) const {
    if (cause.present && !state_.causes.contains(cause.id)) {
        throw BrokenCausalTrace(BrokenCausalTrace::unknown_cause);
    }
}

void Recorder::growCounts(std::uint64_t neuron_count) {
    if (counts_.size() < neuron_count) counts_.resize(neuron_count);
}

std::vector<double> Recorder::countSpikes(ModelTime time) {
    // Allocated before a spike is removed, because the allocation may fail.
    std::vector<double> next(counts_.size());
    std::erase_if(uncounted_, [&](const SpikeRecord& spike) {
        if (spike.time > time) return false;
        counts_[spike.neuron] += 1.0;
        return true;
    });
    return std::exchange(counts_, std::move(next));
}

}  // namespace Lumenar::Core::Kelm
