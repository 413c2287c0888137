#pragma once

/// `Data`: a byte buffer, the type of request and response bodies.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zul {

using Data = std::vector<std::uint8_t>;

/// The bytes of `text`.
inline Data dataFromString(std::string_view text) { return Data(text.begin(), text.end()); }

/// The bytes of `data` as text (no decoding or validation).
inline std::string stringFromData(const Data& data) { return std::string(data.begin(), data.end()); }

}  // namespace zul
