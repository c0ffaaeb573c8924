#include "kelm/engine/RunControl.h"

#include <chrono>
#include <utility>

namespace Lumenar::Core::Kelm {

std::int64_t RunControl::steadyClock() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void RunControl::setCallback(std::function<void(const RunProgress&)> callback,
                             std::int64_t interval) {
    callback_ = std::move(callback);
    reports_ = callback_ != nullptr;
    interval_ = interval;
    work_left_ = 0;
    looked_at_ = reported_at_ = 0;
    looked_position_ = reported_position_ = 0;
}

void RunControl::begin(ModelTime position) {
    if (!reports_) return;
    const std::int64_t now = clock_();
    reported_at_ += now - looked_at_;
    reported_position_ += position - looked_position_;
    looked_at_ = now;
    looked_position_ = position;
}

void RunControl::end(ModelTime position) {
    if (!reports_) return;
    looked_at_ = clock_();
    looked_position_ = position;
}

/// Reads the clock.
bool RunControl::intervalIsOver(ModelTime position) {
    work_left_ = interval_ > 0 ? work_between_looks : 0;
    looked_at_ = clock_();
    looked_position_ = position;
    return looked_at_ - reported_at_ >= interval_;
}

void RunControl::report(ModelTime position, std::uint64_t spikes) {
    const std::int64_t now = looked_at_;
    const std::int64_t wall = now - reported_at_;
    const auto model = static_cast<double>(position - reported_position_);
    reported_at_ = now;
    reported_position_ = position;
    if (reports_) callback_({position, spikes, wall > 0 ? model / static_cast<double>(wall) : 0.0});
}

}  // namespace Lumenar::Core::Kelm
