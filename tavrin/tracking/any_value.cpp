#include "tavrin/tracking/any_value.h"

#include <charconv>
#include <cmath>
#include <string_view>

#include "tavrin/platform/internal/json.h"
#include "tavrin/platform/internal/text.h"
#include "tavrin/tracking/internal/custom_properties.h"

namespace tavrin {

bool operator==(const AnyValue& a, const AnyValue& b) { return a.storage_ == b.storage_; }

namespace {

bool isContainerWithContent(const AnyValue& value) {
    switch (value.kind()) {
        case AnyValue::Kind::array: return !value.asArray().empty();
        case AnyValue::Kind::dictionary: return !value.asDictionary().empty();
        default: return false;
    }
}

}  // namespace

AnyValue::~AnyValue() {
    const auto nested = [](Storage& storage, auto&& visit) {
        if (auto* array = std::get_if<Array>(&storage)) {
            for (auto& element : *array) visit(element);
        } else if (auto* dictionary = std::get_if<Dictionary>(&storage)) {
            for (auto& member : *dictionary) visit(member.second);
        }
    };
    // Most values hold no container inside a container: nothing to unwind.
    bool deep = false;
    nested(storage_, [&](AnyValue& child) { deep = deep || isContainerWithContent(child); });
    if (!deep) return;
    // Each container's non-empty children move to the list before it goes,
    // so every destruction below meets only shallow values.
    std::vector<AnyValue> pending;
    const auto takeChildren = [&](AnyValue& value) {
        nested(value.storage_, [&](AnyValue& child) {
            if (isContainerWithContent(child)) pending.push_back(std::move(child));
        });
    };
    takeChildren(*this);
    while (!pending.empty()) {
        AnyValue value = std::move(pending.back());
        pending.pop_back();
        takeChildren(value);
    }
}

namespace {

// Written straight from the dictionary (std::map, so keys come sorted) rather
// than through a JSON tree: this text is made for every push, and building the
// tree was a third of a push's processing. The output is what a JSON library's
// compact dump gives: the same escapes, numbers in shortest round-trip form.

// Takes what a writer writes and keeps none of it: a walk that only asks
// whether a value has a JSON form.
struct Discard {
    void push_back(char) {}
    template <class... Text>
    void append(Text&&...) {}
    Discard& operator+=(const char*) { return *this; }
};

// Each writer gives false when the value has no JSON form (text that is not
// UTF-8, a number that is not finite, a date, nesting past the limit).
template <class Out>
bool writeText(Out& out, std::string_view text) {
    if (!detail::isValidUtf8(text)) return false;
    static constexpr char kHex[] = "0123456789abcdef";
    out.push_back('"');
    // Runs of characters that need no escape are copied whole.
    std::size_t run = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c != '"' && c != '\\' && static_cast<unsigned char>(c) >= 0x20) continue;
        out.append(text.data() + run, i - run);
        run = i + 1;
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\b': out += "\\b"; break;
            case '\f': out += "\\f"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                out += "\\u00";
                out.push_back(kHex[c >> 4]);
                out.push_back(kHex[c & 0xF]);
        }
    }
    out.append(text.data() + run, text.size() - run);
    out.push_back('"');
    return true;
}

template <class Out>
bool writeValue(Out& out, const AnyValue& value, std::size_t depth);

// `depth` counts the arrays and dictionaries open around this one, itself included.
template <class Out>
bool writeDictionary(Out& out, const AnyValue::Dictionary& dictionary, std::size_t depth) {
    if (depth > platform::kMaxJsonNestingDepth) return false;
    out.push_back('{');
    bool first = true;
    for (const auto& [key, member] : dictionary) {
        if (!first) out.push_back(',');
        first = false;
        if (!writeText(out, key)) return false;
        out.push_back(':');
        if (!writeValue(out, member, depth)) return false;
    }
    out.push_back('}');
    return true;
}

