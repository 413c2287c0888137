#pragma once

// ASCII case folding, for the protocol tokens (schemes, header field names) that compare
// without regard to case. Locale-free on purpose: these are never user text.

#include <cstddef>
#include <string_view>

namespace zul::detail {

constexpr char asciiLower(char c) noexcept { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

constexpr bool equalsIgnoringASCIICase(std::string_view a, std::string_view b) noexcept {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (asciiLower(a[i]) != asciiLower(b[i])) return false;
    }
    return true;
}

}  // namespace zul::detail
