#pragma once

#include <charconv>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace Lumenar::Core::Kelm {

/// Throws std::invalid_argument unless `text` is a number above 0.
template <class Value>
Value parsePositive(std::string_view text) {
    Value value = 0;
    const char* const end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data(), end, value);
    if (result.ec != std::errc() || result.ptr != end || !(value > 0)) {
        throw std::invalid_argument("not a positive number: '" + std::string(text) + "'");
    }
    return value;
}

inline std::vector<std::string_view> splitAtCommas(std::string_view text) {
    std::vector<std::string_view> parts;
    while (true) {
        const std::size_t comma = text.find(',');
        parts.push_back(text.substr(0, comma));
        if (comma == std::string_view::npos) return parts;
        text.remove_prefix(comma + 1);
    }
}

}  // namespace Lumenar::Core::Kelm
