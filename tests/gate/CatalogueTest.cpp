#include "gate/ModelCatalogue.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "gate/GateRun.h"
#include "kelm/core/Digest.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/runtime/KelmRuntime.h"
#include "tests/support/EmulatedDeviceFixture.h"
#include "tests/support/RunImage.h"

namespace Lumenar::Core::Kelm::Gate {

namespace {

using namespace Testing;
namespace Emulation = Device::Emulation;

/// What one run of a catalogue model leaves behind, as the golden table tells it.
struct Row {
    std::uint64_t model = 0, seed = 0;
    std::uint64_t spikes = 0;
    std::uint64_t log = 0, state = 0, random = 0;  ///< digests
    WindowProfile profile;

    friend bool operator==(const Row&, const Row&) = default;
};

/// As the table writes it, so that a failure can be laid beside the file.
std::ostream& operator<<(std::ostream& out, const Row& row) {
    out << row.model << ' ' << row.seed << ' ' << row.spikes << std::hex << std::setfill('0');
    for (const std::uint64_t digest : {row.log, row.state, row.random}) {
        out << ' ' << std::setw(16) << digest;
    }
    const WindowProfile& p = row.profile;
    return out << std::dec << ' ' << p.windows << ' ' << p.deliveries << ' ' << p.updates << ' '
               << p.candidates << ' ' << p.accepted;
}

/// The golden table: every model under every seed of the parity matrix. It was computed by a naive
/// program of its own that shares no code with this one, with equal outcome under two compilers and
/// on two architectures.
std::vector<Row> goldenRows() {
    std::ifstream file(KELM_GATE_TEST_DATA "/catalogue.tsv");
    std::string line;
    std::getline(file, line);  // the names of the columns
    std::vector<Row> rows;
    while (std::getline(file, line)) {
        std::istringstream in(line);
        Row row;
        WindowProfile& p = row.profile;
        in >> row.model >> row.seed >> row.spikes >> std::hex >> row.log >> row.state >>
            row.random >> std::dec >> p.windows >> p.deliveries >> p.updates >> p.candidates >>
            p.accepted;
        EXPECT_FALSE(in.fail()) << line;
        rows.push_back(row);
    }
    return rows;
}

template <class Run>
Row rowOf(Run& run) {
    const RunImage image = imageOf(run);
    Row row;
    row.spikes = image.log.size();
    row.log = run.logHash();
    row.state = digestImages(std::span(image.states));
    row.random = digestImages(std::span(image.random_states));
    row.profile = image.profile;
    return row;
}

/// A composed runtime with every optional part off.
Row composedRow(std::uint64_t index, std::uint64_t seed, IWindowBackend& backend) {
    GateModel model = buildModel(index);
    KelmRuntime runtime = makeKelmRuntime(std::move(model.graph), model.neuron, model.firing, seed,
                                          model.horizon, &backend);
    runtime.run();
    return rowOf(runtime);
}

/// An engine on its own.
Row bareRow(std::uint64_t index, std::uint64_t seed, IWindowBackend& backend) {
    GateModel model = buildModel(index);
    WindowEngine engine(std::move(model.graph), model.neuron, model.firing, seed, model.horizon);
    engine.run(backend);
    return rowOf(engine);
}

class CatalogueTest : public EmulatedDeviceTest {
protected:
    CatalogueTest() : golden_(goldenRows()) {}
    ~CatalogueTest() override { Emulation::setWorkers(2); }

    void expectGolden(Row (*run)(std::uint64_t, std::uint64_t, IWindowBackend&),
                      IWindowBackend& backend) {
        ASSERT_EQ(golden_.size(), 100);
        for (const Row& expected : golden_) {
            Row row = run(expected.model, expected.seed, backend);
            row.model = expected.model;
            row.seed = expected.seed;
            EXPECT_EQ(row, expected);
        }
    }

private:
    std::vector<Row> golden_;
};

TEST_F(CatalogueTest, RunsToTheKnownResultsOnTheCpu) {
    CpuWindowBackend cpu;
    expectGolden(composedRow, cpu);
    expectGolden(bareRow, cpu);
}

TEST_F(CatalogueTest, RunsToTheKnownResultsOnTheDeviceInAnyThreadOrder) {
    CudaWindowBackend cuda;
    for (const unsigned workers : {1U, 2U, 5U}) {
        Emulation::setWorkers(workers);
        for (const std::optional<std::uint64_t> order :
             {std::optional<std::uint64_t>(), std::optional<std::uint64_t>(workers)}) {
            SCOPED_TRACE(testing::Message()
                         << workers << " workers, " << (order ? "permuted" : "ascending"));
            Emulation::permuteThreads(order);
            expectGolden(composedRow, cuda);
            expectGolden(bareRow, cuda);
        }
    }
}

TEST_F(CatalogueTest, RunsOfThreeModelsAreKnownSpikeBySpike) {
    struct Case {
        std::uint64_t model, seed, spikes, hash;
        WindowProfile profile;
    };
    CpuWindowBackend cpu;
    CudaWindowBackend cuda;
    for (IWindowBackend* backend :
         {static_cast<IWindowBackend*>(&cpu), static_cast<IWindowBackend*>(&cuda)}) {
        SCOPED_TRACE(backend->name());
        for (const Case& c : {Case{0, 1, 18, 0xd4962290def24958, {18, 39, 39, 21, 18}},
                              Case{1, 1, 22, 0xd4867aeab06f7a27, {10, 60, 67, 27, 22}},
                              Case{3, 2, 40, 0xe85d292032905149, {20, 185, 196, 40, 40}}}) {
            SCOPED_TRACE(testing::Message() << "model " << c.model << ", seed " << c.seed);
            const GateRun run = runModel(c.model, c.seed, *backend);
            EXPECT_EQ(run.log.size(), c.spikes);
            EXPECT_EQ(run.hash, c.hash);
            EXPECT_EQ(run.profile, c.profile);
            EXPECT_EQ(run.committed_windows, c.profile.windows);
        }
        const GateRun run = runModel(0, 1, *backend);
        const std::vector<SpikeRecord> first = {{885298, 1}, {1758045, 4}, {2223007, 5}};
        EXPECT_EQ(std::vector(run.log.begin(), run.log.begin() + 3), first);
    }
}

TEST(ModelCatalogue, IsArithmeticOnAnyIndex) {
    for (const std::uint64_t index :
         {std::uint64_t{7}, std::uint64_t{1} << 40, ~std::uint64_t{0}}) {
        SCOPED_TRACE(index);
        GateModel model = buildModel(index);
        EXPECT_EQ(model.graph.nodeCount(), index % 7 + 6);
        EXPECT_EQ(model.graph.edgeCount(), model.graph.nodeCount() * (index % 4 + 1));
        for (EdgeId id = 0; id < model.graph.edgeCount(); ++id) {
            EXPECT_NE(model.graph.edge(id).source, model.graph.edge(id).target);
        }
        EXPECT_EQ(model.graph.snapshot(), buildModel(index).graph.snapshot());
    }
    // 0.1 + 0.2 in binary, which is not the double nearest to 0.3.
    EXPECT_EQ(std::bit_cast<std::uint64_t>(buildModel(1).neuron.adaptation_increment),
              0x3fd3333333333334);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm::Gate
