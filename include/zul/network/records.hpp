#pragma once

/// The records every part of networking shares: `Response`, the router's errors
/// (`NetworkRouterError`) and the stub behaviour of a request (`StubBehavior`).

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "zul/platform/any_value.hpp"
#include "zul/platform/data.hpp"
#include "zul/platform/error.hpp"
#include "zul/platform/http_url_response.hpp"
#include "zul/platform/url_request.hpp"

namespace zul {

/// A finished request. Status codes are not judged: every HTTP response, whatever its status,
/// reaches the caller as a `Response`; callers and plug-ins decide what counts as an error.
struct Response {
    std::int64_t statusCode = 0;
    Data data;
    /// The platform's response; absent for stubbed answers made without one.
    std::shared_ptr<const HTTPURLResponse> response;
    URLRequest request;

    /// A copy with another status code and body, keeping `response` and `request`.
    Response create(std::int64_t newStatusCode, Data newData) const {
        return Response{newStatusCode, std::move(newData), response, request};
    }

    friend bool operator==(const Response& a, const Response& b) {
        return a.statusCode == b.statusCode && a.data == b.data && a.request == b.request &&
               (a.response == b.response || (a.response && b.response && *a.response == *b.response));
    }
};

/// The errors of the network router. The router reports every failure as one of these, through
/// its completions; it never throws to its callers.
class NetworkRouterError final : public Error {
public:
    enum class Kind {
        encoding,              ///< the JSON encoder could not serialise the parameters (`params()`)
        cancelledByPlugin,     ///< a plug-in's willTransmit answered true (`pluginName()`)
        preventedByPlugin,     ///< a plug-in's prepareTransmit returned no request (`pluginName()`)
        invalidEnvironment,    ///< an apiService base address without an environment
        invalidUrl,            ///< a base address or URL that cannot be used
        invalidRequest,        ///< for callers; the router does not raise it
        cancelled,             ///< cancelled, router gone, or a failure not otherwise classified
        requestTimeOut,        ///< the transport timed out
        noInternetConnection,  ///< no connection, or no HTTP response arrived
        delayed,               ///< a plug-in postponed the response
        unknownError,          ///< for callers; the router does not raise it
    };

    static NetworkRouterError encoding(AnyMap params);
    static NetworkRouterError cancelledByPlugin(std::optional<std::string> name);
    static NetworkRouterError preventedByPlugin(std::optional<std::string> name);
    static NetworkRouterError invalidEnvironment() noexcept { return NetworkRouterError(Kind::invalidEnvironment); }
    static NetworkRouterError invalidUrl() noexcept { return NetworkRouterError(Kind::invalidUrl); }
    static NetworkRouterError invalidRequest() noexcept { return NetworkRouterError(Kind::invalidRequest); }
    static NetworkRouterError cancelled() noexcept { return NetworkRouterError(Kind::cancelled); }
    static NetworkRouterError requestTimeOut() noexcept { return NetworkRouterError(Kind::requestTimeOut); }
    static NetworkRouterError noInternetConnection() noexcept { return NetworkRouterError(Kind::noInternetConnection); }
    static NetworkRouterError delayed() noexcept { return NetworkRouterError(Kind::delayed); }
    static NetworkRouterError unknownError() noexcept { return NetworkRouterError(Kind::unknownError); }

    Kind kind() const noexcept { return kind_; }

    /// The parameters of an `encoding` error; null for the other cases.
    const AnyMap* params() const noexcept;
    /// The plug-in name of a `cancelledByPlugin` or `preventedByPlugin` error (itself possibly
    /// absent); null for the other cases.
    const std::optional<std::string>* pluginName() const noexcept;

    /// The case name, for example "invalidEnvironment".
    const char* what() const noexcept override;
    /// The case with its payload, for example `cancelledByPlugin(name: Optional("Auth"))` or
    /// `encoding(params: ["date": 2019-03-04 05:06:07 +0000])`.
    std::string description() const override;

private:
    explicit NetworkRouterError(Kind kind) noexcept : kind_(kind) {}

    Kind kind_;
    std::variant<std::monostate, std::shared_ptr<const AnyMap>, std::optional<std::string>> payload_;
};

/// How a request is answered: from the network (`never` stub), from the service's sample at
/// once (`immediate`), or from the sample after some seconds (`delayed`).
class StubBehavior {
public:
    enum class Kind { delayed, never, immediate };

    static StubBehavior delayed(double seconds) noexcept { return StubBehavior(Kind::delayed, seconds); }
    static StubBehavior never() noexcept { return StubBehavior(Kind::never, 0); }
    static StubBehavior immediate() noexcept { return StubBehavior(Kind::immediate, 0); }

    Kind kind() const noexcept { return kind_; }
    /// The delay of a `delayed` behaviour; 0 for the others.
    double seconds() const noexcept { return seconds_; }

    friend bool operator==(const StubBehavior&, const StubBehavior&) = default;

private:
    StubBehavior(Kind kind, double seconds) noexcept : kind_(kind), seconds_(seconds) {}
    Kind kind_;
    double seconds_;
};

}  // namespace zul
