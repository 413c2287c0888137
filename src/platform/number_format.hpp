#pragma once

/// The general rendering of floating-point numbers, the way the platform prints them.
///
/// The digits are the shortest that read back to the same value (what `std::to_chars` gives).
/// A value is written in exponential form ("1e-05", "1e+16", "1.2345678901234568e+17") when its
/// decimal exponent is below -4 or its magnitude exceeds the largest integer the type holds
/// exactly (2^53 for doubles, 2^24 for floats); otherwise positionally, with whole numbers
/// keeping ".0" ("1.0", "0.0001", "9007199254740992.0"). Infinities are "inf" and "-inf", and
/// every NaN, whatever its sign, is "nan".
///
/// Text descriptions of values, JSON writing and stored preferences all print numbers this way,
/// so the rendering lives here on its own, with no dependency on the types that use it.

#include <cstddef>
#include <string>

namespace zul::detail {

/// Enough room for any rendering: the longest is a negative double with 17 digits and a
/// three-digit exponent ("-1.2345678901234567e-308", 24 characters).
inline constexpr std::size_t generalRenderingCapacity = 32;

/// Writes the rendering of `value` at `first`, which must have `generalRenderingCapacity`
/// characters of room, and returns the end of what was written. No terminating NUL.
char* writeGeneral(char* first, double value) noexcept;
char* writeGeneral(char* first, float value) noexcept;

/// Appends the rendering of `value` to `out`.
void appendGeneral(std::string& out, double value);
void appendGeneral(std::string& out, float value);

}  // namespace zul::detail
