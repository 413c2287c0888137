#pragma once

/// Random (version 4) UUIDs and their canonical text.

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zul {

class UUID {
public:
    /// The nil UUID (all zero bits).
    constexpr UUID() noexcept = default;
    constexpr explicit UUID(const std::array<std::uint8_t, 16>& bytes) noexcept : bytes_(bytes) {}

    /// A fresh random UUID (version 4, RFC 4122 variant) from the kernel's random source.
    static UUID random();

    /// Parses the canonical form, 8-4-4-4-12 hexadecimal digits in either case; absent otherwise.
    static std::optional<UUID> fromString(std::string_view text);

    /// Canonical text in upper case, for example "6F9619FF-8B86-D011-B42D-00C04FC964FF".
    std::string uuidString() const;

    /// Writes the 36 characters of `uuidString()` to `out` without allocating.
    void write(char* out) const noexcept;

    const std::array<std::uint8_t, 16>& bytes() const noexcept { return bytes_; }

    friend constexpr auto operator<=>(const UUID&, const UUID&) = default;

private:
    std::array<std::uint8_t, 16> bytes_{};
};

}  // namespace zul
