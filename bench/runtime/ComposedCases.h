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

/// What one run of a case reports, as bytes. A run comes in two halves, so that what grows with the
/// history shows; reports and injections come before each half and are not in its time.
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

/// A composition of the runtime that is measured.
struct ComposedCase {
    std::string_view name;
    std::string_view base;  ///< name of the case that it is compared with; empty for none
    bool same_run;          ///< the base must leave the same log
    std::string_view what;
    ComposedMeasurement (*measure)(const BenchmarkScale& scale);
};

/// Every case stands behind its base.
std::span<const ComposedCase> composedCases();

/// A runtime of the benchmark network with every slot empty.
KelmRuntime makeEmptyRuntime(const BenchmarkScale& scale, IWindowBackend& backend);

/// The same with learning, rhythm and samples.
KelmRuntime makeFullRuntime(const BenchmarkScale& scale, IWindowBackend& backend);

}  // namespace Lumenar::Core::Kelm
