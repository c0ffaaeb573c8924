#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <tuple>
#include <utility>
#include <vector>

#include "kelm/runtime/LearningControl.h"
#include "kelm/runtime/OscillatorBank.h"
#include "kelm/runtime/PlasticityEngine.h"

namespace Lumenar::Core::Kelm::Testing {

/// A slow and simple reference of plasticity, learning control and homeostasis. It finds a neuron's
/// synapses by a walk over all synapses of its own graph. It reads the settings of learning from
/// `settings`; the caller says whether the gate is open.
struct PlainLearning {
    using Changes = std::vector<WeightChange>;
    using Kind = PlasticityRuleKind;

    const LearningControl& settings;
    const OscillatorBank& bank;
    TraceConfig config;
    PlasticityRule rules[2];  ///< excitatory, inhibitory
    SynapseGraph graph;
    std::vector<SpikeTrace> traces{graph.nodeCount()};
    std::vector<SynapseLearningState> states{graph.edgeCount()};
    PlasticityEngine::ChangeHook hook = {};
    std::vector<JournalEntry> journal = {};
    std::vector<EdgeId> pending = {};
    std::int64_t counter = 0;

    /// The changes that the spikes propose, in canonical order.
    Changes takeChanges(std::vector<SpikeRecord> spikes) {
        std::sort(spikes.begin(), spikes.end(), SpikeRecordLess());
        Changes changes;
        for (const SpikeRecord& spike : spikes) {
            SpikeTrace& own = traces[spike.neuron];
            advance(own, spike.time);
            if (rules[0].kind == Kind::coincidence || rules[1].kind == Kind::coincidence) {
                own.coincidence += 1.0;
            }
            for (const PlasticitySide side : {PlasticitySide::source, PlasticitySide::target}) {
                for (EdgeId id = 0; id < graph.edgeCount(); ++id) propose(id, spike, side, changes);
            }
            own.pre += 1.0;
            own.post += 1.0;
            own.last_spike = spike.time;
        }
        std::stable_sort(changes.begin(), changes.end(), [](const auto& a, const auto& b) {
            return std::tuple(a.edge, a.time, a.side) < std::tuple(b.edge, b.time, b.side);
        });
        return changes;
    }

    /// Applies proposed changes and decays the fast weights.
    LearningStatistics applyChanges(const Changes& changes, ModelTime window_end, bool gate_open) {
        LearningStatistics counts;
        for (const WeightChange& change : changes) {
            if (!graph.isRouted(change.edge)) continue;
            const bool frozen = settings.frozen()[0] || settings.frozen()[1];
            const bool admitted = admits(settings.groupOf(graph.edge(change.edge).target));
            ++(frozen       ? counts.frozen_out
               : !admitted  ? counts.blocked_by_group
               : !gate_open ? counts.gated
                            : counts.applied);
            if (!frozen && admitted && gate_open) learn(change);
        }
        const auto& [fades, gap, tau, share] = settings.fastWeights();
        for (const EdgeId edge : pending) {
            const SynapseLearningState& state = states[edge];
            const double span = interval(graph.lastChange(edge), window_end);
            if (!fades || settings.frozen()[1] || state.fast == 0.0 || span <= 0.0) continue;
            if (share > 0.0) {
                const double moved = state.fast * share;
                commit(edge, state.slow + moved, state.fast - moved, window_end,
                       JournalKind::consolidation);
                ++counts.consolidated;
            }
            const double left = std::exp(-span / static_cast<double>(tau)) * state.fast;
            commit(edge, state.slow, left, window_end, JournalKind::decay);
            ++counts.decayed;
        }
        return counts;
    }

    /// Applies homeostasis. Returns the number of neurons that were scaled.
    std::uint64_t scale(double cap) {
        std::uint64_t scaled = 0;
        for (NodeId neuron = 0; neuron < graph.nodeCount(); ++neuron) {
            std::vector<EdgeId> incoming;
            double sum = 0.0;
            for (EdgeId id = 0; id < graph.edgeCount(); ++id) {
                if (graph.edge(id).target != neuron || !graph.isRouted(id)) continue;
                incoming.push_back(id);
                sum += weightOf(id);
            }
            const double mean = sum / static_cast<double>(incoming.size());
            if (incoming.empty() || mean <= cap) continue;
            for (const EdgeId id : incoming) {
                graph.setWeight(id, static_cast<float>(weightOf(id) * (cap / mean)));
            }
            ++scaled;
        }
        return scaled;
    }

private:
    static double interval(ModelTime from, ModelTime to) {
        return static_cast<double>(to) - static_cast<double>(from);
    }
    double weightOf(EdgeId id) const { return static_cast<double>(graph.edge(id).weight); }
    double phaseOf(NodeId neuron, ModelTime time) const {
        const std::vector<PhaseSample> phases = bank.neuronPhases(neuron, time);
        return phases.empty() ? 0.0 : phases[0].phase;
    }
    bool admits(std::uint32_t group) const {
        const auto only = settings.allowedGroups();
        return settings.groupAllows(group) &&
               (!settings.restrictsGroups() || std::count(only.begin(), only.end(), group) != 0);
    }

