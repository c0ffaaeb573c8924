#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "kelm/core/Gap.h"
#include "kelm/core/ModelTime.h"
#include "kelm/runtime/PlasticityConfig.h"

// The records of learning control: states of synapses, journal entries, settings and counts.

namespace Lumenar::Core::Kelm {

/// The weight of a learning synapse as the sum of a lasting and a fading part. Goes into blobs byte
/// for byte.
struct SynapseLearningState {
    double slow = 0.0;             ///< lasting part of the weight
    double fast = 0.0;             ///< fading part of the weight
    double last_weight = 0.0;      ///< the weight that learning last wrote or read
    std::uint8_t initialized = 0;  ///< not 0 after the first proposal that took effect
    std::uint8_t pending = 0;      ///< not 0 once the synapse is in the list of pending edges
    Gap<6> gap = {};               ///< always zero: equal states have equal bytes
};
static_assert(std::is_trivially_copyable_v<SynapseLearningState> &&
              std::is_standard_layout_v<SynapseLearningState>);
static_assert(sizeof(SynapseLearningState) == 32);
static_assert(offsetof(SynapseLearningState, fast) == 8);
static_assert(offsetof(SynapseLearningState, last_weight) == 16);
static_assert(offsetof(SynapseLearningState, initialized) == 24);
static_assert(offsetof(SynapseLearningState, pending) == 25);
static_assert(offsetof(SynapseLearningState, gap) == 26);

/// Why a journal entry was written.
enum class JournalKind : std::uint8_t {
    update = 0,         ///< a proposal took effect
    decay = 1,          ///< the fading part faded
    consolidation = 2,  ///< a share of the fading part became lasting
    external = 3,       ///< something else had changed the weight
};

/// One noted change of a synapse. Goes into blobs byte for byte.
struct JournalEntry {
    EdgeId edge = 0;
    ModelTime time = 0;          ///< ns
    double weight_before = 0.0;  ///< that learning last wrote or read
    double weight_after = 0.0;   ///< as written to the network
    double fast_before = 0.0;
    double fast_after = 0.0;
    double slow_before = 0.0;
    double slow_after = 0.0;
    ModelTime pre_last_spike = 0;   ///< ns, from the proposal; 0 without one
    ModelTime post_last_spike = 0;  ///< ns, from the proposal; 0 without one
    double delta = 0.0;             ///< from the proposal; 0 without one
    PlasticityRuleKind rule_kind = PlasticityRuleKind::none;  ///< from the proposal
    JournalKind kind = JournalKind::update;
    Gap<6> gap = {};  ///< always zero: equal entries have equal bytes
};
static_assert(std::is_trivially_copyable_v<JournalEntry> &&
              std::is_standard_layout_v<JournalEntry>);
static_assert(sizeof(JournalEntry) == 96);
static_assert(offsetof(JournalEntry, time) == 8);
static_assert(offsetof(JournalEntry, weight_before) == 16);
static_assert(offsetof(JournalEntry, weight_after) == 24);
static_assert(offsetof(JournalEntry, fast_before) == 32);
static_assert(offsetof(JournalEntry, fast_after) == 40);
static_assert(offsetof(JournalEntry, slow_before) == 48);
static_assert(offsetof(JournalEntry, slow_after) == 56);
static_assert(offsetof(JournalEntry, pre_last_spike) == 64);
static_assert(offsetof(JournalEntry, post_last_spike) == 72);
static_assert(offsetof(JournalEntry, delta) == 80);
static_assert(offsetof(JournalEntry, rule_kind) == 88);
static_assert(offsetof(JournalEntry, kind) == 89);
static_assert(offsetof(JournalEntry, gap) == 90);

/// The result of the gate from a time on. Goes into blobs byte for byte.
struct ModulatorSample {
    ModelTime time = 0;     ///< ns
    std::uint8_t open = 0;  ///< 0: nothing is learned
    Gap<7> gap = {};        ///< always zero: equal samples have equal bytes
};
static_assert(std::is_trivially_copyable_v<ModulatorSample> &&
              std::is_standard_layout_v<ModulatorSample>);
static_assert(sizeof(ModulatorSample) == 16);
static_assert(offsetof(ModulatorSample, open) == 8);
static_assert(offsetof(ModulatorSample, gap) == 9);

/// How weights split into a lasting and a fading part. Goes into blobs byte for byte.
struct FastWeightSettings {
    std::uint8_t enabled = 0;         ///< not 0: learning goes to the fading part
    Gap<7> gap = {};                  ///< always zero: equal settings have equal bytes
    ModelTime tau = 500'000'000;      ///< ns; time constant of the fading, at least 1
    double consolidation_rate = 0.0;  ///< share that becomes lasting per window, in [0, 1]
};
static_assert(std::is_trivially_copyable_v<FastWeightSettings> &&
              std::is_standard_layout_v<FastWeightSettings>);
static_assert(sizeof(FastWeightSettings) == 24);
static_assert(offsetof(FastWeightSettings, gap) == 1);
static_assert(offsetof(FastWeightSettings, tau) == 8);
static_assert(offsetof(FastWeightSettings, consolidation_rate) == 16);

/// Which entries the journal keeps.
enum class JournalMode : std::uint8_t {
    off = 0,
    every = 1,
    sampled = 2,  ///< the first of each 1 / rate entries
};

/// The counts of one window's learning.
struct LearningStatistics {
    std::uint64_t applied = 0;           ///< proposals that took effect
    std::uint64_t blocked_by_group = 0;  ///< proposals whose target's group may not learn
    std::uint64_t gated = 0;             ///< proposals that met a closed gate
    std::uint64_t frozen_out = 0;        ///< proposals that met a freeze
    std::uint64_t decayed = 0;           ///< fading parts that faded
    std::uint64_t consolidated = 0;      ///< fading parts of which a share became lasting

    LearningStatistics& operator+=(const LearningStatistics& other) {
        applied += other.applied;
        blocked_by_group += other.blocked_by_group;
        gated += other.gated;
        frozen_out += other.frozen_out;
        decayed += other.decayed;
        consolidated += other.consolidated;
        return *this;
    }
    friend bool operator==(const LearningStatistics&, const LearningStatistics&) = default;
};

}  // namespace Lumenar::Core::Kelm
