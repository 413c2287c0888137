#include "zul/network/plugins.hpp"

#include <utility>

namespace zul {

bool NetworkPluginType::willTransmit(const URLRequest& /*request*/, const ServiceType& /*service*/) { return false; }

void NetworkPluginType::didReceive(const Response& /*response*/, const ServiceType& /*service*/,
                                   UniqueFunction<void(bool)> completion) {
    completion(false);
}

std::optional<URLRequest> NetworkPluginType::prepareTransmit(URLRequest request, const ServiceType& /*service*/) {
    return request;
}

void NetworkPluginType::prepareReceive(PluginResult result, const ServiceType& /*service*/,
                                       UniqueFunction<void(PluginResult)> completionHandler) {
    completionHandler(std::move(result));
}

std::optional<URLRequest> NetworkPluginType::handleRedirect(const HTTPURLResponse& /*response*/,
                                                            URLRequest redirectedRequest,
                                                            const ServiceType& /*service*/) {
    return redirectedRequest;
}

}  // namespace zul
