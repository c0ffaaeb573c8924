// Prints the digests of many runs, one line a run: catalogue models in runtimes with every optional
// part off, then random models with every part on, each on every backend. It has no expected
// values: two builds must print the same text (scripts/same-bits.sh).

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "compare/RunImage.h"
#include "gate/ModelCatalogue.h"
#include "kelm/core/Digest.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/lanes/LaneCpuBackend.h"
#include "kelm/runtime/KelmRuntime.h"
#include "tests/support/ComposedModel.h"

namespace Lumenar::Core::Kelm::Testing {

namespace {

using namespace Compare;

constexpr std::uint64_t catalogue_seeds = 5;
constexpr std::uint64_t composed_models = 40;

void printDigest(const char* what, std::uint64_t digest) {
    std::printf(" %s=%016" PRIx64, what, digest);
}

/// The rest of a line. `finished`: no exception has ended the run; only then there is a checkpoint.
void printRuntime(KelmRuntime& runtime, bool finished) {
    const RunImage image = imageOf(runtime);
    printDigest("log", runtime.logHash());
    printDigest("states", digestImages(std::span(image.states)));
    printDigest("streams", digestImages(std::span(image.random_states)));
    printDigest("profile", digestImages(std::span(&image.profile, 1)));
    if (finished) printDigest("checkpoint", digest(runtime.checkpoint()));
    std::printf("\n");
}

void printCatalogue(IWindowBackend& backend) {
    for (std::uint64_t index = 0; index < catalogue_size; ++index) {
        for (std::uint64_t seed = 1; seed <= catalogue_seeds; ++seed) {
            GateModel model = buildModel(index);
            KelmRuntime runtime = makeKelmRuntime(std::move(model.graph), model.neuron,
                                                  model.firing, seed, model.horizon, &backend);
            runtime.run();
            std::printf("catalogue model %" PRIu64 " seed %" PRIu64 " %s:", index, seed,
                        backend.name());
            printRuntime(runtime, true);
        }
    }
}

void printComposed(IWindowBackend& backend) {
    for (std::uint64_t seed = 1; seed <= composed_models; ++seed) {
        const ComposedModel model = generateComposedModel(seed);
        const auto runtime = model.build(backend);
        std::vector<std::string> outcomes;
        const bool finished = model.perform(0, model.steps.size(), *runtime, outcomes);
        std::string text;
        for (const std::string& outcome : outcomes) text += outcome + '\n';
        std::printf("composed model %" PRIu64 " %s:", seed, backend.name());
        printDigest("outcomes", digest(text));
        printRuntime(*runtime, finished);
    }
}

}  // namespace

}  // namespace Lumenar::Core::Kelm::Testing

int main() {
    using namespace Lumenar::Core::Kelm;
    CpuWindowBackend cpu;
    LaneCpuBackend lanes;
    CudaWindowBackend cuda;
    for (IWindowBackend* backend : std::initializer_list<IWindowBackend*>{&cpu, &lanes, &cuda}) {
        Testing::printCatalogue(*backend);
        Testing::printComposed(*backend);
    }
}
