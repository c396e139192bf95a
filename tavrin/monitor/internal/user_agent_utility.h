#pragma once
// The user-agent text that every submission carries.

#include <string>
#include <string_view>

namespace tavrin {

class UserAgentUtility {
public:
    // "iOS; iPhone OS " + system version with "." as "_" + "; " + machine +
    // " [" + sdkName + "/v." + version + "." + build + "]". The leading words
    // are fixed whatever the device. A machine name that is missing or not
    // valid UTF-8 reads "unknown".
    static std::string userAgent(std::string_view sdkName, std::string_view version, std::string_view build);
};

}  // namespace tavrin
