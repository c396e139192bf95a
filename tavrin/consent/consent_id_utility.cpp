#include "tavrin/consent/internal/consent_id_utility.h"

#include "tavrin/consent/internal/user_defaults_utility.h"
#include "tavrin/sdk/internal/logger_utility.h"
#include "tavrin/sdk/internal/tracking_settings.h"

namespace tavrin {

ConsentIDUtility::ConsentIDUtility() : ConsentIDUtility(TrackingSettings::shared()->container()) {}

ConsentIDUtility::ConsentIDUtility(const std::string& container) : consentIDKey(container + "_consentID") {}

void ConsentIDUtility::storeConsentID(const std::string& id) const {
    UserDefaultsUtility::setString(id, consentIDKey);
    LoggerUtility::shared().info(
        [&] { return "Consent ID successfully stored in UserDefaults with key: " + consentIDKey + "."; });
}

std::optional<std::string> ConsentIDUtility::retrieveConsentID() const {
    auto id = UserDefaultsUtility::string(consentIDKey);
    if (id)
        LoggerUtility::shared().info(
            [&] { return "Consent ID successfully retrieved from UserDefaults with key: " + consentIDKey + "."; });
    else
        LoggerUtility::shared().warning(
            [&] { return "No Consent ID found in UserDefaults with key " + consentIDKey + "."; });
    return id;
}

}  // namespace tavrin
