// Windows' part of the platform layer: the system's preferred random
// generator, thread descriptions, the data directory under the local
// application data folder, the system facts from the firmware's registry
// values and the kernel's version, and the default path monitor and log sink.

#include "tavrin/platform/internal/system.h"

#include <windows.h>
// After windows.h, which they need.
#include <bcrypt.h>
#include <knownfolders.h>
#include <shlobj.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <system_error>

#include "tavrin/platform/internal/fatal_error.h"
#include "tavrin/platform/system_log.h"
#include "tavrin/platform/windows/ip_helper_path_monitor.h"
#include "tavrin/platform/windows/locale_name.h"
#include "tavrin/platform/windows/wide_text.h"

namespace tavrin::platform {

namespace win {

namespace {

bool isAsciiAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isAsciiDigit(char c) { return c >= '0' && c <= '9'; }

bool allOf(std::string_view s, bool (*test)(char)) { return std::all_of(s.begin(), s.end(), test); }

}  // namespace

LocaleCodes parseLocaleName(std::string_view name) {
    name = name.substr(0, name.find('_'));  // "de-DE_phoneb": the sort order
    const auto firstDash = name.find('-');
    std::string posix(name.substr(0, firstDash));
    std::string_view rest = firstDash == std::string_view::npos ? std::string_view() : name.substr(firstDash + 1);
    // Subtags in their order: extended language (three letters), script
    // (four letters), then the region; anything else ends the search.
    bool extlangAllowed = true, scriptAllowed = true;
    while (!rest.empty()) {
        const auto dash = rest.find('-');
        const std::string_view subtag = rest.substr(0, dash);
        rest = dash == std::string_view::npos ? std::string_view() : rest.substr(dash + 1);
        if (extlangAllowed && subtag.size() == 3 && allOf(subtag, isAsciiAlpha)) {
            extlangAllowed = false;
            continue;
        }
        extlangAllowed = false;
        if (scriptAllowed && subtag.size() == 4 && allOf(subtag, isAsciiAlpha)) {
            scriptAllowed = false;
            continue;
        }
        if ((subtag.size() == 2 && allOf(subtag, isAsciiAlpha)) || (subtag.size() == 3 && allOf(subtag, isAsciiDigit)))
            posix.append("_").append(subtag);
        break;
    }
    // Dots and at-signs mean something else to the POSIX parser; a tag has none.
    if (posix.find_first_of(".@") != std::string::npos) return {};
    return DeviceFacts::parseLocale(posix);
}

}  // namespace win

namespace os {

namespace {

// A function looked up at run time in a system module that is always loaded
// (kernel32, ntdll), so the program also starts where the function is missing.
template <class Function>
Function systemFunction(const wchar_t* module, const char* name) {
    HMODULE handle = GetModuleHandleW(module);
    if (!handle) return nullptr;
    FARPROC found = GetProcAddress(handle, name);
    // Through the generic function pointer type, which converts to any other without a warning.
    return found ? reinterpret_cast<Function>(reinterpret_cast<void (*)()>(found)) : nullptr;
}

std::string trimmed(std::string_view s) {
    const auto first = s.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    const auto last = s.find_last_not_of(" \t\r\n");
    return std::string(s.substr(first, last - first + 1));
}

}  // namespace

void fillRandom(unsigned char* out, std::size_t size) {
    // BCryptGenRandom takes a ULONG count; larger requests go in pieces.
    constexpr std::size_t kLargestPiece = std::size_t{1} << 30;
    while (size > 0) {
        const std::size_t piece = std::min(size, kLargestPiece);
        const NTSTATUS status =
            BCryptGenRandom(nullptr, out, static_cast<ULONG>(piece), BCRYPT_USE_SYSTEM_PREFERRED_RNG);
        if (status < 0) {
            // Without a random source no identifier can be trusted.
            char code[16];
            std::snprintf(code, sizeof code, "0x%08lX", static_cast<unsigned long>(status));
            tavrin::detail::fatalError(std::string("SecureRandom: BCryptGenRandom failed with status ") + code);
        }
        out += piece;
        size -= piece;
    }
}

void secureZero(void* memory, std::size_t size) { SecureZeroMemory(memory, size); }

void nameThread(const std::string& name) {
    // Windows 10 1607 and later; elsewhere threads stay unnamed.
    using SetDescription = HRESULT(WINAPI*)(HANDLE, PCWSTR);
    static const auto setDescription = systemFunction<SetDescription>(L"kernel32.dll", "SetThreadDescription");
    if (setDescription) setDescription(GetCurrentThread(), win::toWide(name).c_str());
}

std::optional<std::string> executableName() {
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
        if (length == 0) return std::nullopt;
        // A length that fills the buffer means the path was cut.
        if (length < path.size()) {
            path.resize(length);
            break;
        }
        if (path.size() >= 32768) return std::nullopt;  // longer than any Windows path
        path.resize(path.size() * 2);
    }
    std::wstring name = path.substr(path.find_last_of(L"\\/") + 1);
    constexpr std::wstring_view kExtension = L".exe";
    if (name.size() > kExtension.size() &&
        CompareStringOrdinal(name.c_str() + name.size() - kExtension.size(), static_cast<int>(kExtension.size()),
                             kExtension.data(), static_cast<int>(kExtension.size()), TRUE) == CSTR_EQUAL)
        name.resize(name.size() - kExtension.size());
    if (name.empty()) return std::nullopt;
    return win::toUtf8(name);
}

std::filesystem::path defaultDataDirectory(const std::string& applicationDirectoryName) {
    // The name is UTF-8; some standard libraries read a narrow string in the ANSI code page.
    const std::filesystem::path name(win::toWide(applicationDirectoryName));
    PWSTR folder = nullptr;
    const HRESULT found = SHGetKnownFolderPath(FOLDERID_LocalAppData, KF_FLAG_DEFAULT, nullptr, &folder);
    std::filesystem::path base;
    if (SUCCEEDED(found) && folder) base = folder;
    CoTaskMemFree(folder);  // also when the call failed
    if (base.is_absolute()) return base / name;
    // No known folder (a service account without a profile): the variable, when it names an absolute path.
    std::wstring variable(MAX_PATH, L'\0');
    DWORD length = GetEnvironmentVariableW(L"LOCALAPPDATA", variable.data(), static_cast<DWORD>(variable.size()));
    if (length >= variable.size()) {
        variable.resize(length);
        length = GetEnvironmentVariableW(L"LOCALAPPDATA", variable.data(), static_cast<DWORD>(variable.size()));
    }
    if (length > 0 && length < variable.size()) {
        variable.resize(length);
        if (std::filesystem::path candidate(variable); candidate.is_absolute()) return candidate / name;
    }
    std::error_code error;
    std::filesystem::path current = std::filesystem::current_path(error);
    if (error) current = ".";
    return current / name;
}

std::shared_ptr<PathMonitor> makeDefaultPathMonitor() { return std::make_shared<IpHelperPathMonitor>(); }

std::shared_ptr<LogSink> makeDefaultLogSink() { return std::make_shared<DebugOutputSink>(); }

std::optional<std::string> model() {
    // What the firmware calls the machine, as Windows copies it from SMBIOS at boot.
    constexpr const wchar_t* kKey = L"HARDWARE\\DESCRIPTION\\System\\BIOS";
    constexpr const wchar_t* kValue = L"SystemProductName";
    DWORD bytes = 0;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, kKey, kValue, RRF_RT_REG_SZ, nullptr, nullptr, &bytes) != ERROR_SUCCESS)
        return std::nullopt;
    std::wstring text(bytes / sizeof(wchar_t) + 1, L'\0');
    bytes = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    if (RegGetValueW(HKEY_LOCAL_MACHINE, kKey, kValue, RRF_RT_REG_SZ, nullptr, text.data(), &bytes) != ERROR_SUCCESS)
        return std::nullopt;
    text.resize(text.find(L'\0'));  // the value's terminator, and anything after it
    std::string product = trimmed(win::toUtf8(text));
    if (product.empty()) return std::nullopt;
    return product;
}

