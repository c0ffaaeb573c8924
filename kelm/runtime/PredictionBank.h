#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "kelm/core/ModelTime.h"
#include "kelm/runtime/PredictionConfig.h"

namespace Lumenar::Core::Kelm {

/// One reported value. Goes into checkpoints byte for byte.
struct Observation {
    std::uint64_t channel = 0;  ///< index of the error channel
    double observed = 0.0;
    double predicted = 0.0;
    double error = 0.0;           ///< observed - predicted
    double weighted_error = 0.0;  ///< error times the precision at that time, within the clamp
    ModelTime time = 0;           ///< ns, as reported
};
static_assert(std::is_trivially_copyable_v<Observation> && std::is_standard_layout_v<Observation>);
static_assert(sizeof(Observation) == 48);
static_assert(offsetof(Observation, observed) == 8);
static_assert(offsetof(Observation, predicted) == 16);
static_assert(offsetof(Observation, error) == 24);
static_assert(offsetof(Observation, weighted_error) == 32);
static_assert(offsetof(Observation, time) == 40);

/// Prediction errors that act locally. The report of an observed and a predicted value on an error
/// channel sets, from the next window on, a constant term in the hazard of the channel's neurons:
/// the difference times the precision, clamped, times the channel's strength.
///
/// Invariant: names are unique, and every channel has a predictor record. A channel's index is its
/// place in the order of addition. Channels are never removed. All reports are kept, in the order
/// of report. Predictors are stored and validated but not evaluated: the caller gives the
/// prediction. Views are valid until the bank is changed. Assignment is deleted: a caller
/// compares version() to see whether the bank has changed.
class PredictionBank {
public:
    PredictionBank() = default;
    PredictionBank(const PredictionBank&) = default;
    PredictionBank& operator=(const PredictionBank&) = delete;

    /// Adds a channel with an empty predictor and returns its index.
    /// Throws InvalidPrediction, with the bank unchanged, for an empty name; a global name; no
    /// target; a bad precision, strength or clamp; a name in use, in this order. A target may
    /// repeat; it counts once.
    std::size_t addErrorChannel(ErrorChannel channel);

    /// Replaces a channel's predictor. Throws InvalidPrediction for an unknown channel and, in an
    /// explicit readout, for sources and weights of different number, no source, a weight that is
    /// not finite and a bias that is not finite, in this order.
    void setPredictor(std::size_t index, Predictor predictor);

    /// Sets the weight of the errors of all later reports.
    /// Throws InvalidPrediction for an unknown channel, then for a precision that is negative or
    /// not finite.
    void setPrecision(std::size_t index, double precision);

    /// Reports a pair of values on a channel. Only the last report counts. `time`: ns,
    /// stored but not read. Throws InvalidPrediction for an unknown channel, then for a value that
    /// is not finite.
    void observeValue(std::size_t index, double observed, double predicted, ModelTime time);

    /// An error times the channel's precision, within plus and minus its clamp.
    static double weightedError(const ErrorChannel& channel, double error);

    /// The channel's last report, if any. Throws InvalidPrediction for an unknown channel.
    std::optional<Observation> latestObservation(std::size_t index) const;

    /// What error channels add to a neuron's drive. Each sum runs in index order over the channels
    /// that reach the neuron.
    struct ErrorTerms {
        double drive = 0.0;  ///< sum of the last reports' weighted errors times strength
        double bound = 0.0;  ///< bound of any drive: sum of the magnitudes of strength times clamp
    };
    ErrorTerms errorTerms(NodeId neuron) const;
    double errorDrive(NodeId neuron) const { return errorTerms(neuron).drive; }
    double errorBound(NodeId neuron) const { return errorTerms(neuron).bound; }
    /// Grows with each change of any neuron's terms.
    std::uint64_t version() const { return version_; }

    std::span<const ErrorChannel> channels() const { return channels_; }
    /// Shape (channels).
    std::span<const Predictor> predictors() const { return predictors_; }
    /// In the order of report.
    std::span<const Observation> observations() const { return observations_; }
    /// What a run changes.
    struct State {
        std::vector<double> precisions;         ///< shape (channels)
        std::vector<Observation> observations;  ///< in the order of report
        double reserved_a = 0.5;                ///< carried, not interpreted
        double reserved_b = 1.0;                ///< carried, not interpreted
    };
    double reservedA() const { return reserved_a_; }
    double reservedB() const { return reserved_b_; }
    /// False for another number of precisions, for a precision that is negative or not finite, and
    /// for an observation of a channel that does not exist.
    bool accepts(const State& state) const;
    /// Puts back what a run has changed. The bank must accept `state`.
    void adopt(State&& state) noexcept;

private:
    /// What one channel adds to the terms of each of its neurons.
    struct ChannelTerms {
        ErrorTerms terms;
        std::optional<std::size_t> latest;  ///< place of the last report in observations_
    };

    void requireChannel(std::size_t index) const;
    void setLatest(std::size_t place);

    std::vector<ErrorChannel> channels_;
    std::vector<Predictor> predictors_;
    std::vector<Observation> observations_;
    double reserved_a_ = State().reserved_a;
    double reserved_b_ = State().reserved_b;
    std::vector<ChannelTerms> channel_terms_;  ///< shape (channels)
    /// The channels that reach a neuron, ascending. Never walked.
    std::unordered_map<NodeId, std::vector<std::size_t>> channels_of_;
    std::set<std::string> names_;
    std::uint64_t version_ = 1;
};

}  // namespace Lumenar::Core::Kelm
