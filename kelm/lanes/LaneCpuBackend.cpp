#include "kelm/lanes/LaneCpuBackend.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "kelm/core/Prefetch.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/kernel/InputRun.h"
#include "kelm/lanes/LaneKernels.h"

namespace Lumenar::Core::Kelm {

namespace Lanes {

#if defined(KELM_LANES_X86)
extern const LaneKernels avx2_kernels;
extern const LaneKernels avx512_kernels;
#endif

std::span<const LaneKernels* const> availableKernels() {
#if defined(KELM_LANES_X86)
    static constexpr const LaneKernels* by_width[] = {&avx2_kernels, &avx512_kernels};
    static const std::size_t count = [] {
        if (!__builtin_cpu_supports("avx2")) return std::size_t{0};
        const bool wide = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
                          __builtin_cpu_supports("avx512vl");
        return wide ? std::size_t{2} : std::size_t{1};
    }();
    return {by_width, count};
#else
    return {};
#endif
}

}  // namespace Lanes

namespace {

using Lanes::LaneBlock;
using Lanes::LaneConstants;
using Lanes::LaneKernels;

/// Fewer neighbours with the same parameters are not worth a block, unless the call has no others.
constexpr std::size_t min_block_items = 8;

LaneConstants constantsOf(const Kernel::NeuronModel& model, ModelTime horizon) {
    const Kernel::Neuron& neuron = model.neuron;
    const Kernel::Firing& firing = model.firing;
    LaneConstants c{};
    c.tau_membrane = static_cast<double>(neuron.tau_membrane);
    c.tau_adaptation = static_cast<double>(neuron.tau_adaptation);
    c.membrane_decay = model.membrane_decay;
    c.adaptation_decay = model.adaptation_decay;
    c.input_coupling = neuron.input_coupling;
    c.trace_epsilon = neuron.trace_epsilon;
    c.adaptation_weight = firing.adaptation_weight;
    c.threshold = firing.threshold;
    c.gain = firing.gain;
    c.rate = model.rate;
    c.cap = model.cap;
    c.margin = model.margin;
    c.horizon_rounded = static_cast<double>(horizon);
    c.horizon = horizon;
    c.minimum_adaptation = model.minimum_adaptation;
    c.hard_refractory = neuron.hard_refractory;
    c.non_leaky = neuron.non_leaky;
    return c;
}

/// Equality byte for byte. The compiler compares the words in vectors, without a call.
template <class Record>
bool equalBytes(const Record& a, const Record& b) {
    static_assert(std::is_trivially_copyable_v<Record> && sizeof(Record) % 8 == 0);
    std::uint64_t difference = 0;
    for (std::size_t at = 0; at < sizeof(Record); at += 8) {
        std::uint64_t word_a;
        std::uint64_t word_b;
        std::memcpy(&word_a, reinterpret_cast<const std::uint8_t*>(&a) + at, 8);
        std::memcpy(&word_b, reinterpret_cast<const std::uint8_t*>(&b) + at, 8);
        difference |= word_a ^ word_b;
    }
    return difference == 0;
}

/// Clears the fields that a walk changes step by step, and the gaps. The assignment of a whole
/// record would become a string instruction, whose start alone takes longer than the rest of
/// fill().
void clear(Kernel::WindowResult& result) {
    result.spike_count = 0;
    clearGap(result.count_gap);
    for (ModelTime& time : result.spike_times) time = 0;
    result.updates = 0;
    result.candidates = 0;
    result.accepted = 0;
    result.spike_overflow = false;
    result.bound_violation = false;
    clearGap(result.gap);
}

/// The walks of neighbouring items with the same parameters. A block holds one step of each current
/// walk. When a walk ends, the next item takes its place, so the vectors stay full until the items
/// run out.
class BlockWalk {
public:
    /// `work` must not be empty.
    BlockWalk(const LaneKernels& kernels, std::span<const WindowWork> work,
              std::span<const Kernel::WindowEvent> events, ModelTime window_end, ModelTime horizon,
              Kernel::WindowResult* results)
        : kernels_(kernels),
          work_(work),
          events_(events),
          window_end_(window_end),
          horizon_(horizon),
          model_(work[0].parameters, work[0].firing),
          results_(results),
          constants_(constantsOf(model_, horizon)) {}

