#pragma once
// UTF-8 (the library's text) to and from UTF-16 (the text of Windows' wide
// functions), and the system's description of a Windows error code.

#include <string>
#include <string_view>

namespace tavrin::platform::win {

// Invalid sequences become U+FFFD rather than failing: these texts are names
// and log lines, where a replaced character is better than none.
std::wstring toWide(std::string_view text);
std::string toUtf8(std::wstring_view text);

// "The system cannot find the file specified. (2)", or "error 2" when the
// system has no text for the code.
std::string errorText(unsigned long code);

}  // namespace tavrin::platform::win
