#include "zul/platform/url_components.hpp"

#include "platform/percent_encoding.hpp"

#include <array>

namespace zul {

namespace {

// Bytes a query item's name or value may carry as they are. "&" and "=" separate items and
// their parts, "#" would start the fragment and "%" an escape, so they are encoded; so is every
// byte a URL may not hold (space, controls, `" < > [ \ ] ^ { | }` and the backquote, non-ASCII).
constexpr detail::PercentEncodingSet queryAllowed("-._~!$'()*+,;:@/?");

int hexValue(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// Percent-decodes `text`. A "%" not followed by two hex digits is kept as it is, and "+" stays
// "+": queries of this kind are not form-encoded.
std::string percentDecoded(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '%' && i + 2 < text.size()) {
            const int high = hexValue(text[i + 1]);
            const int low = hexValue(text[i + 2]);
            if (high >= 0 && low >= 0) {
                out += static_cast<char>(static_cast<unsigned char>(high * 16 + low));
                i += 2;
                continue;
            }
        }
        out += c;
    }
    return out;
}

URLQueryItem decodedItem(std::string_view text) {
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos) return URLQueryItem{percentDecoded(text), std::nullopt};
    return URLQueryItem{percentDecoded(text.substr(0, equals)), percentDecoded(text.substr(equals + 1))};
}

}  // namespace

void URLComponents::appendQueryEncoded(std::string& out, std::string_view text) { queryAllowed.append(out, text); }

std::optional<URLComponents> URLComponents::fromURL(const URL& url, bool /*resolvingAgainstBaseURL*/) {
    const std::string& text = url.text();
    const URL::Layout& layout = url.layout_;
    if (layout.pathEnd > text.size() || layout.queryEnd > text.size() || layout.queryEnd < layout.pathEnd) {
        return std::nullopt;
    }
    std::optional<std::string> query;
    if (layout.queryEnd != layout.pathEnd) query.emplace(text, layout.pathEnd + 1, layout.queryEnd - layout.pathEnd - 1);
    std::optional<std::string> fragment;
    if (layout.queryEnd < text.size()) fragment.emplace(text, layout.queryEnd + 1);
    return URLComponents(text.substr(0, layout.pathEnd), std::move(query), std::move(fragment));
}

std::optional<std::vector<URLQueryItem>> URLComponents::queryItems() const {
    if (!query_) return std::nullopt;
    std::vector<URLQueryItem> items;
    const std::string_view query = *query_;
    if (query.empty()) return items;
    std::size_t begin = 0;
    while (true) {
        const std::size_t end = query.find('&', begin);
        if (end == std::string_view::npos) {
            items.push_back(decodedItem(query.substr(begin)));
            break;
        }
        items.push_back(decodedItem(query.substr(begin, end - begin)));
        begin = end + 1;
    }
    return items;
}

void URLComponents::setQueryItems(const std::optional<std::vector<URLQueryItem>>& items) {
    if (!items) {
        query_.reset();
        return;
    }
    std::size_t size = items->empty() ? 0 : items->size() - 1;  // the "&"s
    for (const URLQueryItem& item : *items) {
        size += queryAllowed.encodedSize(item.name);
        if (item.value) size += 1 + queryAllowed.encodedSize(*item.value);
    }
    // A query already there lends its buffer.
    std::string& query = query_ ? *query_ : query_.emplace();
    query.clear();
    query.reserve(size);
    bool first = true;
    for (const URLQueryItem& item : *items) {
        if (!first) query += '&';
        first = false;
        appendQueryEncoded(query, item.name);
        if (item.value) {
            query += '=';
            appendQueryEncoded(query, *item.value);
        }
    }
}

std::optional<URL> URLComponents::url() const {
    std::string text;
    text.reserve(head_.size() + (query_ ? 1 + query_->size() : 0) + (fragment_ ? 1 + fragment_->size() : 0));
    text += head_;
    if (query_) {
        text += '?';
        text += *query_;
    }
    if (fragment_) {
        text += '#';
        text += *fragment_;
    }
    return URL::trusted(std::move(text));
}

}  // namespace zul
