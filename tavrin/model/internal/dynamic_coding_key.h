#pragma once
// A coding key whose member name is known only at run time.

#include <optional>
#include <string>

namespace tavrin {

struct DynamicCodingKey {
    std::string stringValue;

    explicit DynamicCodingKey(std::string name) : stringValue(std::move(name)) {}
    // Integer keys are not supported: always nothing.
    static std::optional<DynamicCodingKey> fromIntValue(int) { return std::nullopt; }
    std::optional<int> intValue() const { return std::nullopt; }

    std::string description() const { return "DynamicCodingKey(stringValue: \"" + stringValue + "\", intValue: nil)"; }
    std::string debugDescription() const { return description(); }

    friend bool operator==(const DynamicCodingKey&, const DynamicCodingKey&) = default;
};

}  // namespace tavrin
