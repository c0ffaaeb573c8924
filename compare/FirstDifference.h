#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "compare/Difference.h"
#include "compare/RunImage.h"
#include "kelm/core/Blob.h"
#include "kelm/engine/IShardTeam.h"
#include "kelm/engine/IWindowBackend.h"

// Finds the first difference of two runs of one model.

namespace Lumenar::Core::Kelm::Compare {

/// The inputs and results of a run's windows: a digest of each window, and one chosen window in
/// full. The digest covers everything that the neurons of a window see, so two runs with equal
/// digests have computed the same, on any backend and with windows in any parts.
class WindowTrace {
public:
    struct Window {
        ModelTime end = 0;         ///< ns
        std::uint64_t digest = 0;  ///< of this window and all before it
    };
    struct Item {
        WindowWork work;  ///< with first_event 0
        std::vector<Kernel::WindowEvent> events;
        Kernel::WindowResult result;
    };

    /// `max_windows`, `max_candidates`: limits of a run. A run past a limit ends with a
    /// std::runtime_error at the start of the next window, so that endless models can be compared.
    explicit WindowTrace(std::uint64_t max_windows = ~std::uint64_t{0},
                         std::uint64_t max_candidates = ~std::uint64_t{0})
        : max_windows_(max_windows), max_candidates_(max_candidates) {}

    /// Keeps the window with this index in full.
    void keep(std::size_t place) { kept_place_ = place; }

    /// While muted, windows are only counted, up to the same limit.
    void mute(bool muted) {
        muted_ = muted;
        muted_windows_ = 0;
        muted_end_ = no_time;
    }

    /// Call before a window or a part of it is computed. Throws at a limit, as above.
    void begin(ModelTime window_end);
    /// Whether the run has ended at a limit.
    bool hasReachedLimit() const { return has_reached_limit_; }
    /// Call after that, in the order of the neurons.
    void note(std::span<const WindowWork> work, std::span<const Kernel::WindowEvent> events,
              std::span<const Kernel::WindowResult> results);

    /// Call after the run has ended in an exception. Drops the last window: how much of it has been
    /// computed can differ between backends.
    void end() {
        if (!muted_ && !windows_.empty()) windows_.pop_back();
    }

    const std::vector<Window>& windows() const { return windows_; }
    const std::vector<Item>& kept() const { return kept_; }
    std::uint64_t candidates() const { return candidates_; }

private:
    std::uint64_t max_windows_;
    std::uint64_t max_candidates_;
    std::optional<std::size_t> kept_place_;
    std::vector<Window> windows_;
    std::vector<Item> kept_;
    std::uint64_t candidates_ = 0;
    bool has_reached_limit_ = false;
    bool muted_ = false;
    std::uint64_t muted_windows_ = 0;
    ModelTime muted_end_ = 0;  ///< ns, of the last window while muted
};

/// A team whose parts of windows are recorded in a trace, in the order of their neurons. A run past
/// a limit of the trace ends somewhere in a window.
class TracedTeam final : public IShardTeam {
public:
    TracedTeam(IShardTeam& inner, WindowTrace& trace) : inner_(inner), parts_(inner, trace) {}

    std::size_t shardsFor(std::size_t neurons) const override { return inner_.shardsFor(neurons); }
    std::size_t threshold() const override { return inner_.threshold(); }
    IWindowBackend& backend() override { return parts_; }
    void run(std::size_t count, const std::function<void(std::size_t)>& task) override {
        inner_.run(count, task);
        parts_.finish();
    }

private:
    /// Several threads compute parts of one window at once.
    class Parts final : public IWindowBackend {
    public:
        Parts(IShardTeam& team, WindowTrace& trace) : team_(team), trace_(trace) {}

        const char* name() override { return team_.backend().name(); }
        void processWindow(const std::span<const WindowWork>& work,
                           const std::span<const Kernel::WindowEvent>& events, ModelTime window_end,
                           ModelTime horizon, const Kernel::Neuron& neuron,
                           const Kernel::Firing& firing,
                           const std::span<Kernel::WindowResult>& results) override;
        bool tryResidentRun(WindowEngine&) override { return false; }
        std::size_t partItems() const override { return team_.backend().partItems(); }
        /// Records the parts since the last call.
        void finish();

