#include <gtest/gtest.h>

#include <any>
#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/thrown.hpp"
#include "zul/core/codable.hpp"
#include "zul/core/json_decoder.hpp"

namespace {

using namespace std::chrono_literals;
// A literal key is spelled as a string view: a plain literal also converts to a CodingKey.
using namespace std::string_view_literals;
using zul::DecodingError;
using zul::JSONDecoder;

struct Person {
    std::string name;
    int age = 0;
    ZUL_CODABLE(Person, name, age)
};

struct Movie {
    std::string title;
    std::vector<Person> cast;
    ZUL_CODABLE(Movie, title, cast)
};

struct Catalog {
    std::vector<Movie> movies;
    ZUL_CODABLE(Catalog, movies)
};

struct Release {
    zul::Date date;
    ZUL_CODABLE(Release, date)
};

struct Blob {
    zul::Data bytes;
    ZUL_CODABLE(Blob, bytes)
};

// Reads the user info entry "scale" into its own field.
struct Scaled {
    int scale = 0;
    static Scaled decode(const zul::Decoder& decoder) { return {std::any_cast<int>(*decoder.userInfo().get("scale"))}; }
    friend bool operator==(const Scaled&, const Scaled&) = default;
};

// Reads two elements from a list, whatever its length.
struct Pair {
    int first = 0;
    int second = 0;
    static Pair decode(const zul::Decoder& decoder) {
        auto elements = decoder.unkeyedContainer();
        Pair pair;
        pair.first = elements.decode<int>();
        pair.second = elements.decode<int>();
        return pair;
    }
};

template <class F>
DecodingError failure(F&& decode) {
    return zul::test::thrown<DecodingError>(std::forward<F>(decode));
}

// "Type:text#int/..." so a whole path, key types included, compares in one check.
std::string path(const zul::CodingPath& keys) {
    std::string text;
    for (const auto& key : keys) {
        if (!text.empty()) text += "/";
        text += std::string(key.typeName) + ":" + key.stringValue;
        if (key.intValue) text += "#" + std::to_string(*key.intValue);
    }
    return text;
}

// "kind type: description @ path", the type and the path when there are any, so a whole error
// compares in one check.
std::string summary(const DecodingError& error) {
    static constexpr std::string_view kinds[] = {"typeMismatch", "valueNotFound", "keyNotFound", "dataCorrupted"};
    std::string text(kinds[static_cast<std::size_t>(error.kind())]);
    if (!error.type().empty()) text += " " + error.type();
    text += ": " + error.debugDescription();
    if (!error.codingPath().empty()) text += " @ " + path(error.codingPath());
    return text;
}

template <class F>
std::string fails(F&& decode) {
    return summary(failure(std::forward<F>(decode)));
}

// What decoding `json` as T gives: the number read, or the error's description.
template <class T>
std::string outcome(const std::string& json) {
    try {
        const T value = JSONDecoder().decode<T>(json);
        if constexpr (std::is_arithmetic_v<T>) return std::to_string(+value);
        return testing::PrintToString(value);
    } catch (const DecodingError& error) {
        return error.debugDescription();
    }
}

std::string noFit(std::string_view number, std::string_view type) {
    return "Parsed JSON number <" + std::string(number) + "> does not fit in " + std::string(type) + ".";
}

TEST(JSONDecoderScalars, NumbersBooleansAndTextDecodeStrictlyAndMismatchesNameWhatWasFound) {
    const JSONDecoder decoder;
    EXPECT_FLOAT_EQ(decoder.decode<float>("0.25"), 0.25F);
    EXPECT_TRUE(decoder.decode<bool>("true"));
    EXPECT_EQ(decoder.decode<std::string>(R"("a\"b\u00e9\/")"), "a\"b\xC3\xA9/");
    EXPECT_EQ(decoder.decode<std::vector<int>>(zul::dataFromString("[1,2]")), (std::vector<int>{1, 2}));

    EXPECT_EQ(fails([&] { decoder.decode<bool>("1"); }), "typeMismatch Bool: Expected to decode Bool but found a number instead.");
    const std::pair<std::string, std::string_view> mismatches[] = {
        {outcome<long>(R"("1")"), "Expected to decode Int but found a string instead."},
        {outcome<std::string>("12"), "Expected to decode String but found a number instead."},
        {outcome<double>("false"), "Expected to decode Double but found a bool instead."},
        {outcome<short>("{}"), "Expected to decode Int16 but found a dictionary instead."},
        {outcome<unsigned>("[]"), "Expected to decode UInt32 but found an array instead."},
    };
    for (const auto& [actual, expected] : mismatches) EXPECT_EQ(actual, expected);
}

TEST(JSONDecoderIntegers, EachWidthAcceptsItsRangeOnly) {
    const std::pair<std::string, std::string> cases[] = {
        // A number written with a fraction or an exponent is read as an integer when it is whole.
        {outcome<long>("1.0"), "1"},  {outcome<int>("1e3"), "1000"},  {outcome<int>("-0.0"), "0"},
        {outcome<long>("1.5"), noFit("1.5", "Int")},
        {outcome<signed char>("-128"), "-128"},  {outcome<signed char>("128"), noFit("128", "Int8")},
        {outcome<long>("9223372036854775807"), "9223372036854775807"},
        {outcome<long>("9223372036854775808"), noFit("9223372036854775808", "Int")},
        // Beyond 64 bits the number is read as a double that rounds to -2^63, yet is still out of range.
        {outcome<long long>("-9223372036854775809"), noFit("-9223372036854775809", "Int64")},
        // The largest double below 2^63 fits; 2^63 itself does not, though it equals double(INT64_MAX).
        {outcome<long>("9223372036854774784.0"), "9223372036854774784"},
        {outcome<long>("9223372036854775808.0"), noFit("9.223372036854776e+18", "Int")},
        {outcome<unsigned char>("-1"), noFit("-1", "UInt8")},  {outcome<unsigned short>("65536"), noFit("65536", "UInt16")},
        {outcome<unsigned long>("18446744073709551615"), "18446744073709551615"},
        {outcome<unsigned long>("18446744073709551616"), noFit("18446744073709551616", "UInt")},
        {outcome<unsigned long long>("-0.5"), noFit("-0.5", "UInt64")},  {outcome<float>("1e300"), noFit("1e+300", "Float")},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << "case " << i;
    // A huge integer inside an object, next to strings that look like numbers, still parses.
    const auto huge = JSONDecoder().decode<std::map<std::string, double>>(
        R"({"123456789012345678901234": 99999999999999999999999, "b\"1": 1})");
    EXPECT_DOUBLE_EQ(huge.at("123456789012345678901234"), 1e23);
}

TEST(JSONDecoderErrors, MissingKeysNestedFailuresAndContainersOfTheWrongShapeOrNullCarryTheFullPath) {
    EXPECT_EQ(fails([] { JSONDecoder().decode<Catalog>(R"({"movies":[{"title":"A","cast":[{"age":3}]}]})"); }),
              R"(keyNotFound: No value associated with key CodingKeys(stringValue: "name", intValue: nil) ("name").)"
              " @ CodingKeys:movies/_JSONKey:Index 0#0/CodingKeys:cast/_JSONKey:Index 0#0");
    // A key type of the record's own choosing is printed as given.
    struct Custom {
        static Custom decode(const zul::Decoder& decoder) {
            decoder.container("Fields").decode<int>("id"sv);
            return {};
        }
    };
    EXPECT_EQ(fails([] { JSONDecoder().decode<Custom>("{}"); }),
              R"(keyNotFound: No value associated with key Fields(stringValue: "id", intValue: nil) ("id").)");

    const std::string json =
        R"({"movies":[{"title":"A","cast":[]},{"title":"B","cast":[{"name":"x","age":"old"}]}]})";
    EXPECT_EQ(fails([&] { JSONDecoder().decode<Catalog>(json); }),
              "typeMismatch Int32: Expected to decode Int32 but found a string instead. "
              "@ CodingKeys:movies/_JSONKey:Index 1#1/CodingKeys:cast/_JSONKey:Index 0#0/CodingKeys:age");
    EXPECT_EQ(fails([] { JSONDecoder().decode<std::vector<std::vector<signed char>>>("[[1],[2,300]]"); }),
              "dataCorrupted: " + noFit("300", "Int8") + " @ _JSONKey:Index 1#1/_JSONKey:Index 1#1");

    // Reading past the end of a list; elements left unread are no error.
    EXPECT_EQ(JSONDecoder().decode<Pair>("[4,5,6]").second, 5);
    EXPECT_EQ(fails([] { JSONDecoder().decode<std::vector<Pair>>("[[1,2],[3]]"); }),
              "valueNotFound Int32: Unkeyed container is at end. @ _JSONKey:Index 1#1/_JSONKey:Index 1#1");

    // Containers of the wrong shape.
    const JSONDecoder decoder;
    EXPECT_EQ(fails([&] { decoder.decode<Catalog>("[]"); }),
              "typeMismatch Dictionary<String, Any>: Expected to decode Dictionary<String, Any> but found an array instead.");
    EXPECT_EQ(fails([&] { decoder.decode<Catalog>(R"({"movies":{}})"); }),
              "typeMismatch Array<Any>: Expected to decode Array<Any> but found a dictionary instead. @ CodingKeys:movies");

    // Records and collections that are null are missing values of their type.
    EXPECT_EQ(fails([&] { decoder.decode<std::vector<Movie>>(R"([{"title":"A","cast":[]},null])"); }),
              "valueNotFound Movie: Expected Movie value but found null instead. @ _JSONKey:Index 1#1");
    EXPECT_EQ(fails([&] { decoder.decode<Catalog>(R"({"movies":null})"); }),
              "valueNotFound Array<Movie>: Expected Array<Movie> value but found null instead. @ CodingKeys:movies");

    // A hand-written record asking for containers of a null.
    struct NullNested {
        static NullNested decode(const zul::Decoder& decoder) {
            const auto fields = decoder.container();
            if (fields.contains("keyed")) fields.nestedContainer("keyed");
            else fields.nestedUnkeyedContainer("list");
            return {};
        }
    };
    EXPECT_EQ(fails([&] { decoder.decode<NullNested>(R"({"keyed":null})"); }),
              "valueNotFound KeyedDecodingContainer: Cannot get keyed decoding container -- found null value instead. "
              "@ CodingKeys:keyed");
    EXPECT_EQ(failure([&] { decoder.decode<NullNested>(R"({"list":null})"); }).debugDescription(),
              "Cannot get unkeyed decoding container -- found null value instead.");
}

TEST(JSONDecoderErrors, InvalidJSONIsDataCorruptedWithTheParserMessage) {
    for (const std::string json : {"{", "\"\xFF\"", "1e400", "[1] x"}) {
        const auto error = failure([&] { JSONDecoder().decode<std::vector<int>>(json); });
        EXPECT_EQ(summary(error), "dataCorrupted: The given data was not valid JSON.") << json;
        ASSERT_TRUE(error.context().underlyingError.has_value());
        const std::string message = error.context().underlyingError->value().what();
        EXPECT_FALSE(message.empty());
        EXPECT_NE(message, "The given data was not valid JSON.");
    }
}

TEST(JSONDecoderOptionals, AbsentNullAndPresentValues) {
    struct Fields {
        std::optional<int> count;
        std::optional<Person> lead;
        std::vector<std::optional<int>> slots;
        ZUL_CODABLE(Fields, count, lead, slots)
    };
    const JSONDecoder decoder;
    const auto missing = decoder.decode<Fields>(R"({"slots":[]})");
    EXPECT_FALSE(missing.count);
    const auto nulls = decoder.decode<Fields>(R"({"count":null,"lead":null,"slots":[null,2,null]})");
    EXPECT_FALSE(nulls.lead);
    EXPECT_EQ(nulls.slots, (std::vector<std::optional<int>>{std::nullopt, 2, std::nullopt}));
    const auto present = decoder.decode<Fields>(R"({"count":0,"lead":{"name":"N","age":4},"slots":[]})");
    EXPECT_EQ(present.count, 0);
    EXPECT_EQ(present.lead ? present.lead->age : -1, 4);

    // A present optional of the wrong type is still an error.
    EXPECT_EQ(fails([&] { decoder.decode<Fields>(R"({"count":"1","slots":[]})"); }),
              "typeMismatch Int32: Expected to decode Int32 but found a string instead. @ CodingKeys:count");

    // A field that is not optional may not be null (nor missing: see the path test).
    EXPECT_EQ(fails([&] { decoder.decode<Person>(R"({"name":"a","age":null})"); }),
              "typeMismatch Int32: Expected to decode Int32 but found null instead. @ CodingKeys:age");
}

TEST(JSONDecoderContainers, KeysInDocumentOrderTheFirstOfRepeatedKeysAndUserInfo) {
    struct Keys {
        std::vector<std::string> names;
        bool hasB = false;
        bool nilC = false;
        static Keys decode(const zul::Decoder& decoder) {
            const auto fields = decoder.container();
            Keys keys;
            for (const auto& key : fields.allKeys()) keys.names.push_back(key.stringValue);
            keys.hasB = fields.contains("b");
            keys.nilC = fields.decodeNil("c");
            return keys;
        }
    };
    const auto keys = JSONDecoder().decode<Keys>(R"({"z":1,"b":2,"z":3,"c":null})");
    EXPECT_EQ(keys.names, (std::vector<std::string>{"z", "b", "c"}));
    EXPECT_TRUE(keys.hasB);
    EXPECT_TRUE(keys.nilC);
    // Read in the order name, age: the field after "name" is an "age", but not the first one.
    EXPECT_EQ(JSONDecoder().decode<Person>(R"({"age":1,"name":"x","age":2})").age, 1);

    // Large objects are looked up through an index; the same rules hold there.
    std::string json = "{";
    for (int i = 0; i < 100; ++i) json += "\"k" + std::to_string(i) + "\":" + std::to_string(i) + ",";
    json += "\"k7\":700,\"name\":\"big\",\"age\":5}";
    const auto big = JSONDecoder().decode<std::map<std::string, std::optional<int>>>(
        json.substr(0, json.find(",\"name\"")) + "}");
    EXPECT_EQ(big.size(), 100U);
    EXPECT_EQ(big.at("k7"), 7);
    EXPECT_EQ(JSONDecoder().decode<Person>(json).age, 5);
    const auto bigMissing = failure([&] { JSONDecoder().decode<Movie>(json); });
    ASSERT_NE(bigMissing.key(), nullptr);
    EXPECT_EQ(bigMissing.key()->stringValue, "title");

    // Hand-written records nested anywhere see the decoder's user info.
    JSONDecoder decoder;
    decoder.userInfo.insertOrAssign("scale", std::any(3));
    EXPECT_EQ(decoder.decode<std::vector<Scaled>>("[{},{}]"), (std::vector<Scaled>{{3}, {3}}));
}

TEST(JSONDecoderContainers, ListsReadInOrderAtAnyNesting) {
    // Interleaved walks through many lists, more than are remembered at once.
    std::vector<std::vector<int>> expected(40);
    std::string json;
    for (int i = 0; i < 40; ++i) {
        json += i > 0 ? "],[" : "[[";
        for (int j = 0; j <= i % 5; ++j) {
            json += (j > 0 ? "," : "") + std::to_string(i * 10 + j);
            expected[static_cast<std::size_t>(i)].push_back(i * 10 + j);
        }
    }
    json += "]]";
    EXPECT_EQ(JSONDecoder().decode<std::vector<std::vector<int>>>(json), expected);
}

zul::Date utc(int year, unsigned month, unsigned day, int hour, int minute, int second) {
    const auto days = std::chrono::sys_days(std::chrono::year(year) / std::chrono::month(month) / std::chrono::day(day));
    return zul::Date(days) + std::chrono::hours(hour) + std::chrono::minutes(minute) + std::chrono::seconds(second);
}

TEST(JSONDecoderDates, NumericStrategiesAndISO8601WithZonesButNoLooseForms) {
    JSONDecoder decoder;
    EXPECT_EQ(decoder.decode<Release>(R"({"date":-1})").date, utc(2000, 12, 31, 23, 59, 59));  // seconds since 2001
    decoder.dateDecodingStrategy = JSONDecoder::DateDecodingStrategy::secondsSince1970();
    EXPECT_EQ(decoder.decode<zul::Date>("1551675967.5"), utc(2019, 3, 4, 5, 6, 7) + 500ms);
    decoder.dateDecodingStrategy = JSONDecoder::DateDecodingStrategy::millisecondsSince1970();
    EXPECT_EQ(decoder.decode<zul::Date>("1551675967123.25"), utc(2019, 3, 4, 5, 6, 7) + 123250us);
    EXPECT_EQ(decoder.decode<zul::Date>("-1500"), zul::Date(-1500ms));
    // Dates hold 64 bits of nanoseconds, some 292 years either side of 1970.
    EXPECT_EQ(fails([&] { decoder.decode<Release>(R"({"date":1e16})"); }),
              "dataCorrupted: " + noFit("1e+16", "Date") + " @ CodingKeys:date");
    EXPECT_EQ(fails([&] { decoder.decode<Release>(R"({"date":"1551675967"})"); }),
              "typeMismatch Double: Expected to decode Double but found a string instead. @ CodingKeys:date");

    // ISO 8601 accepts zones in every form, and rejects loose forms.
    decoder.dateDecodingStrategy = JSONDecoder::DateDecodingStrategy::iso8601();
    const auto at = [&](const std::string& text) { return decoder.decode<zul::Date>("\"" + text + "\""); };
    for (const std::string text : {"2019-03-04T05:06:07z", "2019-03-04T08:36:07+0330", "2019-03-04T08:06:07+03",
                                   "2019-03-03T23:06:07-06:00", "2019-03-04T05:06:07Z and more"}) {
        EXPECT_EQ(at(text), utc(2019, 3, 4, 5, 6, 7)) << text;
    }
    EXPECT_EQ(at("2020-02-29T00:00:00Z"), utc(2020, 2, 29, 0, 0, 0));

    for (const std::string text : {"2019-03-04T05:06:07.5Z", "2019-03-04t05:06:07Z", "2019-03-04 05:06:07Z",
                                   "2019-03-04T05:06:07", "2019-3-04T05:06:07Z", "2019-02-29T00:00:00Z",
                                   "2019-03-04T24:00:00Z", "2019-03-04T05:06:07+3", ""}) {
        EXPECT_EQ(fails([&] { decoder.decode<Release>(R"({"date":")" + text + "\"}"); }),
                  "dataCorrupted: Expected date string to be ISO8601-formatted. @ CodingKeys:date")
            << text;
    }
    EXPECT_EQ(fails([&] { decoder.decode<zul::Date>("0"); }),
              "typeMismatch String: Expected to decode String but found a number instead.");
}

