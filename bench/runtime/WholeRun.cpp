// Measures whole runs of the benchmark network on the CPU backend. Each run takes place in a child
// process of its own, so that its peak memory is its own, and the cases of one call take turns, so
// that a busy machine slows all of them alike. Times are medians over the turns.

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "gate/BenchmarkWorkload.h"
#include "gate/TimedBackend.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/events/BucketEventStore.h"
#include "kelm/runtime/KelmRuntime.h"

namespace Lumenar::Core::Kelm {

namespace {

constexpr const char* usage_text =
    "usage: kelm-whole-run [option value[,value...]]...\n"
    "  --neurons      neurons of the network\n"
    "  --base-rate    spikes/s of a neuron without drive\n"
    "  --d-min        ns; length of a window and delay of every synapse\n"
    "  --horizon      ns; candidates are drawn up to here\n"
    "  --until        ns; the run ends here (default: the horizon)\n"
    "  --buckets      slots of the event store's ring\n"
    "  --repeat       measured runs of each case\n"
    "An option with several values makes as many cases; one with a single value holds for all.\n";

struct Case {
    Gate::BenchmarkScale scale;
    ModelTime until = 0;           ///< ns, or 0 for the horizon
    std::uint64_t buckets = 4096;  ///< of the event store's ring
};

ModelTime endOf(const Case& c) { return c.until != 0 ? c.until : c.scale.horizon; }

struct Options {
    std::vector<Case> cases = std::vector<Case>(1);
    int repetitions = 5;
};

/// What one run reports to the process that asked for it, as bytes.
struct Measurement {
    double setup_seconds = 0.0;    ///< wall time of building the network and the runtime
    double seconds = 0.0;          ///< wall time of the run
    double cpu_seconds = 0.0;      ///< processor time of the run
    double backend_seconds = 0.0;  ///< wall time spent in the backend
    std::uint64_t spikes = 0;
    std::uint64_t log_hash = 0;
    WindowProfile profile;
    std::uint64_t peak_bytes = 0;  ///< resident, of the whole process
};
static_assert(std::is_trivially_copyable_v<Measurement>);

template <class Value>
Value parsePositive(std::string_view text) {
    Value value = 0;
    const char* const end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data(), end, value);
    if (result.ec != std::errc() || result.ptr != end || !(value > 0)) {
        throw std::invalid_argument("not a positive number: '" + std::string(text) + "'");
    }
    return value;
}

/// What an option sets in a case.
struct Setting {
    std::string_view option;
    void (*set)(Case& c, std::string_view text);
};

constexpr Setting settings[] = {
    {"--neurons",
     [](Case& c, std::string_view text) {
         c.scale.neuron_count = parsePositive<std::uint64_t>(text);
     }},
    {"--base-rate",
     [](Case& c, std::string_view text) { c.scale.base_rate = parsePositive<double>(text); }},
    {"--d-min",
     [](Case& c, std::string_view text) { c.scale.min_delay = parsePositive<ModelTime>(text); }},
    {"--horizon",
     [](Case& c, std::string_view text) { c.scale.horizon = parsePositive<ModelTime>(text); }},
    {"--until", [](Case& c, std::string_view text) { c.until = parsePositive<ModelTime>(text); }},
    {"--buckets",
     [](Case& c, std::string_view text) { c.buckets = parsePositive<std::uint64_t>(text); }},
};

const Setting& settingOf(std::string_view option) {
    for (const Setting& setting : settings) {
        if (setting.option == option) return setting;
    }
    throw std::invalid_argument("unknown option " + std::string(option));
}

std::vector<std::string_view> splitAtCommas(std::string_view text) {
    std::vector<std::string_view> parts;
    while (true) {
        const std::size_t comma = text.find(',');
        parts.push_back(text.substr(0, comma));
        if (comma == std::string_view::npos) return parts;
        text.remove_prefix(comma + 1);
    }
}

/// A list shorter than the cases that there are, or that it makes, must be a single value.
void applyToCases(std::vector<Case>& cases, const Setting& setting,
                  const std::vector<std::string_view>& values) {
    if (cases.size() == 1) cases.resize(values.size(), cases[0]);
    if (values.size() != 1 && values.size() != cases.size()) {
        throw std::invalid_argument("the options name different numbers of cases");
    }
    for (std::size_t i = 0; i < cases.size(); ++i) {
        setting.set(cases[i], values[values.size() == 1 ? 0 : i]);
    }
}

Options parseOptions(const std::vector<std::string_view>& arguments) {
    Options options;
    for (std::size_t i = 0; i < arguments.size(); i += 2) {
        const std::string_view option = arguments[i];
        if (i + 1 == arguments.size()) {
            throw std::invalid_argument(std::string(option) + " lacks its value");
        }
        if (option == "--repeat") {
            options.repetitions = parsePositive<int>(arguments[i + 1]);
        } else {
            applyToCases(options.cases, settingOf(option), splitAtCommas(arguments[i + 1]));
        }
    }
    return options;
}

double secondsBetween(std::chrono::steady_clock::time_point start,
                      std::chrono::steady_clock::time_point end) {
    return std::chrono::duration<double>(end - start).count();
}

double processorSeconds() {
    timespec time = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

Measurement measure(const Case& c) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point setup_start = Clock::now();
    Gate::BenchmarkWorkload workload = Gate::buildBenchmarkWorkload(c.scale);
    CpuWindowBackend cpu;
    Gate::TimedBackend backend(cpu);
    // The synapses are handed over, not copied: the peak is that of a program with one network.
    SynapseGraph graph(workload.neuron_count, workload.min_delay, std::move(workload.synapses));
    KelmRuntime runtime = makeKelmRuntime(
        std::move(graph), workload.neuron, workload.firing, Gate::benchmark_seed, workload.horizon,
        &backend, std::make_unique<BucketEventStore>(workload.min_delay, c.buckets));

    const Clock::time_point start = Clock::now();
    const double cpu_start = processorSeconds();
    runtime.run(endOf(c));
    const double cpu_end = processorSeconds();
    const Clock::time_point end = Clock::now();

    Measurement result;
    result.setup_seconds = secondsBetween(setup_start, start);
    result.seconds = secondsBetween(start, end);
    result.cpu_seconds = cpu_end - cpu_start;
    result.backend_seconds = backend.seconds();
    result.spikes = runtime.spikeLog().size();
    result.log_hash = runtime.logHash();
    result.profile = runtime.profile();
    return result;
}

/// The child's side of a measurement: it leaves through _exit, so that nothing that the parent has
/// prepared is flushed or destroyed twice.
[[noreturn]] void reportTo(int pipe_end, const Case& c) {
    try {
        const Measurement result = measure(c);
        const bool written = write(pipe_end, &result, sizeof(result)) == sizeof(result);
        _exit(written ? EXIT_SUCCESS : EXIT_FAILURE);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "kelm-whole-run: %s\n", failure.what());
        _exit(EXIT_FAILURE);
    }
}