template <class Out>
bool writeValue(Out& out, const AnyValue& value, std::size_t depth) {
    switch (value.kind()) {
        case AnyValue::Kind::null: out += "null"; return true;
        case AnyValue::Kind::text: return writeText(out, value.asText());
        case AnyValue::Kind::boolean: out += value.asBool() ? "true" : "false"; return true;
        case AnyValue::Kind::integer: {
            char buffer[24];
            const auto end = std::to_chars(buffer, buffer + sizeof buffer, value.asInteger()).ptr;
            out.append(buffer, end);
            return true;
        }
        case AnyValue::Kind::number: {
            if (!std::isfinite(value.asNumber())) return false;
            // The JSON library's own formatting ("2.0", "1e+300"), so the text
            // reads as every other JSON the SDK writes.
            char buffer[64];
            const auto end = nlohmann::detail::to_chars(buffer, buffer + sizeof buffer, value.asNumber());
            out.append(buffer, end);
            return true;
        }
        case AnyValue::Kind::array: {
            if (depth + 1 > platform::kMaxJsonNestingDepth) return false;
            out.push_back('[');
            bool first = true;
            for (const auto& element : value.asArray()) {
                if (!first) out.push_back(',');
                first = false;
                if (!writeValue(out, element, depth + 1)) return false;
            }
            out.push_back(']');
            return true;
        }
        case AnyValue::Kind::dictionary: return writeDictionary(out, value.asDictionary(), depth + 1);
        case AnyValue::Kind::date: break;
    }
    return false;
}

}  // namespace

std::optional<std::string> AnyValue::sortedJsonText(const Dictionary& dictionary) {
    std::string out;
    out.reserve(256);
    if (!writeDictionary(out, dictionary, 1)) return std::nullopt;
    return out;
}

bool hasJsonForm(const AnyValue::Dictionary& dictionary) {
    Discard out;
    return writeDictionary(out, dictionary, 1);
}

namespace {

// `%g`'s text (six significant digits), as a stream prints a double, without a stream.
std::string generalText(double value) {
    char buffer[32];
    return std::string(buffer, std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::general, 6).ptr);
}

void describeValue(std::string& out, const AnyValue& value, std::size_t depth);

void describeDictionary(std::string& out, const AnyValue::Dictionary& dictionary, std::size_t depth) {
    if (depth > platform::kMaxJsonNestingDepth) {
        out += "...";
        return;
    }
    out += "dictionary{";
    const char* separator = "";
    for (const auto& [key, member] : dictionary) {
        out += separator;
        out += '"';
        out += key;
        out += "\": ";
        describeValue(out, member, depth);
        separator = ", ";
    }
    out += "}";
}

void describeValue(std::string& out, const AnyValue& value, std::size_t depth) {
    switch (value.kind()) {
        case AnyValue::Kind::null: out += "null"; break;
        case AnyValue::Kind::text: out += "text(\"" + value.asText() + "\")"; break;
        case AnyValue::Kind::boolean: out += std::string("boolean(") + (value.asBool() ? "true" : "false") + ")"; break;
        case AnyValue::Kind::integer: out += "integer(" + std::to_string(value.asInteger()) + ")"; break;
        case AnyValue::Kind::number: out += "number(" + generalText(value.asNumber()) + ")"; break;
        case AnyValue::Kind::array: {
            if (depth + 1 > platform::kMaxJsonNestingDepth) {
                out += "...";
                break;
            }
            out += "array[";
            const char* separator = "";
            for (const auto& element : value.asArray()) {
                out += separator;
                describeValue(out, element, depth + 1);
                separator = ", ";
            }
            out += "]";
            break;
        }
        case AnyValue::Kind::dictionary: describeDictionary(out, value.asDictionary(), depth + 1); break;
        case AnyValue::Kind::date:
            out +=
                "date(" + generalText(std::chrono::duration<double>(value.asDate().time_since_epoch()).count()) + ")";
            break;
    }
}

}  // namespace

std::string describe(const AnyValue& value) {
    std::string out;
    describeValue(out, value, 0);
    return out;
}

std::string describe(const AnyValue::Dictionary& dictionary) {
    std::string out;
    describeDictionary(out, dictionary, 1);
    return out;
}

}  // namespace tavrin
