#pragma once
// One pushed command as it waits in the data layer for the next submission.

#include <cstdint>
#include <map>
#include <memory>
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
    // Properties many pushes have in common (the device facts), kept once
    // for all of them; none of their keys is among customProperties.
    std::shared_ptr<const Properties> sharedProperties;

    // A missing id gets a fresh random UUID.
    PushPayload(std::string track, std::string type, Properties customProperties, std::int64_t order,
                std::optional<std::string> id = std::nullopt);

    // One property of the push, its own or shared; null when absent.
    const CodableValue* property(const std::string& key) const;
    // Every property of the push, its own and the shared ones, in one dictionary.
    Properties properties() const;

    // Members in the order track, type, customProperties (every property), order, id.
    Json encode() const;
    // Every member required; the stored id is kept.
    static PushPayload decode(const Decoder& decoder);

    // Equal when they carry the same properties, however they are kept.
    friend bool operator==(const PushPayload& a, const PushPayload& b);
};

}  // namespace tavrin
