#include "tavrin/platform/pattern.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

using namespace std::string_literals;

namespace tavrin::platform {
namespace {

constexpr const char* kUserIdPattern = "^[0-9]{1,5}[0-9]{13}[0-9]{1,5}$";

TEST(Pattern, UserIdentifierShape) {
    const Pattern p(kUserIdPattern);
    EXPECT_EQ(p.expression(), kUserIdPattern);
    EXPECT_TRUE(p.matches("482173166720012377"));
    EXPECT_TRUE(p.matches(std::string(15, '7')));   // shortest: 1 + 13 + 1
    EXPECT_TRUE(p.matches(std::string(23, '7')));   // longest: 5 + 13 + 5
    // A six-digit random part still fits within 23 digits in all.
    EXPECT_TRUE(p.matches("100000"s + "1731667200123" + "77"));
    EXPECT_FALSE(p.matches(std::string(14, '7')));
    EXPECT_FALSE(p.matches(std::string(24, '7')));
    EXPECT_FALSE(p.matches(""));
    EXPECT_FALSE(p.matches("48217316672001237a"));
    EXPECT_FALSE(p.matches("4821731667-2001237"));
    EXPECT_FALSE(p.matches("\xD9\xA4" + std::string(16, '1')));  // non-ASCII digit
}

TEST(Pattern, MatchesTheWholeTextOnly) {
    const Pattern p(kUserIdPattern);
    // A valid identifier embedded in more text is not a match.
    EXPECT_FALSE(p.matches("x482173166720012377"));
    EXPECT_FALSE(p.matches("482173166720012377 "));
    EXPECT_FALSE(p.matches("482173166720012377\n"));
    EXPECT_FALSE(p.matches("482173166720012377\n482173166720012377"));

    const Pattern unanchored("b+");
    EXPECT_TRUE(unanchored.matches("bbb"));
    EXPECT_FALSE(unanchored.matches("abbb"));
    EXPECT_FALSE(unanchored.matches("bbbc"));
}

TEST(Pattern, LongInputIsRejectedWithoutTrouble) {
    const Pattern p(kUserIdPattern);
    EXPECT_FALSE(p.matches(std::string(200'000, '1')));
}

TEST(Pattern, InvalidExpressionThrows) { EXPECT_THROW(Pattern("[0-9"), std::regex_error); }

}  // namespace
}  // namespace tavrin::platform
