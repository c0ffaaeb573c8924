#pragma once

#include <gtest/gtest.h>

#include <exception>
#include <functional>
#include <limits>
#include <string>
#include <typeinfo>
#include <vector>

namespace Lumenar::Core::Kelm::Testing {

// Values that every check for a finite number refuses.
inline constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();
inline constexpr double infinity = std::numeric_limits<double>::infinity();

/// Expects `call` to throw exactly the class `Error` with exactly this text.
template <class Error, class Call>
void expectThrows(Call&& call, const std::string& text) {
    try {
        call();
    } catch (const std::exception& failure) {
        EXPECT_EQ(std::string(typeid(failure).name()), typeid(Error).name());
        EXPECT_EQ(std::string(failure.what()), text);
        return;
    }
    ADD_FAILURE() << "nothing was thrown, expected: " << text;
}

/// A call that must throw, and the text of the exception.
struct Refusal {
    std::string text;
    std::function<void()> call;
};

/// Expects each call to throw an `Error` with its text. `expectUnchanged` runs after each call.
template <class Error>
void expectRefusals(
    const std::vector<Refusal>& refusals, const std::function<void()>& expectUnchanged = [] {}) {
    for (const Refusal& refusal : refusals) {
        SCOPED_TRACE(refusal.text);
        expectThrows<Error>(refusal.call, refusal.text);
        expectUnchanged();
    }
}

}  // namespace Lumenar::Core::Kelm::Testing
