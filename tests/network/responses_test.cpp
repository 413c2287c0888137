#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <utility>

#include "support/thrown.hpp"
#include "zul/core/json_decoder.hpp"
#include "zul/network/responses.hpp"

namespace {

using zul::AnyResponse;
using zul::DecodingError;
using namespace std::string_view_literals;

AnyResponse parse(std::string_view json) { return zul::JSONDecoder().decode<AnyResponse>(json); }

zul::JSONDecoder withKeyPath(std::string path) {
    zul::JSONDecoder decoder;
    decoder.userInfo.insertOrAssign("keyPath", std::move(path));
    return decoder;
}

template <class T>
DecodingError decodingError(const zul::JSONDecoder& decoder, std::string_view json) {
    return zul::test::thrown<DecodingError>([&] { (void)decoder.decode<T>(json); });
}

struct Envelope {
    zul::ResponseResult<long> payload;
    static Envelope decode(const zul::Decoder& d) {
        return {d.container().decode<zul::ResponseResult<long>>("payload"sv)};
    }
};

TEST(AnyResponseTest, ScalarsTakeTheFirstReadingThatFitsAndCollectionsKeepDocumentOrder) {
    EXPECT_EQ(*parse("1.0").asInteger(), 1);  // integral numbers are integers before doubles
    EXPECT_EQ(*parse("true").asBool(), true);
    EXPECT_EQ(*parse("9223372036854775808").asDouble(), 9223372036854775808.0);  // past Int: a double
    EXPECT_EQ(*parse(R"("1")").asString(), "1");  // text stays text

    // Nested maps and lists keep document order; comparing them whole checks each member's kind too.
    const AnyResponse value = parse(R"({"z": [1, {"b": null}, "x"], "a": {}, "m": 2.5})");
    const AnyResponse expected(AnyResponse::Dictionary{
        {"z", AnyResponse::Array{1, AnyResponse::Dictionary{{"b", zul::Null{}}}, "x"}},
        {"a", AnyResponse::Dictionary{}},
        {"m", 2.5}});
    ASSERT_EQ(value, expected);
    std::string keys;
    for (const auto& entry : *value.asDictionary()) keys += entry.first;
    EXPECT_EQ(keys, "zam");
}

TEST(AnyResponseTest, EqualityIgnoresMapOrderButNotListOrderOrCase) {
    EXPECT_EQ(parse(R"({"a": 1, "b": [true]})"), parse(R"({"b": [true], "a": 1})"));
    const std::pair<std::string_view, std::string_view> unequal[] = {
        {R"({"a": 1})", R"({"a": 1, "b": 2})"}, {R"({"a": 1, "b": 2})", R"({"a": 1, "c": 2})"},
        {R"({"a": 1})", R"({"a": 2})"},         {"[1, 2]", "[2, 1]"},  {"1", R"("1")"},  {"{}", "[]"},
    };
    for (const auto& [a, b] : unequal) EXPECT_NE(parse(a), parse(b)) << a << " vs " << b;
}

TEST(AnyResponseTest, Description) {
    const std::pair<std::string_view, std::string_view> cases[] = {
        {"true", "true"},  {"-3", "-3"},  {R"("a b")", "a b"},  {"1.5", "1.5"},  {"0.1", "0.1"},  {"null", "null"},
        {R"([1, "a", null])", R"(["1", "a", "null"])"},  {R"({"k": "v", "n": 2})", R"(["k": "v", "n": "2"])"},
        {"[[1]]", R"(["[\"1\"]"])"},  {"[]", "[]"},  {"{}", "[:]"},
    };
    for (const auto& [json, text] : cases) EXPECT_EQ(parse(json).description(), text) << json;
}

TEST(ResponseResultTest, DecodesTheValueUnderOneTopLevelKeyDotsIncludedAndAMissingKeyIsDataCorrupted) {
    // (A record type below the key is decoded end to end in the router tests.)
    const auto decoder = withKeyPath("data");
    EXPECT_EQ(decoder.decode<zul::ResponseResult<AnyResponse>>(R"({"meta": 1, "data": [1]})").result,
              AnyResponse(AnyResponse::Array{1}));

    const auto dotted = withKeyPath("a.b");
    EXPECT_EQ(dotted.decode<zul::ResponseResult<long>>(R"({"a": {"b": 1}, "a.b": 2})").result, 2);
    const DecodingError nested = decodingError<zul::ResponseResult<long>>(dotted, R"({"a": {"b": 1}})");
    EXPECT_EQ(nested.codingPath(), zul::CodingPath{zul::CodingKey("a.b")});

    // Without user info the path is the empty key; a plain C string in user info is a path too.
    const zul::JSONDecoder plain;
    EXPECT_EQ(plain.decode<zul::ResponseResult<long>>(R"({"x": 1, "": 7})").result, 7);
    EXPECT_EQ(decodingError<zul::ResponseResult<long>>(plain, R"({"x": 1})").codingPath(), zul::CodingPath{zul::CodingKey("")});
    zul::JSONDecoder literal;
    literal.userInfo.insertOrAssign("keyPath", "x");
    EXPECT_EQ(literal.decode<zul::ResponseResult<long>>(R"({"x": 1})").result, 1);

    // A missing key names the user info entry.
    const DecodingError error = decodingError<zul::ResponseResult<long>>(decoder, R"({"dat": 1, "data2": 2})");
    EXPECT_EQ(error.description(),
              "dataCorrupted(Context(codingPath: [ResponseResultKey(stringValue: \"data\", intValue: nil)], "
              "debugDescription: \"Keypath keyPath not found\", underlyingError: nil))");
    // Below another key, the path is the container's path plus the key looked for.
    const DecodingError below = decodingError<Envelope>(decoder, R"({"payload": {}})");
    EXPECT_EQ(below.codingPath(), (zul::CodingPath{zul::CodingKey("payload"), zul::CodingKey("data")}));

    // Errors of the body and of the value pass through.
    const DecodingError inner = decodingError<zul::ResponseResult<long>>(decoder, R"({"data": "x"})");
    EXPECT_EQ(inner.kind(), DecodingError::Kind::typeMismatch);
    EXPECT_EQ(inner.codingPath(), zul::CodingPath{zul::CodingKey("data")});
    EXPECT_EQ(decodingError<zul::ResponseResult<long>>(decoder, "[1]").kind(), DecodingError::Kind::typeMismatch);
}

}  // namespace
