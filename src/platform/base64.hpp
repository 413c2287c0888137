#pragma once

// Standard base64 (RFC 4648, the "+/" alphabet, "=" padding), the one routine behind the JSON
// coder's bytes strategy and the preferences store's bytes.

#include <optional>
#include <string>
#include <string_view>

#include "zul/platform/data.hpp"

namespace zul::detail {

/// `bytes` as base64 text, padded with "=" to a multiple of four characters.
std::string encodeBase64(const Data& bytes);

/// The bytes of base64 `text`: length a multiple of four, one or two "=" closing the last group
/// only, no whitespace, no URL-safe characters. Absent for anything else.
std::optional<Data> decodeBase64(std::string_view text);

}  // namespace zul::detail
