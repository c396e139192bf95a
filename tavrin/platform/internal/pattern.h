#pragma once
// Whole-string regular-expression match, compiled once.

#include <regex>
#include <string>
#include <string_view>

namespace tavrin::platform {

class Pattern {
public:
    // Throws std::regex_error for an invalid expression.
    explicit Pattern(std::string expression);

    // True when the whole text matches (anchors in the expression are allowed).
    bool matches(std::string_view text) const;
    const std::string& expression() const noexcept { return expression_; }

private:
    std::string expression_;
    std::regex regex_;
};

}  // namespace tavrin::platform
