#include "kelm/backends/Backends.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "kelm/core/Failures.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/GeneratedModel.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

TEST(Backends, RunOneModelToTheSameBitsByAnyName) {
    const GeneratedModel model = ringModel(2000, 10, 1'000'000, 20);
    const auto run = [&](const std::string& name) {
        const auto runtime = makeRuntime(model.graph(), {.seed = 5,
                                                         .backend = name,
                                                         .threads = name == "cpu" ? 9U : 2U,
                                                         .firing = {.base_rate = 40.0}});
        runtime->run(10'000'000);
        // A fork makes its own backend. All neurons draw anew.
        const auto fork = runtime->fork();
        fork->reseed(6);
        fork->runFor(10'000'000);
        return fork->checkpoint();
    };
    const Blob expected = run("cpu");
    EXPECT_EQ(run("auto"), expected);
    for (const std::string& name : availableBackends()) EXPECT_EQ(run(name), expected) << name;
}

TEST(Backends, AreMadeByTheNamesThatAreListed) {
    const auto name_of = [](const char* name) { return std::string(makeBackend(name)->name()); };
    const std::vector<std::string> names = availableBackends();
    const bool has_threads = std::count(names.begin(), names.end(), "threads") == 1;
    EXPECT_EQ(name_of("cpu"), "cpu");
    EXPECT_EQ(name_of("lanes"), "cpu-lanes");
    EXPECT_EQ(std::string(makeBackend("auto", 1)->name()), "cpu-lanes");
    std::string list;
    for (const std::string& name : names) list += name + (name == names.back() ? "" : ", ");
    for (const char* name : {"gpu", "", "CPU", "threads", "cuda"}) {
        if (std::count(names.begin(), names.end(), name) == 1) continue;
        expectThrows<UnknownBackend>(
            [&] { makeRuntime(SynapseGraph(1, 10, {}), {.backend = name}); },
            "there is no backend '" + std::string(name) + "' here; there are " + list +
                " and auto");
    }
    if (has_threads) {
        EXPECT_EQ(name_of("threads"), "cpu-threads");
        expectThrows<InvalidThreadCount>([] { makeBackend("threads", 5000); },
                                         "a backend takes at most 1024 threads, not 5000");
    }
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
