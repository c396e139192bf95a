#pragma once
// Device and application facts: the host application supplies what only it
// knows (bundle keys and identifier, screen size); the rest is read from the
// system. A fact that cannot be found is absent, so callers apply their own
// fallbacks.

#include <optional>
#include <string>
#include <string_view>

#include "tavrin/platform/json.h"

namespace tavrin::platform {

// What the host application tells about itself, before configuring the SDK.
struct ApplicationInfo {
    std::optional<std::string> bundleIdentifier;
    // Information dictionary: "CFBundleDisplayName", "CFBundleName",
    // "CFBundleShortVersionString", "CFBundleVersion". A value that is not
    // text counts as absent.
    Json infoDictionary = Json::object();
};

struct ScreenBounds {
    double width = 0;   // points
    double height = 0;  // points
};

struct LocaleCodes {
    std::optional<std::string> languageCode;  // "de" of "de_AT.UTF-8"
    std::optional<std::string> regionCode;    // "AT" of "de_AT.UTF-8"
};

class DeviceFacts {
public:
    // Host-supplied facts.
    static void setApplicationInfo(ApplicationInfo info);
    static ApplicationInfo applicationInfo();
    static std::optional<std::string> bundleIdentifier();
    // Text value of an information-dictionary key; bundle name falls back to
    // the executable's name.
    static std::optional<std::string> infoDictionaryString(std::string_view key);
    static void setScreenBounds(std::optional<ScreenBounds> bounds);
    static std::optional<ScreenBounds> screenBounds();

    // System facts (read from the system each call; callers cache what cannot change).
    static std::optional<std::string> model();          // DMI product name or device-tree model
    static std::optional<std::string> systemName();     // os-release NAME
    static std::optional<std::string> systemVersion();  // os-release VERSION_ID
    static std::optional<std::string> machine();        // uname machine
    // From LC_ALL, LC_MESSAGES, LANG (first one set); "C" and "POSIX" give neither code.
    static LocaleCodes currentLocale();
    // Parses a POSIX locale name such as "de_AT.UTF-8@euro".
    static LocaleCodes parseLocale(std::string_view name);

    // Tests: forget host-supplied facts.
    static void reset();
};

}  // namespace tavrin::platform
