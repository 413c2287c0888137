#include <gtest/gtest.h>

#include <stdexcept>

#include "network/request_builder.hpp"
#include "network/router_support.hpp"
#include "zul/network/service.hpp"

namespace {

using namespace zul;

struct Host final : zul::NetworkEnvironment {
    std::string name;
    explicit Host(std::string n) : name(std::move(n)) {}
    std::string host() const override { return name; }
};

// A service whose every member a test can set; unset members keep the library defaults.
struct TestService final : zul::ServiceType {
    BaseURLOptions base = BaseURLOptions::apiService();
    std::string servicePath;
    std::optional<zul::SchemaType> serviceSchema;
    std::optional<zul::HTTPMethod> method;
    std::optional<HeaderMap> serviceHeaders;
    Task serviceTask = Task::request();

    BaseURLOptions baseURL() const override { return base; }
    std::string path() const override { return servicePath; }
    zul::SchemaType schema() const override { return serviceSchema ? *serviceSchema : ServiceType::schema(); }
    zul::HTTPMethod httpMethod() const override { return method ? *method : ServiceType::httpMethod(); }
    std::optional<HeaderMap> headers() const override { return serviceHeaders; }
    Task task() const override { return serviceTask; }
};

TEST(RequestBuilderTest, AddressFromACustomURLOrTheEnvironmentThenPathMethodAndTimeOut) {
    const Host host("api.example.com:8443");
    TestService service;
    auto request = zul::detail::buildRequest(service, &host, nullptr);
    EXPECT_EQ(request.url()->absoluteString(), "https://api.example.com:8443/");  // an empty path keeps the "/"
    EXPECT_EQ(request.httpMethod(), "GET");
    EXPECT_EQ(request.timeoutInterval(), 15.0);
    EXPECT_EQ(request.cachePolicy(), zul::URLRequestCachePolicy::useProtocolCachePolicy);
    EXPECT_TRUE(request.allHTTPHeaderFields().empty() && !request.httpBody());

    service.servicePath = "v1/movies list";
    service.method = zul::HTTPMethod::delete_;
    service.serviceSchema = zul::SchemaType::custom("wss");
    request = zul::detail::buildRequest(service, &host, nullptr);
    EXPECT_EQ(request.url()->absoluteString(), "wss://api.example.com:8443/v1/movies%20list");
    EXPECT_EQ(request.httpMethod(), "DELETE");
    // A custom URL is used as it is, whatever the schema.
    service.base = BaseURLOptions::custom(*URL::fromString("https://cdn.example.com/v2"));
    EXPECT_EQ(zul::detail::baseURL(service, &host).absoluteString(), "https://cdn.example.com/v2");

    const Host broken("bad host name");
    EXPECT_EQ(test::routerError([&] { (void)detail::buildRequest(TestService{}, &broken, nullptr); }).kind(),
              NetworkRouterError::Kind::invalidUrl);

    using M = zul::HTTPMethod;
    for (const auto& [method, token] : {std::pair{M::get, "GET"}, {M::post, "POST"}, {M::put, "PUT"},
                                        {M::patch, "PATCH"}, {M::options, "OPTIONS"}, {M::head, "HEAD"},
                                        {M::trace, "TRACE"}})
        EXPECT_EQ(zul::description(method), token);
}

TEST(RequestBuilderTest, DataServiceMembers) {
    const URL url = *URL::fromString("https://h/file?x=1");
    const auto get = zul::DataService::get(url, zul::NetworkRequestParameters{std::nullopt});
    auto request = zul::detail::buildRequest(get, nullptr, nullptr);
    EXPECT_EQ(request.url()->absoluteString(), "https://h/file?x=1");
    EXPECT_EQ(request.timeoutInterval(), 15.0);

    const auto post = zul::DataService::post(url, zul::dataFromString("body"), zul::NetworkRequestParameters{2.5},
                                             HeaderMap{{"X-Trace", "7"}});
    request = zul::detail::buildRequest(post, nullptr, nullptr);
    EXPECT_EQ(request.timeoutInterval(), 2.5);
    EXPECT_EQ(request.value("x-trace"), "7");
    // Posting runs the URL encoder with no parameters: the existing query is dropped, "?" stays.
    EXPECT_EQ(request.url()->absoluteString(), "https://h/file?");
}

TEST(RequestBuilderTest, TasksEncodeInTheirOrderOrFailAndHeadersMergeServiceOverRouterAfterTheEncoders) {
    const Host host("h");
    TestService service;
    service.serviceTask = Task::requestParameters(AnyMap{{"a", 1}}, zul::ParameterEncoding::json);
    service.serviceHeaders = HeaderMap{{"Content-Type", "application/vnd.api+json"}, {"X-Client", "service"}};
    const HeaderMap router{{"X-Client", "router"}, {"X-Router", "yes"}};
    auto request = zul::detail::buildRequest(service, &host, &router);
    // The service's header beating the router's is seen end to end in the router tests.
    EXPECT_EQ(request.value("Content-Type"), "application/vnd.api+json");  // beats the JSON encoder's
    EXPECT_EQ(request.allHTTPHeaderFields().size(), 3u);
    EXPECT_EQ(zul::stringFromData(*request.httpBody()), "{\n  \"a\" : 1\n}");

    // Each kind of task runs its encoders in its own order.
    service.serviceHeaders.reset();
    service.servicePath = "search";
    service.serviceTask = Task::requestCompositeParameters(AnyMap{}, AnyMap{{"q", "a b"}});
    request = zul::detail::buildRequest(service, &host, nullptr);
    EXPECT_EQ(request.url()->absoluteString(), "https://h/search?q=a%20b");
    EXPECT_EQ(zul::stringFromData(*request.httpBody()), "{\n\n}");
    EXPECT_EQ(request.value("Content-Type"), "application/json");

    service.serviceTask = Task::requestParameters(AnyMap{{"page", 2}}, zul::ParameterEncoding::query);
    request = zul::detail::buildRequest(service, &host, nullptr);
    EXPECT_EQ(request.url()->absoluteString(), "https://h/search?page=2");
    EXPECT_FALSE(request.httpBody().has_value());
    service.serviceTask = Task::requestWithData(std::nullopt, AnyMap{{"k", "v"}});
    request = zul::detail::buildRequest(service, &host, nullptr);
    EXPECT_TRUE(request.url()->absoluteString() == "https://h/search?k=v" && !request.httpBody());

    service.serviceTask = Task::custom([](URLRequest& r) { r.setHTTPMethod("PURGE"), r.setValue("1", "X-Custom"); });
    request = zul::detail::buildRequest(service, &host, nullptr);
    EXPECT_EQ(request.httpMethod(), "PURGE");
    EXPECT_EQ(request.value("X-Custom"), "1");

    // A task that fails ends the build with its error, as it is.
    service.serviceTask = Task::custom([](URLRequest&) { throw std::invalid_argument("no token"); });
    EXPECT_THROW((void)zul::detail::buildRequest(service, &host, nullptr), std::invalid_argument);
}

}  // namespace
