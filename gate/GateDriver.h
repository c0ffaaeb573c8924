#pragma once

#include <span>
#include <string_view>

// The gate decides whether the device backend reproduces the CPU backend bit for bit. It runs a
// fixed sequence of steps, each of which returns or throws. The exit status is the verdict.

namespace Lumenar::Core::Kelm {

inline constexpr int exit_passed = 0;
inline constexpr int exit_failed = 1;
inline constexpr int exit_no_device = 2;

/// Runs the steps, and the benchmark once for each argument that is exactly "--benchmark". Other
/// arguments are ignored. `arguments`: without the program's name.
/// Writes the device line, the report and the success line to standard output and returns
/// exit_passed. After an exception of a step it writes its text to standard error and returns
/// exit_failed. Without a device it runs the steps that need none, writes one line to standard
/// error and returns exit_no_device.
int runGate(std::span<const std::string_view> arguments);

}  // namespace Lumenar::Core::Kelm
