#include "kelm/runtime/InputChannelBank.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

#include "kelm/core/Failures.h"
#include "kelm/events/Event.h"

namespace Lumenar::Core::Kelm {

namespace {

/// The smallest target that occurs twice.
std::optional<NodeId> repeatedTarget(std::vector<NodeId> targets) {
    std::sort(targets.begin(), targets.end());
    const auto repeated = std::adjacent_find(targets.begin(), targets.end());
    if (repeated == targets.end()) return std::nullopt;
    return *repeated;
}

}  // namespace

std::size_t InputChannelBank::addChannel(InputChannelSpec spec) {
    if (spec.name.empty()) throw InvalidModality(InvalidModality::unnamed);
    if (places_.contains(spec.name)) throw InvalidModality(InvalidModality::duplicate(spec.name));
    if (spec.targets.empty()) throw InvalidModality(InvalidModality::noTargets(spec.name));
    const std::size_t index = channels_.size();
    const auto detailed = [&](const std::string& text, const char* field, std::string value,
                              const char* bound) {
        return withDetail(InvalidModality(text),
                          {"input channel", index, field, std::move(value), bound});
    };
    if (spec.delay < 0) {
        throw detailed(InvalidModality::negativeDelay(spec.name), "delay",
                       decimal(spec.delay) + " ns", "at least 0 ns");
    }
    if (!std::isfinite(spec.gain)) {
        throw detailed(InvalidModality::gain(spec.name), "gain", decimal(spec.gain), "finite");
    }
    if (const std::optional<NodeId> target = repeatedTarget(spec.targets)) {
        throw detailed(InvalidModality::repeatedTarget(spec.name), "target", decimal(*target),
                       "named once");
    }
    const auto place = places_.emplace(spec.name, index).first;
    try {
        channels_.push_back({std::move(spec), true, {}});
    } catch (...) {
        places_.erase(place);
        throw;
    }
    return index;
}

std::size_t InputChannelBank::indexOf(std::string_view name) const {
    const auto place = places_.find(name);
    if (place == places_.end()) throw InvalidModality(InvalidModality::unknown(std::string(name)));
    return place->second;
}

std::vector<std::uint64_t> InputChannelBank::inject(std::string_view name, ModelTime time,
                                                    double value, IEventSink& sink) {
    const std::size_t index = indexOf(name);
    Channel& channel = channels_[index];
    InputChannelStats& stats = channel.stats;
    if (!std::isfinite(value)) throw InvalidModality(InvalidModality::value);
    if (stats.last_time >= 0 && time < stats.last_time) {
        throw InvalidModality(InvalidModality::backInTime(channel.spec.name));
    }
    ++stats.injections;
    stats.last_time = time;
    if (!channel.connected) {
        ++stats.dropped;
        return {};
    }
    Event event;
    event.time = addTime(time, channel.spec.delay);
    event.kind = EventKind::input;
    event.source = index + first_source;
    event.value = value * channel.spec.gain;
    std::vector<std::uint64_t> ids;
    ids.reserve(channel.spec.targets.size());
    for (const NodeId target : channel.spec.targets) {
        event.target = target;
        ids.push_back(sink.post(event));
    }
    stats.events += ids.size();
    return ids;
}

void InputChannelBank::setConnected(std::string_view name, bool connected) {
    channels_[indexOf(name)].connected = connected;
}

void InputChannelBank::setGain(std::string_view name, double gain) {
    InputChannelSpec& spec = channels_[indexOf(name)].spec;
    if (!std::isfinite(gain)) throw InvalidModality(InvalidModality::gain(spec.name));
    spec.gain = gain;
}

void InputChannelBank::adopt(std::span<const ChannelState> states) noexcept {
    for (std::size_t i = 0; i < states.size(); ++i) {
        channels_[i].spec.gain = states[i].gain;
        channels_[i].connected = states[i].connected;
        channels_[i].stats = states[i].stats;
    }
}

}  // namespace Lumenar::Core::Kelm
