#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kelm/core/Blob.h"
#include "kelm/core/ModelTime.h"
#include "kelm/runtime/KelmRuntime.h"

namespace Lumenar::Core::Kelm {

/// What examineCheckpoint finds out about a checkpoint without restoring it.
struct CheckpointSummary {
    enum class Fault : std::uint8_t {
        none = 0,
        no_checkpoint = 1,  ///< the bytes begin otherwise
        cut_short = 2,      ///< the bytes end inside `fault_part`
        damaged = 3,        ///< a byte of `fault_part` that no checkpoint has
        other_version = 4,  ///< another version of the engine wrote it
    };
    /// One part of a checkpoint.
    struct Part {
        std::string_view name;     ///< as in the grammar in Checkpoint.h
        std::uint64_t offset = 0;  ///< index of its first byte
        std::uint64_t bytes = 0;   ///< its size, with its length or count
    };

    Fault fault = Fault::none;
    std::uint64_t fault_offset = 0;  ///< index of the byte that is missing or wrong
    std::string_view fault_part;     ///< name of the part that it lies in

    // With a fault, the fields that lie before it are set. Another version gives only its name.
    std::string engine_version;
    std::string label;
    std::uint64_t config_id = 0;
    std::uint64_t seed = 0;
    ModelTime position = 0;  ///< ns
    std::uint64_t neurons = 0;
    std::uint64_t synapses = 0;
    std::uint64_t spikes = 0;  ///< in the engine's log, without those that were taken
    bool has_plasticity = false;
    bool has_oscillators = false;
    std::uint64_t recorded_spikes = 0;
    std::uint64_t samples = 0;
    std::uint64_t causes = 0;
    std::uint64_t input_channels = 0;
    std::uint64_t error_channels = 0;
    std::uint64_t commit_count = 0;
    std::uint64_t taken_spikes = 0;  ///< taken out of the engine's log
    std::vector<Part> parts;         ///< in the order of the bytes

    /// The fault in words, empty without one.
    std::string faultText() const;
};

/// Reads the fields of a checkpoint, and checks the lengths and tags that lead to them. A
/// checkpoint without a fault can still hold values that a runtime refuses. Any bytes will do.
CheckpointSummary examineCheckpoint(BlobView bytes);

/// Why `runtime` refuses a checkpoint that restore() has refused: its fault, or else each
/// difference between checkpoint and runtime, separated by "; ". Never empty.
std::string checkpointRefusal(BlobView bytes, const KelmRuntime& runtime);

/// Restores a checkpoint as KelmRuntime::restore does. Throws RefusedCheckpoint, with the text of
/// checkpointRefusal, where that returns false. Throws IncompatibleCheckpoint, with nothing
/// changed, for another engine version.
void restoreCheckpoint(KelmRuntime& runtime, BlobView bytes);

}  // namespace Lumenar::Core::Kelm
