#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <utility>
#include <vector>

namespace Lumenar::Core::Kelm {

/// Processor time of this process so far, in s, over all its threads. Other processes do not count.
inline double processorSeconds() {
    timespec time = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/// Wall time between two instants, in s.
inline double secondsBetween(std::chrono::steady_clock::time_point start,
                             std::chrono::steady_clock::time_point end) {
    return std::chrono::duration<double>(end - start).count();
}

/// A figure over all turns of a case.
struct Spread {
    double least;
    double median;
    double greatest;
};

/// `values` must not be empty.
inline Spread spreadOf(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const double upper = values[values.size() / 2];
    const double lower = values[(values.size() - 1) / 2];
    return {values.front(), (lower + upper) / 2, values.back()};
}

/// The spread of value_of(turn) over all turns.
template <class Turn, class ValueOf>
Spread spreadOver(const std::vector<Turn>& turns, ValueOf value_of) {
    std::vector<double> values;
    for (const Turn& turn : turns) values.push_back(static_cast<double>(value_of(turn)));
    return spreadOf(std::move(values));
}

inline double perUnit(double value, std::uint64_t units) {
    return units == 0 ? 0.0 : value / static_cast<double>(units);
}

inline constexpr double mebibyte = 1048576.0;

}  // namespace Lumenar::Core::Kelm
