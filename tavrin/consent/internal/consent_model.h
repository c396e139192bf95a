#pragma once
// The JSON document that carries a consent decision to the tracking server.
// Members encode in declaration order; absent optionals are left out.

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "tavrin/consent/consent_status.h"
#include "tavrin/consent/internal/consent_status_coding.h"
#include "tavrin/platform/internal/coding.h"
#include "tavrin/sdk/internal/record_parts.h"

namespace tavrin {

struct ConsentModel {
    using System = SystemRecord;
    using Configuration = ConfigurationRecord;

    struct DataClass {
        struct Identifier {
            using User = IdentifierRecord;
            using ConsentID = IdentifierRecord;

            User user;
            ConsentID consent;

            Json encode() const;
            static Identifier decode(const Decoder& decoder);
            friend bool operator==(const Identifier&, const Identifier&) = default;
        };

        struct Consent {
            using VendorValue = tavrin::VendorValue;

            std::int64_t lastupdate = 0;  // milliseconds since 1970
            std::map<std::string, std::string> data;
            std::map<std::string, VendorValue> vendors;
            std::map<std::string, VendorValue> vendorsChanged;

            Json encode() const;
            static Consent decode(const Decoder& decoder);
            friend bool operator==(const Consent&, const Consent&) = default;
        };

        Identifier identifier;
        Consent consent;

        Json encode() const;
        static DataClass decode(const Decoder& decoder);
        friend bool operator==(const DataClass&, const DataClass&) = default;
    };

    std::string version;
    System system;
    Configuration configuration;
    DataClass data;

    // The report of `decision` by the user and consent identifiers, made at
    // `lastupdate`; `changed` is what differs from the previous decision.
    static ConsentModel make(RecordHeader header, IdentifierRecord user, IdentifierRecord consent,
                             std::int64_t lastupdate, VendorValues decision, VendorValues changed);

    Json encode() const;
    static ConsentModel decode(const Decoder& decoder);
    friend bool operator==(const ConsentModel&, const ConsentModel&) = default;
};

// The vendors of `decision` that are new or whose value differs from
// `previous`, each logged at debug level. Vendors dropped from the decision
// are deliberately not reported.
VendorValues changedVendors(const VendorValues& decision, const VendorValues& previous);

}  // namespace tavrin
