#include "kelm/cuda/EmulatedDevice.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <stdexcept>
#include <vector>

#include "kelm/core/SplitMix64.h"
#include "kelm/cuda/DeviceLayer.h"
#include "kelm/cuda/DeviceRecords.h"
#include "tests/support/EmulatedDeviceFixture.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;
namespace Emulation = Device::Emulation;

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

class EmulatedDevice : public EmulatedDeviceTest {
protected:
    ~EmulatedDevice() override { Emulation::setWorkers(2); }
};

TEST_F(EmulatedDevice, RunsEveryThreadOnceForAnyNumberOfWorkers) {
    for (const unsigned workers : {1U, 2U, 5U, 0U}) {
        Emulation::setWorkers(workers);
        for (const std::uint32_t blocks : {0U, 1U, 4U, 8U, 41U}) {
            SCOPED_TRACE(testing::Message() << workers << " workers, " << blocks << " blocks");
            Emulation::permuteThreads(std::nullopt);
            orderOfLaunch(blocks);
            Emulation::permuteThreads(99);
            orderOfLaunch(blocks);
        }
    }
}

TEST_F(EmulatedDevice, PermutesTheThreadsOfEachLaunchAnewAndRepeatably) {
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
    EXPECT_NE(seven.first, ascending);
    EXPECT_NE(seven.first, seven.second);
    EXPECT_NE(seven.first, twoLaunches(8).first);
    EXPECT_EQ(seven, twoLaunches(7));
    // Orders that keep most threads in place would hide what they are meant to show.
    std::size_t at_home = 0;
    for (std::size_t i = 0; i < seven.first.size(); ++i) at_home += seven.first[i] == i;
    EXPECT_LT(at_home, 10);
}

KELM_KERNEL countAll(std::uint64_t* sum, std::uint64_t* seen) {
    const std::uint64_t i = Device::threadIndex();
    const std::uint64_t before = Device::fetchAdd(sum, 3);
    seen[before / 3] = i;
}

TEST_F(EmulatedDevice, AddsAtomically) {
    Emulation::setWorkers(4);
    constexpr std::uint32_t blocks = 200;
    constexpr std::size_t threads = std::size_t{blocks} * block_size;
    std::vector<std::uint64_t> seen(threads, threads);
    std::uint64_t sum = 0;
    Device::launch<countAll>(blocks, block_size, &sum, seen.data());
    EXPECT_EQ(sum, 3 * threads);
    std::sort(seen.begin(), seen.end());
    for (std::size_t i = 0; i < threads; ++i) ASSERT_EQ(seen[i], i);
}

TEST_F(EmulatedDevice, SortsByTheTotalOrdersOfTheDeviceRecords) {
    const auto key = [](const ShardArrival& a) { return std::tuple(a.target, a.time, a.sequence); };
    std::vector<ShardArrival> arrivals(500);
    std::vector<DeviceFire> fires(500);
    for (std::uint64_t i = 0; i < arrivals.size(); ++i) {
        const std::uint64_t word = splitmixOutput(i);
        arrivals[i].sequence = i;
        arrivals[i].target = word % 7 == 0 ? ~std::uint64_t{0} : word % 7;
        arrivals[i].time = static_cast<ModelTime>(word / 7 % 5) - 2;
        fires[i] = {static_cast<ModelTime>(word % 40) - 20, i % 2 == 0 ? i : ~i};
    }
    Device::sort(arrivals.data(), arrivals.size(), ShardArrivalLess());
    EXPECT_TRUE(std::is_sorted(arrivals.begin(), arrivals.end(),
                               [&](const auto& a, const auto& b) { return key(a) < key(b); }));
    Device::sort(fires.data(), fires.size(), DeviceFireLess());
    EXPECT_TRUE(std::is_sorted(fires.begin(), fires.end(), [](const auto& a, const auto& b) {
        return std::tuple(a.time, a.neuron) < std::tuple(b.time, b.neuron);
    }));
    Device::sort(fires.data(), 0, DeviceFireLess());
}