Measurement measureInChild(const Case& c) {
    int ends[2] = {};
    if (pipe(ends) != 0) throw std::runtime_error("no pipe to a measuring process");
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("no measuring process");
    if (child == 0) reportTo(ends[1], c);
    close(ends[1]);
    Measurement result;
    // A pipe hands over so few bytes in one piece.
    const bool complete = read(ends[0], &result, sizeof(result)) == sizeof(result);
    close(ends[0]);
    int status = 0;
    rusage usage = {};
    while (wait4(child, &status, 0, &usage) < 0 && errno == EINTR) {
    }
    if (!complete || status != 0) throw std::runtime_error("a measuring process failed");
    result.peak_bytes = static_cast<std::uint64_t>(usage.ru_maxrss) * 1024;
    return result;
}

/// A figure over all turns of a case.
struct Spread {
    double least;
    double median;
    double greatest;
};

template <class Field>
Spread spreadOf(const std::vector<Measurement>& turns, Field Measurement::*field) {
    std::vector<double> values;
    for (const Measurement& turn : turns) values.push_back(static_cast<double>(turn.*field));
    std::sort(values.begin(), values.end());
    const double upper = values[values.size() / 2];
    const double lower = values[(values.size() - 1) / 2];
    return {values.front(), (lower + upper) / 2, values.back()};
}

