#include "tavrin/platform/internal/json.h"

#include <array>

namespace tavrin::platform {

namespace {
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int, 256> makeReverse() {
    std::array<int, 256> table{};
    for (auto& v : table) v = -1;
    for (int i = 0; i < 64; ++i) table[static_cast<unsigned char>(kAlphabet[i])] = i;
    return table;
}
constexpr auto kReverse = makeReverse();

// Deeper documents are refused: decoding walks them recursively, and no
// record of ours nests anywhere near this far.
constexpr std::size_t kMaxNestingDepth = kMaxJsonNestingDepth;

// Checks what the parser would let through: nesting beyond the limit, and a
// NUL byte, which the parser takes for the end of the text (so "[1]\0junk"
// would pass). A NUL is never valid JSON, inside strings or out.
bool passesPrescan(std::string_view text) {
    std::size_t depth = 0;
    bool inString = false;
    bool escaped = false;
    for (const char c : text) {
        if (c == '\0') return false;
        if (inString) {
            if (escaped)
                escaped = false;
            else if (c == '\\')
                escaped = true;
            else if (c == '"')
                inString = false;
            continue;
        }
        switch (c) {
            case '"': inString = true; break;
            case '[':
            case '{':
                if (++depth > kMaxNestingDepth) return false;
                break;
            case ']':
            case '}':
                if (depth > 0) --depth;
                break;
            default: break;
        }
    }
    return true;
}
}  // namespace

std::string base64Encode(const std::uint8_t* data, std::size_t size) {
    std::string out;
    out.reserve((size + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 2 < size; i += 3) {
        const std::uint32_t n = (std::uint32_t{data[i]} << 16) | (std::uint32_t{data[i + 1]} << 8) | data[i + 2];
        out.push_back(kAlphabet[(n >> 18) & 63]);
        out.push_back(kAlphabet[(n >> 12) & 63]);
        out.push_back(kAlphabet[(n >> 6) & 63]);
        out.push_back(kAlphabet[n & 63]);
    }
    if (i < size) {
        std::uint32_t n = std::uint32_t{data[i]} << 16;
        if (i + 1 < size) n |= std::uint32_t{data[i + 1]} << 8;
        out.push_back(kAlphabet[(n >> 18) & 63]);
        out.push_back(kAlphabet[(n >> 12) & 63]);
        out.push_back(i + 1 < size ? kAlphabet[(n >> 6) & 63] : '=');
        out.push_back('=');
    }
    return out;
}

std::optional<Bytes> base64Decode(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    Bytes out;
    out.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        int v[4];
        int pad = 0;
        for (int k = 0; k < 4; ++k) {
            const char c = text[i + k];
            if (c == '=') {
                // Padding only in the last group, only in its last two places, and only trailing.
                if (!last || k < 2) return std::nullopt;
                ++pad;
                v[k] = 0;
            } else {
                if (pad > 0) return std::nullopt;
                v[k] = kReverse[static_cast<unsigned char>(c)];
                if (v[k] < 0) return std::nullopt;
            }
        }
        const std::uint32_t n = (std::uint32_t(v[0]) << 18) | (std::uint32_t(v[1]) << 12) | (std::uint32_t(v[2]) << 6) |
                                std::uint32_t(v[3]);
        out.push_back(static_cast<std::uint8_t>(n >> 16));
        if (pad < 2) out.push_back(static_cast<std::uint8_t>(n >> 8));
        if (pad < 1) out.push_back(static_cast<std::uint8_t>(n));
        // Reject non-canonical encodings whose padding hides set bits.
        if (pad == 2 && (v[1] & 0x0F) != 0) return std::nullopt;
        if (pad == 1 && (v[2] & 0x03) != 0) return std::nullopt;
    }
    return out;
}

std::optional<Json> parseJson(std::string_view text) {
    if (!passesPrescan(text)) return std::nullopt;
    try {
        Json value = Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
        if (value.is_discarded()) return std::nullopt;
        return value;
    } catch (const Json::exception&) {
        return std::nullopt;
    }
}

std::string dumpJson(const Json& value) { return value.dump(-1, ' ', false, Json::error_handler_t::replace); }

}  // namespace tavrin::platform

namespace tavrin {

Json jsonObject(std::size_t members) {
    Json out = Json::object();
    out.get_ptr<Json::object_t*>()->reserve(members);
    return out;
}

}  // namespace tavrin
