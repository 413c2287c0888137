#pragma once

/// `RegularExpression`: PCRE2 patterns with the platform engine's semantics: Unicode-aware "\w",
/// "\d" and case folding, "." never matching a line terminator, and templates in which "$n"
/// stands for group n ("" when it did not take part), "$" not followed by a digit is literal and
/// a backslash escapes the next character.
///
///     static const auto pattern = zul::RegularExpression::compile("(.*):(\\d+)(.*)", {.caseInsensitive = true});
///     std::string value = pattern->replacingMatches(line, "$2");

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zul {

class RegularExpression {
public:
    struct Options {
        bool caseInsensitive = false;
    };
    /// A match: the byte ranges of the whole match (group 0) and of each group (absent when the
    /// group did not take part).
    struct Match {
        std::vector<std::optional<std::pair<std::size_t, std::size_t>>> groups;  // (offset, length)
    };

    /// The compiled pattern, or null when it does not compile.
    static std::shared_ptr<const RegularExpression> compile(std::string_view pattern, Options options);
    static std::shared_ptr<const RegularExpression> compile(std::string_view pattern) {
        return compile(pattern, Options{});
    }
    ~RegularExpression();
    RegularExpression(const RegularExpression&) = delete;
    RegularExpression& operator=(const RegularExpression&) = delete;

    /// All non-overlapping matches in `text`, in order.
    std::vector<Match> matches(std::string_view text) const;
    /// Whether `text` holds a match.
    bool hasMatch(std::string_view text) const;
    /// `text` with every match replaced by `replacementTemplate`.
    std::string replacingMatches(std::string_view text, std::string_view replacementTemplate) const;

private:
    struct Compiled;
    explicit RegularExpression(std::unique_ptr<Compiled> compiled);
    std::unique_ptr<Compiled> compiled_;
};

}  // namespace zul
