#include "tavrin/platform/internal/coding.h"

#include <limits>

namespace tavrin {

namespace {

const char* jsonTypeName(const Json& j) {
    switch (j.type()) {
        case Json::value_t::null: return "null";
        case Json::value_t::object: return "a dictionary";
        case Json::value_t::array: return "an array";
        case Json::value_t::string: return "a string";
        case Json::value_t::boolean: return "a boolean";
        case Json::value_t::number_integer:
        case Json::value_t::number_unsigned:
        case Json::value_t::number_float: return "a number";
        default: return "an unsupported value";
    }
}

std::string describeDecoding(DecodingError::Kind kind, const CodingPath& path, const std::string& debug) {
    std::string text = "The data couldn't be read because ";
    switch (kind) {
        case DecodingError::Kind::typeMismatch: text += "it isn't in the correct format"; break;
        case DecodingError::Kind::valueNotFound:
        case DecodingError::Kind::keyNotFound: text += "it is missing"; break;
        case DecodingError::Kind::dataCorrupted: text += "it isn't in the correct format"; break;
    }
    text += ". (";
    text += decodingErrorKindName(kind);
    if (!path.empty()) text += " at " + codingPathText(path);
    text += ": " + debug + ")";
    return text;
}

std::string describeEncoding(const CodingPath& path, const std::string& debug) {
    std::string text = "The data couldn't be written because it isn't in the correct format. (invalidValue";
    if (!path.empty()) text += " at " + codingPathText(path);
    text += ": " + debug + ")";
    return text;
}

}  // namespace

std::string codingPathText(const CodingPath& path) {
    std::string out;
    for (const auto& p : path) {
        if (!out.empty()) out += '.';
        out += p;
    }
    return out;
}

const char* decodingErrorKindName(DecodingError::Kind kind) noexcept {
    switch (kind) {
        case DecodingError::Kind::typeMismatch: return "typeMismatch";
        case DecodingError::Kind::valueNotFound: return "valueNotFound";
        case DecodingError::Kind::keyNotFound: return "keyNotFound";
        case DecodingError::Kind::dataCorrupted: return "dataCorrupted";
    }
    return "unknown";
}

DecodingError::DecodingError(Kind kind, CodingPath codingPath, std::string debugDescription)
    : std::runtime_error(describeDecoding(kind, codingPath, debugDescription)),
      kind_(kind),
      codingPath_(std::move(codingPath)),
      debugDescription_(std::move(debugDescription)) {}

EncodingError::EncodingError(CodingPath codingPath, std::string debugDescription)
    : EncodingError(std::any{}, std::move(codingPath), std::move(debugDescription)) {}

EncodingError::EncodingError(std::any value, CodingPath codingPath, std::string debugDescription)
    : std::runtime_error(describeEncoding(codingPath, debugDescription)),
      value_(std::move(value)),
      codingPath_(std::move(codingPath)),
      debugDescription_(std::move(debugDescription)) {}

Json Decoder::parse(std::string_view text) {
    auto parsed = platform::parseJson(text);
    if (!parsed) throw DecodingError(DecodingError::Kind::dataCorrupted, {}, "The given data was not valid JSON.");
    return std::move(*parsed);
}

void Decoder::typeMismatch(std::string_view expected) const {
    throw DecodingError(DecodingError::Kind::typeMismatch, path_,
                        "Expected to decode " + std::string(expected) + " but found " + jsonTypeName(*node_) +
                            " instead.");
}

void Decoder::dataCorrupted(std::string debugDescription) const {
    throw DecodingError(DecodingError::Kind::dataCorrupted, path_, std::move(debugDescription));
}

void Decoder::expectNotNull(std::string_view expected) const {
    if (node_->is_null())
        throw DecodingError(DecodingError::Kind::valueNotFound, path_,
                            "Expected " + std::string(expected) + " value but found null instead.");
}

std::string Decoder::decodeString() const {
    expectNotNull("String");
    if (!node_->is_string()) typeMismatch("String");
    return node_->get<std::string>();
}

bool Decoder::decodeBool() const {
    expectNotNull("Bool");
    if (!node_->is_boolean()) typeMismatch("Bool");
    return node_->get<bool>();
}

std::int64_t Decoder::decodeInt64() const {
    expectNotNull("Int64");
    if (node_->is_number_unsigned()) {
        const auto v = node_->get<std::uint64_t>();
        if (v > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
            dataCorrupted("Parsed JSON number <" + std::to_string(v) + "> does not fit in Int64.");
        return static_cast<std::int64_t>(v);
    }
    if (node_->is_number_integer()) return node_->get<std::int64_t>();
    if (node_->is_number_float()) dataCorrupted("Parsed JSON number <" + node_->dump() + "> does not fit in Int64.");
    typeMismatch("Int64");
}

double Decoder::decodeDouble() const {
    expectNotNull("Double");
    if (!node_->is_number()) typeMismatch("Double");
    return node_->get<double>();
}

bool Decoder::contains(std::string_view key) const {
    return node_->is_object() && node_->find(std::string(key)) != node_->end();
}

Decoder Decoder::nested(std::string_view key) const {
    if (!node_->is_object()) typeMismatch("Dictionary<String, Any>");
    auto it = node_->find(std::string(key));
    if (it == node_->end()) {
        throw DecodingError(DecodingError::Kind::keyNotFound, path_,
                            "No value associated with key \"" + std::string(key) + "\".");
    }
    CodingPath p = path_;
    p.emplace_back(key);
    return Decoder(*it, std::move(p));
}

std::optional<Decoder> Decoder::nestedIfPresent(std::string_view key) const {
    if (!node_->is_object()) typeMismatch("Dictionary<String, Any>");
    auto it = node_->find(std::string(key));
    if (it == node_->end() || it->is_null()) return std::nullopt;
    CodingPath p = path_;
    p.emplace_back(key);
    return Decoder(*it, std::move(p));
}

std::vector<Decoder> Decoder::elements() const {
    expectNotNull("Array");
    if (!node_->is_array()) typeMismatch("Array<Any>");
    std::vector<Decoder> out;
    out.reserve(node_->size());
    std::size_t i = 0;
    for (const auto& e : *node_) {
        CodingPath p = path_;
        p.push_back("Index " + std::to_string(i++));
        out.emplace_back(e, std::move(p));
    }
    return out;
}

std::vector<std::pair<std::string, Decoder>> Decoder::members() const {
    expectNotNull("Dictionary");
    if (!node_->is_object()) typeMismatch("Dictionary<String, Any>");
    std::vector<std::pair<std::string, Decoder>> out;
    out.reserve(node_->size());
    for (auto it = node_->begin(); it != node_->end(); ++it) {
        CodingPath p = path_;
        p.push_back(it.key());
        out.emplace_back(it.key(), Decoder(it.value(), std::move(p)));
    }
    return out;
}

}  // namespace tavrin
