// kelm-soak: makes models from seeds, runs each in every way and compares the bits.
//
//   kelm-soak [--models N] [--first SEED] [--kind KIND]   N models, from the seed SEED on
//   kelm-soak --seed SEED [--kind KIND] [--only WAY]      one model; --print shows it
//   kelm-soak --compare LEFT RIGHT --seed SEED            the first difference of two ways
//   kelm-soak --compare FILE FILE                         the same of two checkpoints or snapshots
//
// Exit status: 0 if nothing differs, 1 if something differs or the models do too little, 2 for bad
// arguments.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "compare/BlobLayout.h"
#include "fuzz/Soak.h"

namespace {

using namespace Lumenar::Core::Kelm;
using namespace Lumenar::Core::Kelm::Fuzzing;

struct Arguments {
    std::uint64_t models = 100;
    std::uint64_t first = 1;
    std::optional<std::uint64_t> seed;
    std::optional<ModelKind> kind;
    std::optional<std::string> only;
    std::optional<std::string> left;
    std::string right;
    bool prints = false;
};

struct BadUsage : std::exception {};

std::uint64_t numberOf(const std::string& text) {
    std::size_t end = 0;
    if (text.empty() || text[0] < '0' || text[0] > '9') throw BadUsage();
    try {
        const std::uint64_t number = std::stoull(text, &end);
        if (end == text.size()) return number;
    } catch (const std::exception&) {
    }
    throw BadUsage();
}

Arguments argumentsOf(int count, char** values) {
    Arguments arguments;
    for (int i = 1; i < count; ++i) {
        const std::string_view option = values[i];
        const auto value = [&]() -> std::string {
            if (++i >= count) throw BadUsage();
            return values[i];
        };
        if (option == "--models") {
            arguments.models = numberOf(value());
        } else if (option == "--first") {
            arguments.first = numberOf(value());
        } else if (option == "--seed") {
            arguments.seed = numberOf(value());
        } else if (option == "--kind") {
            arguments.kind = kindNamed(value());
            if (!arguments.kind) throw BadUsage();
        } else if (option == "--only") {
            arguments.only = value();
        } else if (option == "--compare") {
            arguments.left = value();
            arguments.right = value();
        } else if (option == "--print") {
            arguments.prints = true;
        } else {
            throw BadUsage();
        }
    }
    return arguments;
}

Blob bytesOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw BadUsage();
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

int compareFiles(const std::string& left, const std::string& right) {
    const auto found = Compare::blobDifference("bytes", bytesOf(left), bytesOf(right));
    std::printf("%s\n", found ? found->text().c_str() : "no difference");
    return found ? 1 : 0;
}

int compareWays(Soak& soak, const SoakModel& model, const Arguments& arguments) {
    if (!soak.applies(*arguments.left, model) || !soak.applies(arguments.right, model)) {
        std::fprintf(stderr, "a model of kind %s does not run in one of these ways\n",
                     nameOf(model.kind));
        return 2;
    }
    const auto found = soak.compare(model, *arguments.left, arguments.right);
    std::printf("%s\n", found ? found->text().c_str() : "no difference");
    return found ? 1 : 0;
}

/// Prints a finding, then looks for a smaller model, which takes long.
void report(Soak& soak, const Fuzzing::Finding& finding, const SoakModel& model,
            const char* program) {
    std::printf("seed %llu: %s differs from %s in %s\n",
                static_cast<unsigned long long>(model.seed), finding.way.c_str(), Soak::reference,
                finding.difference.text().c_str());
    std::printf("to repeat: %s --seed %llu --kind %s --only %s\n", program,
                static_cast<unsigned long long>(model.seed), nameOf(model.kind),
                finding.way.c_str());
    if (!finding.repeats) std::printf("the repeated runs showed no difference\n");
    std::fflush(stdout);
    const auto smallest = soak.shrink(model, finding.way);
    if (!smallest) return;
    std::printf("the smallest model that still differs, in %s:\n%s",
                smallest->difference.text().c_str(), smallest->model.text().c_str());
}

int soak(const Arguments& arguments, const char* program) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    const auto seconds = [&] {
        return std::chrono::duration<double>(Clock::now() - start).count();
    };
    Soak soak;
    const std::vector<std::string> ways = soak.ways();
    if (arguments.only && std::count(ways.begin(), ways.end(), *arguments.only) == 0) {
        throw BadUsage();
    }
    const std::uint64_t first = arguments.seed.value_or(arguments.first);
    const std::uint64_t count = arguments.seed ? 1 : arguments.models;
    double next_report = 60.0;
    for (std::uint64_t i = 0; i < count; ++i) {
        const SoakModel model = generateSoakModel(first + i, arguments.kind);
        if (arguments.prints) std::printf("%s", model.text().c_str());
        if (arguments.left) return compareWays(soak, model, arguments);
        if (const auto finding = soak.examine(model, arguments.only)) {
            report(soak, *finding, model, program);
            return 1;
        }
        if (seconds() < next_report) continue;
        next_report = seconds() + 60.0;
        std::printf("%llu models, %.1f ms each\n", static_cast<unsigned long long>(i + 1),
                    seconds() / static_cast<double>(i + 1) * 1e3);
        std::fflush(stdout);
    }
    Tally all;
    std::string kinds;
    for (std::size_t kind = 0; kind < kind_count; ++kind) {
        all += soak.tallies()[kind];
        kinds += std::string(kind == 0 ? "" : ", ") + nameOf(static_cast<ModelKind>(kind)) + ' ' +
                 std::to_string(soak.models()[kind]);
    }
    const auto number = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
    std::printf(
        "%llu models (%s), %llu runs, %llu windows, %llu spikes, %llu refusals, %llu exceptions, "
        "%llu cuts, %llu whole runs, %llu observations, %llu weight changes, digest %016llx, "
        "%.1f s\n",
        number(count), kinds.c_str(), number(all.runs), number(all.windows), number(all.spikes),
        number(all.refusals), number(all.thrown), number(all.cuts), number(all.whole),
        number(all.observed), number(all.learned), number(soak.digest()), seconds());
    if (const std::string idle = soak.idleKind(); !arguments.only && !idle.empty()) {
        std::printf("models of kind %s do too little: the generator is at fault\n", idle.c_str());
        return 1;
    }
    return 0;
}

}  // namespace

int main(int count, char** values) {
    try {
        const Arguments arguments = argumentsOf(count, values);
        if (arguments.left && std::filesystem::is_regular_file(*arguments.left)) {
            return compareFiles(*arguments.left, arguments.right);
        }
        if (arguments.left && !arguments.seed) throw BadUsage();
        return soak(arguments, values[0]);
    } catch (const BadUsage&) {
        std::fprintf(stderr,
                     "usage: kelm-soak [--models N] [--first SEED] [--seed SEED] [--kind KIND]\n"
                     "                 [--only WAY] [--print]\n"
                     "       kelm-soak --compare LEFT RIGHT --seed SEED [--kind KIND]\n"
                     "       kelm-soak --compare FILE FILE\n"
                     "kinds:");
        for (std::size_t kind = 0; kind < kind_count; ++kind) {
            std::fprintf(stderr, " %s", nameOf(static_cast<ModelKind>(kind)));
        }
        std::fprintf(stderr, "\nways:");
        for (const std::string& way : Soak().ways()) std::fprintf(stderr, " %s", way.c_str());
        std::fprintf(stderr, "\n");
        return 2;
    }
}
