#pragma once

// The chains that run a router's plug-ins over one request, global plug-ins ("primary") first,
// then the router's own ("secondary"). Each plug-in sees what the one before it produced.

#include <memory>
#include <optional>
#include <vector>

#include "zul/core/future.hpp"
#include "zul/network/plugins.hpp"

namespace zul::detail {

using PluginList = std::vector<std::shared_ptr<NetworkPluginType>>;
using SharedPluginList = std::shared_ptr<const PluginList>;

/// The result after every plug-in's `prepareReceive`, each fed the previous output. With no
/// plug-ins the future holds `result` unchanged.
std::shared_ptr<Future<Response>> networkModifyResponse(const PluginList& primary, const PluginList& secondary,
                                                        const std::shared_ptr<const ServiceType>& service,
                                                        PluginResult result);

/// A future that fails with `preventedByPlugin(name)` when `plugin` rejects `response` in
/// `didReceive`, and succeeds when it accepts it.
std::shared_ptr<Future<Void>> makeFutureThatWrapsDidReceive(const std::shared_ptr<NetworkPluginType>& plugin,
                                                            const Response& response,
                                                            const std::shared_ptr<const ServiceType>& service);

/// Asks the plug-ins one after another whether `response` is invalid; `completion` receives the
/// first rejection's error, or absent when every plug-in accepted it, and the response back.
/// Later plug-ins are not asked once one rejects. The lists are shared, not copied, because a
/// plug-in may answer after this returns.
void findPluginThatInvalidatesResponse(Response response, const std::shared_ptr<const ServiceType>& service,
                                       SharedPluginList primary, SharedPluginList secondary,
                                       UniqueFunction<void(std::optional<NetworkRouterError>, Response)> completion);

/// The redirect request after every plug-in's `handleRedirect`; absent as soon as one refuses.
std::optional<URLRequest> handleRedirect(const PluginList& primary, const PluginList& secondary,
                                         const ServiceType& service, const HTTPURLResponse& response,
                                         URLRequest redirectRequest);

}  // namespace zul::detail
