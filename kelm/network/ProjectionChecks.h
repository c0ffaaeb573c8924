#pragma once

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

#include "kelm/core/ModelTime.h"
#include "kelm/network/Projection.h"

namespace Lumenar::Core::Kelm {

inline void appendText(std::string& text, std::string_view part) { text += part; }
/// Appends the shortest text that reads back as the same number, in every locale.
template <class Number>
requires std::is_arithmetic_v<Number>
void appendText(std::string& text, Number number) {
    std::array<char, 32> digits;
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    text.append(digits.data(), end);
}
/// The parts, texts and numbers, one after the other.
template <class... Parts>
std::string joinedText(const Parts&... parts) {
    std::string text;
    (appendText(text, parts), ...);
    return text;
}

/// Throws std::invalid_argument with the name of the projection and the parts of a reason.
template <class... Parts>
[[noreturn]] void refuseProjection(const Projection& projection, const Parts&... parts) {
    throw std::invalid_argument(joinedText("projection \"", projection.name, "\": ", parts...));
}

/// The longest delay: up to here, a delay plus one half is exact.
inline constexpr double max_delay = 0x1p51;

/// The values that a field of a synapse may have.
struct ValueBounds {
    double low = 0.0;
    double high = 0.0;

    bool contain(double value) const { return value >= low && value <= high; }
    std::string text() const { return joinedText("[", low, ", ", high, "]"); }
};

/// Of a magnitude in single precision.
inline constexpr ValueBounds weight_bounds = {0.0, std::numeric_limits<float>::max()};

/// For a graph with this declared smallest delay, in ns.
inline ValueBounds delayBounds(std::optional<ModelTime> min_delay) {
    return {static_cast<double>(min_delay.value_or(1)), max_delay};
}

/// The bounds of a projection's values: those of the field, and those of within().
inline ValueBounds boundsOf(const SynapseValues& values, const ValueBounds& field) {
    return {std::max(field.low, values.low()), std::min(field.high, values.high())};
}

/// Checks ranges, rule and values, as Wiring describes it.
void checkProjection(const Projection& projection, std::uint64_t node_count,
                     std::optional<ModelTime> min_delay);

}  // namespace Lumenar::Core::Kelm
