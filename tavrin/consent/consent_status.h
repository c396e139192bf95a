#pragma once
// The user's consent decision for one vendor, as an application hands it to
// TrackingService::setConsents, and the loosely typed value a vendor's
// decision takes on the wire (a boolean or a text).
//
//     tavrin::VendorConsents consents{{"analytics", tavrin::ConsentStatus::allow},
//                                     {"ads", tavrin::ConsentStatus::deny},
//                                     {"chat", tavrin::ConsentStatus::ncm}};
//     std::future<bool> accepted = tavrin::TrackingService::shared()->setConsents(consents);
//     // The report carries true, false or the text "ncm" per vendor; a log line shows them as
//     // ["ads": bool(false), "analytics": bool(true), "chat": string("ncm")]
//     std::string line = tavrin::describe(tavrin::toVendorValues(consents));
//     auto status = tavrin::consentStatusFromRawValue("deny");  // ConsentStatus::deny; "Deny" gives nothing

#include <array>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "tavrin/platform/api.h"

namespace tavrin {

// Encoded as the text of its case name.
enum class ConsentStatus { allow, deny, ncm };

inline constexpr std::array<ConsentStatus, 3> allConsentStatuses{ConsentStatus::allow, ConsentStatus::deny,
                                                                 ConsentStatus::ncm};

// "allow", "deny", "ncm".
constexpr const char* rawValue(ConsentStatus status) noexcept {
    switch (status) {
        case ConsentStatus::allow: return "allow";
        case ConsentStatus::deny: return "deny";
        case ConsentStatus::ncm: return "ncm";
    }
    return "";
}
// Exactly the three raw values (case-sensitive); anything else gives nothing.
TAVRIN_API std::optional<ConsentStatus> consentStatusFromRawValue(std::string_view raw) noexcept;

class TAVRIN_API VendorValue {
public:
    // Case order is also the case tag.
    enum class Kind { boolean = 0, string = 1 };

    static VendorValue boolean(bool value) { return VendorValue(std::in_place_index<0>, value); }
    static VendorValue string(std::string value) { return VendorValue(std::in_place_index<1>, std::move(value)); }

    Kind kind() const noexcept { return static_cast<Kind>(storage_.index()); }
    // Accessors throw std::bad_variant_access when the case differs.
    bool asBool() const { return std::get<0>(storage_); }
    const std::string& asString() const { return std::get<1>(storage_); }

    // Equal when the same case holds the same value.
    friend bool operator==(const VendorValue&, const VendorValue&) = default;

private:
    using Storage = std::variant<bool, std::string>;
    // Built in place: no temporary variant to copy from.
    template <std::size_t I, class V>
    VendorValue(std::in_place_index_t<I> tag, V&& value) : storage_(tag, std::forward<V>(value)) {}

    Storage storage_;
};

using VendorConsents = std::map<std::string, ConsentStatus>;
using VendorValues = std::map<std::string, VendorValue>;

// allow -> true, deny -> false, ncm -> the text "ncm".
TAVRIN_API VendorValue toVendorValue(ConsentStatus status);
TAVRIN_API VendorValues toVendorValues(const VendorConsents& consents);

// Readable forms for log lines: "bool(true)", "string(\"ncm\")", and
// ["a": bool(true), "b": string("ncm")] for a map ([:] when empty).
TAVRIN_API std::string describe(const VendorValue& value);
TAVRIN_API std::string describe(const VendorValues& values);

}  // namespace tavrin
