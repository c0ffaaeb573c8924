#include "kelm/cuda/EmulatedDevice.h"

#include <gtest/gtest.h>

#include <numeric>
#include <optional>
#include <stdexcept>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/cuda/DeviceLayer.h"
#include "kelm/cuda/TemporaryMemory.h"
#include "tests/support/EmulatedDeviceFixture.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

/// Each thread records at which place of the launch's order it ran.
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
    // An order that leaves most threads in their place would hide what it should show.
    std::size_t at_home = 0;
    for (std::size_t i = 0; i < seven.first.size(); ++i) at_home += seven.first[i] == i;
    EXPECT_LT(at_home, 10);
}

TEST_F(EmulatedDevice, FailsTheOperationOfItsControlsAndEveryOneWhenThereIsNoDevice) {
    std::uint64_t word = 5;
    // A failed launch reports through the last status, once.
    Emulation::failOperation(1, 9);
    EXPECT_EQ(Device::synchronise(), 0);
    Device::launch<noteOrder>(1, block_size, &word, &word, &word);
    EXPECT_EQ(word, 5);
    EXPECT_EQ(Device::lastStatus(), 9);
    EXPECT_EQ(Device::lastStatus(), 0);

    std::uint64_t* words = nullptr;
    EXPECT_EQ(Device::allocate(words, std::uint64_t{1} << 60), 2) << "more than the device has";
    EXPECT_EQ(Device::allocate(words, std::uint64_t{1} << 61), 2) << "more than 64 bits of bytes";
}

TEST_F(EmulatedDevice, CountsWhatItIsCalledForAndWhatItMoves) {
    const Emulation::Counts before = Emulation::counts();
    std::uint64_t* words = nullptr;
    const std::uint64_t from[] = {1, 2, 3};
    std::uint64_t to = 0;
    TemporaryMemory memory;
    EXPECT_TRUE(cudaDeviceUsable());
    EXPECT_EQ(Device::allocate(words, 5), 0);
    EXPECT_EQ(Device::upload(words, from, 24), 0);
    EXPECT_EQ(Device::clear(words, 16), 0);
    Device::exclusiveScan(words, 3, words, memory);
    Emulation::failOperation(0, 7);
    EXPECT_EQ(Device::download(&to, words, 40), 7) << "not counted";
    EXPECT_EQ(Device::download(&to, words + 1, 8), 0);
    orderOfLaunch(3);
    EXPECT_EQ(Device::synchronise(), 0);
    memory.release();
    EXPECT_EQ(Device::releaseBlock(words), 0);

    Emulation::Counts after = before;
    after.queries += 1;
    after.allocations += 2;
    after.releases += 2;
    after.uploads += 1;
    after.downloads += 1;
    after.clears += 1;
    after.synchronisations += 1;
    after.launches += 1;
    after.library_calls += 1;
    after.uploaded_bytes += 24;
    after.downloaded_bytes += 8;
    after.cleared_bytes += 16;
    after.threads += 3 * block_size;
    EXPECT_EQ(Emulation::counts(), after);
}

TEST_F(EmulatedDevice, TakesTemporaryMemoryOfALibraryCallFromItsAllocator) {
    TemporaryMemory memory;
    std::vector<std::uint64_t> words{5, 3, 9};
    const auto sort = [&] { Device::sort(words.data(), words.size(), std::less<>(), memory); };
    const auto scan = [&](std::uint64_t count) {
        Device::exclusiveScan(words.data(), count, words.data(), memory);
    };
    sort();
    EXPECT_EQ(words, (std::vector<std::uint64_t>{3, 5, 9}));
    scan(3);
    EXPECT_EQ(words, (std::vector<std::uint64_t>{0, 3, 8}));

    // The block is reused up to its size, and replaced beyond it.
    for (const auto& [count, operations] : {std::pair{3U, 1U}, {2U, 1U}, {4U, 3U}, {4U, 1U}}) {
        words.assign(count, 1);
        const std::uint64_t before = Emulation::operationCount();
        scan(count);
        EXPECT_EQ(Emulation::operationCount() - before, operations) << count;
        EXPECT_EQ(Emulation::liveAllocations(), 1);
    }
    // A second allocation before the first is given back is another block.
    char* const first = memory.allocate(8);
    char* const second = memory.allocate(8);
    EXPECT_NE(first, second);
    memory.deallocate(first, 8);
    EXPECT_EQ(memory.allocate(8), first);
    memory.deallocate(first, 8);
    memory.deallocate(second, 8);

    // A failed call gives its memory back without a call of the device.
    Emulation::setPresent(false);
    const std::uint64_t before = Emulation::operationCount();
    const char* const text = "no CUDA-capable device is detected";
    expectRefusals<std::runtime_error>({{text, [&] { scan(4); }}, {text, sort}});
    EXPECT_EQ(Emulation::operationCount() - before, 2);
    expectThrows<WindowEngineError>(
        [&] { memory.allocate(1000); },
        "CUDA free temporary memory: no CUDA-capable device is detected");
    expectThrows<WindowEngineError>(
        [&] { memory.release(); },
        "CUDA free temporary memory: no CUDA-capable device is detected");
    EXPECT_EQ(Emulation::liveAllocations(), 0);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
