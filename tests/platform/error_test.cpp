#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "zul/platform/error.hpp"
#include "zul/platform/result.hpp"

namespace {

class ParseError final : public zul::Error {
public:
    explicit ParseError(int line) : line_(line) {}
    const char* what() const noexcept override { return "parse error"; }
    std::string description() const override { return "parse error at line " + std::to_string(line_); }
    int line() const { return line_; }

private:
    int line_;
};

TEST(AnyErrorTest, HoldsConcreteOrCaughtErrorsAndRethrowsThemAsTheirOwnType) {
    zul::AnyError error = ParseError(7);
    EXPECT_TRUE(error.is<ParseError>());
    EXPECT_TRUE(error.is<zul::Error>());
    EXPECT_FALSE(error.is<std::runtime_error>());
    ASSERT_NE(error.as<ParseError>(), nullptr);
    EXPECT_EQ(error.as<ParseError>()->line(), 7);
    EXPECT_EQ(error.description(), "parse error at line 7");
    EXPECT_EQ(error.type(), typeid(ParseError));

    const zul::AnyError copy = error;  // copies share the held error
    EXPECT_EQ(copy.as<ParseError>(), error.as<ParseError>());
    try {
        copy.rethrow();
        FAIL() << "rethrow returned";
    } catch (const ParseError& thrown) {
        EXPECT_EQ(thrown.line(), 7);
    }

    // Made from the exception being handled, of whatever type.
    const auto caught = [](auto thrower) {
        try {
            thrower();
        } catch (...) {
            return zul::AnyError::current();
        }
        return zul::AnyError(ParseError(0));
    };
    const zul::AnyError standard = caught([] { throw std::out_of_range("index 9"); });
    EXPECT_TRUE(standard.is<std::out_of_range>());
    EXPECT_TRUE(standard.is<std::logic_error>());
    EXPECT_EQ(standard.description(), "index 9");
    EXPECT_THROW(standard.rethrow(), std::out_of_range);
    const zul::AnyError foreign = caught([] { throw 42; });
    EXPECT_EQ(foreign.description(), "unknown error");
    EXPECT_FALSE(foreign.is<std::runtime_error>());
    EXPECT_THROW(foreign.rethrow(), int);
}

TEST(ResultTest, CarriesOneCaseTransformsItAndGetThrowsTheError) {
    zul::Result<int, std::string> good = zul::success(20);
    zul::Result<int, std::string> bad = zul::failure(std::string("nope"));
    EXPECT_TRUE(good.isSuccess());
    EXPECT_TRUE(bad.isFailure());
    EXPECT_EQ(good.value(), 20);
    EXPECT_EQ(bad.error(), "nope");
    EXPECT_EQ(good.optional(), 20);
    EXPECT_EQ(bad.optional(), std::nullopt);
    EXPECT_EQ(bad.maybeError(), "nope");

    EXPECT_EQ(good.map([](int v) { return v + 1; }).value(), 21);
    EXPECT_EQ(bad.map([](int v) { return v + 1; }).error(), "nope");
    EXPECT_EQ(bad.mapError([](const std::string& e) { return e.size(); }).error(), 4u);
    EXPECT_EQ(good.mapError([](const std::string& e) { return e.size(); }).value(), 20);

    auto half = [](int v) -> zul::Result<int, std::string> {
        if (v % 2 != 0) return zul::failure(std::string("odd"));
        return zul::success(v / 2);
    };
    EXPECT_EQ(good.flatMap(half).flatMap(half).flatMap(half).error(), "odd");  // 20, 10, 5, odd
    EXPECT_EQ(bad.flatMapError([](const std::string&) -> zul::Result<int, int> { return zul::success(0); }).value(),
              0);

    using IntOrText = zul::Result<int, std::string>;
    EXPECT_EQ(good, IntOrText::success(20));
    EXPECT_NE(good, IntOrText::failure("20"));
    zul::Result<int> failed = zul::failure(ParseError(3));
    EXPECT_THROW(failed.get(), ParseError);
    zul::Result<int, ParseError> typed = zul::failure(ParseError(4));
    EXPECT_THROW(typed.get(), ParseError);

    // A result whose two types are the same still knows which case it holds.
    auto same = zul::Result<int, int>::failure(5);
    EXPECT_TRUE(same.isFailure());
    EXPECT_EQ(same.error(), 5);
    zul::Result<zul::Void> done = zul::success();
    EXPECT_TRUE(done.isSuccess());
}

TEST(FatalErrorDeathTest, WritesTheMessageWithFileAndLineAndAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(zul::fatalError("index out of range"),
                 "^Fatal error: index out of range: file .*error_test\\.cpp, line [0-9]+\n");
    zul::Result<int, std::string> bad = zul::failure(std::string("x"));
    EXPECT_DEATH((void)bad.value(), "Fatal error: Result holds a failure, not a value");
}

}  // namespace
