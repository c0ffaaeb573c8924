#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
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

/// What a whole run computes: every neuron has the same parameters and `fanout` synapses.
struct ResidentTask {
    std::uint64_t node_count = 0;
    std::uint64_t fanout = 0;
    Kernel::Neuron neuron;
    Kernel::Firing firing;
    ModelTime window = 0;   ///< ns, also the delay of every synapse
    ModelTime horizon = 0;  ///< ns
    std::uint64_t seed = 0;
};

/// One whole run on the device: initialize(), then step() until it returns false, then
/// downloadResult(), computeDigests() if they are to be read, and take().
class ResidentRecurrence {
public:
    /// Starts the clock of the run. Throws WindowEngineError for dimensions that are refused.
    ResidentRecurrence(const ResidentTask& task, std::uint32_t shards)
        : start_(std::chrono::steady_clock::now()),
          task_(task),
          model_(task.neuron, task.firing),
          arena_(requireArena(task, shards)) {}

    /// The device memory that the run needs.
    std::uint64_t bytes() const { return arena_.bytes; }

    /// Uploads the network into `memory`, a block of bytes() bytes, and draws the first candidates.
    void initialize(std::byte* memory, const FanoutTable& table) {
        const std::vector<std::uint64_t> random = initialRandomStates(task_.seed, task_.node_count);
        const auto address = reinterpret_cast<std::uintptr_t>(memory);
        arena_ = *ResidentArena::at(address, task_.node_count, task_.fanout);
        upload(arena_.neurons.csr_targets, table.targets, "upload resident targets");
        upload(arena_.neurons.csr_values, table.values, "upload resident values");
        upload(arena_.neurons.random, random, "upload resident RNG");
        clear(arena_.counters.total_spikes, 1, "clear resident spikes");
        clear(arena_.counters.flags, 1, "clear resident fire overflow");
        clear(arena_.counters.metrics, 1, "clear resident metrics");
        clear(active().count, 1, "clear resident active count");
        launchForNeurons<initializeResidentNeurons>("launch resident initialization", model_.neuron,
                                                    model_.firing, terms(), task_.horizon, active(),
                                                    task_.window);
        checkCuda(Device::synchronise(), "synchronise resident initialization");
        loop_start_ = std::chrono::steady_clock::now();
        run_.setup_seconds = secondsBetween(start_, loop_start_);
        run_.capacity_ok = true;
    }

    /// Computes the next window. Returns false if the run is over: the next window would end behind
    /// the horizon, or the arrivals of this one exceed a bucket and capacity_ok is now false.
    bool step() {
        if (!run_.capacity_ok || window_end_ + task_.window > task_.horizon) return false;
        window_end_ += task_.window;
        taken_ += arrivals_;
        processWindow();
        countArrivals();
        const auto counted = download(arena_.counters.window_spikes, "download window spike count");
        const std::uint64_t next = task_.fanout * (counted & ~busy_window);
        if (next > arena_.arrival_capacity) {
            run_.capacity_ok = false;
            return false;
        }
        if (next != 0) emitArrivals();
        countWindow((counted & busy_window) != 0);
        sequence_base_ += next;
        std::swap(arena_.current_bucket, arena_.next_bucket);
        arrivals_ = next;
        return true;
    }

    /// Whether nothing happened in most windows so far. The ordinary loop is faster then: it skips
    /// an empty window at no cost, and a step looks at every neuron.
    bool isMostlyQuiet() const {
        return run_.windows - run_.profile.windows >
               quiet_steps + quiet_steps_per_busy * run_.profile.windows;
    }

    void downloadResult() {
        checkCuda(Device::synchronise(), "synchronise resident recurrence");
        loop_end_ = std::chrono::steady_clock::now();
        run_.core_seconds = secondsBetween(loop_start_, loop_end_);
        downloadLog();
        downloadNeurons();
        downloadProfile();
        downloadPending();
        temporary_memory_.release();
    }

    /// Computes the digests of the result, which a run that an engine adopts does not need.
    void computeDigests() {
        run_.log_hash = digestImages<SpikeRecord>(run_.log);
        run_.state_hash = digestImages<Kernel::State>(run_.states);
        run_.random_hash = digestImages<std::uint64_t>(run_.random_states);
    }

    /// Stops the clock of the run and moves its result out.
    ResidentRun take() {
        run_.finalize_seconds = secondsBetween(loop_end_, std::chrono::steady_clock::now());
        return std::move(run_);
    }

private:
    static constexpr std::uint64_t quiet_steps = 1024;
    static constexpr std::uint64_t quiet_steps_per_busy = 16;

    static ResidentArena requireArena(const ResidentTask& task, std::uint32_t shards) {
        if (task.node_count == 0 || task.fanout == 0 || shards == 0 || shards > task.node_count ||
            task.window < 1 || task.horizon < 1 || task.horizon > last_model_time - task.window) {
            throw WindowEngineError(WindowEngineError::recurrence_dimensions);
        }
        const std::optional<ResidentArena> arena =
            ResidentArena::at(0, task.node_count, task.fanout);
        if (!arena) throw WindowEngineError(WindowEngineError::recurrence_dimensions);
        return *arena;
    }

    template <class T>
    static void upload(T* section, const std::vector<T>& values, const char* what) {
        checkCuda(Device::upload(section, values.data(), values.size() * sizeof(T)), what);
    }

    template <class T>
    static void clear(T* section, std::uint64_t count, const char* what) {
        checkCuda(Device::clear(section, count * sizeof(T)), what);
    }

    template <class T>
    static T download(const T* element, const char* what) {
        T value{};
        checkCuda(Device::download(&value, element, sizeof(T)), what);
        return value;
    }

