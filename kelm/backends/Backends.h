#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kelm/engine/IWindowBackend.h"
#include "kelm/network/SynapseGraph.h"
#include "kelm/runtime/KelmRuntime.h"
#include "kelm/runtime/RuntimeOptions.h"

// Backends by their names. In the library kelm::backends.

namespace Lumenar::Core::Kelm {

/// The names that makeBackend accepts here, besides "auto":
/// - "cpu": the reference;
/// - "lanes": several neurons at once in the vectors of one processor;
/// - "threads": lanes on several processors, if the package was built with oneTBB;
/// - "cuda": a device, if the package was built with it and a device is usable.
std::vector<std::string> availableBackends();

/// Makes a backend. "auto" is "threads" where it is available and gets more than one thread, else
/// "lanes". It is never "cuda": a composed run goes window by window, and the CUDA backend then
/// copies each window to the device and back.
///
/// `threads`: the most threads of "auto" and "threads"; 0 for one a processor. Other backends do
/// not read it. Throws UnknownBackend for a name that is not available, InvalidThreadCount for too
/// many threads, and what the backend's constructor throws.
std::unique_ptr<IWindowBackend> makeBackend(std::string_view name, std::uint64_t threads = 0);

/// Makes a runtime with the backend that the options name. Throws as makeBackend does, then as the
/// makeRuntime of a given backend.
std::unique_ptr<KelmRuntime> makeRuntime(SynapseGraph network, RuntimeOptions options = {});

}  // namespace Lumenar::Core::Kelm
