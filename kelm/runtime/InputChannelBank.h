#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "kelm/core/ModelTime.h"
#include "kelm/events/IEventStore.h"
#include "kelm/runtime/InputChannelSpec.h"

namespace Lumenar::Core::Kelm {

/// The counters of one channel. Goes into checkpoints byte for byte.
struct InputChannelStats {
    std::uint64_t injections = 0;   ///< accepted, whether connected or not
    std::uint64_t events = 0;       ///< posted
    std::uint64_t dropped = 0;      ///< injections while disconnected
    ModelTime last_time = no_time;  ///< ns, of the last accepted injection
};
static_assert(std::is_trivially_copyable_v<InputChannelStats> &&
              std::is_standard_layout_v<InputChannelStats>);
static_assert(sizeof(InputChannelStats) == 32);
static_assert(offsetof(InputChannelStats, events) == 8);
static_assert(offsetof(InputChannelStats, dropped) == 16);
static_assert(offsetof(InputChannelStats, last_time) == 24);

/// Named input lines. A channel turns an injected number into one delayed, scaled event for each of
/// its target neurons.
///
/// Invariant: names are unique, every gain is finite, and no channel reaches a neuron twice. The
/// bank does not check targets against a network. The sink does. A channel's index is its
/// place in the order of addition. Channels are never removed. References are valid until a channel
/// is added.
class InputChannelBank {
public:
    /// An event's source is this plus the index of its channel.
    static constexpr std::uint64_t first_source = 1'000'000;

    /// Adds a connected channel and returns its index.
    /// Throws InvalidModality, with the bank unchanged, for an empty name, a name in use, no
    /// target, a negative delay, a gain that is not finite and a repeated target, in this order.
    std::size_t addChannel(InputChannelSpec spec);

    /// The number of channels.
    std::size_t size() const { return channels_.size(); }

    /// The index of the channel `name`. Throws InvalidModality for an unknown name.
    std::size_t indexOf(std::string_view name) const;

    /// Injects `value` on channel `name` at `time` ns: posts one input event per target, in the
    /// order of the targets, at `time` plus the delay and with `value` times the gain. Returns
    /// their ids, none for a disconnected channel.
    ///
    /// Throws InvalidModality, with nothing changed, for an unknown name, for a value that is not
    /// finite, and for a time before the channel's last injection, in this order. Throws
    /// TimeOverflow for an arrival beyond the range of ModelTime, and what the sink throws. The
    /// counters then hold the injection and its time, but none of its events.
    std::vector<std::uint64_t> inject(std::string_view name, ModelTime time, double value,
                                      IEventSink& sink);

    /// Connects or disconnects a channel. A disconnected channel counts its injections and drops
    /// them. Throws InvalidModality for an unknown name.
    void setConnected(std::string_view name, bool connected);

    /// Sets the factor of all later injections.
    /// Throws InvalidModality for an unknown name, then for a gain that is not finite.
    void setGain(std::string_view name, double gain);

    /// Of the channel `index`, which must be below size().
    const InputChannelSpec& spec(std::size_t index) const { return channels_[index].spec; }
    bool isConnected(std::size_t index) const { return channels_[index].connected; }
    const InputChannelStats& stats(std::size_t index) const { return channels_[index].stats; }

    /// What a run changes of a channel.
    struct ChannelState {
        double gain = 1.0;
        bool connected = true;
        InputChannelStats stats;
    };
    /// Puts back what a run has changed. `states`: shape (channels), every gain finite.
    void adopt(std::span<const ChannelState> states) noexcept;

private:
    struct Channel {
        InputChannelSpec spec;
        bool connected = true;
        InputChannelStats stats;
    };

    std::vector<Channel> channels_;
    std::map<std::string, std::size_t, std::less<>> places_;  ///< of names in channels_
};

}  // namespace Lumenar::Core::Kelm
