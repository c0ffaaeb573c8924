#pragma once

#include <gtest/gtest.h>

#include <optional>

#include "kelm/cuda/EmulatedDevice.h"

namespace Lumenar::Core::Kelm::Testing {

namespace Emulation = Device::Emulation;

/// A test that sets the emulated device's controls. Each test starts with a device that is present,
/// works and has no allocation, and must release all that it allocates.
class EmulatedDeviceTest : public testing::Test {
protected:
    EmulatedDeviceTest() { letDeviceWork(); }
    ~EmulatedDeviceTest() override {
        letDeviceWork();
        EXPECT_EQ(Emulation::liveAllocations(), 0);
    }

    static void letDeviceWork() {
        Emulation::failNothing();
        Emulation::setPresent(true);
        Emulation::permuteThreads(std::nullopt);
        Emulation::setWorkers(2);
    }
};

}  // namespace Lumenar::Core::Kelm::Testing