    /// Replaces `values`, a vector, by the first `count` elements of a section.
    template <class Values, class T>
    static void download(Values& values, const T* section, std::uint64_t count, const char* what) {
        values.resize(count);
        checkCuda(Device::download(values.data(), section, count * sizeof(T)), what);
    }

    const Kernel::NeuronTerms& terms() const { return model_; }

    /// Launches a kernel of one thread a neuron.
    template <auto kernel, class... Arguments>
    void launchForNeurons(const char* what, const Arguments&... arguments) const {
        Device::launch<kernel>(Device::blocksFor(task_.node_count, block_size), block_size,
                               arena_.neurons, arguments...);
        checkCuda(Device::lastStatus(), what);
    }

    void processWindow() {
        clear(arena_.counters.window_spikes, 1, "clear resident window spikes");
        if (arrivals_ != 0) {
            Device::launch<convertShardEvents>(Device::blocksFor(arrivals_, block_size), block_size,
                                               arena_.current_bucket, arrivals_,
                                               arena_.window_events);
            checkCuda(Device::lastStatus(), "convert resident bucket");
        }
        const ResidentWindow window{arena_.window_events, active(), nextActive().count, window_end_,
                                    task_.horizon};
        launchForNeurons<processResidentWindow>("process resident window", arena_.counters, window,
                                                model_.neuron, model_.firing, terms());
    }

    /// The active neurons of the current window, in the bucket that is written after them.
    ActiveNeurons active() const { return ActiveNeurons::in(arena_.next_bucket); }
    /// The active neurons of the next window, in the bucket that has been converted.
    ActiveNeurons nextActive() const { return ActiveNeurons::in(arena_.current_bucket); }
    ModelTime nextEnd() const { return window_end_ + task_.window; }

    void countArrivals() {
        launchForNeurons<countResidentFanout>("count resident fan-out", nextActive(), nextEnd());
        clear(arena_.neurons.target_counts, task_.node_count, "clear resident target counts");
        launchForNeurons<countResidentTargets>("count resident targets");
    }

    void emitArrivals() {
        Device::exclusiveScan(arena_.neurons.fanout_counts, task_.node_count,
                              arena_.neurons.fanout_offsets, temporary_memory_);
        Device::exclusiveScan(arena_.neurons.target_counts, task_.node_count,
                              arena_.neurons.target_offsets, temporary_memory_);
        clear(arena_.neurons.target_cursors, task_.node_count, "clear resident target cursors");
        launchForNeurons<emitResidentFanout>("emit resident fan-out", sequence_base_, task_.window,
                                             arena_.next_bucket);
        launchForNeurons<sortResidentTargetSegments>("sort resident target segments",
                                                     arena_.next_bucket, nextActive(), nextEnd());
    }

    /// Counts the window, and counts it in the profile if the ordinary loop would: if a neuron was
    /// active in it.
    void countWindow(bool busy) {
        if (busy) {
            ++run_.profile.windows;
            run_.last_window = run_.windows;
        }
        ++run_.windows;
    }

    void downloadLog() {
        run_.spikes = download(arena_.counters.total_spikes, "download resident spikes");
        const auto flags = download(arena_.counters.flags, "download fire overflow");
        if (run_.spikes > arena_.counters.fire_capacity || flags.fire_overflow != 0) {
            run_.capacity_ok = false;
        }
        run_.model_fault = flags.model_fault != 0;
        run_.log.resize(std::min(run_.spikes, arena_.counters.fire_capacity));
        if (run_.capacity_ok && run_.spikes != 0) {
            static_assert(sizeof(DeviceFire) == sizeof(SpikeRecord));
            Device::sort(arena_.counters.fire_log, run_.spikes, DeviceFireLess(),
                         temporary_memory_);
            checkCuda(Device::download(run_.log.data(), arena_.counters.fire_log,
                                       run_.spikes * sizeof(SpikeRecord)),
                      "download resident fire log");
        }
    }

    void downloadNeurons() {
        const std::uint64_t count = task_.node_count;
        download(run_.states, arena_.neurons.states, count, "download resident states");
        download(run_.random_states, arena_.neurons.random, count, "download resident final RNG");
        download(run_.candidate_times, arena_.neurons.pending_times, count,
                 "download resident pending times");
        download(run_.candidate_rates, arena_.neurons.pending_rates, count,
                 "download resident pending bounds");
    }

    void downloadProfile() {
        const auto metrics = download(arena_.counters.metrics, "download resident metrics");
        run_.deliveries = sequence_base_;
        run_.profile.deliveries = taken_ + metrics.due_candidates;
        run_.profile.updates = metrics.updates;
        run_.profile.candidates = metrics.candidates;
        run_.profile.accepted = metrics.accepted;
    }

    void downloadPending() {
        // After a stop for lack of room, the bucket holds a list of neurons.
        if (!run_.capacity_ok || arrivals_ == 0) return;
        std::vector<ShardArrival> arrivals;
        download(arrivals, arena_.current_bucket, arrivals_, "download resident future bucket");
        run_.pending_events.reserve(arrivals.size());
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
    std::chrono::steady_clock::time_point loop_start_;
    std::chrono::steady_clock::time_point loop_end_;
    ResidentTask task_;
    Kernel::NeuronModel model_;
    ResidentArena arena_;
    TemporaryMemory temporary_memory_;
    ModelTime window_end_ = 0;         ///< of the current window
    std::uint64_t arrivals_ = 0;       ///< in the current bucket
    std::uint64_t taken_ = 0;          ///< arrivals that windows have taken
    std::uint64_t sequence_base_ = 0;  ///< arrivals emitted so far
    ResidentRun run_;
};

}  // namespace

}  // namespace Lumenar::Core::Kelm
