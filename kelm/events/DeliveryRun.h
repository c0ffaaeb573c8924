#pragma once

#include <cstdint>

#include "kelm/core/ModelTime.h"

namespace Lumenar::Core::Kelm {

/// The deliveries of one spike through consecutive entries of its source's outgoing list. All have
/// one time. Delivery i goes through entry first_route + i and has the id `id` + i.
struct DeliveryRun {
    ModelTime time = 0;             ///< ns
    std::uint64_t id = 0;           ///< of the first delivery
    std::uint64_t first_route = 0;  ///< index of the first entry in the graph's outgoing lists
    std::uint64_t count = 0;        ///< deliveries, at least 1
};
static_assert(sizeof(DeliveryRun) == 32);

}  // namespace Lumenar::Core::Kelm
