// The installed device library, on a machine with or without a device.
#include <cstdio>
#include <string>

#include "kelm/core/Failures.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/cuda/ResidentRecurrence.h"
#include "kelm/cuda/ShardLayout.h"
#include "kelm/cuda/ShardQueue.h"

int main() {
    using namespace Lumenar::Core::Kelm;
    checkShardLayouts();
    checkCuda(0, "nothing");
    SynapseGraph graph(2, 1, {});
    std::string reason;
    if (residentEligible(graph, &reason)) return 1;
    std::printf("%s; %s\n", cudaDeviceName().c_str(), reason.c_str());
    const Kernel::Neuron neuron;
    const Kernel::Firing firing;
    try {
        runShardQueue(graph, 1, 1, 3, neuron, firing, 1, 1);
        return 2;
    } catch (const WindowEngineError&) {  // more shards than neurons
    }
    if (!cudaDeviceUsable()) return 0;
    CudaWindowBackend backend;
    try {
        runResidentRecurrence(backend, graph, 1, 1, neuron, firing, 1, 1, 1);
        return 3;
    } catch (const WindowEngineError&) {  // neurons without synapses
        return 0;
    }
}
