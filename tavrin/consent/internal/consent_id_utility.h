#pragma once
// The consent identifier of one tracking container in the key-value store.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

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

    // Why a stored identifier cannot be reported as it is (empty, longer
    // than kMaxLength bytes, or a byte that is not printable ASCII); nothing
    // when it can. Ours are 36-character UUIDs; anything else came from
    // outside, and a byte that is not UTF-8 would reach the server altered.
    static constexpr std::size_t kMaxLength = 128;
    static std::optional<std::string> whyUnusable(std::string_view id);
};

namespace detail {
// The stored consent identifier when it can be reported as it is ("update"),
// else a new lower-case UUID, stored ("new").
std::pair<std::string, std::string> currentConsentID(const ConsentIDUtility& utility);
}  // namespace detail

}  // namespace tavrin
