#pragma once
// A debug tag: one step of the SDK recorded in the shape of a server-side
// debugging view (trigger, HTTP exchange, variables). Every member is always
// written and required when read back.

#include <cstdint>
#include <string>

#include "tavrin/model/internal/any_codable.h"

namespace tavrin {

struct Tag {
    using Dictionary = AnyCodable::Dictionary;
    using Array = AnyCodable::Array;

    struct Trigger {
        std::string id;
        bool executed = false;
        Array conditions;
        Array excludeTriggers;

        Json encode() const;
        static Trigger decode(const Decoder& decoder);
        friend bool operator==(const Trigger&, const Trigger&) = default;
    };

    struct HTTP {
        struct General {
            std::string requestUrl;
            std::string requestMethod;
            std::int64_t requestStatus = 0;
            std::string remoteAddress;

            Json encode() const;
            static General decode(const Decoder& decoder);
            friend bool operator==(const General&, const General&) = default;
        };

        struct Response {
            std::int64_t status = 0;
            std::string statusText;
            std::string data;
            bool success = false;
            Dictionary headers;

            Json encode() const;
            static Response decode(const Decoder& decoder);
            friend bool operator==(const Response&, const Response&) = default;
        };

        General general;
        Dictionary payload;
        Dictionary requestHeaders;
        Dictionary queryStringParameters;
        Response response;

        Json encode() const;
        static HTTP decode(const Decoder& decoder);
        friend bool operator==(const HTTP&, const HTTP&) = default;
    };

    struct Variables {
        Dictionary frontend;
        Dictionary backend;
        Dictionary constant;
        Dictionary enrichment;

        Json encode() const;
        static Variables decode(const Decoder& decoder);
        friend bool operator==(const Variables&, const Variables&) = default;
    };

    std::string id;  // the tag kind: "AI01", "AC03", "AC04", "AD01", "AS01"
    std::string name;
    std::string source;
    std::string type;
    std::int64_t timestamp = 0;  // milliseconds since 1970
    Trigger trigger;
    HTTP http;
    Variables variables;
    Dictionary functions;

    // The tag every SDK step records: source "frontend", type "info", an
    // executed trigger without id or conditions, an HTTP exchange that only
    // carries status 200 (request and response) and the given success flag,
    // and no variables or functions.
    static Tag makeInfo(std::string id, std::string name, std::int64_t timestamp, bool success);

    // Removes NaN and infinite numbers from every dictionary and array of the
    // tag, reporting each one's path ("variables", "frontend", "price").
    void dropNonFiniteNumbers(const AnyCodable::DroppedHandler& dropped);

    // Members in declaration order; may throw EncodingError for a value
    // AnyCodable cannot write.
    Json encode() const;
    static Tag decode(const Decoder& decoder);
    friend bool operator==(const Tag&, const Tag&) = default;
};

}  // namespace tavrin
