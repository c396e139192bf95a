#include "tavrin/tracking/internal/custom_properties.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <string_view>
#include <vector>

#include "tavrin/platform/internal/json.h"
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
        case AnyValue::Kind::text: return CodableValue::string(value.asText());
        case AnyValue::Kind::boolean: return CodableValue::boolean(value.asBool());
        case AnyValue::Kind::integer: return CodableValue::integer(value.asInteger());
        case AnyValue::Kind::number: return CodableValue::decimalNumber(value.asNumber());
        default: return std::nullopt;
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

// ---- limits on host values

constexpr std::size_t kMaxDepth = platform::kMaxJsonNestingDepth;

// Why something was left out of one entry.
struct Cut {
    bool longText = false;
    bool tooDeep = false;
};

// `depth`: the arrays and dictionaries open around the value, the top
// dictionary included.
bool fits(const AnyValue& value, std::size_t depth, std::size_t maxText) {
    switch (value.kind()) {
        case AnyValue::Kind::text: return value.asText().size() <= maxText;
        case AnyValue::Kind::array:
            if (depth + 1 > kMaxDepth) return false;
            return std::all_of(value.asArray().begin(), value.asArray().end(),
                               [&](const AnyValue& element) { return fits(element, depth + 1, maxText); });
        case AnyValue::Kind::dictionary:
            if (depth + 1 > kMaxDepth) return false;
            return std::all_of(value.asDictionary().begin(), value.asDictionary().end(), [&](const auto& member) {
                return member.first.size() <= maxText && fits(member.second, depth + 1, maxText);
            });
        default: return true;
    }
}

bool fits(const CodableValue& value, std::size_t depth, std::size_t maxText) {
    switch (value.kind()) {
        case CodableValue::Kind::string: return value.asString().size() <= maxText;
        case CodableValue::Kind::array:
            if (depth + 1 > kMaxDepth) return false;
            return std::all_of(value.asArray().begin(), value.asArray().end(),
                               [&](const CodableValue& element) { return fits(element, depth + 1, maxText); });
        default: return true;
    }
}

// The value with what does not fit left out; nothing when the value itself
// does not fit.
std::optional<AnyValue> trimmed(const AnyValue& value, std::size_t depth, std::size_t maxText, Cut& cut) {
    switch (value.kind()) {
        case AnyValue::Kind::text:
            if (value.asText().size() <= maxText) return value;
            cut.longText = true;
            return std::nullopt;
        case AnyValue::Kind::array: {
            if (depth + 1 > kMaxDepth) {
                cut.tooDeep = true;
                return std::nullopt;
            }
            AnyValue::Array out;
            for (const auto& element : value.asArray())
                if (auto kept = trimmed(element, depth + 1, maxText, cut)) out.push_back(std::move(*kept));
            return AnyValue(std::move(out));
        }
        case AnyValue::Kind::dictionary: {
            if (depth + 1 > kMaxDepth) {
                cut.tooDeep = true;
                return std::nullopt;
            }
            AnyValue::Dictionary out;
            for (const auto& [key, member] : value.asDictionary()) {
                if (key.size() > maxText) {
                    cut.longText = true;
                } else if (auto kept = trimmed(member, depth + 1, maxText, cut)) {
                    out.emplace(key, std::move(*kept));
                }
            }
            return AnyValue(std::move(out));
        }
        default: return value;
    }
}

std::optional<CodableValue> trimmed(const CodableValue& value, std::size_t depth, std::size_t maxText, Cut& cut) {
    switch (value.kind()) {
        case CodableValue::Kind::string:
            if (value.asString().size() <= maxText) return value;
            cut.longText = true;
            return std::nullopt;
        case CodableValue::Kind::array: {
            if (depth + 1 > kMaxDepth) {
                cut.tooDeep = true;
                return std::nullopt;
            }
            CodableValue::Array out;
            for (const auto& element : value.asArray())
                if (auto kept = trimmed(element, depth + 1, maxText, cut)) out.push_back(std::move(*kept));
            return CodableValue::array(std::move(out));
        }
        default: return value;
    }
}

