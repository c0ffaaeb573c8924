#include "gate/GateDriver.h"

#include <exception>
#include <iostream>

#include "gate/BackendGates.h"
#include "gate/BenchmarkReport.h"
#include "gate/FeatureGates.h"
#include "gate/ParityMatrix.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/cuda/ShardLayout.h"

namespace Lumenar::Core::Kelm {

namespace {

int runSteps(std::span<const std::string_view> arguments) {
    checkShardLayouts();
    checkResidentEligibility();
    if (!cudaDeviceUsable()) {
        std::cerr << "kelmgate: no CUDA device; the gate cannot be evaluated\n";
        return exit_no_device;
    }
    // Flushed, because a step takes long and could end the process.
    std::cout << "kelmgate: device " << cudaDeviceName() << std::endl;

    const GateTotals totals = runParityMatrix();
    checkHeterogeneous();
    checkRestore();
    checkPlasticity();
    checkPhase();
    checkComposed();
    checkProfile();
    for (const std::string_view argument : arguments) {
        if (argument == "--benchmark") runBenchmark();
    }
    std::cout << "kelmgate shards=DETERMINISTIC fallback=VERIFIED heterogeneous=IDENTICAL "
                 "logs=BIT-IDENTICAL-20x5 restore=IDENTICAL plasticity=IDENTICAL phase=IDENTICAL "
                 "composed=IDENTICAL updates=EQUAL profiler=REPORTS runs="
              << totals.runs << " spikes=" << totals.spikes << " windows=" << totals.windows
              << std::endl;
    return exit_passed;
}

}  // namespace

int runGate(std::span<const std::string_view> arguments) {
    try {
        return runSteps(arguments);
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << '\n';
        return exit_failed;
    }
}

}  // namespace Lumenar::Core::Kelm
