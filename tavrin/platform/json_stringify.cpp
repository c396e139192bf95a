#include "tavrin/platform/internal/json_stringify.h"

#include "tavrin/platform/internal/log_hook.h"

namespace tavrin::detail {

std::string stringifyFailure(const std::exception& error) {
    const std::string description = error.what();
    platform::logError([&] { return "Failed to encode object to JSON: " + description; });
    return "Error: JSON encoding failed. " + description;
}

std::string stringifyEncoded(const Json& json) {
    try {
        // Strict serialisation: text that is not valid UTF-8 cannot become a JSON string.
        return json.dump();
    } catch (const Json::exception&) {
        return "Error: Failed to convert JSON data to string.";
    }
}

}  // namespace tavrin::detail