double perUnit(double value, std::uint64_t units) {
    return units == 0 ? 0.0 : value / static_cast<double>(units);
}

/// What is compared between cases. Time is processor time: a run has one thread, and others who
/// use the machine do not count in it.
struct Summary {
    double cpu_seconds;
    double ns_per_delivery;
    double us_per_window;
    double peak_mib;
};

Summary summarise(const std::vector<Measurement>& turns) {
    const WindowProfile& profile = turns.front().profile;
    const double seconds = spreadOf(turns, &Measurement::cpu_seconds).median;
    return {seconds, perUnit(seconds * 1e9, profile.deliveries),
            perUnit(seconds * 1e6, profile.windows),
            spreadOf(turns, &Measurement::peak_bytes).median / 1048576.0};
}

void printCase(const Case& c, const std::vector<Measurement>& turns, const Summary& summary) {
    const Measurement& first = turns.front();
    const Spread cpu = spreadOf(turns, &Measurement::cpu_seconds);
    const double wall = spreadOf(turns, &Measurement::seconds).median;
    const double backend = spreadOf(turns, &Measurement::backend_seconds).median;
    std::printf("%" PRIu64 " neurons, %g spikes/s, d_min %" PRId64 " ns, run to %" PRId64
                " of %" PRId64 " ns, %" PRIu64 " buckets\n",
                c.scale.neuron_count, c.scale.base_rate, c.scale.min_delay, endOf(c),
                c.scale.horizon, c.buckets);
    std::printf("  %" PRIu64 " spikes, %" PRIu64 " deliveries in %" PRIu64
                " windows (%.1f each), log hash 0x%016" PRIx64 "\n",
                first.spikes, first.profile.deliveries, first.profile.windows,
                perUnit(static_cast<double>(first.profile.deliveries), first.profile.windows),
                first.log_hash);
    std::printf(
        "  %.3f s processor (%.3f to %.3f), %.3f s wall, of it %.1f %% in the backend; "
        "setup %.3f s\n",
        cpu.median, cpu.least, cpu.greatest, wall, 100.0 * backend / wall,
        spreadOf(turns, &Measurement::setup_seconds).median);
    std::printf("  %.1f ns a delivery, %.3f us a window, peak %.1f MiB\n\n",
                summary.ns_per_delivery, summary.us_per_window, summary.peak_mib);
}

void printRatios(std::size_t index, const Summary& summary, const Summary& base) {
    std::printf(
        "case %zu to case 1: time %.2f, memory %.2f, time a delivery %.3f, time a window %.3f\n",
        index + 1, summary.cpu_seconds / base.cpu_seconds, summary.peak_mib / base.peak_mib,
        summary.ns_per_delivery / base.ns_per_delivery, summary.us_per_window / base.us_per_window);
}

void runAll(const Options& options) {
    std::vector<std::vector<Measurement>> turns(options.cases.size());
    for (int turn = 0; turn < options.repetitions; ++turn) {
        for (std::size_t i = 0; i < options.cases.size(); ++i) {
            turns[i].push_back(measureInChild(options.cases[i]));
            const Measurement& first = turns[i].front();
            const Measurement& last = turns[i].back();
            if (last.log_hash != first.log_hash || !(last.profile == first.profile)) {
                throw std::runtime_error("two runs of one case differ");
            }
        }
    }
    std::vector<Summary> summaries;
    for (std::size_t i = 0; i < turns.size(); ++i) {
        summaries.push_back(summarise(turns[i]));
        printCase(options.cases[i], turns[i], summaries[i]);
    }
    for (std::size_t i = 1; i < summaries.size(); ++i) {
        printRatios(i, summaries[i], summaries[0]);
    }
}

}  // namespace

}  // namespace Lumenar::Core::Kelm

int main(int argc, char** argv) {
    using namespace Lumenar::Core::Kelm;
    try {
        runAll(parseOptions({argv + (argc > 0 ? 1 : 0), argv + argc}));
        return EXIT_SUCCESS;
    } catch (const std::invalid_argument& failure) {
        std::fprintf(stderr, "kelm-whole-run: %s\n%s", failure.what(), usage_text);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "kelm-whole-run: %s\n", failure.what());
    }
    return EXIT_FAILURE;
}
