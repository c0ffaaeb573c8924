// Saves a run to a file and resumes it in another process.
//
//     freeze straight          runs to the end and prints the log's hash
//     freeze first FILE        runs to half of the horizon and writes a checkpoint
//     freeze second FILE       reads the checkpoint, runs the rest and prints the log's hash
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/runtime/KelmRuntime.h"

using namespace Lumenar::Core::Kelm;

namespace {

constexpr ModelTime millisecond = 1'000'000;
constexpr NodeId neuron_count = 100;
constexpr ModelTime horizon = 400 * millisecond;

/// Both processes build the same model: a checkpoint does not hold its parameters.
KelmRuntime build(IWindowBackend& backend) {
    std::vector<Synapse> synapses;
    for (NodeId n = 0; n < neuron_count; ++n) {
        for (const NodeId step : {1, 7, 31}) {
            synapses.push_back({.source = n, .target = (n + step) % neuron_count});
            synapses.back().weight = 0.3F;
            synapses.back().delay = static_cast<ModelTime>(step) * millisecond;
        }
    }
    PlasticityConfig plasticity;
    plasticity.enabled = true;
    plasticity.excitatory = {
        .kind = PlasticityRuleKind::pair, .a_potentiation = 0.01, .a_depression = 0.012};
    return makeKelmRuntime(SynapseGraph(neuron_count, millisecond, std::move(synapses)),
                           Kernel::Neuron{.adaptation_increment = 0.3},
                           Kernel::Firing{.base_rate = 8.0, .gain = 2.0}, /*seed=*/1, horizon,
                           &backend, nullptr, plasticity);
}

/// Writes a temporary file and renames it, so that `path` never holds half a checkpoint.
void writeWhole(const std::filesystem::path& path, const Blob& bytes) {
    std::filesystem::path temporary = path;
    temporary += ".part";
    std::ofstream out(temporary, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out) throw std::runtime_error("cannot write " + temporary.string());
    std::filesystem::rename(temporary, path);
}

Blob readWhole(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path.string());
    return Blob(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void finish(KelmRuntime& runtime) {
    runtime.run();
    std::printf("%zu spikes, log hash %016" PRIx64 "\n", runtime.spikeLog().size(),
                runtime.logHash());
}

}  // namespace

int main(int argc, char** argv) try {
    const std::string mode = argc > 1 ? argv[1] : "straight";
    if (mode != "straight" && argc < 3)
        throw std::runtime_error("freeze " + mode + " needs a file");
    CpuWindowBackend backend;
    KelmRuntime runtime = build(backend);
    if (mode == "straight") {
        finish(runtime);
    } else if (mode == "first") {
        runtime.run(horizon / 2);
        const Blob bytes = runtime.checkpoint();
        writeWhole(argv[2], bytes);
        std::printf("frozen at %" PRId64 " ms in %zu bytes\n", runtime.position() / millisecond,
                    bytes.size());
    } else if (mode == "second") {
        if (!runtime.restore(readWhole(argv[2])))
            throw std::runtime_error("not a checkpoint of this model");
        finish(runtime);
    } else {
        throw std::runtime_error("unknown mode " + mode);
    }
    return 0;
} catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
}
