#pragma once

// Turns a service and the router's environment into a request. The router calls these; they
// are kept out of the public headers because applications describe services and let the router
// build them.

#include "zul/network/service.hpp"

namespace zul::detail {

/// The base address of `service`: its custom URL, or schema://host/ from the environment.
/// Throws `NetworkRouterError::invalidEnvironment` or `invalidUrl`.
URL baseURL(const ServiceType& service, const NetworkEnvironment* environment);

/// The request for `service`: base address, path, time-out, method, encoded task, merged headers
/// (the service's own beat `customHeaders`, the router's). Throws `NetworkRouterError`, or
/// whatever a custom task's preparation throws.
URLRequest buildRequest(const ServiceType& service, const NetworkEnvironment* environment,
                        const HeaderMap* customHeaders);

}  // namespace zul::detail
