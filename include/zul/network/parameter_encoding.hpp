#pragma once

/// The two parameter encoders: parameters into the URL's query, or into a JSON body.
///
///     zul::URLRequest request(zul::URL::fromString("https://api.example.com/search"));
///     zul::AnyMap parameters{{"q", "star wars"}, {"page", 2}};
///     zul::URLParameterEncoder::encode(&parameters, request);   // ...search?q=star%20wars&page=2
///     zul::JSONParameterEncoder::encode(&parameters, request);  // pretty JSON body, Content-Type set
///
/// Both throw `NetworkRouterError` and leave the request as it was when they fail; both leave it
/// alone when given no parameters (a null pointer).

#include <concepts>

#include "zul/network/records.hpp"
#include "zul/platform/any_value.hpp"
#include "zul/platform/url_request.hpp"

namespace zul {

/// Where a parameter set goes.
enum class ParameterEncoding { query, json };

/// An encoder: a type with `static void encode(const AnyMap* parameters, URLRequest& request)`.
template <class E>
concept ParameterEncoder = requires(const AnyMap* parameters, URLRequest& request) {
    { E::encode(parameters, request) } -> std::same_as<void>;
};

/// Replaces the URL's query with one item per parameter (in the map's order), the value printed
/// as text (`AnyValue::description()`: 3 -> "3", true -> "true", a list -> "[1, 2]"), with no
/// expansion of lists or maps. Percent-encoding is the query items' own. Sets no header.
/// Throws `invalidUrl` when the request has no URL.
struct URLParameterEncoder {
    static void encode(const AnyMap* parameters, URLRequest& request);
};

/// Sets the body to the parameters as pretty-printed JSON, and "Content-Type" to
/// "application/json" (replacing a value already there). Throws `encoding(params:)` carrying the
/// parameters when JSON cannot hold one of them.
struct JSONParameterEncoder {
    static void encode(const AnyMap* parameters, URLRequest& request);
};

static_assert(ParameterEncoder<URLParameterEncoder> && ParameterEncoder<JSONParameterEncoder>);

}  // namespace zul
