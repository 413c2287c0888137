#include <gtest/gtest.h>

#include <any>
#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "support/thrown.hpp"
#include "zul/core/json_decoder.hpp"
#include "zul/core/result.hpp"

namespace {

using zul::Answer;
using zul::DecodingError;
using zul::Either;
using zul::MaybeDecodable;
using IdOrName = Either<long, std::string>;
using namespace std::string_view_literals;

// The accessors that answer, by name, so a wrong extra or missing one shows in the failure.
std::string present(const Answer& a) {
    std::string names;
    if (a.maybeString()) names += "string ";
    if (a.maybeDouble()) names += "double ";
    if (a.maybeFloat()) names += "float ";
    if (a.maybeInt()) names += "int ";
    if (a.maybeUInt()) names += "uint ";
    if (a.maybeBool()) names += "bool ";
    if (a.maybeDictionary()) names += "dictionary ";
    return names;
}

template <class T>
DecodingError decodingError(std::string_view json) {
    return zul::test::thrown<DecodingError>([&] { (void)zul::JSONDecoder().decode<T>(json); });
}

struct NeedsA {
    long a = 0;
    static NeedsA decode(const zul::Decoder& d) { return {d.container().decode<long>("a"sv)}; }
};
struct NeedsB {
    long b = 0;
    static NeedsB decode(const zul::Decoder& d) { return {d.container().decode<long>("b"sv)}; }
};
struct Holder {
    IdOrName id;
    static Holder decode(const zul::Decoder& d) { return {d.container().decode<IdOrName>("id"sv)}; }
};
template <class E>
struct Throws {
    static Throws decode(const zul::Decoder&) { throw E("boom"); }
};
struct OutOfMemory {
    static OutOfMemory decode(const zul::Decoder&) { throw std::bad_alloc(); }
};

TEST(AnswerTest, EachCaseAnswersOnlyItsOwnAccessorInTagOrder) {
    const Answer::Dictionary map{{"k", 1}};
    const std::vector<std::pair<Answer, std::string>> cases{
        {Answer("abc"), "string "},       {Answer(2.5), "double "},     {Answer(2.5f), "float "},
        {Answer(-7), "int "},             {Answer(7u), "uint "},        {Answer(false), "bool "},
        {Answer(map), "dictionary "},     {Answer::none(), ""},
    };
    for (std::size_t tag = 0; tag < cases.size(); ++tag) {
        EXPECT_EQ(static_cast<std::size_t>(cases[tag].first.kind()), tag);
        EXPECT_EQ(present(cases[tag].first), cases[tag].second) << "tag " << tag;
    }
    EXPECT_EQ(Answer(std::string_view("")).maybeString(), "");
    EXPECT_EQ(*Answer(false).maybeBool(), false);
    EXPECT_EQ(*Answer(2.5f).maybeFloat(), 2.5f);
    EXPECT_EQ(*Answer(std::int8_t{-3}).maybeInt(), -3);
    EXPECT_EQ(*Answer(std::numeric_limits<std::uint64_t>::max()).maybeUInt(), std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(Answer(map).maybeDictionary()->at(0).second, zul::AnyValue(1));
}

TEST(AnswerTest, DescriptionPerCaseAndDictionariesQuoteEachValuesPlainText) {
    const std::pair<Answer, std::string_view> cases[] = {
        {Answer("a b"), "a b"}, {Answer(2.5), "."}, {Answer(1.5f), "."}, {Answer(-7), "-7"}, {Answer(true), "true"},
        {Answer(false), "false"}, {Answer(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615"},
        {Answer::none(), ""}, {Answer(Answer::Dictionary{}), "[:]"},
        // A dictionary quotes each value's plain text.
        {Answer(Answer::Dictionary{{"key", "text"}, {1, 5}}), R"(["key": "text", 1: "5"])"},
    };
    for (const auto& [answer, text] : cases) EXPECT_EQ(answer.description(), text);
    // Values go through their plain text first: the double keeps its digits, a list its own
    // quotes (then escaped), a quote inside text is escaped once.
    EXPECT_EQ(Answer(Answer::Dictionary{{true, 1.5}, {"l", zul::AnyList{1, "a"}}, {"q", "say \"hi\""}}).description(),
              R"([true: "1.5", "l": "[1, \"a\"]", "q": "say \"hi\""])");
}

TEST(AnswerTest, EqualityRules) {
    const Answer dictionary(Answer::Dictionary{{"a", 1}});
    EXPECT_FALSE(dictionary == dictionary);  // not even itself
    const std::tuple<Answer, Answer, bool> cases[] = {
        {Answer::none(), Answer::none(), true},      {Answer(""), Answer::none(), false},
        {Answer("x"), Answer(std::string("x")), true}, {Answer(std::nan("")), Answer(std::nan("")), false},
        {Answer(0.0), Answer(-0.0), true},           {Answer(-0.0f), Answer(0.0f), true},
        {Answer(1), Answer(1.0), false},             {Answer(1.0), Answer(1.0f), false},
        {Answer(1), Answer(1u), false},              {Answer(1), Answer(true), false},
        {Answer(std::int16_t{4}), Answer(4L), true},
    };
    for (const auto& [a, b, equal] : cases) EXPECT_EQ(a == b, equal) << a.description() << " vs " << b.description();
}

TEST(EitherTest, DecodesTheFirstTypeThatFits) {
    const auto id = zul::JSONDecoder().decode<IdOrName>("12");
    EXPECT_EQ(id, IdOrName::firstType(12));
    EXPECT_EQ(std::any_cast<long>(id.unwrap()), 12);
    const auto name = zul::JSONDecoder().decode<IdOrName>(R"("abc")");
    EXPECT_EQ(std::any_cast<std::string>(name.unwrap()), "abc");
    EXPECT_EQ(name, IdOrName::secondType("abc"));

    EXPECT_TRUE((zul::JSONDecoder().decode<Either<double, long>>("3").isFirst()));
    EXPECT_TRUE((zul::JSONDecoder().decode<Either<long, double>>("2.5").isSecond()));
    EXPECT_TRUE((zul::JSONDecoder().decode<Either<std::string, std::string>>(R"("x")").isFirst()));
    // The first type's failure part-way through a record leaves nothing behind for the second.
    EXPECT_EQ((zul::JSONDecoder().decode<Either<NeedsA, NeedsB>>(R"({"b": 4})").second()->b), 4);
}

TEST(EitherTest, NeitherTypeIsDataCorruptedAtTheDecodersPathAndMapCallsOnlyTheCaseHeld) {
    const DecodingError top = decodingError<IdOrName>("true");
    EXPECT_EQ(top.kind(), DecodingError::Kind::dataCorrupted);
    EXPECT_EQ(top.debugDescription(), "Cannot decode Int or String");
    EXPECT_TRUE(top.codingPath().empty());
    EXPECT_FALSE(top.context().underlyingError.has_value());

    EXPECT_EQ(decodingError<Holder>(R"({"id": null})").codingPath(), zul::CodingPath{zul::CodingKey("id")});
    const DecodingError element = decodingError<std::vector<IdOrName>>(R"([1, "a", []])");
    ASSERT_EQ(element.codingPath().size(), 1u);
    EXPECT_EQ(element.codingPath()[0].intValue, 2);

    EXPECT_EQ((decodingError<Either<int, bool>>("1.5").debugDescription()), "Cannot decode Int32 or Bool");
    EXPECT_EQ((decodingError<Either<NeedsA, std::vector<long>>>("1").debugDescription()),
              "Cannot decode NeedsA or Array<Int>");

    std::string calls;
    auto describe = [&](const IdOrName& value) {
        return value.map([&](long n) { calls += "first "; return "id " + std::to_string(n); },
                         [&](const std::string& s) { calls += "second "; return "name " + s; });
    };
    EXPECT_EQ(describe(IdOrName::firstType(3)), "id 3");
    EXPECT_EQ(describe(IdOrName::secondType("x")), "name x");
    EXPECT_EQ(calls, "first second ");
}

TEST(MaybeDecodableTest, AbsentInsteadOfAnyErrorButRunningOutOfMemory) {
    const zul::JSONDecoder decoder;
    for (const char* json : {R"("abc")", "null", "1.5"}) {
        EXPECT_FALSE(decoder.decode<MaybeDecodable<long>>(json).decoded.has_value()) << json;
    }
    std::vector<std::optional<long>> decoded;
    for (const auto& item : decoder.decode<std::vector<MaybeDecodable<long>>>(R"([1, "x", 3])")) {
        decoded.push_back(item.decoded);
    }
    EXPECT_EQ(decoded, (std::vector<std::optional<long>>{1, std::nullopt, 3}));

    EXPECT_FALSE(decoder.decode<MaybeDecodable<Throws<std::runtime_error>>>("{}").decoded.has_value());
    EXPECT_THROW((void)decoder.decode<MaybeDecodable<OutOfMemory>>("{}"), std::bad_alloc);
    using OutOfMemoryOrInt = Either<OutOfMemory, long>;
    EXPECT_THROW((void)decoder.decode<OutOfMemoryOrInt>("1"), std::bad_alloc);
}

static_assert(zul::AnyOptional<std::optional<int>> && zul::AnyOptional<const std::optional<std::string>&>);
static_assert(!zul::AnyOptional<int> && !zul::AnyOptional<std::vector<int>>);
static_assert(zul::AnySequence<std::vector<int>> && zul::AnySequence<std::map<std::string, int>> &&
              zul::AnySequence<zul::OrderedMap<double>>);
static_assert(!zul::AnySequence<std::string> && !zul::AnySequence<std::map<int, int>> &&
              !zul::AnySequence<std::optional<std::vector<int>>>);

TEST(AnyOptionalTest, MakeEmptyGivesAbsentValuesAndEmptyCollections) {
    EXPECT_FALSE(zul::makeEmpty<std::optional<int>>().has_value());
    EXPECT_TRUE(zul::makeEmpty<std::vector<std::string>>().empty());
}

}  // namespace
