#pragma once

#include <gtest/gtest.h>

#include <exception>
#include <string>
#include <typeinfo>

namespace Lumenar::Core::Kelm::Testing {

/// Expects `call` to throw an `Error`, of exactly this class, with exactly this text.
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

}  // namespace Lumenar::Core::Kelm::Testing
