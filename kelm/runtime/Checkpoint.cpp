#include "kelm/runtime/Checkpoint.h"

#include "kelm/core/Failures.h"

namespace Lumenar::Core::Kelm::Checkpoint {

namespace {

// The smallest size of each item.
constexpr std::size_t min_phase_log_bytes = 24;
constexpr std::size_t min_spike_bytes = 29;
constexpr std::size_t min_sample_bytes = 32;
constexpr std::size_t min_cause_bytes = 9;
constexpr std::size_t min_extension_bytes = 32;

void appendString(Blob& blob, std::string_view text) {
    appendU64(blob, text.size());
    appendBytes(blob, text.data(), text.size());
}

bool readString(BlobReader& in, std::string& text) {
    BlobView bytes;
    if (!in.readNested(bytes)) return false;
    text.assign(bytes.begin(), bytes.end());
    return true;
}

bool readPhases(BlobReader& in, std::vector<PhaseSample>& phases) {
    if (!in.readSequence(phases)) return false;
    for (PhaseSample& phase : phases) clearGap(phase.gap);
    return true;
}

void appendCause(Blob& blob, const Cause& cause) {
    appendFlag(blob, cause.present);
    if (cause.present) appendU64(blob, cause.id);
}

bool readCause(BlobReader& in, Cause& cause) {
    return in.readFlag(cause.present) && (!cause.present || in.readU64(cause.id));
}

/// Reads a sequence whose items take at least `item_bytes`, one by one.
template <class Item, class ReadItem>
bool readItems(BlobReader& in, std::size_t item_bytes, std::vector<Item>& items,
               ReadItem read_item) {
    std::uint64_t count = 0;
    if (!in.readCount(item_bytes, count)) return false;
    items.resize(count);
    for (Item& item : items) {
        if (!read_item(item)) return false;
    }
    return true;
}

}  // namespace

void appendHead(Blob& blob, std::string_view engine_version, const Head& head) {
    appendTag(blob, magic);
    appendString(blob, engine_version);
    appendString(blob, head.label);
    appendU64(blob, head.config_id);
    appendU64(blob, head.seed);
    appendI64(blob, head.position);
}

bool readHead(BlobReader& in, std::string_view engine_version, Head& head) {
    std::string version;
    if (!in.expectTag(magic) || !readString(in, version)) return false;
    if (version != engine_version) {
        throw IncompatibleCheckpoint(
            IncompatibleCheckpoint::version(version, std::string(engine_version)));
    }
    return readString(in, head.label) && in.readU64(head.config_id) && in.readU64(head.seed) &&
           in.readI64(head.position);
}

void appendPhaseLog(Blob& blob, std::span<const PhaseLogEntry> log) {
    appendU64(blob, log.size());
    for (const PhaseLogEntry& entry : log) {
        appendI64(blob, entry.time);
        appendU64(blob, entry.neuron);
        appendSequence(blob, entry.phases);
    }
}

bool readPhaseLog(BlobReader& in, std::vector<PhaseLogEntry>& log) {
    return readItems(in, min_phase_log_bytes, log, [&](PhaseLogEntry& entry) {
        return in.readI64(entry.time) && in.readU64(entry.neuron) && readPhases(in, entry.phases);
    });
}

void appendSpikes(Blob& blob, std::span<const RecordedSpike> spikes) {
    appendU64(blob, spikes.size());
    for (const RecordedSpike& spike : spikes) {
        appendU64(blob, spike.neuron);
        appendU32(blob, spike.spike_kind);
        appendI64(blob, spike.time);
        appendSequence(blob, spike.phases);
        appendCause(blob, spike.cause);
    }
}

bool readSpikes(BlobReader& in, std::vector<RecordedSpike>& spikes) {
    return readItems(in, min_spike_bytes, spikes, [&](RecordedSpike& spike) {
        return in.readU64(spike.neuron) && in.readU32(spike.spike_kind) && in.readI64(spike.time) &&
               readPhases(in, spike.phases) && readCause(in, spike.cause);
    });
}

void appendSamples(Blob& blob, std::span<const RecordedSample> samples) {
    appendU64(blob, samples.size());
    for (const RecordedSample& sample : samples) {
        appendI64(blob, sample.time);
        appendSequence(blob, sample.membrane);
        appendSequence(blob, sample.oscillator_phases);
        appendU64(blob, sample.active_synapses);
    }
}

bool readSamples(BlobReader& in, std::vector<RecordedSample>& samples) {
    return readItems(in, min_sample_bytes, samples, [&](RecordedSample& sample) {
        return in.readI64(sample.time) && in.readSequence(sample.membrane) &&
               in.readSequence(sample.oscillator_phases) && in.readU64(sample.active_synapses);
    });
}

void appendCauses(Blob& blob, std::span<const CauseEntry> causes) {
    appendU64(blob, causes.size());
    for (const CauseEntry& entry : causes) {
        appendU64(blob, entry.event_id);
        appendCause(blob, entry.cause);
    }
}

bool readCauses(BlobReader& in, std::unordered_map<std::uint64_t, Cause>& causes) {
    std::uint64_t count = 0;
    if (!in.readCount(min_cause_bytes, count)) return false;
    for (; count > 0; --count) {
        CauseEntry entry;
        if (!in.readU64(entry.event_id) || !readCause(in, entry.cause)) return false;
        causes.emplace(entry.event_id, entry.cause);
    }
    return true;
}

void appendSampleExtension(Blob& blob, std::span<const RecordedSample> samples) {
    appendU64(blob, extension_tag);
    appendU64(blob, samples.size());
    for (const RecordedSample& sample : samples) {
        appendSequence(blob, sample.adaptation);
        appendSequence(blob, sample.refractory_left);
        appendSequence(blob, sample.next_candidate);
        appendSequence(blob, sample.spike_counts);
    }
}

bool readSampleExtension(BlobReader& in, std::vector<RecordedSample>& samples) {
    std::uint64_t tag = 0;
    std::uint64_t count = 0;
    if (!in.readU64(tag) || tag != extension_tag) return false;
    if (!in.readCount(min_extension_bytes, count) || count != samples.size()) return false;
    for (RecordedSample& sample : samples) {
        if (!in.readSequence(sample.adaptation) || !in.readSequence(sample.refractory_left) ||
            !in.readSequence(sample.next_candidate) || !in.readSequence(sample.spike_counts)) {
            return false;
        }
    }
    return true;
}

void appendInterventions(Blob& blob, const InterventionState& interventions) {
    for (const double gain : interventions.mechanism_gain) appendF64(blob, gain);
    for (const bool off : interventions.mechanism_off) appendFlag(blob, off);
    appendSequence(blob, interventions.intervention_log);
}

bool readInterventions(BlobReader& in, InterventionState& interventions) {
    for (double& gain : interventions.mechanism_gain) {
        if (!in.readF64(gain)) return false;
    }
    for (bool& off : interventions.mechanism_off) {
        std::uint8_t byte = 0;
        if (!in.readU8(byte)) return false;
        off = byte != 0;
    }
    return in.readSequence(interventions.intervention_log);
}

void appendTakenSpikes(Blob& blob, const TakenSpikes& taken,
                       std::span<const SpikeRecord> uncounted) {
    if (taken.count == 0) return;
    appendTag(blob, taken_tag);
    appendU64(blob, taken.count);
    appendU64(blob, taken.digest);
    appendSequence(blob, uncounted);
}

bool readTakenSpikes(BlobReader& in, TakenSpikes& taken, std::vector<SpikeRecord>& uncounted) {
    return in.expectTag(taken_tag) && in.readU64(taken.count) && taken.count != 0 &&
           in.readU64(taken.digest) && in.readSequence(uncounted);
}

}  // namespace Lumenar::Core::Kelm::Checkpoint
