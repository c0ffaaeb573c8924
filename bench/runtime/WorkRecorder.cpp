#include "bench/runtime/WorkRecorder.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "bench/runtime/Figures.h"
#include "kelm/core/SplitMix64.h"

namespace Lumenar::Core::Kelm {

namespace {

template <class Record>
bool equalBytes(const Record& a, const Record& b) {
    return std::memcmp(&a, &b, sizeof(Record)) == 0;
}

}  // namespace

void WorkRecorder::processWindow(const std::span<const WindowWork>& work,
                                 const std::span<const Kernel::WindowEvent>& events,
                                 ModelTime window_end, ModelTime horizon,
                                 const Kernel::Neuron& neuron, const Kernel::Firing& firing,
                                 const std::span<Kernel::WindowResult>& results) {
    neuron_ = neuron;
    firing_ = firing;
    horizon_ = horizon;
    Window window{window_end, {}, {events.begin(), events.end()}};
    window.items.reserve(work.size());
    for (const WindowWork& item : work) {
        if (!equalBytes(item.parameters, neuron) || !equalBytes(item.firing, firing) ||
            !equalBytes(item.drive, PhaseDrive())) {
            throw std::runtime_error("the recorder needs equal neurons without drives");
        }
        window.items.push_back({item.state, item.rng, item.pending_time, item.pending_bound,
                                item.first_event, item.event_count});
    }
    windows_.push_back(std::move(window));
    backend_.processWindow(work, events, window_end, horizon, neuron, firing, results);
    sum_ = mix(sum_, results);
}

std::uint64_t WorkRecorder::itemCount() const {
    std::uint64_t count = 0;
    for (const Window& window : windows_) count += window.items.size();
    return count;
}

double WorkRecorder::replay() {
    std::vector<WindowWork> work;
    std::vector<Kernel::WindowEvent> events;
    std::vector<Kernel::WindowResult> results(part_items);
    std::uint64_t sum = 0;
    double seconds = 0.0;
    for (const Window& window : windows_) {
        for (std::size_t part = 0; part < window.items.size(); part += part_items) {
            const std::span items =
                std::span(window.items)
                    .subspan(part, std::min(part_items, window.items.size() - part));
            const std::uint32_t first_event = items.front().first_event;
            const std::uint32_t end_event = items.back().first_event + items.back().event_count;
            events.assign(window.events.begin() + first_event, window.events.begin() + end_event);
            work.clear();
            for (const Item& item : items) {
                WindowWork& entry = work.emplace_back();
                entry.state = item.state;
                entry.parameters = neuron_;
                entry.firing = firing_;
                entry.rng = item.rng;
                entry.pending_time = item.pending_time;
                entry.pending_bound = item.pending_bound;
                entry.first_event = item.first_event - first_event;
                entry.event_count = item.event_count;
            }
            const std::span part_results(results.data(), work.size());
            const double start = processorSeconds();
            backend_.processWindow(work, events, window.end, horizon_, neuron_, firing_,
                                   part_results);
            seconds += processorSeconds() - start;
            sum = mix(sum, part_results);
        }
    }
    if (sum != sum_) throw std::runtime_error("a replay differs from its run");
    return seconds;
}

/// Any difference of two walks shows in the random state, the candidate or the membrane.
std::uint64_t WorkRecorder::mix(std::uint64_t sum, std::span<const Kernel::WindowResult> results) {
    for (const Kernel::WindowResult& result : results) {
        sum = splitmixOutput(sum ^ result.rng);
        sum = splitmixOutput(sum ^ static_cast<std::uint64_t>(result.next_candidate));
        sum = splitmixOutput(sum ^ std::bit_cast<std::uint64_t>(result.state.membrane));
    }
    return sum;
}

}  // namespace Lumenar::Core::Kelm
