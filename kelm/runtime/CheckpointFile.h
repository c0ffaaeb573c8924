#pragma once

#include <string>

#include "kelm/runtime/KelmRuntime.h"

namespace Lumenar::Core::Kelm {

/// Writes the runtime's checkpoint to the file `path` and replaces an existing one as a whole: a
/// file with the suffix ".new" is written beside it, forced to the disk and renamed. If the program
/// is killed or the write fails, `path` still holds the checkpoint from before. Call it between
/// runs. If the machine fails, a SpikeFile beside it may hold fewer spikes than were taken.
/// On several ranks, all call it and rank 0 writes the file.
/// Throws CheckpointFileError, which names the file and the reason.
void saveCheckpoint(KelmRuntime& runtime, const std::string& path);

/// Restores the checkpoint in the file `path`. On several ranks, each reads the whole file.
/// Throws CheckpointFileError for a file that cannot be read, and what restoreCheckpoint throws.
void loadCheckpoint(KelmRuntime& runtime, const std::string& path);

}  // namespace Lumenar::Core::Kelm
