#include "tavrin/consent/internal/consent_id_utility.h"

#include <algorithm>
#include <cctype>

#include "tavrin/platform/internal/uuid.h"
#include "tavrin/sdk/internal/logger_utility.h"
#include "tavrin/sdk/internal/tracking_settings.h"
#include "tavrin/sdk/internal/user_defaults_utility.h"

namespace tavrin {

ConsentIDUtility::ConsentIDUtility() : ConsentIDUtility(TrackingSettings::shared()->container()) {}

ConsentIDUtility::ConsentIDUtility(const std::string& container) : consentIDKey(container + "_consentID") {}

void ConsentIDUtility::storeConsentID(const std::string& id) const {
    UserDefaultsUtility::setString(id, consentIDKey);
    LoggerUtility::shared().info(
        [&] { return "Consent ID successfully stored in UserDefaults with key: " + consentIDKey + "."; });
}

std::optional<std::string> ConsentIDUtility::retrieveConsentID() const {
    auto read = UserDefaultsUtility::readString(consentIDKey);
    const std::string unreadable = read ? std::string() : read.error().message;
    auto id = read ? std::move(read).value() : std::nullopt;
    if (!unreadable.empty())
        LoggerUtility::shared().warning([&] {
            return "Consent ID: the value stored under key " + consentIDKey + " " + unreadable + "; it is ignored.";
        });
    if (id)
        LoggerUtility::shared().info(
            [&] { return "Consent ID successfully retrieved from UserDefaults with key: " + consentIDKey + "."; });
    else
        LoggerUtility::shared().warning(
            [&] { return "No Consent ID found in UserDefaults with key " + consentIDKey + "."; });
    return id;
}

std::optional<std::string> ConsentIDUtility::whyUnusable(std::string_view id) {
    if (id.empty()) return "it is empty";
    if (id.size() > kMaxLength) return std::to_string(id.size()) + " bytes, more than " + std::to_string(kMaxLength);
    for (unsigned char c : id)
        if (c < 0x21 || c > 0x7e) return "it holds bytes that are not printable ASCII";
    return std::nullopt;
}

std::pair<std::string, std::string> detail::currentConsentID(const ConsentIDUtility& utility) {
    auto stored = utility.retrieveConsentID();
    if (stored) {
        if (auto why = ConsentIDUtility::whyUnusable(*stored)) {
            LoggerUtility::shared().warning([&] {
                return "The Consent ID stored under key " + utility.consentIDKey + " is not usable (" + *why +
                       "); a new one is generated.";
            });
        } else {
            return {std::move(*stored), "update"};  // an upper-case id of an earlier version stays as it is
        }
    }
    std::string fresh = platform::Uuid::make();
    std::transform(fresh.begin(), fresh.end(), fresh.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    utility.storeConsentID(fresh);
    return {std::move(fresh), "new"};
}

}  // namespace tavrin
