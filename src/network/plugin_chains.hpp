#pragma once

// The chains that run a router's plug-ins over one request, global plug-ins ("primary") first,
// then the router's own ("secondary"). Each plug-in sees what the one before it produced. The lists
// are shared, not copied, because a plug-in may answer after the call that asked it has returned.

#include <memory>
#include <optional>
#include <vector>

#include "zul/network/plugins.hpp"
#include "zul/platform/unique_function.hpp"

namespace zul::detail {

using PluginList = std::vector<std::shared_ptr<NetworkPluginType>>;
using SharedPluginList = std::shared_ptr<const PluginList>;

/// Passes `result` through every plug-in's `prepareReceive`, each fed the previous one's output,
/// and hands the last output to `completion`, on the thread of the last plug-in's answer (at once
/// when every plug-in answers at once). With no plug-ins `completion` gets `result` unchanged. A
/// plug-in's answers after its first are ignored. The result is moved from step to step, never
/// copied.
void networkModifyResponse(SharedPluginList primary, SharedPluginList secondary,
                           std::shared_ptr<const ServiceType> service, PluginResult result,
                           UniqueFunction<void(PluginResult)> completion);

/// Asks the plug-ins one after another whether `response` is invalid; `completion` receives the
/// first rejection (`preventedByPlugin` with the plug-in's name), or absent when every plug-in
/// accepted it, and the response back. Later plug-ins are not asked once one rejects, and a
/// plug-in's answers after its first are ignored.
void findPluginThatInvalidatesResponse(Response response, std::shared_ptr<const ServiceType> service,
                                       SharedPluginList primary, SharedPluginList secondary,
                                       UniqueFunction<void(std::optional<NetworkRouterError>, Response)> completion);

/// The redirect request after every plug-in's `handleRedirect`; absent as soon as one refuses.
std::optional<URLRequest> handleRedirect(const PluginList& primary, const PluginList& secondary,
                                         const ServiceType& service, const HTTPURLResponse& response,
                                         URLRequest redirectRequest);

}  // namespace zul::detail
