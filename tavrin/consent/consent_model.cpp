#include "tavrin/consent/internal/consent_model.h"

#include <utility>

#include "tavrin/sdk/internal/logger_utility.h"

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

ConsentModel ConsentModel::make(RecordHeader header, IdentifierRecord user, IdentifierRecord consent,
                                std::int64_t lastupdate, VendorValues decision, VendorValues changed) {
    ConsentModel model;
    std::move(header).applyTo(model);
    model.data.identifier = {.user = std::move(user), .consent = std::move(consent)};
    model.data.consent.lastupdate = lastupdate;
    model.data.consent.vendors = std::move(decision);
    model.data.consent.vendorsChanged = std::move(changed);
    return model;
}

VendorValues changedVendors(const VendorValues& decision, const VendorValues& previous) {
    auto& logger = LoggerUtility::shared();
    VendorValues changed;
    for (const auto& entry : decision) {
        // Plain references, not a structured binding: the log lambdas capture
        // the name, which clang accepts only from version 16 on.
        const std::string& vendor = entry.first;
        const VendorValue& value = entry.second;
        const auto found = previous.find(vendor);
        if (found == previous.end()) {
            logger.debug([&] { return "Key '" + vendor + "' is new. Adding to vendorChangesMapped."; });
            changed.insert_or_assign(vendor, value);
        } else if (!(found->second == value)) {
            logger.debug([&] { return "Key '" + vendor + "' values differ. Adding to vendorChangesMapped."; });
            changed.insert_or_assign(vendor, value);
        } else {
            logger.debug([&] { return "Key '" + vendor + "' values are the same. Skipping."; });
        }
    }
    logger.debug([&] { return "Final vendorChangesMapped: " + describe(changed); });
    return changed;
}

}  // namespace tavrin
