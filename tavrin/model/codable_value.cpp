#include "tavrin/model/codable_value.h"
#include "tavrin/model/internal/codable_value_coding.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace tavrin {

namespace {

// Whether the node decodes as a signed 64-bit integer (no fraction, no
// exponent, in range), the same test Decoder::decodeInt64 applies.
bool isInt64(const Json& node) {
    if (node.is_number_integer() && !node.is_number_unsigned()) return true;
    return node.is_number_unsigned() &&
           node.get<std::uint64_t>() <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
}

}  // namespace

CodableValue JsonDecode<CodableValue>::decode(const Decoder& decoder) {
    using Array = CodableValue::Array;
    // The first kind that decodes wins: text, boolean, integer, double, array.
    // The node's type answers each attempt without throwing; only an array
    // whose element fails ends in the error below, at this value's path.
    const Json& node = decoder.json();
    if (node.is_string()) return CodableValue::string(decoder.decodeString());
    if (node.is_boolean()) return CodableValue::boolean(decoder.decodeBool());
    if (isInt64(node)) return CodableValue::integer(decoder.decodeInt64());
    if (node.is_number()) return CodableValue::decimalNumber(decoder.decodeDouble());
    if (node.is_array()) {
        try {
            Array values;
            values.reserve(node.size());
            for (const auto& element : decoder.elements()) values.push_back(decode(element));
            return CodableValue::array(std::move(values));
        } catch (const DecodingError&) {
        }
    }
    throw DecodingError(DecodingError::Kind::typeMismatch, decoder.codingPath(), "Failed to decode CodableValue");
}

CodableValue::~CodableValue() {
    auto* array = std::get_if<Array>(&storage_);
    if (!array || std::none_of(array->begin(), array->end(), [](const CodableValue& v) { return v.isNonEmptyArray(); }))
        return;
    // Non-empty inner arrays move to the list before their parent goes, so
    // every destruction below meets only shallow values.
    std::vector<CodableValue> pending;
    const auto takeChildren = [&](CodableValue& value) {
        for (auto& child : std::get<Array>(value.storage_))
            if (child.isNonEmptyArray()) pending.push_back(std::move(child));
    };
    takeChildren(*this);
    while (!pending.empty()) {
        CodableValue value = std::move(pending.back());
        pending.pop_back();
        takeChildren(value);
    }
}

namespace {

// `depth` counts the arrays open around this value.
Json encodeAt(const CodableValue& value, const CodingPath& path, std::size_t depth = 0) {
    using Kind = CodableValue::Kind;
    switch (value.kind()) {
        case Kind::string: return Json(value.asString());
        case Kind::boolean: return Json(value.asBool());
        case Kind::integer: return Json(value.asInteger());
        case Kind::decimalNumber: {
            // JSON has no NaN or infinity; writing null would break the no-null promise.
            const double d = value.asDecimalNumber();
            if (!std::isfinite(d)) {
                const char* name = std::isnan(d) ? "nan" : (d > 0 ? "infinity" : "-infinity");
                throw EncodingError(d, path, std::string("Unable to encode Double.") + name + " directly in JSON.");
            }
            return Json(d);
        }
        case Kind::array: {
            if (depth + 1 > platform::kMaxJsonNestingDepth)
                throw EncodingError(path, "Arrays nested deeper than " +
                                              std::to_string(platform::kMaxJsonNestingDepth) +
                                              " levels have no JSON form.");
            Json out = Json::array();
            std::size_t index = 0;
            for (const auto& v : value.asArray()) {
                CodingPath p = path;
                p.push_back("Index " + std::to_string(index++));
                out.push_back(encodeAt(v, p, depth + 1));
            }
            return out;
        }
    }
    return Json();
}

}  // namespace

Json encodeJson(const CodableValue& value) { return encodeAt(value, {}); }

bool operator==(const CodableValue& a, const CodableValue& b) {
    if (a.kind() != b.kind()) return false;
    switch (a.kind()) {
        case CodableValue::Kind::string: return a.asString() == b.asString();
        case CodableValue::Kind::boolean: return a.asBool() == b.asBool();
        case CodableValue::Kind::integer: return a.asInteger() == b.asInteger();
        case CodableValue::Kind::decimalNumber: return a.asDecimalNumber() == b.asDecimalNumber();
        case CodableValue::Kind::array: {
            const auto& x = a.asArray();
            const auto& y = b.asArray();
            if (&x == &y) return true;
            if (x.size() != y.size()) return false;
            for (std::size_t i = 0; i < x.size(); ++i)
                if (!(x[i] == y[i])) return false;
            return true;
        }
    }
    return false;
}

namespace {

std::string describeAt(const CodableValue& value, std::size_t depth) {
    switch (value.kind()) {
        case CodableValue::Kind::string: return "string(" + Json(value.asString()).dump() + ")";
        case CodableValue::Kind::boolean: return std::string("bool(") + (value.asBool() ? "true" : "false") + ")";
        case CodableValue::Kind::integer: return "integer(" + std::to_string(value.asInteger()) + ")";
        case CodableValue::Kind::decimalNumber: return "decimalNumber(" + Json(value.asDecimalNumber()).dump() + ")";
        case CodableValue::Kind::array: {
            if (depth + 1 > platform::kMaxJsonNestingDepth) return "...";
            std::string out = "array([";
            bool first = true;
            for (const auto& v : value.asArray()) {
                if (!first) out += ", ";
                first = false;
                out += describeAt(v, depth + 1);
            }
            return out + "])";
        }
    }
    return {};
}

}  // namespace

std::string describe(const CodableValue& value) { return describeAt(value, 0); }

}  // namespace tavrin