    void advance(SpikeTrace& trace, ModelTime time) const {
        const double elapsed = interval(trace.updated, time);
        const auto decay = [&](double& value, ModelTime tau) {
            if (value == 0.0 || elapsed == 0.0) return;
            value = std::exp(-elapsed / static_cast<double>(tau)) * value;
            if (config.epsilon > std::fabs(value)) value = 0.0;
        };
        decay(trace.pre, config.tau_pre);
        decay(trace.post, config.tau_post);
        decay(trace.coincidence, config.tau_coincidence);
        trace.updated = time;
    }

    void propose(EdgeId id, const SpikeRecord& spike, PlasticitySide side, Changes& changes) {
        const auto& [time, neuron] = spike;
        const Synapse& edge = graph.edge(id);
        const bool is_source = side == PlasticitySide::source;
        if ((is_source ? edge.source : edge.target) != neuron) return;
        if (!edge.enabled || !graph.isRouted(id)) return;
        SpikeTrace& pre = traces[edge.source];
        SpikeTrace& post = traces[edge.target];
        advance(is_source ? post : pre, time);
        const PlasticityRule& rule = rules[edge.inhibitory ? 1 : 0];
        if (rule.kind == Kind::none) return;
        double factor = is_source ? post.post : pre.pre;
        double amplitude = is_source ? -rule.a_depression : rule.a_potentiation;
        if (rule.kind == Kind::coincidence) {
            factor = pre.coincidence * post.coincidence;
            amplitude = rule.a_coincidence;
        }
        WeightChangeContext context{id, edge.source, edge.target, time};
        context.pre_last_spike = pre.last_spike;
        context.post_last_spike = post.last_spike;
        context.weight = weightOf(id);
        context.factor = factor;
        context.pre_phase = phaseOf(edge.source, time);
        context.post_phase = phaseOf(edge.target, time);
        context.synapse_kind = edge.inhibitory;
        context.rule_kind = rule.kind;
        context.side = side;
        double delta = (amplitude * factor) * rule.scale;
        if (hook) delta *= hook(context);
        if (delta != 0.0) changes.push_back({id, time, side, {}, delta, context});
    }

    void learn(const WeightChange& change) {
        const EdgeId edge = change.edge;
        SynapseLearningState& state = states[edge];
        const double weight = weightOf(edge);
        if (state.initialized == 0) state = {weight, 0.0, weight, 1};
        if (weight != state.last_weight) {
            commit(edge, weight - state.fast, state.fast, change.time, JournalKind::external);
        }
        const bool fades = settings.fastWeights().enabled != 0;
        const double slow = state.slow + (fades ? 0.0 : change.delta);
        const double fast = state.fast + (fades ? change.delta : 0.0);
        commit(edge, slow, fast, change.time, JournalKind::update, change);
        if (fades && std::exchange(state.pending, 1) == 0) pending.push_back(edge);
    }

    void commit(EdgeId edge, double slow, double fast, ModelTime time, JournalKind kind,
                const WeightChange& cause = {}) {
        const double cap = settings.weightCap();
        SynapseLearningState& state = states[edge];
        const SynapseLearningState before = state;
        state.slow = std::clamp(slow, 0.0, cap);
        state.fast = std::clamp(fast, -cap, cap);
        const double total = state.fast + state.slow;
        graph.setWeight(edge, static_cast<float>(std::clamp(total, 0.0, cap)));
        graph.lastChange(edge) = time;
        state.last_weight = weightOf(edge);
        if (settings.journalMode() == JournalMode::off) return;
        const std::int64_t stride = std::llround(1.0 / settings.journalRate());
        const bool counts = settings.journalMode() == JournalMode::sampled && stride > 1;
        if (counts && counter++ % stride != 0) return;
        const WeightChangeContext& from = cause.context;
        journal.push_back({edge, time, before.last_weight, state.last_weight, before.fast,
                           state.fast, before.slow, state.slow, from.pre_last_spike,
                           from.post_last_spike, cause.delta, from.rule_kind, kind});
    }
};

}  // namespace Lumenar::Core::Kelm::Testing
