#include "zul/platform/url.hpp"

#include "platform/ascii.hpp"
#include "platform/percent_encoding.hpp"

#include <curl/curl.h>

#include <array>
#include <new>

namespace zul {

namespace {

// RFC 3986: scheme = ALPHA *( ALPHA / DIGIT / "+" / "-" / "." ). libcurl also takes a leading
// digit; a URL of ours names a scheme the generic syntax recognises.
bool isSchemeStart(char c) noexcept { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

bool isSchemeChar(char c) noexcept {
    return isSchemeStart(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
}

bool hasValidScheme(std::string_view text) noexcept {
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos || colon == 0 || !isSchemeStart(text[0])) return false;
    for (std::size_t i = 1; i < colon; ++i) {
        if (!isSchemeChar(text[i])) return false;
    }
    return true;
}

// Bytes a path component may carry as they are: unreserved characters, sub-delims, ":", "@"
// and "/". Anything else would change what the URL means ("?", "#"), read as an escape ("%"),
// or is not allowed in a URL at all (space, controls, non-ASCII bytes).
constexpr detail::PercentEncodingSet pathAllowed("!$&'()*+,-./:;=@_~");

// The text between two offsets of a layout. Clamped, so that the accessors of a URL whose text
// was moved away read empty parts instead of throwing from noexcept functions.
std::string_view slice(std::string_view text, std::size_t begin, std::size_t end) noexcept {
    if (begin > text.size()) begin = text.size();
    if (end < begin) end = begin;
    return text.substr(begin, end - begin);
}

struct HostAndPort {
    std::string_view host;  // without the brackets of an IPv6 literal
    std::string_view port;  // the text after ":", empty when there is none
};

// Reads the host and port of an authority, past its user-info ("user:password@"). The
// user-info cannot hold an "@" of its own, so the last one ends it.
HostAndPort splitAuthority(std::string_view authority) noexcept {
    const std::size_t at = authority.rfind('@');
    if (at != std::string_view::npos) authority.remove_prefix(at + 1);
    HostAndPort parts;
    if (!authority.empty() && authority.front() == '[') {
        const std::size_t close = authority.find(']');
        if (close == std::string_view::npos) {
            parts.host = authority.substr(1);
            return parts;
        }
        parts.host = authority.substr(1, close - 1);
        const std::string_view rest = authority.substr(close + 1);
        if (!rest.empty() && rest.front() == ':') parts.port = rest.substr(1);
        return parts;
    }
    const std::size_t colon = authority.find(':');
    parts.host = authority.substr(0, colon);
    if (colon != std::string_view::npos) parts.port = authority.substr(colon + 1);
    return parts;
}

// One URL handle per thread, so that checking a URL does not allocate a handle every time. The
// handle is emptied after each use: given a URL while it holds one, libcurl resolves the new text
// against the old, and would then accept relative text.
class CurlURLChecker {
public:
    CurlURLChecker() = default;
    CurlURLChecker(const CurlURLChecker&) = delete;
    CurlURLChecker& operator=(const CurlURLChecker&) = delete;
    ~CurlURLChecker() { curl_url_cleanup(handle_); }

    bool accepts(const char* text) {
        if (handle_ == nullptr) {
            handle_ = curl_url();
            if (handle_ == nullptr) throw std::bad_alloc();
        }
        const CURLUcode code = curl_url_set(handle_, CURLUPART_URL, text, CURLU_NON_SUPPORT_SCHEME);
        curl_url_set(handle_, CURLUPART_URL, nullptr, 0);
        if (code == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
        return code == CURLUE_OK;
    }

private:
    CURLU* handle_ = nullptr;
};

}  // namespace

URL::Layout URL::split(std::string_view text) noexcept {
    // One pass over the text: a scheme ends at the first ':' that comes before any '/', '?' or
    // '#'; an authority runs from "//" to the next '/', '?' or '#'; the path to the next '?' or
    // '#'; the query to the next '#'.
    Layout layout;
    const std::size_t size = text.size();
    std::size_t i = 0;
    std::size_t rest = 0;
    for (; i < size; ++i) {
        const char c = text[i];
        if (c == ':') {
            layout.schemeEnd = i;
            rest = i + 1;
            break;
        }
        if (c == '/' || c == '?' || c == '#') break;
    }
    i = rest;
    if (size - rest >= 2 && text[rest] == '/' && text[rest + 1] == '/') {
        layout.hasAuthority = true;
        layout.authorityBegin = rest + 2;
        for (i = layout.authorityBegin; i < size; ++i) {
            const char c = text[i];
            if (c == '/' || c == '?' || c == '#') break;
        }
    } else {
        layout.authorityBegin = rest;
    }
    layout.pathBegin = i;
    while (i < size && text[i] != '?' && text[i] != '#') ++i;
    layout.pathEnd = i;
    if (i < size && text[i] == '?') {
        while (i < size && text[i] != '#') ++i;
    }
    layout.queryEnd = i;
    return layout;
}

URL URL::trusted(std::string text) {
    const Layout layout = split(text);
    return URL(std::move(text), layout);
}

std::optional<URL> URL::fromString(std::string_view text) {
    // Whether a text is a valid URL depends on the text alone, so the last text this thread
    // accepted needs no second look: an application parses the same base address over and over.
    thread_local std::shared_ptr<const std::string> lastAccepted;
    thread_local Layout lastLayout;
    if (lastAccepted && text == *lastAccepted) return URL(lastAccepted, lastLayout);

    // libcurl reads a C string: an embedded NUL would hide the rest of the text from it.
    if (!hasValidScheme(text) || text.find('\0') != std::string_view::npos) return std::nullopt;
    std::string owned(text);
    thread_local CurlURLChecker checker;
    if (!checker.accepts(owned.c_str())) return std::nullopt;

    const Layout layout = split(owned);
    // libcurl mends the slashes of "https:/h" and "https:///h" and finds the host "h"; read as
    // written, those have no host (no authority gives an empty one). Only "file" URLs may go
    // without a host.
    if (!detail::equalsIgnoringASCIICase(slice(owned, 0, layout.schemeEnd), "file") &&
        splitAuthority(slice(owned, layout.authorityBegin, layout.pathBegin)).host.empty()) {
        return std::nullopt;
    }
    URL url(std::move(owned), layout);
    lastAccepted = url.text_;
    lastLayout = layout;
    return url;
}

const std::string& URL::emptyText() noexcept {
    static const std::string empty;
    return empty;
}

std::string_view URL::scheme() const noexcept { return slice(text(), 0, layout_.schemeEnd); }

std::string URL::host() const {
    if (!layout_.hasAuthority) return {};
    return std::string(splitAuthority(slice(text(), layout_.authorityBegin, layout_.pathBegin)).host);
}

std::optional<int> URL::port() const {
    if (!layout_.hasAuthority) return std::nullopt;
    const std::string_view port = splitAuthority(slice(text(), layout_.authorityBegin, layout_.pathBegin)).port;
    if (port.empty()) return std::nullopt;
    int value = 0;
    for (const char c : port) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + (c - '0');
        if (value > 65535) return std::nullopt;
    }
    return value;
}

std::string_view URL::path() const noexcept {
    return slice(text(), layout_.pathBegin, layout_.pathEnd);
}

std::optional<std::string_view> URL::query() const noexcept {
    if (layout_.queryEnd == layout_.pathEnd) return std::nullopt;
    return slice(text(), layout_.pathEnd + 1, layout_.queryEnd);
}

std::optional<std::string_view> URL::fragment() const noexcept {
    if (layout_.queryEnd >= text().size()) return std::nullopt;
    return slice(text(), layout_.queryEnd + 1, text().size());
}

URL URL::appendingPathComponent(std::string_view component) const {
    const std::string_view currentPath = path();
    const bool endsWithSlash = !currentPath.empty() && currentPath.back() == '/';
    bool slash;
    if (currentPath.empty() || endsWithSlash) {
        // Exactly one "/" between: the path's own, or the one an empty path gets.
        if (!component.empty() && component.front() == '/') component.remove_prefix(1);
        slash = currentPath.empty();
    } else {
        slash = component.empty() || component.front() != '/';
    }

    const std::size_t inserted = (slash ? 1 : 0) + pathAllowed.encodedSize(component);
    const std::string& current = text();
    std::string appended;
    appended.reserve(current.size() + inserted);
    appended.append(current, 0, layout_.pathEnd);
    if (slash) appended += '/';
    pathAllowed.append(appended, component);
    appended.append(current, layout_.pathEnd, std::string::npos);

    // Only the end of the path moves; the parts before it stay where they were.
    Layout layout = layout_;
    layout.pathEnd += inserted;
    layout.queryEnd += inserted;
    return URL(std::move(appended), layout);
}

}  // namespace zul
