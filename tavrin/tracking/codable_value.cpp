#include "tavrin/tracking/codable_value.h"

#include <cmath>
#include <sstream>

namespace tavrin {

CodableValue CodableValue::decode(const Decoder& decoder) {
    // Each attempt's error is discarded; the order decides the case.
    try {
        return string(decoder.decodeString());
    } catch (const DecodingError&) {
    }
    try {
        return boolean(decoder.decodeBool());
    } catch (const DecodingError&) {
    }
    try {
        return integer(decoder.decodeInt64());
    } catch (const DecodingError&) {
    }
    try {
        return decimalNumber(decoder.decodeDouble());
    } catch (const DecodingError&) {
    }
    try {
        Array values;
        for (const auto& element : decoder.elements()) values.push_back(decode(element));
        return array(std::move(values));
    } catch (const DecodingError&) {
    }
    throw DecodingError(DecodingError::Kind::typeMismatch, decoder.codingPath(), "Failed to decode CodableValue");
}

Json CodableValue::encode() const {
    switch (kind()) {
        case Kind::string: return Json(asString());
        case Kind::boolean: return Json(asBool());
        case Kind::integer: return Json(asInteger());
        case Kind::decimalNumber:
            // JSON has no NaN or infinity; writing null would break the no-null promise.
            if (!std::isfinite(asDecimalNumber()))
                throw EncodingError({}, "Unable to encode Double." + std::string(std::isnan(asDecimalNumber()) ? "nan" : "infinity") +
                                            " directly in JSON.");
            return Json(asDecimalNumber());
        case Kind::array: {
            Json out = Json::array();
            for (const auto& v : asArray()) out.push_back(v.encode());
            return out;
        }
    }
    return Json();
}

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

std::string describe(const CodableValue& value) {
    switch (value.kind()) {
        case CodableValue::Kind::string: return "string(" + Json(value.asString()).dump() + ")";
        case CodableValue::Kind::boolean: return std::string("bool(") + (value.asBool() ? "true" : "false") + ")";
        case CodableValue::Kind::integer: return "integer(" + std::to_string(value.asInteger()) + ")";
        case CodableValue::Kind::decimalNumber: {
            std::ostringstream out;
            out << "decimalNumber(" << Json(value.asDecimalNumber()).dump() << ")";
            return out.str();
        }
        case CodableValue::Kind::array: {
            std::string out = "array([";
            bool first = true;
            for (const auto& v : value.asArray()) {
                if (!first) out += ", ";
                first = false;
                out += describe(v);
            }
            return out + "])";
        }
    }
    return {};
}

}  // namespace tavrin
