#pragma once
// One pushed command as it waits in the data layer for the next submission.

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "tavrin/model/codable_value.h"
#include "tavrin/model/internal/codable_value_coding.h"

namespace tavrin {

struct PushPayload {
    using Properties = std::map<std::string, CodableValue>;

    std::string track;
    std::string type;
    Properties customProperties;
    std::int64_t order = 0;
    std::string id;  // canonical upper-case UUID text

    // A missing id gets a fresh random UUID.
    PushPayload(std::string track, std::string type, Properties customProperties, std::int64_t order,
                std::optional<std::string> id = std::nullopt);

    // Members in the order track, type, customProperties, order, id.
    Json encode() const;
    // Every member required; the stored id is kept.
    static PushPayload decode(const Decoder& decoder);

    friend bool operator==(const PushPayload&, const PushPayload&) = default;
};

}  // namespace tavrin
