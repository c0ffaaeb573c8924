#include "gate/GateSteps.h"

#include "gate/ParityMatrix.h"
#include "kelm/cuda/ShardLayout.h"

namespace Lumenar::Core::Kelm::Gate {

GateSteps allSteps() {
    GateSteps steps;
    steps.check_shard_layouts = checkShardLayouts;
    steps.run_parity_matrix = runParityMatrix;
    return steps;
}

}  // namespace Lumenar::Core::Kelm::Gate