    private:
        struct Part {
            std::vector<WindowWork> work;
            std::vector<Kernel::WindowEvent> events;
            std::vector<Kernel::WindowResult> results;
        };

        IShardTeam& team_;
        WindowTrace& trace_;
        std::mutex mutex_;  ///< of what is below, and of the trace
        std::vector<Part> parts_;
    };

    IShardTeam& inner_;
    Parts parts_;
};

/// A backend that records its windows in a trace.
class TracedBackend final : public IWindowBackend {
public:
    TracedBackend(IWindowBackend& inner, WindowTrace& trace) : inner_(inner), trace_(trace) {
        if (inner.team() != nullptr) team_.emplace(*inner.team(), trace);
    }

    const char* name() override { return inner_.name(); }
    void processWindow(const std::span<const WindowWork>& work,
                       const std::span<const Kernel::WindowEvent>& events, ModelTime window_end,
                       ModelTime horizon, const Kernel::Neuron& neuron,
                       const Kernel::Firing& firing,
                       const std::span<Kernel::WindowResult>& results) override {
        trace_.begin(window_end);
        inner_.processWindow(work, events, window_end, horizon, neuron, firing, results);
        trace_.note(work, events, results);
    }
    bool tryResidentRun(WindowEngine& engine) override { return inner_.tryResidentRun(engine); }
    std::size_t partItems() const override { return inner_.partItems(); }
    IShardTeam* team() override { return team_ ? &*team_ : nullptr; }

private:
    IWindowBackend& inner_;
    WindowTrace& trace_;
    std::optional<TracedTeam> team_;
};

/// The results of a run so far. Blobs are compared if both runs have them.
struct RunResults {
    RunImage image;
    std::vector<Kernel::State> observed;  ///< shape (observations, neurons)
    std::vector<std::string> outcomes;    ///< of the caller's actions, texts of exceptions included
    std::vector<std::pair<std::string, Blob>> blobs;  ///< snapshots, by name
};

std::optional<Difference> differenceOf(const RunResults& a, const RunResults& b);

/// A run of a model that continues in steps. The choice of steps changes nothing.
class CarriedRun {
public:
    virtual ~CarriedRun() = default;

    /// Continues to `until` ns. An exception ends the run and is one of its outcomes.
    virtual void advance(ModelTime until) = 0;
    virtual RunResults results() = 0;
    /// False if a backend may take the whole run, whose windows then do not show.
    virtual bool showsWindows() const { return true; }

    WindowTrace& trace() { return trace_; }

protected:
    CarriedRun() = default;
    explicit CarriedRun(WindowTrace trace) : trace_(std::move(trace)) {}

private:
    WindowTrace trace_;
};
/// Starts a run of a model from the beginning.
using RunFactory = std::function<std::unique_ptr<CarriedRun>()>;

struct FirstDifference {
    std::int64_t window = 0;  ///< window k is [k * d_min, (k + 1) * d_min); -1 before the first
    Difference what;

    std::string text() const;
};

/// The difference of two finished runs, without running them again: the first window with different
/// digests, or else the first difference of their results. None if they agree. `d_min`: ns, the
/// window length.
std::optional<FirstDifference> differenceAtEnds(CarriedRun& left, CarriedRun& right,
                                                ModelTime d_min);

/// The first window before `end` ns in which two ways of running a model differ, and the first
/// difference there: a field of a neuron's input or result in this window, or a field of the run's
/// results after it. None if the ways agree, or if the difference does not repeat.
///
/// It runs both ways several times. Digests of windows find the window, and a full comparison finds
/// the field. Bisection finds differences that only show between windows. `d_min`: ns, the window
/// length.
std::optional<FirstDifference> firstDifference(const RunFactory& left, const RunFactory& right,
                                               ModelTime d_min, ModelTime end);

}  // namespace Lumenar::Core::Kelm::Compare
