#include "kelm/core/Failures.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <type_traits>

namespace Lumenar::Core::Kelm {

template <class Base, class... Failures>
constexpr bool areAll() {
    return (std::is_base_of_v<Base, Failures> && ...);
}

// std::invalid_argument is a std::logic_error too, so a handler of refused values would swallow a
// broken invariant that was one.
TEST(Failures, AreSeenByACatchOfTheirKind) {
    using Argument = std::invalid_argument;
    EXPECT_TRUE(
        (areAll<Argument, InvalidSynapse, InvalidLookahead, InvalidShardLayout, InvalidThreadCount,
                InvalidLearningControl, InvalidPrediction, InvalidIntervention, InvalidModality,
                InvalidPhaseModulation, InvalidOscillator, InvalidPlasticity>()));
    EXPECT_TRUE(
        (areAll<std::logic_error, WindowEngineError, LookaheadViolation, BrokenCausalTrace>()));
    EXPECT_FALSE((std::is_base_of_v<Argument, WindowEngineError>));
    EXPECT_FALSE((std::is_base_of_v<Argument, LookaheadViolation>));
    EXPECT_FALSE((std::is_base_of_v<Argument, BrokenCausalTrace>));
    EXPECT_TRUE((areAll<std::runtime_error, TimeOverflow, IncompatibleCheckpoint,
                        Core::Runtime::ReplayExhausted>()));
    EXPECT_TRUE((areAll<std::out_of_range, SynapseRoutingViolation>()));
}

}  // namespace Lumenar::Core::Kelm
