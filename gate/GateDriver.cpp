#include "gate/GateDriver.h"

#include <exception>
#include <ostream>
#include <stdexcept>
#include <string>

#include "kelm/cuda/CudaWindowBackend.h"

namespace Lumenar::Core::Kelm {

namespace {

void runStep(GateSteps::Step step) {
    if (step != nullptr) step();
}

/// The words stand in the order of the line, which is not the order of the steps.
void writeSuccess(std::ostream& out, const GateSteps& steps, const GateTotals& totals) {
    const bool matrix = steps.run_parity_matrix != nullptr;
    const struct {
        bool ran;
        const char* words;
    } verdicts[] = {
        {steps.check_shard_layouts != nullptr, " shards=DETERMINISTIC"},
        {steps.check_resident_eligibility != nullptr, " fallback=VERIFIED"},
        {steps.check_heterogeneous != nullptr, " heterogeneous=IDENTICAL"},
        {matrix, " logs=BIT-IDENTICAL-20x5"},
        {steps.check_restore != nullptr, " restore=IDENTICAL"},
        {steps.check_plasticity != nullptr, " plasticity=IDENTICAL"},
        {steps.check_phase != nullptr, " phase=IDENTICAL"},
        {steps.check_composed != nullptr, " composed=IDENTICAL"},
        {matrix, " updates=EQUAL"},
        {steps.check_profile != nullptr, " profiler=REPORTS"},
    };
    out << "kelmgate";
    for (const auto& verdict : verdicts) {
        if (verdict.ran) out << verdict.words;
    }
    out << " runs=" << totals.runs << " spikes=" << totals.spikes << " windows=" << totals.windows
        << '\n';
}

int runSteps(std::span<const std::string_view> arguments, const GateSteps& steps, std::ostream& out,
             std::ostream& err) {
    runStep(steps.check_shard_layouts);
    runStep(steps.check_resident_eligibility);
    if (!cudaDeviceUsable()) {
        err << "kelmgate: no CUDA device; the gate cannot be evaluated\n";
        return exit_no_device;
    }
    // Flushed: the steps take a while, and one that ends the process must not take the line along.
    out << "kelmgate: device " << cudaDeviceName() << '\n' << std::flush;

    GateTotals totals;
    if (steps.run_parity_matrix != nullptr) totals = steps.run_parity_matrix();
    runStep(steps.check_heterogeneous);
    runStep(steps.check_restore);
    runStep(steps.check_plasticity);
    runStep(steps.check_phase);
    runStep(steps.check_composed);
    runStep(steps.check_profile);
    for (const std::string_view argument : arguments) {
        if (argument == "--benchmark" && steps.run_benchmark != nullptr) steps.run_benchmark(out);
    }
    writeSuccess(out, steps, totals);
    return exit_passed;
}

}  // namespace

int runGate(std::span<const std::string_view> arguments, const GateSteps& steps, std::ostream& out,
            std::ostream& err) {
    try {
        return runSteps(arguments, steps, out, err);
    } catch (const std::exception& failure) {
        err << failure.what() << '\n';
        return exit_failed;
    }
}

void gateRequire(bool condition, std::string_view message) {
    if (!condition) throw std::runtime_error("kelmgate: " + std::string(message));
}

std::string cellLabel(std::string_view kind, std::uint64_t index, std::uint64_t seed) {
    return " (" + std::string(kind) + " " + std::to_string(index) + ", seed " +
           std::to_string(seed) + ")";
}

}  // namespace Lumenar::Core::Kelm
