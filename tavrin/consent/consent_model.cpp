#include "tavrin/consent/internal/consent_model.h"

namespace tavrin {

using Identifier = ConsentModel::DataClass::Identifier;
using Consent = ConsentModel::DataClass::Consent;

Json ConsentModel::System::encode() const {
    Json out = Json::object();
    out["type"] = type;
    out["timestamp"] = timestamp;
    out["navigator-userAgent"] = navigatorUserAgent;
    out["initiator"] = initiator;
    return out;
}

ConsentModel::System ConsentModel::System::decode(const Decoder& decoder) {
    System out;
    out.type = decodeMember<std::string>(decoder, "type");
    out.timestamp = decodeMember<std::int64_t>(decoder, "timestamp");
    out.navigatorUserAgent = decodeMember<std::string>(decoder, "navigator-userAgent");
    out.initiator = decodeMember<std::string>(decoder, "initiator");
    return out;
}

Json ConsentModel::Configuration::encode() const {
    Json out = Json::object();
    out["container"] = container;
    out["environment"] = environment;
    encodeMemberIfPresent(out, "version", version);
    encodeMemberIfPresent(out, "debugcode", debugcode);
    return out;
}

ConsentModel::Configuration ConsentModel::Configuration::decode(const Decoder& decoder) {
    Configuration out;
    out.container = decodeMember<std::string>(decoder, "container");
    out.environment = decodeMember<std::string>(decoder, "environment");
    out.version = decodeMemberIfPresent<std::string>(decoder, "version");
    out.debugcode = decodeMemberIfPresent<std::string>(decoder, "debugcode");
    return out;
}

Json Identifier::User::encode() const {
    Json out = Json::object();
    out["id"] = id;
    out["action"] = action;
    return out;
}

Identifier::User Identifier::User::decode(const Decoder& decoder) {
    User out;
    out.id = decodeMember<std::string>(decoder, "id");
    out.action = decodeMember<std::string>(decoder, "action");
    return out;
}

Json Identifier::ConsentID::encode() const {
    Json out = Json::object();
    out["id"] = id;
    out["action"] = action;
    return out;
}

Identifier::ConsentID Identifier::ConsentID::decode(const Decoder& decoder) {
    ConsentID out;
    out.id = decodeMember<std::string>(decoder, "id");
    out.action = decodeMember<std::string>(decoder, "action");
    return out;
}

Json Identifier::encode() const {
    Json out = Json::object();
    out["user"] = user.encode();
    out["consent"] = consent.encode();
    return out;
}

Identifier Identifier::decode(const Decoder& decoder) {
    Identifier out;
    out.user = decodeMember<User>(decoder, "user");
    out.consent = decodeMember<ConsentID>(decoder, "consent");
    return out;
}

Json Consent::encode() const {
    Json out = Json::object();
    out["lastupdate"] = lastupdate;
    out["data"] = encodeJson(data);
    out["vendors"] = encodeJson(vendors);
    out["vendorsChanged"] = encodeJson(vendorsChanged);
    return out;
}

Consent Consent::decode(const Decoder& decoder) {
    Consent out;
    out.lastupdate = decodeMember<std::int64_t>(decoder, "lastupdate");
    out.data = decodeMember<std::map<std::string, std::string>>(decoder, "data");
    out.vendors = decodeMember<std::map<std::string, VendorValue>>(decoder, "vendors");
    out.vendorsChanged = decodeMember<std::map<std::string, VendorValue>>(decoder, "vendorsChanged");
    return out;
}

Json ConsentModel::DataClass::encode() const {
    Json out = Json::object();
    out["identifier"] = identifier.encode();
    out["consent"] = consent.encode();
    return out;
}

ConsentModel::DataClass ConsentModel::DataClass::decode(const Decoder& decoder) {
    DataClass out;
    out.identifier = decodeMember<Identifier>(decoder, "identifier");
    out.consent = decodeMember<Consent>(decoder, "consent");
    return out;
}

Json ConsentModel::encode() const {
    Json out = Json::object();
    out["version"] = version;
    out["system"] = system.encode();
    out["configuration"] = configuration.encode();
    out["data"] = data.encode();
    return out;
}

ConsentModel ConsentModel::decode(const Decoder& decoder) {
    ConsentModel out;
    out.version = decodeMember<std::string>(decoder, "version");
    out.system = decodeMember<System>(decoder, "system");
    out.configuration = decodeMember<Configuration>(decoder, "configuration");
    out.data = decodeMember<DataClass>(decoder, "data");
    return out;
}

}  // namespace tavrin
