#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "kelm/core/Digest.h"
#include "kelm/core/Failures.h"
#include "kelm/cuda/DeviceBlock.h"
#include "kelm/cuda/FanoutTable.h"
#include "kelm/cuda/ResidentArena.h"
#include "kelm/cuda/ResidentKernels.h"
#include "kelm/cuda/ResidentRecurrence.h"
#include "kelm/cuda/ShardKernels.h"
#include "kelm/cuda/TemporaryMemory.h"

// Part of the unit LookaheadCuda: the host's side of a whole run on the device.

namespace Lumenar::Core::Kelm {

namespace {

/// A run that goes on so much longer without anything happening belongs to the ordinary loop, which
/// skips empty windows at no cost. A quiet step looks at every neuron, so few are tried.
constexpr std::uint64_t quiet_steps = 1024;
constexpr std::uint64_t quiet_steps_per_busy = 16;

/// The sections of a resident arena as pointers.
struct ResidentSections {
    ResidentSections(const ResidentArena& arena, std::byte* base)
        : csr_targets(at<std::uint64_t>(base, arena.csr_targets)),
          csr_values(at<double>(base, arena.csr_values)),
          neurons{at<Kernel::State>(base, arena.device_states),
                  at<std::uint64_t>(base, arena.device_random),
                  at<ModelTime>(base, arena.pending_times), at<double>(base, arena.pending_rates)},
          results(at<Kernel::WindowResult>(base, arena.device_results)),
          fanout_counts(at<std::uint64_t>(base, arena.fanout_counts)),
          fanout_offsets(at<std::uint64_t>(base, arena.fanout_offsets)),
          target_counts(at<std::uint64_t>(base, arena.target_counts)),
          target_offsets(at<std::uint64_t>(base, arena.target_offsets)),
          target_cursors(at<std::uint64_t>(base, arena.target_cursors)),
          counters{at<std::uint64_t>(base, arena.total_spikes),
                   at<std::uint64_t>(base, arena.window_spikes),
                   at<std::uint64_t>(base, arena.metrics),
                   at<std::uint32_t>(base, arena.fire_overflow),
                   at<std::uint32_t>(base, arena.fire_overflow) + 1},
          fire_log(at<DeviceFire>(base, arena.fire_log)),
          window_events(at<Kernel::WindowEvent>(base, arena.window_events)),
          current_bucket(at<ShardArrival>(base, arena.first_bucket)),
          next_bucket(at<ShardArrival>(base, arena.second_bucket)) {}

    std::uint64_t* csr_targets;
    double* csr_values;
    ResidentNeurons neurons;
    Kernel::WindowResult* results;
    std::uint64_t* fanout_counts;
    std::uint64_t* fanout_offsets;
    std::uint64_t* target_counts;
    std::uint64_t* target_offsets;
    std::uint64_t* target_cursors;
    ResidentCounters counters;
    DeviceFire* fire_log;
    Kernel::WindowEvent* window_events;
    ShardArrival* current_bucket;
    ShardArrival* next_bucket;

private:
    template <class T>
    static T* at(std::byte* base, std::uint64_t offset) {
        return reinterpret_cast<T*>(base + offset);
    }
};

/// One whole run on the device.
class ResidentRecurrence {
public:
    /// The size of what a run needs. Throws WindowEngineError for dimensions that are refused.
    static ResidentArena requireArena(std::uint64_t node_count, std::uint64_t fanout,
                                      std::uint32_t shards, ModelTime window, ModelTime horizon) {
        if (node_count == 0 || fanout == 0 || shards == 0 || shards > node_count || window < 1 ||
            horizon < 1 || horizon > last_model_time - window) {
            throw WindowEngineError(WindowEngineError::recurrence_dimensions);
        }
        const std::optional<ResidentArena> arena = ResidentArena::of(node_count, fanout);
        if (!arena) throw WindowEngineError(WindowEngineError::recurrence_dimensions);
        return *arena;
    }

    /// Uploads the network into `memory`, which has room for `arena`. `start`: when the run was
    /// asked for.
    ResidentRecurrence(std::chrono::steady_clock::time_point start, const ResidentArena& arena,
                       std::byte* memory, const FanoutTable& table, std::uint64_t node_count,
                       std::uint64_t fanout, const Kernel::Neuron& neuron,
                       const Kernel::Firing& firing, ModelTime window, ModelTime horizon,
                       std::uint64_t seed)
        : start_(start),
          node_count_(node_count),
          fanout_(fanout),
          model_(neuron, firing),
          window_(window),
          horizon_(horizon),
          arena_(arena),
          sections_(prepare(memory, table, seed)) {}

