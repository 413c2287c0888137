#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "zul/platform/any_value.hpp"

namespace {

using zul::AnyList;
using zul::AnyMap;
using zul::AnyValue;
using namespace std::chrono;

zul::Date utc(int y, unsigned m, unsigned d, int hours, int minutes, int seconds) {
    return sys_days{year{y} / month{m} / day{d}} + std::chrono::hours{hours} + std::chrono::minutes{minutes} +
           std::chrono::seconds{seconds};
}

TEST(NumberFormatTest, PositionalFromTenToTheMinusFourUpToTwoToThe53ForDoublesAndTwoToThe24ForFloats) {
    const double inf = std::numeric_limits<double>::infinity();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const std::pair<double, std::string_view> cases[] = {
        {1.0, "1.0"},          {100.0, "100.0"},    {-2.5, "-2.5"},  {0.1, "0.1"},
        {0.1 + 0.2, "0.30000000000000004"},         {0.0001, "0.0001"},  // exponent -4: still positional
        {9007199254740992.0, "9007199254740992.0"},  // 2^53 itself
        {4503599627370495.5, "4503599627370495.5"},  {1e-05, "1e-05"},
        {9007199254740994.0, "9.007199254740994e+15"},  // just past 2^53
        {std::numeric_limits<double>::max(), "1.7976931348623157e+308"},
        {std::numeric_limits<double>::denorm_min(), "5e-324"},
        {0.0, "0.0"},          {-0.0, "-0.0"},      {inf, "inf"},    {-inf, "-inf"},
        {nan, "nan"},          {std::copysign(nan, -1.0), "nan"},
    };
    for (const auto& [value, text] : cases) EXPECT_EQ(AnyValue(value).description(), text) << text;
    // Floats use their own shortest digits and their own upper threshold.
    const std::pair<float, std::string_view> floats[] = {
        {0.1f, "0.1"},  // not the double nearest the float
        {1.0f / 3.0f, "0.33333334"},  {16777216.0f, "16777216.0"},  // 2^24 itself
        {16777218.0f, "1.6777218e+07"}, {1e8f, "1e+08"},  {1e-5f, "1e-05"},  {0.0001f, "0.0001"},
        {std::numeric_limits<float>::max(), "3.4028235e+38"},  {-0.0f, "-0.0"},
        {std::copysign(std::numeric_limits<float>::quiet_NaN(), -1.0f), "nan"},
    };
    for (const auto& [value, text] : floats) EXPECT_EQ(AnyValue(value).description(), text) << text;
    // A double of the same magnitude is still positional: the threshold is the type's own.
    EXPECT_EQ(AnyValue(100000000.0).description(), "100000000.0");
}

TEST(AnyValueTest, DescriptionsPrintElementsInDebugFormAndTextAtTheTopAsItIs) {
    const auto url = zul::URL::fromString("https://example.com/a?b=1");
    ASSERT_TRUE(url.has_value());
    const AnyValue nested(AnyMap{{"z", AnyList{true, 1.5, AnyList{}}},
                                 {"a\"b", AnyMap{{"t", "x\ny"}, {"e", AnyMap{}}}},
                                 {"d", zul::Data{1, 2}}});
    const std::pair<AnyValue, std::string_view> cases[] = {
        {AnyValue(), "<null>"},  {AnyValue(true), "true"},  {AnyValue(std::int8_t{-5}), "-5"},
        {AnyValue(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808"},
        {AnyValue(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615"},
        {AnyValue("a\"b\tc\x1b"), "a\"b\tc\x1b"},  // untouched at the top, quotes and controls included
        {AnyValue(zul::dataFromString("hello")), "5 bytes"},  {AnyValue(zul::Data{0}), "1 bytes"},
        {AnyValue(*url), "https://example.com/a?b=1"},
        {AnyValue(AnyList{*url}), "[https://example.com/a?b=1]"},  // not quoted
        {AnyValue::optional(AnyValue("a")), "Optional(\"a\")"},  {AnyValue::optional(std::nullopt), "nil"},
        {AnyValue::optional(AnyValue::optional(AnyValue(2.0))), "Optional(Optional(2.0))"},
        {AnyValue::optional(AnyValue(AnyList{"x", zul::Null{}})), "Optional([\"x\", <null>])"},
        {AnyValue(AnyList{"a", 1}), "[\"a\", 1]"},  {AnyValue(AnyList{}), "[]"},  {AnyValue(AnyMap{}), "[:]"},
        {AnyValue(AnyMap{{"k", AnyValue::optional(std::nullopt)}}), "[\"k\": nil]"},
        {AnyValue(AnyList{AnyValue::optional(AnyValue(-3)), 2.0f}), "[Optional(-3), 2.0]"},
        // Insertion order, not key order; escapes in keys and in nested text.
        {nested, "[\"z\": [true, 1.5, []], \"a\\\"b\": [\"t\": \"x\\ny\", \"e\": [:]], \"d\": 2 bytes]"},
        {AnyValue(zul::OpaqueValue{std::make_shared<int>(3), "<Thing 0x1>"}), "<Thing 0x1>"},
        // Dates in UTC, whole seconds rounding down: before 1970 to the earlier second, not toward 0.
        {AnyValue(zul::Date{}), "1970-01-01 00:00:00 +0000"},
        {AnyValue(utc(2019, 3, 4, 5, 6, 7) + milliseconds{999}), "2019-03-04 05:06:07 +0000"},
        {AnyValue(utc(2000, 2, 29, 23, 59, 59)), "2000-02-29 23:59:59 +0000"},
        {AnyValue(zul::Date{} - nanoseconds{1}), "1969-12-31 23:59:59 +0000"},
        {AnyValue(utc(1969, 7, 20, 20, 17, 40) + milliseconds{500}), "1969-07-20 20:17:40 +0000"},
        {AnyValue(utc(1901, 12, 14, 0, 0, 0)), "1901-12-14 00:00:00 +0000"},
    };
    for (const auto& [value, text] : cases) EXPECT_EQ(value.description(), text);

    // The debug form differs only for text, which it quotes and escapes.
    for (const AnyValue& same : {AnyValue(zul::Null{}), AnyValue::optional(AnyValue("a")), nested,
                                 AnyValue(zul::OpaqueValue{nullptr, "<Thing 0x1>"}), AnyValue(zul::Date{})}) {
        EXPECT_EQ(same.debugDescription(), same.description());
    }
    const std::pair<std::string, std::string_view> texts[] = {
        {"say \"hi\"", "\"say \\\"hi\\\"\""},
        {std::string("a\\b\"c'd\0e\nf\rg\th", 15), "\"a\\\\b\\\"c\\'d\\0e\\nf\\rg\\th\""},
        {"\x1b[0m", "\"\\u{1B}[0m\""},
        {"\x01\x1f\x7f", "\"\\u{01}\\u{1F}\\u{7F}\""},
        {"caf\xC3\xA9 ~ ", "\"caf\xC3\xA9 ~ \""},  // non-ASCII kept
    };
    for (const auto& [text, debug] : texts) EXPECT_EQ(AnyValue(text).debugDescription(), debug);
}

TEST(AnyValueTest, KindsAndAccessorsAnswerOnlyForTheirOwnKind) {
    EXPECT_EQ(AnyValue(7).kind(), AnyValue::Kind::integer);
    EXPECT_EQ(AnyValue(std::uint16_t{7}).kind(), AnyValue::Kind::unsignedInteger);
    EXPECT_EQ(AnyValue(7.0f).kind(), AnyValue::Kind::float_);
    EXPECT_EQ(AnyValue("x").kind(), AnyValue::Kind::string);

    const AnyValue list(AnyList{1, "a"});
    ASSERT_NE(list.asList(), nullptr);
    EXPECT_EQ(list.asList()->size(), 2u);
    EXPECT_EQ(list.asMap(), nullptr);
    EXPECT_FALSE(list.isAbsentOptional());
    EXPECT_EQ(AnyValue(list).asList(), list.asList());  // a copy shares the storage

    const AnyValue bytes(zul::Data{1, 2, 3});
    ASSERT_NE(bytes.asData(), nullptr);
    EXPECT_EQ(*bytes.asData(), (zul::Data{1, 2, 3}));

    const AnyValue present = AnyValue::optional(AnyValue(5));
    EXPECT_EQ(present.kind(), AnyValue::Kind::optional);
    ASSERT_NE(present.asOptional(), nullptr);
    EXPECT_EQ(*present.asOptional(), AnyValue(5));
    EXPECT_FALSE(present.isAbsentOptional());
    const AnyValue absent = AnyValue::optional(std::nullopt);
    EXPECT_EQ(absent.kind(), AnyValue::Kind::optional);
    EXPECT_EQ(absent.asOptional(), nullptr);
    EXPECT_TRUE(absent.isAbsentOptional());

    auto object = std::make_shared<int>(3);
    const AnyValue opaque(zul::OpaqueValue{object, "<Thing 0x1>"});
    ASSERT_NE(opaque.asOpaque(), nullptr);
    EXPECT_EQ(opaque.asOpaque()->object, object);
}

TEST(AnyValueTest, JSONValidityLooksAtEveryElement) {
    const double inf = std::numeric_limits<double>::infinity();
    for (const AnyValue& valid :
         {AnyValue(), AnyValue(false), AnyValue(-1), AnyValue(1u), AnyValue(0.5), AnyValue(0.5f), AnyValue(""),
          AnyValue(AnyList{}), AnyValue(AnyMap{}),
          AnyValue(AnyMap{{"a", AnyList{1, "b", AnyMap{{"c", zul::Null{}}}, -0.0}}})}) {
        EXPECT_TRUE(valid.isValidJSON()) << valid.description();
    }
    const auto url = zul::URL::fromString("https://example.com");
    ASSERT_TRUE(url.has_value());
    for (const AnyValue& invalid :
         {AnyValue(inf), AnyValue(-inf), AnyValue(std::nan("")), AnyValue(std::numeric_limits<float>::infinity()),
          AnyValue(std::numeric_limits<float>::quiet_NaN()), AnyValue(zul::Date{}), AnyValue(zul::Data{}),
          AnyValue(*url), AnyValue::optional(AnyValue(1)), AnyValue::optional(std::nullopt),
          AnyValue(zul::OpaqueValue{nullptr, "x"}), AnyValue(AnyList{1, 2, AnyList{inf}}),
          AnyValue(AnyMap{{"ok", 1}, {"deep", AnyList{AnyMap{{"d", zul::Date{}}}}}})}) {
        EXPECT_FALSE(invalid.isValidJSON()) << invalid.description();
    }
}

TEST(AnyValueTest, EqualityNeedsTheSameKindAndPayloadAndIgnoresMapOrder) {
    const AnyValue nan(std::nan(""));
    const AnyValue nanList(AnyList{std::nan("")});
    const auto a = AnyValue(*zul::URL::fromString("https://a.example"));
    auto object = std::make_shared<int>(1);
    const std::pair<AnyValue, AnyValue> equal[] = {
        {AnyValue(std::int16_t{1}), AnyValue(std::int64_t{1})},  {AnyValue(0.0), AnyValue(-0.0)},
        {AnyValue("a"), AnyValue(std::string("a"))},
        {AnyValue(zul::Date{} + seconds{5}), AnyValue(zul::Date{} + seconds{5})},
        {AnyValue(zul::Data{1, 2}), AnyValue(zul::Data{1, 2})},
        {a, AnyValue(*zul::URL::fromString("https://a.example"))},
        {AnyValue(AnyList{1, "a", AnyList{}}), AnyValue(AnyList{1, "a", AnyList{}})},
        // Maps are equal when they hold the same pairs, in whatever order.
        {AnyValue(AnyMap{{"a", 1}, {"b", 2}}), AnyValue(AnyMap{{"b", 2}, {"a", 1}})},
        {AnyValue(AnyMap{{"x", AnyMap{{"a", 1}, {"b", 2}}}}), AnyValue(AnyMap{{"x", AnyMap{{"b", 2}, {"a", 1}}}})},
        {AnyValue::optional(std::nullopt), AnyValue::optional(std::nullopt)},
        {AnyValue::optional(AnyValue(1)), AnyValue::optional(AnyValue(1))},
        {AnyValue(zul::OpaqueValue{object, "one"}), AnyValue(zul::OpaqueValue{object, "other text"})},
    };
    const std::pair<AnyValue, AnyValue> unequal[] = {
        {AnyValue(1), AnyValue(1.0)},  {AnyValue(1), AnyValue(1u)},  {AnyValue(1.0), AnyValue(1.0f)},
        {AnyValue(zul::Null{}), AnyValue::optional(std::nullopt)},  {AnyValue("a"), AnyValue("b")},
        {nan, nan},  {nanList, nanList},  // element-wise, even when the storage is shared
        {AnyValue(zul::Date{}), AnyValue(zul::Date{} + nanoseconds{1})},
        {AnyValue(zul::Data{1, 2}), AnyValue(zul::Data{1})},
        {a, AnyValue(*zul::URL::fromString("https://b.example"))},
        {AnyValue(AnyList{1, "a"}), AnyValue(AnyList{"a", 1})},
        {AnyValue(AnyList{1}), AnyValue(AnyList{1, 1})},  {AnyValue(AnyList{}), AnyValue(AnyMap{})},
        {AnyValue(AnyMap{{"a", 1}, {"b", 2}}), AnyValue(AnyMap{{"b", 2}, {"a", 2}})},
        {AnyValue(AnyMap{{"a", 1}, {"b", 2}}), AnyValue(AnyMap{{"a", 1}, {"c", 2}})},
        {AnyValue(AnyMap{{"a", 1}}), AnyValue(AnyMap{{"a", 1}, {"b", 2}})},
        {AnyValue::optional(AnyValue(1)), AnyValue::optional(AnyValue(2))},
        {AnyValue::optional(AnyValue(1)), AnyValue::optional(std::nullopt)},
        {AnyValue::optional(AnyValue(1)), AnyValue(1)},
        {AnyValue(zul::OpaqueValue{object, "same"}), AnyValue(zul::OpaqueValue{std::make_shared<int>(1), "same"})},
    };
    for (const auto& [x, y] : equal) EXPECT_TRUE(x == y) << x.debugDescription() << " == " << y.debugDescription();
    for (const auto& [x, y] : unequal) EXPECT_FALSE(x == y) << x.debugDescription() << " != " << y.debugDescription();
}

}  // namespace
