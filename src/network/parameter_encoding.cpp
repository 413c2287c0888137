#include "zul/network/parameter_encoding.hpp"

#include <vector>

#include "zul/platform/json_serialization.hpp"
#include "zul/platform/url_components.hpp"

namespace zul {

void URLParameterEncoder::encode(const AnyMap* parameters, URLRequest& request) {
    // 1. the request's URL, 2. decomposed without resolving against a base
    if (!request.url()) throw NetworkRouterError::invalidUrl();
    auto components = URLComponents::fromURL(*request.url(), false);
    if (!components) throw NetworkRouterError::invalidUrl();
    // 3. no parameters: the request stays as it is
    if (parameters == nullptr) return;
    // 4. one item per entry, the value as it prints; no expansion of lists or maps
    std::vector<URLQueryItem> items;
    items.reserve(parameters->size());
    for (const auto& [name, value] : *parameters) {
        if (const std::string* text = value.asString()) {
            items.push_back(URLQueryItem{name, *text});
        } else {
            items.push_back(URLQueryItem{name, value.description()});
        }
    }
    // 5. the items replace any query the URL had; the components do the percent-encoding
    components->setQueryItems(items);
    request.setURL(components->url());
}

void JSONParameterEncoder::encode(const AnyMap* parameters, URLRequest& request) {
    // 1. no parameters: the request stays as it is
    if (parameters == nullptr) return;
    // 2. pretty-printed JSON, 3. or the encoding error carrying the parameters
    Data body;
    try {
        JSONSerialization::write(*parameters, JSONWritingOptions{.prettyPrinted = true}, body);
    } catch (const JSONSerializationError&) {
        throw NetworkRouterError::encoding(*parameters);
    }
    // 4. the body, then the content type, set or replaced
    request.setHTTPBody(std::move(body));
    if (request.allHTTPHeaderFields().contains("Content-Type")) {
        request.setValue("application/json", "Content-Type");
    } else {
        request.addValue("application/json", "Content-Type");
    }
}

}  // namespace zul
