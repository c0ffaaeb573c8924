#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "kelm/core/Blob.h"
#include "kelm/core/IRankGroup.h"
#include "kelm/engine/IWindowBackend.h"
#include "kelm/engine/SpikeRecord.h"
#include "tests/support/GeneratedModel.h"

namespace Lumenar::Core::Kelm::Testing {

/// A network whose run comes to an edge of what shards and ranks do.
struct ShardEdge {
    std::string fact = {};
    GeneratedModel model = {};
    std::vector<SpikeRecord> given = {};
    std::uint64_t first_id = 0;  ///< of the first event of the run, 0 for that of a new engine
    /// Whether a run with these spikes and this number of ids has come to the edge.
    std::function<bool(const std::vector<SpikeRecord>&, std::uint64_t)> isReached = {};
};

std::vector<ShardEdge> shardEdges();

/// Runs the network to its horizon and returns the last snapshot, with ranks on rank 0. Throws
/// std::logic_error if a run without ranks does not come to the edge.
Blob runEdge(const ShardEdge& edge, IWindowBackend& backend, IRankGroup* ranks = nullptr);

}  // namespace Lumenar::Core::Kelm::Testing
