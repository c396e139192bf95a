#include "tavrin/consent/consent_status.h"
#include "tavrin/consent/internal/consent_status_coding.h"

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

Json encodeJson(ConsentStatus status) { return Json(rawValue(status)); }

Json encodeJson(const VendorValue& value) {
    if (value.kind() == VendorValue::Kind::boolean) return Json(value.asBool());
    return Json(value.asString());
}

VendorValue JsonDecode<VendorValue>::decode(const Decoder& decoder) {
    // The JSON type decides: a boolean first, then a string.
    const Json& node = decoder.json();
    if (node.is_boolean()) return VendorValue::boolean(node.get<bool>());
    if (node.is_string()) return VendorValue::string(node.get<std::string>());
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
