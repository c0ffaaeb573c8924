#pragma once

#include <cstdint>
#include <string>

#include "kelm/core/ModelTime.h"
#include "kelm/core/PortableMath.h"
#include "kelm/network/Projection.h"
#include "kelm/network/ProjectionChecks.h"
#include "kelm/network/WiringStream.h"

namespace Lumenar::Core::Kelm {

/// Draws or reads the weights or the delays of a projection, row by row.
class ValueDraws {
public:
    ValueDraws(const Projection& projection, const SynapseValues& values, const char* name,
               const ValueBounds& field, std::uint64_t seed)
        : projection_(projection),
          values_(values),
          name_(name),
          bounds_(boundsOf(values, field)),
          seed_(seed),
          stream_name_(streamName(projection, name)) {}

    void startRow(NodeId row) {
        if (values_.isDrawn()) stream_ = WiringStream(seed_, stream_name_, row);
    }
    /// The value of the row's next synapse. `in_row` and `index`: its index in the row and in the
    /// projection.
    double next(NodeId source, NodeId target, std::uint64_t in_row, std::uint64_t index) {
        switch (values_.kind()) {
            case SynapseValues::Kind::constant:
                return values_.first();
            case SynapseValues::Kind::array:
                return values_.array()[index];
            case SynapseValues::Kind::function: {
                const double value = values_.function()(source, target, in_row);
                if (!bounds_.contain(value)) refuseValue(source, target, value);
                return value;
            }
            default:
                break;
        }
        for (int draw = 0; draw < SynapseValues::max_draws; ++draw) {
            const double value = drawOne();
            if (bounds_.contain(value)) return value;
        }
        refuseProjection(projection_, name_, " had ", SynapseValues::max_draws, " draws outside ",
                         bounds_.text(), " from neuron ", source, " to neuron ", target);
    }

private:
    double drawOne() {
        const double first = values_.first();
        const double second = values_.second();
        switch (values_.kind()) {
            case SynapseValues::Kind::uniform:
                return first + (second - first) * (stream_.unit() - 0x1p-53);
            case SynapseValues::Kind::exponential:
                return first * (0.0 - Kernel::kernelLog(stream_.unit()));
            case SynapseValues::Kind::normal:
                return first + second * stream_.normal();
            default:
                return Kernel::kernelExp(first + second * stream_.normal());
        }
    }
    [[noreturn]] void refuseValue(NodeId source, NodeId target, double value) const {
        refuseProjection(projection_, name_, " ", value, " from neuron ", source, " to neuron ",
                         target, " is not in ", bounds_.text());
    }

    const Projection& projection_;
    const SynapseValues& values_;
    const char* name_;
    ValueBounds bounds_;
    std::uint64_t seed_;
    std::string stream_name_;
    WiringStream stream_;
};

}  // namespace Lumenar::Core::Kelm
