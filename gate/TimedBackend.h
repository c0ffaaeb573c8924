#pragma once

#include "kelm/engine/IWindowBackend.h"

namespace Lumenar::Core::Kelm {

/// Measures the time of a run in a backend. It declines whole runs even if the wrapped backend
/// would take them, so that every window is measured. The wrapped backend is borrowed.
class TimedBackend final : public IWindowBackend {
public:
    explicit TimedBackend(IWindowBackend& inner) : inner_(&inner) {}

    const char* name() override { return inner_->name(); }
    /// A call that throws is not counted.
    void processWindow(const std::span<const WindowWork>& work,
                       const std::span<const Kernel::WindowEvent>& events, ModelTime window_end,
                       ModelTime horizon, const Kernel::Neuron& neuron,
                       const Kernel::Firing& firing,
                       const std::span<Kernel::WindowResult>& results) override;
    bool tryResidentRun(WindowEngine&) override { return false; }
    std::size_t partItems() const override { return inner_->partItems(); }
    /// The team computes parts of windows by itself: they are not measured.
    IShardTeam* team() override { return inner_->team(); }

    /// The time in processWindow of the wrapped backend so far, s.
    double seconds() const { return seconds_; }

private:
    IWindowBackend* inner_;
    double seconds_ = 0.0;
};

}  // namespace Lumenar::Core::Kelm
