#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kelm/core/Blob.h"
#include "kelm/core/ModelTime.h"
#include "kelm/engine/SpikeRecord.h"
#include "kelm/runtime/InterventionState.h"
#include "kelm/runtime/PhaseLogEntry.h"
#include "kelm/runtime/Recorder.h"

// The byte grammar of a runtime's checkpoint. A string is a 64-bit length and its bytes. A sequence
// is a 64-bit count and its items. A nested blob is a 64-bit length and the blob; length 0 means
// that the runtime has no such part.
//
//   magic               8 bytes "KELMV1\r\n"
//   engine version      string
//   label               string
//   config id, seed     u64, u64
//   position            i64
//   engine              nested blob "KELMWEN3"
//   plasticity          nested blob "KELMPLS1"
//   learning            nested blob "KELMLRN1"
//   oscillators         nested blob "KELMOSC2"
//   phase log           sequence: time i64, neuron u64, phases: sequence of PhaseSample images
//   spikes              sequence: neuron u64, kind u32, time i64, phases as above, cause
//   samples             sequence: time i64, membrane and oscillator phases: two sequences of f64,
//                       active synapses u64
//   causes              sequence, ascending by event id: event id u64, cause
//   channels            sequence: gain f64, connected u8, InputChannelStats image
//   prediction count    u64, the number of error channels
//   precisions          f64 per error channel      } these three only in a runtime
//   observations        sequence of images         } that has prediction
//   reserved pair       f64, f64                   }
//   gains, switches     9 f64, 9 u8
//   intervention log    sequence of u64
//   commit count        u64
//   extension tag       u64 0x5245435354415445
//   extension           sequence, one item per sample: adaptation, refractory left, next candidate,
//                       spike counts: four sequences of f64
//   taken spikes        8 bytes "TAKENSPK", count u64, digest u64: the spikes that were taken out
//                       of the engine's log; then a sequence, time i64 and neuron u64: the spikes
//                       that no sample has counted, if samples count spikes. Only if some were
//                       taken
//
// A cause is a byte 1 and the id u64, or a byte 0. A file may end after the commit count. The
// samples then lack the values of the extension.

namespace Lumenar::Core::Kelm::Checkpoint {

inline constexpr BlobTag magic("KELMV1\r\n");
inline constexpr std::uint64_t extension_tag = 0x5245435354415445;
inline constexpr BlobTag taken_tag("TAKENSPK");

/// The identity and position of the runtime that wrote a checkpoint.
struct Head {
    std::string label;
    std::uint64_t config_id = 0;
    std::uint64_t seed = 0;
    ModelTime position = 0;  ///< ns
};

void appendHead(Blob& blob, std::string_view engine_version, const Head& head);
/// False for another magic or a head that is cut short.
/// Throws IncompatibleCheckpoint for a version other than `engine_version`.
[[nodiscard]] bool readHead(BlobReader& in, std::string_view engine_version, Head& head);

void appendPhaseLog(Blob& blob, std::span<const PhaseLogEntry> log);
void appendSpikes(Blob& blob, std::span<const RecordedSpike> spikes);
void appendSamples(Blob& blob, std::span<const RecordedSample> samples);
void appendCauses(Blob& blob, std::span<const CauseEntry> causes);
void appendSampleExtension(Blob& blob, std::span<const RecordedSample> samples);
void appendInterventions(Blob& blob, const InterventionState& interventions);
/// Appends nothing if no spike was taken.
void appendTakenSpikes(Blob& blob, const TakenSpikes& taken,
                       std::span<const SpikeRecord> uncounted);

// Each reader returns false on malformed input, and then leaves its last argument unspecified. It
// compares every count with the remaining bytes before it allocates.
[[nodiscard]] bool readPhaseLog(BlobReader& in, std::vector<PhaseLogEntry>& log);
[[nodiscard]] bool readSpikes(BlobReader& in, std::vector<RecordedSpike>& spikes);
[[nodiscard]] bool readSamples(BlobReader& in, std::vector<RecordedSample>& samples);
/// Of two entries of one event it takes the first.
[[nodiscard]] bool readCauses(BlobReader& in, std::unordered_map<std::uint64_t, Cause>& causes);
/// Completes the samples that readSamples gave.
[[nodiscard]] bool readSampleExtension(BlobReader& in, std::vector<RecordedSample>& samples);
[[nodiscard]] bool readInterventions(BlobReader& in, InterventionState& interventions);
[[nodiscard]] bool readTakenSpikes(BlobReader& in, TakenSpikes& taken,
                                   std::vector<SpikeRecord>& uncounted);

}  // namespace Lumenar::Core::Kelm::Checkpoint
