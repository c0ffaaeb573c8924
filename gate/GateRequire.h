#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

// Helpers of the gate's steps.

namespace Lumenar::Core::Kelm {

/// Throws std::runtime_error "kelmgate: <message>" unless `condition` holds.
inline void gateRequire(bool condition, std::string_view message) {
    if (!condition) throw std::runtime_error("kelmgate: " + std::string(message));
}

/// The end of every message of a cell: " (<kind> <index>, seed <seed>)".
inline std::string cellLabel(std::string_view kind, std::uint64_t index, std::uint64_t seed) {
    return " (" + std::string(kind) + " " + std::to_string(index) + ", seed " +
           std::to_string(seed) + ")";
}

}  // namespace Lumenar::Core::Kelm
