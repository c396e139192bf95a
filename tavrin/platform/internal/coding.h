#pragma once
// Encoding and decoding of records to and from JSON.
//
// A record T takes part by providing
//     Json encode() const;                    // may throw EncodingError
//     static T decode(const Decoder& d);      // throws DecodingError
// Maps with text keys, vectors, optionals and the plain scalar types are
// handled by encodeJson / decodeJson below.

#include <any>
#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tavrin/platform/internal/json.h"

namespace tavrin {

using CodingPath = std::vector<std::string>;

// "a.b.Index 0" for diagnostics; empty path gives "".
std::string codingPathText(const CodingPath& path);

class DecodingError : public std::runtime_error {
public:
    enum class Kind { typeMismatch, valueNotFound, keyNotFound, dataCorrupted };

    DecodingError(Kind kind, CodingPath codingPath, std::string debugDescription);

    Kind kind() const noexcept { return kind_; }
    const CodingPath& codingPath() const noexcept { return codingPath_; }
    const std::string& debugDescription() const noexcept { return debugDescription_; }

private:
    Kind kind_;
    CodingPath codingPath_;
    std::string debugDescription_;
};

class EncodingError : public std::runtime_error {
public:
    enum class Kind { invalidValue };

    EncodingError(CodingPath codingPath, std::string debugDescription);
    // With the value that could not be encoded.
    EncodingError(std::any value, CodingPath codingPath, std::string debugDescription);

    Kind kind() const noexcept { return Kind::invalidValue; }
    // The rejected value, when the thrower supplied it.
    const std::any& value() const noexcept { return value_; }
    const CodingPath& codingPath() const noexcept { return codingPath_; }
    const std::string& debugDescription() const noexcept { return debugDescription_; }

private:
    std::any value_;
    CodingPath codingPath_;
    std::string debugDescription_;
};

const char* decodingErrorKindName(DecodingError::Kind kind) noexcept;

// A read-only view of one JSON node together with the path that led to it.
class Decoder {
public:
    explicit Decoder(const Json& node, CodingPath path = {}) : node_(&node), path_(std::move(path)) {}

    // Parses text; malformed JSON is a dataCorrupted error, never undefined behaviour.
    static Json parse(std::string_view text);

    const Json& json() const noexcept { return *node_; }
    const CodingPath& codingPath() const noexcept { return path_; }
    bool isNull() const noexcept { return node_->is_null(); }

    // Single values. A null is valueNotFound, another type typeMismatch.
    std::string decodeString() const;
    bool decodeBool() const;
    std::int64_t decodeInt64() const;  // JSON integers only; a fraction or exponent is refused
    double decodeDouble() const;       // any JSON number

    // Keyed access. nested: a missing key is keyNotFound; a non-object typeMismatch.
    bool contains(std::string_view key) const;
    Decoder nested(std::string_view key) const;
    // Missing key or null gives nothing.
    std::optional<Decoder> nestedIfPresent(std::string_view key) const;

    // Containers, each element or member with its own path.
    std::vector<Decoder> elements() const;
    std::vector<std::pair<std::string, Decoder>> members() const;

    [[noreturn]] void typeMismatch(std::string_view expected) const;
    [[noreturn]] void dataCorrupted(std::string debugDescription) const;

private:
    void expectNotNull(std::string_view expected) const;

    const Json* node_;
    CodingPath path_;
};

// ---- generic encode / decode

namespace detail {
template <class T, class = void>
struct HasEncode : std::false_type {};
template <class T>
struct HasEncode<T, std::void_t<decltype(std::declval<const T&>().encode())>> : std::true_type {};

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};
}  // namespace detail

// Byte buffers travel as base64 text. A plain function, so it wins over the
// vector overload below.
inline Json encodeJson(const Bytes& bytes) { return Json(platform::base64Encode(bytes)); }

template <class T>
Json encodeJson(const T& value);
template <class T>
Json encodeJson(const std::vector<T>& values);
template <class T, class C>
Json encodeJson(const std::map<std::string, T, C>& values);
template <class T>
Json encodeJson(const std::unordered_map<std::string, T>& values);

