#include "gate/ModelCatalogue.h"

#include <gtest/gtest.h>

#include <bit>
#include <fstream>
#include <iomanip>
#include <optional>
#include <sstream>
#include <string>

#include "compare/RunImage.h"
#include "gate/GateRun.h"
#include "kelm/core/Digest.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/runtime/KelmRuntime.h"
#include "tests/support/EmulatedDeviceFixture.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Compare;
using namespace Testing;

/// The line of the golden table for a run.
template <class Run>
std::string lineOf(std::uint64_t index, std::uint64_t seed, Run& run) {
    const RunImage image = imageOf(run);
    const WindowProfile& p = image.profile;
    std::ostringstream line;
    line << index << '\t' << seed << '\t' << image.log.size() << std::hex << std::setfill('0');
    for (const std::uint64_t digest : {run.logHash(), digestImages(std::span(image.states)),
                                       digestImages(std::span(image.random_states))}) {
        line << '\t' << std::setw(16) << digest;
    }
    line << std::dec;
    for (const auto count : {p.windows, p.deliveries, p.updates, p.candidates, p.accepted}) {
        line << '\t' << count;
    }
    return line.str();
}

class Catalogue : public EmulatedDeviceTest {
protected:
    /// Compares all models and seeds of the parity matrix with the golden table. A separate naive
    /// program, which shares no code with this one, computed the table, with two compilers and on
    /// two architectures.
    static void expectGoldenRuns(IWindowBackend& backend) {
        std::ifstream file(KELM_GATE_TEST_DATA "/catalogue.tsv");
        std::string line;
        std::getline(file, line);  // column names
        int lines = 0;
        for (; std::getline(file, line); ++lines) {
            std::uint64_t index = 0;
            std::uint64_t seed = 0;
            std::istringstream(line) >> index >> seed;
            GateModel model = buildModel(index);
            WindowEngine engine(model.graph, model.neuron, model.firing, seed, model.horizon);
            engine.run(backend);
            EXPECT_EQ(lineOf(index, seed, engine), line);
            KelmRuntime runtime = makeKelmRuntime(std::move(model.graph), model.neuron,
                                                  model.firing, seed, model.horizon, &backend);
            runtime.run();
            EXPECT_EQ(lineOf(index, seed, runtime), line) << "composed";
        }
        EXPECT_EQ(lines, 100);
    }
};

TEST_F(Catalogue, RunsToTheKnownResultsOnAnyBackendInAnyThreadOrder) {
    CpuWindowBackend cpu;
    expectGoldenRuns(cpu);
    CudaWindowBackend cuda;
    for (const unsigned workers : {1U, 2U, 5U}) {
        SCOPED_TRACE(testing::Message() << workers << " workers");
        Emulation::setWorkers(workers);
        Emulation::permuteThreads(std::nullopt);
        expectGoldenRuns(cuda);
        Emulation::permuteThreads(workers);
        expectGoldenRuns(cuda);
    }
}

TEST(ModelCatalogue, HasModelsByArithmeticAlone) {
    EXPECT_EQ(buildModel(~std::uint64_t{0}).graph.nodeCount(), 7);
    // 0.1 + 0.2 as doubles, which is not the double nearest to 0.3.
    EXPECT_EQ(std::bit_cast<std::uint64_t>(buildModel(1).neuron.adaptation_increment),
              0x3fd3333333333334);
    CpuWindowBackend cpu;
    const GateRun run = runModel(0, 1, cpu);
    EXPECT_EQ(run.log[1], (SpikeRecord{1758045, 4}));
    EXPECT_EQ(run.hash, 0xd4962290def24958);
    EXPECT_EQ(run.committed_windows, 18);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