TEST(JSONDecoderDates, CustomStrategyMayDecodeAnotherDocument) {
    // The date arrives as a JSON document inside a string; reading it needs a second parse while
    // the outer document is still being read.
    JSONDecoder inner;
    inner.dateDecodingStrategy = JSONDecoder::DateDecodingStrategy::secondsSince1970();
    JSONDecoder decoder;
    decoder.dateDecodingStrategy = JSONDecoder::DateDecodingStrategy::custom([&](const zul::Decoder& d) {
        const std::string embedded = d.singleValueContainer().decode<std::string>();
        return inner.decode<std::map<std::string, zul::Date>>(embedded).at("t");
    });
    const auto releases = decoder.decode<std::vector<Release>>(R"([{"date":"{\"t\":10}"},{"date":"{\"t\":20}"}])");
    EXPECT_EQ(releases.size() == 2 ? releases[1].date : zul::Date(), zul::Date(20s));

    // A failure has the inner document's path.
    EXPECT_EQ(fails([&] { decoder.decode<std::vector<Release>>(R"([{"date":"{\"t\":\"x\"}"}])"); }),
              "typeMismatch Double: Expected to decode Double but found a string instead. @ CodingKeys:t");
}

TEST(JSONDecoderData, ListsOfBytesAndBase64) {
    JSONDecoder decoder;
    EXPECT_EQ(decoder.decode<Blob>(R"({"bytes":[0,255,7]})").bytes, (zul::Data{0, 255, 7}));
    EXPECT_EQ(fails([&] { decoder.decode<Blob>(R"({"bytes":[1,300]})"); }),
              "dataCorrupted: " + noFit("300", "UInt8") + " @ CodingKeys:bytes/_JSONKey:Index 1#1");

    decoder.dataDecodingStrategy = JSONDecoder::DataDecodingStrategy::base64();
    for (const auto& [text, bytes] : {std::pair{"", ""}, {"Zg==", "f"}, {"Zm8=", "fo"}, {"Zm9vYg==", "foob"}}) {
        EXPECT_EQ(zul::stringFromData(decoder.decode<zul::Data>("\"" + std::string(text) + "\"")), bytes) << text;
    }
    EXPECT_EQ(decoder.decode<zul::Data>(R"("+/+/")"), (zul::Data{0xFB, 0xFF, 0xBF}));
    for (const std::string text : {"Zg", "Z===", "Zg==Zg==", "Zm 9v", "-_-_", "Zm=v"}) {
        EXPECT_EQ(fails([&] { decoder.decode<Blob>(R"({"bytes":")" + text + "\"}"); }),
                  "dataCorrupted: Encountered Data is not valid Base64. @ CodingKeys:bytes")
            << text;
    }

    decoder.dataDecodingStrategy = JSONDecoder::DataDecodingStrategy::custom(
        [](const zul::Decoder& d) { return zul::dataFromString(d.singleValueContainer().decode<std::string>()); });
    EXPECT_EQ(decoder.decode<Blob>(R"({"bytes":"hi"})").bytes, zul::dataFromString("hi"));
}

}  // namespace
