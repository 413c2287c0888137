#include "zul/core/language.hpp"

namespace zul {

const std::string& RussianLanguageHelper::getDeclension(std::int64_t number, const std::string& nominativ,
                                                        const std::string& genetiv, const std::string& plural) noexcept {
    // C++'s % truncates like the division the rule is written for: a negative number has
    // negative remainders, which match none of the cases below and so take the plural.
    const std::int64_t r100 = number % 100;
    if (r100 >= 11 && r100 <= 19) return plural;
    const std::int64_t r10 = r100 % 10;
    if (r10 >= 2 && r10 <= 4) return genetiv;
    if (r10 == 1) return nominativ;
    return plural;
}

}  // namespace zul
