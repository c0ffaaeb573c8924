// Measures runs of the benchmark network through runtimes with different parts, each compared with
// the run without the part. Each run has its own child process. The cases of one call take turns,
// so that a busy machine slows all of them alike. Times are processor time, figures are medians
// over the turns, and ratios are taken within each turn.

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "bench/runtime/ComposedCases.h"
#include "bench/runtime/Figures.h"
#include "bench/runtime/MeasuringProcess.h"
#include "bench/runtime/MeasuringProgram.h"
#include "bench/runtime/OptionText.h"

namespace Lumenar::Core::Kelm {

namespace {

constexpr const char* usage_text =
    "usage: kelm-composed-run [option value]...\n"
    "  --cases      names of cases, with commas between them (default: all)\n"
    "  --neurons    neurons of the network\n"
    "  --base-rate  spikes/s of a neuron without input\n"
    "  --horizon    ns; end of the run\n"
    "  --repeat     measured runs of each case\n"
    "Cases:\n";

/// The measurements of one case, one per turn.
using Turns = std::vector<Measured<ComposedMeasurement>>;

struct Options {
    std::vector<ComposedCase> cases;
    BenchmarkScale scale;
    int repetitions = 5;
};

/// The named cases in the order of the table, in which each case is after its base.
std::vector<ComposedCase> casesNamed(const std::vector<std::string_view>& names) {
    const auto among = [](const auto& list, std::string_view name) {
        return std::find(list.begin(), list.end(), name) != list.end();
    };
    std::vector<std::string_view> known;
    std::vector<ComposedCase> cases;
    for (const ComposedCase& c : composedCases()) {
        known.push_back(c.name);
        if (among(names, c.name)) cases.push_back(c);
    }
    for (const std::string_view name : names) {
        if (!among(known, name)) throw std::invalid_argument("unknown case " + std::string(name));
    }
    return cases;
}

Options parseOptions(const std::vector<std::string_view>& arguments) {
    Options options;
    options.cases.assign(composedCases().begin(), composedCases().end());
    for (std::size_t i = 0; i < arguments.size(); i += 2) {
        const std::string_view option = arguments[i];
        if (i + 1 == arguments.size()) {
            throw std::invalid_argument(std::string(option) + " needs a value");
        }
        const std::string_view value = arguments[i + 1];
        if (option == "--cases") {
            options.cases = casesNamed(splitAtCommas(value));
        } else if (option == "--neurons") {
            options.scale.neuron_count = parsePositive<std::uint64_t>(value);
        } else if (option == "--base-rate") {
            options.scale.base_rate = parsePositive<double>(value);
        } else if (option == "--horizon") {
            options.scale.horizon = parsePositive<ModelTime>(value);
        } else if (option == "--repeat") {
            options.repetitions = parsePositive<int>(value);
        } else {
            throw std::invalid_argument("unknown option " + std::string(option));
        }
    }
    return options;
}

template <class ValueOf>
Spread spreadOfResults(const Turns& turns, ValueOf value_of) {
    return spreadOver(turns, [&](const auto& turn) { return value_of(turn.result); });
}

void printRun(const ComposedCase& c, const Turns& turns) {
    const ComposedMeasurement& first = turns.front().result;
    const Spread cpu =
        spreadOfResults(turns, [](const ComposedMeasurement& m) { return m.cpuSeconds(); });
    const double peak_bytes =
        spreadOver(turns, [](const auto& turn) { return turn.peak_bytes; }).median;
    std::printf("%.*s: %.*s\n", static_cast<int>(c.name.size()), c.name.data(),
                static_cast<int>(c.what.size()), c.what.data());
    std::printf("  %" PRIu64 " spikes, %" PRIu64 " deliveries in %" PRIu64
                " windows, log hash 0x%016" PRIx64 "\n",
                first.spikes, first.profile.deliveries, first.profile.windows, first.log_hash);
    std::printf("  %.3f s processor (%.3f to %.3f), %.1f ns a delivery, peak %.1f MiB\n",
                cpu.median, cpu.least, cpu.greatest,
                perUnit(cpu.median * 1e9, first.profile.deliveries), peak_bytes / mebibyte);
    const auto per_delivery = [&](int half) {
        return spreadOfResults(turns,
                               [half](const ComposedMeasurement& m) {
                                   return perUnit(m.halves[half].cpu_seconds * 1e9,
                                                  m.halves[half].deliveries);
                               })
            .median;
    };
    const Stretch& late = first.halves[1];
    std::printf("  halves %.1f and %.1f ns a delivery; %.2f allocations a window in the second\n",
                per_delivery(0), per_delivery(1),
                perUnit(static_cast<double>(late.allocations), late.windows));
}

void printCalls(const Turns& turns) {
    const std::uint64_t calls = turns.front().result.calls;
    if (calls == 0) return;
    const Spread seconds =
        spreadOfResults(turns, [](const ComposedMeasurement& m) { return m.call_seconds; });
    std::printf("  %" PRIu64 " observations or input events, %.1f ns each\n", calls,
                perUnit(seconds.median * 1e9, calls));
}

void printCheckpoint(const Turns& turns) {
    const std::uint64_t bytes = turns.front().result.checkpoint_bytes;
    if (bytes == 0) return;
    const double mib = static_cast<double>(bytes) / mebibyte;
    const Spread write =
        spreadOfResults(turns, [](const ComposedMeasurement& m) { return m.write_seconds; });
    const Spread restore =
        spreadOfResults(turns, [](const ComposedMeasurement& m) { return m.restore_seconds; });
    std::printf(
        "  checkpoint of %.1f MiB: written in %.3f s, %.0f MiB/s; restored in %.3f s, "
        "%.0f MiB/s\n",
        mib, write.median, mib / write.median, restore.median, mib / restore.median);
}

/// Ratios are taken within each turn, where the two runs are close in time.
void printRatios(const ComposedCase& c, const Turns& turns, const Turns& base) {
    std::vector<double> whole;
    std::vector<double> delivery;
    for (std::size_t i = 0; i < turns.size(); ++i) {
        const ComposedMeasurement& m = turns[i].result;
        const ComposedMeasurement& b = base[i].result;
        whole.push_back(m.cpuSeconds() / b.cpuSeconds());
        delivery.push_back(perUnit(m.cpuSeconds(), m.profile.deliveries) /
                           perUnit(b.cpuSeconds(), b.profile.deliveries));
    }
    const Spread time = spreadOf(std::move(whole));
    std::printf("  to %.*s: time %.3f (%.3f to %.3f), time a delivery %.3f\n",
                static_cast<int>(c.base.size()), c.base.data(), time.median, time.least,
                time.greatest, spreadOf(std::move(delivery)).median);
}

/// The turns of the case `name`, or null if it was not measured.
const Turns* turnsOf(const Options& options, const std::vector<Turns>& turns,
                     std::string_view name) {
    for (std::size_t i = 0; i < options.cases.size(); ++i) {
        if (options.cases[i].name == name) return &turns[i];
    }
    return nullptr;
}

void requireSame(const ComposedMeasurement& a, const ComposedMeasurement& b) {
    if (a.log_hash != b.log_hash || !(a.profile == b.profile)) {
        throw std::runtime_error("two runs that must be the same differ");
    }
}

void runAll(const Options& options) {
    std::vector<Turns> turns(options.cases.size());
    for (int turn = 0; turn < options.repetitions; ++turn) {
        for (std::size_t i = 0; i < options.cases.size(); ++i) {
            turns[i].push_back(measureInChild<ComposedMeasurement>(
                [&] { return options.cases[i].measure(options.scale); }));
            requireSame(turns[i].front().result, turns[i].back().result);
        }
    }
    std::printf("%" PRIu64 " neurons, %g spikes/s, run to %" PRId64 " ns\n\n",
                options.scale.neuron_count, options.scale.base_rate, options.scale.horizon);
    for (std::size_t i = 0; i < options.cases.size(); ++i) {
        const ComposedCase& c = options.cases[i];
        printRun(c, turns[i]);
        printCalls(turns[i]);
        printCheckpoint(turns[i]);
        if (const Turns* base = turnsOf(options, turns, c.base)) {
            if (c.same_run) requireSame(turns[i].front().result, base->front().result);
            printRatios(c, turns[i], *base);
        }
        std::printf("\n");
    }
}

void printUsage() {
    std::fputs(usage_text, stderr);
    for (const ComposedCase& c : composedCases()) {
        std::fprintf(stderr, "  %-15.*s%.*s\n", static_cast<int>(c.name.size()), c.name.data(),
                     static_cast<int>(c.what.size()), c.what.data());
    }
}

}  // namespace

}  // namespace Lumenar::Core::Kelm

int main(int argc, char** argv) {
    using namespace Lumenar::Core::Kelm;
    return runMeasuringProgram(
        "kelm-composed-run", argc, argv,
        [](const auto& arguments) { runAll(parseOptions(arguments)); }, printUsage);
}
