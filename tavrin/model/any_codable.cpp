#include "tavrin/model/internal/any_codable.h"

#include <cmath>
#include <limits>

namespace tavrin {

AnyCodable AnyCodable::decode(const Decoder& decoder) {
    // The first kind that decodes wins: boolean, integer, double, text,
    // dictionary, array. The node's type answers each attempt without
    // throwing; a container whose member fails ends in the error below, at
    // this value's path.
    const Json& node = decoder.json();
    if (node.is_boolean()) return AnyCodable(decoder.decodeBool());
    if (node.is_number_integer() &&
        (!node.is_number_unsigned() ||
         node.get<std::uint64_t>() <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())))
        return AnyCodable(decoder.decodeInt64());
    if (node.is_number()) return AnyCodable(decoder.decodeDouble());
    if (node.is_string()) return AnyCodable(decoder.decodeString());
    if (node.is_object()) {
        try {
            Dictionary dict;
            for (const auto& [key, member] : decoder.members()) dict.insert_or_assign(key, decode(member));
            return AnyCodable(std::move(dict));
        } catch (const DecodingError&) {
        }
    } else if (node.is_array()) {
        try {
            Array array;
            array.reserve(node.size());
            for (const auto& element : decoder.elements()) array.push_back(decode(element));
            return AnyCodable(std::move(array));
        } catch (const DecodingError&) {
        }
    }
    throw DecodingError(DecodingError::Kind::typeMismatch, decoder.codingPath(), "Unsupported JSON value");
}

Json AnyCodable::encodeAt(const CodingPath& path) const {
    if (const auto* b = std::any_cast<bool>(&value_)) return Json(*b);
    if (const auto* i = std::any_cast<std::int64_t>(&value_)) return Json(*i);
    if (const auto* d = std::any_cast<double>(&value_)) {
        if (!std::isfinite(*d)) {
            const char* name = std::isnan(*d) ? "nan" : (*d > 0 ? "infinity" : "-infinity");
            throw EncodingError(value_, path, std::string("Unable to encode Double.") + name + " directly in JSON.");
        }
        return Json(*d);
    }
    if (const auto* s = std::any_cast<std::string>(&value_)) return Json(*s);
    if (const auto* dict = std::any_cast<Dictionary>(&value_)) {
        Json out = jsonObject(dict->size());
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
    throw EncodingError(value_, path, "Unsupported JSON value");
}

bool AnyCodable::keepAfterDroppingNonFinite(const DroppedHandler& dropped, const CodingPath& path) {
    if (const auto* d = std::any_cast<double>(&value_)) {
        if (std::isfinite(*d)) return true;
        dropped(path);
        return false;
    }
    if (auto* dict = std::any_cast<Dictionary>(&value_)) dropNonFiniteNumbers(*dict, dropped, path);
    if (auto* array = std::any_cast<Array>(&value_)) dropNonFiniteNumbers(*array, dropped, path);
    return true;
}

void AnyCodable::dropNonFiniteNumbers(Dictionary& dictionary, const DroppedHandler& dropped, const CodingPath& path) {
    for (auto it = dictionary.begin(); it != dictionary.end();) {
        CodingPath p = path;
        p.push_back(it->first);
        it = it->second.keepAfterDroppingNonFinite(dropped, p) ? std::next(it) : dictionary.erase(it);
    }
}

void AnyCodable::dropNonFiniteNumbers(Array& array, const DroppedHandler& dropped, const CodingPath& path) {
    std::size_t kept = 0;
    for (std::size_t index = 0; index < array.size(); ++index) {
        CodingPath p = path;
        p.push_back("Index " + std::to_string(index));
        if (!array[index].keepAfterDroppingNonFinite(dropped, p)) continue;
        if (kept != index) array[kept] = std::move(array[index]);
        ++kept;
    }
    array.resize(kept);
}

bool operator==(const AnyCodable& a, const AnyCodable& b) {
    // Equal when both encode to the same JSON text (so 1 and 1.0 differ);
    // unencodable values are never equal.
    try {
        return platform::dumpJson(a.encode()) == platform::dumpJson(b.encode());
    } catch (const EncodingError&) {
        return false;
    }
}

}  // namespace tavrin
