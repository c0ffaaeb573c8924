#include "kelm/runtime/MakeRuntime.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/core/IRankGroup.h"
#include "kelm/runtime/Fingerprint.h"
#include "kelm/runtime/Validation.h"

namespace Lumenar::Core::Kelm {

namespace {

/// The populations of the options, or the one that holds the whole network.
std::vector<Population> populationsOf(const SynapseGraph& network, RuntimeOptions& options) {
    if (options.populations.empty()) {
        return {{"", network.nodeCount(), options.neuron, options.firing}};
    }
    if (!(options.neuron == Kernel::Neuron()) || !(options.firing == Kernel::Firing())) {
        throw InvalidModel(InvalidModel::two_parameters);
    }
    std::uint64_t sum = 0;
    for (const Population& population : options.populations) {
        if (population.size > std::numeric_limits<std::uint64_t>::max() - sum) {
            throw InvalidModel(InvalidModel::populationSizes("2^64 or more", network.nodeCount()));
        }
        sum += population.size;
    }
    if (sum != network.nodeCount()) {
        throw InvalidModel(InvalidModel::populationSizes(decimal(sum), network.nodeCount()));
    }
    return std::move(options.populations);
}

std::string nameOf(const Population& population, NodeId first) {
    std::string neurons = population.size == 1 ? "neuron " + decimal(first)
                                               : "neurons " + decimal(first) + " to " +
                                                     decimal(first + population.size - 1);
    if (population.name.empty()) return neurons;
    return "population '" + population.name + "' (" + neurons + ")";
}

/// Whether one of the spikes is of a neuron of the range.
bool holdsSpike(std::span<const SpikeRecord> spikes, NodeId first, std::uint64_t count) {
    return std::any_of(spikes.begin(), spikes.end(), [&](const SpikeRecord& spike) {
        return spike.neuron >= first && spike.neuron - first < count;
    });
}

/// All findings, each with the neurons that it is about.
std::vector<Finding> findingsOf(const SynapseGraph& network, ModelTime window,
                                std::span<const Population> populations,
                                const RuntimeOptions& options) {
    std::vector<Finding> findings = validate(network, options.ranks);
    const auto add = [&](Finding finding, const std::string& name) {
        // Window and horizon are those of all populations.
        if (finding.field != "window" && finding.field != "horizon") {
            finding.text = name + ": " + finding.text;
        }
        const auto equals = [&](const Finding& other) { return other.text == finding.text; };
        if (std::none_of(findings.begin(), findings.end(), equals)) {
            findings.push_back(std::move(finding));
        }
    };
    const std::optional<ModelTime> end =
        options.horizon == open_horizon ? std::nullopt : std::optional(options.horizon);
    NodeId first = 0;
    for (const Population& population : populations) {
        if (population.size == 0) continue;
        for (Finding& finding : validate(population.neuron, population.firing, window, end)) {
            const bool is_source = finding.severity == Finding::Severity::warning &&
                                   finding.field == "base_rate" &&
                                   holdsSpike(options.given_spikes, first, population.size);
            if (!is_source) add(std::move(finding), nameOf(population, first));
        }
        first += population.size;
    }
    return findings;
}

void requireShare(const SynapseGraph& network, const IRankGroup* ranks) {
    if (network.share().has_value() != (ranks != nullptr)) {
        throw InvalidModel(InvalidModel::share_and_ranks);
    }
    if (ranks != nullptr && !network.isShareOf(*ranks)) {
        throw InvalidModel(InvalidModel::share_of_another_rank);
    }
}

Blob bytesOf(const std::string& text) { return {text.begin(), text.end()}; }

/// Throws the texts of all errors, if there are any.
void refuseErrors(std::span<const Finding> findings) {
    std::size_t count = 0;
    std::string list;
    for (const Finding& finding : findings) {
        if (finding.severity != Finding::Severity::error) continue;
        if (count++ > 0) list += "; ";
        list += finding.text;
    }
    if (count > 0) throw InvalidModel(InvalidModel::findings(count, list));
}

}  // namespace

std::unique_ptr<KelmRuntime> makeRuntime(SynapseGraph network, RuntimeOptions options,
                                         std::unique_ptr<IWindowBackend> backend) {
    IRankGroup* const ranks = options.ranks;
    return onEachRank(ranks, [&] {
        if (backend == nullptr) throw InvalidModel(InvalidModel::no_backend);
        onEachRank(ranks, [&] { requireShare(network, ranks); });
        if (ranks != nullptr && !network.share()->counted) network.countShare(*ranks);
        const std::vector<Population> populations = populationsOf(network, options);
        const std::optional<ModelTime> window = network.dMin();
        if (!window) throw WindowEngineError(WindowEngineError::no_d_min);
        std::vector<Finding> findings = findingsOf(network, *window, populations, options);
        refuseErrors(findings);
        if (ranks != nullptr && options.plasticity.enabled) {
            throw InvalidModel(InvalidModel::learning_on_ranks);
        }

        ParameterTable parameters(populations);
        std::uint64_t config_id = 0;
        if (ranks == nullptr) {
            config_id = fingerprint(network, parameters, options.horizon, options.plasticity,
                                    options.phase, options.recorder, options.input_channels,
                                    options.prediction, options.given_spikes);
        } else {
            config_id = fingerprint(
                *ranks, network, parameters, options.horizon, options.plasticity, options.phase,
                options.recorder, options.input_channels, options.prediction, options.given_spikes);
            if (const auto rank = ranks->firstDifferent(bytesOf(options.label))) {
                throw InvalidModel(InvalidModel::otherOnRank("label", *rank));
            }
            parameters = parameters.part(network.share()->begin, network.share()->end);
        }
        std::unique_ptr<KelmRuntime> runtime(new KelmRuntime(
            std::move(network), std::move(parameters), options.seed, options.horizon, backend.get(),
            nullptr, options.plasticity, std::move(options.phase), std::move(options.recorder),
            std::move(options.input_channels), std::move(options.prediction), config_id,
            std::move(options.label), true, ranks));
        runtime->engine_.giveSpikes(std::move(options.given_spikes));
        runtime->owned_backend_ = std::move(backend);
        runtime->warnings_ = std::move(findings);
        if (runtime->learning_ && !options.learning_journal) {
            runtime->learning_->setJournal(JournalMode::off);
        }
        return runtime;
    });
}

std::unique_ptr<KelmRuntime> makeRuntime(
    SynapseGraph network, RuntimeOptions options,
    std::function<std::unique_ptr<IWindowBackend>()> make_backend) {
    return onEachRank(options.ranks, [&] {
        std::unique_ptr<KelmRuntime> runtime =
            makeRuntime(std::move(network), std::move(options), make_backend());
        runtime->make_backend_ = std::move(make_backend);
        return runtime;
    });
}

}  // namespace Lumenar::Core::Kelm
