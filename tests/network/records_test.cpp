#include <gtest/gtest.h>

#include <stdexcept>

#include "zul/network/records.hpp"
#include "zul/platform/result.hpp"

namespace {

using zul::NetworkRouterError;
using RouterResult = zul::Result<int, NetworkRouterError>;

TEST(ResponseTest, CreateKeepsResponseAndRequestAndReplacesStatusAndBody) {
    zul::URLRequest request(zul::URL::fromString("https://h/x"));
    auto http = std::make_shared<const zul::HTTPURLResponse>(request.url(), 200, zul::HTTPHeaders{{"ETag", "1"}});
    const zul::Response original{200, zul::dataFromString("old"), http, request};
    const zul::Response changed = original.create(404, zul::dataFromString("new"));
    EXPECT_EQ(changed.statusCode, 404);
    EXPECT_EQ(zul::stringFromData(changed.data), "new");
    EXPECT_EQ(changed.response, http);
    EXPECT_EQ(changed.request, request);
}

TEST(ResultOperationsTest, OptionalOrErrorTupleObserversAndThrowingBodies) {
    RouterResult present(std::optional<int>(4), NetworkRouterError::invalidUrl());
    RouterResult absent(std::optional<int>(), NetworkRouterError::invalidUrl());
    const auto [value, error] = zul::convertToTuple(absent);
    EXPECT_FALSE(value.has_value());
    EXPECT_EQ(error.value().kind(), NetworkRouterError::Kind::invalidUrl);

    int seen = 0;
    int failures = 0;
    present.onSuccess([&](int v) { seen = v; }).onFail([&](const NetworkRouterError&) { ++failures; });
    absent.onSuccess([&](int) { seen = -1; }).onFail([&](const NetworkRouterError&) { ++failures; });
    EXPECT_EQ(seen, 4);
    EXPECT_EQ(failures, 1);
    EXPECT_TRUE(zul::Result<zul::Void>::succeeded().isSuccess());

    // A throwing flatMap and catchToResult collect what the body throws.
    const RouterResult four = zul::success(4);
    const auto throwing = [](int) -> int { throw NetworkRouterError::delayed(); };
    EXPECT_EQ(four.flatMap([](int v) { return v * 2; }).value(), 8);
    EXPECT_EQ(four.flatMap(throwing).error().kind(), NetworkRouterError::Kind::delayed);
    // On a failure the body does not run: had it run, the error would be its `delayed`.
    const RouterResult failed = zul::failure(NetworkRouterError::cancelled());
    EXPECT_EQ(failed.flatMap(throwing).error().kind(), NetworkRouterError::Kind::cancelled);

    // Any error fits an AnyError result.
    const auto anything = zul::Result<int>::catchToResult([]() -> int { throw std::out_of_range("x"); });
    EXPECT_TRUE(anything.error().is<std::out_of_range>());
}

TEST(ResultOperationsDeathTest, CatchToResultStopsOnAnErrorOfAnotherType) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH((void)RouterResult::catchToResult([]() -> int { throw std::runtime_error("disk full"); }),
                 "Fatal error: catchToResult: the body threw \"disk full\", which is not of the result's error type");
}

}  // namespace