    /// Walks the items up to the first one with other parameters and returns their number.
    std::size_t run() {
        while (count_ < Lanes::block_walks && fill(count_)) ++count_;
        while (count_ > 0) {
            kernels_.advance(block_, count_, constants_);
            for (int place = 0; place < count_; ++place) {
                if (walks_[place].at_candidate) evaluateCandidate(place);
            }
            kernels_.redraw(block_, count_, constants_);
            for (int place = 0; place < count_;) {
                takeCandidate(place);
                if (findStep(place)) {
                    ++place;
                    continue;
                }
                finish(place);
                if (fill(place)) {
                    ++place;
                } else {
                    // The last walk moves to this place and is treated next, if it is another one.
                    --count_;
                    movePlace(count_, place);
                }
            }
        }
        return next_item_;
    }

private:
    /// What a walk needs beside its place in the block.
    struct Walk {
        std::size_t item;
        const Kernel::WindowEvent* event;  ///< the next one
        const Kernel::WindowEvent* events_end;
        ModelTime candidate;
        double bound;
        bool at_candidate;  ///< the step is the candidate's, not an input's
        bool given_up;      ///< left to the scalar walk
        bool quiet;         ///< a run is worth a try, as in Kernel::processWindow
    };

    void walkScalar(std::size_t item) {
        processItems(work_.subspan(item, 1), events_, window_end_, horizon_, {results_ + item, 1});
    }

    bool hasParameters(const WindowWork& item) const {
        return equalBytes(item.parameters, model_.neuron) && equalBytes(item.firing, model_.firing);
    }

    static bool isDriven(const PhaseDrive& drive) {
        return (static_cast<std::uint64_t>(drive.term_count) | Kernel::bitsOf(drive.base) |
                Kernel::bitsOf(drive.bound)) != 0;
    }

    /// Items are read too rarely for the processor's own prefetching.
    void prefetchItem(std::size_t index) const {
        if (index >= work_.size()) return;
        const char* item = reinterpret_cast<const char*>(&work_[index]);
        for (std::size_t at = 0; at < sizeof(WindowWork); at += 64) prefetchLine(item + at);
    }

    /// Puts the next item that has a step for the vectors into `place`. Items before it, which have
    /// none, are finished. False if no item with these parameters is left.
    bool fill(int place) {
        while (next_item_ < work_.size()) {
            const std::size_t index = next_item_;
            const WindowWork& item = work_[index];
            prefetchItem(index + 4);
            if (!hasParameters(item)) return false;
            ++next_item_;
            if (isDriven(item.drive)) {
                walkScalar(index);
                continue;
            }
            clear(results_[index]);
            const Kernel::WindowEvent* events = events_.data() + item.first_event;
            walks_[place] = {index,
                             events,
                             events + item.event_count,
                             item.pending_time,
                             item.pending_bound,
                             false,
                             false,
                             true};
            block_.membrane[place] = item.state.membrane;
            block_.adaptation[place] = item.state.adaptation;
            block_.last_update[place] = static_cast<double>(item.state.last_update);
            block_.step_time[place] = item.state.last_update;
            block_.refractory_until[place] = item.state.refractory_until;
            block_.refractory[place] = static_cast<double>(item.state.refractory_until);
            block_.rng[place] = item.rng;
            if (findStep(place)) return true;
            finish(place);
        }
        return false;
    }

