#pragma once

// Reading the field lines of an HTTP response head.

#include <string_view>

#include "zul/platform/url_request.hpp"

namespace zul::detail {

/// `text` without the spaces, tabs and line ends around it.
constexpr std::string_view trimmedFieldText(std::string_view text) noexcept {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' || text.back() == '\n')) {
        text.remove_suffix(1);
    }
    return text;
}

/// The fields of a response head given as lines ended by '\n' or "\r\n" (an obsolete folded line, which
/// starts with a space or a tab, continues the field before it; lines without a name are
/// ignored).
HTTPHeaders parseHeaderFields(std::string_view lines);

}  // namespace zul::detail
