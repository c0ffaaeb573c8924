#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <utility>

#include "kelm/kelm.h"
#include "python/src/Binding.h"
#include "python/src/BusyError.h"

namespace Lumenar::Core::Kelm::Python {

/// A runtime that only one call at a time may use. Every call but requestStop takes a Use, so a
/// call from another thread, or from a callback of a run, throws BusyError.
class Simulation {
public:
    explicit Simulation(std::unique_ptr<KelmRuntime> runtime);

    /// The runtime for the length of one call.
    class Use {
    public:
        explicit Use(Simulation& simulation) : simulation_(simulation) {
            if (simulation_.in_use_.exchange(true)) throw BusyError(BusyError::busy);
        }
        ~Use() { simulation_.in_use_.store(false); }
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;
        KelmRuntime& operator*() const { return *simulation_.runtime_; }
        KelmRuntime* operator->() const { return simulation_.runtime_.get(); }

    private:
        Simulation& simulation_;
    };

    bool isBusy() const { return in_use_.load(); }
    bool hasFailed() const { return failed_; }
    void requestStop() { runtime_->requestStop(); }

    /// Runs to `until` ns without the GIL. About every 50 ms, with the GIL, lets Python handle
    /// signals and calls `poll(position, spikes, speed)`. If either raises, the run ends after its
    /// window and may be continued. Returns whether a request has stopped the run.
    bool run(ModelTime until, std::optional<py::function> poll);

    /// Keeps the listener and the trace, which the runtime borrows.
    void setCommitListener(std::unique_ptr<ICommitListener> listener) {
        const Use use(*this);
        use->setCommitListener(listener.get());
        listener_ = std::move(listener);
    }
    InjectionTrace& traceInjections() {
        const Use use(*this);
        if (!trace_) {
            trace_ = std::make_unique<InjectionTrace>();
            use->setInjectionTrace(trace_.get());
        }
        return *trace_;
    }

private:
    void report(const RunProgress& progress);

    std::unique_ptr<ICommitListener> listener_;
    std::unique_ptr<InjectionTrace> trace_;
    std::unique_ptr<KelmRuntime> runtime_;
    std::atomic<bool> in_use_ = false;
    bool failed_ = false;
    py::object poll_;           ///< of the current run; empty for none
    bool interrupted_ = false;  ///< a signal or `poll_` has ended the last run
};

/// Binds the parts of a simulation: learning, oscillators, prediction, recorder and so on.
void bindParts(py::class_<Simulation>& simulation);

}  // namespace Lumenar::Core::Kelm::Python
