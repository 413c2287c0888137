#include "platform/json_text.hpp"

#include <array>
#include <cstring>

namespace zul::detail {

namespace {

// How many bytes each byte of text grows by when written: 1 for the two-character escapes
// (\" \\ \/ \b \f \n \r \t), 5 for the other control characters (\u00xx), 0 for everything
// else, non-ASCII bytes included (written as raw UTF-8).
constexpr std::array<std::uint8_t, 256> escapeGrowth = [] {
    std::array<std::uint8_t, 256> table{};
    for (std::size_t c = 0; c < 0x20; ++c) table[c] = 5;
    for (const char c : {'"', '\\', '/', '\b', '\f', '\n', '\r', '\t'}) table[static_cast<unsigned char>(c)] = 1;
    return table;
}();

std::uint8_t* put(std::uint8_t* out, const char* text, std::size_t count) noexcept {
    std::memcpy(out, text, count);
    return out + count;
}

}  // namespace

std::size_t jsonTextSize(std::string_view text) noexcept {
    std::size_t size = text.size() + 2;
    for (const char c : text) size += escapeGrowth[static_cast<unsigned char>(c)];
    return size;
}

std::uint8_t* writeJSONText(std::uint8_t* out, std::string_view text) noexcept {
    static constexpr char hex[] = "0123456789abcdef";
    *out++ = '"';
    const char* run = text.data();
    const char* const end = text.data() + text.size();
    for (const char* p = run; p != end; ++p) {
        const auto c = static_cast<unsigned char>(*p);
        if (escapeGrowth[c] == 0) continue;
        out = put(out, run, static_cast<std::size_t>(p - run));
        run = p + 1;
        switch (c) {
            case '"': out = put(out, "\\\"", 2); break;
            case '\\': out = put(out, "\\\\", 2); break;
            case '/': out = put(out, "\\/", 2); break;
            case '\b': out = put(out, "\\b", 2); break;
            case '\f': out = put(out, "\\f", 2); break;
            case '\n': out = put(out, "\\n", 2); break;
            case '\r': out = put(out, "\\r", 2); break;
            case '\t': out = put(out, "\\t", 2); break;
            default: {
                const char unicode[] = {'\\', 'u', '0', '0', hex[c >> 4], hex[c & 0xF]};
                out = put(out, unicode, sizeof unicode);
            }
        }
    }
    out = put(out, run, static_cast<std::size_t>(end - run));
    *out++ = '"';
    return out;
}

void appendJSONText(Data& out, std::string_view text) {
    const std::size_t start = out.size();
    out.resize(start + jsonTextSize(text));
    writeJSONText(out.data() + start, text);
}

}  // namespace zul::detail
