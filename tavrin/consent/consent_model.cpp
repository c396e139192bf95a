#include "tavrin/consent/internal/consent_model.h"

namespace tavrin {

using Identifier = ConsentModel::DataClass::Identifier;
using Consent = ConsentModel::DataClass::Consent;

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
