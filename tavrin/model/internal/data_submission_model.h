#pragma once
// The JSON document of one data submission. Members encode in declaration
// order; absent optionals are left out, never written as null; the custom
// properties are written flat into "variables", after its three fixed members.

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tavrin/model/codable_value.h"
#include "tavrin/model/enrichment.h"
#include "tavrin/model/internal/codable_value_coding.h"
#include "tavrin/model/internal/enrichment_coding.h"
#include "tavrin/sdk/internal/record_parts.h"

namespace tavrin {

struct DataSubmissionModel {
    using System = SystemRecord;
    using Configuration = ConfigurationRecord;

    struct VendorConsentStatus {
        CodableValue status;

        Json encode() const;
        static VendorConsentStatus decode(const Decoder& decoder);
        friend bool operator==(const VendorConsentStatus&, const VendorConsentStatus&) = default;
    };

    struct DataClass {
        struct Identifier {
            using User = IdentifierRecord;
            using Session = IdentifierRecord;

            User user;
            Session session;

            Json encode() const;
            static Identifier decode(const Decoder& decoder);
            friend bool operator==(const Identifier&, const Identifier&) = default;
        };

        struct Variables {
            static constexpr const char* fixedKeys[] = {"document_location_href", "fb_browser_id", "tvrpushedcommands"};

            std::string documentLocationHref;            // "document_location_href"
            std::string fbBrowserId;                     // "fb_browser_id"
            std::vector<std::string> tvrpushedcommands;  // "tvrpushedcommands"
            // Written as members of "variables" itself. A property named like a
            // fixed member replaces that member's value (the last value written
            // stands, in the fixed member's place).
            std::map<std::string, CodableValue> customProperties;

            Json encode() const;
            // Every member other than the three fixed ones is a custom property
            // and must decode as a CodableValue (a null or an object fails).
            static Variables decode(const Decoder& decoder);
            friend bool operator==(const Variables&, const Variables&) = default;
        };

        Identifier identifier;
        Variables variables;
        std::optional<std::map<std::string, Enrichment>> enrichment;

        Json encode() const;
        static DataClass decode(const Decoder& decoder);
        friend bool operator==(const DataClass&, const DataClass&) = default;
    };

    std::string version;
    System system;
    std::map<std::string, VendorConsentStatus> consent;
    Configuration configuration;
    DataClass data;

    Json encode() const;
    static DataSubmissionModel decode(const Decoder& decoder);
    friend bool operator==(const DataSubmissionModel&, const DataSubmissionModel&) = default;
};

}  // namespace tavrin
