#pragma once
// JSON facility: nlohmann::json with insertion-ordered objects (member order
// on the wire is the order records write them), plus base64 for byte buffers.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "tavrin/platform/bytes.h"

namespace tavrin {

// Objects keep the order in which members were inserted.
using Json = nlohmann::ordered_json;

// An empty object with room for `members` members. Growing an object copies
// every member already in it (its keys are const, so nothing moves), however
// large: objects that take a large member get their room first.
Json jsonObject(std::size_t members);

namespace platform {

// Arrays and objects nest at most this deep: the parser refuses deeper text,
// and every walk over a host's values stops here too (deeper values are
// dropped), so no recursion ever runs deeper.
inline constexpr std::size_t kMaxJsonNestingDepth = 512;

// Standard alphabet, padded.
std::string base64Encode(const std::uint8_t* data, std::size_t size);
inline std::string base64Encode(const Bytes& data) { return base64Encode(data.data(), data.size()); }
inline std::string base64Encode(std::string_view text) {
    return base64Encode(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}
// Strict: standard alphabet, correct padding, no white space; anything else gives nothing.
std::optional<Bytes> base64Decode(std::string_view text);

// Parses JSON text; gives nothing for malformed text (a NUL byte anywhere
// included) or for arrays and objects nested deeper than 512 levels (never
// throws).
std::optional<Json> parseJson(std::string_view text);

// Compact serialisation (no spaces, no sorting). Invalid UTF-8 in strings is
// replaced rather than thrown, so a diagnostic dump never fails.
std::string dumpJson(const Json& value);

inline Bytes toBytes(std::string_view text) { return Bytes(text.begin(), text.end()); }
inline std::string toString(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

}  // namespace platform
}  // namespace tavrin
