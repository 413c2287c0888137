#pragma once

// The pieces of JSON text that every JSON writer of the library writes the same way: strings
// (with "/" escaped as "\/", other controls as \u00xx, non-ASCII raw) and numbers (the shortest
// form, a whole double without ".0").

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/number_format.hpp"
#include "zul/platform/data.hpp"

namespace zul::detail {

/// The exact number of bytes `text` takes written as a JSON string, quotes included.
std::size_t jsonTextSize(std::string_view text) noexcept;

/// Writes `text` as a JSON string at `out`, which has room for `jsonTextSize(text)` bytes;
/// returns the end of what it wrote.
std::uint8_t* writeJSONText(std::uint8_t* out, std::string_view text) noexcept;

/// Appends `text` as a JSON string to `out`.
void appendJSONText(Data& out, std::string_view text);

/// Most bytes `writeJSONNumber` writes.
inline constexpr std::size_t jsonNumberCapacity = generalRenderingCapacity;

/// Writes a finite number in its shortest form, a whole number without ".0" (1.0 -> 1,
/// 1e16 -> 1e+16); returns the end.
template <class F>
char* writeJSONNumber(char* out, F value) noexcept {
    char* end = writeGeneral(out, value);
    if (end - out >= 2 && end[-2] == '.' && end[-1] == '0') end -= 2;
    return end;
}

}  // namespace zul::detail
