#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "kelm/core/Blob.h"
#include "kelm/core/Digest.h"
#include "kelm/core/ModelTime.h"
#include "kelm/engine/ParameterTable.h"
#include "kelm/engine/SpikeRecord.h"
#include "kelm/kernel/NeuronModel.h"
#include "kelm/network/SynapseGraph.h"
#include "kelm/runtime/InputChannelSpec.h"
#include "kelm/runtime/PhaseConfig.h"
#include "kelm/runtime/PlasticityConfig.h"
#include "kelm/runtime/PredictionConfig.h"
#include "kelm/runtime/RecorderConfig.h"

// A fingerprint is the digest of these bytes, little-endian and without gaps. A flag is a byte 0 or
// 1. A text and a list begin with their 64-bit length. A part that is missing is a flag 0.
//
//   tag          8 bytes "KELMFPR1"
//   network      neurons u64; flag and, if 1, window i64; excitatory on, inhibitory on: flags;
//                list of synapses: source u64, target u64, weight f32, delay i64, bits u8
//                (1 inhibitory, 2 enabled, 4 routed, 8 changed), last change i64 if changed
//   parameters   for each run of equal neurons: length u64, neuron, firing; then u64 0
//     neuron     tau membrane, tau adaptation, refractory period: i64; adaptation increment, input
//                coupling, reset value, trace epsilon: f64; hard refractory, non-leaky: flags
//     firing     base rate, gain, threshold, adaptation weight, rate scale, max rate: f64
//   horizon      i64
//   plasticity   flag; tau pre, post, coincidence: i64; epsilon f64; excitatory, inhibitory rule:
//                kind u8, potentiation, depression, coincidence, scale f64; homeostasis: flag, cap
//                f64
//   phase        flag; list of oscillators: id u32, frequency, phase, amplitude f64; list by neuron
//                of lists of bindings: oscillator u32, polarity u8, strength, offset f64; list of
//                couplings: source, target u32, strength f64; coupling period i64
//   recorder     flag; record spikes, causal: flags; sample interval i64; u32 with bit k for kind k
//   channels     list: name text, list of targets u64, delay i64, gain f64
//   prediction   flag; list of channels: name text, list of targets u64, precision, strength, clamp
//                f64; list of predictors: flag, kind u8, list of sources u64, list of weights f64,
//                bias f64
//   given spikes list: time i64, neuron u64; only if there are some

namespace Lumenar::Core::Kelm {

/// The digest of a sequence of fields. Numbers are taken by their bits, so -0.0 differs from 0.0:
/// the two can lead to other results. All NaNs are one value, because their bits differ from
/// machine to machine.
class Fingerprint {
public:
    std::uint64_t value() const { return hash_; }

    void addTag(const BlobTag& tag) { addBytes({tag.bytes, 8}); }
    void addFlag(bool value) { addU8(value ? 1 : 0); }
    void addU8(std::uint8_t value) { hash_ = digestByte(hash_, value); }
    void addU32(std::uint32_t value) { addNumber<4>(value); }
    void addU64(std::uint64_t value) { addNumber<8>(value); }
    void addI64(std::int64_t value) { addNumber<8>(static_cast<std::uint64_t>(value)); }
    void addF32(float value);
    void addF64(double value);
    void addText(std::string_view text) {
        addU64(text.size());
        addBytes(text);
    }

private:
    void addBytes(std::string_view bytes) {
        for (const char byte : bytes) addU8(static_cast<std::uint8_t>(byte));
    }
    template <int bytes>
    void addNumber(std::uint64_t value) {
        for (int i = 0; i < bytes; ++i) addU8(static_cast<std::uint8_t>(value >> (8 * i)));
    }

    std::uint64_t hash_ = digest_start;
};

// The share of each setting. The grammar above gives the order.

void addSettings(Fingerprint& print, const Kernel::Neuron& neuron);
void addSettings(Fingerprint& print, const Kernel::Firing& firing);
/// Not const because the graph may compute its dMin().
void addSettings(Fingerprint& print, SynapseGraph& network);
void addSettings(Fingerprint& print, const PlasticityConfig& plasticity);
void addSettings(Fingerprint& print, const PhaseConfig& phase);
void addSettings(Fingerprint& print, const RecorderConfig& recorder);
void addSettings(Fingerprint& print, std::span<const InputChannelSpec> channels);
void addSettings(Fingerprint& print, const PredictionConfig& prediction);

/// A 64-bit digest of all that decides a run of makeKelmRuntime besides the seed: the network as it
/// is now, the parameters of every neuron, window, horizon and the settings of the parts. The same
/// on every machine. As config id it keeps a runtime from continuing another model's checkpoint.
///
/// Left out are fields that nothing reads (`reserved`, `spare_flag`, `modality`), and what callers
/// set later: a checkpoint holds that, or it is a callable, or the memberships of oscillators,
/// which a caller sets again. A part that is switched off counts as missing. Without a store of the
/// caller, the window is the network's dMin(). Takes about 0.04 microseconds a synapse.
std::uint64_t fingerprint(SynapseGraph& network, const Kernel::Neuron& neuron,
                          const Kernel::Firing& firing, ModelTime horizon,
                          const PlasticityConfig& plasticity = {},
                          const std::optional<PhaseConfig>& phase = std::nullopt,
                          const std::optional<RecorderConfig>& recorder = std::nullopt,
                          std::span<const InputChannelSpec> input_channels = {},
                          const std::optional<PredictionConfig>& prediction = std::nullopt);

/// The same for neurons that differ. A table of equal neurons gives the value of the function
/// above. Throws WindowEngineError for a table of another number of neurons than the network has.
std::uint64_t fingerprint(SynapseGraph& network, const ParameterTable& parameters,
                          ModelTime horizon, const PlasticityConfig& plasticity = {},
                          const std::optional<PhaseConfig>& phase = std::nullopt,
                          const std::optional<RecorderConfig>& recorder = std::nullopt,
                          std::span<const InputChannelSpec> input_channels = {},
                          const std::optional<PredictionConfig>& prediction = std::nullopt,
                          std::span<const SpikeRecord> given_spikes = {});

/// The same for a network on several ranks, of which `share` is the part of this one; `parameters`
/// are those of the whole network. To be called by all ranks. All synapses pass through rank 0.
std::uint64_t fingerprint(IRankGroup& ranks, SynapseGraph& share, const ParameterTable& parameters,
                          ModelTime horizon, const PlasticityConfig& plasticity,
                          const std::optional<PhaseConfig>& phase,
                          const std::optional<RecorderConfig>& recorder,
                          std::span<const InputChannelSpec> input_channels,
                          const std::optional<PredictionConfig>& prediction,
                          std::span<const SpikeRecord> given_spikes);

/// The same for one record a neuron. `neurons`, `firings`: shape (network.nodeCount()).
/// Throws WindowEngineError for another count.
std::uint64_t fingerprint(SynapseGraph& network, std::span<const Kernel::Neuron> neurons,
                          std::span<const Kernel::Firing> firings, ModelTime horizon,
                          const PlasticityConfig& plasticity = {},
                          const std::optional<PhaseConfig>& phase = std::nullopt,
                          const std::optional<RecorderConfig>& recorder = std::nullopt,
                          std::span<const InputChannelSpec> input_channels = {},
                          const std::optional<PredictionConfig>& prediction = std::nullopt);

}  // namespace Lumenar::Core::Kelm
