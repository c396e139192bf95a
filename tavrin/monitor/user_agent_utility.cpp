#include "tavrin/monitor/internal/user_agent_utility.h"

#include <algorithm>
#include <cstdint>

#include "tavrin/monitor/internal/device_info_utility.h"

namespace tavrin {

namespace detail {

bool isValidUtf8(std::string_view text) noexcept {
    std::size_t i = 0;
    const std::size_t n = text.size();
    while (i < n) {
        const auto c = static_cast<std::uint8_t>(text[i]);
        if (c < 0x80) {
            ++i;
            continue;
        }
        std::size_t length;
        std::uint8_t low = 0x80, high = 0xBF;  // allowed range of the second byte
        if (c >= 0xC2 && c <= 0xDF) {
            length = 2;
        } else if (c >= 0xE0 && c <= 0xEF) {
            length = 3;
            if (c == 0xE0) low = 0xA0;   // overlong
            if (c == 0xED) high = 0x9F;  // surrogates
        } else if (c >= 0xF0 && c <= 0xF4) {
            length = 4;
            if (c == 0xF0) low = 0x90;   // overlong
            if (c == 0xF4) high = 0x8F;  // above U+10FFFF
        } else {
            return false;
        }
        if (n - i < length) return false;
        const auto second = static_cast<std::uint8_t>(text[i + 1]);
        if (second < low || second > high) return false;
        for (std::size_t k = 2; k < length; ++k) {
            const auto b = static_cast<std::uint8_t>(text[i + k]);
            if (b < 0x80 || b > 0xBF) return false;
        }
        i += length;
    }
    return true;
}

}  // namespace detail

std::string UserAgentUtility::userAgent(std::string_view sdkName, std::string_view version, std::string_view build) {
    const auto facts = DeviceInfoUtility::fixedFacts();
    std::string systemVersion = facts->systemVersion;
    std::replace(systemVersion.begin(), systemVersion.end(), '.', '_');
    const std::string machine =
        facts->machine && detail::isValidUtf8(*facts->machine) ? *facts->machine : std::string("unknown");

    std::string out;
    out.reserve(32 + systemVersion.size() + machine.size() + sdkName.size() + version.size() + build.size());
    out += "iOS; iPhone OS ";
    out += systemVersion;
    out += "; ";
    out += machine;
    out += " [";
    out += sdkName;
    out += "/v.";
    out += version;
    out += ".";
    out += build;
    out += "]";
    return out;
}

}  // namespace tavrin
