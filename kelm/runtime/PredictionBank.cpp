#include "kelm/runtime/PredictionBank.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "kelm/core/Failures.h"

namespace Lumenar::Core::Kelm {

namespace {

bool isFinite(double value) { return std::isfinite(value); }

bool isPrecision(double precision) { return std::isfinite(precision) && !(precision < 0.0); }

/// The reason why a channel cannot be, whatever the others are called, or null.
const char* faultOf(const ErrorChannel& channel, std::uint64_t neuron_count) {
    if (std::any_of(channel.targets.begin(), channel.targets.end(),
                    [neuron_count](NodeId target) { return target >= neuron_count; })) {
        return InvalidPrediction::target;
    }
    if (channel.name.empty()) return InvalidPrediction::unnamed;
    if (channel.name == "global" || channel.name == "global_error") {
        return InvalidPrediction::global;
    }
    if (channel.targets.empty()) return InvalidPrediction::no_targets;
    if (!isPrecision(channel.precision)) return InvalidPrediction::precision;
    if (!std::isfinite(channel.strength)) return InvalidPrediction::strength;
    if (!std::isfinite(channel.clamp) || !(channel.clamp > 0.0)) return InvalidPrediction::clamp;
    return nullptr;
}

/// Makes room for one element, so that adding it cannot fail, and for more where there is none.
template <class T>
void reserveOneMore(std::vector<T>& list) {
    if (list.size() == list.capacity()) list.reserve(2 * list.size() + 1);
}

/// The reason why a readout cannot be, or null.
const char* faultOf(const Predictor& predictor) {
    if (predictor.kind != PredictorKind::explicit_readout) return nullptr;
    if (predictor.sources.size() != predictor.weights.size()) {
        return InvalidPrediction::readout_shape;
    }
    if (predictor.sources.empty()) return InvalidPrediction::no_sources;
    if (!std::all_of(predictor.weights.begin(), predictor.weights.end(), isFinite)) {
        return InvalidPrediction::readout_weights;
    }
    if (!std::isfinite(predictor.bias)) return InvalidPrediction::readout_bias;
    return nullptr;
}

}  // namespace

std::size_t PredictionBank::addErrorChannel(ErrorChannel channel) {
    if (const char* fault = faultOf(channel, channels_of_.size())) throw InvalidPrediction(fault);
    if (names_.contains(channel.name)) {
        throw InvalidPrediction(InvalidPrediction::duplicate(channel.name));
    }
    // Whatever can fail comes before the first change.
    for (const NodeId target : channel.targets) reserveOneMore(channels_of_[target]);
    reserveOneMore(channels_);
    reserveOneMore(predictors_);
    reserveOneMore(drive_terms_);
    reserveOneMore(latest_);
    names_.insert(channel.name);

    const std::size_t index = channels_.size();
    for (const NodeId target : channel.targets) {
        std::vector<std::size_t>& reached_by = channels_of_[target];
        if (!reached_by.empty() && reached_by.back() == index) continue;
        reached_by.push_back(index);
        // Channels come in index order, so this running sum is the sum in that order.
        bounds_[target] += std::fabs(channel.strength) * channel.clamp;
    }
    channels_.push_back(std::move(channel));
    predictors_.emplace_back();
    drive_terms_.push_back(0.0);
    latest_.emplace_back();
    return index;
}

void PredictionBank::setPredictor(std::size_t index, Predictor predictor) {
    requireChannel(index);
    if (const char* fault = faultOf(predictor)) throw InvalidPrediction(fault);
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
    enforce(observations_.size() - 1);
}

double PredictionBank::weightedError(const ErrorChannel& channel, double error) {
    const double weighted = error * channel.precision;
    if (weighted > channel.clamp) return channel.clamp;
    if (weighted < -channel.clamp) return -channel.clamp;
    return weighted;
}

std::optional<Observation> PredictionBank::latestObservation(std::size_t index) const {
    requireChannel(index);
    if (!latest_[index]) return std::nullopt;
    return observations_[*latest_[index]];
}

std::vector<double> PredictionBank::precisions() const {
    std::vector<double> precisions;
    precisions.reserve(channels_.size());
    for (const ErrorChannel& channel : channels_) precisions.push_back(channel.precision);
    return precisions;
}

bool PredictionBank::restoreState(std::span<const double> precisions,
                                  std::vector<Observation> observations, double reserved_a,
                                  double reserved_b) {
    if (precisions.size() != channels_.size() ||
        !std::all_of(precisions.begin(), precisions.end(), isPrecision) ||
        std::any_of(observations.begin(), observations.end(),
                    [this](const Observation& seen) { return seen.channel >= channels_.size(); })) {
        return false;
    }
    for (std::size_t i = 0; i < channels_.size(); ++i) channels_[i].precision = precisions[i];
    observations_ = std::move(observations);
    reserved_a_ = reserved_a;
    reserved_b_ = reserved_b;
    drive_terms_.assign(channels_.size(), 0.0);
    ++version_;
    latest_.assign(channels_.size(), std::nullopt);
    for (std::size_t place = 0; place < observations_.size(); ++place) enforce(place);
    return true;
}

void PredictionBank::requireChannel(std::size_t index) const {
    if (index >= channels_.size()) throw InvalidPrediction(InvalidPrediction::unknown_channel);
}

void PredictionBank::enforce(std::size_t place) {
    const Observation& seen = observations_[place];
    latest_[seen.channel] = place;
    drive_terms_[seen.channel] = seen.weighted_error * channels_[seen.channel].strength;
    ++version_;
}

}  // namespace Lumenar::Core::Kelm
