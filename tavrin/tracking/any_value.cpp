#include "tavrin/tracking/any_value.h"

#include <cmath>
#include <sstream>

#include "tavrin/platform/internal/json.h"

namespace tavrin {

bool operator==(const AnyValue& a, const AnyValue& b) { return a.storage_ == b.storage_; }

namespace {

// nlohmann::json (not the ordered flavour) keeps object members in a
// std::map, so every level comes out with its keys sorted.
using SortedJson = nlohmann::json;

struct NoJsonForm {};

SortedJson toSortedJson(const AnyValue& value) {
    switch (value.kind()) {
        case AnyValue::Kind::null:
            return nullptr;
        case AnyValue::Kind::text:
            return value.asText();
        case AnyValue::Kind::boolean:
            return value.asBool();
        case AnyValue::Kind::integer:
            return value.asInteger();
        case AnyValue::Kind::number:
            if (!std::isfinite(value.asNumber())) throw NoJsonForm{};
            return value.asNumber();
        case AnyValue::Kind::array: {
            SortedJson out = SortedJson::array();
            for (const auto& element : value.asArray()) out.push_back(toSortedJson(element));
            return out;
        }
        case AnyValue::Kind::dictionary: {
            SortedJson out = SortedJson::object();
            for (const auto& [key, member] : value.asDictionary()) out[key] = toSortedJson(member);
            return out;
        }
        case AnyValue::Kind::date:
            break;
    }
    throw NoJsonForm{};
}

}  // namespace

std::optional<std::string> AnyValue::sortedJsonText(const Dictionary& dictionary) {
    try {
        SortedJson root = SortedJson::object();
        for (const auto& [key, member] : dictionary) root[key] = toSortedJson(member);
        // The default (strict) error handler refuses text that is not valid UTF-8.
        return root.dump();
    } catch (const NoJsonForm&) {
        return std::nullopt;
    } catch (const SortedJson::exception&) {
        return std::nullopt;
    }
}

std::string describe(const AnyValue& value) {
    std::ostringstream out;
    switch (value.kind()) {
        case AnyValue::Kind::null:
            out << "null";
            break;
        case AnyValue::Kind::text:
            out << "text(\"" << value.asText() << "\")";
            break;
        case AnyValue::Kind::boolean:
            out << "boolean(" << (value.asBool() ? "true" : "false") << ")";
            break;
        case AnyValue::Kind::integer:
            out << "integer(" << value.asInteger() << ")";
            break;
        case AnyValue::Kind::number:
            out << "number(" << value.asNumber() << ")";
            break;
        case AnyValue::Kind::array: {
            out << "array[";
            const char* separator = "";
            for (const auto& element : value.asArray()) {
                out << separator << describe(element);
                separator = ", ";
            }
            out << "]";
            break;
        }
        case AnyValue::Kind::dictionary: {
            out << "dictionary{";
            const char* separator = "";
            for (const auto& [key, member] : value.asDictionary()) {
                out << separator << '"' << key << "\": " << describe(member);
                separator = ", ";
            }
            out << "}";
            break;
        }
        case AnyValue::Kind::date:
            out << "date(" << std::chrono::duration<double>(value.asDate().time_since_epoch()).count() << ")";
            break;
    }
    return out.str();
}

}  // namespace tavrin
