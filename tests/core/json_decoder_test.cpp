#include <gtest/gtest.h>

#include <any>
#include <chrono>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "zul/core/codable.hpp"
#include "zul/core/json_decoder.hpp"

namespace {

using namespace std::chrono_literals;
// A literal key is spelled as a string view: a plain literal also converts to a CodingKey.
using namespace std::string_view_literals;
using zul::DecodingError;
using zul::JSONDecoder;
using Kind = zul::DecodingError::Kind;

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
    int value = 0;
    int scale = 0;
    static Scaled decode(const zul::Decoder& decoder) {
        Scaled scaled;
        scaled.value = decoder.container().decode<int>("value"sv);
        scaled.scale = std::any_cast<int>(*decoder.userInfo().get("scale"));
        return scaled;
    }
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
    try {
        decode();
    } catch (const DecodingError& error) {
        return error;
    }
    throw std::logic_error("the decode did not fail");
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

template <class T>
std::string fitError(const std::string& json) {
    return failure([&] { JSONDecoder().decode<T>(json); }).debugDescription();
}

TEST(JSONDecoderScalars, NumbersBooleansAndTextDecodeStrictly) {
    const JSONDecoder decoder;
    EXPECT_EQ(decoder.decode<long>("1.0"), 1);
    EXPECT_EQ(decoder.decode<int>("1e3"), 1000);
    EXPECT_EQ(decoder.decode<int>("-0.0"), 0);
    EXPECT_DOUBLE_EQ(decoder.decode<double>("7"), 7.0);
    EXPECT_DOUBLE_EQ(decoder.decode<double>("18446744073709551615"), 18446744073709551615.0);
    EXPECT_FLOAT_EQ(decoder.decode<float>("0.25"), 0.25F);
    EXPECT_TRUE(decoder.decode<bool>("true"));
    EXPECT_EQ(decoder.decode<std::string>(R"("a\"b\u00e9\/")"), "a\"b\xC3\xA9/");
    EXPECT_EQ(decoder.decode<std::vector<int>>(zul::dataFromString("[1,2]")), (std::vector<int>{1, 2}));

    const auto fraction = failure([&] { decoder.decode<long>("1.5"); });
    EXPECT_EQ(fraction.kind(), Kind::dataCorrupted);
    EXPECT_EQ(fraction.debugDescription(), "Parsed JSON number <1.5> does not fit in Int.");
    EXPECT_EQ(fitError<float>("1e300"), "Parsed JSON number <1e+300> does not fit in Float.");
}

TEST(JSONDecoderScalars, TypeMismatchesNameWhatWasFound) {
    const JSONDecoder decoder;
    const auto number = failure([&] { decoder.decode<bool>("1"); });
    EXPECT_EQ(number.kind(), Kind::typeMismatch);
    EXPECT_EQ(number.type(), "Bool");
    EXPECT_EQ(number.debugDescription(), "Expected to decode Bool but found a number instead.");
    EXPECT_TRUE(number.codingPath().empty());

    EXPECT_EQ(failure([&] { decoder.decode<long>(R"("1")"); }).debugDescription(),
              "Expected to decode Int but found a string instead.");
    EXPECT_EQ(failure([&] { decoder.decode<std::string>("12"); }).debugDescription(),
              "Expected to decode String but found a number instead.");
    EXPECT_EQ(failure([&] { decoder.decode<double>("false"); }).debugDescription(),
              "Expected to decode Double but found a bool instead.");
    EXPECT_EQ(failure([&] { decoder.decode<short>("{}"); }).debugDescription(),
              "Expected to decode Int16 but found a dictionary instead.");
    EXPECT_EQ(failure([&] { decoder.decode<unsigned>("[]"); }).debugDescription(),
              "Expected to decode UInt32 but found an array instead.");
    const auto null = failure([&] { decoder.decode<long>("null"); });
    EXPECT_EQ(null.kind(), Kind::typeMismatch);
    EXPECT_EQ(null.debugDescription(), "Expected to decode Int but found null instead.");
}

TEST(JSONDecoderIntegers, SignedWidthsAcceptTheirRangeOnly) {
    const JSONDecoder decoder;
    EXPECT_EQ(decoder.decode<signed char>("-128"), -128);
    EXPECT_EQ(decoder.decode<signed char>("127"), 127);
    EXPECT_EQ(fitError<signed char>("128"), "Parsed JSON number <128> does not fit in Int8.");
    EXPECT_EQ(fitError<signed char>("-129"), "Parsed JSON number <-129> does not fit in Int8.");
    EXPECT_EQ(decoder.decode<short>("32767"), 32767);
    EXPECT_EQ(fitError<short>("-32769"), "Parsed JSON number <-32769> does not fit in Int16.");
    EXPECT_EQ(decoder.decode<int>("-2147483648"), std::numeric_limits<int>::min());
    EXPECT_EQ(fitError<int>("2147483648"), "Parsed JSON number <2147483648> does not fit in Int32.");
    EXPECT_EQ(decoder.decode<long>("9223372036854775807"), std::numeric_limits<long>::max());
    EXPECT_EQ(fitError<long>("9223372036854775808"), "Parsed JSON number <9223372036854775808> does not fit in Int.");
    EXPECT_EQ(decoder.decode<long long>("-9223372036854775808"), std::numeric_limits<long long>::min());
    // Beyond 64 bits the number is read as a double that rounds to -2^63, yet is still out of range.
    EXPECT_EQ(fitError<long long>("-9223372036854775809"),
              "Parsed JSON number <-9223372036854775809> does not fit in Int64.");
    // The largest double below 2^63 fits; 2^63 itself does not, though it equals double(INT64_MAX).
    EXPECT_EQ(decoder.decode<long>("9223372036854774784.0"), 9223372036854774784L);
    EXPECT_EQ(fitError<long>("9223372036854775808.0"),
              "Parsed JSON number <9.223372036854776e+18> does not fit in Int.");
}

TEST(JSONDecoderIntegers, UnsignedWidthsAcceptTheirRangeOnlyAndNoNegatives) {
    const JSONDecoder decoder;
    EXPECT_EQ(decoder.decode<unsigned char>("255"), 255);
    EXPECT_EQ(fitError<unsigned char>("256"), "Parsed JSON number <256> does not fit in UInt8.");
    EXPECT_EQ(fitError<unsigned char>("-1"), "Parsed JSON number <-1> does not fit in UInt8.");
    EXPECT_EQ(decoder.decode<unsigned short>("65535"), 65535);
    EXPECT_EQ(fitError<unsigned short>("65536"), "Parsed JSON number <65536> does not fit in UInt16.");
    EXPECT_EQ(decoder.decode<unsigned>("4294967295"), 4294967295U);
    EXPECT_EQ(fitError<unsigned>("4294967296"), "Parsed JSON number <4294967296> does not fit in UInt32.");
    EXPECT_EQ(decoder.decode<unsigned long>("18446744073709551615"), std::numeric_limits<unsigned long>::max());
    EXPECT_EQ(fitError<unsigned long>("18446744073709551616"),
              "Parsed JSON number <18446744073709551616> does not fit in UInt.");
    EXPECT_EQ(decoder.decode<unsigned long long>("0"), 0U);
    EXPECT_EQ(fitError<unsigned long long>("-9223372036854775808"),
              "Parsed JSON number <-9223372036854775808> does not fit in UInt64.");
    EXPECT_EQ(fitError<unsigned long long>("-0.5"), "Parsed JSON number <-0.5> does not fit in UInt64.");
    // A huge integer inside an object, next to strings that look like numbers, still parses.
    const auto huge = decoder.decode<std::map<std::string, double>>(
        R"({"123456789012345678901234": 99999999999999999999999, "b\"1": 1})");
    EXPECT_DOUBLE_EQ(huge.at("123456789012345678901234"), 1e23);
}

