#pragma once

/// `URLRequest` and `HTTPHeaders`: an HTTP request as the URL loading system takes it.
///
///     zul::URLRequest request(zul::URL::fromString("https://api.example.com/v1/movies"));
///     request.setHTTPMethod("POST");
///     request.setValue("application/json", "Content-Type");   // set: replaces
///     request.addValue("gzip", "Accept-Encoding");             // add: appends with ","
///     request.setHTTPBody(zul::dataFromString("{}"));

#include <atomic>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zul/platform/data.hpp"
#include "zul/platform/url.hpp"

namespace zul {

/// Header fields: names compare case-insensitively and keep the spelling they were first set
/// with; fields iterate in the order they were first set.
class HTTPHeaders {
public:
    using Field = std::pair<std::string, std::string>;

    HTTPHeaders() = default;
    HTTPHeaders(std::initializer_list<Field> fields);

    /// The value of the field named `name` in any case, or absent.
    std::optional<std::string> value(std::string_view name) const;
    /// Whether a field named `name` in any case is set.
    bool contains(std::string_view name) const { return find(name) != fields_.end(); }
    /// Sets the field, replacing its value; an absent value removes the field.
    void setValue(std::optional<std::string> value, std::string_view name);
    /// Adds to the field: a new field is set; an existing one gets "," and `value` appended.
    void addValue(std::string_view value, std::string_view name);

    bool empty() const noexcept { return fields_.empty(); }
    std::size_t size() const noexcept { return fields_.size(); }
    std::vector<Field>::const_iterator begin() const noexcept { return fields_.begin(); }
    std::vector<Field>::const_iterator end() const noexcept { return fields_.end(); }

    /// Equal when they hold the same fields with the same values, names compared in any case.
    friend bool operator==(const HTTPHeaders& a, const HTTPHeaders& b);

private:
    std::vector<Field>::iterator find(std::string_view name);
    std::vector<Field>::const_iterator find(std::string_view name) const;
    std::vector<Field> fields_;
};

/// How a request uses caches; the values are the platform's.
enum class URLRequestCachePolicy {
    useProtocolCachePolicy = 0,
    reloadIgnoringLocalCacheData = 1,
    reloadIgnoringLocalAndRemoteCacheData = 4,
    returnCacheDataElseLoad = 2,
    returnCacheDataDontLoad = 3,
    reloadRevalidatingCacheData = 5,
};

/// A request is a value: copies are independent. They share their fields until one of them
/// changes, so handing a request from one stage to the next costs no allocation.
class URLRequest {
public:
    /// The time-out of a request made without one: 60 seconds.
    static constexpr double defaultTimeoutInterval = 60.0;

    explicit URLRequest(std::optional<URL> url = std::nullopt,
                        URLRequestCachePolicy cachePolicy = URLRequestCachePolicy::useProtocolCachePolicy,
                        double timeoutInterval = defaultTimeoutInterval);
    URLRequest(const URLRequest& other) noexcept;
    URLRequest(URLRequest&& other) noexcept : shared_(std::exchange(other.shared_, nullptr)) {}
    URLRequest& operator=(const URLRequest& other) noexcept;
    URLRequest& operator=(URLRequest&& other) noexcept;
    ~URLRequest();

    const std::optional<URL>& url() const noexcept { return fields().url; }
    void setURL(std::optional<URL> url) { edit().url = std::move(url); }

    /// "GET" unless set.
    const std::string& httpMethod() const noexcept { return fields().httpMethod; }
    void setHTTPMethod(std::string method) { edit().httpMethod = std::move(method); }

    const HTTPHeaders& allHTTPHeaderFields() const noexcept { return fields().headers; }
    std::optional<std::string> value(std::string_view field) const { return fields().headers.value(field); }
    void setValue(std::optional<std::string> value, std::string_view field) { edit().headers.setValue(std::move(value), field); }
    void addValue(std::string_view value, std::string_view field) { edit().headers.addValue(value, field); }

    const std::optional<Data>& httpBody() const noexcept { return fields().httpBody; }
    void setHTTPBody(std::optional<Data> body) { edit().httpBody = std::move(body); }

    /// Seconds the transfer may stay idle before it fails (whole seconds count).
    double timeoutInterval() const noexcept { return fields().timeoutInterval; }
    void setTimeoutInterval(double seconds) { edit().timeoutInterval = seconds; }

    URLRequestCachePolicy cachePolicy() const noexcept { return fields().cachePolicy; }
    void setCachePolicy(URLRequestCachePolicy policy) { edit().cachePolicy = policy; }

    friend bool operator==(const URLRequest& a, const URLRequest& b);

private:
    // What a request holds.
    struct Fields {
        std::optional<URL> url;
        std::string httpMethod = "GET";
        HTTPHeaders headers;
        std::optional<Data> httpBody;
        URLRequestCachePolicy cachePolicy = URLRequestCachePolicy::useProtocolCachePolicy;
        double timeoutInterval = defaultTimeoutInterval;

        friend bool operator==(const Fields&, const Fields&) = default;
    };
    // The fields with the count of the requests sharing them.
    struct Shared {
        Fields fields;
        std::atomic<std::size_t> references{1};
    };

    static const Fields& defaultFields() noexcept;
    const Fields& fields() const noexcept { return shared_ != nullptr ? shared_->fields : defaultFields(); }
    Fields& edit();  // this request's own fields, copied first when they are shared

    Shared* shared_ = nullptr;  // null: the fields of URLRequest()
};

}  // namespace zul
