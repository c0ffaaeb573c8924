#pragma once

#include <bit>
#include <cstdint>
#include <initializer_list>

#include "kelm/core/SplitMix64.h"

namespace Lumenar::Core::Kelm::Testing {

/// Random arguments for tests, by the same generator as in scripts/reference/kernel.py.
class Draws {
public:
    explicit Draws(std::uint64_t seed) : state_(seed) {}

    std::uint64_t next() {
        state_ += splitmix_increment;
        return splitmixOutput(state_);
    }
    double between(double low, double end) {
        return low + (end - low) * (static_cast<double>(next() >> 11) * 0x1p-53);
    }
    std::uint64_t below(std::uint64_t end) { return next() % end; }
    std::int64_t timeBelow(std::uint64_t end) { return static_cast<std::int64_t>(below(end)); }
    /// In [low, last].
    std::int64_t timeBetween(std::int64_t low, std::int64_t last) {
        return low + timeBelow(static_cast<std::uint64_t>(last - low) + 1);
    }
    bool oneIn(std::uint64_t count) { return below(count) == 0; }
    bool chance(unsigned percent) { return below(100) < percent; }
    template <class T>
    T oneOf(std::initializer_list<T> values) {
        return values.begin()[below(values.size())];
    }
    /// A positive double of any magnitude; finite.
    double positive() { return std::bit_cast<double>(below(0x7ff0000000000000)); }

private:
    std::uint64_t state_;
};

}  // namespace Lumenar::Core::Kelm::Testing
