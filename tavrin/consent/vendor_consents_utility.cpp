#include "tavrin/consent/internal/vendor_consents_utility.h"

#include "tavrin/sdk/internal/logger_utility.h"
#include "tavrin/sdk/internal/user_defaults_utility.h"

namespace tavrin {

void VendorConsentsUtility::storeVendorConsents(const VendorConsents& consents) const {
    auto& logger = LoggerUtility::shared();
    Bytes encoded;
    try {
        encoded = UserDefaultsUtility::encodedBytes(encodeJson(consents));
    } catch (const std::exception& error) {
        logger.error([&] { return std::string("Failed to store Vendor Consents. Encoding error: ") + error.what(); });
        return;
    }
    UserDefaultsUtility::save(encoded, vendorConsentsKey);
    logger.info(
        [&] { return "Vendor consents successfully stored in UserDefaults with key: " + vendorConsentsKey + "."; });
    // The strict encoding above only produces valid UTF-8, so the text is the bytes.
    logger.debug([&] { return "Stored Vendor Consents (Raw JSON): " + platform::toString(encoded); });
}

std::optional<VendorValues> VendorConsentsUtility::retrieveVendorConsents() const {
    auto& logger = LoggerUtility::shared();
    auto data = UserDefaultsUtility::readData(vendorConsentsKey);
    std::string unreadable = data ? std::string() : data.error().message;
    if (data && *data) {
        try {
            auto consents = decodeJson<VendorConsents>(platform::toString(**data));
            logger.info([&] {
                return "Vendor consents successfully retrieved from UserDefaults with key: " + vendorConsentsKey + ".";
            });
            return toVendorValues(consents);
        } catch (const DecodingError& error) {
            unreadable = UserDefaultsUtility::decodingFailure(error);
        }
    }
    // Something stored that cannot be read is said before the line a fresh
    // install also gets.
    if (!unreadable.empty())
        logger.warning([&] {
            return "Vendor consents: the value stored under key " + vendorConsentsKey + " " + unreadable +
                   "; they are ignored.";
        });
    logger.warning([&] { return "No vendor consents found in UserDefaults with key " + vendorConsentsKey + "."; });
    return std::nullopt;
}

}  // namespace tavrin
