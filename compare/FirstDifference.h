#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "compare/Difference.h"
#include "compare/RunImage.h"
#include "kelm/core/Blob.h"
#include "kelm/engine/IWindowBackend.h"

// Where two runs of one model part: two runs in, the first difference out.

namespace Lumenar::Core::Kelm::Compare {

/// The windows of a run, as its backends were given and left them: a digest of each, and one of
/// them whole where it was asked for. All that a window's neurons see goes into the digest, so two
/// runs whose digests are equal have computed the same, whoever computed it and however a window
/// was cut into parts.
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

    /// `max_windows`, `max_candidates`: where a run ends by force, with a std::runtime_error at the
    /// start of the next window, so that a model that goes on for ever is a model as well.
    explicit WindowTrace(std::uint64_t max_windows = ~std::uint64_t{0},
                         std::uint64_t max_candidates = ~std::uint64_t{0})
        : max_windows_(max_windows), max_candidates_(max_candidates) {}

    /// Keeps the window of this place in the order of windows.
    void keep(std::size_t place) { kept_place_ = place; }

    /// Lets windows pass without noting them, up to the same number.
    void mute(bool muted) {
        muted_ = muted;
        muted_windows_ = 0;
    }

    /// To be called before a window or a part of one is computed. Throws as said above.
    void begin(ModelTime window_end);
    /// To be called when it has been.
    void note(std::span<const WindowWork> work, std::span<const Kernel::WindowEvent> events,
              std::span<const Kernel::WindowResult> results);

    /// To be called where the run has ended in an exception: how much of its last window has been
    /// computed by then is open, so that window does not count.
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
    bool muted_ = false;
    std::uint64_t muted_windows_ = 0;
};

/// A backend whose windows go into a trace.
class TracedBackend final : public IWindowBackend {
public:
    TracedBackend(IWindowBackend& inner, WindowTrace& trace) : inner_(inner), trace_(trace) {}

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

private:
    IWindowBackend& inner_;
    WindowTrace& trace_;
};

/// What a run has left behind so far. Two runs are compared by what both show.
struct Remains {
    RunImage image;
    std::vector<Kernel::State> observed;  ///< shape (sights, neurons): what an observer was shown
    std::vector<std::string>
        outcomes;  ///< of what the caller did, texts that were thrown among them
    std::vector<std::pair<std::string, Blob>> blobs;  ///< snapshots, by name
};

std::optional<Difference> differenceOf(const Remains& a, const Remains& b);

/// A run of a model from its start, carried on bit by bit. Where it is stopped changes nothing.
class CarriedRun {
public:
    virtual ~CarriedRun() = default;

    /// Carries on to `until` ns, or to where the run throws, which is then among its outcomes.
    virtual void advance(ModelTime until) = 0;
    virtual Remains remains() = 0;
    /// False where a backend may take the run whole, which shows no windows.
    virtual bool showsWindows() const { return true; }

    WindowTrace& trace() { return trace_; }

protected:
    CarriedRun() = default;
    explicit CarriedRun(WindowTrace trace) : trace_(std::move(trace)) {}

private:
    WindowTrace trace_;
};
/// A way of carrying out a run, from its start each time.
using RunFactory = std::function<std::unique_ptr<CarriedRun>()>;

struct FirstDifference {
    std::int64_t window = 0;  ///< window k is [k * d_min, (k + 1) * d_min); -1 before the first
    Difference what;

    std::string text() const;
};

/// What two runs that have come to their ends have shown or left that differs, without running them
/// again: the first window whose digests differ, or else what differs behind the last one. None
/// where they agree. `d_min`: ns, of the windows.
std::optional<FirstDifference> differenceAtEnds(CarriedRun& left, CarriedRun& right,
                                                ModelTime d_min);

/// The first window in which two ways of running a model differ until `end` ns, and what differs
/// there: a field that a neuron was given or left with in it, or one of what it left behind as a
/// whole. None where they agree, or where a difference ceases to show as it is narrowed down.
///
/// It runs either way several times, with a digest a window to find the window and a comparison in
/// full there; what only shows between windows is found by bisection. `d_min`: ns, of the windows.
std::optional<FirstDifference> firstDifference(const RunFactory& left, const RunFactory& right,
                                               ModelTime d_min, ModelTime end);

}  // namespace Lumenar::Core::Kelm::Compare
