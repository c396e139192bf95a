#include "tavrin/platform/windows/wide_text.h"

#include <windows.h>

#include <climits>

namespace tavrin::platform::win {

std::wstring toWide(std::string_view text) {
    if (text.empty() || text.size() > INT_MAX) return {};
    const int size = static_cast<int>(text.size());
    const int needed = MultiByteToWideChar(CP_UTF8, 0, text.data(), size, nullptr, 0);
    if (needed <= 0) return {};
    std::wstring wide(static_cast<std::size_t>(needed), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), size, wide.data(), needed);
    return wide;
}

std::string toUtf8(std::wstring_view text) {
    if (text.empty() || text.size() > INT_MAX) return {};
    const int size = static_cast<int>(text.size());
    const int needed = WideCharToMultiByte(CP_UTF8, 0, text.data(), size, nullptr, 0, nullptr, nullptr);
    if (needed <= 0) return {};
    std::string narrow(static_cast<std::size_t>(needed), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), size, narrow.data(), needed, nullptr, nullptr);
    return narrow;
}

std::string errorText(unsigned long code) {
    wchar_t* buffer = nullptr;
    const DWORD length =
        FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                       nullptr, code, 0, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
    std::string text;
    if (length > 0 && buffer) {
        std::wstring_view message(buffer, length);
        // The system's messages end in ".\r\n".
        while (!message.empty() && (message.back() == L'\n' || message.back() == L'\r' || message.back() == L' '))
            message.remove_suffix(1);
        text = toUtf8(message);
    }
    if (buffer) LocalFree(buffer);
    if (text.empty()) return "error " + std::to_string(code);
    return text + " (" + std::to_string(code) + ")";
}

}  // namespace tavrin::platform::win
