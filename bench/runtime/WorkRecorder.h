#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kelm/engine/IWindowBackend.h"

namespace Lumenar::Core::Kelm {

/// Computes windows with another backend and keeps what each of them was given, so that the
/// backend's part of a whole run can be repeated by itself: the floor under the time of that run.
///
/// For networks of equal neurons without modulation, whose parameters and empty drives are kept
/// once: 80 bytes an item and 24 an event.
class WorkRecorder final : public IWindowBackend {
public:
    /// `backend` must outlive the recorder.
    explicit WorkRecorder(IWindowBackend& backend) : backend_(backend) {}

    const char* name() override { return "recorder"; }
    /// Throws std::runtime_error for an item with other parameters, or with a drive.
    void processWindow(const std::span<const WindowWork>& work,
                       const std::span<const Kernel::WindowEvent>& events, ModelTime window_end,
                       ModelTime horizon, const Kernel::Neuron& neuron,
                       const Kernel::Firing& firing,
                       const std::span<Kernel::WindowResult>& results) override;
    bool tryResidentRun(WindowEngine&) override { return false; }

    std::uint64_t itemCount() const;

    /// Lets the backend compute every window that was recorded, in the order of the run, and
    /// returns the processor time spent in it, s. A window's items are laid out as the engine lays
    /// them out before the clock starts, so that they are where a run would find them. Throws
    /// std::runtime_error where the results are not those of the run.
    double replay();

private:
    /// Several of the engine's: looking at the clock takes 4 % of 256 items in lanes. These are
    /// still in the second cache when the clock starts.
    static constexpr std::size_t part_items = 1024;

    struct Item {
        Kernel::State state;
        std::uint64_t rng;
        ModelTime pending_time;
        double pending_bound;
        std::uint32_t first_event;
        std::uint32_t event_count;
    };
    struct Window {
        ModelTime end;
        std::vector<Item> items;
        std::vector<Kernel::WindowEvent> events;
    };

    static std::uint64_t mix(std::uint64_t sum, std::span<const Kernel::WindowResult> results);

    IWindowBackend& backend_;
    Kernel::Neuron neuron_;
    Kernel::Firing firing_;
    ModelTime horizon_ = 0;
    std::vector<Window> windows_;
    std::uint64_t sum_ = 0;  ///< of all results
};

}  // namespace Lumenar::Core::Kelm
