#pragma once

// Steps around the parity matrix: which networks run whole on the device, networks whose neurons
// differ, and what a device run reports of itself. Each throws std::runtime_error at the first
// failed test; what a run throws passes unchanged.

namespace Lumenar::Core::Kelm {

/// Three small networks get the right verdict on whether they run whole on the device. Needs none.
void checkResidentEligibility();

/// A network in which every second neuron is different runs to the same log and states on both
/// backends, through bare engines.
void checkHeterogeneous();

/// The counters and the device name of a device run are plausible.
void checkProfile();

}  // namespace Lumenar::Core::Kelm