TEST(JSONDecoderErrors, MissingKeysNameTheKeyAndTheContainerPath) {
    const auto error = failure([] { JSONDecoder().decode<Catalog>(R"({"movies":[{"title":"A","cast":[{"age":3}]}]})"); });
    EXPECT_EQ(error.kind(), Kind::keyNotFound);
    EXPECT_EQ(error.debugDescription(), R"(No value associated with key CodingKeys(stringValue: "name", intValue: nil) ("name").)");
    EXPECT_EQ(path(error.codingPath()), "CodingKeys:movies/_JSONKey:Index 0#0/CodingKeys:cast/_JSONKey:Index 0#0");
    ASSERT_NE(error.key(), nullptr);
    EXPECT_EQ(error.key()->stringValue, "name");
    EXPECT_EQ(error.key()->typeName, "CodingKeys");

    // A key type of the record's own choosing is printed as given.
    struct Custom {
        static Custom decode(const zul::Decoder& decoder) {
            decoder.container("Fields").decode<int>("id"sv);
            return {};
        }
    };
    EXPECT_EQ(failure([] { JSONDecoder().decode<Custom>("{}"); }).debugDescription(),
              R"(No value associated with key Fields(stringValue: "id", intValue: nil) ("id").)");
}

TEST(JSONDecoderErrors, NestedFailuresCarryTheFullPath) {
    const std::string json =
        R"({"movies":[{"title":"A","cast":[]},{"title":"B","cast":[{"name":"x","age":"old"}]}]})";
    const auto error = failure([&] { JSONDecoder().decode<Catalog>(json); });
    EXPECT_EQ(error.kind(), Kind::typeMismatch);
    EXPECT_EQ(error.debugDescription(), "Expected to decode Int32 but found a string instead.");
    EXPECT_EQ(path(error.codingPath()),
              "CodingKeys:movies/_JSONKey:Index 1#1/CodingKeys:cast/_JSONKey:Index 0#0/CodingKeys:age");

    const auto range = failure([] { JSONDecoder().decode<std::vector<std::vector<signed char>>>("[[1],[2,300]]"); });
    EXPECT_EQ(range.debugDescription(), "Parsed JSON number <300> does not fit in Int8.");
    EXPECT_EQ(path(range.codingPath()), "_JSONKey:Index 1#1/_JSONKey:Index 1#1");
}

