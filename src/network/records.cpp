#include "zul/network/records.hpp"

namespace zul {

NetworkRouterError NetworkRouterError::encoding(AnyMap params) {
    NetworkRouterError error(Kind::encoding);
    error.payload_ = std::make_shared<const AnyMap>(std::move(params));
    return error;
}

NetworkRouterError NetworkRouterError::cancelledByPlugin(std::optional<std::string> name) {
    NetworkRouterError error(Kind::cancelledByPlugin);
    error.payload_ = std::move(name);
    return error;
}

NetworkRouterError NetworkRouterError::preventedByPlugin(std::optional<std::string> name) {
    NetworkRouterError error(Kind::preventedByPlugin);
    error.payload_ = std::move(name);
    return error;
}

const AnyMap* NetworkRouterError::params() const noexcept {
    const auto* params = std::get_if<std::shared_ptr<const AnyMap>>(&payload_);
    return params != nullptr ? params->get() : nullptr;
}

const std::optional<std::string>* NetworkRouterError::pluginName() const noexcept {
    return std::get_if<std::optional<std::string>>(&payload_);
}

const char* NetworkRouterError::what() const noexcept {
    switch (kind_) {
        case Kind::encoding: return "encoding";
        case Kind::cancelledByPlugin: return "cancelledByPlugin";
        case Kind::preventedByPlugin: return "preventedByPlugin";
        case Kind::invalidEnvironment: return "invalidEnvironment";
        case Kind::invalidUrl: return "invalidUrl";
        case Kind::invalidRequest: return "invalidRequest";
        case Kind::cancelled: return "cancelled";
        case Kind::requestTimeOut: return "requestTimeOut";
        case Kind::noInternetConnection: return "noInternetConnection";
        case Kind::delayed: return "delayed";
        case Kind::unknownError: return "unknownError";
    }
    return "NetworkRouterError";
}

std::string NetworkRouterError::description() const {
    std::string text = what();
    if (const AnyMap* map = params()) {
        text += "(params: " + AnyValue(*map).description() + ")";
    } else if (const auto* name = pluginName()) {
        text += "(name: " + AnyValue::optional(*name ? std::optional<AnyValue>(**name) : std::nullopt).description() + ")";
    }
    return text;
}

}  // namespace zul
