// The feature steps with a device that computes wrongly, so that every comparison fails once. This
// program has its own device backend: the CPU backend with a fault.

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

/// Called with each result of the device. The window ends at `window_end` ns.
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

namespace {

using Result = Kernel::WindowResult;

void dropASpike(NodeId, ModelTime, Result& result) {
    result.spike_count -= result.spike_count != 0;
}
/// Only in the last window, as in the next function, so that nothing else differs.
void delayASpike(NodeId, ModelTime window_end, Result& result) {
    if (window_end == 20'000'000 && result.spike_count != 0) ++result.spike_times[0];
}
void turnABit(NodeId, ModelTime window_end, Result& result) {
    if (window_end == 20'000'000) result.state.membrane = -result.state.membrane;
}
void breakABound(NodeId, ModelTime, Result& result) { result.bound_violation = true; }

TEST(FeatureGatesOverAFaultyDevice, TellTheFirstDifference) {
    struct Case {
        void (*step)();
        void (*fault)(NodeId, ModelTime, Result&);
        std::string text;
    };
    for (const Case& c : {
             Case{checkRestore, dropASpike,
                  "kelmgate: a snapshot/restore in the middle changed the number of spikes "
                  "(model 0, seed 1)"},
             // The spike and the cell depend on the model.
             Case{checkRestore, delayASpike,
                  "kelmgate: the resumed run diverged from the reference at spike "},
             Case{checkRestore, turnABit,
                  "kelmgate: the resumed run ended in a different neuron state (model 0, seed 1)"},
             Case{checkPlasticity, dropASpike,
                  "kelmgate: the total weight change differs between backends (model 0, seed 1)"},
             Case{checkPhase, delayASpike,
                  "kelmgate: phase-modulated event logs differ (phase model 0, seed 1)"},
             Case{checkPhase, turnABit,
                  "kelmgate: phase-modulated neuron state differs (phase model 0, seed 1)"},
             Case{checkPhase, breakABound,
                  "KELM hazard upper bound underestimated lambda (phase model 0, seed 1) on CUDA"},
             Case{checkComposed, dropASpike,
                  "kelmgate: composed runtime logs differ between CPU and CUDA"},
             Case{checkComposed, turnABit,
                  "kelmgate: composed runtime state differs between CPU and CUDA"},
         }) {
        tamper = [](NodeId, ModelTime, Result&) {};
        EXPECT_NO_THROW(c.step());
        tamper = c.fault;
        try {
            c.step();
            ADD_FAILURE() << "nothing was thrown, expected: " << c.text;
        } catch (const std::runtime_error& failure) {
            EXPECT_EQ(std::string(failure.what()).substr(0, c.text.size()), c.text);
        }
    }
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
