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
        throw std::invalid_argument("recorder sample interval must not be negative");
    }
    for (const SampleKind kind : config_.sample_kinds) {
        if (kind <= SampleKind::spike_counts) selected_ |= 1U << static_cast<unsigned>(kind);
    }
}

void Recorder::noteCause(std::uint64_t event_id, Cause cause) {
    if (!config_.causal) return;
    requireKnown(cause);
    causes_.insert_or_assign(event_id, cause);
}

void Recorder::recordSpikeEvent(NodeId neuron, ModelTime time, Cause cause,
                                std::uint32_t spike_kind, const SampleContext& context) {
    if (config_.causal) requireKnown(cause);
    RecordedSpike spike{neuron, spike_kind, time, {}, cause};
    if (config_.record_spikes && context.oscillators != nullptr) {
        spike.phases = context.oscillators->neuronPhases(neuron, time);
    }
    if (selects(SampleKind::spike_counts)) {
        if (neuron >= uncounted_.max_size()) {
            throw std::out_of_range("recorder spike neuron is out of range");
        }
        growUncounted(neuron + 1);
        uncounted_[neuron].insert(time);
    }
    if (config_.record_spikes) spikes_.push_back(std::move(spike));
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
    // Last, because it uses the spikes up.
    if (selects(SampleKind::spike_counts)) {
        growUncounted(context.neuron_count);
        sample.spike_counts.reserve(uncounted_.size());
        for (UncountedSpikes& spikes : uncounted_) {
            sample.spike_counts.push_back(static_cast<double>(spikes.takeUpTo(event.time)));
        }
    }
    samples_.push_back(std::move(sample));
}

std::vector<CauseEntry> Recorder::causes() const {
    std::vector<CauseEntry> entries;
    entries.reserve(causes_.size());
    for (const auto& [event_id, cause] : causes_) entries.push_back({event_id, cause});
    // The map's own order depends on its history; keys are unique, so this one is total.
    std::sort(entries.begin(), entries.end(),
              [](const CauseEntry& a, const CauseEntry& b) { return a.event_id < b.event_id; });
    return entries;
}

void Recorder::restoreState(std::vector<RecordedSpike> spikes, std::vector<RecordedSample> samples,
                            std::span<const CauseEntry> causes) {
    std::unordered_map<std::uint64_t, Cause> map;
    for (const CauseEntry& entry : causes) map.emplace(entry.event_id, entry.cause);
    spikes_ = std::move(spikes);
    samples_ = std::move(samples);
    causes_ = std::move(map);
}

void Recorder::UncountedSpikes::insert(ModelTime time) {
    const auto live = times.begin() + static_cast<std::ptrdiff_t>(first);
    times.insert(std::upper_bound(live, times.end(), time), time);
}

std::size_t Recorder::UncountedSpikes::takeUpTo(ModelTime time) {
    const auto live = times.begin() + static_cast<std::ptrdiff_t>(first);
    const auto taken = static_cast<std::size_t>(std::upper_bound(live, times.end(), time) - live);
    first += taken;
    // At least as many die as move, so a time is moved once on average.
    if (first >= times.size() - first) {
        times.erase(times.begin(), times.begin() + static_cast<std::ptrdiff_t>(first));
        first = 0;
    }
    return taken;
}

void Recorder::requireKnown(Cause cause) const {
    if (cause.present && !causes_.contains(cause.id)) {
        throw BrokenCausalTrace(BrokenCausalTrace::unknown_cause);
    }
}

void Recorder::growUncounted(std::uint64_t neuron_count) {
    if (uncounted_.size() < neuron_count) uncounted_.resize(neuron_count);
}

}  // namespace Lumenar::Core::Kelm
