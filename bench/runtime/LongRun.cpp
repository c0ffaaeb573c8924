// Runs the benchmark network for a long time, step by step. For each step it prints the time and
// the resident memory, and the memory without the lists that only grow: logs of spikes and phases,
// recorder, journal, answers of the learning gate, and the list of synapses that have faded. This
// rest must stay constant, and so must the time of a delivery.

#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// A header of the C library defines it.
#ifdef __GLIBC__
#include <malloc.h>
#endif

#include "bench/runtime/ComposedCases.h"
#include "bench/runtime/Figures.h"
#include "bench/runtime/MeasuringProgram.h"
#include "bench/runtime/OptionText.h"
#include "kelm/engine/CpuWindowBackend.h"

namespace Lumenar::Core::Kelm {

namespace {

constexpr const char* usage_text =
    "usage: kelm-long-run [option value]...\n"
    "  --parts      none (default), or all: learning, oscillators and samples\n"
    "  --neurons    neurons of the network (default 20000)\n"
    "  --base-rate  spikes/s of a neuron without input\n"
    "  --horizon    ns; end of the run (default 20 s)\n"
    "  --step       ns; length of a step (default 1 s)\n";

struct Options {
    bool all_parts = false;
    BenchmarkScale scale;
    ModelTime step = 1'000'000'000;  ///< ns
};

/// Time and memory of one step.
struct Step {
    double cpu_seconds = 0.0;
    std::uint64_t deliveries = 0;
    double resident_bytes = 0.0;
    double grown_bytes = 0.0;  ///< the lists that only grow

    double restBytes() const { return resident_bytes - grown_bytes; }
    double nsPerDelivery() const { return perUnit(cpu_seconds * 1e9, deliveries); }
};

Options parseOptions(const std::vector<std::string_view>& arguments) {
    Options options;
    options.scale.neuron_count = 20'000;
    options.scale.horizon = 20'000'000'000;
    for (std::size_t i = 0; i < arguments.size(); i += 2) {
        const std::string_view option = arguments[i];
        if (i + 1 == arguments.size()) {
            throw std::invalid_argument(std::string(option) + " needs a value");
        }
        const std::string_view value = arguments[i + 1];
        if (option == "--parts" && (value == "none" || value == "all")) {
            options.all_parts = value == "all";
        } else if (option == "--neurons") {
            options.scale.neuron_count = parsePositive<std::uint64_t>(value);
        } else if (option == "--base-rate") {
            options.scale.base_rate = parsePositive<double>(value);
        } else if (option == "--horizon") {
            options.scale.horizon = parsePositive<ModelTime>(value);
        } else if (option == "--step") {
            options.step = parsePositive<ModelTime>(value);
        } else {
            throw std::invalid_argument("unknown option or value: " + std::string(option) + " " +
                                        std::string(value));
        }
    }
    return options;
}

double residentBytes() {
#ifdef __GLIBC__
    malloc_trim(0);  // memory that the allocator holds free does not count
#endif
    std::uint64_t total = 0;
    std::uint64_t resident = 0;
    if (!(std::ifstream("/proc/self/statm") >> total >> resident)) {
        throw std::runtime_error("this system does not report resident memory");
    }
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

/// The heap block of a list: the data and one word, in units of two words.
template <class Record>
std::size_t listBytes(const std::vector<Record>& list) {
    const std::size_t bytes = list.size() * sizeof(Record);
    return bytes == 0 ? 0 : std::max<std::size_t>((bytes + 8 + 15) / 16 * 16, 32);
}

std::size_t sampleBytes(const RecordedSample& sample) {
    return sizeof(RecordedSample) + listBytes(sample.membrane) + listBytes(sample.adaptation) +
           listBytes(sample.refractory_left) + listBytes(sample.next_candidate) +
           listBytes(sample.spike_counts) + listBytes(sample.oscillator_phases);
}

double grownBytes(KelmRuntime& runtime) {
    std::size_t bytes = runtime.spikeLog().size_bytes() + runtime.phaseLog().size_bytes();
    for (const PhaseLogEntry& entry : runtime.phaseLog()) bytes += listBytes(entry.phases);
    if (const Recorder* recorder = runtime.recorder()) {
        bytes += recorder->spikes().size_bytes();
        for (const RecordedSpike& spike : recorder->spikes()) bytes += listBytes(spike.phases);
        for (const RecordedSample& sample : recorder->samples()) bytes += sampleBytes(sample);
    }
    if (const LearningControl* learning = runtime.learningControl()) {
        bytes += learning->journal().size_bytes() + learning->modulatorHistory().size_bytes() +
                 learning->pendingEdges().size_bytes();
    }
    return static_cast<double>(bytes);
}

void runAll(const Options& options) {
    CpuWindowBackend backend;
    KelmRuntime runtime = options.all_parts ? makeFullRuntime(options.scale, backend)
                                            : makeEmptyRuntime(options.scale, backend);
    if (LearningControl* learning = runtime.learningControl()) {
        // A full journal would fill the memory of most machines.
        learning->setJournal(JournalMode::sampled, 0.01);
        learning->setFastWeights(true, 50'000'000, 0.0);
    }
    if (OscillatorBank* bank = runtime.oscillators()) {
        bank->setMemberships(
            std::vector<std::vector<std::uint32_t>>(options.scale.neuron_count, {0}));
    }
    std::printf("%" PRIu64 " neurons, %g spikes/s, %s\n\n", options.scale.neuron_count,
                options.scale.base_rate, options.all_parts ? "all parts" : "no parts");
    std::printf("   until s   deliveries   ns each   resident MiB     lists MiB   the rest\n");
    std::vector<Step> steps;
    for (ModelTime end = 0; end < options.scale.horizon;) {
        end += std::min(options.step, options.scale.horizon - end);
        const std::uint64_t before = runtime.profile().deliveries;
        Step step;
        const double start = processorSeconds();
        runtime.run(end);
        step.cpu_seconds = processorSeconds() - start;
        step.deliveries = runtime.profile().deliveries - before;
        step.grown_bytes = grownBytes(runtime);
        step.resident_bytes = residentBytes();
        steps.push_back(step);
        std::printf("%10.3f %12" PRIu64 " %9.1f %14.2f %13.2f %10.2f\n",
                    static_cast<double>(end) / 1e9, step.deliveries, step.nsPerDelivery(),
                    step.resident_bytes / mebibyte, step.grown_bytes / mebibyte,
                    step.restBytes() / mebibyte);
    }
    if (steps.size() < 3) return;
    const Step& second = steps[1];
    const Step& last = steps.back();
    std::printf("\nlast step to second: time a delivery %.3f, the rest %+.2f MiB\n",
                last.nsPerDelivery() / second.nsPerDelivery(),
                (last.restBytes() - second.restBytes()) / mebibyte);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm

int main(int argc, char** argv) {
    using namespace Lumenar::Core::Kelm;
    return runMeasuringProgram(
        "kelm-long-run", argc, argv, [](const auto& arguments) { runAll(parseOptions(arguments)); },
        [] { std::fputs(usage_text, stderr); });
}
