#include "gate/GateSteps.h"

#include "gate/BackendGates.h"
#include "gate/BenchmarkReport.h"
#include "gate/FeatureGates.h"
#include "gate/ParityMatrix.h"
#include "kelm/cuda/ShardLayout.h"

namespace Lumenar::Core::Kelm {

GateSteps allSteps() {
    GateSteps steps;
    steps.check_shard_layouts = checkShardLayouts;
    steps.check_resident_eligibility = checkResidentEligibility;
    steps.run_parity_matrix = runParityMatrix;
    steps.check_heterogeneous = checkHeterogeneous;
    steps.check_restore = checkRestore;
    steps.check_plasticity = checkPlasticity;
    steps.check_phase = checkPhase;
    steps.check_composed = checkComposed;
    steps.check_profile = checkProfile;
    steps.run_benchmark = runBenchmark;
    return steps;
}

}  // namespace Lumenar::Core::Kelm
