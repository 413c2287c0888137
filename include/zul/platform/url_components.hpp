#pragma once

/// `URLComponents` and `URLQueryItem`: a URL taken apart, for reading and replacing its query.
///
///     auto components = zul::URLComponents::fromURL(url);
///     components->setQueryItems({{{"q", "star wars"}, {"page", "2"}}});
///     components->url()->absoluteString();   // "...?q=star%20wars&page=2"
///
/// Names and values of query items are percent-encoded alike: letters, digits and
/// `- . _ ~ ! $ ' ( ) * + , ; : @ / ?` stay as they are; everything else (space, "&", "=", "#",
/// "%", non-ASCII bytes, ...) becomes "%XX" with upper-case hex. So every list of items reads
/// back as the same items.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zul/platform/url.hpp"

namespace zul {

struct URLQueryItem {
    std::string name;
    /// Absent: the item is written "name"; empty: "name=".
    std::optional<std::string> value;

    friend bool operator==(const URLQueryItem&, const URLQueryItem&) = default;
};

class URLComponents {
public:
    /// The components of `url`. (The platform can resolve a relative URL against its base here;
    /// every `URL` of this library is absolute, so `resolvingAgainstBaseURL` changes nothing.)
    static std::optional<URLComponents> fromURL(const URL& url, bool resolvingAgainstBaseURL = false);

    /// The decoded query items; absent when the URL has no query ("?"). An empty query gives an
    /// empty list.
    std::optional<std::vector<URLQueryItem>> queryItems() const;

    /// Replaces the query: absent removes it and its "?", an empty list leaves a bare "?".
    void setQueryItems(const std::optional<std::vector<URLQueryItem>>& items);

    /// The query as it will be written, percent-encoded; absent when there is none.
    const std::optional<std::string>& percentEncodedQuery() const noexcept { return query_; }

    /// The URL the components make.
    std::optional<URL> url() const;

    /// Appends the percent-encoded form of `text` under the query-item rules to `out`.
    static void appendQueryEncoded(std::string& out, std::string_view text);

private:
    URLComponents(std::string head, std::optional<std::string> query, std::optional<std::string> fragment)
        : head_(std::move(head)), query_(std::move(query)), fragment_(std::move(fragment)) {}

    std::string head_;  // scheme, authority and path, as written
    std::optional<std::string> query_;
    std::optional<std::string> fragment_;
};

}  // namespace zul
