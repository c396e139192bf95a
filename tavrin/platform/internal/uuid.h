#pragma once
// Random (version 4) UUIDs in canonical upper-case text form.

#include <array>
#include <cstdint>
#include <string>

namespace tavrin::platform {

class Uuid {
public:
    // A new random UUID.
    Uuid();
    explicit Uuid(const std::array<std::uint8_t, 16>& bytes) : bytes_(bytes) {}

    // 36 characters, 8-4-4-4-12 groups, upper-case hexadecimal.
    std::string uuidString() const;
    const std::array<std::uint8_t, 16>& bytes() const noexcept { return bytes_; }

    // Shorthand for Uuid().uuidString().
    static std::string make();

private:
    std::array<std::uint8_t, 16> bytes_;
};

}  // namespace tavrin::platform
