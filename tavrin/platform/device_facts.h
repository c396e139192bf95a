#pragma once
// Device and application facts: the host application supplies what only it
// knows (bundle keys and identifier, screen size) before configuring the SDK;
// the rest is read from the system.
//
//     using tavrin::platform::DeviceFacts;
//     DeviceFacts::setApplicationInfo({.bundleIdentifier = "com.example.shop",
//                                      .infoDictionary = {{"CFBundleShortVersionString", "2.3"},
//                                                         {"CFBundleVersion", "41"}}});
//     DeviceFacts::setScreenBounds(tavrin::platform::ScreenBounds{.width = 1280, .height = 800});
//     std::string system = DeviceFacts::systemName();             // os-release NAME, or "Linux"
//     auto language = DeviceFacts::currentLocale().languageCode;  // "de" under LANG=de_AT.UTF-8
//
// A fact that cannot be found is absent, so callers apply their own fallbacks.

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "tavrin/platform/api.h"

namespace tavrin::platform {

// What the host application tells about itself, before configuring the SDK.
struct TAVRIN_API ApplicationInfo {
    std::optional<std::string> bundleIdentifier = std::nullopt;
    // Information dictionary: "CFBundleDisplayName", "CFBundleName",
    // "CFBundleShortVersionString", "CFBundleVersion".
    std::map<std::string, std::string, std::less<>> infoDictionary{};
};

struct TAVRIN_API ScreenBounds {
    double width = 0;   // points
    double height = 0;  // points
};

struct TAVRIN_API LocaleCodes {
    std::optional<std::string> languageCode;  // "de" of "de_AT.UTF-8"
    std::optional<std::string> regionCode;    // "AT" of "de_AT.UTF-8"

    friend bool operator==(const LocaleCodes&, const LocaleCodes&) = default;
};

class TAVRIN_API DeviceFacts {
public:
    // Host-supplied facts.
    static void setApplicationInfo(ApplicationInfo info);
    static ApplicationInfo applicationInfo();
    static std::optional<std::string> bundleIdentifier();
    // Text value of an information-dictionary key; "CFBundleName" falls back
    // to the executable's name.
    static std::optional<std::string> infoDictionaryString(std::string_view key);
    // A width or height that is not finite, negative or not below 2^63 is
    // refused with an error log line, and the bounds set before are kept.
    static void setScreenBounds(std::optional<ScreenBounds> bounds);
    static std::optional<ScreenBounds> screenBounds();

    // System facts (read from the system each call; callers cache what cannot change).
    static std::optional<std::string> model();           // DMI product name, else device-tree model
    static std::string systemName();                     // os-release NAME; "Linux" when not given
    static std::optional<std::string> systemVersion();   // os-release VERSION_ID
    static std::optional<std::string> machine();         // uname machine, as the kernel gives it
    static std::optional<std::string> executableName();  // file name of the running program, read once
    // From the first of LC_ALL, LC_MESSAGES, LANG that is set and not empty.
    static LocaleCodes currentLocale();
    // Parses a POSIX locale name, language[_territory][.codeset][@modifier]:
    // "de_AT.UTF-8" gives de and AT, "en" gives en alone, "C" and "POSIX"
    // (with any codeset) give neither. The language is two or three letters
    // (lower-cased), the region two letters (upper-cased) or three digits;
    // anything else is absent.
    static LocaleCodes parseLocale(std::string_view name);

    // Tests: forget host-supplied facts.
    static void reset();
};

}  // namespace tavrin::platform