template <class Map>
std::optional<Map> withinLimits(const Map& values, std::size_t maxText, const char* what) {
    const bool allFit = std::all_of(values.begin(), values.end(), [&](const auto& entry) {
        return entry.first.size() <= maxText && fits(entry.second, 1, maxText);
    });
    if (allFit) return std::nullopt;
    auto& logger = LoggerUtility::shared();
    Map out;
    for (const auto& entry : values) {
        // Not a structured binding: the log lambdas capture the key (clang < 16 cannot).
        const std::string& key = entry.first;
        if (key.size() > maxText) {
            logger.debug([&] {
                return std::string("Warning: A ") + what + " name of " + std::to_string(key.size()) +
                       " bytes was dropped. Texts are limited to " + std::to_string(maxText) + " bytes.";
            });
            continue;
        }
        Cut cut;
        auto kept = trimmed(entry.second, 1, maxText, cut);
        if (cut.longText)
            logger.debug([&] {
                return std::string("Warning: Text longer than ") + std::to_string(maxText) + " bytes dropped from " +
                       what + " " + key + ".";
            });
        if (cut.tooDeep)
            logger.debug([&] {
                return std::string("Warning: Values nested deeper than ") + std::to_string(kMaxDepth) +
                       " levels dropped from " + what + " " + key + ".";
            });
        if (kept) out.emplace(key, std::move(*kept));
    }
    return out;
}

}  // namespace

std::optional<AnyValue::Dictionary> withinHostValueLimits(const AnyValue::Dictionary& values, std::size_t maxTextBytes,
                                                          const char* what) {
    return withinLimits(values, maxTextBytes, what);
}

std::optional<std::map<std::string, CodableValue>> withinHostValueLimits(
    const std::map<std::string, CodableValue>& values, std::size_t maxTextBytes, const char* what) {
    return withinLimits(values, maxTextBytes, what);
}

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
        // Keys arrive sorted and unique: each entry goes at the end.
        if (isNonFiniteNumber(value)) {
            logNonFinite(key);
        } else if (auto converted = scalar(value)) {
            result.emplace_hint(result.end(), key, std::move(*converted));
        } else if (value.kind() == AnyValue::Kind::array) {
            result.emplace_hint(result.end(), key, flatArray(key, value.asArray()));
        } else {
            logger.debug([&] {
                return "Warning: Unsupported type for custom property " + key +
                       ". Only String, Bool, Number, and Array are allowed.";
            });
        }
    }
    return result;
}

// What one map entry costs besides its key and text: the node, its links and
// the value's own storage.
constexpr std::size_t kEntryBytes = 96;

std::size_t approximateBytes(const AnyValue::Dictionary& values) {
    std::size_t bytes = 0;
    std::vector<const AnyValue*> containers;  // only arrays and dictionaries wait here
    const auto add = [&](const AnyValue& value) {
        if (const std::string* text = value.textIf())
            bytes += text->size();
        else if (value.kind() == AnyValue::Kind::array || value.kind() == AnyValue::Kind::dictionary)
            containers.push_back(&value);
    };
    for (const auto& [key, value] : values) {
        bytes += kEntryBytes + key.size();
        add(value);
    }
    while (!containers.empty()) {
        const AnyValue& container = *containers.back();
        containers.pop_back();
        if (container.kind() == AnyValue::Kind::array) {
            for (const auto& element : container.asArray()) {
                bytes += sizeof(AnyValue);
                add(element);
            }
        } else {
            for (const auto& [key, member] : container.asDictionary()) {
                bytes += kEntryBytes + key.size();
                add(member);
            }
        }
    }
    return bytes;
}

namespace {

std::size_t propertyBytes(const PushPayload::Properties& properties) {
    std::size_t bytes = 0;
    for (const auto& [key, value] : properties) {
        bytes += kEntryBytes + key.size();
        if (value.kind() == CodableValue::Kind::string) bytes += value.asString().size();
        if (value.kind() != CodableValue::Kind::array) continue;
        for (const auto& element : value.asArray()) {
            bytes += sizeof(CodableValue);
            if (element.kind() == CodableValue::Kind::string) bytes += element.asString().size();
        }
    }
    return bytes;
}

}  // namespace

std::size_t approximateBytes(const PushPayload& payload) {
    // Shared properties count for every push that has them: the limits then
    // do not depend on how the pushes are kept.
    return sizeof(PushPayload) + payload.track.size() + payload.type.size() + payload.id.size() +
           propertyBytes(payload.customProperties) +
           (payload.sharedProperties ? propertyBytes(*payload.sharedProperties) : 0);
}

}  // namespace tavrin
