#include "tavrin/tracking/internal/enrichment_resolution.h"

#include <cmath>
#include <optional>

#include "tavrin/sdk/internal/logger_utility.h"

namespace tavrin {

namespace {

std::optional<CodableValue> resolveProperty(const std::string& name, const std::vector<PushPayload>& pushes,
                                            const ProductData& productData) {
    for (auto push = pushes.rbegin(); push != pushes.rend(); ++push) {
        if (const CodableValue* found = push->property(name)) return *found;
    }
    if (const auto found = productData.find(name); found != productData.end())
        return CodableValue::array(found->second);
    return std::nullopt;
}

// Only an array whose every element is text counts.
std::optional<CodableValue> textArray(const AnyValue::Array& elements) {
    CodableValue::Array out;
    out.reserve(elements.size());
    for (const auto& element : elements) {
        const std::string* text = element.textIf();
        if (!text) return std::nullopt;
        out.push_back(CodableValue::string(*text));
    }
    return CodableValue::array(std::move(out));
}

std::optional<CodableValue> resolve(const AnyValue& value, const std::vector<PushPayload>& pushes,
                                    const ProductData& productData) {
    switch (value.kind()) {
        case AnyValue::Kind::text:
            return resolveProperty(value.asText(), pushes, productData).value_or(CodableValue::string(value.asText()));
        case AnyValue::Kind::array: return textArray(value.asArray());
        case AnyValue::Kind::integer: return CodableValue::decimalNumber(static_cast<double>(value.asInteger()));
        case AnyValue::Kind::number:
            // NaN and infinity have no JSON form; the submission could not be written.
            if (!std::isfinite(value.asNumber())) return std::nullopt;
            return CodableValue::decimalNumber(value.asNumber());
        case AnyValue::Kind::boolean: return CodableValue::boolean(value.asBool());
        default: return std::nullopt;
    }
}

}  // namespace

std::map<std::string, CodableValue> resolveArguments(const AnyValue::Dictionary& arguments,
                                                     const std::vector<PushPayload>& pushes,
                                                     const ProductData& productData) {
    std::map<std::string, CodableValue> resolved;
    auto& logger = LoggerUtility::shared();
    for (const auto& entry : arguments) {
        // Not a structured binding: the log lambda captures the name (clang < 16 cannot).
        const std::string& name = entry.first;
        auto result = resolve(entry.second, pushes, productData);
        logger.info(
            [&] { return "Resolved argument '" + name + "': " + describe(result.value_or(CodableValue::string(""))); });
        if (result) resolved.insert_or_assign(name, std::move(*result));
    }
    return resolved;
}

std::string describe(const std::map<std::string, CodableValue>& arguments) {
    if (arguments.empty()) return "[:]";
    std::string out = "[";
    const char* separator = "";
    for (const auto& [name, value] : arguments) {
        out += separator;
        out += "\"" + name + "\": " + describe(value);
        separator = ", ";
    }
    return out + "]";
}

}  // namespace tavrin
