#include "tavrin/platform/internal/pattern.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

namespace tavrin::platform {
namespace {

TEST(PatternTest, MatchesTheWholeTextOnly) {
    const Pattern p("^[0-9]{1,5}[0-9]{13}[0-9]{1,5}$");
    const std::pair<std::string, bool> cases[] = {
        {std::string(15, '7'), true},  // shortest: 1 + 13 + 1
        {std::string(23, '7'), true},  // longest: 5 + 13 + 5
        {std::string(14, '7'), false},
        {std::string(24, '7'), false},
        {"", false},
        {"4821731667-2001237", false},
        {"\xD9\xA4" + std::string(16, '1'), false},  // non-ASCII digit
        {"x482173166720012377", false},
        {"482173166720012377\n", false},
        {"482173166720012377\n482173166720012377", false},
        {std::string(200'000, '1'), false},  // long input is rejected without trouble
    };
    for (const auto& [text, matches] : cases) EXPECT_EQ(p.matches(text), matches) << text.substr(0, 40);
    EXPECT_FALSE(Pattern("b+").matches("abbb")) << "a pattern without anchors still matches whole texts";
    EXPECT_THROW(Pattern("[0-9"), std::regex_error);
}

}  // namespace
}  // namespace tavrin::platform
