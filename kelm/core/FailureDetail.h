#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <utility>

namespace Lumenar::Core::Kelm {

/// The shortest decimal that reads back as `value`, in every locale.
std::string decimal(double value);
inline std::string decimal(float value) { return decimal(static_cast<double>(value)); }
inline std::string decimal(std::int64_t value) { return std::to_string(value); }
inline std::string decimal(std::uint64_t value) { return std::to_string(value); }

/// What a construction has refused. The text of the exception does not hold it.
struct FailureDetail {
    std::string item = {};    ///< "synapse", "neuron"; empty for a setting of the whole
    std::uint64_t index = 0;  ///< of the item, in the order in which the items were given
    std::string field = {};   ///< "delay"
    std::string value = {};   ///< decimal, with its unit: "5 ns"
    std::string bound = {};   ///< "at least 1000000 ns"

    /// "synapse 17: delay is 5 ns, must be at least 1000000 ns"
    std::string text() const;
};

/// A failure that can have a detail. The constructions of graph, engine and runtime give one.
class DetailedFailure {
public:
    /// Null where the thrower gave none. Valid as long as a copy of the exception exists.
    const FailureDetail* detail() const noexcept { return detail_.get(); }
    void setDetail(FailureDetail detail) {
        detail_ = std::make_shared<const FailureDetail>(std::move(detail));
    }

private:
    std::shared_ptr<const FailureDetail> detail_;  ///< shared: a copy of an exception cannot throw
};

/// The detail of any exception, or null.
const FailureDetail* detailOf(const std::exception& failure) noexcept;

/// `failure` with a detail, to be thrown.
template <class Failure>
Failure withDetail(Failure failure, FailureDetail detail) {
    failure.setDetail(std::move(detail));
    return failure;
}

}  // namespace Lumenar::Core::Kelm
