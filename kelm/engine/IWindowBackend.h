#pragma once

#include <cstddef>
#include <limits>
#include <span>

#include "kelm/core/ModelTime.h"
#include "kelm/kernel/WindowProcessing.h"

namespace Lumenar::Core::Kelm {

class WindowEngine;

/// Where the per-neuron work of a window is computed. All else in a run is the same whatever
/// backend runs, which is what makes a comparison of backends bit by bit meaningful.
///
/// Obligations of an implementation:
/// 1. results[i] depends on work[i], its events, window_end and horizon alone.
/// 2. results[i] belongs to work[i]: nothing is sorted, compacted or skipped.
/// 3. The computation is Kernel::processWindow, to the bit.
/// 4. The parameters that count are those in the item, whatever `neuron` and `firing` say.
/// 5. Nothing outside `results` changes: no store, stream, log or graph.
/// 6. Faults of the model travel as flags in the results; a throw is for the backend's own faults
///    and passes through the engine unchanged.
/// 7. An empty batch is legal and does nothing.
class IWindowBackend {
public:
    virtual ~IWindowBackend() = default;

    /// A text that is valid for the life of the program.
    virtual const char* name() = 0;

    /// Computes one window, or a part of one (see partItems).
    ///
    /// `work`: shape (n), ascending by neuron. `events`: all their events; item i owns event_count
    /// entries from its first_event on. `window_end`, `horizon`: ns, exclusive.
    /// `neuron`, `firing`: the engine's uniform parameters. `results`: shape (n), written.
    virtual void processWindow(const std::span<const WindowWork>& work,
                               const std::span<const Kernel::WindowEvent>& events,
                               ModelTime window_end, ModelTime horizon,
                               const Kernel::Neuron& neuron, const Kernel::Firing& firing,
                               const std::span<Kernel::WindowResult>& results) = 0;

    /// Offers the whole run, before its first window. True: the engine stands at its horizon and
    /// nothing tells it from one that ran window by window. False, which is always legal: nothing
    /// has changed, and the engine goes on window by window with this same backend.
    virtual bool tryResidentRun(WindowEngine& engine) = 0;

    static constexpr std::size_t whole_window = std::numeric_limits<std::size_t>::max();

    /// The most items that a call is to be given, at least 1. A backend that names a number never
    /// throws, and the engine may then build, compute and commit a window part by part, so that
    /// what a part touches is still in the processor's caches when it is committed.
    virtual std::size_t partItems() const { return whole_window; }
};

}  // namespace Lumenar::Core::Kelm