std::string systemName() { return "Windows"; }

std::optional<std::string> systemVersion() {
    // GetVersionEx reports the version named in the program's manifest (8.1 without
    // one), not the system's; the kernel's own call reports what runs.
    using GetVersion = LONG(WINAPI*)(OSVERSIONINFOW*);
    static const auto getVersion = systemFunction<GetVersion>(L"ntdll.dll", "RtlGetVersion");
    if (!getVersion) return std::nullopt;
    OSVERSIONINFOW info{};
    info.dwOSVersionInfoSize = sizeof info;
    if (getVersion(&info) < 0) return std::nullopt;
    return std::to_string(info.dwMajorVersion) + "." + std::to_string(info.dwMinorVersion) + "." +
           std::to_string(info.dwBuildNumber);
}

std::optional<std::string> machine() {
    // The system's processor, not the one this build emulates on it.
    SYSTEM_INFO info{};
    GetNativeSystemInfo(&info);
    switch (info.wProcessorArchitecture) {
        case PROCESSOR_ARCHITECTURE_AMD64: return "x86_64";
        case PROCESSOR_ARCHITECTURE_ARM64: return "arm64";
        case PROCESSOR_ARCHITECTURE_INTEL: return "i686";
        default: return std::nullopt;
    }
}

LocaleCodes currentLocale() {
    wchar_t name[LOCALE_NAME_MAX_LENGTH] = {};
    const int length = GetUserDefaultLocaleName(name, LOCALE_NAME_MAX_LENGTH);
    if (length <= 1) return {};  // failed, or the invariant locale's empty name
    return win::parseLocaleName(win::toUtf8(std::wstring_view(name, static_cast<std::size_t>(length - 1))));
}

}  // namespace os
}  // namespace tavrin::platform