    /// `limit_quiet`: whether a run that is mostly quiet ends early, as if it did not fit.
    ResidentRun run(bool limit_quiet) {
        const auto loop_start = std::chrono::steady_clock::now();
        run_.setup_seconds = secondsBetween(start_, loop_start);
        runWindows(limit_quiet);
        checkCuda(Device::synchronise(), "synchronise resident recurrence");
        const auto loop_end = std::chrono::steady_clock::now();
        run_.core_seconds = secondsBetween(loop_start, loop_end);
        downloadLog();
        downloadNeurons();
        downloadProfile();
        downloadPending();
        temporary_memory_.release();
        run_.finalize_seconds = secondsBetween(loop_end, std::chrono::steady_clock::now());
        return std::move(run_);
    }

private:
    ResidentSections prepare(std::byte* memory, const FanoutTable& table,
                             std::uint64_t seed) const {
        const std::vector<std::uint64_t> random = initialRandomStates(seed, node_count_);
        const ResidentSections sections(arena_, memory);
        checkCuda(Device::upload(sections.csr_targets, table.targets.data(),
                                 table.targets.size() * sizeof(std::uint64_t)),
                  "upload resident targets");
        checkCuda(Device::upload(sections.csr_values, table.values.data(),
                                 table.values.size() * sizeof(double)),
                  "upload resident values");
        checkCuda(Device::upload(sections.neurons.random, random.data(),
                                 random.size() * sizeof(std::uint64_t)),
                  "upload resident RNG");
        checkCuda(Device::clear(sections.counters.total_spikes, 8), "clear resident spikes");
        checkCuda(Device::clear(sections.counters.fire_overflow, 8),
                  "clear resident fire overflow");
        checkCuda(Device::clear(sections.counters.metrics, 32), "clear resident metrics");
        Device::launch<initializeResidentNeurons>(neuronBlocks(), block_size, node_count_,
                                                  sections.neurons, model_.neuron, model_.firing,
                                                  terms(), horizon_);
        checkCuda(Device::lastStatus(), "launch resident initialization");
        checkCuda(Device::synchronise(), "synchronise resident initialization");
        return sections;
    }

    const Kernel::NeuronTerms& terms() const { return model_; }

    std::uint32_t neuronBlocks() const { return Device::blocksFor(node_count_, block_size); }

    void runWindows(bool limit_quiet) {
        run_.capacity_ok = true;
        for (ModelTime window_end = window_; window_end <= horizon_; window_end += window_) {
            taken_ += arrivals_;
            processWindow(window_end);
            countArrivals();
            const std::uint64_t word = downloadWindowWord();
            scanCounts();
            const std::uint64_t next = fanout_ * (word & window_spike_mask);
            if (next > arena_.arrival_capacity) {
                run_.capacity_ok = false;
                return;
            }
            if (next != 0) emitArrivals();
            if (arrivals_ != 0 || word != 0) {
                ++run_.profile.windows;
                run_.last_window = run_.windows;
            }
            sequence_base_ += next;
            ++run_.windows;
            std::swap(sections_.current_bucket, sections_.next_bucket);
            arrivals_ = next;
            if (limit_quiet && run_.windows - run_.profile.windows >
                                   quiet_steps + quiet_steps_per_busy * run_.profile.windows) {
                run_.capacity_ok = false;
                return;
            }
        }
    }

    void processWindow(ModelTime window_end) {
        checkCuda(Device::clear(sections_.counters.window_spikes, 8),
                  "clear resident window spikes");
        if (arrivals_ != 0) {
            Device::launch<convertShardEvents>(Device::blocksFor(arrivals_, block_size), block_size,
                                               sections_.current_bucket, arrivals_,
                                               sections_.window_events);
            checkCuda(Device::lastStatus(), "convert resident bucket");
        }
        Device::launch<processResidentWindow>(
            neuronBlocks(), block_size, node_count_, sections_.window_events, arrivals_,
            sections_.target_offsets, sections_.target_counts, sections_.neurons, sections_.results,
            sections_.fanout_counts, sections_.counters, sections_.fire_log, arena_.fire_capacity,
            window_end, horizon_, model_.neuron, model_.firing, terms());
        checkCuda(Device::lastStatus(), "process resident window");
    }

    void countArrivals() {
        Device::launch<countResidentFanout>(neuronBlocks(), block_size, node_count_, fanout_,
                                            sections_.fanout_counts);
        checkCuda(Device::lastStatus(), "count resident fan-out");
        checkCuda(Device::clear(sections_.target_counts, node_count_ * sizeof(std::uint64_t)),
                  "clear resident target counts");
        Device::launch<countResidentTargets>(neuronBlocks(), block_size, node_count_, fanout_,
                                             sections_.csr_targets, sections_.fanout_counts,
                                             sections_.target_counts);
        checkCuda(Device::lastStatus(), "count resident targets");
    }