TEST(JSONDecoderErrors, ContainersOfTheWrongShapeOrNull) {
    const JSONDecoder decoder;
    const auto notObject = failure([&] { decoder.decode<Catalog>("[]"); });
    EXPECT_EQ(notObject.kind(), Kind::typeMismatch);
    EXPECT_EQ(notObject.debugDescription(), "Expected to decode Dictionary<String, Any> but found an array instead.");
    const auto notArray = failure([&] { decoder.decode<Catalog>(R"({"movies":{}})"); });
    EXPECT_EQ(notArray.debugDescription(), "Expected to decode Array<Any> but found a dictionary instead.");
    EXPECT_EQ(path(notArray.codingPath()), "CodingKeys:movies");

    // Records and collections that are null are missing values of their type.
    const auto nullRecord = failure([&] { decoder.decode<std::vector<Movie>>(R"([{"title":"A","cast":[]},null])"); });
    EXPECT_EQ(nullRecord.kind(), Kind::valueNotFound);
    EXPECT_EQ(nullRecord.type(), "Movie");
    EXPECT_EQ(nullRecord.debugDescription(), "Expected Movie value but found null instead.");
    EXPECT_EQ(path(nullRecord.codingPath()), "_JSONKey:Index 1#1");
    EXPECT_EQ(failure([&] { decoder.decode<Catalog>(R"({"movies":null})"); }).debugDescription(),
              "Expected Array<Movie> value but found null instead.");

    // A hand-written record asking for containers of a null.
    struct NullKeyed {
        static NullKeyed decode(const zul::Decoder& decoder) {
            decoder.container().nestedContainer("inner");
            return {};
        }
    };
    struct NullUnkeyed {
        static NullUnkeyed decode(const zul::Decoder& decoder) {
            decoder.container().nestedUnkeyedContainer("inner");
            return {};
        }
    };
    const auto nestedKeyed = failure([&] { decoder.decode<NullKeyed>(R"({"inner":null})"); });
    EXPECT_EQ(nestedKeyed.kind(), Kind::valueNotFound);
    EXPECT_EQ(nestedKeyed.debugDescription(), "Cannot get keyed decoding container -- found null value instead.");
    EXPECT_EQ(path(nestedKeyed.codingPath()), "CodingKeys:inner");
    EXPECT_EQ(failure([&] { decoder.decode<NullUnkeyed>(R"({"inner":null})"); }).debugDescription(),
              "Cannot get unkeyed decoding container -- found null value instead.");
}

