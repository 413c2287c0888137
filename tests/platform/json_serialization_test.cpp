#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include "support/thrown.hpp"
#include "zul/platform/json_serialization.hpp"

namespace {

using zul::AnyList;
using zul::AnyMap;
using zul::AnyValue;
using zul::JSONSerialization;

std::string json(const AnyValue& value, bool pretty = false) {
    return zul::stringFromData(JSONSerialization::data(value, {.prettyPrinted = pretty}));
}

TEST(JSONSerializationTest, CompactOutputKeepsTheMapsOrderAndScalarsStandAlone) {
    EXPECT_EQ(json(AnyMap{{"a", 1}, {"b", AnyList{true, zul::Null{}}}}), "{\"a\":1,\"b\":[true,null]}");
    EXPECT_EQ(json(AnyMap{{"z", 1}, {"a", 2}, {"m", AnyMap{{"y", false}, {"b", "t"}}}}),
              "{\"z\":1,\"a\":2,\"m\":{\"y\":false,\"b\":\"t\"}}");
    EXPECT_EQ(json(AnyList{AnyList{}, AnyMap{}, AnyList{AnyList{1}}}), "[[],{},[[1]]]");
    EXPECT_EQ(zul::stringFromData(JSONSerialization::data(AnyList{1, 2})), "[1,2]");  // compact by default

    // Whole numbers lose ".0"; the longest integers are in the next test.
    const std::pair<AnyValue, std::string_view> scalars[] = {
        {zul::Null{}, "null"}, {false, "false"}, {1.0, "1"}, {-0.0, "-0"}, {1e16, "1e+16"},
        {0.1f, "0.1"},         {16777216.0f, "16777216"},    {"x", "\"x\""},
    };
    for (const auto& [value, text] : scalars) EXPECT_EQ(json(value), text) << text;
}

// The writer fills room reserved up front; the longest renderings of each number type, side by
// side, must fit it (the sanitizer build would catch a write past the buffer).
TEST(JSONSerializationTest, LongestNumbersFitTheRoomReserved) {
    const AnyList longest{std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::uint64_t>::max(),
                          -2.2250738585072014e-308, -0.00012345678901234567, -4503599627370495.5,
                          -1.00093005e-36f, -1.00040015e-05f};
    const std::string numbers =
        "-9223372036854775808,18446744073709551615,-2.2250738585072014e-308,-0.00012345678901234567,"
        "-4503599627370495.5,-1.00093005e-36,-1.00040015e-05";
    EXPECT_EQ(json(longest), "[" + numbers + "]");
    EXPECT_EQ(json(AnyMap{{"n", longest}}), "{\"n\":[" + numbers + "]}");
    std::string pretty = numbers;
    for (std::size_t at = pretty.find(','); at != std::string::npos; at = pretty.find(',', at + 1)) {
        pretty.replace(at, 1, ",\n    ");
    }
    EXPECT_EQ(json(AnyMap{{"n", longest}}, true), "{\n  \"n\" : [\n    " + pretty + "\n  ]\n}");
}

TEST(JSONSerializationTest, TextEscapes) {
    EXPECT_EQ(json("/a//"), "\"\\/a\\/\\/\"");  // escapes first, last and side by side
    EXPECT_EQ(json("q\"b\\"), "\"q\\\"b\\\\\"");
    EXPECT_EQ(json("\b\f\n\r\t"), "\"\\b\\f\\n\\r\\t\"");
    EXPECT_EQ(json(std::string("\0\x01\x1f ", 4)), "\"\\u0000\\u0001\\u001f \"");  // lower-case hex
    EXPECT_EQ(json("\x7f'"), "\"\x7f'\"");         // DEL and the apostrophe are not escaped
    EXPECT_EQ(json("caf\xC3\xA9 \xE2\x82\xAC"), "\"caf\xC3\xA9 \xE2\x82\xAC\"");  // raw UTF-8
    EXPECT_EQ(json(""), "\"\"");
    EXPECT_EQ(json(AnyMap{{"a/b\n", "v"}}), "{\"a\\/b\\n\":\"v\"}");  // keys too, a slash in between
}

TEST(JSONSerializationTest, PrettyPrintingIndentsByTwoAndEmptyContainersKeepBothLineBreaks) {
    EXPECT_EQ(json(AnyMap{{"a", 1}, {"b", AnyList{true, "x/y"}}}, true),
              "{\n"
              "  \"a\" : 1,\n"
              "  \"b\" : [\n"
              "    true,\n"
              "    \"x\\/y\"\n"
              "  ]\n"
              "}");
    EXPECT_EQ(json(AnyList{AnyList{1, 2.5}}, true), "[\n  [\n    1,\n    2.5\n  ]\n]");
    EXPECT_EQ(json(AnyMap{{"k", AnyMap{{"n", AnyMap{{"d", zul::Null{}}}}}}}, true),
              "{\n  \"k\" : {\n    \"n\" : {\n      \"d\" : null\n    }\n  }\n}");
    EXPECT_EQ(json(7, true), "7");  // a scalar gets no line breaks
    // Empty containers keep both line breaks, at every depth.
    EXPECT_EQ(json(AnyMap{}, true), "{\n\n}");
    EXPECT_EQ(json(AnyList{}, true), "[\n\n]");
    EXPECT_EQ(json(AnyMap{{"a", AnyMap{}}, {"b", AnyList{}}}, true),
              "{\n  \"a\" : {\n\n  },\n  \"b\" : [\n\n  ]\n}");
    EXPECT_EQ(json(AnyList{AnyList{AnyMap{}}}, true), "[\n  [\n    {\n\n    }\n  ]\n]");
}

TEST(JSONSerializationTest, WriteAppendsToWhatIsThere) {
    zul::Data out = zul::dataFromString("abc");
    JSONSerialization::write(AnyList{1}, {}, out);
    EXPECT_EQ(zul::stringFromData(out), "abc[1]");
    JSONSerialization::write(AnyMap{{"k", "v"}}, {.prettyPrinted = true}, out);
    EXPECT_EQ(zul::stringFromData(out), "abc[1]{\n  \"k\" : \"v\"\n}");
    for (int i = 0; i < 200; ++i) JSONSerialization::write(AnyValue("escaped/\n"), {}, out);
    const std::string one = "\"escaped\\/\\n\"";
    EXPECT_EQ(out.size(), std::string("abc[1]{\n  \"k\" : \"v\"\n}").size() + 200 * one.size());
    EXPECT_EQ(zul::stringFromData(out).substr(out.size() - one.size()), one);
}

TEST(JSONSerializationTest, RejectsWhatJSONCannotHoldAndLeavesTheOutputAlone) {
    const double inf = std::numeric_limits<double>::infinity();
    const auto url = zul::URL::fromString("https://example.com");
    ASSERT_TRUE(url.has_value());
    const AnyValue rejected[] = {
        AnyValue(inf), AnyValue(-inf), AnyValue(std::nan("")), AnyValue(std::numeric_limits<float>::quiet_NaN()),
        AnyValue(zul::Date{}), AnyValue(zul::Data{1}), AnyValue(*url), AnyValue::optional(AnyValue(1)),
        AnyValue::optional(std::nullopt), AnyValue(zul::OpaqueValue{nullptr, "thing"}),
        // Valid content first, so a writer that wrote as it went would have written some.
        AnyValue(AnyMap{{"long", std::string(100, 'x')}, {"deep", AnyList{1, AnyMap{{"d", zul::Date{}}}}}}),
        AnyValue(AnyList{"a", "b", AnyList{AnyList{inf}}}),
    };
    for (const AnyValue& value : rejected) {
        for (const bool pretty : {false, true}) {
            zul::Data out = zul::dataFromString("kept");
            EXPECT_THROW(JSONSerialization::write(value, {.prettyPrinted = pretty}, out), zul::JSONSerializationError)
                << value.description();
            EXPECT_EQ(zul::stringFromData(out), "kept") << value.description();
        }
        EXPECT_THROW(JSONSerialization::data(value), zul::JSONSerializationError);
    }
    const auto error =
        zul::test::thrown<zul::JSONSerializationError>([] { JSONSerialization::data(AnyValue(zul::Date{})); });
    EXPECT_STREQ(error.what(), "Invalid type in JSON write");
}

}  // namespace
