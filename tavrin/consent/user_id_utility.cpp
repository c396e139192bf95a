#include "tavrin/consent/internal/user_id_utility.h"

#include "tavrin/platform/internal/pattern.h"
#include "tavrin/platform/internal/secure_random.h"
#include "tavrin/platform/internal/timestamp_utility.h"
#include "tavrin/sdk/internal/logger_utility.h"
#include "tavrin/sdk/internal/user_defaults_utility.h"

namespace tavrin {

namespace {
constexpr std::int64_t kRandomPartMax = 100000;
}  // namespace

void UserIDUtility::storeUserID(const std::string& id) const {
    UserDefaultsUtility::setString(id, userIDKey);
    LoggerUtility::shared().info(
        [&] { return "User ID successfully stored in UserDefaults with key: " + userIDKey + "."; });
}

std::optional<std::string> UserIDUtility::retrieveUserID() const {
    auto read = UserDefaultsUtility::readString(userIDKey);
    const std::string unreadable = read ? std::string() : read.error().message;
    auto id = read ? std::move(read).value() : std::nullopt;
    // A foreign value is named before the usual "not found" line, which alone
    // would read like a fresh install.
    if (!unreadable.empty())
        LoggerUtility::shared().warning(
            [&] { return "User ID: the value stored under key " + userIDKey + " " + unreadable + "; it is ignored."; });
    if (id)
        LoggerUtility::shared().info(
            [&] { return "User ID successfully retrieved from UserDefaults with key: " + userIDKey + "."; });
    else
        LoggerUtility::shared().warning([&] { return "No User ID found in UserDefaults with key " + userIDKey + "."; });
    return id;
}

std::string UserIDUtility::generateUserID() {
    return generateUserID(
        [](std::int64_t low, std::int64_t high) { return platform::SecureRandom::uniform(low, high); });
}

std::string UserIDUtility::generateUserID(const UniformDraw& draw) {
    const std::int64_t millis = TimestampUtility::currentTimestampInMillis();
    const std::int64_t first = draw(0, kRandomPartMax);
    const std::int64_t second = draw(0, kRandomPartMax);
    return std::to_string(first) + std::to_string(millis) + std::to_string(second);
}

std::pair<std::string, std::string> detail::currentUserID(const UserIDUtility& utility) {
    // Leaked: submissions may still run on pool threads while statics are destroyed at exit.
    static const auto* pattern = new platform::Pattern("^[0-9]{1,5}[0-9]{13}[0-9]{1,5}$");
    if (auto stored = utility.retrieveUserID()) {
        if (pattern->matches(*stored)) return {*stored, "update"};
        // Replacing the identifier splits the user's history, so say why.
        LoggerUtility::shared().warning([&] {
            return "The User ID stored under key " + utility.userIDKey + " is not well formed (" +
                   std::to_string(stored->size()) + " bytes); a new one is generated.";
        });
    }
    auto fresh = UserIDUtility::generateUserID();
    utility.storeUserID(fresh);
    return {std::move(fresh), "new"};
}

}  // namespace tavrin
