#pragma once
// The consent identifier of one tracking container in the key-value store.

#include <optional>
#include <string>

namespace tavrin {

class ConsentIDUtility {
public:
    // Key of the container of the active configuration (TrackingSettings);
    // without one this is the fatal stop of the settings.
    ConsentIDUtility();
    // Key container + "_consentID".
    explicit ConsentIDUtility(const std::string& container);

    std::string consentIDKey;

    void storeConsentID(const std::string& id) const;
    // Logs whether one was found.
    std::optional<std::string> retrieveConsentID() const;
};

}  // namespace tavrin
