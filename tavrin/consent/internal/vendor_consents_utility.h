#pragma once
// The stored per-vendor consent decision. It is kept doubly encoded: the JSON
// object of statuses ({"vendorA":"allow"}) is saved as bytes, which the store
// helper writes as a JSON string of their base64. Nothing else reads back.

#include <optional>
#include <string>

#include "tavrin/consent/consent_status.h"
#include "tavrin/consent/internal/consent_status_coding.h"

namespace tavrin {

class VendorConsentsUtility {
public:
    explicit VendorConsentsUtility(std::string vendorConsentsKey = "VendorConsents")
        : vendorConsentsKey(std::move(vendorConsentsKey)) {}

    std::string vendorConsentsKey;

    void storeVendorConsents(const VendorConsents& consents) const;
    // The stored statuses already mapped to vendor values (allow -> true,
    // deny -> false, ncm -> "ncm"); missing and undecodable alike give nothing.
    std::optional<VendorValues> retrieveVendorConsents() const;
};

}  // namespace tavrin
