#include "kelm/runtime/InputChannelBank.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "kelm/core/Failures.h"
#include "kelm/events/Event.h"

namespace Lumenar::Core::Kelm {

namespace {

bool repeatsATarget(std::vector<NodeId> targets) {
    std::sort(targets.begin(), targets.end());
    return std::adjacent_find(targets.begin(), targets.end()) != targets.end();
}

}  // namespace

std::size_t InputChannelBank::addChannel(InputChannelSpec spec) {
    if (spec.name.empty()) throw InvalidModality(InvalidModality::unnamed);
    if (places_.contains(spec.name)) throw InvalidModality(InvalidModality::duplicate(spec.name));
    if (spec.targets.empty()) throw InvalidModality(InvalidModality::noTargets(spec.name));
    if (spec.delay < 0) throw InvalidModality(InvalidModality::negativeDelay(spec.name));
    if (!std::isfinite(spec.gain)) throw InvalidModality(InvalidModality::gain(spec.name));
    if (repeatsATarget(spec.targets)) {
        throw InvalidModality(InvalidModality::repeatedTarget(spec.name));
    }
    const std::size_t index = channels_.size();
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
