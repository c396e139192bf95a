#include "tavrin/model/internal/data_submission_model.h"

#include <algorithm>
#include <iterator>

namespace tavrin {

using DataClass = DataSubmissionModel::DataClass;
using Identifier = DataClass::Identifier;
using Variables = DataClass::Variables;

namespace {

// Encodes one member; an EncodingError from inside it gets the member's key
// in front of its path, so the error names the value's place in the document.
template <class F>
Json member(const std::string& key, F&& encode) {
    try {
        return encode();
    } catch (const EncodingError& error) {
        CodingPath full{key};
        full.insert(full.end(), error.codingPath().begin(), error.codingPath().end());
        throw EncodingError(error.value(), std::move(full), error.debugDescription());
    }
}

// A text-keyed map, each value encoded as its own member.
template <class T, class Encode>
Json members(const std::map<std::string, T>& values, Encode&& encode) {
    Json out = jsonObject(values.size());
    // Not a structured binding: the lambda captures the value (clang < 16 cannot).
    for (const auto& entry : values) out[entry.first] = member(entry.first, [&] { return encode(entry.second); });
    return out;
}

}  // namespace

Json encodeJson(const Enrichment& enrichment) {
    Json out = Json::object();
    out["arguments"] = member("arguments", [&] {
        return members(enrichment.arguments, [](const CodableValue& value) { return encodeJson(value); });
    });
    out["variables"] = encodeJson(enrichment.variables);
    return out;
}

Enrichment JsonDecode<Enrichment>::decode(const Decoder& decoder) {
    Enrichment out;
    out.arguments = decodeMember<std::map<std::string, CodableValue>>(decoder, "arguments");
    out.variables = decodeMember<std::vector<std::string>>(decoder, "variables");
    return out;
}

Json DataSubmissionModel::VendorConsentStatus::encode() const {
    Json out = Json::object();
    out["status"] = member("status", [&] { return encodeJson(status); });
    return out;
}

DataSubmissionModel::VendorConsentStatus DataSubmissionModel::VendorConsentStatus::decode(const Decoder& decoder) {
    return VendorConsentStatus{decodeMember<CodableValue>(decoder, "status")};
}

Json Identifier::encode() const {
    Json out = Json::object();
    out["user"] = user.encode();
    out["session"] = session.encode();
    return out;
}

Identifier Identifier::decode(const Decoder& decoder) {
    Identifier out;
    out.user = decodeMember<User>(decoder, "user");
    out.session = decodeMember<Session>(decoder, "session");
    return out;
}

Json Variables::encode() const {
    Json out = jsonObject(std::size(fixedKeys) + customProperties.size());
    out["document_location_href"] = documentLocationHref;
    out["fb_browser_id"] = fbBrowserId;
    out["tvrpushedcommands"] = encodeJson(tvrpushedcommands);
    for (const auto& entry : customProperties)
        out[entry.first] = member(entry.first, [&] { return encodeJson(entry.second); });
    return out;
}

Variables Variables::decode(const Decoder& decoder) {
    Variables out;
    out.documentLocationHref = decodeMember<std::string>(decoder, "document_location_href");
    out.fbBrowserId = decodeMember<std::string>(decoder, "fb_browser_id");
    out.tvrpushedcommands = decodeMember<std::vector<std::string>>(decoder, "tvrpushedcommands");
    for (const auto& [name, member] : decoder.members()) {
        if (std::find(std::begin(fixedKeys), std::end(fixedKeys), name) != std::end(fixedKeys)) continue;
        out.customProperties.insert_or_assign(name, decodeJson<CodableValue>(member));
    }
    return out;
}

Json DataClass::encode() const {
    Json out = jsonObject(3);
    out["identifier"] = identifier.encode();
    out["variables"] = member("variables", [&] { return variables.encode(); });
    if (enrichment) {
        out["enrichment"] = member("enrichment", [&] {
            return members(*enrichment, [](const Enrichment& value) { return encodeJson(value); });
        });
    }
    return out;
}

DataClass DataClass::decode(const Decoder& decoder) {
    DataClass out;
    out.identifier = decodeMember<Identifier>(decoder, "identifier");
    out.variables = decodeMember<Variables>(decoder, "variables");
    out.enrichment = decodeMemberIfPresent<std::map<std::string, Enrichment>>(decoder, "enrichment");
    return out;
}

Json DataSubmissionModel::encode() const {
    Json out = jsonObject(5);
    out["version"] = version;
    out["system"] = system.encode();
    out["consent"] = member(
        "consent", [&] { return members(consent, [](const VendorConsentStatus& value) { return value.encode(); }); });
    out["configuration"] = configuration.encode();
    out["data"] = member("data", [&] { return data.encode(); });
    return out;
}

DataSubmissionModel DataSubmissionModel::decode(const Decoder& decoder) {
    DataSubmissionModel out;
    out.version = decodeMember<std::string>(decoder, "version");
    out.system = decodeMember<System>(decoder, "system");
    out.consent = decodeMember<std::map<std::string, VendorConsentStatus>>(decoder, "consent");
    out.configuration = decodeMember<Configuration>(decoder, "configuration");
    out.data = decodeMember<DataClass>(decoder, "data");
    return out;
}

}  // namespace tavrin
