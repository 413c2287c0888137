#pragma once

/// Service descriptions: an application describes each endpoint once as a `ServiceType` and
/// hands it to the router, which turns it into a request.
///
///     struct MovieService final : zul::ServiceType {
///         int page;
///         zul::BaseURLOptions baseURL() const override { return zul::BaseURLOptions::apiService(); }
///         std::string path() const override { return "v1/movies"; }
///         zul::Task task() const override {
///             return zul::Task::requestParameters({{"page", page}}, zul::ParameterEncoding::query);
///         }
///     };
///
/// With an environment whose host is "api.example.com", that service becomes
/// `GET https://api.example.com/v1/movies?page=2` with a 15-second time-out.

#include <functional>
#include <optional>
#include <string>
#include <variant>

#include "zul/network/parameter_encoding.hpp"
#include "zul/platform/any_value.hpp"
#include "zul/platform/data.hpp"
#include "zul/platform/ordered_map.hpp"
#include "zul/platform/url.hpp"
#include "zul/platform/url_request.hpp"

namespace zul {

/// Header fields of a service or router, name to value, in insertion order.
using HeaderMap = OrderedMap<std::string>;

/// The URL scheme of a service built on the environment's host.
class SchemaType {
public:
    enum class Kind { custom, https, http };

    static SchemaType custom(std::string scheme) { return SchemaType(Kind::custom, std::move(scheme)); }
    static SchemaType https() { return SchemaType(Kind::https, {}); }
    static SchemaType http() { return SchemaType(Kind::http, {}); }

    Kind kind() const noexcept { return kind_; }
    /// "https", "http", or a custom scheme's text verbatim.
    std::string description() const;

    friend bool operator==(const SchemaType&, const SchemaType&) = default;

private:
    SchemaType(Kind kind, std::string custom) : kind_(kind), custom_(std::move(custom)) {}
    Kind kind_;
    std::string custom_;
};

/// Where a service's base address comes from: a complete URL, or the router's environment.
class BaseURLOptions {
public:
    enum class Kind { custom, apiService };

    static BaseURLOptions custom(URL url) { return BaseURLOptions(std::move(url)); }
    static BaseURLOptions apiService() { return BaseURLOptions(std::nullopt); }

    Kind kind() const noexcept { return url_ ? Kind::custom : Kind::apiService; }
    /// The URL of a `custom` base address; null for `apiService`.
    const URL* customURL() const noexcept { return url_ ? &*url_ : nullptr; }
    /// The URL of a `custom` base address, moved out; absent for `apiService`.
    std::optional<URL> takeCustomURL() && { return std::move(url_); }

    friend bool operator==(const BaseURLOptions&, const BaseURLOptions&) = default;

private:
    explicit BaseURLOptions(std::optional<URL> url) : url_(std::move(url)) {}
    std::optional<URL> url_;
};

enum class HTTPMethod { get, post, put, patch, options, delete_, head, trace };

/// The method token put on the wire: "GET", "POST", ...
std::string_view description(HTTPMethod method) noexcept;

/// How a response body is to be decoded.
enum class ResponseFormat { json, image, rawData, custom };

/// The application's own back end, for services whose base address is `apiService`.
class NetworkEnvironment {
public:
    virtual ~NetworkEnvironment() = default;
    /// The host name, optionally with ":port".
    virtual std::string host() const = 0;
};

/// The body and query of a request.
class Task {
public:
    /// Edits the request in place; may throw to stop the request.
    using Preparation = std::function<void(URLRequest&)>;

    /// One parameter set, encoded as query or as JSON body.
    struct RequestParameters {
        AnyMap parameters;
        ParameterEncoding parameterEncoding;
    };
    /// Body parameters as JSON, URL parameters as query.
    struct RequestCompositeParameters {
        AnyMap bodyParameters;
        AnyMap urlParameters;
    };
    /// A raw body (absent: none) and query parameters.
    struct RequestWithData {
        std::optional<Data> bodyData;
        AnyMap urlParameters;
    };
    /// The service edits the request itself.
    struct Custom {
        Preparation preparation;
    };
    /// No body and no parameters.
    struct Request {};

