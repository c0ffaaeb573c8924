#pragma once

#include "gate/GateDriver.h"

namespace Lumenar::Core::Kelm::Gate {

/// Every step of the gate.
GateSteps allSteps();

}  // namespace Lumenar::Core::Kelm::Gate
