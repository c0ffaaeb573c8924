#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <span>
#include <type_traits>
#include <utility>

#include "kelm/core/ModelTime.h"

namespace Lumenar::Core::Kelm {

/// The weights or the delays of a projection's synapses: one value, draws from a distribution, an
/// array or a function. `Wiring` checks it.
///
/// A draw takes the following steps of its stream. unit() is a step's upper 53 bits plus 1, times
/// 2^-53; it lies in (0, 1]. Sums and products are rounded in the written order; exp and log are
/// kernelExp and kernelLog.
///
/// - uniform: low + (high - low) * (unit() - 2^-53)
/// - exponential: mean * (0 - log(unit()))
/// - normal: mean + standard_deviation * z
/// - lognormal: exp(mu + sigma * z)
///
/// z is a standard normal draw by the ratio of uniforms: u = unit(), v = 1.7156 * (unit() - 0.5),
/// x = u - 0.449871, y = |v| + 0.386595, q = x * x + y * (0.196 * y - 0.25472 * x). z is v / u if
/// q < 0.27597, or if q <= 0.27846 and v * v <= (-4 * log(u)) * (u * u). Otherwise u and v are
/// drawn again. Source: J. L. Leva, "A fast normal random number generator", ACM Transactions on
/// Mathematical Software 18 (1992).
class SynapseValues {
public:
    enum class Kind : std::uint8_t {
        missing,  ///< refused
        constant,
        uniform,
        normal,
        log_normal,
        exponential,
        array,
        function,
    };
    /// Returns the value of one synapse. `index` counts the synapses of the same target in this
    /// projection, from 0 in the order of Wiring::visit; for fixed out-degree, those of the same
    /// source.
    using Function = std::function<double(NodeId source, NodeId target, std::uint64_t index)>;

    /// No values.
    SynapseValues() = default;
    /// The same value for all synapses.
    template <class Value>
    requires std::is_arithmetic_v<Value> SynapseValues(Value value)
        : SynapseValues(Kind::constant, static_cast<double>(value), 0.0) {}
    /// `low` and `high`: finite, low <= high.
    static SynapseValues uniform(double low, double high) { return {Kind::uniform, low, high}; }
    /// `standard_deviation`: not negative.
    static SynapseValues normal(double mean, double standard_deviation) {
        return {Kind::normal, mean, standard_deviation};
    }
    /// The exponential of a normal draw. `mu` and `sigma`: mean and standard deviation of the
    /// logarithm; sigma is not negative.
    static SynapseValues logNormal(double mu, double sigma) {
        return {Kind::log_normal, mu, sigma};
    }
    /// `mean`: positive.
    static SynapseValues exponential(double mean) { return {Kind::exponential, mean, 0.0}; }
    /// One value for each synapse, in the order of Wiring::visit over all targets: shape
    /// (synapse_count). Not for a Bernoulli rule, whose count is not known in advance. The array
    /// must exist while the Wiring is in use.
    static SynapseValues fromArray(std::span<const double> values) {
        SynapseValues result(Kind::array, 0.0, 0.0);
        result.array_ = values;
        return result;
    }
    /// `function` must depend on its arguments only, or parts of a network do not agree.
    static SynapseValues fromFunction(Function function) {
        SynapseValues result(Kind::function, 0.0, 0.0);
        result.function_ = std::move(function);
        return result;
    }

    /// Only values in [low, high]: a draw outside is repeated, at most max_draws times in all. This
    /// cuts the tails of the distribution off and puts no weight on the bounds. Values that are not
    /// drawn are refused outside [low, high].
    SynapseValues within(double low, double high) const {
        SynapseValues result = *this;
        result.low_ = low;
        result.high_ = high;
        return result;
    }
    /// Most draws of one value; the wiring is refused after them.
    static constexpr int max_draws = 1000;

    Kind kind() const { return kind_; }
    bool isDrawn() const { return kind_ >= Kind::uniform && kind_ <= Kind::exponential; }
    /// The two parameters of the kind, in the order of its factory.
    double first() const { return first_; }
    double second() const { return second_; }
    double low() const { return low_; }
    double high() const { return high_; }
    std::span<const double> array() const { return array_; }
    const Function& function() const { return function_; }

private:
    SynapseValues(Kind kind, double first, double second)
        : kind_(kind), first_(first), second_(second) {}

    Kind kind_ = Kind::missing;
    double first_ = 0.0;
    double second_ = 0.0;
    double low_ = -std::numeric_limits<double>::infinity();
    double high_ = std::numeric_limits<double>::infinity();
    std::span<const double> array_;
    Function function_;
};

}  // namespace Lumenar::Core::Kelm