    /// Sets the next step at `place`. False if the walk has no step left, or if the vectors may not
    /// compute it.
    bool findStep(int place) {
        Walk& walk = walks_[place];
        if (walk.given_up) return false;
        while (true) {
            const bool has_event = walk.event != walk.events_end && walk.event->time < window_end_;
            const ModelTime event_time = has_event ? walk.event->time : window_end_;
            walk.at_candidate = walk.candidate >= 0 && walk.candidate < event_time;
            if (walk.at_candidate) {
                // A marker, or a negative bound from bad parameters.
                if (walk.bound < 0) return giveUp(walk);
                walk.quiet = false;
                setStep(place, walk.candidate, 0.0);
                return true;
            }
            if (!has_event) return false;
            const Kernel::WindowEvent& event = *walk.event;
            ++walk.event;
            if (event.wake_only) continue;
            if (event.time < 0) return giveUp(walk);
            const bool quiet = walk.quiet;
            walk.quiet = true;
            if (!quiet || !runInputs(place, &event)) setStep(place, event.time, event.value);
            return true;
        }
    }

    /// Applies inputs from `events` on while their draws cannot matter. The step is then the draw
    /// of the last one. False if there are none.
    bool runInputs(int place, const Kernel::WindowEvent* events) {
        Walk& walk = walks_[place];
        const auto count = static_cast<std::uint32_t>(walk.events_end - events);
        if (count < Kernel::min_run_inputs) return false;
        Kernel::State state;
        state.membrane = block_.membrane[place];
        state.adaptation = block_.adaptation[place];
        state.last_update = block_.step_time[place];
        state.refractory_until = block_.refractory_until[place];
        const std::uint32_t applied = kernels_.run_inputs(state, block_.rng[place], model_, events,
                                                          count, window_end_, horizon_, 0.0);
        if (applied == 0) return false;
        block_.membrane[place] = state.membrane;
        block_.adaptation[place] = state.adaptation;
        block_.last_update[place] = static_cast<double>(state.last_update);
        block_.step_time[place] = state.last_update;
        block_.time[place] = block_.last_update[place];
        block_.is_input[place] = 0;
        results_[walk.item].updates += applied;
        walk.event = events + applied;
        return true;
    }

    static bool giveUp(Walk& walk) {
        walk.given_up = true;
        return false;
    }

    void setStep(int place, ModelTime time, double value) {
        const Walk& walk = walks_[place];
        ++results_[walk.item].updates;
        block_.step_time[place] = time;
        block_.time[place] = static_cast<double>(time);
        block_.value[place] = value;
        block_.is_input[place] = walk.at_candidate ? 0 : -1;
    }

    /// Accepts or rejects a due candidate, as the kernel does. The traces are at its time already.
    /// Not in vectors, because few steps are candidates.
    void evaluateCandidate(int place) {
        Walk& walk = walks_[place];
        Kernel::WindowResult& result = results_[walk.item];
        ++result.candidates;
        const ModelTime time = walk.candidate;
        double hazard = 0.0;
        if (!model_.neuron.hard_refractory || time >= block_.refractory_until[place]) {
            const double weighted = block_.adaptation[place] * model_.firing.adaptation_weight;
            const double drive = (block_.membrane[place] - weighted) + 0.0;
            hazard = Kernel::hazardOf(model_, drive - model_.firing.threshold);
        }
        // The result of a fault holds the state before the candidate: the scalar walk computes it.
        if (hazard > walk.bound * Kernel::bound_tolerance) {
            giveUp(walk);
            return;
        }
        const double u = Kernel::drawUniform(block_.rng[place]);
        const double ratio = walk.bound == 0 ? 0.0 : hazard / walk.bound;
        if (!(ratio > u)) return;
        if (result.spike_count >= Kernel::max_window_spikes) {
            giveUp(walk);
            return;
        }
        ++result.accepted;
        result.spike_times[result.spike_count] = time;
        ++result.spike_count;
        block_.membrane[place] = model_.neuron.reset_value;
        block_.adaptation[place] = model_.neuron.adaptation_increment + block_.adaptation[place];
        block_.refractory_until[place] =
            Kernel::refractoryEnd(model_.neuron.refractory_period, time);
        block_.refractory[place] = static_cast<double>(block_.refractory_until[place]);
    }

