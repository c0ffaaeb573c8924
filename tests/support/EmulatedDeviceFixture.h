#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/cuda/EmulatedDevice.h"

namespace Lumenar::Core::Kelm::Testing {

/// A test that turns the emulated device's controls. Each test starts with a device that is
/// there, does what it is told and holds nothing, and must give back all that it has allocated.
class EmulatedDeviceTest : public testing::Test {
protected:
    EmulatedDeviceTest() { letDeviceWork(); }
    ~EmulatedDeviceTest() override {
        letDeviceWork();
        EXPECT_EQ(Device::Emulation::liveAllocations(), 0);
    }

    static void letDeviceWork() {
        Device::Emulation::failNothing();
        Device::Emulation::setPresent(true);
        Device::Emulation::permuteThreads(std::nullopt);
    }

    /// The texts with which an action fails when its first device operation fails, its second, and
    /// so on to its last. `arrange` makes what the action needs, anew for each failure.
    template <class Arrange, class Act>
    static std::vector<std::string> failuresOf(Arrange arrange, Act act) {
        std::vector<std::string> texts;
        for (std::uint64_t n = 0;; ++n) {
            auto subject = arrange();
            const std::uint64_t before = Device::Emulation::operationCount();
            Device::Emulation::failOperation(n, 2);
            try {
                act(subject);
            } catch (const WindowEngineError& failure) {
                texts.push_back(failure.what());
                continue;
            }
            Device::Emulation::failNothing();
            EXPECT_EQ(Device::Emulation::operationCount() - before, n)
                << "an operation failed and nobody noticed";
            return texts;
        }
    }
};

}  // namespace Lumenar::Core::Kelm::Testing
