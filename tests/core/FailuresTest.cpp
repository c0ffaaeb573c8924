#include "kelm/core/Failures.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <type_traits>

namespace Lumenar::Core::Kelm {

template <class Base, class... Failures>
constexpr bool are_all = (std::is_base_of_v<Base, Failures> && ...);
template <class Base, class... Failures>
constexpr bool are_none = !(std::is_base_of_v<Base, Failures> || ...);

// std::invalid_argument is a std::logic_error too, so a broken invariant must not be one: a handler
// of refused values would catch it.
TEST(Failures, AreCaughtByTheirKind) {
    using Argument = std::invalid_argument;
    EXPECT_TRUE(
        (are_all<Argument, InvalidSynapse, InvalidLookahead, InvalidShardLayout, InvalidThreadCount,
                 InvalidLearningControl, InvalidPrediction, InvalidIntervention, InvalidModality,
                 InvalidPhaseModulation, InvalidOscillator, InvalidPlasticity>));
    EXPECT_TRUE(
        (are_all<std::logic_error, WindowEngineError, LookaheadViolation, BrokenCausalTrace>));
    EXPECT_TRUE((are_none<Argument, WindowEngineError, LookaheadViolation, BrokenCausalTrace>));
    EXPECT_TRUE((are_all<std::runtime_error, TimeOverflow, IncompatibleCheckpoint,
                         Runtime::ReplayExhausted>));
    EXPECT_TRUE((are_all<std::out_of_range, SynapseRoutingViolation>));
}

}  // namespace Lumenar::Core::Kelm
