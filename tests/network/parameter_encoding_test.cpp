#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "network/router_support.hpp"
#include "zul/network/parameter_encoding.hpp"

namespace {

using zul::AnyMap;
using zul::NetworkRouterError;
using zul::URLRequest;
using zul::test::routerError;

URLRequest requestFor(const char* url) { return URLRequest(zul::URL::fromString(url)); }

std::string urlOf(const URLRequest& request) { return request.url()->absoluteString(); }

TEST(URLParameterEncoderTest, ReplacesTheQueryWithOneItemPerParameterPrintedAsText) {
    auto mixed = requestFor("https://h/search?x=1");
    const AnyMap values{{"q", "star wars & more"}, {"adult", false}, {"ids", zul::AnyList{1, 2}}, {"ratio", 0.5}};
    zul::URLParameterEncoder::encode(&values, mixed);
    // Text and printed values alike go through the query items' percent-encoding.
    EXPECT_EQ(urlOf(mixed), "https://h/search?q=star%20wars%20%26%20more&adult=false&ids=%5B1,%202%5D&ratio=0.5");
    EXPECT_TRUE(mixed.allHTTPHeaderFields().empty());

    // Absent parameters leave the query alone; empty ones empty it; without a URL nothing can be encoded.
    auto untouched = requestFor("https://h/x?keep=1");
    zul::URLParameterEncoder::encode(nullptr, untouched);
    EXPECT_EQ(urlOf(untouched), "https://h/x?keep=1");
    auto emptied = requestFor("https://h/x?drop=1#top");
    const AnyMap none;
    zul::URLParameterEncoder::encode(&none, emptied);
    EXPECT_EQ(urlOf(emptied), "https://h/x?#top");
    URLRequest withoutURL;
    EXPECT_EQ(routerError([&] { zul::URLParameterEncoder::encode(nullptr, withoutURL); }).kind(),
              NetworkRouterError::Kind::invalidUrl);
}

TEST(JSONParameterEncoderTest, WritesAPrettyBodyAndSetsTheContentTypeOrFailsLeavingTheRequestAlone) {
    // A content type the request has is replaced, whatever the case of its name (one is added
    // where there is none in the request builder tests).
    auto request = requestFor("https://h/x");
    request.setValue("text/plain", "content-TYPE");
    const AnyMap parameters{{"title", "a/b"}, {"year", 1977}, {"tags", zul::AnyList{"x"}}};
    zul::JSONParameterEncoder::encode(&parameters, request);
    ASSERT_TRUE(request.httpBody().has_value());
    EXPECT_EQ(zul::stringFromData(*request.httpBody()),
              "{\n  \"title\" : \"a\\/b\",\n  \"year\" : 1977,\n  \"tags\" : [\n    \"x\"\n  ]\n}");
    EXPECT_EQ(request.allHTTPHeaderFields().size(), 1u);
    EXPECT_EQ(request.value("Content-Type"), "application/json");

    auto untouched = requestFor("https://h/x");
    zul::JSONParameterEncoder::encode(nullptr, untouched);
    EXPECT_FALSE(untouched.httpBody().has_value());
    EXPECT_TRUE(untouched.allHTTPHeaderFields().empty());

    // A value JSON cannot hold fails with the parameters, and the request keeps what it had.
    auto refused = requestFor("https://h/x");
    refused.setHTTPBody(zul::dataFromString("before"));
    const AnyMap dated{{"name", "x"}, {"when", zul::Date(std::chrono::seconds(1551675967))}};
    const auto error = routerError([&] { zul::JSONParameterEncoder::encode(&dated, refused); });
    EXPECT_EQ(error.description(), "encoding(params: [\"name\": \"x\", \"when\": 2019-03-04 05:06:07 +0000])");
    EXPECT_EQ(zul::stringFromData(*refused.httpBody()), "before");
    EXPECT_FALSE(refused.value("Content-Type").has_value());
}

}  // namespace