    using Case = std::variant<RequestParameters, RequestCompositeParameters, RequestWithData, Custom, Request>;

    static Task requestParameters(AnyMap parameters, ParameterEncoding encoding) {
        return Task(RequestParameters{std::move(parameters), encoding});
    }
    static Task requestCompositeParameters(AnyMap bodyParameters, AnyMap urlParameters) {
        return Task(RequestCompositeParameters{std::move(bodyParameters), std::move(urlParameters)});
    }
    static Task requestWithData(std::optional<Data> bodyData, AnyMap urlParameters) {
        return Task(RequestWithData{std::move(bodyData), std::move(urlParameters)});
    }
    static Task custom(Preparation preparation) { return Task(Custom{std::move(preparation)}); }
    static Task request() { return Task(Request{}); }

    /// The case, for `std::visit` or `std::get_if`.
    const Case& value() const noexcept { return case_; }

private:
    explicit Task(Case value) : case_(std::move(value)) {}
    Case case_;
};

/// Per-call settings of the router's get/post conveniences.
struct NetworkRequestParameters {
    /// Seconds; absent means the default of 15.
    std::optional<double> timeout;
};

/// An endpoint. Implement the three required members; the others have the defaults shown. The
/// router reads every member afresh each time it needs it, so a service may compute them.
class ServiceType {
public:
    /// The time-out of a service that does not choose one: 15 seconds.
    static constexpr double defaultTimeout = 15.0;

    virtual ~ServiceType() = default;

    virtual SchemaType schema() const { return SchemaType::https(); }
    virtual BaseURLOptions baseURL() const = 0;
    /// Appended to the base address as one path component; empty leaves the base as it is.
    virtual std::string path() const = 0;
    virtual HTTPMethod httpMethod() const { return HTTPMethod::get; }
    /// Header fields, taking precedence over the router's custom headers of the same name.
    virtual std::optional<HeaderMap> headers() const { return std::nullopt; }
    virtual Task task() const = 0;
    /// Seconds the transfer may stay idle.
    virtual double timeout() const { return defaultTimeout; }
    /// Create the transfer but do not start it until the router resumes it.
    virtual bool keepSuspended() const { return false; }
    virtual ResponseFormat responseFormat() const { return ResponseFormat::json; }
    /// Whether a cancelled request still reports its failure to its completion.
    virtual bool shouldPropagateErrorAfterCancelling() const { return true; }
    /// The body stubbed answers deliver.
    virtual std::optional<Data> sampleResponse() const { return std::nullopt; }
};

/// The library's own service behind the router's get/post conveniences: a complete URL, no
/// path, and the body handed back raw.
class DataService final : public ServiceType {
public:
    enum class Kind { get, post };

    static DataService get(URL url, NetworkRequestParameters parameters = {},
                           std::optional<HeaderMap> headers = std::nullopt);
    static DataService post(URL url, std::optional<Data> data, NetworkRequestParameters parameters = {},
                            std::optional<HeaderMap> headers = std::nullopt);

    Kind kind() const noexcept { return kind_; }
    const URL& url() const noexcept { return url_; }
    const std::optional<Data>& data() const noexcept { return data_; }
    const NetworkRequestParameters& parameters() const noexcept { return parameters_; }

    BaseURLOptions baseURL() const override { return BaseURLOptions::custom(url_); }
    std::string path() const override { return {}; }
    HTTPMethod httpMethod() const override { return kind_ == Kind::get ? HTTPMethod::get : HTTPMethod::post; }
    std::optional<HeaderMap> headers() const override { return headers_; }
    Task task() const override;
    double timeout() const override { return parameters_.timeout.value_or(defaultTimeout); }
    ResponseFormat responseFormat() const override { return ResponseFormat::rawData; }

private:
    DataService(Kind kind, URL url, std::optional<Data> data, NetworkRequestParameters parameters,
                std::optional<HeaderMap> headers)
        : kind_(kind), url_(std::move(url)), data_(std::move(data)), parameters_(parameters), headers_(std::move(headers)) {}

    Kind kind_;
    URL url_;
    std::optional<Data> data_;
    NetworkRequestParameters parameters_;
    std::optional<HeaderMap> headers_;
};

}  // namespace zul
