// Measures whole runs of one large network on the host's backends. Each run has its own child
// process, so that its peak memory can be measured. The cases of one call take turns, so that a
// busy machine slows all of them alike. Times are medians over the turns.

#include <algorithm>
#include <bit>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bench/runtime/DenseNetwork.h"
#include "bench/runtime/Figures.h"
#include "bench/runtime/MeasuringProcess.h"
#include "bench/runtime/MeasuringProgram.h"
#include "bench/runtime/OptionText.h"
#include "bench/runtime/WorkRecorder.h"
#include "gate/BenchmarkWorkload.h"
#include "gate/TimedBackend.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/events/BucketEventStore.h"
#include "kelm/lanes/LaneCpuBackend.h"
#include "kelm/lanes/LaneKernels.h"
#include "kelm/runtime/KelmRuntime.h"
#ifdef KELM_HAVE_THREADS
#include "kelm/threads/ThreadedCpuBackend.h"
#endif

namespace Lumenar::Core::Kelm {

namespace {

constexpr const char* usage_text =
    "usage: kelm-whole-run [--floor] [--json] [option value[,value...]]...\n"
    "  --floor        repeats the backend's part of each run alone and compares\n"
    "  --json         prints each run as a line of JSON, instead of the medians\n"
    "  --lanes        instruction set of vector lanes: avx2, avx512 or none (default)\n"
    "  --network      reports (default) or dense; sets the network's size, so it comes first\n"
    "  --neurons      neurons of the network\n"
    "  --fanout       synapses that leave each neuron of the dense network\n"
    "  --learning     none (default), pair, homeostasis, or homeostasis with one more part: "
    "journal\n"
    "                 (every entry is kept), fading (weights fade) or phase (phase bindings)\n"
    "  --base-rate    spikes/s of a neuron without input\n"
    "  --d-min        ns; length of a window and delay of every synapse\n"
    "  --horizon      ns; candidates are drawn up to here\n"
    "  --until        ns; the run ends here (default: the horizon)\n"
    "  --buckets      run over a given store with a ring of this length, or 0 for none (default)\n"
    "  --threads      threads of the threaded backend, or 0 for none (default)\n"
    "  --repeat       measured runs of each case\n"
    "An option with several values makes as many cases; a single value applies to all cases.\n";

/// Each but `none` has the pair rule, and each after `pair` has homeostasis.
enum class Learning : std::uint8_t { none, pair, homeostasis, journal, fading, phase };
constexpr const char* learning_names[] = {"none",    "pair",   "homeostasis",
                                          "journal", "fading", "phase"};

struct Case {
    bool dense = false;  ///< the dense network, not the one of the reports
    BenchmarkScale scale;
    std::uint64_t fanout = dense_fanout;  ///< of the dense network
    Learning learning = Learning::none;
    ModelTime until = 0;                        ///< ns, or 0 for the horizon
    std::uint64_t buckets = 0;                  ///< of a store that is given, or 0 for none
    const Lanes::LaneKernels* lanes = nullptr;  ///< of the backend, or null
    std::uint64_t threads = 0;                  ///< of ThreadedCpuBackend, or 0
};

/// Whether two cases must leave the same log and counters.
bool sameModel(const Case& a, const Case& b) {
    return a.dense == b.dense && a.fanout == b.fanout && a.learning == b.learning &&
           a.scale.neuron_count == b.scale.neuron_count && a.scale.base_rate == b.scale.base_rate &&
           a.scale.min_delay == b.scale.min_delay && a.scale.horizon == b.scale.horizon &&
           a.until == b.until;
}

ModelTime endOf(const Case& c) { return c.until != 0 ? c.until : c.scale.horizon; }

struct Options {
    std::vector<Case> cases = std::vector<Case>(1);
    int repetitions = 5;
    bool floor = false;
    bool json = false;
};

/// The figures of one run, passed to the parent process as bytes.
struct Measurement {
    double setup_seconds = 0.0;    ///< wall time of building the network and the runtime
    double seconds = 0.0;          ///< wall time of the run
    double cpu_seconds = 0.0;      ///< processor time of the run
    double backend_seconds = 0.0;  ///< wall time spent in the backend
    std::uint64_t spikes = 0;
    std::uint64_t log_hash = 0;
    WindowProfile profile;
    std::uint64_t synapses = 0;
    std::uint64_t synaptic_deliveries = 0;  ///< before the end of the run
    std::uint64_t weight_sum = 0;           ///< of (place from 1) * weight bits, after the run
    std::uint64_t wiring_sum = 0;   ///< of (place from 1) * target over the synapses, modulo 2^64
    double floor_seconds = 0.0;     ///< processor time of the backend's part alone, with --floor
    std::uint64_t floor_items = 0;  ///< work items of the run
};

/// The measurements of one case, one per turn.
using Turns = std::vector<Measured<Measurement>>;

const Lanes::LaneKernels* laneKernelsOf(std::string_view text) {
    if (text == "none") return nullptr;
    for (const Lanes::LaneKernels* kernels : Lanes::availableKernels()) {
        if (text == kernels->name) return kernels;
    }
    throw std::invalid_argument("this processor has no vector lanes named " + std::string(text));
}

/// An option, and how it changes a case.
struct Setting {
    std::string_view option;
    void (*set)(Case& c, std::string_view text);
};

constexpr Setting settings[] = {
    {"--network",
     [](Case& c, std::string_view text) {
         if (text != "reports" && text != "dense") {
             throw std::invalid_argument("unknown network " + std::string(text));
         }
         c.dense = text == "dense";
         c.scale = c.dense ? dense_scale : BenchmarkScale();
     }},
    {"--neurons",
     [](Case& c, std::string_view text) {
         c.scale.neuron_count = parsePositive<std::uint64_t>(text);
     }},
    {"--fanout",
     [](Case& c, std::string_view text) { c.fanout = parsePositive<std::uint64_t>(text); }},
    {"--learning",
     [](Case& c, std::string_view text) {
         const auto* const found = std::ranges::find(learning_names, text);
         if (found == std::end(learning_names)) {
             throw std::invalid_argument("unknown learning " + std::string(text));
         }
         c.learning = static_cast<Learning>(found - std::begin(learning_names));
     }},
    {"--base-rate",
     [](Case& c, std::string_view text) { c.scale.base_rate = parsePositive<double>(text); }},
    {"--d-min",
     [](Case& c, std::string_view text) { c.scale.min_delay = parsePositive<ModelTime>(text); }},
    {"--horizon",
     [](Case& c, std::string_view text) { c.scale.horizon = parsePositive<ModelTime>(text); }},
    {"--until", [](Case& c, std::string_view text) { c.until = parsePositive<ModelTime>(text); }},
    {"--buckets",
     [](Case& c, std::string_view text) {
         c.buckets = text == "0" ? 0 : parsePositive<std::uint64_t>(text);
     }},
    {"--lanes", [](Case& c, std::string_view text) { c.lanes = laneKernelsOf(text); }},
    {"--threads",
     [](Case& c, std::string_view text) {
         c.threads = text == "0" ? 0 : parsePositive<std::uint64_t>(text);
#ifndef KELM_HAVE_THREADS
         if (c.threads != 0) throw std::invalid_argument("this build has no threaded backend");
#endif
     }},
};

const Setting& settingOf(std::string_view option) {
    for (const Setting& setting : settings) {
        if (setting.option == option) return setting;
    }
    throw std::invalid_argument("unknown option " + std::string(option));
}

/// Applies one value to all cases, or one value to each case. The first list makes the cases.
void applyToCases(std::vector<Case>& cases, const Setting& setting,
                  const std::vector<std::string_view>& values) {
    if (cases.size() == 1) cases.resize(values.size(), cases[0]);
    if (values.size() != 1 && values.size() != cases.size()) {
        throw std::invalid_argument("the options have different numbers of values");
    }
    for (std::size_t i = 0; i < cases.size(); ++i) {
        setting.set(cases[i], values[values.size() == 1 ? 0 : i]);
    }
}

Options parseOptions(const std::vector<std::string_view>& arguments) {
    Options options;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string_view option = arguments[i];
        if (option == "--floor" || option == "--json") {
            (option == "--floor" ? options.floor : options.json) = true;
            continue;
        }
        if (++i == arguments.size()) {
            throw std::invalid_argument(std::string(option) + " needs a value");
        }
        if (option == "--repeat") {
            options.repetitions = parsePositive<int>(arguments[i]);
        } else {
            applyToCases(options.cases, settingOf(option), splitAtCommas(arguments[i]));
        }
    }
    return options;
}

PlasticityConfig plasticityOf(const Case& c) {
    PlasticityConfig config;
    if (c.learning == Learning::none) return config;
    config.enabled = true;
    for (PlasticityRule* const rule : {&config.excitatory, &config.inhibitory}) {
        rule->kind = PlasticityRuleKind::pair;
        rule->a_potentiation = 0.001;
        rule->a_depression = 0.001;
    }
    config.homeostasis.enabled = c.learning != Learning::pair;
    config.homeostasis.cap = c.dense ? 0.09 : 0.02;  // the mean of the initial weights
    return config;
}

/// Each neuron is bound to one of two oscillators.
std::optional<PhaseConfig> phaseOf(const Case& c) {
    if (c.learning != Learning::phase) return std::nullopt;
    PhaseConfig config;
    for (const std::uint32_t id : {0U, 1U}) {
        Oscillator oscillator;
        oscillator.id = id;
        oscillator.frequency = id == 0 ? 8.0 : 40.0;
        oscillator.amplitude = 1.0;
        config.oscillators.push_back(oscillator);
    }
    config.bindings.resize(c.scale.neuron_count);
    for (NodeId n = 0; n < c.scale.neuron_count; ++n) {
        PhaseBinding binding;
        binding.oscillator = n % 2;
        binding.strength = 0.1;
        config.bindings[n].push_back(binding);
    }
    return config;
}

void setLearning(const Case& c, KelmRuntime& runtime) {
    LearningControl* const learning = runtime.learningControl();
    if (learning == nullptr) return;
    if (c.learning != Learning::journal) learning->setJournal(JournalMode::off);
    if (c.learning == Learning::fading) learning->setFastWeights(true, 50'000'000, 0.0);
    if (c.learning == Learning::phase) {
        std::vector<std::vector<std::uint32_t>> memberships(c.scale.neuron_count);
        for (NodeId n = 0; n < c.scale.neuron_count; ++n) memberships[n] = {n % 2 == 0 ? 0U : 1U};
        runtime.oscillators()->setMemberships(std::move(memberships));
    }
}

KelmRuntime makeRuntime(const Case& c, IWindowBackend& backend) {
    std::unique_ptr<IEventStore> store;
    if (c.buckets != 0) {
        store = std::make_unique<BucketEventStore>(c.scale.min_delay, c.buckets);
    }
    const auto make = [&](SynapseGraph&& graph, const Kernel::Neuron& neuron,
                          const Kernel::Firing& firing) {
        return makeKelmRuntime(std::move(graph), neuron, firing, benchmark_seed, c.scale.horizon,
                               &backend, std::move(store), plasticityOf(c), phaseOf(c));
    };
    if (c.dense) {
        DenseNetwork network = buildDenseNetwork(c.scale, c.fanout);
        return make(std::move(network.graph), network.neuron, network.firing);
    }
    BenchmarkWorkload workload = buildBenchmarkWorkload(c.scale);
    // The synapses are handed over, not copied: the peak is that of a program with one network.
    return make(
        SynapseGraph(workload.neuron_count, workload.min_delay, std::move(workload.synapses)),
        workload.neuron, workload.firing);
}

/// The backend of a case: threads, lanes, threads with lanes, or else the CPU backend.
std::unique_ptr<IWindowBackend> makeBackend(const Case& c) {
#ifdef KELM_HAVE_THREADS
    if (c.threads != 0 && c.lanes != nullptr) {
        return std::make_unique<ThreadedCpuBackend>(LaneCpuBackend(*c.lanes), c.threads);
    }
    if (c.threads != 0) return std::make_unique<ThreadedCpuBackend>(c.threads);
#endif
    if (c.lanes != nullptr) return std::make_unique<LaneCpuBackend>(*c.lanes);
    return std::make_unique<CpuWindowBackend>();
}

/// Describes the wiring and counts the synaptic inputs. All neurons have equally many synapses, and
/// all synapses the same delay.
void describeNetwork(const Case& c, KelmRuntime& runtime, Measurement& result) {
    const SynapseGraph& graph = runtime.graph();
    result.synapses = graph.edgeCount();
    for (EdgeId id = 0; id < result.synapses; ++id) {
        result.wiring_sum += (id + 1) * graph.target(id);
        result.weight_sum += (id + 1) * std::bit_cast<std::uint32_t>(graph.edge(id).weight);
    }
    const std::uint64_t fanout = result.synapses / graph.nodeCount();
    for (const SpikeRecord& spike : runtime.spikeLog()) {
        if (spike.time < endOf(c) - c.scale.min_delay) result.synaptic_deliveries += fanout;
    }
}

/// `share`: whether to measure the backend's share, which reads the clock twice in each part.
Measurement measureRun(const Case& c, bool share) {
    using Clock = std::chrono::steady_clock;
    const std::unique_ptr<IWindowBackend> inner = makeBackend(c);
    TimedBackend backend(*inner);
    const Clock::time_point setup_start = Clock::now();
    KelmRuntime runtime = makeRuntime(c, share ? static_cast<IWindowBackend&>(backend) : *inner);
    setLearning(c, runtime);

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
    describeNetwork(c, runtime, result);
    return result;
}

/// Runs the case once more, records its work, and repeats the backend's part.
void measureFloor(const Case& c, Measurement& result) {
    const std::unique_ptr<IWindowBackend> backend = makeBackend(c);
    WorkRecorder recorder(*backend);
    {
        KelmRuntime runtime = makeRuntime(c, recorder);
        setLearning(c, runtime);
        runtime.run(endOf(c));
        if (runtime.logHash() != result.log_hash) {
            throw std::runtime_error("the recorded run differs from the measured one");
        }
    }
    result.floor_items = recorder.itemCount();
    result.floor_seconds = recorder.replay();
}

Measurement measure(const Case& c, const Options& options) {
    Measurement result = measureRun(c, !options.floor && !options.json);
    if (options.floor) measureFloor(c, result);
    return result;
}

void printJson(const Measured<Measurement>& turn) {
    const Measurement& run = turn.result;
    std::printf(
        "{\"wall_s\": %.6f, \"processor_s\": %.6f, \"building_s\": %.6f, \"spikes\": %" PRIu64
        ", \"synaptic_deliveries\": %" PRIu64 ", \"synapses\": %" PRIu64
        ", \"peak_bytes\": %" PRIu64 ", \"wiring_sum\": %" PRIu64 ", \"log_hash\": \"0x%016" PRIx64
        "\"}\n",
        run.seconds, run.cpu_seconds, run.setup_seconds, run.spikes, run.synaptic_deliveries,
        run.synapses, turn.peak_bytes, run.wiring_sum, run.log_hash);
}

Spread spreadOf(const Turns& turns, double Measurement::*field) {
    return spreadOver(turns, [=](const auto& turn) { return turn.result.*field; });
}

/// The figures that are compared between cases. `cpu_seconds` covers all threads.
struct Summary {
    double cpu_seconds;
    double wall_seconds;
    double backend_wall_seconds;
    double ns_per_delivery;
    double us_per_window;
    double peak_mib;
};

Summary summarise(const Turns& turns) {
    const WindowProfile& profile = turns.front().result.profile;
    const double seconds = spreadOf(turns, &Measurement::cpu_seconds).median;
    const double peak_bytes =
        spreadOver(turns, [](const auto& turn) { return turn.peak_bytes; }).median;
    return {seconds,
            spreadOf(turns, &Measurement::seconds).median,
            spreadOf(turns, &Measurement::backend_seconds).median,
            perUnit(seconds * 1e9, profile.deliveries),
            perUnit(seconds * 1e6, profile.windows),
            peak_bytes / mebibyte};
}

void printCase(const Case& c, const Turns& turns, const Summary& summary) {
    const Measurement& first = turns.front().result;
    const Spread cpu = spreadOf(turns, &Measurement::cpu_seconds);
    const double wall = summary.wall_seconds;
    std::printf(
        "%s network, %" PRIu64 " neurons, %g spikes/s, d_min %" PRId64 " ns, run to %" PRId64
        " of %" PRId64 " ns, %" PRIu64 " buckets, lanes %s, %" PRIu64 " threads, learning %s\n",
        c.dense ? "dense" : "reports", c.scale.neuron_count, c.scale.base_rate, c.scale.min_delay,
        endOf(c), c.scale.horizon, c.buckets, c.lanes == nullptr ? "none" : c.lanes->name,
        c.threads, learning_names[static_cast<std::size_t>(c.learning)]);
    std::printf("  %" PRIu64 " spikes, %" PRIu64 " deliveries in %" PRIu64
                " windows (%.1f each), log hash 0x%016" PRIx64 "\n",
                first.spikes, first.profile.deliveries, first.profile.windows,
                perUnit(static_cast<double>(first.profile.deliveries), first.profile.windows),
                first.log_hash);
    std::printf("  %.3f s processor (%.3f to %.3f), %.3f s wall, ", cpu.median, cpu.least,
                cpu.greatest, wall);
    if (summary.backend_wall_seconds > 0.0) {
        std::printf("%.1f %% of that in the backend; ",
                    100.0 * summary.backend_wall_seconds / wall);
    }
    std::printf("setup %.3f s\n", spreadOf(turns, &Measurement::setup_seconds).median);
    std::printf("  %.1f ns a delivery, %.3f us a window, peak %.1f MiB\n", summary.ns_per_delivery,
                summary.us_per_window, summary.peak_mib);
}

/// The ratio is taken within each turn, where a run and its floor are close in time.
void printFloor(const Turns& turns) {
    const std::uint64_t items = turns.front().result.floor_items;
    const Spread floor = spreadOf(turns, &Measurement::floor_seconds);
    const Spread ratio = spreadOver(turns, [](const auto& turn) {
        return turn.result.cpu_seconds / turn.result.floor_seconds;
    });
    std::printf("  floor: %" PRIu64
                " items in %.3f s processor (%.3f to %.3f), %.1f ns an item; "
                "run / floor %.2f (%.2f to %.2f)\n",
                items, floor.median, floor.least, floor.greatest,
                perUnit(floor.median * 1e9, items), ratio.median, ratio.least, ratio.greatest);
}

/// The ratio of two floors is taken within each turn.
void printFloorRatio(std::size_t index, const Turns& turns, const Turns& base) {
    std::vector<double> ratios;
    for (std::size_t i = 0; i < turns.size(); ++i) {
        ratios.push_back(turns[i].result.floor_seconds / base[i].result.floor_seconds);
    }
    const Spread ratio = spreadOver(ratios, [](double value) { return value; });
    std::printf("case %zu to case 1: floor %.3f (%.3f to %.3f)\n", index + 1, ratio.median,
                ratio.least, ratio.greatest);
}

/// Wall times are compared within each turn, where two cases are close in time.
void printRatios(std::size_t index, const std::vector<Turns>& turns,
                 const std::vector<Summary>& summaries) {
    const Summary& summary = summaries[index];
    const Summary& base = summaries[0];
    const auto wallRatio = [&](double Measurement::*field) {
        std::vector<double> ratios;
        for (std::size_t turn = 0; turn < turns[index].size(); ++turn) {
            ratios.push_back(turns[index][turn].result.*field / (turns[0][turn].result.*field));
        }
        return Kelm::spreadOf(std::move(ratios));
    };
    const Spread wall = wallRatio(&Measurement::seconds);
    std::printf(
        "case %zu to case 1: time %.2f, memory %.2f, time a delivery %.3f, time a window %.3f; "
        "wall %.2f (%.2f to %.2f)",
        index + 1, summary.cpu_seconds / base.cpu_seconds, summary.peak_mib / base.peak_mib,
        summary.ns_per_delivery / base.ns_per_delivery, summary.us_per_window / base.us_per_window,
        wall.median, wall.least, wall.greatest);
    if (base.backend_wall_seconds > 0.0) {
        const Spread backend = wallRatio(&Measurement::backend_seconds);
        std::printf(", in the backend %.2f (%.2f to %.2f)", backend.median, backend.least,
                    backend.greatest);
    }
    std::printf("\n");
}

void requireEqual(const Measurement& a, const Measurement& b, const char* what) {
    if (a.log_hash != b.log_hash || !(a.profile == b.profile) || a.weight_sum != b.weight_sum) {
        throw std::runtime_error(what);
    }
}

void runAll(const Options& options) {
    std::vector<Turns> turns(options.cases.size());
    for (int turn = 0; turn < options.repetitions; ++turn) {
        for (std::size_t i = 0; i < options.cases.size(); ++i) {
            turns[i].push_back(
                measureInChild<Measurement>([&] { return measure(options.cases[i], options); }));
            requireEqual(turns[i].back().result, turns[i].front().result,
                         "two runs of one case differ");
            if (sameModel(options.cases[i], options.cases[0])) {
                requireEqual(turns[i].back().result, turns[0].front().result,
                             "two backends or rings differ on one model");
            }
            if (options.json) printJson(turns[i].back());
        }
    }
    if (options.json) return;
    std::vector<Summary> summaries;
    for (std::size_t i = 0; i < turns.size(); ++i) {
        summaries.push_back(summarise(turns[i]));
        printCase(options.cases[i], turns[i], summaries[i]);
        if (options.floor) printFloor(turns[i]);
        std::printf("\n");
    }
    for (std::size_t i = 1; i < summaries.size(); ++i) {
        printRatios(i, turns, summaries);
        if (options.floor) printFloorRatio(i, turns[i], turns[0]);
    }
}

}  // namespace

}  // namespace Lumenar::Core::Kelm

int main(int argc, char** argv) {
    using namespace Lumenar::Core::Kelm;
    return runMeasuringProgram(
        "kelm-whole-run", argc, argv,
        [](const auto& arguments) { runAll(parseOptions(arguments)); },
        [] { std::fputs(usage_text, stderr); });
}
