#pragma once

/// `HTTPURLResponse`: the status line and headers of an HTTP response.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "zul/platform/url.hpp"
#include "zul/platform/url_request.hpp"

namespace zul {

class HTTPURLResponse {
public:
    HTTPURLResponse(std::optional<URL> url, std::int64_t statusCode, HTTPHeaders headerFields)
        : url_(std::move(url)), statusCode_(statusCode), headerFields_(std::move(headerFields)) {}

    /// The URL the response came from (after redirects).
    const std::optional<URL>& url() const noexcept { return url_; }
    std::int64_t statusCode() const noexcept { return statusCode_; }
    const HTTPHeaders& allHeaderFields() const noexcept { return headerFields_; }
    std::optional<std::string> value(std::string_view field) const { return headerFields_.value(field); }

    friend bool operator==(const HTTPURLResponse&, const HTTPURLResponse&) = default;

private:
    std::optional<URL> url_;
    std::int64_t statusCode_;
    HTTPHeaders headerFields_;
};

}  // namespace zul
