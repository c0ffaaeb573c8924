#include "gate/ParityMatrix.h"

#include "gate/GateRequire.h"
#include "gate/ModelCatalogue.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/engine/CpuWindowBackend.h"

namespace Lumenar::Core::Kelm {

namespace {

constexpr std::uint64_t first_seed = 1;
constexpr std::uint64_t last_seed = 5;
constexpr std::uint64_t matrix_cells = catalogue_size * (last_seed - first_seed + 1);
constexpr std::uint64_t vacuous_spikes = 1000;
constexpr std::uint64_t vacuous_windows = 2 * matrix_cells;

std::string counts(std::uint64_t cpu, std::uint64_t cuda) {
    return ": " + std::to_string(cpu) + " vs " + std::to_string(cuda);
}

void compareStates(const GateRun& cpu, const GateRun& cuda, const std::string& label) {
    gateRequire(cpu.states.size() == cuda.states.size(), "different neuron counts" + label);
    for (std::size_t i = 0; i < cpu.states.size(); ++i) {
        gateRequire(
            equalBits(cpu.states[i], cuda.states[i]),
            "neuron " + std::to_string(i) + " ended in a different state, bit for bit" + label);
    }
}

}  // namespace

void compareRuns(const GateRun& cpu, const GateRun& cuda, const std::string& label) {
    gateRequire(cpu.log.size() == cuda.log.size(),
                "the two backends produced a different number of spikes" + label +
                    counts(cpu.log.size(), cuda.log.size()));
    for (std::size_t i = 0; i < cpu.log.size(); ++i) {
        gateRequire(cpu.log[i] == cuda.log[i],
                    "the event logs differ at spike " + std::to_string(i) + label);
    }
    gateRequire(cpu.hash == cuda.hash, "the log hashes differ" + label);
    compareStates(cpu, cuda, label);
    gateRequire(
        cpu.profile.updates == cuda.profile.updates,
        "neuron update counts differ" + label + counts(cpu.profile.updates, cuda.profile.updates));
    for (const GateRun* run : {&cpu, &cuda}) {
        gateRequire(run->profile.windows == run->committed_windows,
                    "the runtime did not commit every completed window" + label);
    }
    gateRequire(cpu.profile.windows == cuda.profile.windows &&
                    cpu.profile.candidates == cuda.profile.candidates &&
                    cpu.profile.accepted == cuda.profile.accepted,
                "the profilers disagree" + label);
}

void requireExercised(const GateTotals& totals) {
    gateRequire(totals.runs == matrix_cells, "the parity gate did not cover 20 models x 5 seeds");
    gateRequire(totals.spikes > vacuous_spikes, "the parity matrix produced only " +
                                                    std::to_string(totals.spikes) +
                                                    " spikes; the gate would be vacuous");
    gateRequire(totals.windows > vacuous_windows,
                "the runs used barely more than one window each, so the windowing is not "
                "exercised");
}

GateTotals runParityMatrix() {
    CpuWindowBackend cpu_backend;
    CudaWindowBackend cuda_backend;
    GateTotals totals;
    for (std::uint64_t model = 0; model < catalogue_size; ++model) {
        for (std::uint64_t seed = first_seed; seed <= last_seed; ++seed) {
            const std::string label = cellLabel("model", model, seed);
            const GateRun cpu = runModel(model, seed, cpu_backend);
            const GateRun cuda = runModel(model, seed, cuda_backend);
            compareRuns(cpu, cuda, label);
            totals.spikes += cpu.log.size();
            totals.windows += cpu.profile.windows;
            ++totals.runs;
        }
    }
    requireExercised(totals);
    return totals;
}

}  // namespace Lumenar::Core::Kelm