    /// The part of Kernel::nextCandidate after the waiting time.
    void takeCandidate(int place) {
        Walk& walk = walks_[place];
        walk.bound = block_.bound[place];
        walk.candidate = no_time;
        // Of two NaN operands, vectors may return another one than the scalar operation does.
        if (Kernel::isNan(block_.membrane[place] + block_.adaptation[place] + walk.bound)) {
            giveUp(walk);
            return;
        }
        if (walk.bound == 0) return;
        const double wait = block_.wait[place];
        if (Kernel::isNotFinite(wait) || wait >= 9e18) return;
        const ModelTime step = Kernel::waitingTime(wait);
        const ModelTime start = block_.start[place];
        if (static_cast<std::uint64_t>(step) >=
            static_cast<std::uint64_t>(horizon_) - static_cast<std::uint64_t>(start)) {
            return;
        }
        walk.candidate = start + step;
    }

    void finish(int place) {
        const Walk& walk = walks_[place];
        if (walk.given_up) {
            walkScalar(walk.item);
            return;
        }
        Kernel::WindowResult& result = results_[walk.item];
        result.state.membrane = block_.membrane[place];
        result.state.adaptation = block_.adaptation[place];
        result.state.last_update = block_.step_time[place];
        result.state.refractory_until = block_.refractory_until[place];
        result.state.hazard_bound = walk.bound;
        result.rng = block_.rng[place];
        result.next_candidate = walk.candidate;
        result.next_bound = walk.bound;
    }

    /// Copies everything but the step, which is set afterwards.
    void movePlace(int from, int to) {
        walks_[to] = walks_[from];
        block_.membrane[to] = block_.membrane[from];
        block_.adaptation[to] = block_.adaptation[from];
        block_.last_update[to] = block_.last_update[from];
        block_.step_time[to] = block_.step_time[from];
        block_.refractory[to] = block_.refractory[from];
        block_.refractory_until[to] = block_.refractory_until[from];
        block_.rng[to] = block_.rng[from];
        block_.start[to] = block_.start[from];
        block_.bound[to] = block_.bound[from];
        block_.wait[to] = block_.wait[from];
    }

    const LaneKernels& kernels_;
    const std::span<const WindowWork> work_;
    const std::span<const Kernel::WindowEvent> events_;
    const ModelTime window_end_;
    const ModelTime horizon_;
    const Kernel::NeuronModel model_;
    Kernel::WindowResult* const results_;
    const LaneConstants constants_;
    std::size_t next_item_ = 0;
    int count_ = 0;         ///< places in use: 0 to count_ - 1
    LaneBlock block_ = {};  ///< zeroed, because unused places are computed as well
    Walk walks_[Lanes::block_walks];
};

/// Whether the vectors can compute items. With a rate of 0 a draw does not move the generator.
bool lanesCanServe(const Kernel::Firing& firing, ModelTime horizon) {
    return firing.base_rate != 0 && firing.rate_scale != 0 && horizon >= 0;
}

}  // namespace

LaneCpuBackend::LaneCpuBackend() {
    const auto kernels = Lanes::availableKernels();
    kernels_ = kernels.empty() ? nullptr : kernels.back();
}

const char* LaneCpuBackend::instructionSet() const {
    return kernels_ == nullptr ? "none" : kernels_->name;
}

void LaneCpuBackend::processWindow(const std::span<const WindowWork>& work,
                                   const std::span<const Kernel::WindowEvent>& events,
                                   ModelTime window_end, ModelTime horizon, const Kernel::Neuron&,
                                   const Kernel::Firing&,
                                   const std::span<Kernel::WindowResult>& results) {
    const std::size_t block_items = std::min(work.size(), min_block_items);
    for (std::size_t first = 0; first < work.size();) {
        const std::span<const WindowWork> rest = work.subspan(first);
        if (kernels_ != nullptr && lanesCanServe(rest[0].firing, horizon) &&
            rest.size() >= block_items && haveEqualParameters(rest[0], rest[block_items - 1])) {
            first += BlockWalk(*kernels_, rest, events, window_end, horizon, results.data() + first)
                         .run();
            continue;
        }
        std::size_t count = 1;
        while (count < rest.size() && haveEqualParameters(rest[count], rest[0])) ++count;
        processItems(rest.first(count), events, window_end, horizon, results.subspan(first, count));
        first += count;
    }
}

}  // namespace Lumenar::Core::Kelm
