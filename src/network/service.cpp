#include "zul/network/service.hpp"

namespace zul {

std::string SchemaType::description() const {
    switch (kind_) {
        case Kind::custom: return custom_;
        case Kind::https: return "https";
        case Kind::http: return "http";
    }
    return {};
}

std::string_view description(HTTPMethod method) noexcept {
    switch (method) {
        case HTTPMethod::get: return "GET";
        case HTTPMethod::post: return "POST";
        case HTTPMethod::put: return "PUT";
        case HTTPMethod::patch: return "PATCH";
        case HTTPMethod::options: return "OPTIONS";
        case HTTPMethod::delete_: return "DELETE";
        case HTTPMethod::head: return "HEAD";
        case HTTPMethod::trace: return "TRACE";
    }
    return "GET";
}

DataService DataService::get(URL url, NetworkRequestParameters parameters, std::optional<HeaderMap> headers) {
    return DataService(Kind::get, std::move(url), std::nullopt, parameters, std::move(headers));
}

DataService DataService::post(URL url, std::optional<Data> data, NetworkRequestParameters parameters,
                              std::optional<HeaderMap> headers) {
    return DataService(Kind::post, std::move(url), std::move(data), parameters, std::move(headers));
}

Task DataService::task() const {
    if (kind_ == Kind::get) return Task::request();
    return Task::requestWithData(data_, AnyMap{});
}

}  // namespace zul
