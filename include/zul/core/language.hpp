#pragma once

/// Language and time helpers: the Russian noun form that goes with a count, and conversions of
/// nanosecond and millisecond counts to seconds.
///
///     zul::RussianLanguageHelper::getDeclension(3, "серия", "серии", "серий");   // "серии"
///     zul::TimeConverter::milliSecondsToSeconds(1500);                           // 1.5

#include <cstdint>
#include <string>

namespace zul {

class RussianLanguageHelper {
public:
    RussianLanguageHelper() = delete;

    /// The form of a noun for `number` items: `nominativ` (the nominative singular, for 1, 21,
    /// 101, ...), `genetiv` (the genitive singular, for 2-4, 22-24, ...) or `plural` (the genitive
    /// plural, for 0, 5-20, 25-30, 111-114, ...). Negative numbers always give `plural`.
    static const std::string& getDeclension(std::int64_t number, const std::string& nominativ,
                                            const std::string& genetiv, const std::string& plural) noexcept;
};

class TimeConverter {
public:
    TimeConverter() = delete;

    static double nanoSecondsToSeconds(std::uint64_t nanoseconds) noexcept {
        return static_cast<double>(nanoseconds) / 1'000'000'000.0;
    }
    static double milliSecondsToSeconds(std::int64_t milliseconds) noexcept {
        return static_cast<double>(milliseconds) / 1000.0;
    }
};

}  // namespace zul
