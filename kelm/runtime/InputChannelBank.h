#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "kelm/core/ModelTime.h"
#include "kelm/events/IEventStore.h"
#include "kelm/runtime/InputChannelSpec.h"

namespace Lumenar::Core::Kelm {

/// What has gone through one channel. Goes into checkpoints byte for byte.
struct InputChannelStats {
    std::uint64_t injections = 0;   ///< accepted, whether connected or not
    std::uint64_t events = 0;       ///< posted
    std::uint64_t dropped = 0;      ///< injections that found the channel disconnected
    ModelTime last_time = no_time;  ///< ns, of the last accepted injection
};
static_assert(std::is_trivially_copyable_v<InputChannelStats> &&
              std::is_standard_layout_v<InputChannelStats>);
static_assert(sizeof(InputChannelStats) == 32);
static_assert(offsetof(InputChannelStats, events) == 8);
static_assert(offsetof(InputChannelStats, dropped) == 16);
static_assert(offsetof(InputChannelStats, last_time) == 24);

/// The doors for the outside world: named lines that turn an injected number into one delayed,
/// scaled event for each target neuron.
///
/// Invariant: names are unique, every gain is finite, every target lies in the network, and no
/// channel reaches a neuron twice. A channel's index is its place in the order of addition.
/// Channels are never removed. References and views are valid until a channel is added.
class InputChannelBank {
public:
    /// The source of an event is its channel's index above this, so that no neuron's id meets it.
    static constexpr std::uint64_t first_source = 1'000'000;

    /// A bank without channels, for a network of `neuron_count` neurons.
    explicit InputChannelBank(std::uint64_t neuron_count) : neuron_count_(neuron_count) {}

    /// Adds a connected channel and returns its index.
    /// Throws InvalidModality, with the bank as it was, for a target outside the network; an empty
    /// name; a name in use; no target; a negative delay; a gain that is not finite; a repeated
    /// target, in this order.
    std::size_t addChannel(InputChannelSpec spec);

    /// How many channels there are.
    std::size_t size() const { return channels_.size(); }

    /// The index of the channel `name`. Throws InvalidModality for an unknown name.
    std::size_t indexOf(std::string_view name) const;

    /// Injects `value` on channel `name` at `time` ns: posts one input event per target, in the
    /// order of the targets, at `time` plus the delay and with `value` times the gain. Returns
    /// their ids, none for a disconnected channel.
    ///
    /// Throws InvalidModality, with nothing changed, for an unknown name, for a value that is not
    /// finite, and for a time before the channel's last injection, in this order. Throws
    /// TimeOverflow for an arrival beyond the range of ModelTime, and what the sink throws; the
    /// injection and its time are then counted, its events are not.
    std::vector<std::uint64_t> inject(std::string_view name, ModelTime time, double value,
                                      IEventSink& sink);

    /// Connects or disconnects a channel. A disconnected one still counts its injections, and drops
    /// them. Throws InvalidModality for an unknown name.
    void setConnected(std::string_view name, bool connected);

    /// Sets the factor of all later injections.
    /// Throws InvalidModality for an unknown name, then for a gain that is not finite.
    void setGain(std::string_view name, double gain);

    /// Of the channel `index`, which must be below size().
    const InputChannelSpec& spec(std::size_t index) const { return channels_[index].spec; }
    bool isConnected(std::size_t index) const { return channels_[index].connected; }
    const InputChannelStats& stats(std::size_t index) const { return channels_[index].stats; }

    /// Puts back what a run has changed of a channel. False, with nothing changed, for an index
    /// without a channel and for a gain that is not finite.
    [[nodiscard]] bool restoreChannel(std::size_t index, double gain, bool connected,
                                      const InputChannelStats& stats);

private:
    struct Channel {
        InputChannelSpec spec;
        bool connected = true;
        InputChannelStats stats;
    };

    std::uint64_t neuron_count_;
    std::vector<Channel> channels_;
    std::map<std::string, std::size_t, std::less<>> places_;  ///< of names in channels_
};

}  // namespace Lumenar::Core::Kelm