TEST_F(EmulatedDevice, ScansExclusively) {
    const std::vector<std::uint64_t> counts = {3, 0, 5, 0xffffffffffffffff, 2};
    std::vector<std::uint64_t> sums(counts.size());
    Device::exclusiveScan(counts.data(), counts.size(), sums.data());
    EXPECT_EQ(sums, (std::vector<std::uint64_t>{0, 3, 3, 8, 7}));
    Device::exclusiveScan(counts.data(), 0, sums.data());
    EXPECT_EQ(sums[0], 0);
}

TEST_F(EmulatedDevice, CopiesAndClearsBlocks) {
    const std::uint64_t sent[] = {1, 2, 3};
    std::uint64_t back[] = {0, 0, 0};
    std::uint64_t* block = nullptr;
    ASSERT_EQ(Device::allocate(block, 3), 0);
    EXPECT_EQ(Emulation::liveAllocations(), 1);
    EXPECT_EQ(Device::upload(block, sent, sizeof sent), 0);
    EXPECT_EQ(Device::clear(block + 1, 8), 0);
    EXPECT_EQ(Device::download(back, block, sizeof back), 0);
    EXPECT_EQ(std::vector(back, back + 3), (std::vector<std::uint64_t>{1, 0, 3}));
    EXPECT_EQ(Device::releaseBlock(block), 0);
    EXPECT_EQ(Device::releaseBlock(nullptr), 0);
}

TEST_F(EmulatedDevice, RefusesMoreMemoryThanThereIs) {
    std::uint64_t* block = nullptr;
    for (const std::uint64_t count :
         {std::uint64_t{1} << 60, std::uint64_t{1} << 61, ~std::uint64_t{0}}) {
        const Device::Status status = Device::allocate(block, count);
        EXPECT_STREQ(Device::statusText(status), "out of memory") << count;
        EXPECT_EQ(block, nullptr);
    }
}

TEST_F(EmulatedDevice, FailsTheOperationThatItIsTold) {
    std::uint64_t word = 0;
    Emulation::failOperation(1, 7);
    EXPECT_EQ(Device::synchronise(), 0);
    EXPECT_EQ(Device::clear(&word, 8), 7);
    EXPECT_EQ(Device::synchronise(), 0);

    // A failed operation has no effect.
    word = 5;
    Emulation::failOperation(0, 7);
    EXPECT_EQ(Device::clear(&word, 8), 7);
    EXPECT_EQ(word, 5);

    // A launch reports through the last status, which is then forgotten.
    std::vector<std::uint64_t> seen(block_size);
    Emulation::failOperation(0, 9);
    Device::launch<countAll>(1, block_size, &word, seen.data());
    EXPECT_EQ(word, 5);
    EXPECT_EQ(Device::lastStatus(), 9);
    EXPECT_EQ(Device::lastStatus(), 0);

    Emulation::failOperation(0, 2);
    expectThrows<std::runtime_error>([&] { Device::sort(&word, 1, std::less<>()); },
                                     "out of memory");
    Emulation::failOperation(0, 9);
    expectThrows<std::runtime_error>([&] { Device::exclusiveScan(&word, 1, &word); },
                                     "emulated device failure");

    // A failed release gives the block back all the same.
    void* block = nullptr;
    ASSERT_EQ(Device::allocateBytes(block, 8), 0);
    Emulation::failOperation(0, 9);
    EXPECT_EQ(Device::releaseBlock(block), 9);
}

TEST_F(EmulatedDevice, FailsEveryOperationWhereItIsNotThere) {
    Emulation::setPresent(false);
    std::uint64_t word = 5;
    void* block = nullptr;
    int number = 0;
    const char* const text = "no CUDA-capable device is detected";
    EXPECT_STREQ(Device::statusText(Device::deviceCount(number)), text);
    EXPECT_STREQ(Device::statusText(Device::allocateBytes(block, 8)), text);
    EXPECT_EQ(block, nullptr);
    EXPECT_STREQ(Device::statusText(Device::clear(&word, 8)), text);
    EXPECT_EQ(word, 5);
    expectThrows<std::runtime_error>([&] { Device::sort(&word, 1, std::less<>()); }, text);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
