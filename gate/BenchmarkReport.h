#pragma once

namespace Lumenar::Core::Kelm {

/// Measures the benchmark network on each path of execution and writes a report to standard output:
/// the CPU, the device window by window, shard queues, resident recurrence, and the engine's whole
/// run on the device. Speed is only reported. Throws std::runtime_error where a resident result
/// differs from the CPU's; what a run throws passes unchanged.
void runBenchmark();

}  // namespace Lumenar::Core::Kelm
