#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kelm/engine/IWindowBackend.h"

namespace Lumenar::Core::Kelm {

/// Computes windows with another backend and records their items and events. The backend's part of
/// a whole run can then be repeated alone. Its time is the floor of the time of that run.
///
/// Only for networks of equal neurons without drives, so that an item takes 80 bytes and an event
/// 24.
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

    /// Computes every recorded window again, in the order of the run, and returns the processor
    /// time of the backend in s. Before the clock starts, the items are laid out as the engine lays
    /// them out, so that they are in the same caches as in a run. Throws std::runtime_error if the
    /// results differ from those of the run.
    double replay();

private:
    /// Larger than the engine's part, because reading the clock takes 4 % of the time of 256 items
    /// in lanes. So many items are still in the second cache when the clock starts.
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
    std::uint64_t sum_ = 0;  ///< checksum of all results
};

}  // namespace Lumenar::Core::Kelm
