#pragma once

#include "gate/GateDriver.h"

namespace Lumenar::Core::Kelm {

/// Every step of the gate.
GateSteps allSteps();

}  // namespace Lumenar::Core::Kelm
