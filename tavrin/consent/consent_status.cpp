#include "tavrin/consent/consent_status.h"

namespace tavrin {

std::optional<ConsentStatus> consentStatusFromRawValue(std::string_view raw) noexcept {
    for (ConsentStatus status : allConsentStatuses)
        if (raw == rawValue(status)) return status;
    return std::nullopt;
}

ConsentStatus JsonDecode<ConsentStatus>::decode(const Decoder& decoder) {
    auto status = consentStatusFromRawValue(decoder.decodeString());
    if (!status) decoder.dataCorrupted("Invalid value for ConsentStatus");
    return *status;
}

Json VendorValue::encode() const {
    if (kind() == Kind::boolean) return Json(asBool());
    return Json(asString());
}

VendorValue VendorValue::decode(const Decoder& decoder) {
    try {
        return boolean(decoder.decodeBool());
    } catch (const DecodingError&) {
    }
    try {
        return string(decoder.decodeString());
    } catch (const DecodingError&) {
    }
    throw DecodingError(DecodingError::Kind::typeMismatch, decoder.codingPath(), "Failed to decode VendorValue");
}

VendorValue toVendorValue(ConsentStatus status) {
    switch (status) {
        case ConsentStatus::allow: return VendorValue::boolean(true);
        case ConsentStatus::deny: return VendorValue::boolean(false);
        case ConsentStatus::ncm: return VendorValue::string("ncm");
    }
    return VendorValue::string(rawValue(status));
}

VendorValues toVendorValues(const VendorConsents& consents) {
    VendorValues out;
    for (const auto& [vendor, status] : consents) out.emplace(vendor, toVendorValue(status));
    return out;
}

std::string describe(const VendorValue& value) {
    if (value.kind() == VendorValue::Kind::boolean) return value.asBool() ? "bool(true)" : "bool(false)";
    return "string(" + platform::dumpJson(Json(value.asString())) + ")";
}

std::string describe(const VendorValues& values) {
    if (values.empty()) return "[:]";
    std::string out = "[";
    bool first = true;
    for (const auto& [vendor, value] : values) {
        if (!first) out += ", ";
        first = false;
        out += platform::dumpJson(Json(vendor)) + ": " + describe(value);
    }
    return out + "]";
}

}  // namespace tavrin
