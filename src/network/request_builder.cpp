#include "network/request_builder.hpp"

#include <variant>

namespace zul::detail {

namespace {

template <class... F>
struct Overloaded : F... {
    using F::operator()...;
};

void applyTask(const Task& task, URLRequest& request) {
    std::visit(Overloaded{
                   [&](const Task::RequestParameters& c) {
                       if (c.parameterEncoding == ParameterEncoding::query) {
                           URLParameterEncoder::encode(&c.parameters, request);
                       } else {
                           JSONParameterEncoder::encode(&c.parameters, request);
                       }
                   },
                   [&](const Task::RequestCompositeParameters& c) {
                       URLParameterEncoder::encode(&c.urlParameters, request);
                       JSONParameterEncoder::encode(&c.bodyParameters, request);
                   },
                   [&](const Task::RequestWithData& c) {
                       request.setHTTPBody(c.bodyData);
                       URLParameterEncoder::encode(&c.urlParameters, request);
                   },
                   [&](const Task::Custom& c) {
                       if (c.preparation) c.preparation(request);
                   },
                   [](const Task::Request&) {},
               },
               task.value());
}

}  // namespace

URL baseURL(const ServiceType& service, const NetworkEnvironment* environment) {
    // 1. the service's base address option
    BaseURLOptions options = service.baseURL();
    // 2. a custom URL is used as it is, environment or not
    if (std::optional<URL> custom = std::move(options).takeCustomURL()) return *std::move(custom);
    // 3. apiService needs an environment
    if (environment == nullptr) throw NetworkRouterError::invalidEnvironment();
    // 4. schema "://" host "/"
    auto url = URL::fromString(service.schema().description() + "://" + environment->host() + "/");
    if (!url) throw NetworkRouterError::invalidUrl();
    return *std::move(url);
}

URLRequest buildRequest(const ServiceType& service, const NetworkEnvironment* environment,
                        const HeaderMap* customHeaders) {
    // 1. the base address
    URL url = baseURL(service, environment);
    // 2. the path as one component; an empty path keeps the base as it is, trailing "/" included
    const std::string path = service.path();
    if (!path.empty()) url = url.appendingPathComponent(path);
    // 3. the request, with the protocol's cache policy and the service's time-out
    URLRequest request(std::move(url), URLRequestCachePolicy::useProtocolCachePolicy, service.timeout());
    // 4. the method
    request.setHTTPMethod(std::string(description(service.httpMethod())));
    // 5. the task; an encoder's or preparation's failure ends the build
    applyTask(service.task(), request);
    // 6. headers, after the encoders: the service's, then the router's where the service has none
    // of that name; each replaces a field the request has or is added
    HeaderMap headers;
    if (auto own = service.headers()) headers = std::move(*own);
    if (customHeaders != nullptr) {
        for (const auto& [name, value] : *customHeaders) headers.insertIfAbsent(name, value);
    }
    for (auto& [name, value] : headers) {
        if (request.allHTTPHeaderFields().contains(name)) {
            request.setValue(std::move(value), name);
        } else {
            request.addValue(value, name);
        }
    }
    // 7. done; plug-ins prepare it afterwards, in the router
    return request;
}

}  // namespace zul::detail
