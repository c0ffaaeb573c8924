#pragma once

// Steps beside the parity matrix: the networks that run whole on the device, networks of unequal
// neurons, and the counters of a device run. Each throws std::runtime_error at the first failed
// test; exceptions of a run pass unchanged.

namespace Lumenar::Core::Kelm {

/// Checks on three small networks which of them may run whole on the device. Needs no device.
void checkResidentEligibility();

/// Runs a network in which every second neuron is different on both backends, without a runtime,
/// and compares logs and states.
void checkHeterogeneous();

/// Checks that the counters and the device name of a device run are plausible.
void checkProfile();

}  // namespace Lumenar::Core::Kelm
