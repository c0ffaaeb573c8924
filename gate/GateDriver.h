#pragma once

#include <cstdint>
#include <iosfwd>
#include <span>
#include <string>
#include <string_view>

// The gate decides whether the device backend reproduces the CPU backend bit for bit. It runs a
// fixed sequence of steps, each of which returns silently or throws; the exit status is the
// verdict.

namespace Lumenar::Core::Kelm {

/// What the parity matrix covered.
struct GateTotals {
    std::uint64_t runs = 0;     ///< cells that passed
    std::uint64_t spikes = 0;   ///< of the CPU runs
    std::uint64_t windows = 0;  ///< of the CPU runs
};

/// The steps, in the order in which they run. A step throws std::exception for a difference; a
/// step that is null is left out, and so are its words in the success line.
struct GateSteps {
    using Step = void (*)();

    // Without a device.
    Step check_shard_layouts = nullptr;
    Step check_resident_eligibility = nullptr;
    // On the device.
    GateTotals (*run_parity_matrix)() = nullptr;
    Step check_heterogeneous = nullptr;
    Step check_restore = nullptr;
    Step check_plasticity = nullptr;
    Step check_phase = nullptr;
    Step check_composed = nullptr;
    Step check_profile = nullptr;
    // On request: the report goes to the stream.
    void (*run_benchmark)(std::ostream& out) = nullptr;
};

inline constexpr int exit_passed = 0;
inline constexpr int exit_failed = 1;
inline constexpr int exit_no_device = 2;

/// Runs the steps, and the benchmark once for each argument that is exactly "--benchmark"; other
/// arguments are ignored. `arguments`: without the program's name.
/// Writes the device line, the report and the success line to `out` and returns exit_passed. A
/// step that throws ends the run with its text on `err` and exit_failed; a machine without a
/// device ends it behind the steps that need none, with one line on `err` and exit_no_device.
int runGate(std::span<const std::string_view> arguments, const GateSteps& steps, std::ostream& out,
            std::ostream& err);

/// Throws std::runtime_error "kelmgate: <message>" unless `condition` holds.
void gateRequire(bool condition, std::string_view message);

/// " (<kind> <index>, seed <seed>)": ends every message of a cell.
std::string cellLabel(std::string_view kind, std::uint64_t index, std::uint64_t seed);

}  // namespace Lumenar::Core::Kelm
