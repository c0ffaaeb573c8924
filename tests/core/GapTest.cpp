#include "kelm/core/Gap.h"

#include <cstddef>
#include <type_traits>
#include <utility>

#include "kelm/events/Event.h"
#include "kelm/kernel/NeuronModel.h"
#include "kelm/kernel/WindowProcessing.h"
#include "kelm/runtime/LearningRecords.h"
#include "kelm/runtime/PhaseSample.h"
#include "kelm/runtime/WeightChange.h"

// The compiler makes these checks.

namespace Lumenar::Core::Kelm {

/// A value that initialises any number, flag and kind.
struct AnyValue {
    template <class T>
    requires(std::is_arithmetic_v<T> || std::is_enum_v<T>) constexpr operator T() const;
};

template <class Record, class... Values>
concept Takes = requires(Values... values) {
    Record{values...};
};

template <class Record, std::size_t... place>
constexpr bool takesValues(std::index_sequence<place...>) {
    return Takes<Record, decltype((void)place, AnyValue())...>;
}

/// Whether a record takes a list of `count` values in braces, up to its first gap, but no longer
/// one.
template <class Record, std::size_t count>
constexpr bool endsAtGap() {
    return takesValues<Record>(std::make_index_sequence<count>()) &&
           !takesValues<Record>(std::make_index_sequence<count + 1>());
}

static_assert(endsAtGap<Event, 3>());
static_assert(endsAtGap<Kernel::Neuron, 9>());
static_assert(endsAtGap<Kernel::Firing, 7>());
static_assert(endsAtGap<PhaseDrive, 4>());
static_assert(endsAtGap<Kernel::WindowEvent, 3>());
static_assert(endsAtGap<Kernel::WindowResult, 7>());
static_assert(endsAtGap<PhaseSample, 1>());
static_assert(endsAtGap<SynapseLearningState, 5>());
static_assert(endsAtGap<JournalEntry, 13>());
static_assert(endsAtGap<ModulatorSample, 2>());
static_assert(endsAtGap<FastWeightSettings, 1>());
static_assert(endsAtGap<WeightChangeContext, 13>());
static_assert(endsAtGap<WeightChange, 3>());
static_assert(Takes<Event, ModelTime, std::uint64_t, EventKind, Gap<7>, std::uint64_t, NodeId,
                    EdgeId, double, std::uint64_t>);

static_assert(std::is_trivially_copyable_v<Gap<7>> && std::is_standard_layout_v<Gap<7>>);
static_assert(sizeof(Gap<7>) == 7 && alignof(Gap<7>) == 1);

}  // namespace Lumenar::Core::Kelm
