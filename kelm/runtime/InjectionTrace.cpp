#include "kelm/runtime/InjectionTrace.h"

#include <cmath>
#include <stdexcept>
#include <utility>

namespace Lumenar::Core::Kelm {

void InjectionTrace::record(std::string name, ModelTime time, double value) {
    if (name.empty() || time < 0 || !std::isfinite(value)) {
        throw std::invalid_argument("invalid trace injection");
    }
    records_.push_back({std::move(name), time, value});
}

}  // namespace Lumenar::Core::Kelm
