#include "kelm/core/FailureDetail.h"

#include <charconv>

namespace Lumenar::Core::Kelm {

std::string decimal(double value) {
    char digits[32];
    return std::string(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
}

std::string FailureDetail::text() const {
    const std::string where = item.empty() ? "" : item + " " + std::to_string(index) + ": ";
    return where + field + " is " + value + ", must be " + bound;
}

const FailureDetail* detailOf(const std::exception& failure) noexcept {
    const auto* const detailed = dynamic_cast<const DetailedFailure*>(&failure);
    return detailed == nullptr ? nullptr : detailed->detail();
}

}  // namespace Lumenar::Core::Kelm
