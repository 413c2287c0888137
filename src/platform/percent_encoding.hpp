#pragma once

// Percent-encoding under a set of bytes that may stand as they are: the one routine behind path
// components and query items, which differ only in their sets.

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace zul::detail {

/// The bytes that stay as they are: ASCII letters, digits, and `extra`.
class PercentEncodingSet {
public:
    constexpr explicit PercentEncodingSet(std::string_view extra) {
        for (int c = 'a'; c <= 'z'; ++c) allowed_[static_cast<std::size_t>(c)] = true;
        for (int c = 'A'; c <= 'Z'; ++c) allowed_[static_cast<std::size_t>(c)] = true;
        for (int c = '0'; c <= '9'; ++c) allowed_[static_cast<std::size_t>(c)] = true;
        for (const char c : extra) allowed_[static_cast<unsigned char>(c)] = true;
    }

    constexpr bool allows(char c) const noexcept { return allowed_[static_cast<unsigned char>(c)]; }

    /// The length of `text` once encoded.
    constexpr std::size_t encodedSize(std::string_view text) const noexcept {
        std::size_t size = text.size();
        for (const char c : text) {
            if (!allows(c)) size += 2;
        }
        return size;
    }

    /// Appends `text` to `out`, every other byte as "%XX" with upper-case hex.
    void append(std::string& out, std::string_view text) const {
        static constexpr char hex[] = "0123456789ABCDEF";
        for (const char c : text) {
            if (allows(c)) {
                out += c;
            } else {
                const auto byte = static_cast<unsigned char>(c);
                out += '%';
                out += hex[byte >> 4];
                out += hex[byte & 0x0F];
            }
        }
    }

private:
    std::array<bool, 256> allowed_{};
};

}  // namespace zul::detail
