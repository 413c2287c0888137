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

/// Both lists in the order plug-ins are asked.
PluginList concatenated(const PluginList& primary, const PluginList& secondary);

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
/// first rejection's error, or absent when every plug-in accepted it. Later plug-ins are not
/// asked once one rejects.
void findPluginThatInvalidatesResponse(const Response& response, const std::shared_ptr<const ServiceType>& service,
                                       const PluginList& primary, const PluginList& secondary,
                                       UniqueFunction<void(std::optional<NetworkRouterError>)> completion);

/// The redirect request after every plug-in's `handleRedirect`; absent as soon as one refuses.
std::optional<URLRequest> handleRedirect(const PluginList& primary, const PluginList& secondary,
                                         const ServiceType& service, const HTTPURLResponse& response,
                                         URLRequest redirectRequest);

}  // namespace zul::detail
