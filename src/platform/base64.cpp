#include "platform/base64.hpp"

#include <algorithm>
#include <array>
#include <cstdint>

namespace zul::detail {

namespace {

constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<std::int8_t, 256> base64Values = [] {
    std::array<std::int8_t, 256> table{};
    table.fill(-1);
    for (std::size_t i = 0; i < alphabet.size(); ++i) {
        table[static_cast<unsigned char>(alphabet[i])] = static_cast<std::int8_t>(i);
    }
    return table;
}();

}  // namespace

std::string encodeBase64(const Data& bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
        std::uint32_t bits = static_cast<std::uint32_t>(bytes[i]) << 16;
        if (count > 1) bits |= static_cast<std::uint32_t>(bytes[i + 1]) << 8;
        if (count > 2) bits |= bytes[i + 2];
        text.push_back(alphabet[(bits >> 18) & 0x3F]);
        text.push_back(alphabet[(bits >> 12) & 0x3F]);
        text.push_back(count > 1 ? alphabet[(bits >> 6) & 0x3F] : '=');
        text.push_back(count > 2 ? alphabet[bits & 0x3F] : '=');
    }
    return text;
}

std::optional<Data> decodeBase64(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    Data bytes;
    bytes.reserve(text.size() / 4 * 3);
    for (std::size_t group = 0; group < text.size(); group += 4) {
        const bool last = group + 4 == text.size();
        std::size_t padding = 0;
        if (last) padding = text[group + 3] != '=' ? 0 : text[group + 2] != '=' ? 1 : 2;
        std::uint32_t bits = 0;
        for (std::size_t i = 0; i < 4; ++i) {
            std::int8_t value = 0;
            if (i < 4 - padding) {
                value = base64Values[static_cast<unsigned char>(text[group + i])];
                if (value < 0) return std::nullopt;
            }
            bits = (bits << 6) | static_cast<std::uint32_t>(value);
        }
        bytes.push_back(static_cast<std::uint8_t>(bits >> 16));
        if (padding < 2) bytes.push_back(static_cast<std::uint8_t>(bits >> 8));
        if (padding < 1) bytes.push_back(static_cast<std::uint8_t>(bits));
    }
    return bytes;
}

}  // namespace zul::detail
