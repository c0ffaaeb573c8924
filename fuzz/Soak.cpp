#include "fuzz/Soak.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#ifdef KELM_HAVE_THREADS
#include <tbb/global_control.h>

#include "kelm/threads/ThreadedCpuBackend.h"
#endif
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/cuda/EmulatedDevice.h"
#include "kelm/cuda/LookaheadCudaTesting.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/lanes/LaneCpuBackend.h"
#include "kelm/lanes/LaneKernels.h"

namespace Lumenar::Core::Kelm::Fuzzing {

namespace {

using namespace Compare;
namespace Emulation = Device::Emulation;

/// The emulated device with one order of threads. It accepts or declines whole runs.
class DeviceBackend final : public IWindowBackend {
public:
    DeviceBackend(CudaWindowBackend& device, std::optional<std::uint64_t> order, bool takes_whole)
        : device_(device), order_(order), takes_whole_(takes_whole) {}

    const char* name() override { return device_.name(); }
    void processWindow(const std::span<const WindowWork>& work,
                       const std::span<const Kernel::WindowEvent>& events, ModelTime window_end,
                       ModelTime horizon, const Kernel::Neuron& neuron,
                       const Kernel::Firing& firing,
                       const std::span<Kernel::WindowResult>& results) override {
        // Each window has its own order, which is the same in every run.
        Emulation::permuteThreads(
            order_ ? std::optional(*order_ ^ static_cast<std::uint64_t>(window_end)) : order_);
        device_.processWindow(work, events, window_end, horizon, neuron, firing, results);
    }
    bool tryResidentRun(WindowEngine& engine) override {
        if (!takes_whole_) return false;
        Emulation::permuteThreads(order_);
        const bool taken = tryResidentRunFrom(device_, engine, 1);
        whole_runs += taken ? 1 : 0;
        return taken;
    }
    std::size_t partItems() const override { return device_.partItems(); }

    std::uint64_t whole_runs = 0;

private:
    CudaWindowBackend& device_;
    std::optional<std::uint64_t> order_;
    bool takes_whole_;
};

}  // namespace

/// Every backend, and the ways to use them.
struct Soak::Backends {
    struct Way {
        std::string name;
        Manner manner = Manner::ordinary;
        std::vector<IWindowBackend*> backends;  ///< as in Setting; none for Manner::cut
    };

    Backends() {
        add("cpu", cpu);
        add("device", device_in_order);
        add("device-permuted", device_permuted);
        for (const Lanes::LaneKernels* const kernels : Lanes::availableKernels()) {
            lanes.push_back(std::make_unique<LaneCpuBackend>(*kernels));
            add(std::string("lanes-") + kernels->name, *lanes.back());
        }
#ifdef KELM_HAVE_THREADS
        add("threads", threads);
        add("threads-lanes", threads_in_lanes);
        add("threads-7", many_threads);
#endif
        ways.push_back({"plain-store", Manner::plain_store, {&cpu}});
        ways.push_back({"short-ring", Manner::short_ring, {&cpu}});
        ways.push_back({"unwatched", Manner::unwatched, {&cpu}});
        ways.push_back({"resident", Manner::resident, {&device_whole}});
        ways.push_back({"cut", Manner::cut, {}});
        IWindowBackend* const three[] = {&of_ranks[0], &of_ranks[1], &of_ranks[2]};
        ways.push_back({"ranks-2", Manner::ranks, {three, three + 2}});
        ways.push_back({"ranks-3", Manner::ranks, {three, three + 3}});
#ifdef KELM_HAVE_THREADS
        ways.push_back({"ranks-2-threads", Manner::ranks, {&of_rank_0, &of_rank_1}});
#endif
        ways.push_back({"ranks-cut", Manner::ranks_cut, {three, three + 3}});
    }

    void add(std::string name, IWindowBackend& backend) {
        ways.push_back({std::move(name), Manner::ordinary, {&backend}});
    }
    const Way* find(const std::string& name) const {
        const auto found = std::find_if(ways.begin(), ways.end(),
                                        [&](const Way& way) { return way.name == name; });
        return found == ways.end() ? nullptr : &*found;
    }

