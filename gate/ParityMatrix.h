#pragma once

#include <cstdint>
#include <string>

#include "gate/GateRun.h"

namespace Lumenar::Core::Kelm {

/// The sums over the cells of the parity matrix.
struct GateTotals {
    std::uint64_t runs = 0;     ///< cells that passed
    std::uint64_t spikes = 0;   ///< of the CPU runs
    std::uint64_t windows = 0;  ///< of the CPU runs
};

/// Runs 20 catalogue models by 5 seeds on the CPU and on the device and compares the results.
/// Throws std::runtime_error "kelmgate: ..." at the first difference, and also if all cells agree
/// but the runs were too small to test anything. Exceptions of a run pass unchanged.
GateTotals runParityMatrix();

/// Compares the two runs of one cell in this order: spikes, log hash, bytes of the states, updates,
/// committed windows, profiles. `label`: the end of every message.
/// Throws std::runtime_error at the first difference.
void compareRuns(const GateRun& cpu, const GateRun& cuda, const std::string& label);

/// Throws std::runtime_error unless the matrix covered all its cells with more than 1000 spikes and
/// more than 200 windows.
void requireExercised(const GateTotals& totals);

}  // namespace Lumenar::Core::Kelm
