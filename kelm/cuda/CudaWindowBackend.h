#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kelm/engine/IWindowBackend.h"

namespace Lumenar::Core::Kelm {

class SynapseGraph;
struct ResidentAccess;

/// True when the device runtime reports at least one device. A failure of any kind, a missing
/// driver among them, counts as none; it never throws.
bool cudaDeviceUsable();

/// The name of the process's current device, or "unknown"; it never throws on a machine without
/// one.
std::string cudaDeviceName();

/// Checks the status of a call of the device runtime; 0 is success. Throws WindowEngineError
/// "CUDA <what>: <the runtime's text>" for any other.
void checkCuda(int status, std::string_view what);

/// The backend that computes windows on a device, one thread a neuron.
///
/// It uses the process's current device and selects none. Its device memory grows to exactly what
/// a window needs and is released by the destructor, which never throws. A failed device call is a
/// WindowEngineError "CUDA <call>: <the runtime's text>"; nothing of that window has then been
/// committed, and the backend can still be destroyed. One host thread at a time.
class CudaWindowBackend final : public IWindowBackend {
public:
    /// Throws WindowEngineError where no device is usable.
    CudaWindowBackend();
    ~CudaWindowBackend() override;
    CudaWindowBackend(const CudaWindowBackend&) = delete;
    CudaWindowBackend& operator=(const CudaWindowBackend&) = delete;

    const char* name() override { return "cuda"; }
    void processWindow(const std::span<const WindowWork>& work,
                       const std::span<const Kernel::WindowEvent>& events, ModelTime window_end,
                       ModelTime horizon, const Kernel::Neuron& neuron,
                       const Kernel::Firing& firing,
                       const std::span<Kernel::WindowResult>& results) override;
    /// Carries a fresh run through on the device where the network has the shape for it
    /// (residentEligible), 32768 neurons or more, a horizon of whole windows and a store of the
    /// engine's own. Declines otherwise, and where the run does not fit the device's buffers or
    /// meets a fault of the model, which the ordinary loop then reports.
    /// Throws WindowEngineError for a failed device call; the engine is then as it was.
    bool tryResidentRun(WindowEngine& engine) override;

    /// Allocates ahead what a whole run of this network on the device would need, for neurons of
    /// `fanout` synapses each.
    /// Throws WindowEngineError for a network without neurons, a fan-out of 0, or a size that no
    /// address can hold, and for a failed device call.
    void prepareResident(const SynapseGraph& graph, std::uint64_t fanout);

    /// Calls of processWindow with at least one item.
    std::uint64_t windowCount() const;
    /// Those of them with fewer than 32 items.
    std::uint64_t smallWindowCount() const;

private:
    friend struct ResidentAccess;
    struct DeviceBuffers;

    std::unique_ptr<DeviceBuffers> buffers_;
};

}  // namespace Lumenar::Core::Kelm
