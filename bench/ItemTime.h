#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>

namespace Lumenar::Core::Kelm {

/// Adds the column `item`: processor time an item, where the loop has gone through `items` in all.
inline void reportItemTime(benchmark::State& state, std::int64_t items) {
    state.counters["item"] = benchmark::Counter(
        static_cast<double>(items), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

}  // namespace Lumenar::Core::Kelm
