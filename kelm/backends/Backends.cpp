#include "kelm/backends/Backends.h"

#include <algorithm>
#include <utility>

#include "kelm/core/Failures.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/lanes/LaneCpuBackend.h"
#include "kelm/runtime/MakeRuntime.h"
#ifdef KELM_HAVE_THREADS
#include "kelm/threads/ThreadedCpuBackend.h"
#endif
#ifdef KELM_HAVE_CUDA
#include "kelm/cuda/CudaWindowBackend.h"
#endif

namespace Lumenar::Core::Kelm {

namespace {

std::unique_ptr<IWindowBackend> makeThreads([[maybe_unused]] std::uint64_t threads) {
#ifdef KELM_HAVE_THREADS
    return std::make_unique<ThreadedCpuBackend>(LaneCpuBackend(), threads);
#else
    return nullptr;
#endif
}

std::unique_ptr<IWindowBackend> makeCuda() {
#ifdef KELM_HAVE_CUDA
    return std::make_unique<CudaWindowBackend>();
#else
    return nullptr;
#endif
}

std::unique_ptr<IWindowBackend> makeFastest([[maybe_unused]] std::uint64_t threads) {
#ifdef KELM_HAVE_THREADS
    auto backend = std::make_unique<ThreadedCpuBackend>(LaneCpuBackend(), threads);
    if (backend->threads() > 1) return backend;
#endif
    return std::make_unique<LaneCpuBackend>();
}

/// "cpu, lanes and auto"
std::string listed(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
    return text + " and auto";
}

}  // namespace

std::vector<std::string> availableBackends() {
    std::vector<std::string> names{"cpu", "lanes"};
#ifdef KELM_HAVE_THREADS
    names.emplace_back("threads");
#endif
#ifdef KELM_HAVE_CUDA
    if (cudaDeviceUsable()) names.emplace_back("cuda");
#endif
    return names;
}

std::unique_ptr<IWindowBackend> makeBackend(std::string_view name, std::uint64_t threads) {
    if (name == "auto") return makeFastest(threads);
    const std::vector<std::string> names = availableBackends();
    if (std::find(names.begin(), names.end(), name) == names.end()) {
        throw UnknownBackend(UnknownBackend::named(std::string(name), listed(names)));
    }
    if (name == "cpu") return std::make_unique<CpuWindowBackend>();
    if (name == "lanes") return std::make_unique<LaneCpuBackend>();
    return name == "threads" ? makeThreads(threads) : makeCuda();
}

std::unique_ptr<KelmRuntime> makeRuntime(SynapseGraph network, RuntimeOptions options) {
    const std::string name = options.backend;
    const std::uint64_t threads = options.threads;
    return makeRuntime(std::move(network), std::move(options),
                       [name, threads] { return makeBackend(name, threads); });
}

}  // namespace Lumenar::Core::Kelm