TEST(JSONDecoderErrors, ReadingPastTheEndOfAList) {
    EXPECT_EQ(JSONDecoder().decode<Pair>("[4,5,6]").second, 5);
    const auto error = failure([] { JSONDecoder().decode<std::vector<Pair>>("[[1,2],[3]]"); });
    EXPECT_EQ(error.kind(), Kind::valueNotFound);
    EXPECT_EQ(error.type(), "Int32");
    EXPECT_EQ(error.debugDescription(), "Unkeyed container is at end.");
    EXPECT_EQ(path(error.codingPath()), "_JSONKey:Index 1#1/_JSONKey:Index 1#1");
}

TEST(JSONDecoderErrors, InvalidJSONIsDataCorruptedWithTheParserMessage) {
    for (const std::string json : {"{", "", "[1,]", "{\"a\" 1}", "\"\xFF\"", "1e400", "[1] x"}) {
        const auto error = failure([&] { JSONDecoder().decode<std::vector<int>>(json); });
        EXPECT_EQ(error.kind(), Kind::dataCorrupted) << json;
        EXPECT_EQ(error.debugDescription(), "The given data was not valid JSON.") << json;
        EXPECT_TRUE(error.codingPath().empty());
        ASSERT_TRUE(error.context().underlyingError.has_value());
        const std::string message = error.context().underlyingError->value().what();
        EXPECT_FALSE(message.empty());
        EXPECT_NE(message, "The given data was not valid JSON.");
    }
    const auto unclosed = failure([] { JSONDecoder().decode<int>("[1"); });
    EXPECT_NE(std::string(unclosed.context().underlyingError->value().what()).find("structure"), std::string::npos);
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
    EXPECT_FALSE(missing.lead);
    const auto nulls = decoder.decode<Fields>(R"({"count":null,"lead":null,"slots":[null,2,null]})");
    EXPECT_FALSE(nulls.count);
    EXPECT_FALSE(nulls.lead);
    EXPECT_EQ(nulls.slots, (std::vector<std::optional<int>>{std::nullopt, 2, std::nullopt}));
    const auto present = decoder.decode<Fields>(R"({"count":0,"lead":{"name":"N","age":4},"slots":[]})");
    EXPECT_EQ(present.count, 0);
    ASSERT_TRUE(present.lead);
    EXPECT_EQ(present.lead->age, 4);

    // A present optional of the wrong type is still an error.
    EXPECT_EQ(failure([&] { decoder.decode<Fields>(R"({"count":"1","slots":[]})"); }).kind(), Kind::typeMismatch);

    const auto missingKey = failure([&] { decoder.decode<Person>(R"({"name":"a"})"); });
    EXPECT_EQ(missingKey.kind(), Kind::keyNotFound);
    EXPECT_TRUE(missingKey.codingPath().empty());
    const auto nullValue = failure([&] { decoder.decode<Person>(R"({"name":"a","age":null})"); });
    EXPECT_EQ(nullValue.kind(), Kind::typeMismatch);
    EXPECT_EQ(nullValue.debugDescription(), "Expected to decode Int32 but found null instead.");
    EXPECT_EQ(path(nullValue.codingPath()), "CodingKeys:age");
}

TEST(JSONDecoderContainers, KeysInDocumentOrderAndTheFirstOfRepeatedKeys) {
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
    const auto map = JSONDecoder().decode<zul::OrderedMap<int>>(R"({"b":1,"a":2})");
    EXPECT_EQ(map.begin()->first, "b");
    const auto big = JSONDecoder().decode<std::map<std::string, std::optional<int>>>(
        json.substr(0, json.find(",\"name\"")) + "}");
    EXPECT_EQ(big.size(), 100U);
    EXPECT_EQ(big.at("k7"), 7);
    EXPECT_EQ(big.at("k99"), 99);
    EXPECT_EQ(JSONDecoder().decode<Person>(json).age, 5);
    const auto bigMissing = failure([&] { JSONDecoder().decode<Movie>(json); });
    EXPECT_EQ(bigMissing.key()->stringValue, "title");
}

