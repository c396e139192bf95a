#include "tavrin/platform/internal/text.h"

#include <charconv>
#include <cmath>

namespace tavrin::detail {

bool isValidUtf8(std::string_view text) noexcept {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const auto* end = p + text.size();
    while (p < end) {
        const unsigned char c = *p;
        if (c < 0x80) {
            ++p;
            continue;
        }
        int length;
        unsigned char low = 0x80, high = 0xBF;  // range of the second byte
        if (c >= 0xC2 && c <= 0xDF) {
            length = 2;
        } else if (c >= 0xE0 && c <= 0xEF) {
            length = 3;
            if (c == 0xE0) low = 0xA0;
            if (c == 0xED) high = 0x9F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            length = 4;
            if (c == 0xF0) low = 0x90;
            if (c == 0xF4) high = 0x8F;
        } else {
            return false;
        }
        if (end - p < length || p[1] < low || p[1] > high) return false;
        for (int i = 2; i < length; ++i)
            if ((p[i] & 0xC0) != 0x80) return false;
        p += length;
    }
    return true;
}

std::string shortestDecimalText(double value) {
    // Plain digits from a ten-thousandth up to 2^53, the range in which every
    // whole number is exact and a reader expects 100000.0 rather than 1e+05.
    // Outside it plain digits would be long runs of zeros (1e300 has 301
    // digits, 1e-7 six leading zeros) or would suggest integer precision a
    // double does not have, so those keep the shortest exponent form ("1e+300",
    // "1e-07", "9.007199254740992e+15"). Not finite: "inf", "-inf", "nan".
    constexpr double plainFrom = 1e-4;
    constexpr double plainBelow = 9007199254740992.0;  // 2^53
    char buffer[64];
    const double magnitude = std::fabs(value);
    const bool plain = value == 0 || (magnitude >= plainFrom && magnitude < plainBelow);
    const auto result =
        std::to_chars(buffer, buffer + sizeof buffer, value,
                      plain || !std::isfinite(value) ? std::chars_format::fixed : std::chars_format::scientific);
    std::string text(buffer, result.ptr);
    if (plain && text.find('.') == std::string::npos) text += ".0";
    return text;
}

}  // namespace tavrin::detail
