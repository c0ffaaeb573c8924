#pragma once

// All headers that a program needs to build, run and store models, and the short namespace kelm.
// A program that names its backend links kelm::backends, any other one kelm::kelm. The backends in
// libraries of their own have their own headers: kelm/lanes/LaneCpuBackend.h,
// kelm/threads/ThreadedCpuBackend.h and kelm/cuda/CudaWindowBackend.h.

#include "kelm/backends/Backends.h"
#include "kelm/core/Blob.h"
#include "kelm/core/Digest.h"
#include "kelm/core/Failures.h"
#include "kelm/core/ModelTime.h"
#include "kelm/core/RandomContext.h"
#include "kelm/core/Units.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/kernel/NeuronModel.h"
#include "kelm/network/Synapse.h"
#include "kelm/network/SynapseColumns.h"
#include "kelm/network/SynapseGraph.h"
#include "kelm/network/Wiring.h"
#include "kelm/runtime/CheckpointFile.h"
#include "kelm/runtime/CheckpointSummary.h"
#include "kelm/runtime/Fingerprint.h"
#include "kelm/runtime/KelmRuntime.h"
#include "kelm/runtime/MakeRuntime.h"
#include "kelm/runtime/Probe.h"
#include "kelm/runtime/RuntimeOptions.h"
#include "kelm/runtime/SpikeFile.h"
#include "kelm/runtime/Validation.h"

namespace Lumenar::Core::Kelm {

using Kernel::Firing;
using Kernel::Neuron;
using Runtime::RandomContext;
using Runtime::ReplayExhausted;

}  // namespace Lumenar::Core::Kelm

namespace kelm = Lumenar::Core::Kelm;
