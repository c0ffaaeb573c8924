#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "bench/ItemTime.h"
#include "kelm/core/PortableMath.h"
#include "kelm/core/SplitMix64.h"

// Independent calls over the arguments of typical runs, and the C library's function over the same
// arguments. Compare the ratio of the two; the times depend on the machine.

namespace Lumenar::Core::Kelm {

namespace {

struct Range {
    double from;
    double to;
};

/// Decays over up to 20 time constants, and exponents of a hazard.
constexpr Range exponents = {-20.0, 5.0};
/// Uniform draws for waiting times.
constexpr Range uniforms = {1e-9, 1.0};
/// Phases after minutes at a few hertz.
constexpr Range phases = {0.0, 10000.0};

std::vector<double> spread(const Range& range) {
    constexpr std::size_t count = 4096;
    std::vector<double> values;
    std::uint64_t raw = 1;
    for (std::size_t i = 0; i < count; ++i) {
        raw += splitmix_increment;
        const double share = static_cast<double>(splitmixOutput(raw) >> 11) * 0x1p-53;
        values.push_back(range.from + share * (range.to - range.from));
    }
    return values;
}

/// One item is one call.
template <double (*function)(double), Range range>
void callEach(benchmark::State& state) {
    const std::vector<double> values = spread(range);
    for (auto turn : state) {
        for (const double value : values) benchmark::DoNotOptimize(function(value));
    }
    reportItemTime(state, state.iterations() * static_cast<std::int64_t>(values.size()));
}

BENCHMARK(callEach<Kernel::kernelExp, exponents>)->Name("kernelExp");
BENCHMARK(callEach<std::exp, exponents>)->Name("kernelExp/library");
BENCHMARK(callEach<Kernel::kernelLog, uniforms>)->Name("kernelLog");
BENCHMARK(callEach<std::log, uniforms>)->Name("kernelLog/library");
BENCHMARK(callEach<Kernel::kernelSin, phases>)->Name("kernelSin");
BENCHMARK(callEach<std::sin, phases>)->Name("kernelSin/library");

}  // namespace

}  // namespace Lumenar::Core::Kelm
