#include "tavrin/tracking/any_codable.h"

#include <cmath>

namespace tavrin {

AnyCodable AnyCodable::decode(const Decoder& decoder) {
    try {
        return AnyCodable(decoder.decodeBool());
    } catch (const DecodingError&) {
    }
    try {
        return AnyCodable(decoder.decodeInt64());
    } catch (const DecodingError&) {
    }
    try {
        return AnyCodable(decoder.decodeDouble());
    } catch (const DecodingError&) {
    }
    try {
        return AnyCodable(decoder.decodeString());
    } catch (const DecodingError&) {
    }
    try {
        Dictionary dict;
        for (const auto& [key, member] : decoder.members()) dict.insert_or_assign(key, decode(member));
        return AnyCodable(std::move(dict));
    } catch (const DecodingError&) {
    }
    try {
        Array array;
        for (const auto& element : decoder.elements()) array.push_back(decode(element));
        return AnyCodable(std::move(array));
    } catch (const DecodingError&) {
    }
    throw DecodingError(DecodingError::Kind::typeMismatch, decoder.codingPath(), "Unsupported JSON value");
}

Json AnyCodable::encodeAt(const CodingPath& path) const {
    if (const auto* b = std::any_cast<bool>(&value_)) return Json(*b);
    if (const auto* i = std::any_cast<std::int64_t>(&value_)) return Json(*i);
    if (const auto* d = std::any_cast<double>(&value_)) {
        if (!std::isfinite(*d)) throw EncodingError(path, "Unable to encode a non-finite Double directly in JSON.");
        return Json(*d);
    }
    if (const auto* s = std::any_cast<std::string>(&value_)) return Json(*s);
    if (const auto* dict = std::any_cast<Dictionary>(&value_)) {
        Json out = Json::object();
        for (const auto& [key, member] : *dict) {
            CodingPath p = path;
            p.push_back(key);
            out[key] = member.encodeAt(p);
        }
        return out;
    }
    if (const auto* array = std::any_cast<Array>(&value_)) {
        Json out = Json::array();
        std::size_t index = 0;
        for (const auto& element : *array) {
            CodingPath p = path;
            p.push_back("Index " + std::to_string(index++));
            out.push_back(element.encodeAt(p));
        }
        return out;
    }
    throw EncodingError(path, "Unsupported JSON value");
}

bool operator==(const AnyCodable& a, const AnyCodable& b) {
    // Equal when both encode to the same JSON; unencodable values are never equal.
    try {
        return a.encode() == b.encode();
    } catch (const EncodingError&) {
        return false;
    }
}

}  // namespace tavrin