    CpuWindowBackend cpu;
    CudaWindowBackend device;
    DeviceBackend device_in_order{device, std::nullopt, false};
    DeviceBackend device_permuted{device, 0x0badbeef, false};
    DeviceBackend device_whole{device, 0x5eed, true};
    std::vector<std::unique_ptr<LaneCpuBackend>> lanes;
#ifdef KELM_HAVE_THREADS
    // More workers than processors, so that their work interleaves on small machines too.
    tbb::global_control workers{tbb::global_control::max_allowed_parallelism, 7};
    ThreadedCpuBackend threads{3, 1};
    ThreadedCpuBackend threads_in_lanes{LaneCpuBackend(), 2, 1};
    ThreadedCpuBackend many_threads{7, 1};
    ThreadedCpuBackend of_rank_0{2, 1};
    ThreadedCpuBackend of_rank_1{2, 1};
#endif
    CpuWindowBackend of_ranks[3];
    std::vector<Way> ways;
};

Soak::Soak() : backends_(std::make_unique<Backends>()) {}

Soak::~Soak() { Emulation::permuteThreads(std::nullopt); }

void Soak::addBackend(std::string name, IWindowBackend& backend) {
    backends_->add(std::move(name), backend);
}

void Soak::addRanks(std::string name, std::vector<IWindowBackend*> backends) {
    backends_->ways.push_back({std::move(name), Manner::ranks, std::move(backends)});
}

std::vector<std::string> Soak::ways() const {
    std::vector<std::string> names;
    for (const Backends::Way& way : backends_->ways) names.push_back(way.name);
    return names;
}

/// A team ends an endless run somewhere in a window, other backends before it, and a rank by the
/// windows and candidates of its own neurons.
bool Soak::isComparable(const std::string& name, SoakRun& expected) const {
    const Backends::Way& way = *backends_->find(name);
    const bool ends_elsewhere = way.backends.size() != 1 || way.backends.front()->team() != nullptr;
    return !ends_elsewhere || !expected.trace().hasReachedLimit();
}

bool Soak::applies(const std::string& name, const SoakModel& model) const {
    const Backends::Way* const way = backends_->find(name);
    if (way == nullptr) return false;
    switch (way->manner) {
        case Manner::unwatched:
            return model.isComposed();
        case Manner::resident:
            return model.kind == ModelKind::resident;
        case Manner::plain_store:
        case Manner::short_ring:
            return !model.isComposed() || !model.spreads;  // makeRuntime takes no store
        case Manner::cut:
            return !model.cuts.empty();
        case Manner::ranks:
            return model.spreads;
        case Manner::ranks_cut:
            return model.spreads && !model.cuts.empty();
        default:
            return true;
    }
}

std::unique_ptr<SoakRun> Soak::start(const SoakModel& model, const std::string& name) {
    const Backends::Way* const way = backends_->find(name);
    if (way == nullptr) throw std::invalid_argument("no way named " + name);
    // On a busy machine a launch waits long for a second thread, so only few models use two.
    Emulation::setWorkers(model.seed % 16 == 0 ? 2 : 1);
    Setting setting;
    setting.manner = way->manner;
    if (way->manner == Manner::resident) setting.whole_runs = &backends_->device_whole.whole_runs;
    setting.backends = way->backends;
    if (way->manner == Manner::cut) {
        for (const Backends::Way& other : backends_->ways) {
            if (other.manner != Manner::ordinary) continue;
            setting.backends.push_back(other.backends.front());
        }
    }
    return startSoakRun(model, std::move(setting));
}

std::optional<FirstDifference> Soak::compare(const SoakModel& model, const std::string& left,
                                             const std::string& right) {
    return firstDifference([&] { return start(model, left); }, [&] { return start(model, right); },
                           model.window(), model.end());
}

/// Runs a model to its end.
std::unique_ptr<SoakRun> Soak::run(const SoakModel& model, const std::string& way) {
    std::unique_ptr<SoakRun> carried = start(model, way);
    carried->advance(model.end());
    return carried;
}

std::optional<Finding> Soak::examine(const SoakModel& model,
                                     const std::optional<std::string>& only) {
    const auto kind = static_cast<std::size_t>(model.kind);
    const std::unique_ptr<SoakRun> expected = run(model, reference);
    tallies_[kind] += expected->tally();
    ++models_[kind];
    spiking_[kind] += expected->tally().spikes != 0;
    const auto& windows = expected->trace().windows();
    digest_ = digest_ * 0x9e3779b97f4a7c15 + (windows.empty() ? 0 : windows.back().digest);
    for (const std::string& way : ways()) {
        if (way == reference || (only && way != *only) || !applies(way, model)) continue;
        if (!isComparable(way, *expected)) continue;
        const std::unique_ptr<SoakRun> other = run(model, way);
        const Tally counts = other->tally();
        Tally tally;
        tally.runs = 1;
        tally.refusals = counts.refusals;
        tally.thrown = counts.thrown;
        tally.cuts = counts.cuts;
        tally.whole = counts.whole;
        tallies_[kind] += tally;
        const auto seen = differenceAtEnds(*expected, *other, model.window());
        if (!seen) continue;
        const auto again = compare(model, reference, way);
        return Finding{way, again.value_or(*seen), again.has_value()};
    }
    return std::nullopt;
}

std::optional<SmallestModel> Soak::shrink(const SoakModel& model, const std::string& way) {
    const auto differs = [&](const SoakModel& subject) {
        const std::unique_ptr<SoakRun> expected = run(subject, reference);
        return isComparable(way, *expected) &&
               differenceAtEnds(*expected, *run(subject, way), subject.window()).has_value();
    };
    if (!differs(model)) return std::nullopt;
    SmallestModel smallest;
    smallest.model = shrunk(model, differs);
    const auto difference = compare(smallest.model, reference, way);
    if (!difference) return std::nullopt;
    smallest.difference = *difference;
    return smallest;
}

std::string Soak::idleKind() const {
    for (std::size_t i = 0; i < kind_count; ++i) {
        const auto kind = static_cast<ModelKind>(i);
        const std::uint64_t models = models_[i];
        const Tally& tally = tallies_[i];
        if (models < 20) continue;  // a few models may all do nothing
        bool active = 2 * spiking_[i] >= models;
        // A device declines networks that fire too much for its memory, but no others.
        if (kind == ModelKind::resident) active = active && 2 * tally.whole >= models;
        if (kind != ModelKind::resident) active = active && 5 * tally.observed >= models;
        if (kind >= ModelKind::composed) active = active && tally.learned >= models;
        if (kind >= ModelKind::composed) active = active && 2 * tally.refusals >= models;
        if (kind == ModelKind::composed) {
            active = active && tally.gated >= 2 * models && tally.coupled >= 5 * models;
        }
        if (!active) return nameOf(kind);
    }
    return {};
}

}  // namespace Lumenar::Core::Kelm::Fuzzing