TEST(JSONDecoderContainers, ListsReadInOrderAtAnyNesting) {
    // Interleaved walks through many lists, more than are remembered at once.
    std::string json = "[";
    std::vector<std::vector<int>> expected;
    for (int i = 0; i < 40; ++i) {
        json += i > 0 ? ",[" : "[";
        expected.emplace_back();
        for (int j = 0; j <= i % 5; ++j) {
            json += (j > 0 ? "," : "") + std::to_string(i * 10 + j);
            expected.back().push_back(i * 10 + j);
        }
        json += "]";
    }
    json += "]";
    EXPECT_EQ(JSONDecoder().decode<std::vector<std::vector<int>>>(json), expected);
}

TEST(JSONDecoderUserInfo, ReachesHandWrittenRecords) {
    JSONDecoder decoder;
    decoder.userInfo.insertOrAssign("scale", std::any(3));
    const auto values = decoder.decode<std::vector<Scaled>>(R"([{"value":1},{"value":2}])");
    ASSERT_EQ(values.size(), 2U);
    EXPECT_EQ(values[1].value, 2);
    EXPECT_EQ(values[1].scale, 3);
}

zul::Date utc(int year, unsigned month, unsigned day, int hour, int minute, int second) {
    const auto days = std::chrono::sys_days(std::chrono::year(year) / std::chrono::month(month) / std::chrono::day(day));
    return zul::Date(days) + std::chrono::hours(hour) + std::chrono::minutes(minute) + std::chrono::seconds(second);
}

TEST(JSONDecoderDates, NumericStrategies) {
    JSONDecoder decoder;
    EXPECT_EQ(decoder.decode<Release>(R"({"date":0})").date, utc(2001, 1, 1, 0, 0, 0));
    EXPECT_EQ(decoder.decode<Release>(R"({"date":-978307200})").date.time_since_epoch(), zul::Date::duration(0));
    decoder.dateDecodingStrategy = JSONDecoder::DateDecodingStrategy::secondsSince1970();
    EXPECT_EQ(decoder.decode<zul::Date>("1551675967.5"), utc(2019, 3, 4, 5, 6, 7) + 500ms);
    decoder.dateDecodingStrategy = JSONDecoder::DateDecodingStrategy::millisecondsSince1970();
    EXPECT_EQ(decoder.decode<zul::Date>("1551675967123.25"), utc(2019, 3, 4, 5, 6, 7) + 123250us);
    EXPECT_EQ(decoder.decode<zul::Date>("-1500"), zul::Date(-1500ms));
    // Dates hold 64 bits of nanoseconds, some 292 years either side of 1970.
    const auto far = failure([&] { decoder.decode<Release>(R"({"date":1e16})"); });
    EXPECT_EQ(far.kind(), Kind::dataCorrupted);
    EXPECT_EQ(far.debugDescription(), "Parsed JSON number <1e+16> does not fit in Date.");
    EXPECT_EQ(path(far.codingPath()), "CodingKeys:date");

    const auto text = failure([&] { decoder.decode<Release>(R"({"date":"1551675967"})"); });
    EXPECT_EQ(text.debugDescription(), "Expected to decode Double but found a string instead.");
    EXPECT_EQ(path(text.codingPath()), "CodingKeys:date");
}

