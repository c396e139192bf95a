#pragma once
// A closed, typed JSON value: text, boolean, integer, double, or an array of
// such values. An application builds them for the arguments of
// TrackingService::addCustomEnrichment, which travel exactly as given.
//
//     using tavrin::CodableValue;
//     CodableValue city = CodableValue::string("Vienna");
//     CodableValue sizes = CodableValue::array({CodableValue::integer(38), CodableValue::decimalNumber(38.5)});
//     std::int64_t first = sizes.asArray().front().asInteger();  // 38; asString() would throw
//     std::string line = tavrin::describe(sizes);  // array([integer(38), decimalNumber(38.5)])
//     tavrin::TrackingService::shared()->addCustomEnrichment("geo", {{"city", city}, {"sizes", sizes}}, {"region"});
//
// No null and no object case by design.

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "tavrin/platform/api.h"

namespace tavrin {

class TAVRIN_API CodableValue {
public:
    // Case order is also the case tag 0 to 4.
    enum class Kind { string = 0, boolean = 1, integer = 2, decimalNumber = 3, array = 4 };
    using Array = std::vector<CodableValue>;

    static CodableValue string(std::string value) { return CodableValue(std::move(value)); }
    static CodableValue boolean(bool value) { return CodableValue(Storage(std::in_place_index<1>, value)); }
    static CodableValue integer(std::int64_t value) { return CodableValue(Storage(std::in_place_index<2>, value)); }
    static CodableValue decimalNumber(double value) { return CodableValue(Storage(std::in_place_index<3>, value)); }
    static CodableValue array(Array values) { return CodableValue(Storage(std::in_place_index<4>, std::move(values))); }

    CodableValue(const CodableValue&) = default;
    CodableValue(CodableValue&&) = default;
    CodableValue& operator=(const CodableValue&) = default;
    CodableValue& operator=(CodableValue&&) = default;
    // Releases nested arrays through a work list, not by recursion.
    ~CodableValue();

    Kind kind() const noexcept { return static_cast<Kind>(storage_.index()); }

    // Accessors throw std::bad_variant_access when the case differs.
    const std::string& asString() const { return std::get<0>(storage_); }
    bool asBool() const { return std::get<1>(storage_); }
    std::int64_t asInteger() const { return std::get<2>(storage_); }
    double asDecimalNumber() const { return std::get<3>(storage_); }
    const Array& asArray() const { return std::get<4>(storage_); }

    // Different cases never compare equal; doubles compare by IEEE rules
    // (NaN unequal to itself, 0.0 equal to -0.0).
    friend TAVRIN_API bool operator==(const CodableValue& a, const CodableValue& b);

private:
    using Storage = std::variant<std::string, bool, std::int64_t, double, Array>;
    bool isNonEmptyArray() const noexcept {
        const auto* array = std::get_if<Array>(&storage_);
        return array && !array->empty();
    }
    explicit CodableValue(std::string value) : storage_(std::in_place_index<0>, std::move(value)) {}
    explicit CodableValue(Storage storage) : storage_(std::move(storage)) {}

    Storage storage_;
};

// Readable form for logs and test failures: "string(\"a\")", "integer(1)", ...
// Arrays nested deeper than 512 levels are shown as "...".
TAVRIN_API std::string describe(const CodableValue& value);

}  // namespace tavrin
