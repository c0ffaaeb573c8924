#include "kelm/runtime/PredictionBank.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <string>
#include <utility>

#include "kelm/core/Failures.h"

namespace Lumenar::Core::Kelm {

namespace {

bool isPrecision(double precision) { return std::isfinite(precision) && !(precision < 0.0); }

/// A fault of a channel or a readout.
struct Fault {
    const char* text;
    const char* field;
    std::string value;
    const char* bound;
};

[[noreturn]] void refuse(const Fault& fault, std::size_t channel) {
    throw withDetail(InvalidPrediction(fault.text),
                     {"error channel", channel, fault.field, fault.value, fault.bound});
}

/// The first fault of a channel, but for a name in use.
std::optional<Fault> faultOf(const ErrorChannel& channel) {
    if (channel.name.empty()) return Fault{InvalidPrediction::unnamed, "name", "''", "not empty"};
    if (channel.name == "global" || channel.name == "global_error") {
        return Fault{InvalidPrediction::global, "name", "'" + channel.name + "'", "of one circuit"};
    }
    if (channel.targets.empty()) {
        return Fault{InvalidPrediction::no_targets, "number of targets", "0", "at least 1"};
    }
    if (!isPrecision(channel.precision)) {
        return Fault{InvalidPrediction::precision, "precision", decimal(channel.precision),
                     "finite and at least 0"};
    }
    if (!std::isfinite(channel.strength)) {
        return Fault{InvalidPrediction::strength, "strength", decimal(channel.strength), "finite"};
    }
    if (!std::isfinite(channel.clamp) || !(channel.clamp > 0.0)) {
        return Fault{InvalidPrediction::clamp, "clamp", decimal(channel.clamp),
                     "finite and above 0"};
    }
    return std::nullopt;
}

/// Makes room for one more element, so that adding it cannot fail. Growth stays geometric.
template <class T>
void reserveOneMore(std::vector<T>& list) {
    if (list.size() == list.capacity()) list.reserve(2 * list.size() + 1);
}

/// The first fault of a readout.
std::optional<Fault> faultOf(const Predictor& predictor) {
    if (predictor.kind != PredictorKind::explicit_readout) return std::nullopt;
    const std::string weights = decimal(std::uint64_t{predictor.weights.size()});
    if (predictor.sources.size() != predictor.weights.size()) {
        return Fault{InvalidPrediction::readout_shape, "number of weights", weights,
                     "the number of sources"};
    }
    if (predictor.sources.empty()) {
        return Fault{InvalidPrediction::no_sources, "number of sources", "0", "at least 1"};
    }
    for (const double weight : predictor.weights) {
        if (std::isfinite(weight)) continue;
        return Fault{InvalidPrediction::readout_weights, "weight", decimal(weight), "finite"};
    }
    if (!std::isfinite(predictor.bias)) {
        return Fault{InvalidPrediction::readout_bias, "bias", decimal(predictor.bias), "finite"};
    }
    return std::nullopt;
}

}  // namespace

std::size_t PredictionBank::addErrorChannel(ErrorChannel channel) {
    if (const std::optional<Fault> fault = faultOf(channel)) refuse(*fault, channels_.size());
    if (names_.contains(channel.name)) {
        throw InvalidPrediction(InvalidPrediction::duplicate(channel.name));
    }
    // Everything that can fail comes before the first visible change.
    for (const NodeId target : channel.targets) reserveOneMore(channels_of_[target]);
    reserveOneMore(channels_);
    reserveOneMore(predictors_);
    reserveOneMore(channel_terms_);
    names_.insert(channel.name);

    const std::size_t index = channels_.size();
    for (const NodeId target : channel.targets) {
        std::vector<std::size_t>& reached_by = channels_of_.find(target)->second;
        if (reached_by.empty() || reached_by.back() != index) reached_by.push_back(index);
    }
    channel_terms_.push_back({{0.0, std::fabs(channel.strength) * channel.clamp}, std::nullopt});
    channels_.push_back(std::move(channel));
    predictors_.emplace_back();
    ++version_;
    return index;
}

void PredictionBank::setPredictor(std::size_t index, Predictor predictor) {
    requireChannel(index);
    if (const std::optional<Fault> fault = faultOf(predictor)) refuse(*fault, index);
    predictors_[index] = std::move(predictor);
}

void PredictionBank::setPrecision(std::size_t index, double precision) {
    requireChannel(index);
    if (!isPrecision(precision)) throw InvalidPrediction(InvalidPrediction::precision);
    channels_[index].precision = precision;
}

void PredictionBank::observeValue(std::size_t index, double observed, double predicted,
                                  ModelTime time) {
    requireChannel(index);
    if (!std::isfinite(observed) || !std::isfinite(predicted)) {
        throw InvalidPrediction(InvalidPrediction::observed_values);
    }
    const double error = observed - predicted;
    observations_.push_back(
        {index, observed, predicted, error, weightedError(channels_[index], error), time});
    setLatest(observations_.size() - 1);
    ++version_;
}

double PredictionBank::weightedError(const ErrorChannel& channel, double error) {
    const double weighted = error * channel.precision;
    if (weighted > channel.clamp) return channel.clamp;
    if (weighted < -channel.clamp) return -channel.clamp;
    return weighted;
}

std::optional<Observation> PredictionBank::latestObservation(std::size_t index) const {
    requireChannel(index);
    if (!channel_terms_[index].latest) return std::nullopt;
    return observations_[*channel_terms_[index].latest];
}

PredictionBank::ErrorTerms PredictionBank::errorTerms(NodeId neuron) const {
    ErrorTerms sum;
    const auto found = channels_of_.find(neuron);
    if (found == channels_of_.end()) return sum;
    // A channel without a report adds 0.0, which changes no sum that starts at 0.0.
    for (const std::size_t channel : found->second) {
        sum.drive += channel_terms_[channel].terms.drive;
        sum.bound += channel_terms_[channel].terms.bound;
    }
    return sum;
}

bool PredictionBank::accepts(const State& state) const {
    return state.precisions.size() == channels_.size() &&
           std::all_of(state.precisions.begin(), state.precisions.end(), isPrecision) &&
           std::all_of(state.observations.begin(), state.observations.end(),
                       [this](const Observation& o) { return o.channel < channels_.size(); });
}

void PredictionBank::adopt(State&& state) noexcept {
    for (std::size_t i = 0; i < channels_.size(); ++i) channels_[i].precision = state.precisions[i];
    observations_ = std::move(state.observations);
    reserved_a_ = state.reserved_a;
    reserved_b_ = state.reserved_b;
    for (ChannelTerms& channel : channel_terms_) {
        channel.terms.drive = 0.0;
        channel.latest = std::nullopt;
    }
    for (std::size_t place = 0; place < observations_.size(); ++place) setLatest(place);
    ++version_;
}

void PredictionBank::requireChannel(std::size_t index) const {
    if (index >= channels_.size()) throw InvalidPrediction(InvalidPrediction::unknown_channel);
}

void PredictionBank::setLatest(std::size_t place) {
    const Observation& observation = observations_[place];
    ChannelTerms& channel = channel_terms_[observation.channel];
    channel.latest = place;
    channel.terms.drive = observation.weighted_error * channels_[observation.channel].strength;
}

}  // namespace Lumenar::Core::Kelm
