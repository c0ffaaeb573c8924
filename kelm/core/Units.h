#pragma once

#include "kelm/core/ModelTime.h"

namespace Lumenar::Core::Kelm {

/// Units of times and rates: 5 * ms, 250 * us, 40 * Hz. Times are integers, so a part of a unit is
/// written in the next smaller one: 1500 * us, not 1.5 * ms.
inline namespace Units {

inline constexpr ModelTime ns = 1;
inline constexpr ModelTime us = 1'000 * ns;
inline constexpr ModelTime ms = 1'000 * us;
inline constexpr ModelTime s = 1'000 * ms;
inline constexpr double Hz = 1.0;  ///< events per second

}  // namespace Units

}  // namespace Lumenar::Core::Kelm
