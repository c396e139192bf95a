#include "tavrin/model/internal/push_payload.h"

#include "tavrin/platform/internal/uuid.h"

namespace tavrin {

PushPayload::PushPayload(std::string track, std::string type, Properties customProperties, std::int64_t order,
                         std::optional<std::string> id)
    : track(std::move(track)),
      type(std::move(type)),
      customProperties(std::move(customProperties)),
      order(order),
      id(id ? std::move(*id) : platform::Uuid::make()) {}

const CodableValue* PushPayload::property(const std::string& key) const {
    if (const auto found = customProperties.find(key); found != customProperties.end()) return &found->second;
    if (!sharedProperties) return nullptr;
    const auto found = sharedProperties->find(key);
    return found != sharedProperties->end() ? &found->second : nullptr;
}

PushPayload::Properties PushPayload::properties() const {
    Properties all = customProperties;
    if (sharedProperties) all.insert(sharedProperties->begin(), sharedProperties->end());
    return all;
}

bool operator==(const PushPayload& a, const PushPayload& b) {
    return a.track == b.track && a.type == b.type && a.order == b.order && a.id == b.id &&
           a.properties() == b.properties();
}

Json PushPayload::encode() const {
    Json out = Json::object();
    out["track"] = track;
    out["type"] = type;
    out["customProperties"] = encodeJson(sharedProperties ? properties() : customProperties);
    out["order"] = order;
    out["id"] = id;
    return out;
}

PushPayload PushPayload::decode(const Decoder& decoder) {
    // A fresh id first, replaced by the stored one: decoding always ends with the stored id.
    std::string id = platform::Uuid::make();
    auto track = decodeMember<std::string>(decoder, "track");
    auto type = decodeMember<std::string>(decoder, "type");
    auto properties = decodeMember<Properties>(decoder, "customProperties");
    auto order = decodeMember<std::int64_t>(decoder, "order");
    id = decodeMember<std::string>(decoder, "id");
    return PushPayload(std::move(track), std::move(type), std::move(properties), order, std::move(id));
}

}  // namespace tavrin
