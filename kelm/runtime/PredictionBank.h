#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <type_traits>
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
    double weighted_error = 0.0;  ///< times the precision of its day, within the clamp
    ModelTime time = 0;           ///< ns, as reported
};
static_assert(std::is_trivially_copyable_v<Observation> && std::is_standard_layout_v<Observation>);
static_assert(sizeof(Observation) == 48);
static_assert(offsetof(Observation, observed) == 8);
static_assert(offsetof(Observation, predicted) == 16);
static_assert(offsetof(Observation, error) == 24);
static_assert(offsetof(Observation, weighted_error) == 32);
static_assert(offsetof(Observation, time) == 40);

/// Prediction errors that act locally. A report of an observed and a predicted value on an error
/// channel becomes, from the next window on, a constant term in the hazard of the channel's
/// neurons: the difference, weighted by the precision and clamped, times the channel's strength.
///
/// Invariant: names are unique, every target lies in the network, and every channel has a
/// predictor record beside it. A channel's index is its place in the order of addition; channels
/// are never removed. All reports are kept, in the order in which they came. Predictors are stored
/// and validated, but nothing evaluates them: the reporter supplies the prediction. Views are valid
/// until the bank is changed. One thread at a time, queries included.
class PredictionBank {
public:
    /// A bank without channels, for a network of `neuron_count` neurons.
    explicit PredictionBank(std::uint64_t neuron_count)
        : channels_of_(neuron_count), bounds_(neuron_count, 0.0), drives_(neuron_count) {}

    /// Adds a channel with an empty predictor and returns its index.
    /// Throws InvalidPrediction, with the bank as it was, for a target outside the network; an
    /// empty name; a global name; no target; a bad precision, strength or clamp; a name in use, in
    /// this order. A target may repeat; it counts once.
    std::size_t addErrorChannel(ErrorChannel channel);

    /// Replaces a channel's predictor. Throws InvalidPrediction for an unknown channel and, in an
    /// explicit readout, for sources and weights of different number, no source, a weight that is
    /// not finite and a bias that is not finite, in this order.
    void setPredictor(std::size_t index, Predictor predictor);

    /// Sets the weight of the errors reported from now on.
    /// Throws InvalidPrediction for an unknown channel, then for a precision that is negative or
    /// not finite.
    void setPrecision(std::size_t index, double precision);

    /// Reports a pair of values on a channel. `time`: ns, stored but not read: the report that came
    /// last is in force. Throws InvalidPrediction for an unknown channel, then for a value that is
    /// not finite.
    void observeValue(std::size_t index, double observed, double predicted, ModelTime time);

    /// An error times the channel's precision, within plus and minus its clamp.
    static double weightedError(const ErrorChannel& channel, double error);

    /// The channel's last report, if there is one. Throws InvalidPrediction for an unknown channel.
    std::optional<Observation> latestObservation(std::size_t index) const;

    /// What the reports so far add to a neuron's drive: the sum, in index order, over the channels
    /// that reach it. 0 for a neuron outside the network.
    double errorDrive(NodeId neuron) const {
        if (neuron >= drives_.size()) return 0.0;
        Drive& drive = drives_[neuron];
        if (drive.version != version_) drive = {sumOfTerms(neuron), version_};
        return drive.sum;
    }

    /// An upper bound of a neuron's drive for any report: the sum, in index order, of strength
    /// times clamp in magnitude. 0 for a neuron outside the network.
    double errorBound(NodeId neuron) const {
        return neuron < bounds_.size() ? bounds_[neuron] : 0.0;
    }

    std::span<const ErrorChannel> channels() const { return channels_; }
    /// Shape (channels).
    std::span<const Predictor> predictors() const { return predictors_; }
    /// In the order of report. The list only grows.
    std::span<const Observation> observations() const { return observations_; }
    /// Two values that travel in checkpoints and have no reader.
    double reservedA() const { return reserved_a_; }
    double reservedB() const { return reserved_b_; }
    /// Shape (channels).
    std::vector<double> precisions() const;

    /// Puts back what a run has changed. `precisions`: shape (channels). `observations`: in the
    /// order of report. False, with nothing changed, for another number of precisions, for one that
    /// is negative or not finite, and for an observation of a channel that does not exist.
    [[nodiscard]] bool restoreState(std::span<const double> precisions,
                                    std::vector<Observation> observations, double reserved_a,
                                    double reserved_b);

private:
    /// A neuron's drive as it was under some version of the reports.
    struct Drive {
        double sum = 0.0;
        std::uint64_t version = 0;  ///< 0: never asked for
    };

    double sumOfTerms(NodeId neuron) const {
        double sum = 0.0;
        for (const std::size_t channel : channels_of_[neuron]) sum += drive_terms_[channel];
        return sum;
    }
    void requireChannel(std::size_t index) const;
    /// Puts the observation at `place` in force.
    void enforce(std::size_t place);

    std::vector<ErrorChannel> channels_;
    std::vector<Predictor> predictors_;
    std::vector<Observation> observations_;
    double reserved_a_ = 0.5;
    double reserved_b_ = 1.0;

    // What windows read, kept up to date by the changes: a window asks per neuron, and neither the
    // number of channels elsewhere nor the length of the history may cost it anything.
    std::vector<std::vector<std::size_t>> channels_of_;  ///< shape (neurons): ascending, once each
    std::vector<double> bounds_;                         ///< shape (neurons)
    /// Shape (channels). 0 before the first report, which alters no sum: one that starts at 0.0
    /// never comes to -0.0.
    std::vector<double> drive_terms_;
    /// Shape (neurons). Summed when a neuron is first asked for after a report: reports are many,
    /// windows ask for the same sums until the next one.
    mutable std::vector<Drive> drives_;
    std::uint64_t version_ = 1;                       ///< of drive_terms_
    std::vector<std::optional<std::size_t>> latest_;  ///< shape (channels): places in observations_
    std::set<std::string> names_;
};

}  // namespace Lumenar::Core::Kelm
