#pragma once

#include <span>
#include <string>
#include <vector>

#include "kelm/core/ModelTime.h"

namespace Lumenar::Core::Kelm {

/// The arguments of one injection.
struct InjectionRecord {
    std::string name;    ///< of the channel
    ModelTime time = 0;  ///< ns
    double value = 0.0;
};

/// The injections into a runtime, in the order of the calls. An injection is recorded before its
/// channel checks it, so the trace also holds those that the channel refuses. It only grows.
class InjectionTrace {
public:
    /// Throws std::invalid_argument, with nothing appended, for an empty name, a negative time or a
    /// value that is not finite.
    void record(std::string name, ModelTime time, double value);

    /// Valid until the next record.
    std::span<const InjectionRecord> records() const { return records_; }

private:
    std::vector<InjectionRecord> records_;
};

}  // namespace Lumenar::Core::Kelm
