#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>

#include "zul/core/language.hpp"

namespace {

const std::string one = "серия";
const std::string few = "серии";
const std::string many = "серий";

std::string form(std::int64_t number) { return zul::RussianLanguageHelper::getDeclension(number, one, few, many); }

TEST(RussianLanguageHelperTest, PicksTheFormByTheLastTwoDigits) {
    for (std::int64_t n : {1, 21, 101, 1001, 91}) EXPECT_EQ(form(n), one) << n;
    for (std::int64_t n : {2, 3, 4, 22, 104, 1002}) EXPECT_EQ(form(n), few) << n;
    for (std::int64_t n : {0, 5, 9, 10, 11, 12, 14, 19, 20, 25, 111, 112, 114, 211}) EXPECT_EQ(form(n), many) << n;
    // Negative counts always take the plural, even where the magnitude would not.
    for (std::int64_t n : std::initializer_list<std::int64_t>{-1, -2, -21, -104, INT64_MIN}) EXPECT_EQ(form(n), many) << n;
    // The very form object passed in comes back.
    EXPECT_EQ(&zul::RussianLanguageHelper::getDeclension(1, one, few, many), &one);
}

TEST(TimeConverterTest, ConvertsToSeconds) {
    EXPECT_DOUBLE_EQ(zul::TimeConverter::milliSecondsToSeconds(1500), 1.5);
    EXPECT_DOUBLE_EQ(zul::TimeConverter::milliSecondsToSeconds(-250), -0.25);
    EXPECT_DOUBLE_EQ(zul::TimeConverter::nanoSecondsToSeconds(2'500'000'000ULL), 2.5);
    EXPECT_DOUBLE_EQ(zul::TimeConverter::nanoSecondsToSeconds(UINT64_MAX), 18446744073.709551615);
}

}  // namespace
