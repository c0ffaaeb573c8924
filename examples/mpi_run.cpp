// A balanced network on the processes of an MPI job. Every process builds only the synapses that
// enter its own neurons, and the digest does not depend on the number of processes and threads.
//
//   mpiexec -n 4 kelm-mpi-run [--neurons N] [--inputs K] [--until MS] [--threads T]
//                             [--checkpoint FILE] [--every MS] [--resume FILE]
//
// --checkpoint writes the state to a file at the end, and each --every ms before; --resume goes on
// from such a file, on any number of processes.
#include <sys/resource.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <string>
#include <system_error>

#include "kelm/kelm.h"
#include "kelm/mpi/MpiProcess.h"
#include "kelm/mpi/MpiRankGroup.h"

using namespace kelm;

namespace {

struct Settings {
    std::uint64_t neurons = 100'000;
    std::uint64_t inputs = 100;  ///< of each neuron
    ModelTime until = 1 * s;
    ModelTime every = 0;
    std::uint64_t threads = 1;
    std::string checkpoint;
    std::string resume;
};

std::uint64_t numberOf(const std::string& option, const std::string& text) {
    std::uint64_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [read, error] = std::from_chars(text.data(), end, value);
    // As many ms as fit into a ModelTime.
    if (read != end || error != std::errc() || value > last_model_time / ms) {
        throw std::invalid_argument(option + " takes a whole number, not " + text);
    }
    return value;
}

Settings read(int count, char** arguments) {
    Settings settings;
    for (int i = 1; i < count; i += 2) {
        const std::string option = arguments[i];
        if (i + 1 == count) throw std::invalid_argument(option + " needs a value");
        const std::string value = arguments[i + 1];
        if (option == "--neurons") {
            settings.neurons = numberOf(option, value);
        } else if (option == "--inputs") {
            settings.inputs = numberOf(option, value);
        } else if (option == "--until") {
            settings.until = static_cast<ModelTime>(numberOf(option, value)) * ms;
        } else if (option == "--every") {
            settings.every = static_cast<ModelTime>(numberOf(option, value)) * ms;
        } else if (option == "--threads") {
            settings.threads = numberOf(option, value);
        } else if (option == "--checkpoint") {
            settings.checkpoint = value;
        } else if (option == "--resume") {
            settings.resume = value;
        } else {
            throw std::invalid_argument("there is no option " + option);
        }
    }
    return settings;
}

Wiring wiringOf(const Settings& settings) {
    const std::uint64_t excitatory = settings.neurons * 4 / 5;
    const NeuronRange all{0, settings.neurons};
    const SynapseValues delay = SynapseValues::uniform(1 * ms, 3 * ms);
    return {settings.neurons,
            1 * ms,
            {{"exc",
              {0, excitatory},
              all,
              ConnectionRule::fixedInDegree(settings.inputs * 4 / 5),
              8.0 / static_cast<double>(settings.inputs),
              delay},
             {"inh",
              {excitatory, settings.neurons - excitatory},
              all,
              ConnectionRule::fixedInDegree(settings.inputs - settings.inputs * 4 / 5),
              40.0 / static_cast<double>(settings.inputs),
              delay,
              true}},
            7};
}

double processorSeconds() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

/// A group that adds up the processor time of its exchanges. MPI waits without giving up the
/// processor, so most of that time is that of waiting.
class TimedRanks final : public IRankGroup {
public:
    explicit TimedRanks(IRankGroup& group) : group_(group) {}

    std::uint32_t rank() const override { return group_.rank(); }
    std::uint32_t size() const override { return group_.size(); }
    std::span<const BlobView> shareBytes(BlobView own) override {
        return timed([&] { return group_.share(own); });
    }
    std::span<const BlobView> collectBytes(BlobView own) override {
        return timed([&] { return group_.collect(own); });
    }
    std::span<const BlobView> swapBytes(std::span<const Blob> outgoing) override {
        return timed([&] { return group_.swap(outgoing); });
    }
    double seconds() const { return seconds_; }

private:
    template <class Call>
    std::span<const BlobView> timed(Call call) {
        const double before = processorSeconds();
        const std::span<const BlobView> all = call();
        seconds_ += processorSeconds() - before;
        return all;
    }

    IRankGroup& group_;
    double seconds_ = 0.0;
};

/// Of all ranks; `value` is that of this one.
double largest(IRankGroup& ranks, double value) {
    return std::ranges::max(ranks.shareRecord(value));
}

double peakMegabytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

void run(const Settings& settings) {
    MpiRankGroup group = MpiRankGroup::world();
    TimedRanks ranks(group);
    const bool speaks = ranks.rank() == 0;
    RuntimeOptions options;
    options.seed = 1;
    options.backend = settings.threads == 1 ? "lanes" : "threads";
    options.threads = settings.threads;
    options.neuron = {.tau_membrane = 10 * ms, .adaptation_increment = 0.0};
    options.firing = {.base_rate = 6 * Hz, .gain = 3.0, .max_rate = 400 * Hz};
    options.ranks = &ranks;
    const auto started = std::chrono::steady_clock::now();
    const auto runtime = makeRuntime(wiringOf(settings).buildShare(ranks), options);
    if (!settings.resume.empty()) loadCheckpoint(*runtime, settings.resume);
    const auto built = std::chrono::steady_clock::now();
    const double processor_before = processorSeconds() - ranks.seconds();
    const MpiStatistics before = group.statistics();
    const std::uint64_t windows = runtime->profile().windows;
    while (runtime->position() < settings.until) {
        const ModelTime left = settings.until - runtime->position();
        runtime->runFor(settings.every > 0 ? std::min(settings.every, left) : left);
        if (!settings.checkpoint.empty()) saveCheckpoint(*runtime, settings.checkpoint);
    }
    const auto ended = std::chrono::steady_clock::now();
    const double processor =
        largest(ranks, processorSeconds() - ranks.seconds() - processor_before);
    const MpiStatistics after = group.statistics();

    const WindowProfile profile = runtime->profile();
    const std::uint64_t hash = runtime->logHash();
    const double peak = largest(ranks, peakMegabytes());
    if (!speaks) return;
    const auto seconds = [](auto from, auto to) {
        return std::chrono::duration<double>(to - from).count();
    };
    const double count = static_cast<double>(std::max<std::uint64_t>(profile.windows - windows, 1));
    std::printf("%" PRIu64 " spikes, digest %016" PRIx64 "\n", profile.accepted, hash);
    std::fprintf(stderr,
                 "%u ranks: built in %.2f s, run in %.2f s, at most %.2f s of processor time a "
                 "rank without its exchanges; "
                 "a window: %.2f collectives, %.0f bytes sent by rank 0; at most %.0f MB a rank\n",
                 ranks.size(), seconds(started, built), seconds(built, ended), processor,
                 static_cast<double>(after.collectives - before.collectives) / count,
                 static_cast<double>(after.sent_bytes - before.sent_bytes) / count, peak);
}

}  // namespace

int main(int count, char** arguments) {
    MpiProcess process;
    try {
        run(read(count, arguments));
    } catch (const std::exception& failure) {
        // All ranks throw what the first one has thrown.
        std::fprintf(stderr, "kelm-mpi-run: %s\n", failure.what());
        return 1;
    }
    return 0;
}
