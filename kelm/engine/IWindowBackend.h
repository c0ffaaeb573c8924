#pragma once

#include <cstddef>
#include <limits>
#include <span>

#include "kelm/core/ModelTime.h"
#include "kelm/kernel/WindowProcessing.h"

namespace Lumenar::Core::Kelm {

class IShardTeam;
class WindowEngine;

/// Computes the work of a window's neurons. Everything else in a run is the same for all backends,
/// so backends can be compared bit by bit.
///
/// Obligations of an implementation:
/// 1. results[i] depends on work[i], its events, window_end and horizon alone.
/// 2. results[i] belongs to work[i]. Nothing is sorted, compacted or skipped.
/// 3. The computation is Kernel::processWindow, to the bit.
/// 4. The parameters of a neuron are those in its item, not `neuron` and `firing`.
/// 5. Nothing outside `results` changes: no store, stream, log or graph.
/// 6. Faults of the model are flags in the results. A backend throws only for its own faults, and
///    the engine passes such an exception on.
/// 7. An empty batch is legal and does nothing.
/// 8. A backend whose partItems() is not whole_window never throws from processWindow: when a later
///    part fails, the parts before it are already committed.
class IWindowBackend {
public:
    virtual ~IWindowBackend() = default;

    /// A text that is valid for the life of the program.
    virtual const char* name() = 0;

    /// Computes one window, or a part of one as partItems says.
    ///
    /// `work`: shape (n), ascending by neuron. `events`: all their events; item i owns event_count
    /// entries from its first_event on. `window_end`, `horizon`: ns, exclusive.
    /// `neuron`, `firing`: the engine's uniform parameters. `results`: shape (n), written.
    virtual void processWindow(const std::span<const WindowWork>& work,
                               const std::span<const Kernel::WindowEvent>& events,
                               ModelTime window_end, ModelTime horizon,
                               const Kernel::Neuron& neuron, const Kernel::Firing& firing,
                               const std::span<Kernel::WindowResult>& results) = 0;

    /// Offers the whole run, before its first window. True: the backend has taken the engine to its
    /// horizon, with the same result as window by window. False, which is always legal: nothing has
    /// changed, and the engine runs window by window with this backend.
    virtual bool tryResidentRun(WindowEngine& engine) = 0;

    static constexpr std::size_t whole_window = std::numeric_limits<std::size_t>::max();

    /// The largest number of items that a call should get, at least 1. For any number but
    /// whole_window the engine may build, compute and commit a window part by part, so that the
    /// memory of a part is still in the processor's caches when the part is committed.
    virtual std::size_t partItems() const { return whole_window; }

    /// Threads for the engine's own work, or null: the engine then runs on the calling thread.
    virtual IShardTeam* team() { return nullptr; }
};

}  // namespace Lumenar::Core::Kelm
