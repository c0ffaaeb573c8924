#include "kelm/cuda/EmulatedDevice.h"

#include <gtest/gtest.h>

#include <numeric>
#include <optional>
#include <stdexcept>
#include <vector>

#include "kelm/cuda/DeviceLayer.h"
#include "tests/support/EmulatedDeviceFixture.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

constexpr std::uint32_t block_size = 128;

/// Each thread notes at which place of the launch's order it ran.
KELM_KERNEL noteOrder(std::uint64_t* runs, std::uint64_t* places, std::uint64_t* next) {
    const std::uint64_t i = Device::threadIndex();
    places[i] = Device::fetchAdd(next, 1);
    Device::fetchAdd(&runs[i], 1);
}

/// The places at which the threads of one launch ran; each must have run once.
std::vector<std::uint64_t> orderOfLaunch(std::uint32_t blocks) {
    const std::size_t threads = std::size_t{blocks} * block_size;
    std::vector<std::uint64_t> runs(threads);
    std::vector<std::uint64_t> places(threads);
    std::uint64_t next = 0;
    Device::launch<noteOrder>(blocks, block_size, runs.data(), places.data(), &next);
    EXPECT_EQ(Device::lastStatus(), 0);
    EXPECT_EQ(runs, std::vector<std::uint64_t>(threads, 1));
    EXPECT_EQ(next, threads);
    return places;
}

class EmulatedDevice : public EmulatedDeviceTest {};

TEST_F(EmulatedDevice, RunsEachThreadOnceAndPermutesThemAnewAndRepeatably) {
    for (const unsigned workers : {2U, 5U, 0U}) {
        Emulation::setWorkers(workers);
        for (const std::uint32_t blocks : {0U, 1U, 41U}) orderOfLaunch(blocks);
        Emulation::permuteThreads(99);
        orderOfLaunch(41);
    }
    Emulation::setWorkers(1);
    const auto twoLaunches = [](std::optional<std::uint64_t> seed) {
        Emulation::permuteThreads(seed);
        const std::vector<std::uint64_t> first = orderOfLaunch(3);
        return std::pair(first, orderOfLaunch(3));
    };
    std::vector<std::uint64_t> ascending(3 * block_size);
    std::iota(ascending.begin(), ascending.end(), 0U);
    EXPECT_EQ(twoLaunches(std::nullopt), std::pair(ascending, ascending));
    const auto seven = twoLaunches(7);
    EXPECT_EQ(seven, twoLaunches(7));
    EXPECT_NE(seven.first, seven.second);
    EXPECT_NE(seven.first, twoLaunches(8).first);
    // Orders that keep most threads in place would hide what they are meant to show.
    std::size_t at_home = 0;
    for (std::size_t i = 0; i < seven.first.size(); ++i) at_home += seven.first[i] == i;
    EXPECT_LT(at_home, 10);
}

TEST_F(EmulatedDevice, FailsTheOperationThatItIsToldAndEveryOneWhereItIsNotThere) {
    std::uint64_t word = 5;
    // A launch reports through the last status, which is then forgotten.
    Emulation::failOperation(1, 9);
    EXPECT_EQ(Device::synchronise(), 0);
    Device::launch<noteOrder>(1, block_size, &word, &word, &word);
    EXPECT_EQ(word, 5);
    EXPECT_EQ(Device::lastStatus(), 9);
    EXPECT_EQ(Device::lastStatus(), 0);

    std::uint64_t* words = nullptr;
    EXPECT_EQ(Device::allocate(words, std::uint64_t{1} << 60), 2) << "more than there is";
    EXPECT_EQ(Device::allocate(words, std::uint64_t{1} << 61), 2) << "more than can be counted";
    Emulation::setPresent(false);
    const char* const text = "no CUDA-capable device is detected";
    expectRefusals<std::runtime_error>({{text, [&] { Device::sort(&word, 1, std::less<>()); }},
                                        {text, [&] { Device::exclusiveScan(&word, 1, &word); }}});
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
