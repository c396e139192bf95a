#pragma once
// Parts that the data submission and the consent submission share on the
// wire: the system block, the container configuration, and an identifier
// with its action.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "tavrin/platform/internal/coding.h"

namespace tavrin {

struct SystemRecord {
    std::string type;
    std::int64_t timestamp = 0;      // milliseconds since 1970
    std::string navigatorUserAgent;  // "navigator-userAgent"
    std::string initiator;

    Json encode() const;
    static SystemRecord decode(const Decoder& decoder);
    friend bool operator==(const SystemRecord&, const SystemRecord&) = default;
};

struct ConfigurationRecord {
    std::string container;
    std::string environment;  // "live" or "stage"
    std::optional<std::string> version;
    std::optional<std::string> debugcode;

    // Absent optionals are left out, never written as null.
    Json encode() const;
    static ConfigurationRecord decode(const Decoder& decoder);
    friend bool operator==(const ConfigurationRecord&, const ConfigurationRecord&) = default;
};

struct IdentifierRecord {
    std::string id;
    std::string action;  // "new" or "update"

    Json encode() const;
    static IdentifierRecord decode(const Decoder& decoder);
    friend bool operator==(const IdentifierRecord&, const IdentifierRecord&) = default;
};

// What every record opens with: the record version, the system block and the
// container configuration of the active settings.
struct RecordHeader {
    std::string version;
    SystemRecord system;
    ConfigurationRecord configuration;

    // "sdk-ios" records made at `timestamp` by `initiator`, for the settings in force now.
    static RecordHeader current(std::string userAgent, std::int64_t timestamp, std::string initiator);

    template <class Record>
    void applyTo(Record& record) && {
        record.version = std::move(version);
        record.system = std::move(system);
        record.configuration = std::move(configuration);
    }
};

}  // namespace tavrin
