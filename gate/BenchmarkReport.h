#pragma once

namespace Lumenar::Core::Kelm {

/// Measures the benchmark network on each path and writes a report to standard output: the CPU, the
/// device window by window, shard queues, resident recurrence, and the engine's whole run on the
/// device. Speeds are reported, not judged. Throws std::runtime_error if a resident result differs
/// from the CPU's; exceptions of a run pass unchanged.
void runBenchmark();

}  // namespace Lumenar::Core::Kelm