    /// The one transfer of a step; it waits for the step's kernels.
    std::uint64_t downloadWindowWord() {
        std::uint64_t word = 0;
        checkCuda(Device::download(&word, sections_.counters.window_spikes, sizeof(word)),
                  "download window spike count");
        return word;
    }

    void scanCounts() {
        Device::exclusiveScan(sections_.fanout_counts, node_count_, sections_.fanout_offsets,
                              temporary_memory_);
        Device::exclusiveScan(sections_.target_counts, node_count_, sections_.target_offsets,
                              temporary_memory_);
    }

    void emitArrivals() {
        checkCuda(Device::clear(sections_.target_cursors, node_count_ * sizeof(std::uint64_t)),
                  "clear resident target cursors");
        Device::launch<emitResidentFanout>(
            neuronBlocks(), block_size, node_count_, fanout_, sections_.csr_targets,
            sections_.csr_values, sections_.results, sections_.fanout_counts,
            sections_.fanout_offsets, sections_.target_offsets, sections_.target_cursors,
            sequence_base_, window_, sections_.next_bucket);
        checkCuda(Device::lastStatus(), "emit resident fan-out");
        Device::launch<sortResidentTargetSegments>(neuronBlocks(), block_size, node_count_,
                                                   sections_.target_offsets,
                                                   sections_.target_counts, sections_.next_bucket);
        checkCuda(Device::lastStatus(), "sort resident target segments");
    }

    template <class T>
    void download(std::vector<T>& values, const T* block, std::uint64_t count, const char* what) {
        values.resize(count);
        checkCuda(Device::download(values.data(), block, count * sizeof(T)), what);
    }

    void downloadLog() {
        checkCuda(Device::download(&run_.spikes, sections_.counters.total_spikes, 8),
                  "download resident spikes");
        std::uint32_t flags[2] = {};  // fire overflow, model fault
        checkCuda(Device::download(flags, sections_.counters.fire_overflow, sizeof(flags)),
                  "download fire overflow");
        if (run_.spikes > arena_.fire_capacity || flags[0] != 0 || flags[1] != 0) {
            run_.capacity_ok = false;
        }
        run_.log.resize(std::min(run_.spikes, arena_.fire_capacity));
        if (run_.capacity_ok && run_.spikes != 0) {
            static_assert(sizeof(DeviceFire) == sizeof(SpikeRecord));
            Device::sort(sections_.fire_log, run_.spikes, DeviceFireLess(), temporary_memory_);
            checkCuda(Device::download(run_.log.data(), sections_.fire_log,
                                       run_.spikes * sizeof(SpikeRecord)),
                      "download resident fire log");
        }
        run_.log_hash = digestImages<SpikeRecord>(run_.log);
    }

    void downloadNeurons() {
        download(run_.states, sections_.neurons.states, node_count_, "download resident states");
        download(run_.random_states, sections_.neurons.random, node_count_,
                 "download resident final RNG");
        download(run_.candidate_times, sections_.neurons.pending_times, node_count_,
                 "download resident pending times");
        download(run_.candidate_rates, sections_.neurons.pending_rates, node_count_,
                 "download resident pending bounds");
        run_.state_hash = digestImages<Kernel::State>(run_.states);
        run_.random_hash = digestImages<std::uint64_t>(run_.random_states);
    }

    void downloadProfile() {
        std::uint64_t metrics[4] = {};
        checkCuda(Device::download(metrics, sections_.counters.metrics, sizeof(metrics)),
                  "download resident metrics");
        run_.deliveries = sequence_base_;
        run_.profile.deliveries = taken_ + metrics[3];
        run_.profile.updates = metrics[0];
        run_.profile.candidates = metrics[1];
        run_.profile.accepted = metrics[2];
    }

    void downloadPending() {
        if (arrivals_ == 0) return;
        std::vector<ShardArrival> arrivals;
        download(arrivals, sections_.current_bucket, arrivals_, "download resident future bucket");
        for (const ShardArrival& arrival : arrivals) {
            Event event;
            event.time = arrival.time;
            event.id = arrival.sequence;
            event.kind = EventKind::delivery;
            event.source = arrival.source;
            event.target = arrival.target;
            event.edge = arrival.edge;
            event.value = arrival.value;
            run_.pending_events.push_back(event);
        }
    }

    std::chrono::steady_clock::time_point start_;
    std::uint64_t node_count_;
    std::uint64_t fanout_;
    Kernel::NeuronModel model_;
    ModelTime window_;
    ModelTime horizon_;
    ResidentArena arena_;
    ResidentSections sections_;
    TemporaryMemory temporary_memory_;
    std::uint64_t arrivals_ = 0;       ///< in the current bucket
    std::uint64_t taken_ = 0;          ///< arrivals that windows have taken
    std::uint64_t sequence_base_ = 0;  ///< arrivals emitted so far
    ResidentRun run_;
};

}  // namespace

}  // namespace Lumenar::Core::Kelm
