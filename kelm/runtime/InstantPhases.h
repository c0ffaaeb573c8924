#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "kelm/core/ModelTime.h"
#include "kelm/runtime/OscillatorBank.h"

namespace Lumenar::Core::Kelm {

/// The phases of a bank's oscillators at one time. Computes each phase at its first read, since the
/// neurons of a window read the same few phases.
class InstantPhases {
public:
    /// Moves to `time` ns. The bank must not change between this call and the last read.
    void moveTo(const OscillatorBank& bank, ModelTime time) {
        bank_ = &bank;
        time_ = time;
        ++instant_;
        entries_.resize(bank.oscillators().size());
    }
    ModelTime time() const { return time_; }

    /// In radians. `position` must lie in the bank. Throws as OscillatorBank::phaseOf does.
    double phaseOfPosition(std::size_t position) {
        Entry& entry = entries_[position];
        if (entry.instant != instant_) {
            entry = {bank_->phaseOfPosition(position, time_), instant_};
        }
        return entry.phase;
    }

    /// The first phase that the bank reports for a neuron, or 0.0 if it reports none. Throws as
    /// above.
    double firstPhase(NodeId neuron) {
        const std::span<const std::uint32_t> positions = bank_->positionsOf(neuron);
        return positions.empty() ? 0.0 : phaseOfPosition(positions.front());
    }

private:
    struct Entry {
        double phase = 0.0;
        std::uint64_t instant = 0;  ///< instant_ when the phase was computed; 0 if it was not
    };

    const OscillatorBank* bank_ = nullptr;
    ModelTime time_ = 0;
    std::uint64_t instant_ = 0;   ///< number of moves
    std::vector<Entry> entries_;  ///< by position
};

}  // namespace Lumenar::Core::Kelm
