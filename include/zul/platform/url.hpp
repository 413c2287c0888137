#pragma once

/// `URL`: an absolute URL, validated by libcurl's URL parser and kept as the text it was made
/// from (no normalisation), the way the platform's URL type keeps its string.
///
///     auto base = zul::URL::fromString("https://api.example.com/v1");   // absent if invalid
///     base->appendingPathComponent("movies").absoluteString();          // "https://api.example.com/v1/movies"

#include <compare>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace zul {

class URL {
public:
    /// Parses `text`; absent when it is not a valid absolute URL (a scheme, and for schemes with
    /// an authority a valid host and port). Any scheme is accepted.
    static std::optional<URL> fromString(std::string_view text);

    /// The URL's text, exactly as made.
    const std::string& absoluteString() const noexcept { return text(); }

    /// The scheme, as written ("https").
    std::string_view scheme() const noexcept;
    /// The host, as written, without brackets for IPv6 literals; empty when there is none.
    std::string host() const;
    /// The port, when the URL names one.
    std::optional<int> port() const;
    /// The path, percent-encoded as written ("/v1/movies"); empty when there is none.
    std::string_view path() const noexcept;
    /// The percent-encoded query after "?", when there is a "?" (possibly empty).
    std::optional<std::string_view> query() const noexcept;
    /// The fragment after "#", when there is a "#".
    std::optional<std::string_view> fragment() const noexcept;

    /// This URL with `component` appended to its path as one component: a "/" is put between
    /// them unless the path already ends with one (a leading "/" of the component is dropped
    /// then); an empty path becomes "/" + component; a "/" inside or at the end of the component
    /// is kept; characters outside the path's allowed set ("?", "#", "%", space, non-ASCII, ...)
    /// are percent-encoded. The query and fragment stay.
    URL appendingPathComponent(std::string_view component) const;

    friend bool operator==(const URL& a, const URL& b) noexcept { return a.text() == b.text(); }
    friend std::strong_ordering operator<=>(const URL& a, const URL& b) noexcept { return a.text() <=> b.text(); }

private:
    friend class URLComponents;

    // Offsets into the text of the generic-syntax parts (scheme ":" ["//" authority] path
    // ["?" query] ["#" fragment]).
    struct Layout {
        std::size_t schemeEnd = 0;      // index of ':'
        std::size_t authorityBegin = 0; // after "//", or pathBegin when there is no authority
        std::size_t pathBegin = 0;
        std::size_t pathEnd = 0;        // index of '?' or '#', or size
        std::size_t queryEnd = 0;       // index of '#', or size (== pathEnd when no query)
        bool hasAuthority = false;
    };

    URL(std::string text, Layout layout)
        : text_(std::make_shared<const std::string>(std::move(text))), layout_(layout) {}
    URL(std::shared_ptr<const std::string> text, Layout layout) : text_(std::move(text)), layout_(layout) {}
    /// `text` must already be a valid URL (made from a valid one by adding encoded parts).
    static URL trusted(std::string text);
    static Layout split(std::string_view text) noexcept;

    /// The text; empty once moved from.
    const std::string& text() const noexcept { return text_ ? *text_ : emptyText(); }
    static const std::string& emptyText() noexcept;

    // Shared by copies, and never changed: a URL is copied far more often than made (into
    // requests, responses, services, redirects), and a copy then costs a reference count
    // instead of an allocation.
    std::shared_ptr<const std::string> text_;
    Layout layout_;
};

}  // namespace zul
