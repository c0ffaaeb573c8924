#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>

namespace Lumenar::Core::Kelm {

/// Adds the column `item`: processor time per item, for a loop that processed `items` in all.
inline void reportItemTime(benchmark::State& state, std::int64_t items) {
    state.counters["item"] = benchmark::Counter(
        static_cast<double>(items), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

}  // namespace Lumenar::Core::Kelm
