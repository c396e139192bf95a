#pragma once
// An open wrapper around a run-time value that can be written as JSON:
// boolean, signed integer, double, text, a dictionary of AnyCodable or an
// array of AnyCodable. Anything else fails to encode.

#include <any>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "tavrin/platform/internal/coding.h"

namespace tavrin {

class AnyCodable {
public:
    using Dictionary = std::map<std::string, AnyCodable>;
    using Array = std::vector<AnyCodable>;

    AnyCodable() = default;  // wraps nothing (not encodable)
    // Wraps any value without checking it. Signed integer types are widened
    // to std::int64_t, float to double, and C strings and string views become
    // std::string, so that literals behave.
    template <class T, class = std::enable_if_t<!std::is_same_v<std::decay_t<T>, AnyCodable>>>
    AnyCodable(T&& value) : value_(normalize(std::forward<T>(value))) {}  // NOLINT(implicit)

    const std::any& value() const noexcept { return value_; }

    // Tries boolean, integer, double, text, dictionary, array, in that order.
    static AnyCodable decode(const Decoder& decoder);
    // Throws EncodingError "Unsupported JSON value" for any other wrapped type.
    Json encode() const { return encodeAt({}); }

    friend bool operator==(const AnyCodable& a, const AnyCodable& b);

    // Removes every NaN or infinite double from the container, at any depth
    // (dictionary members and array elements alike), and reports the path of
    // each ("Index 2" for an element, counted as it stood). JSON has no form
    // for them, and one would fail the encoding of the whole document, so
    // values are cleaned where they enter a record that is encoded later.
    using DroppedHandler = std::function<void(const CodingPath&)>;
    static void dropNonFiniteNumbers(Dictionary& dictionary, const DroppedHandler& dropped,
                                     const CodingPath& path = {});
    static void dropNonFiniteNumbers(Array& array, const DroppedHandler& dropped, const CodingPath& path = {});

private:
    Json encodeAt(const CodingPath& path) const;
    // False when the value itself is a non-finite double; containers are cleaned in place.
    bool keepAfterDroppingNonFinite(const DroppedHandler& dropped, const CodingPath& path);

    template <class T>
    static std::any normalize(T&& value) {
        using D = std::decay_t<T>;
        if constexpr (std::is_same_v<D, bool>) {
            return value;
        } else if constexpr (std::is_integral_v<D> && std::is_signed_v<D>) {
            return static_cast<std::int64_t>(value);
        } else if constexpr (std::is_same_v<D, float>) {
            return static_cast<double>(value);
        } else if constexpr (std::is_same_v<D, const char*> || std::is_same_v<D, char*> ||
                             std::is_same_v<D, std::string_view>) {
            return std::string(value);
        } else {
            return std::any(std::forward<T>(value));
        }
    }

    std::any value_;
};

}  // namespace tavrin
