#include "tavrin/platform/internal/pattern.h"

namespace tavrin::platform {

Pattern::Pattern(std::string expression)
    : expression_(std::move(expression)), regex_(expression_, std::regex::ECMAScript | std::regex::optimize) {}

bool Pattern::matches(std::string_view text) const { return std::regex_match(text.begin(), text.end(), regex_); }

}  // namespace tavrin::platform
