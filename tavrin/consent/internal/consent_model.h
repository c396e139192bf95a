#pragma once
// The JSON document that carries a consent decision to the tracking server.
// Members encode in declaration order; absent optionals are left out.

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "tavrin/consent/consent_status.h"
#include "tavrin/consent/internal/consent_status_coding.h"
#include "tavrin/tracking/internal/coding.h"

namespace tavrin {

struct ConsentModel {
    struct System {
        std::string type;
        std::int64_t timestamp = 0;  // milliseconds since 1970
        std::string navigatorUserAgent;  // "navigator-userAgent"
        std::string initiator;

        Json encode() const;
        static System decode(const Decoder& decoder);
        friend bool operator==(const System&, const System&) = default;
    };

    struct Configuration {
        std::string container;
        std::string environment;  // "live" or "stage"
        std::optional<std::string> version;
        std::optional<std::string> debugcode;

        Json encode() const;
        static Configuration decode(const Decoder& decoder);
        friend bool operator==(const Configuration&, const Configuration&) = default;
    };

    struct DataClass {
        struct Identifier {
            struct User {
                std::string id;
                std::string action;  // "new" or "update"

                Json encode() const;
                static User decode(const Decoder& decoder);
                friend bool operator==(const User&, const User&) = default;
            };
            struct ConsentID {
                std::string id;
                std::string action;  // "new" or "update"

                Json encode() const;
                static ConsentID decode(const Decoder& decoder);
                friend bool operator==(const ConsentID&, const ConsentID&) = default;
            };

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

    Json encode() const;
    static ConsentModel decode(const Decoder& decoder);
    friend bool operator==(const ConsentModel&, const ConsentModel&) = default;
};

}  // namespace tavrin
