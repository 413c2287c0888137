#pragma once

/// Plug-ins: hooks that see every request of a router, to veto it, rewrite it, rewrite or
/// postpone its result, reject its response, or steer its redirects.
///
///     class AuthPlugin final : public zul::NetworkPluginType {
///     public:
///         std::optional<std::string> name() const override { return "Auth"; }
///         std::optional<zul::URLRequest> prepareTransmit(zul::URLRequest request,
///                                                        const zul::ServiceType&) override {
///             request.setValue("Bearer " + token(), "Authorization");
///             return request;
///         }
///     };
///     zul::NetworkRouter::addGlobalPlugin(std::make_shared<AuthPlugin>());
///
/// Every hook has a default that leaves the request alone, so a plug-in implements only what it
/// needs. Global plug-ins (`NetworkRouter::addGlobalPlugin`) act before a router's own plug-ins,
/// in every hook. Hooks are called from the thread that sends the request or, for results, from
/// the router's session queue; a plug-in shared by several routers must be thread-safe.

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "zul/network/records.hpp"
#include "zul/network/service.hpp"
#include "zul/platform/error.hpp"
#include "zul/platform/http_url_response.hpp"
#include "zul/platform/result.hpp"
#include "zul/platform/unique_function.hpp"
#include "zul/platform/url_request.hpp"

namespace zul {

/// The error a plug-in finishes `prepareReceive` with to have the router park the request: the
/// caller is told `NetworkRouterError::delayed()`, and the request is replayed by
/// `NetworkRouter::resume(token)`.
class NetworkPluginError final : public Error {
public:
    enum class Kind { delay };
    static NetworkPluginError delay() noexcept { return NetworkPluginError(); }
    Kind kind() const noexcept { return Kind::delay; }
    const char* what() const noexcept override { return "delay"; }
    friend bool operator==(const NetworkPluginError&, const NetworkPluginError&) noexcept { return true; }

private:
    NetworkPluginError() noexcept = default;
};

/// A result as plug-ins see it: the response, or any error (transport errors arrive as
/// `NetworkTaskError`).
using PluginResult = Result<Response, AnyError>;

class NetworkPluginType {
public:
    virtual ~NetworkPluginType() = default;

    /// Reported in `cancelledByPlugin` and `preventedByPlugin` errors. Default: absent.
    virtual std::optional<std::string> name() const { return std::nullopt; }

    /// Answer true to cancel the request before it is sent (the caller gets
    /// `cancelledByPlugin(name)`). Default: false.
    virtual bool willTransmit(const URLRequest& request, const ServiceType& service);

    /// Asked once a response arrived: call `completion` once, on any thread, with true to reject
    /// the response (the caller gets `preventedByPlugin(name)`). Default: false at once.
    virtual void didReceive(const Response& response, const ServiceType& service,
                            UniqueFunction<void(bool)> completion);

    /// Rewrites the request before it is sent; absent refuses it (the caller gets
    /// `preventedByPlugin(name)`). Default: the request unchanged.
    virtual std::optional<URLRequest> prepareTransmit(URLRequest request, const ServiceType& service);

    /// Rewrites the result: call `completionHandler` once, on any thread, with the result to pass
    /// on. A failure with `NetworkPluginError::delay()` parks the request. Default: the result
    /// unchanged, at once.
    virtual void prepareReceive(PluginResult result, const ServiceType& service,
                                UniqueFunction<void(PluginResult)> completionHandler);

    /// Asked before a redirect is followed: return the request to follow (rewritten or not), or
    /// absent to stop at the redirect response. Default: `redirectedRequest` unchanged.
    virtual std::optional<URLRequest> handleRedirect(const HTTPURLResponse& response, URLRequest redirectedRequest,
                                                     const ServiceType& service);
};

}  // namespace zul

template <>
struct std::hash<zul::NetworkPluginError> {
    std::size_t operator()(const zul::NetworkPluginError&) const noexcept { return 0; }
};
