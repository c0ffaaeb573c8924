#include "kelm/core/Failures.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <type_traits>

namespace Lumenar::Core::Kelm {

/// True where a catch of `Base` sees the class and its text, and the class adds no data.
template <class Failure, class Base>
bool isPlain() {
    static_assert(sizeof(Failure) == sizeof(Base));
    try {
        throw Failure(std::string("the text"));
    } catch (const Base& failure) {
        return failure.what() == std::string("the text");
    }
}

TEST(Failures, EachClassIsSeenByACatchOfItsKind) {
    using Argument = std::invalid_argument;
    using Logic = std::logic_error;
    using Runtime = std::runtime_error;
    EXPECT_TRUE((isPlain<TimeOverflow, Runtime>()));
    EXPECT_TRUE((isPlain<WindowEngineError, Logic>()));
    EXPECT_TRUE((isPlain<InvalidSynapse, Argument>()));
    EXPECT_TRUE((isPlain<SynapseRoutingViolation, std::out_of_range>()));
    EXPECT_TRUE((isPlain<InvalidLookahead, Argument>()));
    EXPECT_TRUE((isPlain<LookaheadViolation, Logic>()));
    EXPECT_TRUE((isPlain<InvalidShardLayout, Argument>()));
    EXPECT_TRUE((isPlain<InvalidThreadCount, Argument>()));
    EXPECT_TRUE((isPlain<InvalidLearningControl, Argument>()));
    EXPECT_TRUE((isPlain<BrokenCausalTrace, Logic>()));
    EXPECT_TRUE((isPlain<InvalidPrediction, Argument>()));
    EXPECT_TRUE((isPlain<InvalidIntervention, Argument>()));
    EXPECT_TRUE((isPlain<InvalidModality, Argument>()));
    EXPECT_TRUE((isPlain<InvalidPhaseModulation, Argument>()));
    EXPECT_TRUE((isPlain<IncompatibleCheckpoint, Runtime>()));
    EXPECT_TRUE((isPlain<InvalidOscillator, Argument>()));
    EXPECT_TRUE((isPlain<InvalidPlasticity, Argument>()));
    EXPECT_TRUE((isPlain<Core::Runtime::ReplayExhausted, Runtime>()));
}

// A broken invariant must not pass as a refused argument: std::invalid_argument is a
// std::logic_error too, so a handler for refused values would swallow it.
TEST(Failures, ABrokenInvariantIsNoRefusedArgument) {
    EXPECT_FALSE((std::is_base_of_v<std::invalid_argument, WindowEngineError>));
    EXPECT_FALSE((std::is_base_of_v<std::invalid_argument, LookaheadViolation>));
    EXPECT_FALSE((std::is_base_of_v<std::invalid_argument, BrokenCausalTrace>));
}

}  // namespace Lumenar::Core::Kelm
