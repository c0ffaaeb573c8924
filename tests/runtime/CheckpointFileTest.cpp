#include "kelm/runtime/CheckpointFile.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "kelm/core/Failures.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/runtime/MakeRuntime.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

std::unique_ptr<KelmRuntime> tenNeurons() {
    return makeRuntime(SynapseGraph(10, 1'000'000, {}), {.firing = {.base_rate = 100.0}},
                       std::make_unique<CpuWindowBackend>());
}

TEST(CheckpointFile, KeepsTheLastCheckpointWhereAWriteFails) {
    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() / "kelm-checkpoint-file";
    std::filesystem::remove_all(folder);
    std::filesystem::create_directory(folder);
    const std::string path = (folder / "run.kelm").string();
    const auto run = tenNeurons();
    expectThrows<CheckpointFileError>(
        [&] { loadCheckpoint(*run, path); },
        "cannot read checkpoint file '" + path + "': No such file or directory");
    for (int i = 0; i < 2; ++i) {
        run->runFor(50'000'000);
        saveCheckpoint(*run, path);
    }
    const std::uint64_t digest = run->logHash();
    EXPECT_FALSE(std::filesystem::exists(path + ".new"));

    // A folder takes the place of the new file.
    std::filesystem::create_directory(path + ".new");
    run->runFor(50'000'000);
    expectThrows<CheckpointFileError>(
        [&] { saveCheckpoint(*run, path); },
        "cannot write checkpoint file '" + path + "': Is a directory");
    EXPECT_TRUE(std::filesystem::is_directory(path + ".new"));
    const auto twin = tenNeurons();
    loadCheckpoint(*twin, path);
    EXPECT_EQ(twin->position(), 100'000'000);
    EXPECT_EQ(twin->logHash(), digest);
    twin->run(150'000'000);
    EXPECT_EQ(twin->checkpoint(), run->checkpoint());

    std::filesystem::remove(path + ".new");
    std::filesystem::create_symlink(path, folder / "link.kelm");
    saveCheckpoint(*run, (folder / "link.kelm").string());
    EXPECT_TRUE(std::filesystem::is_symlink(folder / "link.kelm"));
    loadCheckpoint(*twin, path);
    EXPECT_EQ(twin->checkpoint(), run->checkpoint());

    std::ofstream(path) << "something else";
    EXPECT_THROW(loadCheckpoint(*twin, path), RefusedCheckpoint);
    std::filesystem::remove_all(folder);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
