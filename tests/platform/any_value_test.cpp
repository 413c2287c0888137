#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>

#include "zul/platform/any_value.hpp"

namespace {

using zul::AnyList;
using zul::AnyMap;
using zul::AnyValue;
using namespace std::chrono;

std::string describe(double value) { return AnyValue(value).description(); }
std::string describe(float value) { return AnyValue(value).description(); }

zul::Date utc(int y, unsigned m, unsigned d, int hours, int minutes, int seconds) {
    return sys_days{year{y} / month{m} / day{d}} + std::chrono::hours{hours} + std::chrono::minutes{minutes} +
           std::chrono::seconds{seconds};
}

TEST(NumberFormatTest, DoublesArePositionalBetweenTheThresholds) {
    EXPECT_EQ(describe(1.0), "1.0");
    EXPECT_EQ(describe(100.0), "100.0");
    EXPECT_EQ(describe(-2.5), "-2.5");
    EXPECT_EQ(describe(0.1), "0.1");
    EXPECT_EQ(describe(0.1 + 0.2), "0.30000000000000004");
    EXPECT_EQ(describe(0.0001), "0.0001");          // exponent -4: still positional
    EXPECT_EQ(describe(0.00012345), "0.00012345");
    EXPECT_EQ(describe(1e15), "1000000000000000.0");
    EXPECT_EQ(describe(9007199254740992.0), "9007199254740992.0");  // 2^53 itself
    EXPECT_EQ(describe(4503599627370495.5), "4503599627370495.5");
}

TEST(NumberFormatTest, DoublesTurnExponentialBelowTenToTheMinusFourAndAboveTwoToThe53) {
    EXPECT_EQ(describe(1e-05), "1e-05");
    EXPECT_EQ(describe(0.000012345), "1.2345e-05");
    EXPECT_EQ(describe(-1e-7), "-1e-07");
    EXPECT_EQ(describe(9007199254740994.0), "9.007199254740994e+15");  // just past 2^53
    EXPECT_EQ(describe(1e16), "1e+16");
    EXPECT_EQ(describe(123456789012345678.0), "1.2345678901234568e+17");
    EXPECT_EQ(describe(std::numeric_limits<double>::max()), "1.7976931348623157e+308");
    EXPECT_EQ(describe(std::numeric_limits<double>::denorm_min()), "5e-324");
}

TEST(NumberFormatTest, ZerosInfinitiesAndNaNs) {
    const double inf = std::numeric_limits<double>::infinity();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(describe(0.0), "0.0");
    EXPECT_EQ(describe(-0.0), "-0.0");
    EXPECT_EQ(describe(inf), "inf");
    EXPECT_EQ(describe(-inf), "-inf");
    EXPECT_EQ(describe(nan), "nan");
    EXPECT_EQ(describe(std::copysign(nan, -1.0)), "nan");
    EXPECT_EQ(describe(-0.0f), "-0.0");
    EXPECT_EQ(describe(std::copysign(std::numeric_limits<float>::quiet_NaN(), -1.0f)), "nan");
}

TEST(NumberFormatTest, FloatsUseTheirOwnDigitsAndTwoToThe24) {
    EXPECT_EQ(describe(0.1f), "0.1");  // not the double nearest the float
    EXPECT_EQ(describe(1.0f / 3.0f), "0.33333334");
    EXPECT_EQ(describe(16777216.0f), "16777216.0");  // 2^24 itself
    EXPECT_EQ(describe(16777218.0f), "1.6777218e+07");
    EXPECT_EQ(describe(1e8f), "1e+08");
    EXPECT_EQ(describe(1e-5f), "1e-05");
    EXPECT_EQ(describe(0.0001f), "0.0001");
    EXPECT_EQ(describe(std::numeric_limits<float>::max()), "3.4028235e+38");
    // A double of the same magnitude is still positional: the threshold is the type's own.
    EXPECT_EQ(describe(100000000.0), "100000000.0");
}

TEST(AnyValueTest, ScalarsPrintAndReportTheirKind) {
    EXPECT_EQ(AnyValue().description(), "<null>");
    EXPECT_EQ(AnyValue(zul::Null{}).debugDescription(), "<null>");
    EXPECT_EQ(AnyValue(true).description(), "true");
    EXPECT_EQ(AnyValue(std::numeric_limits<std::int64_t>::min()).description(), "-9223372036854775808");
    EXPECT_EQ(AnyValue(std::numeric_limits<std::uint64_t>::max()).description(), "18446744073709551615");
    EXPECT_EQ(AnyValue(std::int8_t{-5}).description(), "-5");

    EXPECT_EQ(AnyValue(7).kind(), AnyValue::Kind::integer);
    EXPECT_EQ(AnyValue(7u).kind(), AnyValue::Kind::unsignedInteger);
    EXPECT_EQ(AnyValue(std::uint16_t{7}).kind(), AnyValue::Kind::unsignedInteger);
    EXPECT_EQ(AnyValue(7.0f).kind(), AnyValue::Kind::float_);
    EXPECT_EQ(AnyValue("x").kind(), AnyValue::Kind::string);

    const AnyValue text("say \"hi\"");
    EXPECT_EQ(text.description(), "say \"hi\"");  // as it is at the top
    EXPECT_EQ(text.debugDescription(), "\"say \\\"hi\\\"\"");
}

TEST(AnyValueTest, AccessorsAnswerOnlyForTheirOwnKind) {
    const AnyValue list(AnyList{1, "a"});
    ASSERT_NE(list.asList(), nullptr);
    EXPECT_EQ(list.asList()->size(), 2u);
    EXPECT_EQ(list.asMap(), nullptr);
    EXPECT_EQ(list.asOptional(), nullptr);
    EXPECT_FALSE(list.isAbsentOptional());
    EXPECT_EQ(list.asInteger(), nullptr);

    const AnyValue copy = list;  // shared, not copied
    EXPECT_EQ(copy.asList(), list.asList());

    const AnyValue bytes(zul::Data{1, 2, 3});
    ASSERT_NE(bytes.asData(), nullptr);
    EXPECT_EQ(*bytes.asData(), (zul::Data{1, 2, 3}));
    EXPECT_EQ(bytes.asList(), nullptr);

    const AnyValue present = AnyValue::optional(AnyValue(5));
    EXPECT_EQ(present.kind(), AnyValue::Kind::optional);
    ASSERT_NE(present.asOptional(), nullptr);
    EXPECT_EQ(*present.asOptional()->asInteger(), 5);
    EXPECT_FALSE(present.isAbsentOptional());

    const AnyValue absent = AnyValue::optional(std::nullopt);
    EXPECT_EQ(absent.kind(), AnyValue::Kind::optional);
    EXPECT_EQ(absent.asOptional(), nullptr);
    EXPECT_TRUE(absent.isAbsentOptional());

    auto object = std::make_shared<int>(3);
    const AnyValue opaque(zul::OpaqueValue{object, "<Thing 0x1>"});
    ASSERT_NE(opaque.asOpaque(), nullptr);
    EXPECT_EQ(opaque.asOpaque()->object, object);
    EXPECT_EQ(opaque.description(), "<Thing 0x1>");
    EXPECT_EQ(opaque.debugDescription(), "<Thing 0x1>");
}

TEST(AnyValueTest, DebugFormEscapesText) {
    EXPECT_EQ(AnyValue(std::string("a\\b\"c'd\0e\nf\rg\th", 15)).debugDescription(),
              "\"a\\\\b\\\"c\\'d\\0e\\nf\\rg\\th\"");
    EXPECT_EQ(AnyValue("\x1b[0m").debugDescription(), "\"\\u{1B}[0m\"");
    EXPECT_EQ(AnyValue("\x01\x1f\x7f").debugDescription(), "\"\\u{01}\\u{1F}\\u{7F}\"");
    EXPECT_EQ(AnyValue("caf\xC3\xA9 ~ ").debugDescription(), "\"caf\xC3\xA9 ~ \"");  // non-ASCII kept
    // The description of text at the top is the text untouched, controls included.
    EXPECT_EQ(AnyValue("a\tb\x1b").description(), "a\tb\x1b");
}

TEST(AnyValueTest, DatesPrintInUTCWholeSecondsRoundingDown) {
    EXPECT_EQ(AnyValue(zul::Date{}).description(), "1970-01-01 00:00:00 +0000");
    EXPECT_EQ(AnyValue(utc(2019, 3, 4, 5, 6, 7)).description(), "2019-03-04 05:06:07 +0000");
    EXPECT_EQ(AnyValue(utc(2019, 3, 4, 5, 6, 7) + milliseconds{999}).description(), "2019-03-04 05:06:07 +0000");
    EXPECT_EQ(AnyValue(utc(2000, 2, 29, 23, 59, 59)).debugDescription(), "2000-02-29 23:59:59 +0000");
    // Before 1970 sub-seconds still go to the earlier second, not toward the epoch.
    EXPECT_EQ(AnyValue(zul::Date{} - nanoseconds{1}).description(), "1969-12-31 23:59:59 +0000");
    EXPECT_EQ(AnyValue(utc(1969, 7, 20, 20, 17, 40) + milliseconds{500}).description(), "1969-07-20 20:17:40 +0000");
    EXPECT_EQ(AnyValue(utc(1901, 12, 14, 0, 0, 0)).description(), "1901-12-14 00:00:00 +0000");
}

TEST(AnyValueTest, BytesURLsAndOptionals) {
    EXPECT_EQ(AnyValue(zul::dataFromString("hello")).description(), "5 bytes");
    EXPECT_EQ(AnyValue(zul::Data{0}).description(), "1 bytes");

    auto url = zul::URL::fromString("https://example.com/a?b=1");
    ASSERT_TRUE(url.has_value());
    EXPECT_EQ(AnyValue(*url).description(), "https://example.com/a?b=1");
    EXPECT_EQ(AnyValue(AnyList{*url}).description(), "[https://example.com/a?b=1]");  // not quoted

    EXPECT_EQ(AnyValue::optional(AnyValue(1)).description(), "Optional(1)");
    EXPECT_EQ(AnyValue::optional(AnyValue("a")).description(), "Optional(\"a\")");
    EXPECT_EQ(AnyValue::optional(AnyValue("a")).debugDescription(), "Optional(\"a\")");
    EXPECT_EQ(AnyValue::optional(std::nullopt).description(), "nil");
    EXPECT_EQ(AnyValue::optional(AnyValue::optional(AnyValue(2.0))).description(), "Optional(Optional(2.0))");
    EXPECT_EQ(AnyValue::optional(AnyValue(AnyList{"x", zul::Null{}})).description(), "Optional([\"x\", <null>])");
}

TEST(AnyValueTest, CollectionsPrintTheirElementsInDebugForm) {
    EXPECT_EQ(AnyValue(AnyList{1, 2}).description(), "[1, 2]");
    EXPECT_EQ(AnyValue(AnyList{}).description(), "[]");
    EXPECT_EQ(AnyValue(AnyMap{}).description(), "[:]");
    EXPECT_EQ(AnyValue(AnyList{"a", 1}).description(), "[\"a\", 1]");
    EXPECT_EQ(AnyValue(AnyMap{{"k", "v"}, {"n", 1}}).description(), "[\"k\": \"v\", \"n\": 1]");
    EXPECT_EQ(AnyValue(AnyMap{{"k", AnyValue::optional(std::nullopt)}}).description(), "[\"k\": nil]");

    // Insertion order, not key order; escapes in keys and in nested text.
    const AnyValue nested(AnyMap{{"z", AnyList{true, 1.5, AnyList{}}},
                                 {"a\"b", AnyMap{{"t", "x\ny"}, {"e", AnyMap{}}}},
                                 {"d", zul::Data{1, 2}}});
    const std::string expected = "[\"z\": [true, 1.5, []], \"a\\\"b\": [\"t\": \"x\\ny\", \"e\": [:]], \"d\": 2 bytes]";
    EXPECT_EQ(nested.description(), expected);
    EXPECT_EQ(nested.debugDescription(), expected);
    EXPECT_EQ(AnyValue(AnyList{AnyValue::optional(AnyValue(-3)), 2.0f}).description(), "[Optional(-3), 2.0]");
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

TEST(AnyValueTest, EqualityNeedsTheSameKindAndPayload) {
    EXPECT_NE(AnyValue(1), AnyValue(1.0));
    EXPECT_NE(AnyValue(1), AnyValue(1u));
    EXPECT_NE(AnyValue(1.0), AnyValue(1.0f));
    EXPECT_NE(AnyValue(zul::Null{}), AnyValue::optional(std::nullopt));
    EXPECT_EQ(AnyValue(std::int16_t{1}), AnyValue(std::int64_t{1}));
    EXPECT_EQ(AnyValue(0.0), AnyValue(-0.0));
    const AnyValue nan(std::nan(""));
    EXPECT_NE(nan, nan);
    const AnyValue nanList(AnyList{std::nan("")});
    EXPECT_NE(nanList, nanList);  // element-wise, even when the storage is shared
    EXPECT_EQ(AnyValue("a"), AnyValue(std::string("a")));
    EXPECT_NE(AnyValue("a"), AnyValue("b"));
    EXPECT_EQ(AnyValue(zul::Date{} + seconds{5}), AnyValue(zul::Date{} + seconds{5}));
    EXPECT_NE(AnyValue(zul::Date{}), AnyValue(zul::Date{} + nanoseconds{1}));
    EXPECT_EQ(AnyValue(zul::Data{1, 2}), AnyValue(zul::Data{1, 2}));
    EXPECT_NE(AnyValue(zul::Data{1, 2}), AnyValue(zul::Data{1}));
    EXPECT_EQ(AnyValue(*zul::URL::fromString("https://a.example")), AnyValue(*zul::URL::fromString("https://a.example")));
    EXPECT_NE(AnyValue(*zul::URL::fromString("https://a.example")), AnyValue(*zul::URL::fromString("https://b.example")));
}

TEST(AnyValueTest, EqualityOfCollectionsOptionalsAndOpaqueValues) {
    EXPECT_EQ(AnyValue(AnyList{1, "a", AnyList{}}), AnyValue(AnyList{1, "a", AnyList{}}));
    EXPECT_NE(AnyValue(AnyList{1, "a"}), AnyValue(AnyList{"a", 1}));
    EXPECT_NE(AnyValue(AnyList{1}), AnyValue(AnyList{1, 1}));
    EXPECT_NE(AnyValue(AnyList{}), AnyValue(AnyMap{}));

    // Maps are equal when they hold the same pairs, in whatever order.
    EXPECT_EQ(AnyValue(AnyMap{{"a", 1}, {"b", 2}}), AnyValue(AnyMap{{"b", 2}, {"a", 1}}));
    EXPECT_NE(AnyValue(AnyMap{{"a", 1}, {"b", 2}}), AnyValue(AnyMap{{"b", 2}, {"a", 2}}));
    EXPECT_NE(AnyValue(AnyMap{{"a", 1}, {"b", 2}}), AnyValue(AnyMap{{"a", 1}, {"c", 2}}));
    EXPECT_NE(AnyValue(AnyMap{{"a", 1}}), AnyValue(AnyMap{{"a", 1}, {"b", 2}}));
    EXPECT_EQ(AnyValue(AnyMap{{"x", AnyMap{{"a", 1}, {"b", 2}}}}), AnyValue(AnyMap{{"x", AnyMap{{"b", 2}, {"a", 1}}}}));

    EXPECT_EQ(AnyValue::optional(std::nullopt), AnyValue::optional(std::nullopt));
    EXPECT_EQ(AnyValue::optional(AnyValue(1)), AnyValue::optional(AnyValue(1)));
    EXPECT_NE(AnyValue::optional(AnyValue(1)), AnyValue::optional(AnyValue(2)));
    EXPECT_NE(AnyValue::optional(AnyValue(1)), AnyValue::optional(std::nullopt));
    EXPECT_NE(AnyValue::optional(AnyValue(1)), AnyValue(1));

    auto object = std::make_shared<int>(1);
    EXPECT_EQ(AnyValue(zul::OpaqueValue{object, "one"}), AnyValue(zul::OpaqueValue{object, "other text"}));
    EXPECT_NE(AnyValue(zul::OpaqueValue{object, "same"}), AnyValue(zul::OpaqueValue{std::make_shared<int>(1), "same"}));
}

}  // namespace
