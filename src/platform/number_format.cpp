#include "platform/number_format.hpp"

#include <charconv>
#include <cmath>
#include <cstring>

namespace zul::detail {

namespace {

char* copy(char* out, const char* text, std::size_t length) noexcept {
    std::memcpy(out, text, length);
    return out + length;
}

char* fill(char* out, char c, std::size_t count) noexcept {
    std::memset(out, c, count);
    return out + count;
}

// `exponentialAbove` is the largest power of two below which every integer of the type is
// exact; past it the positional digits would suggest a precision the value does not have.
template <class T>
char* writeGeneralOf(char* out, T value, T exponentialAbove) noexcept {
    if (std::isnan(value)) return copy(out, "nan", 3);
    const bool negative = std::signbit(value);
    if (std::isinf(value)) return negative ? copy(out, "-inf", 4) : copy(out, "inf", 3);
    if (value == 0) return negative ? copy(out, "-0.0", 4) : copy(out, "0.0", 3);

    // The shortest round-trip digits in scientific form: "[-]d[.ddd]e(+|-)dd[d]". Its layout is
    // already the exponential rendering, so that case is a plain copy.
    char scientific[generalRenderingCapacity];
    const auto result =
        std::to_chars(scientific, scientific + sizeof scientific, value, std::chars_format::scientific);
    const char* const end = result.ptr;

    const char* p = scientific + (negative ? 1 : 0);
    char digits[generalRenderingCapacity];
    std::size_t digitCount = 0;
    for (; *p != 'e'; ++p) {
        if (*p != '.') digits[digitCount++] = *p;
    }
    ++p;  // 'e'
    const bool negativeExponent = *p == '-';
    ++p;  // the exponent's sign, always written
    int exponent = 0;
    for (; p != end; ++p) exponent = exponent * 10 + (*p - '0');
    if (negativeExponent) exponent = -exponent;

    if (exponent < -4 || std::fabs(value) > exponentialAbove) {
        return copy(out, scientific, static_cast<std::size_t>(end - scientific));
    }

    if (negative) *out++ = '-';
    if (exponent < 0) {
        // 0.000ddd: the exponent is at least -4, so at most three zeros follow the point.
        out = copy(out, "0.", 2);
        out = fill(out, '0', static_cast<std::size_t>(-exponent - 1));
        return copy(out, digits, digitCount);
    }
    const auto integerDigits = static_cast<std::size_t>(exponent) + 1;
    if (digitCount <= integerDigits) {
        out = copy(out, digits, digitCount);
        out = fill(out, '0', integerDigits - digitCount);
        return copy(out, ".0", 2);
    }
    out = copy(out, digits, integerDigits);
    *out++ = '.';
    return copy(out, digits + integerDigits, digitCount - integerDigits);
}

}  // namespace

char* writeGeneral(char* first, double value) noexcept {
    return writeGeneralOf(first, value, 9007199254740992.0);  // 2^53
}

char* writeGeneral(char* first, float value) noexcept {
    return writeGeneralOf(first, value, 16777216.0f);  // 2^24
}

void appendGeneral(std::string& out, double value) {
    char buffer[generalRenderingCapacity];
    out.append(buffer, writeGeneral(buffer, value));
}

void appendGeneral(std::string& out, float value) {
    char buffer[generalRenderingCapacity];
    out.append(buffer, writeGeneral(buffer, value));
}

}  // namespace zul::detail
