#include <gtest/gtest.h>

#include <any>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/thrown.hpp"
#include "zul/core/codable.hpp"
#include "zul/core/json_decoder.hpp"
#include "zul/core/json_encoder.hpp"

namespace {

using namespace std::chrono_literals;
using zul::EncodingError;
using zul::JSONDecoder;
using zul::JSONEncoder;

struct Person {
    std::string name;
    std::optional<int> age;
    ZUL_CODABLE(Person, name, age)
    friend bool operator==(const Person&, const Person&) = default;
};

struct Movie {
    std::string title;
    std::vector<Person> cast;
    std::map<std::string, double> ratings;
    std::optional<Person> director;
    zul::Date released;
    zul::Data poster;
    std::vector<std::optional<long>> slots;
    unsigned long long views = 0;
    float score = 0;
    bool available = false;
    ZUL_CODABLE(Movie, title, cast, ratings, director, released, poster, slots, views, score, available)
    friend bool operator==(const Movie&, const Movie&) = default;
};

std::string text(const JSONEncoder& encoder, const auto& value) { return zul::stringFromData(encoder.encode(value)); }
std::string text(const auto& value) { return text(JSONEncoder(), value); }

template <class F>
EncodingError failure(F&& encode) {
    return zul::test::thrown<EncodingError>(std::forward<F>(encode));
}

TEST(JSONEncoderScalars, ExactIntegersShortestNumbersAndEscapedText) {
    const std::pair<std::string, std::string_view> cases[] = {
        {text(std::numeric_limits<long>::min()), "-9223372036854775808"},
        {text(std::numeric_limits<unsigned long long>::max()), "18446744073709551615"},
        {text(static_cast<signed char>(-5)), "-5"},  {text(1.0), "1"},  {text(-0.0), "-0"},  {text(0.1), "0.1"},
        {text(1e16), "1e+16"},  {text(0.1F), "0.1"},  {text(true), "true"},  {text(std::optional<int>()), "null"},
        {text(std::string("a/b\"c\\\n\t\x01\xC3\xA9")), "\"a\\/b\\\"c\\\\\\n\\t\\u0001\xC3\xA9\""},
        {text(std::vector<int>{}), "[]"},  {text(std::map<std::string, int>{}), "{}"},
    };
    for (const auto& [actual, expected] : cases) EXPECT_EQ(actual, expected);
}

TEST(JSONEncoderScalars, NonFiniteNumbersAreInvalidValuesAtTheirPath) {
    struct Reading {
        std::vector<double> samples;
        ZUL_CODABLE(Reading, samples)
    };
    const auto infinity = failure([] { JSONEncoder().encode(Reading{{1.0, std::numeric_limits<double>::infinity()}}); });
    std::vector<std::string> keys;
    for (const auto& key : infinity.codingPath()) keys.push_back(key.description());
    EXPECT_EQ(keys, (std::vector<std::string>{R"(CodingKeys(stringValue: "samples", intValue: nil))",
                                              R"(_JSONKey(stringValue: "Index 1", intValue: 1))"}));

    // "value: description", and the path is empty at the top.
    const auto top = [](auto number) {
        const auto error = failure([&] { JSONEncoder().encode(number); });
        EXPECT_TRUE(error.codingPath().empty());
        return error.value() + ": " + error.debugDescription();
    };
    constexpr double inf = std::numeric_limits<double>::infinity();
    constexpr float infF = std::numeric_limits<float>::infinity();
    EXPECT_EQ(infinity.value() + ": " + infinity.debugDescription(), "inf: Unable to encode Double.infinity directly in JSON.");
    EXPECT_EQ(top(-inf), "-inf: Unable to encode -Double.infinity directly in JSON.");
    EXPECT_EQ(top(std::nan("")), "nan: Unable to encode Double.nan directly in JSON.");
    EXPECT_EQ(top(infF), "inf: Unable to encode Float.infinity directly in JSON.");
    EXPECT_EQ(top(-infF), "-inf: Unable to encode -Float.infinity directly in JSON.");
    EXPECT_EQ(top(std::numeric_limits<float>::quiet_NaN()), "nan: Unable to encode Float.nan directly in JSON.");
}

TEST(JSONEncoderFormatting, KeyOrderSortingAndPrettyPrinting) {
    const Person person{"Ann", 30};
    EXPECT_EQ(text(person), R"({"name":"Ann","age":30})");
    EXPECT_EQ(text(Person{"Ann", std::nullopt}), R"({"name":"Ann"})");

    JSONEncoder sorted;
    sorted.outputFormatting.sortedKeys = true;
    EXPECT_EQ(text(sorted, person), R"({"age":30,"name":"Ann"})");
    EXPECT_EQ(text(sorted, std::vector<zul::OrderedMap<int>>{{{"b", 1}, {"B", 2}, {"a", 3}, {"ab", 4}}}),
              R"([{"B":2,"a":3,"ab":4,"b":1}])");

    JSONEncoder pretty;
    pretty.outputFormatting.prettyPrinted = true;
    EXPECT_EQ(text(pretty, zul::OrderedMap<std::vector<int>>{{"list", {1, 2}}, {"none", {}}}),
              "{\n  \"list\" : [\n    1,\n    2\n  ],\n  \"none\" : [\n\n  ]\n}");
    EXPECT_EQ(text(pretty, std::map<std::string, int>{}), "{\n\n}");
}

TEST(JSONEncoderContainers, RevisitedSlotsAndKeysReuseWhatIsThereAndUserInfoReachesEveryRecord) {
    struct Twice {
        void encode(const zul::Encoder& encoder) const {
            encoder.container().encode("a", 1);
            encoder.container().encode("b", 2);
            const auto fields = encoder.container();
            fields.nestedContainer("inner").encode("x", 1);
            fields.nestedContainer("inner").encode("y", 2);
            fields.encode("a", std::string("again"));  // replaces in place
            fields.encodeNil("gone");
            auto list = fields.nestedUnkeyedContainer("list");
            list.encode(1);
            list.encodeNil();
            list.nestedContainer().encode("k", true);
            list.nestedUnkeyedContainer().encode(2);
            EXPECT_EQ(list.count(), 4U);
            fields.superEncoder("empty");
        }
    };
    EXPECT_EQ(text(Twice{}), R"({"a":"again","b":2,"inner":{"x":1,"y":2},"gone":null,"list":[1,null,{"k":true},[2]],"empty":{}})");

    // Many keys, past the point where lookups go through an index.
    struct Wide {
        void encode(const zul::Encoder& encoder) const {
            const auto fields = encoder.container();
            for (int i = 0; i < 40; ++i) fields.encode("k" + std::to_string(i), i);
            for (int i = 0; i < 40; i += 13) fields.encode("k" + std::to_string(i), -i);
        }
    };
    const auto wide = JSONDecoder().decode<std::map<std::string, int>>(text(Wide{}));
    EXPECT_EQ(wide.size(), 40U);
    EXPECT_EQ(wide.at("k26"), -26);
    EXPECT_EQ(wide.at("k27"), 27);
    EXPECT_EQ(text(Wide{}).find("\"k0\":0,"), 1U);

    // Hand-written records nested anywhere see the encoder's user info.
    struct Tagged {
        void encode(const zul::Encoder& encoder) const {
            encoder.container().encode("tag", std::any_cast<std::string>(*encoder.userInfo().get("tag")));
        }
    };
    JSONEncoder encoder;
    encoder.userInfo.insertOrAssign("tag", std::any(std::string("v2")));
    EXPECT_EQ(text(encoder, std::vector<Tagged>{Tagged{}}), R"([{"tag":"v2"}])");
}

TEST(JSONEncoderStrategies, DatesAndBytes) {
    const zul::Date date = zul::Date(std::chrono::sys_days(std::chrono::year(2019) / 3 / 4)) + 5h + 6min + 7s;
    JSONEncoder encoder;
    EXPECT_EQ(text(encoder, date), "573368767");
    EXPECT_EQ(text(encoder, zul::Date(978307200s - 1500ms)), "-1.5");
    encoder.dateEncodingStrategy = JSONEncoder::DateEncodingStrategy::secondsSince1970();
    EXPECT_EQ(text(encoder, date + 250ms), "1551675967.25");
    encoder.dateEncodingStrategy = JSONEncoder::DateEncodingStrategy::millisecondsSince1970();
    EXPECT_EQ(text(encoder, date + 250ms), "1551675967250");
    EXPECT_EQ(text(encoder, zul::Date(1500us)), "1.5");
    encoder.dateEncodingStrategy = JSONEncoder::DateEncodingStrategy::iso8601();
    EXPECT_EQ(text(encoder, date + 999ms), "\"2019-03-04T05:06:07Z\"");
    encoder.dateEncodingStrategy = JSONEncoder::DateEncodingStrategy::custom(
        [](zul::Date d, const zul::Encoder& e) { e.container().encode("year", static_cast<int>(
            std::chrono::year_month_day(std::chrono::floor<std::chrono::days>(d)).year())); });
    EXPECT_EQ(text(encoder, std::vector<zul::Date>{date}), R"([{"year":2019}])");

    const zul::Data bytes = zul::dataFromString("foob");
    EXPECT_EQ(text(encoder, bytes), "[102,111,111,98]");
    encoder.dataEncodingStrategy = JSONEncoder::DataEncodingStrategy::base64();
    for (const auto& [plain, base64] : {std::pair{"", R"("")"}, {"f", R"("Zg==")"}, {"fo", R"("Zm8=")"}, {"foob", R"("Zm9vYg==")"}}) {
        EXPECT_EQ(text(encoder, zul::dataFromString(plain)), base64);
    }
    EXPECT_EQ(text(encoder, zul::Data{0xFB, 0xFF, 0xBF}), R"("+\/+\/")");
    encoder.dataEncodingStrategy = JSONEncoder::DataEncodingStrategy::custom(
        [](const zul::Data& d, const zul::Encoder& e) { e.singleValueContainer().encode(d.size()); });
    EXPECT_EQ(text(encoder, bytes), "4");
}

TEST(JSONEncoderRoundTrip, NestedRecordsReadBackEqualUnderEveryStrategyPair) {
    const Movie movie{.title = "Heat / \"95\"", .cast = {{"Al", 55}, {"Bob\nby", std::nullopt}},
                      .ratings = {{"imdb", 8.3}, {"critics", 0.1}}, .director = Person{"M", 52},
                      .released = zul::Date(std::chrono::sys_days(std::chrono::year(1995) / 12 / 15)) + 12h + 250ms,
                      .poster = {0, 1, 2, 253, 254, 255, 42}, .slots = {1, std::nullopt, std::numeric_limits<long>::min()},
                      .views = std::numeric_limits<unsigned long long>::max(), .score = 0.1F, .available = true};
    using DateE = JSONEncoder::DateEncodingStrategy;
    using DateD = JSONDecoder::DateDecodingStrategy;
    using DataE = JSONEncoder::DataEncodingStrategy;
    using DataD = JSONDecoder::DataDecodingStrategy;
    const std::vector<std::pair<DateE, DateD>> dates = {{DateE::deferredToDate(), DateD::deferredToDate()},
                                                        {DateE::secondsSince1970(), DateD::secondsSince1970()},
                                                        {DateE::millisecondsSince1970(), DateD::millisecondsSince1970()}};
    const std::vector<std::pair<DataE, DataD>> datas = {{DataE::deferredToData(), DataD::deferredToData()},
                                                        {DataE::base64(), DataD::base64()}};
    for (const auto& [dateEncoding, dateDecoding] : dates) {
        for (const auto& [dataEncoding, dataDecoding] : datas) {
            JSONEncoder encoder;
            encoder.dateEncodingStrategy = dateEncoding;
            encoder.dataEncodingStrategy = dataEncoding;
            encoder.outputFormatting.prettyPrinted = dataEncoding.kind() == DataE::Kind::base64;
            encoder.outputFormatting.sortedKeys = dateEncoding.kind() == DateE::Kind::secondsSince1970;
            JSONDecoder decoder;
            decoder.dateDecodingStrategy = dateDecoding;
            decoder.dataDecodingStrategy = dataDecoding;
            const zul::Data json = encoder.encode(std::vector<Movie>{movie, Movie{}});
            EXPECT_EQ(decoder.decode<std::vector<Movie>>(json), (std::vector<Movie>{movie, Movie{}}))
                << zul::stringFromData(json);
        }
    }

    // ISO 8601 keeps whole seconds only.
    JSONEncoder encoder;
    encoder.dateEncodingStrategy = DateE::iso8601();
    JSONDecoder decoder;
    decoder.dateDecodingStrategy = DateD::iso8601();
    const auto back = decoder.decode<Movie>(encoder.encode(movie));
    EXPECT_EQ(back.released, std::chrono::floor<std::chrono::seconds>(movie.released));
}

}  // namespace
