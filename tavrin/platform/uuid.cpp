#include "tavrin/platform/internal/uuid.h"

#include "tavrin/platform/internal/secure_random.h"

namespace tavrin::platform {

Uuid::Uuid() {
    SecureRandom::fill(bytes_.data(), bytes_.size());
    bytes_[6] = static_cast<std::uint8_t>((bytes_[6] & 0x0F) | 0x40);  // version 4
    bytes_[8] = static_cast<std::uint8_t>((bytes_[8] & 0x3F) | 0x80);  // RFC 4122 variant
}

std::string Uuid::uuidString() const {
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out(36, '-');
    std::size_t at = 0;
    for (std::size_t i = 0; i < bytes_.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) ++at;  // keeps the dash
        out[at++] = hex[bytes_[i] >> 4];
        out[at++] = hex[bytes_[i] & 0x0F];
    }
    return out;
}

std::string Uuid::make() { return Uuid().uuidString(); }

}  // namespace tavrin::platform
