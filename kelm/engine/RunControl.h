#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "kelm/core/ModelTime.h"

namespace Lumenar::Core::Kelm {

/// How far a run is.
struct RunProgress {
    ModelTime position = 0;    ///< ns; the end of the last window
    std::uint64_t spikes = 0;  ///< of the run so far, also those of earlier calls and taken ones
    double speed = 0.0;        ///< model time per wall time since the last report
};

/// Reports the progress of runs and stops them, both only between two windows. requestStop may be
/// called from any thread and from a signal handler, all else from the thread of the runs.
class RunControl {
public:
    /// Wall time in ns since a fixed moment, never decreasing.
    using Clock = std::int64_t (*)();
    static std::int64_t steadyClock();

    explicit RunControl(Clock clock = steadyClock) : clock_(clock) {}

    /// Calls `callback` about every `interval` ns of the wall time that runs take, for 0 after each
    /// window. An empty callback ends the reports. Not for use in the callback.
    void setCallback(std::function<void(const RunProgress&)> callback, std::int64_t interval);

    /// Ends the current run after its window, or the next run before its first one. In a network
    /// on several ranks, the run may end one window later.
    void requestStop() noexcept { stop_requested_.store(true, std::memory_order_relaxed); }

    // For the engine. Positions are in ns.
    void begin(ModelTime position);
    void end(ModelTime position);
    /// Whether the engine must call act() after a window of `events` events.
    bool isDue(std::size_t events) noexcept {
        return (reports_ && (work_left_ -= window_work + static_cast<std::int64_t>(events)) <= 0) ||
               stop_requested_.load(std::memory_order_relaxed);
    }
    /// Reports if the interval is over. Throws what the callback throws.
    void act(ModelTime position, std::uint64_t spikes) {
        if (reports_ && work_left_ <= 0 && intervalIsOver(position)) report(position, spikes);
    }
    /// The same in two steps, for ranks that report together.
    bool isReportDue(std::size_t events, ModelTime position) {
        return reports_ && isDue(events) && work_left_ <= 0 && intervalIsOver(position);
    }
    void report(ModelTime position, std::uint64_t spikes);
    /// Whether a stop was requested since the last call.
    bool takeStopRequest() noexcept {
        return stop_requested_.load(std::memory_order_relaxed) &&
               stop_requested_.exchange(false, std::memory_order_relaxed);
    }

private:
    bool intervalIsOver(ModelTime position);

    static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler may set the flag");
    // The clock is read after 256 windows or 4096 events. These take a thousand times as long as a
    // reading.
    static constexpr std::int64_t work_between_looks = 4096;
    static constexpr std::int64_t window_work = 16;

    std::atomic<bool> stop_requested_ = false;
    Clock clock_;
    std::function<void(const RunProgress&)> callback_;
    bool reports_ = false;
    std::int64_t interval_ = 0;   ///< ns of wall time
    std::int64_t work_left_ = 0;  ///< until the next look at the clock
    // Wall time and position of the last look and the last report. Those of the report are moved
    // by all pauses since, so that the time between runs does not count.
    std::int64_t looked_at_ = 0;
    ModelTime looked_position_ = 0;
    std::int64_t reported_at_ = 0;
    ModelTime reported_position_ = 0;
};

}  // namespace Lumenar::Core::Kelm
