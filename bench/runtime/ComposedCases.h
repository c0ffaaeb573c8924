#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "gate/BenchmarkWorkload.h"
#include "kelm/engine/WindowProfile.h"
#include "kelm/runtime/KelmRuntime.h"

namespace Lumenar::Core::Kelm {

/// One half of a run.
struct Stretch {
    double cpu_seconds = 0.0;  ///< processor time
    std::uint64_t windows = 0;
    std::uint64_t deliveries = 0;
    std::uint64_t allocations = 0;
};

/// The figures of one run of a case, passed on as bytes. A run has two halves, so that a cost which
/// grows with the history shows. Reports and injections come before each half and are not in its
/// time.
struct ComposedMeasurement {
    Stretch halves[2];
    std::uint64_t spikes = 0;
    std::uint64_t log_hash = 0;
    WindowProfile profile;

    double call_seconds = 0.0;  ///< processor time of reports or injections
    std::uint64_t calls = 0;    ///< observations reported, or events injected

    std::uint64_t checkpoint_bytes = 0;
    double write_seconds = 0.0;    ///< processor time of one checkpoint
    double restore_seconds = 0.0;  ///< processor time of one restore

    double cpuSeconds() const { return halves[0].cpu_seconds + halves[1].cpu_seconds; }
};

/// A composition of the runtime to measure.
struct ComposedCase {
    std::string_view name;
    std::string_view base;  ///< name of the case to compare with; empty for none
    bool same_run;          ///< both must leave the same log
    std::string_view what;
    ComposedMeasurement (*measure)(const BenchmarkScale& scale);
};

/// All cases, each after its base.
std::span<const ComposedCase> composedCases();

/// A runtime of the benchmark network without any part.
KelmRuntime makeEmptyRuntime(const BenchmarkScale& scale, IWindowBackend& backend);

/// The same with learning, an oscillator binding and samples.
KelmRuntime makeFullRuntime(const BenchmarkScale& scale, IWindowBackend& backend);

}  // namespace Lumenar::Core::Kelm
