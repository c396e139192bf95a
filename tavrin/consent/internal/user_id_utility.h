#pragma once
// The device's user identifier in the key-value store, and its generator.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>

namespace tavrin {

class UserIDUtility {
public:
    // Draws a uniform integer in [low, high], both inclusive.
    using UniformDraw = std::function<std::int64_t(std::int64_t low, std::int64_t high)>;

    std::string userIDKey = "global_user_id";

    void storeUserID(const std::string& id) const;
    // Logs whether one was found.
    std::optional<std::string> retrieveUserID() const;

    // Digits only: a random 0...100000, the current time in whole
    // milliseconds since 1970, a second random 0...100000. Neither stores nor
    // logs. A clock value that is not finite or does not fit 64 bits is a
    // fatal stop.
    static std::string generateUserID();
    // The same with the random parts drawn from `draw` (first, then second).
    static std::string generateUserID(const UniformDraw& draw);
};

namespace detail {
// The stored user id when it has the expected shape ("update"), else a new
// one, stored ("new").
std::pair<std::string, std::string> currentUserID(const UserIDUtility& utility);
}  // namespace detail

}  // namespace tavrin
