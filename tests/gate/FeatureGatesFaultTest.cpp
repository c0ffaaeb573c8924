// The feature steps over a device that computes wrongly. This program brings a device backend of
// its own, which is the CPU backend with a fault planted in it, so that every comparison can be
// seen to fail.

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "gate/FeatureGates.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"

namespace Lumenar::Core::Kelm {

namespace {

/// Called with each result of the device of a window that ends at `window_end` ns.
std::function<void(NodeId neuron, ModelTime window_end, Kernel::WindowResult& result)> tamper;

}  // namespace

struct CudaWindowBackend::DeviceBuffers {
    CpuWindowBackend cpu;
};

CudaWindowBackend::CudaWindowBackend() : buffers_(std::make_unique<DeviceBuffers>()) {}
CudaWindowBackend::~CudaWindowBackend() = default;

void CudaWindowBackend::processWindow(const std::span<const WindowWork>& work,
                                      const std::span<const Kernel::WindowEvent>& events,
                                      ModelTime window_end, ModelTime horizon,
                                      const Kernel::Neuron& neuron, const Kernel::Firing& firing,
                                      const std::span<Kernel::WindowResult>& results) {
    buffers_->cpu.processWindow(work, events, window_end, horizon, neuron, firing, results);
    for (std::size_t i = 0; i < work.size(); ++i) tamper(work[i].neuron, window_end, results[i]);
}

bool CudaWindowBackend::tryResidentRun(WindowEngine&) { return false; }
bool cudaDeviceUsable() { return true; }
std::string cudaDeviceName() { return "a device that computes wrongly"; }

namespace Gate {

namespace {

using Result = Kernel::WindowResult;
constexpr ModelTime last_window_end = 20'000'000;

void dropASpike(NodeId, ModelTime, Result& result) {
    result.spike_count -= result.spike_count != 0;
}
/// In the last window, like the next, so that nothing else comes to differ.
void delayASpike(NodeId, ModelTime window_end, Result& result) {
    if (window_end == last_window_end && result.spike_count != 0) ++result.spike_times[0];
}
void turnABit(NodeId, ModelTime window_end, Result& result) {
    if (window_end == last_window_end) result.state.membrane = -result.state.membrane;
}
void breakABound(NodeId, ModelTime, Result& result) { result.bound_violation = true; }

TEST(FeatureGatesOverAFaultyDevice, TellTheFirstDifference) {
    struct Case {
        void (*step)();
        void (*fault)(NodeId, ModelTime, Result&);
        const char* begin;
        const char* end;
    };
    const char* const cell = " (model 0, seed 1)";
    const char* const phase_cell = " (phase model 0, seed 1)";
    const char* const backends = " between CPU and CUDA";
    for (const Case& c : {
             Case{checkRestore, dropASpike,
                  "kelmgate: a snapshot/restore in the middle changed the number of spikes", cell},
             // The first cell whose last window has a spike.
             Case{checkRestore, delayASpike,
                  "kelmgate: the resumed run diverged from the reference at spike ", nullptr},
             Case{checkRestore, turnABit,
                  "kelmgate: the resumed run ended in a different neuron state", cell},
             Case{checkPlasticity, dropASpike,
                  "kelmgate: the total weight change differs between backends", cell},
             Case{checkPhase, delayASpike, "kelmgate: phase-modulated event logs differ",
                  phase_cell},
             Case{checkPhase, turnABit, "kelmgate: phase-modulated neuron state differs",
                  phase_cell},
             Case{checkPhase, breakABound, "KELM hazard upper bound underestimated lambda",
                  " (phase model 0, seed 1) on CUDA"},
             Case{checkComposed, dropASpike, "kelmgate: composed runtime logs differ", backends},
             Case{checkComposed, turnABit, "kelmgate: composed runtime state differs", backends},
         }) {
        SCOPED_TRACE(c.begin);
        tamper = [](NodeId, ModelTime, Result&) {};
        EXPECT_NO_THROW(c.step());
        tamper = c.fault;
        try {
            c.step();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const std::runtime_error& failure) {
            const std::string text = failure.what();
            if (c.end != nullptr) {
                EXPECT_EQ(text, std::string(c.begin) + c.end);
            } else {
                EXPECT_TRUE(text.starts_with(c.begin)) << text;
                EXPECT_NE(text.find(" (model 0, seed "), std::string::npos) << text;
            }
        }
    }
}

}  // namespace

}  // namespace Gate

}  // namespace Lumenar::Core::Kelm
