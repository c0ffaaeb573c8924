#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kelm/engine/IWindowBackend.h"

namespace Lumenar::Core::Kelm {

class SynapseGraph;
struct ResidentAccess;

/// True when the device runtime reports at least one device. Any failure, such as a missing driver,
/// counts as no device. Never throws.
bool cudaDeviceUsable();

/// The name of the process's current device, or "unknown" when there is none.
std::string cudaDeviceName();

/// Checks the status of a call of the device runtime; 0 is success. Throws WindowEngineError
/// "CUDA <what>: <the runtime's text>" for any other.
void checkCuda(int status, std::string_view what);

/// The backend that computes windows on a device, one thread a neuron.
///
/// It uses the process's current device and selects none. Its device memory grows to exactly what a
/// window needs. The destructor releases it and never throws. A failed device call throws
/// WindowEngineError, as checkCuda does; the engine has then committed nothing of that window. One
/// host thread at a time may use a backend.
class CudaWindowBackend final : public IWindowBackend {
public:
    /// Throws WindowEngineError when no device is usable.
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
    /// Computes a fresh run whole on the device, if
    /// - the network has the right shape (residentEligible) and at least 32768 neurons,
    /// - no neuron has so many incoming synapses that one thread could not sort its arrivals,
    /// - the horizon is a multiple of the window, and the engine made its store itself,
    /// - the run exceeds no device buffer, does not consist of empty windows for the most part, and
    ///   meets no fault of the model, which the ordinary loop then reports.
    /// Otherwise returns false with the engine unchanged. Throws WindowEngineError for a failed
    /// device call, and the exception of the device's library for a failed sort or scan; the engine
    /// is then unchanged, too.
    bool tryResidentRun(WindowEngine& engine) override;

    /// Allocates ahead the memory for a whole run of this network, with `fanout` synapses a neuron.
    /// Throws WindowEngineError for a network without neurons, a fan-out of 0, a size beyond 64
    /// bits, and a failed device call.
    void prepareResident(const SynapseGraph& graph, std::uint64_t fanout);

    /// The number of processWindow calls with at least one item.
    std::uint64_t windowCount() const;
    /// The number of those calls with fewer than 32 items.
    std::uint64_t smallWindowCount() const;

private:
    friend struct ResidentAccess;
    struct DeviceBuffers;

    std::unique_ptr<DeviceBuffers> buffers_;
};

}  // namespace Lumenar::Core::Kelm
