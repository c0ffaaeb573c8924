#include "kelm/runtime/Probe.h"

#include <algorithm>
#include <utility>

#include "kelm/core/Failures.h"

namespace Lumenar::Core::Kelm {

namespace {

double valueOf(const StateSample& sample, ProbeField field) {
    switch (field) {
        case ProbeField::membrane:
            return sample.membrane;
        case ProbeField::adaptation:
            return sample.adaptation;
        case ProbeField::refractory_left:
            return static_cast<double>(sample.refractory_left);
        case ProbeField::hazard:
            return sample.hazard;
    }
    return 0.0;
}

}  // namespace

Probe::Probe(ProbeConfig config, std::uint64_t neuron_count, ModelTime from)
    : config_(std::move(config)) {
    if (config_.neurons.empty()) throw InvalidProbe(InvalidProbe::no_neurons);
    const NodeId last = *std::ranges::max_element(config_.neurons);
    if (last >= neuron_count) throw InvalidProbe(InvalidProbe::neuron(last, neuron_count));
    if (config_.interval < 1) throw InvalidProbe(InvalidProbe::interval);
    if (config_.fields.empty()) throw InvalidProbe(InvalidProbe::no_fields);
    std::ranges::sort(config_.fields);
    if (config_.fields.back() > ProbeField::hazard) throw InvalidProbe(InvalidProbe::field);
    config_.fields.erase(std::unique(config_.fields.begin(), config_.fields.end()),
                         config_.fields.end());
    restart(from);
}

Probe::Samples Probe::take() { return std::exchange(samples_, {}); }

void Probe::restart(ModelTime from) {
    samples_ = {};
    const ModelTime ahead = (config_.interval - from % config_.interval) % config_.interval;
    next_ = from > last_model_time - ahead ? last_model_time : from + ahead;
}

void Probe::addSamples(std::span<const StateSample> samples) {
    samples_.times.push_back(next_);
    for (const ProbeField field : config_.fields) {
        std::vector<double>& values = samples_.by_field[static_cast<std::size_t>(field)];
        for (const StateSample& sample : samples) values.push_back(valueOf(sample, field));
    }
    next_ = next_ > last_model_time - config_.interval ? last_model_time : next_ + config_.interval;
}

}  // namespace Lumenar::Core::Kelm
