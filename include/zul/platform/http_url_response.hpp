#pragma once

/// `HTTPURLResponse`: the status line and headers of an HTTP response.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "zul/platform/url.hpp"
#include "zul/platform/url_request.hpp"

namespace zul {

class HTTPURLResponse {
public:
    HTTPURLResponse(std::optional<URL> url, std::int64_t statusCode, HTTPHeaders headerFields);

    /// A response whose header fields are read from `headLines` (the field lines of a response
    /// head, each ended by '\n' or "\r\n") the first time they are asked for, on the asking thread. A
    /// session makes its responses this way: most are never asked for their fields.
    static HTTPURLResponse fromHeadLines(std::optional<URL> url, std::int64_t statusCode, std::string headLines);

    /// The URL the response came from (after redirects).
    const std::optional<URL>& url() const noexcept { return url_; }
    std::int64_t statusCode() const noexcept { return statusCode_; }
    /// The header fields, names as the server wrote them, repeated fields joined with ",". Safe
    /// to call from any thread.
    const HTTPHeaders& allHeaderFields() const;
    std::optional<std::string> value(std::string_view field) const { return allHeaderFields().value(field); }

    friend bool operator==(const HTTPURLResponse& a, const HTTPURLResponse& b);

private:
    class Fields;
    HTTPURLResponse(std::optional<URL> url, std::int64_t statusCode, std::shared_ptr<const Fields> fields);

    std::optional<URL> url_;
    std::int64_t statusCode_;
    std::shared_ptr<const Fields> fields_;  // shared by copies; never changes once parsed
};

}  // namespace zul
