#pragma once

#include <span>
#include <string>
#include <vector>

#include "kelm/core/ModelTime.h"

namespace Lumenar::Core::Kelm {

/// One injection as it was asked for.
struct InjectionRecord {
    std::string name;    ///< of the channel
    ModelTime time = 0;  ///< ns
    double value = 0.0;
};

/// A record of what was injected into a runtime, in the order of the calls. An injection is noted
/// before its channel sees it, so one that the channel then refuses is here as well. It only grows.
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
