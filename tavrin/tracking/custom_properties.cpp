#include "tavrin/tracking/internal/custom_properties.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <string_view>

#include "tavrin/sdk/internal/logger_utility.h"

namespace tavrin {

namespace {

// Their values travel as the payload's own track and type.
constexpr std::array<std::string_view, 2> reservedKeys{"track", "type"};

bool isReserved(std::string_view key) {
    return std::find(reservedKeys.begin(), reservedKeys.end(), key) != reservedKeys.end();
}

// The scalar kinds, shared by top-level values and array elements. A boolean
// is its own kind and a whole number an integer, so neither can turn into a
// decimalNumber here.
std::optional<CodableValue> scalar(const AnyValue& value) {
    switch (value.kind()) {
        case AnyValue::Kind::text:
            return CodableValue::string(value.asText());
        case AnyValue::Kind::boolean:
            return CodableValue::boolean(value.asBool());
        case AnyValue::Kind::integer:
            return CodableValue::integer(value.asInteger());
        case AnyValue::Kind::number:
            return CodableValue::decimalNumber(value.asNumber());
        default:
            return std::nullopt;
    }
}

// JSON has no NaN or infinity: such a number would make the whole
// submission fail to encode later, so it is dropped here like any other
// value without a JSON form.
bool isNonFiniteNumber(const AnyValue& value) {
    return value.kind() == AnyValue::Kind::number && !std::isfinite(value.asNumber());
}

void logNonFinite(const std::string& where) {
    LoggerUtility::shared().debug([&] {
        return "Warning: Non-finite number for custom property " + where +
               " dropped. JSON cannot carry NaN or infinity.";
    });
}

// Arrays stay one level deep on purpose: nested containers, dates and nulls
// inside an array are dropped without a word.
CodableValue flatArray(const std::string& key, const AnyValue::Array& elements) {
    CodableValue::Array out;
    out.reserve(elements.size());
    for (std::size_t i = 0; i < elements.size(); ++i) {
        if (isNonFiniteNumber(elements[i])) {
            logNonFinite(key + "[" + std::to_string(i) + "]");
        } else if (auto converted = scalar(elements[i])) {
            out.push_back(std::move(*converted));
        }
    }
    return CodableValue::array(std::move(out));
}

}  // namespace

std::map<std::string, CodableValue> validatedCustomProperties(const AnyValue::Dictionary& properties) {
    std::map<std::string, CodableValue> result;
    auto& logger = LoggerUtility::shared();
    for (const auto& entry : properties) {
        // Not a structured binding: the log lambdas capture the key (clang < 16 cannot).
        const std::string& key = entry.first;
        const AnyValue& value = entry.second;
        if (isReserved(key)) {
            logger.debug([&] { return "Warning: " + key + " is a reserved key and cannot be set."; });
            continue;
        }
        if (isNonFiniteNumber(value)) {
            logNonFinite(key);
        } else if (auto converted = scalar(value)) {
            result.insert_or_assign(key, std::move(*converted));
        } else if (value.kind() == AnyValue::Kind::array) {
            result.insert_or_assign(key, flatArray(key, value.asArray()));
        } else {
            logger.debug([&] {
                return "Warning: Unsupported type for custom property " + key +
                       ". Only String, Bool, Number, and Array are allowed.";
            });
        }
    }
    return result;
}

}  // namespace tavrin
