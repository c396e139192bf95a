#pragma once
// Assertion for decoding failures: the kind, the coding path and, when given,
// the debug description must all match.

#include <gtest/gtest.h>

#include <string_view>

#include "tavrin/platform/internal/coding.h"

namespace tavrin::testing {

template <class F>
::testing::AssertionResult failsWith(F&& f, DecodingError::Kind kind, const CodingPath& path,
                                     std::string_view description = {}) {
    try {
        f();
    } catch (const DecodingError& e) {
        if (e.kind() == kind && e.codingPath() == path && (description.empty() || e.debugDescription() == description))
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "got " << e.what();
    }
    return ::testing::AssertionFailure() << "no DecodingError";
}

}  // namespace tavrin::testing
