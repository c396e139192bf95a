#pragma once
// A stop the process cannot continue past: the message goes to standard
// error, then the process aborts.

#include <string_view>

namespace tavrin::detail {

[[noreturn]] void fatalError(std::string_view message);

}  // namespace tavrin::detail