template <class T>
Json encodeJson(const std::vector<T>& values) {
    Json out = Json::array();
    out.get_ptr<Json::array_t*>()->reserve(values.size());
    for (const auto& v : values) out.push_back(encodeJson(v));
    return out;
}

template <class T, class C>
Json encodeJson(const std::map<std::string, T, C>& values) {
    Json out = jsonObject(values.size());
    for (const auto& [k, v] : values) out[k] = encodeJson(v);
    return out;
}

template <class T>
Json encodeJson(const std::unordered_map<std::string, T>& values) {
    Json out = jsonObject(values.size());
    for (const auto& [k, v] : values) out[k] = encodeJson(v);
    return out;
}

template <class T>
Json encodeJson(const T& value) {
    if constexpr (detail::HasEncode<T>::value) {
        return value.encode();
    } else if constexpr (std::is_same_v<T, bool> || std::is_arithmetic_v<T> ||
                         std::is_convertible_v<const T&, std::string_view>) {
        return Json(value);
    } else {
        static_assert(detail::HasEncode<T>::value, "type has no JSON encoding");
    }
}

template <class T>
struct JsonDecode {
    static T decode(const Decoder& d) { return T::decode(d); }
};
template <>
struct JsonDecode<std::string> {
    static std::string decode(const Decoder& d) { return d.decodeString(); }
};
template <>
struct JsonDecode<bool> {
    static bool decode(const Decoder& d) { return d.decodeBool(); }
};
template <>
struct JsonDecode<std::int64_t> {
    static std::int64_t decode(const Decoder& d) { return d.decodeInt64(); }
};
template <>
struct JsonDecode<double> {
    static double decode(const Decoder& d) { return d.decodeDouble(); }
};
template <>
struct JsonDecode<Bytes> {
    static Bytes decode(const Decoder& d) {
        auto bytes = platform::base64Decode(d.decodeString());
        if (!bytes) d.dataCorrupted("Encountered Data is not valid Base64.");
        return *bytes;
    }
};
template <class T>
struct JsonDecode<std::vector<T>> {
    static std::vector<T> decode(const Decoder& d) {
        std::vector<T> out;
        for (const auto& e : d.elements()) out.push_back(JsonDecode<T>::decode(e));
        return out;
    }
};
template <class T, class C>
struct JsonDecode<std::map<std::string, T, C>> {
    static std::map<std::string, T, C> decode(const Decoder& d) {
        std::map<std::string, T, C> out;
        for (const auto& [k, v] : d.members()) out.insert_or_assign(k, JsonDecode<T>::decode(v));
        return out;
    }
};
template <class T>
struct JsonDecode<std::unordered_map<std::string, T>> {
    static std::unordered_map<std::string, T> decode(const Decoder& d) {
        std::unordered_map<std::string, T> out;
        for (const auto& [k, v] : d.members()) out.insert_or_assign(k, JsonDecode<T>::decode(v));
        return out;
    }
};

template <class T>
T decodeJson(const Decoder& d) {
    return JsonDecode<T>::decode(d);
}

// Decodes a record from JSON text; malformed text is a dataCorrupted error.
template <class T>
T decodeJson(std::string_view text) {
    const Json root = Decoder::parse(text);
    return JsonDecode<T>::decode(Decoder(root));
}

// Keyed helpers for records.
template <class T>
T decodeMember(const Decoder& d, std::string_view key) {
    return JsonDecode<T>::decode(d.nested(key));
}
template <class T>
std::optional<T> decodeMemberIfPresent(const Decoder& d, std::string_view key) {
    auto member = d.nestedIfPresent(key);
    if (!member) return std::nullopt;
    return JsonDecode<T>::decode(*member);
}
// Writes the member only when present (optionals are left out, never null).
template <class T>
void encodeMemberIfPresent(Json& object, const char* key, const std::optional<T>& value) {
    if (value) object[key] = encodeJson(*value);
}

// Compact JSON text of a record (may throw EncodingError).
template <class T>
std::string encodeJsonText(const T& value) {
    return platform::dumpJson(encodeJson(value));
}

}  // namespace tavrin
