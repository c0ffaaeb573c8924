#pragma once

#include <gtest/gtest.h>

#include <exception>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "kelm/cuda/EmulatedDevice.h"

namespace Lumenar::Core::Kelm::Testing {

namespace Emulation = Device::Emulation;

/// A test that turns the emulated device's controls. Each test starts with a device that is
/// there, does what it is told and holds nothing, and must give back all that it has allocated.
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

    /// The texts with which an action fails when its first device operation fails, its second, and
    /// so on to its last. `arrange` makes what the action needs, anew for each failure, and finds
    /// that the one before has left nothing on the device.
    template <class Arrange, class Act>
    static std::vector<std::string> failuresOf(Arrange arrange, Act act) {
        std::vector<std::string> texts;
        for (std::uint64_t n = 0;; ++n) {
            EXPECT_EQ(Emulation::liveAllocations(), 0);
            auto subject = arrange();
            const std::uint64_t before = Emulation::operationCount();
            Emulation::failOperation(n, 2);
            try {
                act(subject);
            } catch (const std::exception& failure) {
                texts.emplace_back(failure.what());
                continue;
            }
            Emulation::failNothing();
            EXPECT_EQ(Emulation::operationCount() - before, n)
                << "an operation failed and nobody noticed";
            return texts;
        }
    }

    /// What failuresOf gives for these calls, which are separated by commas. A star stands for a
    /// sort or a scan, whose failure has the library's own text.
    static std::vector<std::string> outOfMemory(const std::string& calls) {
        std::vector<std::string> texts;
        std::istringstream in(calls);
        for (std::string call; std::getline(in >> std::ws, call, ',');) {
            texts.push_back((call == "*" ? "" : "CUDA " + call + ": ") + "out of memory");
        }
        return texts;
    }
};

}  // namespace Lumenar::Core::Kelm::Testing
