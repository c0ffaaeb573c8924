#pragma once

#include <cstdint>
#include <string>

#include "gate/GateRun.h"

namespace Lumenar::Core::Kelm {

/// What the parity matrix covered.
struct GateTotals {
    std::uint64_t runs = 0;     ///< cells that passed
    std::uint64_t spikes = 0;   ///< of the CPU runs
    std::uint64_t windows = 0;  ///< of the CPU runs
};

/// Runs 20 catalogue models by 5 seeds on the CPU and on the device and compares all that the runs
/// produced.
/// Throws std::runtime_error "kelmgate: ..." at the first difference, and where all cells agree but
/// the runs were too small to have tested anything; what a run throws passes unchanged.
GateTotals runParityMatrix();

/// Compares the two runs of one cell, in the order: spikes, log hash, states as bytes, updates,
/// committed windows, profiles. `label` ends every message.
/// Throws std::runtime_error at the first difference.
void compareRuns(const GateRun& cpu, const GateRun& cuda, const std::string& label);

/// Throws std::runtime_error unless the matrix covered all its cells with more than 1000 spikes and
/// more than 200 windows.
void requireExercised(const GateTotals& totals);

}  // namespace Lumenar::Core::Kelm
