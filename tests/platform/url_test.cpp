#include <gtest/gtest.h>

#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "zul/platform/url.hpp"
#include "zul/platform/url_components.hpp"
#include "zul/platform/url_request.hpp"

namespace {

using namespace std::literals;
using zul::URL;
using zul::URLComponents;
using zul::URLQueryItem;
using Items = std::vector<URLQueryItem>;

URL url(std::string_view text) {
    auto parsed = URL::fromString(text);
    EXPECT_TRUE(parsed.has_value()) << text;
    return parsed.value_or(*URL::fromString("invalid://test/"));
}

// "scheme|host|port|path|query|fragment", absent parts as "-".
std::string parts(const URL& u) {
    const auto part = [](const auto& value) { return value ? std::string(*value) : std::string("-"); };
    return std::string(u.scheme()) + "|" + u.host() + "|" + (u.port() ? std::to_string(*u.port()) : "-") + "|" +
           std::string(u.path()) + "|" + part(u.query()) + "|" + part(u.fragment());
}

std::string withQuery(std::string_view base, const std::optional<Items>& items) {
    auto components = URLComponents::fromURL(url(base));
    EXPECT_TRUE(components.has_value());
    components->setQueryItems(items);
    return components->url()->absoluteString();
}

TEST(URLTest, FromStringKeepsTheTextAndRejectsInvalidURLs) {
    for (const char* text : {"https://h", "HTTPS://Ex.COM/A?B#C", "wss://h/", "file:///tmp/x", "https://h/%zz"}) {
        const auto parsed = URL::fromString(text);
        ASSERT_TRUE(parsed.has_value()) << text;
        EXPECT_EQ(parsed->absoluteString(), text);
    }
    for (std::string_view text : {"", "h/x", "//h/x", "https://h x/", "https://h/a b", "https://h:99999/",
                                  "https://h:abc/", "https://", "https://[zz]/", "1http://h/", "mailto:a@b",
                                  "https:/h/x", "https:///x"}) {
        EXPECT_FALSE(URL::fromString(text).has_value()) << text;
    }
    EXPECT_FALSE(URL::fromString("https://h/\0x"sv).has_value());
    // The parser of the previous call must not serve as a base for text it reads as relative,
    // such as a scheme longer than libcurl's 40 characters.
    ASSERT_TRUE(URL::fromString("https://a/b").has_value());
    EXPECT_FALSE(URL::fromString(std::string(41, 'a') + "://h/").has_value());
}

TEST(URLTest, ComponentsAreReadAsWritten) {
    EXPECT_EQ(parts(url("https://u:p@[::1]:8080/x/y?q=1&r#frag?z")), "https|::1|8080|/x/y|q=1&r|frag?z");
    EXPECT_EQ(parts(url("HTTPS://User@Ex.COM:080")), "HTTPS|Ex.COM|80||-|-");
    EXPECT_EQ(parts(url("https://h/?")), "https|h|-|/||-");
    EXPECT_EQ(parts(url("https://h#a?b")), "https|h|-||-|a?b");
    EXPECT_EQ(parts(url("https://h:/x")), "https|h|-|/x|-|-");
    EXPECT_EQ(parts(url("file:///tmp/x")), "file||-|/tmp/x|-|-");
}

TEST(URLTest, AppendingPathComponentPutsExactlyOneSlashBetweenAndEncodesOutsideThePathSet) {
    struct Case {
        std::string_view base, component, expected;
    };
    const Case cases[] = {
        {"https://h/", "a", "https://h/a"},       {"https://h", "a", "https://h/a"},
        {"https://h/x", "y", "https://h/x/y"},    {"https://h/x/", "y", "https://h/x/y"},
        {"https://h/x", "/y", "https://h/x/y"},   {"https://h/x/", "/y", "https://h/x/y"},
        {"https://h/x", "a/b", "https://h/x/a/b"}, {"https://h/x", "y/", "https://h/x/y/"},
        {"https://h/x", "", "https://h/x/"},      {"https://h/x", "//y", "https://h/x//y"},
        {"https://h#f", "y", "https://h/y#f"},    {"file:///tmp", "a b", "file:///tmp/a%20b"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(url(c.base).appendingPathComponent(c.component).absoluteString(), c.expected)
            << c.base << " + " << c.component;
    }

    // Characters outside the path set are percent-encoded, "%" included.
    const URL base = url("https://h/x?q=1#f");
    const URL plain = base.appendingPathComponent("AZaz09!$&'()*+,-.:;=@_~");
    EXPECT_EQ(plain.absoluteString(), "https://h/x/AZaz09!$&'()*+,-.:;=@_~?q=1#f");
    const URL encoded = base.appendingPathComponent("a b?#%\"<>[\\]^`{|}\x01\x7f" "é");
    EXPECT_EQ(encoded.absoluteString(),
              "https://h/x/a%20b%3F%23%25%22%3C%3E%5B%5C%5D%5E%60%7B%7C%7D%01%7F%C3%A9?q=1#f");
    // The parts after the path moved with it: the result reads as the parser reads its text.
    EXPECT_EQ(parts(encoded), parts(url(encoded.absoluteString())));
    EXPECT_EQ(url("https://h/a%20b").appendingPathComponent("%20").absoluteString(), "https://h/a%20b/%2520");
}

TEST(URLComponentsTest, QueryItemsAreEncodedAlikeDecodedAndEverySetListReadsBack) {
    EXPECT_EQ(withQuery("https://h/x?old=1#frag", Items{{"q", "star wars"}, {"a&b", "c=d"}, {"flag", std::nullopt},
                                                        {"empty", ""}, {"#%+", "#%+"}}),
              "https://h/x?q=star%20wars&a%26b=c%3Dd&flag&empty=&%23%25+=%23%25+#frag");
    EXPECT_EQ(withQuery("https://h", Items{{"-._~!$'()*+,;:@/?", "\"<>[\\]^`{|}"}, {"é", "\t\x7f"}}),
              "https://h?-._~!$'()*+,;:@/?=%22%3C%3E%5B%5C%5D%5E%60%7B%7C%7D&%C3%A9=%09%7F");
    EXPECT_EQ(withQuery("https://h/x?a=1#f", Items{}), "https://h/x?#f");
    EXPECT_EQ(withQuery("https://h/x?a=1#f", std::nullopt), "https://h/x#f");
    EXPECT_EQ(withQuery("https://h/x?a=1", std::nullopt), "https://h/x");

    auto components = URLComponents::fromURL(url("https://h/x?a#f"));
    ASSERT_TRUE(components.has_value());
    EXPECT_EQ(components->percentEncodedQuery(), "a");
    components->setQueryItems(Items{{"k", "v w"}});
    EXPECT_EQ(components->percentEncodedQuery(), "k=v%20w");

    EXPECT_FALSE(URLComponents::fromURL(url("https://h/x#a=b"))->queryItems().has_value());
    EXPECT_EQ(URLComponents::fromURL(url("https://h/x?"))->queryItems(), Items{});
    EXPECT_EQ(URLComponents::fromURL(url("https://h/?a=1&b&c=&d=x=y&&e=%41+%2b%zz%4#f=g"))->queryItems(),
              (Items{{"a", "1"}, {"b", std::nullopt}, {"c", ""}, {"d", "x=y"}, {"", std::nullopt}, {"e", "A++%zz%4"}}));
    // Every list set reads back the same, also from the URL made of it.
    const Items lists[] = {
        {{"q", "star wars"}, {"page", "2"}},
        {{"", ""}, {"a", std::nullopt}, {"", std::nullopt}, {"=", "&"}},
        {{"%41", "%"}, {"+", " + "}, {"#", "?#/"}, {"x", "="}},
        {{"ключ", "значение"}, {"emoji", "\xF0\x9F\x8E\xAC"}, {"\"<>`{}", "[\\]^|"}},
    };
    for (const Items& items : lists) {
        auto set = URLComponents::fromURL(url("https://h/x?old#f"));
        set->setQueryItems(items);
        EXPECT_EQ(set->queryItems(), items);
        EXPECT_EQ(URLComponents::fromURL(url(set->url()->absoluteString()))->queryItems(), items);
    }
}

TEST(HTTPHeadersTest, SetReplacesInPlaceAbsentRemovesAndEqualityIgnoresNameCase) {
    zul::HTTPHeaders headers;
    headers.setValue("text/html", "Accept");
    headers.setValue("abc", "X-Token");
    headers.setValue("application/json", "ACCEPT");
    EXPECT_EQ(headers.size(), 2u);
    EXPECT_EQ(headers.begin()->first, "Accept");
    EXPECT_EQ(headers.begin()->second, "application/json");
    headers.setValue(std::nullopt, "x-TOKEN");
    headers.setValue(std::nullopt, "Missing");
    EXPECT_EQ(headers.size(), 1u);
    EXPECT_FALSE(headers.value("X-Token").has_value());

    headers.addValue("gzip", "Accept-Encoding");
    headers.addValue("br", "accept-encoding");
    EXPECT_EQ(headers.value("ACCEPT-ENCODING"), "gzip,br");
    EXPECT_EQ(std::prev(headers.end())->first, "Accept-Encoding");

    const zul::HTTPHeaders listed{{"A", "1"}, {"B", "2"}, {"a", "3"}};
    EXPECT_EQ(listed.size(), 2u);
    EXPECT_EQ(listed.begin()->first, "A");
    EXPECT_EQ(listed.value("A"), "3");

    // Equality ignores name case and order, but not values.
    const zul::HTTPHeaders a{{"Accept", "x"}, {"X-Id", "1"}};
    EXPECT_EQ(a, (zul::HTTPHeaders{{"x-id", "1"}, {"ACCEPT", "x"}}));
    EXPECT_NE(a, (zul::HTTPHeaders{{"Accept", "X"}, {"X-Id", "1"}}));
    EXPECT_NE(a, (zul::HTTPHeaders{{"Accept", "x"}}));
    EXPECT_NE(a, (zul::HTTPHeaders{{"Accept", "x"}, {"X-Id", "1"}, {"Y", ""}}));
    EXPECT_NE(a, (zul::HTTPHeaders{{"Accept", "x"}, {"X-Ie", "1"}}));
}

// The header fields of a request are an HTTPHeaders (above); its own are the defaults and copying.
TEST(URLRequestTest, DefaultsToAGETWithASixtySecondTimeoutAndCopiesAreIndependentWhicheverOfThemChanges) {
    const zul::URLRequest plain(url("https://h/v1"));
    EXPECT_EQ(plain.httpMethod(), "GET");
    EXPECT_EQ(plain.timeoutInterval(), 60.0);

    const auto made = [] {
        zul::URLRequest request(url("https://h/v1"));
        request.setValue("1", "X-Id");
        request.setHTTPBody(zul::dataFromString("body"));
        return request;
    };
    const zul::URLRequest original = made();
    // Made apart rather than copied, so that it shares nothing a faulty copy could change.
    const zul::URLRequest before = made();
    const std::vector<std::pair<const char*, std::function<void(zul::URLRequest&)>>> changes = {
        {"url", [](zul::URLRequest& r) { r.setURL(url("https://h/v2")); }},
        {"method", [](zul::URLRequest& r) { r.setHTTPMethod("POST"); }},
        {"set", [](zul::URLRequest& r) { r.setValue("2", "X-Id"); }},
        {"add", [](zul::URLRequest& r) { r.addValue("2", "x-id"); }},
        {"body", [](zul::URLRequest& r) { r.setHTTPBody(std::nullopt); }},
        {"timeout", [](zul::URLRequest& r) { r.setTimeoutInterval(5); }},
        {"cache", [](zul::URLRequest& r) { r.setCachePolicy(zul::URLRequestCachePolicy::returnCacheDataDontLoad); }},
    };
    for (const auto& [name, change] : changes) {
        zul::URLRequest copy = original;
        change(copy);
        EXPECT_NE(copy, original) << name;
        EXPECT_EQ(original, before) << name;
        // The other way round: the one copied from changes, its copy keeps what it had.
        zul::URLRequest changed = original;
        zul::URLRequest kept = changed;
        change(changed);
        EXPECT_EQ(kept, before) << name;
    }

    // A request made with the defaults, copied and changed, and one moved from.
    zul::URLRequest blank;
    zul::URLRequest filled = blank;
    filled.setURL(url("https://h/"));
    EXPECT_EQ(blank, zul::URLRequest());
    zul::URLRequest moved = std::move(filled);
    EXPECT_EQ(moved.url(), url("https://h/"));

    // Copies changed on several threads at once, each its own (a race checker watches this).
    std::vector<std::thread> threads;
    std::vector<zul::URLRequest> results(4);
    for (std::size_t i = 0; i < results.size(); ++i) {
        threads.emplace_back([&original, &results, i] {
            for (int round = 0; round < 200; ++round) {
                zul::URLRequest copy = original;
                copy.setValue(std::to_string(i), "X-Thread");
                results[i] = std::move(copy);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (std::size_t i = 0; i < results.size(); ++i) EXPECT_EQ(results[i].value("X-Thread"), std::to_string(i));
    EXPECT_EQ(original, before);
}

}  // namespace
