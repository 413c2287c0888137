#include "zul/platform/http_url_response.hpp"

#include <mutex>

#include "platform/header_fields.hpp"

namespace zul {

// The fields of a response: given whole, or as head lines parsed once, by the first thread that
// asks for them.
class HTTPURLResponse::Fields {
public:
    explicit Fields(HTTPHeaders fields) : fields_(std::move(fields)), parsed_(true) {}
    explicit Fields(std::string headLines) : headLines_(std::move(headLines)) {}

    const HTTPHeaders& get() const {
        if (!parsed_) {
            std::call_once(once_, [this] {
                fields_ = detail::parseHeaderFields(headLines_);
                headLines_ = std::string();
            });
        }
        return fields_;
    }

private:
    mutable std::once_flag once_;
    mutable std::string headLines_;
    mutable HTTPHeaders fields_;
    const bool parsed_ = false;
};

HTTPURLResponse::HTTPURLResponse(std::optional<URL> url, std::int64_t statusCode, HTTPHeaders headerFields)
    : HTTPURLResponse(std::move(url), statusCode, std::make_shared<const Fields>(std::move(headerFields))) {}

HTTPURLResponse::HTTPURLResponse(std::optional<URL> url, std::int64_t statusCode, std::shared_ptr<const Fields> fields)
    : url_(std::move(url)), statusCode_(statusCode), fields_(std::move(fields)) {}

HTTPURLResponse HTTPURLResponse::fromHeadLines(std::optional<URL> url, std::int64_t statusCode, std::string headLines) {
    return HTTPURLResponse(std::move(url), statusCode, std::make_shared<const Fields>(std::move(headLines)));
}

const HTTPHeaders& HTTPURLResponse::allHeaderFields() const { return fields_->get(); }

bool operator==(const HTTPURLResponse& a, const HTTPURLResponse& b) {
    return a.url_ == b.url_ && a.statusCode_ == b.statusCode_ &&
           (a.fields_ == b.fields_ || a.allHeaderFields() == b.allHeaderFields());
}

namespace detail {

HTTPHeaders parseHeaderFields(std::string_view lines) {
    HTTPHeaders fields;
    std::string_view lastName;
    while (!lines.empty()) {
        const std::size_t end = lines.find('\n');
        const std::string_view line = lines.substr(0, end);
        lines.remove_prefix(end == std::string_view::npos ? lines.size() : end + 1);
        if (line.empty()) continue;
        if (line.front() == ' ' || line.front() == '\t') {
            // An obsolete folded line continues the previous field.
            if (!lastName.empty()) {
                std::string value = fields.value(lastName).value_or(std::string());
                value += ' ';
                value += trimmedFieldText(line);
                fields.setValue(std::move(value), lastName);
            }
            continue;
        }
        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos || colon == 0) continue;  // not a field: ignored
        lastName = line.substr(0, colon);
        fields.addValue(trimmedFieldText(line.substr(colon + 1)), lastName);
    }
    return fields;
}

}  // namespace detail

}  // namespace zul