TEST(JSONDecoderDates, ISO8601AcceptsZonesAndRejectsLooseForms) {
    JSONDecoder decoder;
    decoder.dateDecodingStrategy = JSONDecoder::DateDecodingStrategy::iso8601();
    const auto at = [&](const std::string& text) { return decoder.decode<zul::Date>("\"" + text + "\""); };
    const zul::Date expected = utc(2019, 3, 4, 5, 6, 7);
    EXPECT_EQ(at("2019-03-04T05:06:07Z"), expected);
    EXPECT_EQ(at("2019-03-04T05:06:07z"), expected);
    EXPECT_EQ(at("2019-03-04T08:06:07+03:00"), expected);
    EXPECT_EQ(at("2019-03-04T08:36:07+0330"), expected);
    EXPECT_EQ(at("2019-03-04T08:06:07+03"), expected);
    EXPECT_EQ(at("2019-03-03T23:06:07-06:00"), expected);
    EXPECT_EQ(at("2019-03-04T05:06:07Z and more"), expected);
    EXPECT_EQ(at("2020-02-29T00:00:00Z"), utc(2020, 2, 29, 0, 0, 0));

    for (const std::string text :
         {"2019-03-04T05:06:07.5Z", "2019-03-04t05:06:07Z", "2019-03-04 05:06:07Z", "2019-03-04T05:06:07",
          "2019-3-04T05:06:07Z", "2019-03-04T5:06:07Z", "2019-02-29T00:00:00Z", "2019-03-04T24:00:00Z",
          "2019-03-04T05:06:07+3", "2019-03-04", ""}) {
        const auto error = failure([&] { decoder.decode<Release>(R"({"date":")" + text + "\"}"); });
        EXPECT_EQ(error.kind(), Kind::dataCorrupted) << text;
        EXPECT_EQ(error.debugDescription(), "Expected date string to be ISO8601-formatted.") << text;
        EXPECT_EQ(path(error.codingPath()), "CodingKeys:date") << text;
    }
    EXPECT_EQ(failure([&] { decoder.decode<zul::Date>("0"); }).debugDescription(),
              "Expected to decode String but found a number instead.");
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
    const auto releases = decoder.decode<std::vector<Release>>(
        R"([{"date":"{\"t\":10}"},{"date":"{\"t\":20}"},{"date":"{\"t\":30}"}])");
    ASSERT_EQ(releases.size(), 3U);
    EXPECT_EQ(releases[0].date, zul::Date(10s));
    EXPECT_EQ(releases[2].date, zul::Date(30s));

    const auto error = failure([&] { decoder.decode<std::vector<Release>>(R"([{"date":"{\"t\":\"x\"}"}])"); });
    EXPECT_EQ(error.debugDescription(), "Expected to decode Double but found a string instead.");
    EXPECT_EQ(path(error.codingPath()), "CodingKeys:t");  // the inner document's path
}

TEST(JSONDecoderData, ListsOfBytesAndBase64) {
    JSONDecoder decoder;
    EXPECT_EQ(decoder.decode<Blob>(R"({"bytes":[0,255,7]})").bytes, (zul::Data{0, 255, 7}));
    const auto wide = failure([&] { decoder.decode<Blob>(R"({"bytes":[1,300]})"); });
    EXPECT_EQ(wide.debugDescription(), "Parsed JSON number <300> does not fit in UInt8.");
    EXPECT_EQ(path(wide.codingPath()), "CodingKeys:bytes/_JSONKey:Index 1#1");

    decoder.dataDecodingStrategy = JSONDecoder::DataDecodingStrategy::base64();
    const auto bytes = [&](const std::string& text) { return zul::stringFromData(decoder.decode<zul::Data>("\"" + text + "\"")); };
    EXPECT_EQ(bytes(""), "");
    EXPECT_EQ(bytes("Zg=="), "f");
    EXPECT_EQ(bytes("Zm8="), "fo");
    EXPECT_EQ(bytes("Zm9v"), "foo");
    EXPECT_EQ(bytes("Zm9vYg=="), "foob");
    EXPECT_EQ(decoder.decode<zul::Data>(R"("+/+/")"), (zul::Data{0xFB, 0xFF, 0xBF}));
    for (const std::string text : {"Zg", "Zg=", "Zm9", "Z===", "Zg==Zg==", "Zm 9v", "Zm9v\\n", "-_-_", "Zm=v", "Zm9v="}) {
        const auto error = failure([&] { decoder.decode<Blob>(R"({"bytes":")" + text + "\"}"); });
        EXPECT_EQ(error.kind(), Kind::dataCorrupted) << text;
        EXPECT_EQ(error.debugDescription(), "Encountered Data is not valid Base64.") << text;
        EXPECT_EQ(path(error.codingPath()), "CodingKeys:bytes") << text;
    }

    decoder.dataDecodingStrategy = JSONDecoder::DataDecodingStrategy::custom(
        [](const zul::Decoder& d) { return zul::dataFromString(d.singleValueContainer().decode<std::string>()); });
    EXPECT_EQ(decoder.decode<Blob>(R"({"bytes":"hi"})").bytes, zul::dataFromString("hi"));
}

}  // namespace
