#include "tavrin/monitor/internal/user_agent_utility.h"

#include <algorithm>
#include <cstdint>

#include "tavrin/monitor/internal/device_info_utility.h"
#include "tavrin/platform/internal/text.h"

namespace tavrin {

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
