#pragma once
// The loosely typed value an application pushes: text, boolean, signed
// integer, number (double), array, dictionary, date or null. It converts
// implicitly from ordinary C++ values, so a push reads like a literal:
//
//     using tavrin::AnyValue;
//     AnyValue::Dictionary command{{"track", "pageview"}, {"price", 9.99}, {"qty", 3}, {"ok", true},
//                                  {"tags", AnyValue::Array{"a", "b"}}, {"coupon", nullptr}};
//     double price = command.at("price").asNumber();  // asInteger() would throw std::bad_variant_access
//     std::optional<std::string> line = AnyValue::sortedJsonText(command);  // for a log line
//     tavrin::TrackingService::shared()->push(std::move(command));
//
// Each value lands in the kind a reader expects:
//   - string literals, char pointers, std::string and std::string_view are text
//     (a pointer never decays to boolean: only bool itself is boolean);
//   - every signed integer type (int, long, long long, int8_t ... int64_t) is
//     an integer;
//   - unsigned integers are integers while they fit a signed 64-bit integer and
//     numbers (double) above that, so a large size_t keeps its magnitude instead
//     of wrapping to a negative integer;
//   - float, double and long double are numbers (long double narrowed to double);
//   - plain char, wchar_t and the charN_t types do not convert: a single
//     character is neither clearly text nor clearly a number, so write "a" or
//     an integer. signed char / unsigned char (int8_t / uint8_t) are integers.
//   - any system_clock time point is a date; nullptr or AnyValue() is null.

#include <chrono>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "tavrin/platform/api.h"

namespace tavrin {

namespace detail {
template <class T>
concept CharacterType = std::same_as<T, char> || std::same_as<T, wchar_t> || std::same_as<T, char8_t> ||
    std::same_as<T, char16_t> || std::same_as<T, char32_t>;
template <class T>
concept PushInteger = std::integral<T> && !std::same_as<T, bool> && !CharacterType<T>;
}  // namespace detail

class TAVRIN_API AnyValue {
public:
    // Tag order is the order of the alternatives below.
    enum class Kind { null = 0, text, boolean, integer, number, array, dictionary, date };

    using Array = std::vector<AnyValue>;
    // Keys are unique and iterate in sorted (byte) order. A pushed dictionary
    // promises no order to its readers, and sorted iteration makes the debug
    // JSON text (which wants sorted keys) and every test deterministic.
    using Dictionary = std::map<std::string, AnyValue>;
    using Date = std::chrono::system_clock::time_point;

    AnyValue() noexcept = default;  // null
    AnyValue(std::nullptr_t) noexcept {}

    AnyValue(const char* text) : storage_(std::in_place_index<1>, text) {}
    AnyValue(std::string text) : storage_(std::in_place_index<1>, std::move(text)) {}
    AnyValue(std::string_view text) : storage_(std::in_place_index<1>, text) {}

    // Only bool itself: pointers, doubles and class types that convert to bool
    // must not become booleans behind the caller's back.
    template <std::same_as<bool> T>
    AnyValue(T value) noexcept : storage_(std::in_place_index<2>, value) {}

    template <detail::PushInteger T>
    AnyValue(T value) noexcept : storage_(integerStorage(value)) {}

    template <std::floating_point T>
    AnyValue(T value) noexcept : storage_(std::in_place_index<4>, static_cast<double>(value)) {}

    AnyValue(Array values) : storage_(std::in_place_index<5>, std::move(values)) {}
    AnyValue(Dictionary values) : storage_(std::in_place_index<6>, std::move(values)) {}

    // Any precision of system_clock time point (sys_seconds, sys_days, ...).
    template <class Duration>
    AnyValue(std::chrono::time_point<std::chrono::system_clock, Duration> date)
        : storage_(std::in_place_index<7>, std::chrono::time_point_cast<Date::duration>(date)) {}

    template <detail::CharacterType T>
    AnyValue(T) = delete;

    AnyValue(const AnyValue&) = default;
    AnyValue(AnyValue&&) = default;
    AnyValue& operator=(const AnyValue&) = default;
    AnyValue& operator=(AnyValue&&) = default;
    // Releases nested arrays and dictionaries through a work list, not by
    // recursion: a value nested however deep never exhausts the stack.
    ~AnyValue();

    Kind kind() const noexcept { return static_cast<Kind>(storage_.index()); }
    bool isNull() const noexcept { return kind() == Kind::null; }

    // Accessors throw std::bad_variant_access when the kind differs.
    const std::string& asText() const { return std::get<1>(storage_); }
    bool asBool() const { return std::get<2>(storage_); }
    std::int64_t asInteger() const { return std::get<3>(storage_); }
    double asNumber() const { return std::get<4>(storage_); }
    const Array& asArray() const { return std::get<5>(storage_); }
    const Dictionary& asDictionary() const { return std::get<6>(storage_); }
    Date asDate() const { return std::get<7>(storage_); }

    // Pointer to the text, or null when the value is not text.
    const std::string* textIf() const noexcept { return std::get_if<1>(&storage_); }

    // Same kind and equal payloads; numbers compare by IEEE rules.
    friend TAVRIN_API bool operator==(const AnyValue& a, const AnyValue& b);

    // Compact JSON text of a dictionary with its keys sorted at every level,
    // for log lines. Null becomes JSON null. Gives nothing when a value has no
    // JSON form: a date, a non-finite number, text that is not valid UTF-8, or
    // arrays and dictionaries nested deeper than 512 levels (the dictionary
    // itself is the first).
    static std::optional<std::string> sortedJsonText(const Dictionary& dictionary);

private:
    using Storage = std::variant<std::monostate, std::string, bool, std::int64_t, double, Array, Dictionary, Date>;

    template <class T>
    static Storage integerStorage(T value) noexcept {
        if constexpr (std::is_signed_v<T>) {
            return Storage(std::in_place_index<3>, static_cast<std::int64_t>(value));
        } else {
            if (static_cast<std::uintmax_t>(value) <=
                static_cast<std::uintmax_t>(std::numeric_limits<std::int64_t>::max()))
                return Storage(std::in_place_index<3>, static_cast<std::int64_t>(value));
            return Storage(std::in_place_index<4>, static_cast<double>(value));
        }
    }

    Storage storage_;
};

// Readable form for logs and test failures: text("a"), integer(3), array[...], ...
// Values nested deeper than 512 levels are shown as "...".
TAVRIN_API std::string describe(const AnyValue& value);
TAVRIN_API std::string describe(const AnyValue::Dictionary& dictionary);

}  // namespace tavrin
